// The traversal path of the Dragonfly+ search: the order in which it sorts candidate
// next nodes, the undoing of useless nodes after a dead end, its text form and copies.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "common/am_assert.h"
#include "support/dfp_islands.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/dfp_records.h"

namespace {

class DfpTraversalPathTest : public ::testing::Test {
protected:
    DfpTraversalPathTest()
        : fabric(Sketch()), comparer(&islands), path(islands, degrees, comparer) {
        AddIsland(1, {"r1", "r1b"});
        AddIsland(2, {"r2"});
        AddIsland(3, {"r3"});
    }

    static FabricSketch Sketch() {
        FabricSketch sketch;
        sketch.DfpSwitch("r1", 1, 1)
            .DfpSwitch("r1b", 1, 1)
            .DfpSwitch("n1", 0, 1)  // a switch of island 1 that is no root
            .DfpSwitch("r2", 1, 2)
            .DfpSwitch("r2b", 1, 2)
            .DfpSwitch("r3", 1, 3)
            .DfpSwitch("t7", 1, 7)  // islands 7 and 9 hold no job leaves
            .DfpSwitch("t9", 1, 9)
            .DfpSwitch("t9b", 1, 9)
            .Switch("plain", 1)  // no island at all
            .Switch("plain2", 1);
        return sketch;
    }

    void AddIsland(uint16_t id, const std::vector<std::string>& roots) {
        AddDfpIsland(islands, fabric, id, roots);
    }

    const AggNode* N(const std::string& name) { return fabric.Switch(name); }

    std::vector<std::string> Sorted(std::vector<std::string> names) {
        std::vector<const AggNode*> nodes;
        for (const std::string& name : names) {
            nodes.push_back(N(name));
        }
        std::sort(nodes.begin(), nodes.end(), path);
        std::vector<std::string> sorted;
        for (const AggNode* node : nodes) {
            sorted.push_back(node->name);
        }
        return sorted;
    }

    // Frames are chained child to parent, the first name being the start frame.
    const DfpBacktrackInfo* Chain(std::initializer_list<const char*> names) {
        const DfpBacktrackInfo* parent = nullptr;
        for (const char* name : names) {
            frames.push_back(std::make_unique<DfpBacktrackInfo>(DfpBacktrackInfo{N(name), parent}));
            parent = frames.back().get();
        }
        return parent;
    }

    InstalledFabric fabric;
    DfpIslandMap islands;
    NodeDegreesMap degrees;
    DfpNodeComparer comparer;
    DfpTraversalPath path;
    std::vector<std::unique_ptr<DfpBacktrackInfo>> frames;
};

// --- candidate order --------------------------------------------------------------

TEST_F(DfpTraversalPathTest, ChildlessCandidatesSortByDescendingIslandIdWithNoIslandFirst) {
    EXPECT_EQ(Sorted({"t7", "plain", "t9"}), (std::vector<std::string>{"plain", "t9", "t7"}));
    EXPECT_EQ(Sorted({"t9", "t7", "plain"}), (std::vector<std::string>{"plain", "t9", "t7"}));
}

TEST_F(DfpTraversalPathTest, ChildlessCandidatesOfOneIslandAreEquivalent) {
    EXPECT_FALSE(path(N("t9"), N("t9b")));
    EXPECT_FALSE(path(N("t9b"), N("t9")));
    EXPECT_FALSE(path(N("plain"), N("plain2")));
}

TEST_F(DfpTraversalPathTest, ChildlessIslandNodeSortsBeforeJobIslandNode) {
    EXPECT_TRUE(path(N("t7"), N("r2")));
    EXPECT_FALSE(path(N("r2"), N("t7")));
    EXPECT_TRUE(path(N("plain"), N("r1")));
}

TEST_F(DfpTraversalPathTest, EnteredJobIslandSortsFirstSoTheUnenteredOneIsTriedFirst) {
    // Without entries the lower island id sorts last and is tried first: r2 before r3.
    EXPECT_TRUE(path(N("r3"), N("r2")));
    EXPECT_FALSE(path(N("r2"), N("r3")));
    // Once island 2 is entered, r2 sorts first and r3 is tried first.
    path.m_required_island_nodes[2].insert(N("r2"));
    EXPECT_TRUE(path(N("r2"), N("r3")));
    EXPECT_FALSE(path(N("r3"), N("r2")));
}

TEST_F(DfpTraversalPathTest, CandidatesWithoutDegreesSortBeforeRootsWithDegrees) {
    degrees[N("r1")] = NodeDegrees{0, 4};
    EXPECT_TRUE(path(N("n1"), N("r1")));
    EXPECT_FALSE(path(N("r1"), N("n1")));
    // Even a better connected root of another island comes after a node without degrees.
    degrees[N("r2")] = NodeDegrees{9, 9};
    EXPECT_TRUE(path(N("n1"), N("r2")));
}

TEST_F(DfpTraversalPathTest, LowerConnectivitySortsFirstSoTheBestConnectedIsTriedFirst) {
    degrees[N("r2")] = NodeDegrees{1, 7};
    degrees[N("r3")] = NodeDegrees{2, 1};
    EXPECT_TRUE(path(N("r2"), N("r3")));
    EXPECT_FALSE(path(N("r3"), N("r2")));
}

TEST_F(DfpTraversalPathTest, EqualConnectivityFallsBackToDescendingIslandId) {
    degrees[N("r2")] = NodeDegrees{2, 7};
    degrees[N("r3")] = NodeDegrees{2, 1};
    EXPECT_TRUE(path(N("r3"), N("r2")));
    EXPECT_FALSE(path(N("r2"), N("r3")));
    // Two nodes of one island with equal connectivity are equivalent.
    degrees[N("r1")] = NodeDegrees{2, 1};
    degrees[N("r1b")] = NodeDegrees{2, 5};
    EXPECT_FALSE(path(N("r1"), N("r1b")));
    EXPECT_FALSE(path(N("r1b"), N("r1")));
}

TEST_F(DfpTraversalPathTest, FullOrderPutsTransitFirstThenEnteredThenUnentered) {
    path.m_required_island_nodes[1].insert(N("r1"));
    degrees[N("r1b")] = NodeDegrees{1, 1};
    degrees[N("r2")] = NodeDegrees{3, 1};
    degrees[N("r3")] = NodeDegrees{1, 1};
    EXPECT_EQ(Sorted({"r2", "t7", "r1b", "r3", "plain", "n1", "t9"}),
              (std::vector<std::string>{"plain", "t9", "t7", "n1", "r1b", "r3", "r2"}));
}

// --- undoing after a dead end ------------------------------------------------------

TEST_F(DfpTraversalPathTest, RemoveChildlessOfNullFrameRemovesNothing) {
    path.m_path_nodes = {N("r1"), N("t7")};
    path.m_n_childless_islands = 1;
    path.m_node_child_count[N("r1")] = 1;
    LogCapture log;
    EXPECT_EQ(path.RemoveChildless(nullptr), 0u);
    EXPECT_EQ(path.m_path_nodes, (AggNodeSet{N("r1"), N("t7")}));
    EXPECT_EQ(path.m_n_childless_islands, 1);
    EXPECT_EQ(path.m_node_child_count.at(N("r1")), 1);
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(DfpTraversalPathTest, DeadEndBelowJobIslandRootRemovesOnlyTheDeadEnd) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "t7"});
    path.m_path_nodes = {N("r1"), N("t7")};
    path.m_required_island_nodes[1].insert(N("r1"));
    path.m_n_childless_islands = 1;
    path.m_node_child_count[N("r1")] = 2;
    LogCapture log;
    EXPECT_EQ(path.RemoveChildless(dead_end), 1u);
    EXPECT_EQ(path.m_path_nodes, AggNodeSet{N("r1")});
    EXPECT_EQ(path.m_n_childless_islands, 0);
    EXPECT_EQ(path.m_node_child_count.at(N("r1")), 1);
    EXPECT_EQ(log.Messages(kLogLevelDebug), std::vector<std::string>{"- Removed childless t7\n"});
    EXPECT_EQ(log.Entries()[0].function, "RemoveChildless");
}

TEST_F(DfpTraversalPathTest, JobIslandRootStaysEvenWithoutChildren) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "r2"});
    path.m_path_nodes = {N("r1"), N("r2")};
    path.m_node_child_count[N("r1")] = 1;
    EXPECT_EQ(path.RemoveChildless(dead_end), 0u);
    EXPECT_EQ(path.m_path_nodes, (AggNodeSet{N("r1"), N("r2")}));
    EXPECT_EQ(path.m_node_child_count.at(N("r1")), 1);
}

TEST_F(DfpTraversalPathTest, RemovalClimbsThroughAncestorsLeftWithoutChildren) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "t7", "plain", "t9"});
    path.m_path_nodes = {N("r1"), N("t7"), N("plain"), N("t9")};
    path.m_n_childless_islands = 3;
    path.m_node_child_count[N("r1")] = 1;
    path.m_node_child_count[N("t7")] = 1;
    path.m_node_child_count[N("plain")] = 1;
    LogCapture log;
    EXPECT_EQ(path.RemoveChildless(dead_end), 3u);
    EXPECT_EQ(path.m_path_nodes, AggNodeSet{N("r1")});
    EXPECT_EQ(path.m_n_childless_islands, 0);
    EXPECT_EQ(path.m_node_child_count.at(N("r1")), 0);
    // Entries of removed nodes stay, at count 0.
    EXPECT_EQ(path.m_node_child_count.at(N("t7")), 0);
    EXPECT_EQ(path.m_node_child_count.at(N("plain")), 0);
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              (std::vector<std::string>{"- Removed childless t9\n", "- Removed childless plain\n",
                                        "- Removed childless t7\n"}));
}

TEST_F(DfpTraversalPathTest, AncestorWithPendingChildrenStays) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "t7", "t9"});
    path.m_path_nodes = {N("r1"), N("t7"), N("t9")};
    path.m_n_childless_islands = 2;
    path.m_node_child_count[N("r1")] = 1;
    path.m_node_child_count[N("t7")] = 2;
    EXPECT_EQ(path.RemoveChildless(dead_end), 1u);
    EXPECT_EQ(path.m_path_nodes, (AggNodeSet{N("r1"), N("t7")}));
    EXPECT_EQ(path.m_node_child_count.at(N("t7")), 1);
    EXPECT_EQ(path.m_n_childless_islands, 1);
}

TEST_F(DfpTraversalPathTest, DeadEndAlreadyOffThePathIsSkippedWithoutChangingCounts) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "t7", "t9"});
    path.m_path_nodes = {N("r1"), N("t7")};  // t9 was undone through another frame
    path.m_n_childless_islands = 1;
    path.m_node_child_count[N("r1")] = 1;
    path.m_node_child_count[N("t7")] = 1;
    LogCapture log;
    EXPECT_EQ(path.RemoveChildless(dead_end), 0u);
    EXPECT_EQ(path.m_path_nodes, (AggNodeSet{N("r1"), N("t7")}));
    EXPECT_EQ(path.m_n_childless_islands, 1);
    EXPECT_EQ(path.m_node_child_count.at(N("t7")), 1);
    EXPECT_EQ(path.m_node_child_count.at(N("r1")), 1);
    EXPECT_TRUE(log.Messages(kLogLevelDebug).empty()) << log.Dump();
}

TEST_F(DfpTraversalPathTest, RemovingWithZeroChildlessCountWouldGoNegative) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "t7"});
    path.m_path_nodes = {N("r1"), N("t7")};
    path.m_node_child_count[N("r1")] = 1;
    path.m_n_childless_islands = 0;
    LogCapture log;
    try {
        path.RemoveChildless(dead_end);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(),
                     "n_childless_islands is about to become negative. Context=RemoveChildless");
    }
    const std::vector<std::string> errors = log.Messages(kLogLevelError);
    ASSERT_EQ(errors.size(), 1u) << log.Dump();
    EXPECT_EQ(errors[0],
              "-A- assert(m_n_childless_islands != 0) failed. n_childless_islands is about to "
              "become negative. Context=RemoveChildless");
    for (const LogCapture::Entry& entry : log.Entries()) {
        if (entry.level == kLogLevelError) {
            EXPECT_EQ(entry.function, "SafeReduceChildlessIslands");
            EXPECT_EQ(entry.module, "TREES  ");
        }
    }
}

TEST_F(DfpTraversalPathTest, AncestorWithoutChildCountIsABrokenInvariant) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "t7", "t9"});
    path.m_path_nodes = {N("r1"), N("t7"), N("t9")};
    path.m_n_childless_islands = 2;
    path.m_node_child_count[N("t7")] = 1;  // decremented to 0 by t9's removal
    // t7 then reaches r1, whose count is missing: reported for the parent.
    LogCapture log;
    EXPECT_THROW(path.RemoveChildless(dead_end), AMAssertException);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(prev_iter != m_node_child_count.end()) failed. "
                                       "Missing node_child_count for parent node: r1"});
}

TEST_F(DfpTraversalPathTest, ChainNodeWithoutChildCountIsABrokenInvariant) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "t7", "t9"});
    path.m_path_nodes = {N("r1"), N("t7")};  // t9 already off the path: t7 is looked at
    path.m_n_childless_islands = 1;
    LogCapture log;
    EXPECT_THROW(path.RemoveChildless(dead_end), AMAssertException);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(iter != m_node_child_count.end()) failed. "
                                       "Missing node_child_count for node: t7"});
}

TEST_F(DfpTraversalPathTest, ParentWithZeroChildCountIsABrokenInvariant) {
    const DfpBacktrackInfo* dead_end = Chain({"r1", "t7"});
    path.m_path_nodes = {N("r1"), N("t7")};
    path.m_n_childless_islands = 1;
    path.m_node_child_count[N("r1")] = 0;
    LogCapture log;
    EXPECT_THROW(path.RemoveChildless(dead_end), AMAssertException);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(prev_iter->second != 0) failed. Node's "
                                       "child_count is 0 for parent node: r1"});
}

// --- text form and copies -----------------------------------------------------------

TEST_F(DfpTraversalPathTest, TextFormIsEmptyWhenItsLevelIsOff) {
    path.m_path_nodes = {N("r1"), N("t7")};
    LogCapture log(kLogLevelWarning);
    EXPECT_EQ(path.ToString(kLogLevelDebug), "");
}

TEST_F(DfpTraversalPathTest, TextFormJoinsNodeNamesInSetOrder) {
    path.m_path_nodes = {N("r1"), N("t7"), N("r2")};
    LogCapture log(kLogLevelDebug);
    const std::string text = path.ToString(kLogLevelDebug);
    std::vector<std::string> names;
    for (const AggNode* node : path.m_path_nodes) {
        names.push_back(node->name);
    }
    EXPECT_EQ(text, names[0] + ", " + names[1] + ", " + names[2]);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"r1", "r2", "t7"}));
}

TEST_F(DfpTraversalPathTest, CopyIsDeepAndSharesTheContext) {
    path.m_path_nodes = {N("r1")};
    path.m_required_island_nodes[1].insert(N("r1"));
    path.m_node_degrees[N("r1")] = 2;
    path.m_node_child_count[N("r1")] = 3;
    path.m_n_childless_islands = 4;
    path.m_max_degree_node = N("r1");
    DfpTraversalPath copy(path);
    path.m_path_nodes.insert(N("t7"));
    path.m_required_island_nodes[1].insert(N("r1b"));
    path.m_node_degrees[N("r1")] = 9;
    path.m_node_child_count[N("r1")] = 9;
    EXPECT_EQ(copy.m_path_nodes, AggNodeSet{N("r1")});
    EXPECT_EQ(copy.m_required_island_nodes.at(1), AggNodeSet{N("r1")});
    EXPECT_EQ(copy.m_node_degrees.at(N("r1")), 2);
    EXPECT_EQ(copy.m_node_child_count.at(N("r1")), 3);
    EXPECT_EQ(copy.m_n_childless_islands, 4);
    EXPECT_EQ(copy.m_max_degree_node, N("r1"));
    EXPECT_EQ(&copy.map_island_info, &islands);
    EXPECT_EQ(&copy.node_to_island_connectivity, &degrees);
    EXPECT_EQ(&copy.node_comparer, &comparer);
}

}  // namespace
