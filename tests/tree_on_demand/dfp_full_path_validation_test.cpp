// Validation of a full Dragonfly+ path: degrees inside the path, pruning of useless
// leaves, the node of highest degree and the weakest root's outbound links.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "common/am_assert.h"
#include "support/dfp_islands.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/dfp_records.h"

namespace {

class FullPathValidation : public ::testing::Test {
protected:
    FullPathValidation() : fabric(Sketch()), comparer(&islands), path(islands, degrees, comparer) {
        AddIsland(1, {"a1", "a2"}, 4);
        AddIsland(2, {"b"}, 4);
        AddIsland(3, {"c"}, 4);
    }

    static FabricSketch Sketch() {
        FabricSketch sketch;
        sketch.DfpSwitch("a1", 1, 1)
            .DfpSwitch("a2", 1, 1)
            .DfpSwitch("b", 1, 2)
            .DfpSwitch("c", 1, 3)
            .DfpSwitch("x", 1, 7)
            .DfpSwitch("y", 1, 8);
        return sketch;
    }

    void AddIsland(uint16_t id, const std::vector<std::string>& roots, uint16_t links) {
        AddDfpIsland(islands, fabric, id, roots, links);
        for (const std::string& root : roots) {
            degrees[N(root)] = NodeDegrees{1, 1};
        }
    }

    const AggNode* N(const std::string& name) { return fabric.Switch(name); }

    void Link(const char* a, const char* b) {
        siblings[N(a)].insert(N(b));
        siblings[N(b)].insert(N(a));
    }

    // Puts nodes on the path the way the search does: roots enter their island.
    void OnPath(std::initializer_list<const char*> names) {
        for (const char* name : names) {
            const AggNode* node = N(name);
            path.m_path_nodes.insert(node);
            auto island = islands.find(GetAggNodeIslandId(node));
            if (island != islands.end() && island->second->island_roots.count(node) != 0) {
                path.m_required_island_nodes[island->first].insert(node);
            } else {
                ++path.m_n_childless_islands;
            }
        }
    }

    std::vector<std::string> Names(const AggNodeSet& nodes) {
        std::vector<std::string> names;
        for (const AggNode* node : nodes) {
            names.push_back(node->name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    InstalledFabric fabric;
    DfpIslandMap islands;
    NodeDegreesMap degrees;
    DfpNodeComparer comparer;
    DfpTraversalPath path;
    NodeSiblingsMap siblings;
};

TEST_F(FullPathValidation, PathWhoseNodesAllHaveTwoNeighboursOnItIsNotPruned) {
    Link("a1", "b");
    Link("b", "c");
    Link("c", "a1");
    Link("c", "y");  // off the path: lowers c's degree only
    OnPath({"a1", "b", "c"});
    LogCapture log;
    path.ValidateOnFullPath(siblings);
    EXPECT_EQ(Names(path.m_path_nodes), (std::vector<std::string>{"a1", "b", "c"}));
    EXPECT_EQ(path.m_node_degrees.at(N("a1")), 2);
    EXPECT_EQ(path.m_node_degrees.at(N("b")), 2);
    EXPECT_EQ(path.m_node_degrees.at(N("c")), 2);
    EXPECT_EQ(path.m_max_degree, 2);
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "ValidateOnFullPath After removel of"))
        << log.Dump();
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "ValidateOnFullPath - Remove")) << log.Dump();
    EXPECT_EQ(log.Messages(kLogLevelDebug).back(), "m_min_outbound_links=1 m_max_degree=2");
}

TEST_F(FullPathValidation, DuplicateRootLeafOfACoveredIslandGoesAndTheLastOneStays) {
    Link("a1", "b");
    Link("b", "a2");
    OnPath({"a1", "b", "a2"});
    // The pruning walks a copy of the path's set; the first of a1 and a2 met goes.
    const AggNodeSet walk_order = path.m_path_nodes;
    const AggNode* first = nullptr;
    for (const AggNode* node : walk_order) {
        if (node != N("b")) {
            first = node;
            break;
        }
    }
    const AggNode* second = first == N("a1") ? N("a2") : N("a1");
    LogCapture log;
    path.ValidateOnFullPath(siblings);
    EXPECT_EQ(path.m_path_nodes, (AggNodeSet{N("b"), second}));
    EXPECT_EQ(path.m_required_island_nodes.at(1), AggNodeSet{second});
    EXPECT_EQ(path.m_node_degrees.count(first), 0u);
    EXPECT_EQ(path.m_node_degrees.at(N("b")), 1);
    EXPECT_EQ(path.m_node_degrees.at(second), 1);
    EXPECT_EQ(log.Count(kLogLevelDebug,
                        "ValidateOnFullPath - Remove duplicate leaf: " + first->name + "\n"),
              1u)
        << log.Dump();
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "Remove duplicate leaf: " + second->name));
    EXPECT_TRUE(
        log.ContainsFragment(kLogLevelDebug, "ValidateOnFullPath After removel of 1 nodes, path: "))
        << log.Dump();
}

TEST_F(FullPathValidation, LeafThatIsNoRootGoesAndItsNeighbourIsLookedAtNext) {
    Link("a1", "b");
    Link("b", "x");
    Link("x", "y");
    OnPath({"a1", "b", "x", "y"});
    LogCapture log;
    path.ValidateOnFullPath(siblings);
    EXPECT_EQ(Names(path.m_path_nodes), (std::vector<std::string>{"a1", "b"}));
    EXPECT_EQ(path.m_node_degrees.at(N("b")), 1);
    std::vector<std::string> removals;
    for (const std::string& message : log.Messages(kLogLevelDebug)) {
        if (message.rfind("ValidateOnFullPath - Remove", 0) == 0) {
            removals.push_back(message);
        }
    }
    EXPECT_EQ(removals,
              (std::vector<std::string>{"ValidateOnFullPath - Remove childless node: y\n",
                                        "ValidateOnFullPath - Remove childless node: x\n"}));
    std::string text;
    for (const AggNode* node : path.m_path_nodes) {
        text += (text.empty() ? "" : ", ") + node->name;
    }
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "ValidateOnFullPath After removel of 2 nodes, path: " + text + "\n"))
        << log.Dump();
}

TEST_F(FullPathValidation, PruningEverythingIsABrokenInvariant) {
    Link("x", "y");
    OnPath({"x", "y"});
    LogCapture log;
    try {
        path.ValidateOnFullPath(siblings);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "m_node_degrees is empty");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(!m_node_degrees.empty()) failed. "
                                       "m_node_degrees is empty"});
}

TEST_F(FullPathValidation, AmongEqualDegreesTheFirstStaysUnlessTheComparerPrefersAnother) {
    Link("a1", "b");
    Link("b", "c");
    Link("c", "a1");
    OnPath({"a1", "b", "c"});
    LogCapture log;
    path.ValidateOnFullPath(siblings);
    // Every island has 4 outbound links: the comparer keeps the first of the map.
    EXPECT_EQ(path.m_max_degree_node, path.m_node_degrees.begin()->first);
    EXPECT_EQ(path.m_max_degree, 2);
    const std::string first = path.m_node_degrees.begin()->first->name;
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "ValidateOnFullPath max_degree candidate: " + first +
                                                 " max_degree: 2 > 0 of curr_best: <null>\n"))
        << log.Dump();
    size_t comparisons = 0;
    for (const LogCapture::Entry& entry : log.Entries()) {
        if (entry.message.rfind("NodeCompare: curr_best: " + first, 0) == 0) {
            EXPECT_EQ(entry.function, "IsCandidateBetter");
            EXPECT_NE(entry.message.find("candidate_better?: 0. reason: curr_best_good_enough\n"),
                      std::string::npos)
                << entry.message;
            ++comparisons;
        }
    }
    EXPECT_EQ(comparisons, 2u) << log.Dump();
}

TEST_F(FullPathValidation, EqualDegreeNodeOfABetterConnectedIslandTakesOver) {
    islands.at(2)->outbound_links = 9;
    Link("a1", "b");
    Link("b", "c");
    Link("c", "a1");
    OnPath({"a1", "b", "c"});
    path.ValidateOnFullPath(siblings);
    EXPECT_EQ(path.m_max_degree_node, N("b"));
    EXPECT_EQ(path.m_max_degree, 2);
}

TEST_F(FullPathValidation, HigherDegreeReplacesTheBestWithoutComparing) {
    Link("a1", "b");
    Link("b", "c");
    OnPath({"a1", "b", "c"});
    LogCapture log;
    path.ValidateOnFullPath(siblings);
    EXPECT_EQ(path.m_max_degree_node, N("b"));
    EXPECT_EQ(path.m_max_degree, 2);
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "candidate: b. candidate_better?"))
        << log.Dump();
}

TEST_F(FullPathValidation, ZeroOutboundLinksCountAsNotSetAndAreOverwritten) {
    Link("a1", "b");
    Link("b", "c");
    Link("c", "a1");
    OnPath({"a1", "b", "c"});
    // Hand out 0, 5 and 3 in the order in which the path's set is walked.
    const uint16_t links[] = {0, 5, 3};
    size_t i = 0;
    for (const AggNode* node : path.m_path_nodes) {
        degrees[node].outbound_links = links[i++];
    }
    LogCapture log;
    path.ValidateOnFullPath(siblings);
    EXPECT_EQ(path.m_min_outbound_links, 3);
    EXPECT_EQ(log.Messages(kLogLevelDebug).back(), "m_min_outbound_links=3 m_max_degree=2");
}

TEST_F(FullPathValidation, TransitNodesDoNotCountForTheFewestOutboundLinks) {
    Link("a1", "x");
    Link("x", "b");
    OnPath({"a1", "x", "b"});
    degrees[N("a1")].outbound_links = 7;
    degrees[N("b")].outbound_links = 6;
    path.ValidateOnFullPath(siblings);
    EXPECT_EQ(path.m_min_outbound_links, 6);
    EXPECT_EQ(path.m_max_degree_node, N("x"));
}

TEST_F(FullPathValidation, NodeWithoutSiblingInfoIsABrokenInvariant) {
    Link("a1", "b");
    OnPath({"a1", "b", "c"});
    LogCapture log;
    try {
        path.ValidateOnFullPath(siblings);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "Node sibling info is not known: c");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(iter_siblings != map_node_to_siblings.end()) "
                                       "failed. Node sibling info is not known: c"});
    EXPECT_EQ(log.Entries().back().function, "FillNodeDegrees");
}

TEST_F(FullPathValidation, NodeWithNoSiblingOnThePathIsABrokenInvariant) {
    Link("a1", "b");
    Link("c", "x");
    OnPath({"a1", "b", "c"});
    LogCapture log;
    EXPECT_THROW(path.ValidateOnFullPath(siblings), AMAssertException);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(degree > 1) failed. Degree is about to become "
                                       "zero for node: c"});
    EXPECT_EQ(log.Entries().back().function, "FillNodeDegrees");
}

TEST_F(FullPathValidation, NodeWithAnEmptySiblingSetGetsDegreeZeroWithoutAssert) {
    Link("a1", "b");
    OnPath({"a1", "b", "c"});
    siblings[N("c")];  // c lists nobody
    LogCapture log;
    path.ValidateOnFullPath(siblings);
    EXPECT_EQ(path.m_node_degrees.at(N("c")), 0);
    EXPECT_EQ(Names(path.m_path_nodes), (std::vector<std::string>{"a1", "b", "c"}));
    EXPECT_TRUE(log.Messages(kLogLevelError).empty()) << log.Dump();
}

TEST_F(FullPathValidation, NeighbourAlreadyAtDegreeZeroIsABrokenInvariant) {
    Link("a1", "b");
    siblings[N("c")];                 // c, the last root of island 3, lists nobody
    siblings[N("x")].insert(N("c"));  // x lists c, so x's removal lowers c
    OnPath({"a1", "b", "c", "x"});
    LogCapture log;
    try {
        path.ValidateOnFullPath(siblings);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "ValidateOnFullPath Degree is 0 for adjacent node: c");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(node_degree_iter->second > 0) failed. "
                                       "ValidateOnFullPath Degree is 0 for adjacent node: c"});
}

TEST_F(FullPathValidation, RootOfAnIslandThePathNeverEnteredIsABrokenInvariant) {
    Link("a1", "b");
    OnPath({"a1", "b"});
    path.m_required_island_nodes.erase(2);
    LogCapture log;
    try {
        path.ValidateOnFullPath(siblings);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(),
                     "ValidateOnFullPath Nodes of required islands are missing. "
                     "island_id: 2");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(island_nodes_iter != "
                                       "m_required_island_nodes.end()) failed. ValidateOnFullPath "
                                       "Nodes of required islands are missing. island_id: 2"});
}

TEST_F(FullPathValidation, RootWithoutDegreesIsABrokenInvariant) {
    Link("a1", "b");
    OnPath({"a1", "b"});
    degrees.erase(N("b"));
    LogCapture log;
    try {
        path.ValidateOnFullPath(siblings);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "degree of node b is missing");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(degree_iter != "
                                       "node_to_island_connectivity.end()) failed. degree of node "
                                       "b is missing"});
}

}  // namespace
