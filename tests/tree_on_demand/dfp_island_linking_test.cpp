// Linking of Dragonfly+ island trees into one job tree: island subtrees under the
// chosen roots, the centre of the chosen roots as the tree's root, the root-to-root
// links, and default tree nodes for transit roots.
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "common/am_assert.h"
#include "fabric_model/tree_node.h"
#include "support/default_tree_nodes.h"
#include "support/dfp_islands.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

// Island records are made by hand: roots without a sweep record get no subtree, so
// the root links can be looked at on their own.
class DfpIslandLinking : public ::testing::Test {
protected:
    static FabricSketch Base(uint16_t max_tree_children = 64) {
        FabricSketch sketch;
        sketch.Options(max_tree_children, 1)
            .DfpSwitch("la", 0, 1)
            .DfpSwitch("ra", 1, 1)
            .DfpSwitch("rb", 1, 2)
            .DfpSwitch("rc", 1, 3)
            .DfpSwitch("x", 1, 7)
            .DfpSwitch("l3", 0, 3)
            .DfpSwitch("rc2", 1, 3)
            .DfpSwitch("rd", 1, 4)
            .Link("la", "ra")
            .Link("l3", "rc")
            .Link("l3", "rc2");
        return sketch;
    }

    // Gives `root` of `island` a sweep record whose best group reaches `leaf` alone.
    void RateRootOverLeaf(DfpIslandInfo& island, const char* root, const char* leaf) {
        QuasiFatTreeInfoMap& records = island.agg_node_to_quasi_fat_tree_info;
        if (records.count(N(leaf)) == 0) {
            DescendantGroup& seed = island.descendant_groups.emplace_back(N(leaf));
            seed.leaf_nodes.insert(N(leaf));
            records[N(leaf)] = std::make_unique<QuasiFatTreeAnInfo>(N(leaf));
            records[N(leaf)]->best_group = &seed;
        }
        DescendantGroup& best = island.descendant_groups.emplace_back(N(root));
        best.leaf_nodes.insert(N(leaf));
        best.children.push_back(records[N(leaf)]->best_group);
        records[N(root)] = std::make_unique<QuasiFatTreeAnInfo>(N(root));
        records[N(root)]->best_group = &best;
    }

    // Two transit nodes allowed on the path.
    static FabricSketch Options2(FabricSketch sketch) {
        sketch.Options(64, 2);
        return sketch;
    }

    void Install(const FabricSketch& sketch) { fabric = std::make_unique<InstalledFabric>(sketch); }

    AggNodeFabricInfo* N(const std::string& name) { return fabric->Switch(name); }

    DfpIslandInfo& AddIsland(uint16_t id, const char* root) {
        return AddDfpIsland(islands, *fabric, id, {root});
    }

    // What the sweep would have given every switch it reached.
    void GiveDefaultTreeNodes(std::initializer_list<const char*> names) {
        for (const char* name : names) {
            tree_nodes.Add(N(name));
        }
    }

    uint32_t Link() {
        return creator.DfpLinkIslandGraphs(islands, JobResource{}, job, score, nodes_in_tree);
    }

    std::vector<std::string> TreeNames() const {
        std::vector<std::string> names;
        for (const TreeNode* node : job.tree_nodes) {
            names.push_back(node->agg_node->name);
        }
        return names;
    }

    std::vector<std::string> ChildrenOf(const char* name) {
        std::vector<std::string> names;
        const TreeNode* node = N(name)->GetTreeNode(kDefaultTreeId);
        for (uint16_t i = 0; node != nullptr && i < node->num_children; ++i) {
            names.push_back(node->child_edges[i].far_end->agg_node->name);
        }
        return names;
    }

    std::string ParentOf(const char* name) {
        const TreeNode* node = N(name)->GetTreeNode(kDefaultTreeId);
        return node && node->GetParent() ? node->GetParent()->agg_node->name : "";
    }

    std::unique_ptr<InstalledFabric> fabric;
    OnDemandTreeCreator creator;
    DefaultTreeNodePool tree_nodes;  // destroyed before the fabric
    DfpIslandMap islands;
    JobSubTreeInfo job;
    JobSubTreeScore score;
    NodesInTreeSet nodes_in_tree;
};

TEST_F(DfpIslandLinking, PathOfOneRootHasNoCentreAndIsABrokenInvariant) {
    // A root whose only sibling link loops back to itself is a full path on its own.
    Install(Base());
    AggNodeFabricInfo loop;
    loop.own_port_info.guid = 0x3001;
    loop.own_port_info.name = "loop";
    loop.own_port_info.topology_kind = 2;
    loop.own_port_info.dfp_group_id = 5;
    loop.port_info = &loop.own_port_info;
    loop.name = "loop";
    AggPath back;
    back.remote_node = &loop;
    loop.sibling_links.push_back(back);
    auto info = std::make_unique<DfpIslandInfo>();
    info->island_id = 5;
    info->island_roots.insert(&loop);
    islands[5] = std::move(info);

    LogCapture log;
    try {
        Link();
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "Failed to find a center of rank-0 subtree");
    }
    EXPECT_EQ(log.Messages(kLogLevelWarning), std::vector<std::string>{"Input tree is empty\n"});
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{
                  "-A- assert(p_root) failed. Failed to find a center of rank-0 subtree"});
}

TEST_F(DfpIslandLinking, TwoLinkedRootsMakeTheFirstOfTheCentreMapTheRootAndTheOtherItsChild) {
    Install(Base().Link("ra", "rb"));
    AddIsland(1, "ra");
    AddIsland(2, "rb");
    GiveDefaultTreeNodes({"ra", "rb"});
    LogCapture log;
    ASSERT_EQ(Link(), 0u) << log.Dump();

    // The centre map is built from the search's max-degree node outwards.
    const AggNode* start = nullptr;
    for (const std::string& message : log.Messages(kLogLevelDebug)) {
        const std::string prefix = "DfpFindPathThruIslands Result: max-degree node: ";
        if (message.rfind(prefix, 0) == 0) {
            start = N(message.substr(prefix.size(), 2));
        }
    }
    ASSERT_NE(start, nullptr) << log.Dump();
    const AggNode* other = start == N("ra") ? N("rb") : N("ra");
    NodeSiblingsMap centre_map;
    centre_map[start].insert(other);
    centre_map[other].insert(start);
    const AggNode* root = centre_map.begin()->first;
    const AggNode* child = root == N("ra") ? N("rb") : N("ra");

    EXPECT_EQ(job.root_node, root);
    EXPECT_EQ(TreeNames(), (std::vector<std::string>{root->name, child->name}));
    EXPECT_EQ(ChildrenOf(root->name.c_str()), std::vector<std::string>{child->name});
    EXPECT_EQ(ParentOf(child->name.c_str()), root->name);
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "DfpLinkIslandGraphs Center for rank-0 subtree: " + root->name + "\n"))
        << log.Dump();
    // Neither root had a sweep record, so no island subtree was linked, silently.
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "qft_root=")) << log.Dump();
    EXPECT_TRUE(log.Messages(kLogLevelError).empty()) << log.Dump();
    EXPECT_TRUE(log.Messages(kLogLevelWarning).empty()) << log.Dump();
    EXPECT_TRUE(job.error_text.empty()) << job.error_text;
    EXPECT_TRUE(creator.GetCreatedTreeNodes().empty());
}

TEST_F(DfpIslandLinking, TransitRootGetsADefaultTreeNodeAndCentresThePath) {
    Install(Base().Link("ra", "x").Link("x", "rc"));
    AddIsland(1, "ra");
    AddIsland(3, "rc");
    GiveDefaultTreeNodes({"ra", "rc"});
    ASSERT_EQ(N("x")->GetTreeNode(kDefaultTreeId), nullptr);
    LogCapture log;
    ASSERT_EQ(Link(), 0u) << log.Dump();

    const TreeNode* transit = N("x")->GetTreeNode(kDefaultTreeId);
    ASSERT_NE(transit, nullptr);
    EXPECT_EQ(transit->tree_id, kDefaultTreeId);
    ASSERT_EQ(creator.GetCreatedTreeNodes().size(), 1u);
    EXPECT_EQ(creator.GetCreatedTreeNodes()[0].get(), transit);
    EXPECT_EQ(job.root_node, N("x"));
    ASSERT_FALSE(job.tree_nodes.empty());
    EXPECT_EQ(job.tree_nodes.front(), transit);
    std::vector<std::string> children = ChildrenOf("x");
    std::sort(children.begin(), children.end());
    EXPECT_EQ(children, (std::vector<std::string>{"ra", "rc"}));
    EXPECT_EQ(job.tree_nodes_count, 3u);
    // Islands 7 (no job island) gets no subtree and no complaint.
    EXPECT_TRUE(log.Messages(kLogLevelError).empty()) << log.Dump();
    EXPECT_TRUE(log.Messages(kLogLevelWarning).empty()) << log.Dump();
}

TEST_F(DfpIslandLinking, TransitRootThatAlreadyHasADefaultTreeNodeKeepsIt) {
    Install(Base().Link("ra", "x").Link("x", "rc"));
    AddIsland(1, "ra");
    AddIsland(3, "rc");
    GiveDefaultTreeNodes({"ra", "rc", "x"});
    const TreeNode* before = N("x")->GetTreeNode(kDefaultTreeId);
    ASSERT_EQ(Link(), 0u);
    EXPECT_EQ(N("x")->GetTreeNode(kDefaultTreeId), before);
    EXPECT_TRUE(creator.GetCreatedTreeNodes().empty());
}

TEST_F(DfpIslandLinking, SiblingOutsideThePathIsNeitherLinkedNorExplored) {
    Install(Base().Link("ra", "rb").Link("ra", "x"));
    AddIsland(1, "ra");
    AddIsland(2, "rb");
    GiveDefaultTreeNodes({"ra", "rb"});
    LogCapture log;
    ASSERT_EQ(Link(), 0u) << log.Dump();
    std::vector<std::string> names = TreeNames();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"ra", "rb"}));
    EXPECT_EQ(N("x")->GetTreeNode(kDefaultTreeId), nullptr);
    EXPECT_TRUE(creator.GetCreatedTreeNodes().empty());
}

TEST_F(DfpIslandLinking, RootWithSweepRecordGetsItsIslandSubtree) {
    Install(Base().Link("ra", "rb"));
    DfpIslandInfo& island = AddIsland(1, "ra");
    AddIsland(2, "rb");
    GiveDefaultTreeNodes({"la", "ra", "rb"});
    RateRootOverLeaf(island, "ra", "la");  // one route ra -> la
    LogCapture log;
    ASSERT_EQ(Link(), 0u) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "qft_root=ra\n")) << log.Dump();
    EXPECT_EQ(ParentOf("la"), "ra");
    std::vector<std::string> names = TreeNames();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"la", "ra", "rb"}));
    EXPECT_TRUE(ParentOf("ra") == "rb" || ParentOf("rb") == "ra");
}

TEST_F(DfpIslandLinking, FailingIslandSubtreeNamesItsRootAndLeavesTheRootsUnlinked) {
    Install(Base(0).Link("ra", "rb"));  // no tree node may take a child
    DfpIslandInfo& island = AddIsland(1, "ra");
    AddIsland(2, "rb");
    GiveDefaultTreeNodes({"la", "ra", "rb"});
    RateRootOverLeaf(island, "ra", "la");
    job.error_text = "earlier\n";
    LogCapture log;
    EXPECT_EQ(Link(), 1u);
    EXPECT_EQ(job.error_text, "earlier\nFailed to build a tree based on the selected root 'ra'\n");
    EXPECT_FALSE(log.ContainsFragment(kLogLevelError, "Failed to build a tree based on"));
    EXPECT_EQ(ParentOf("ra"), "");
    EXPECT_EQ(ParentOf("rb"), "");
    EXPECT_TRUE(ChildrenOf("ra").empty());
    EXPECT_TRUE(ChildrenOf("rb").empty());
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "Center for rank-0 subtree")) << log.Dump();
}

TEST_F(DfpIslandLinking, SecondRootOfAnIslandInsideThePathOnlyRelays) {
    // ra - rc - rb - rc2 - rd: both roots of island 3 lie inside the path, so neither
    // can be pruned; only one of them may carry l3.
    Install(Base().Link("ra", "rc").Link("rc", "rb").Link("rb", "rc2").Link("rc2", "rd"));
    AddIsland(1, "ra");
    AddIsland(2, "rb");
    DfpIslandInfo& island3 = AddIsland(3, "rc");
    island3.island_roots.insert(N("rc2"));
    AddIsland(4, "rd");
    RateRootOverLeaf(island3, "rc", "l3");
    RateRootOverLeaf(island3, "rc2", "l3");
    GiveDefaultTreeNodes({"ra", "rb", "rc", "rc2", "rd", "l3"});
    LogCapture log;
    ASSERT_EQ(Link(), 0u) << log.Dump();

    EXPECT_EQ(
        log.Count(kLogLevelDebug, "qft_root=rc\n") + log.Count(kLogLevelDebug, "qft_root=rc2\n"),
        1u)
        << log.Dump();
    const std::string carrier = ParentOf("l3");
    ASSERT_TRUE(carrier == "rc" || carrier == "rc2") << carrier;
    EXPECT_EQ(log.Count(kLogLevelDebug, "qft_root=" + carrier + "\n"), 1u);
    // The centre of the five roots is the middle one; every root has one parent.
    EXPECT_EQ(job.root_node, N("rb"));
    EXPECT_EQ(ParentOf("rc"), "rb");
    EXPECT_EQ(ParentOf("rc2"), "rb");
    EXPECT_EQ(ParentOf("ra"), "rc");
    EXPECT_EQ(ParentOf("rd"), "rc2");
    std::vector<std::string> names = TreeNames();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"l3", "ra", "rb", "rc", "rc2", "rd"}));
    std::vector<std::string> island3_children = ChildrenOf("rc");
    for (const std::string& child : ChildrenOf("rc2")) {
        island3_children.push_back(child);
    }
    EXPECT_EQ(std::count(island3_children.begin(), island3_children.end(), "l3"), 1);
}

TEST_F(DfpIslandLinking, ChosenSwitchOfAJobIslandThatIsNoRootOnlyRelays) {
    // The leaf la of island 1 has global links of its own and joins x to rb.
    Install(Options2(Base()).Link("ra", "x").Link("x", "la").Link("la", "rb"));
    DfpIslandInfo& island1 = AddIsland(1, "ra");
    AddIsland(2, "rb");
    RateRootOverLeaf(island1, "ra", "la");
    GiveDefaultTreeNodes({"la", "ra", "rb"});
    LogCapture log;
    ASSERT_EQ(Link(), 0u) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "qft_root=ra\n")) << log.Dump();
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "qft_root=la\n")) << log.Dump();
    std::vector<std::string> names = TreeNames();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"la", "ra", "rb", "x"}));
    EXPECT_EQ(job.tree_nodes_count, 4u);
}

TEST_F(DfpIslandLinking, FailedPathSearchIsPassedUp) {
    Install(Base().Link("ra", "rb"));
    AddIsland(1, "ra");
    AddIsland(3, "rc");  // rc has no sibling link
    LogCapture log;
    EXPECT_EQ(Link(), 1u);
    EXPECT_TRUE(job.tree_nodes.empty());
    EXPECT_EQ(job.root_node, nullptr);
}

TEST_F(DfpIslandLinking, NullParentIsABrokenInvariant) {
    Install(Base());
    LogCapture log;
    try {
        creator.LinkDFPRootNodes(islands, nullptr, N("ra"), job, nodes_in_tree);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "p_parent_node==null; propapbly downcast failure");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(p_parent_node) failed. p_parent_node==null; "
                                       "propapbly downcast failure"});
}

TEST_F(DfpIslandLinking, NullChildIsABrokenInvariant) {
    Install(Base());
    LogCapture log;
    try {
        creator.LinkDFPRootNodes(islands, N("ra"), nullptr, job, nodes_in_tree);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "p_child_node==null; propapbly downcast failure");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(p_child_node) failed. p_child_node==null; "
                                       "propapbly downcast failure"});
}

TEST_F(DfpIslandLinking, SwitchOfAJobIslandThatTheSweepNeverReachedGetsATreeNode) {
    // A switch of a job island that relays between two others may lie above none of the
    // job's leaves there; it is linked like a transit switch.
    Install(Base());
    AddIsland(1, "ra");
    GiveDefaultTreeNodes({"x"});
    LogCapture log(kLogLevelError);

    ASSERT_EQ(creator.LinkDFPRootNodes(islands, N("x"), N("ra"), job, nodes_in_tree), 0u);

    const TreeNode* made = N("ra")->GetTreeNode(kDefaultTreeId);
    ASSERT_NE(made, nullptr);
    ASSERT_EQ(creator.GetCreatedTreeNodes().size(), 1u);
    EXPECT_EQ(creator.GetCreatedTreeNodes().front().get(), made);
    EXPECT_EQ(made->GetParent(), N("x")->GetTreeNode(kDefaultTreeId));
    EXPECT_TRUE(log.Messages(kLogLevelError).empty());
}

TEST_F(DfpIslandLinking, NewTransitTreeNodeTakesTheJobPlane) {
    Install(Base());
    GiveDefaultTreeNodes({"ra"});
    AddIsland(1, "ra");
    job.plane = 3;
    ASSERT_EQ(creator.LinkDFPRootNodes(islands, N("x"), N("ra"), job, nodes_in_tree), 0u);
    const TreeNode* transit = N("x")->GetTreeNode(kDefaultTreeId);
    ASSERT_NE(transit, nullptr);
    EXPECT_EQ(transit->plane, 3);
    EXPECT_EQ(job.tree_nodes.front(), transit);
    EXPECT_EQ(ParentOf("ra"), "x");
}

}  // namespace
