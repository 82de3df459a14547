// Centre of an undirected tree of switches: layer-by-layer peeling, the tie-break
// between two centres, and the rejection of graphs that are not trees.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "common/am_assert.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

class TreeCenter : public ::testing::Test {
protected:
    TreeCenter() : fabric(Sketch()) {}

    static FabricSketch Sketch() {
        FabricSketch sketch;
        sketch.Switches({"a", "b", "c", "d", "e", "f", "s", "z"}, 0);
        return sketch;
    }

    const AggNode* N(const std::string& name) { return fabric.Switch(name); }

    // Adds each edge to both ends' neighbour sets.
    NodeSiblingsMap Graph(std::initializer_list<std::pair<const char*, const char*>> edges) {
        NodeSiblingsMap graph;
        for (const auto& [from, to] : edges) {
            graph[N(from)].insert(N(to));
            graph[N(to)].insert(N(from));
        }
        return graph;
    }

    InstalledFabric fabric;
    OnDemandTreeCreator creator;
};

TEST_F(TreeCenter, EmptyGraphHasNoCentre) {
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(NodeSiblingsMap{}), nullptr);
    EXPECT_EQ(log.Messages(kLogLevelWarning), std::vector<std::string>{"Input tree is empty\n"});
}

TEST_F(TreeCenter, StartIsTracedAtTheDetailLevel) {
    LogCapture log;
    creator.FindTreeCenter(Graph({{"a", "b"}, {"b", "c"}}));
    EXPECT_EQ(log.Messages(kLogLevelDetail), std::vector<std::string>{"FindCenter - Start\n"});
}

TEST_F(TreeCenter, SingleNodeIsItsOwnCentreWithoutFurtherMessages) {
    NodeSiblingsMap graph;
    graph[N("a")];
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(graph), N("a"));
    ASSERT_EQ(log.Entries().size(), 1u) << log.Dump();
    EXPECT_EQ(log.Entries()[0].message, "FindCenter - Start\n");
}

TEST_F(TreeCenter, TwoLinkedNodesGiveTheFirstOfTheMap) {
    NodeSiblingsMap graph = Graph({{"a", "b"}});
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(graph), graph.begin()->first);
    EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST_F(TreeCenter, TwoUnlinkedNodesGiveTheFirstOfTheMapWithoutCheckingEdges) {
    NodeSiblingsMap graph;
    graph[N("a")];
    graph[N("b")];
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(graph), graph.begin()->first);
    EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST_F(TreeCenter, PathOfFiveHasItsMiddleNodeTwoHopsFromBothEnds) {
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(Graph({{"a", "b"}, {"b", "c"}, {"c", "d"}, {"d", "e"}})),
              N("c"));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              std::vector<std::string>{"n_candidates=1 max_hops=2\n"});
}

TEST_F(TreeCenter, PathOfFourHasTwoCentresAndTheFirstOfEqualDegreeWins) {
    LogCapture log;
    const AggNode* centre = creator.FindTreeCenter(Graph({{"a", "b"}, {"b", "c"}, {"c", "d"}}));
    ASSERT_TRUE(centre == N("b") || centre == N("c"));
    const std::string other = centre == N("b") ? "c" : "b";
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              (std::vector<std::string>{
                  "n_candidates=2 max_hops=2\n",
                  "degree of " + centre->name + ": 2, degree of " + other + ": 2\n"}));
}

TEST_F(TreeCenter, OfTwoCentresTheOneWithMoreNeighboursWins) {
    // b carries an extra leaf e, so b and c are both centres but b has three neighbours.
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(Graph({{"a", "b"}, {"e", "b"}, {"b", "c"}, {"c", "d"}})),
              N("b"));
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "n_candidates=2 max_hops=2\n")) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "degree of b: 3, degree of c: 2\n") ||
                log.Contains(kLogLevelDebug, "degree of c: 2, degree of b: 3\n"))
        << log.Dump();
}

TEST_F(TreeCenter, StarCentreRemainsAfterOnePassOverItsLeaves) {
    LogCapture log;
    EXPECT_EQ(
        creator.FindTreeCenter(Graph({{"s", "a"}, {"s", "b"}, {"s", "c"}, {"s", "d"}, {"s", "e"}})),
        N("s"));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              std::vector<std::string>{"n_candidates=1 max_hops=1\n"});
}

TEST_F(TreeCenter, TwoSeparatePairsMakeEveryNodeACandidateAndTheFirstTwoDecide) {
    LogCapture log;
    const AggNode* centre = creator.FindTreeCenter(Graph({{"a", "b"}, {"c", "d"}}));
    ASSERT_NE(centre, nullptr);
    const std::vector<std::string> debug = log.Messages(kLogLevelDebug);
    ASSERT_EQ(debug.size(), 2u) << log.Dump();
    EXPECT_EQ(debug[0], "n_candidates=4 max_hops=1\n");
    // Equal degrees keep the first of the two compared nodes.
    EXPECT_EQ(debug[1].rfind("degree of " + centre->name + ": 1, degree of ", 0), 0u) << debug[1];
}

TEST_F(TreeCenter, TriangleHasNoLeafAndIsCyclic) {
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(Graph({{"a", "b"}, {"b", "c"}, {"c", "a"}})), nullptr);
    EXPECT_EQ(log.Messages(kLogLevelError), std::vector<std::string>{"Given graph is cyclic\n"});
}

TEST_F(TreeCenter, TriangleWithPendantPeelsThePendantThenFindsTheCycle) {
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(Graph({{"a", "b"}, {"b", "c"}, {"c", "a"}, {"a", "d"}})),
              nullptr);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"Encountered cyclic subgraph\n"});
}

TEST_F(TreeCenter, NodeWithoutNeighboursAnywhereMeansNoCentre) {
    // Whichever node the map visits first, the isolated one ends the search.
    NodeSiblingsMap graph = Graph({{"a", "b"}, {"b", "c"}, {"c", "d"}});
    graph[N("f")];
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(graph), nullptr);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"Found disconnected node: f\n"});
    EXPECT_TRUE(log.Messages(kLogLevelDebug).empty());
}

TEST_F(TreeCenter, NodeWithoutNeighboursAfterOtherNodesInTheMapMeansNoCentre) {
    // The isolated node is chosen so that some linked node comes before it in the map.
    NodeSiblingsMap graph;
    std::string lonely;
    for (const char* name : {"f", "s", "z"}) {
        graph.clear();
        graph[N(name)];
        for (const auto& [node, adjacents] : Graph({{"a", "b"}, {"b", "c"}, {"c", "d"}})) {
            graph[node] = adjacents;
        }
        if (graph.begin()->first != N(name)) {
            lonely = name;
            break;
        }
    }
    ASSERT_FALSE(lonely.empty());
    LogCapture log;
    EXPECT_EQ(creator.FindTreeCenter(graph), nullptr);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"Found disconnected node: " + lonely + "\n"});
    EXPECT_TRUE(log.Messages(kLogLevelDebug).empty());
}

TEST_F(TreeCenter, NeighbourOutsideTheGraphIsABrokenInvariant) {
    NodeSiblingsMap graph = Graph({{"b", "c"}, {"c", "d"}, {"d", "b"}});
    graph[N("a")].insert(N("z"));  // a is a leaf whose only neighbour is not a key
    LogCapture log;
    try {
        creator.FindTreeCenter(graph);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "Failed map_node_to_degree.find(z)");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(iter != map_node_to_degree.end()) failed. "
                                       "Failed map_node_to_degree.find(z)"});
}

}  // namespace
