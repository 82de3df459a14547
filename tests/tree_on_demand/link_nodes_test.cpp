#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "common/am_assert.h"
#include "support/default_tree_nodes.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::ElementsAre;

// A parent "root" and children "c1".."c<n>"; GUIDs 0x1001 (root), 0x1002 (c1), ...
FabricSketch RootWithChildren(int children, uint16_t root_limit, uint16_t configured_limit) {
    FabricSketch sketch;
    sketch.Switch("root", 1, [&](SwitchDescription& sw) { sw.tree_children_limit = root_limit; });
    for (int i = 1; i <= children; ++i) {
        sketch.Switch("c" + std::to_string(i), 0);
    }
    sketch.Options(configured_limit, 1);
    return sketch;
}

class LinkNodesTest : public ::testing::Test {
protected:
    explicit LinkNodesTest(int children = 3, uint16_t root_limit = 64,
                           uint16_t configured_limit = 64)
        : fabric(RootWithChildren(children, root_limit, configured_limit)) {}

    AggNodeFabricInfo* Sw(const std::string& name) { return fabric.Switch(name); }
    TreeNode* Give(const std::string& name) { return pool.Add(Sw(name)); }
    uint32_t Link(const std::string& parent, const std::string& child) {
        return creator.LinkNodes(Sw(parent), Sw(child), info, nodes_in_tree);
    }

    InstalledFabric fabric;
    DefaultTreeNodePool pool;  // after the fabric: its nodes go first
    OnDemandTreeCreator creator;
    JobSubTreeInfo info;
    NodesInTreeSet nodes_in_tree;
};

TEST_F(LinkNodesTest, LinksTheDefaultTreeNodesWithEdgesThatPointAtEachOther) {
    TreeNode* root = Give("root");
    TreeNode* child = Give("c1");
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(Link("root", "c1"), 0u);

    ASSERT_EQ(root->num_children, 1);
    TreeEdge& down = root->child_edges.at(0);
    EXPECT_EQ(down.own_end, root);
    EXPECT_EQ(down.far_end, child);
    EXPECT_EQ(down.remote_edge, &child->parent_edge);
    EXPECT_EQ(child->parent_edge.own_end, child);
    EXPECT_EQ(child->parent_edge.far_end, root);
    EXPECT_EQ(child->parent_edge.remote_edge, &down);
    EXPECT_EQ(child->child_index, 0);
    EXPECT_EQ(root->linked_child_count, 1);
    EXPECT_THAT(root->linked_child_indices, ElementsAre(0));
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "AddDescendant(parent=root GUID:0x1001 tree_id:65535 child=c1 "
                             "GUID:0x1002 tree_id:65535)\n"));
}

TEST_F(LinkNodesTest, FirstLinkUnderARootPutsTheRootFirstInTheJobList) {
    TreeNode* root = Give("root");
    TreeNode* c1 = Give("c1");
    TreeNode* c2 = Give("c2");

    ASSERT_EQ(Link("root", "c1"), 0u);
    ASSERT_EQ(Link("root", "c2"), 0u);

    EXPECT_THAT(info.tree_nodes, ElementsAre(root, c1, c2));
    EXPECT_EQ(info.tree_nodes_count, 3u);
    EXPECT_EQ(nodes_in_tree.size(), 3u);
    EXPECT_EQ(nodes_in_tree.count(Sw("root")), 1u);
    EXPECT_EQ(c2->child_index, 1);
    EXPECT_THAT(root->linked_child_indices, ElementsAre(0, 1));
}

class LinkNodesOwnLimitTest : public LinkNodesTest {
protected:
    LinkNodesOwnLimitTest() : LinkNodesTest(3, 2, 64) {}
};

TEST_F(LinkNodesOwnLimitTest, ParentAtItsOwnLimitRefusesTheLinkAndChangesNothing) {
    TreeNode* root = Give("root");
    Give("c1");
    Give("c2");
    TreeNode* c3 = Give("c3");
    ASSERT_EQ(Link("root", "c1"), 0u);
    ASSERT_EQ(Link("root", "c2"), 0u);
    LogCapture log(kLogLevelDebug);

    EXPECT_EQ(Link("root", "c3"), 1u);

    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("Failed to create connection between: parent: root GUID:0x1001 "
                            "tree_id:65535 - child: c3 GUID:0x1004 tree_id:65535\n"));
    EXPECT_EQ(info.tree_nodes.size(), 3u);
    EXPECT_EQ(info.tree_nodes_count, 3u);
    EXPECT_EQ(nodes_in_tree.count(Sw("c3")), 0u);
    EXPECT_EQ(root->num_children, 2);
    EXPECT_EQ(root->linked_child_count, 2);
    EXPECT_EQ(c3->GetParent(), nullptr);
}

class LinkNodesConfiguredLimitTest : public LinkNodesTest {
protected:
    LinkNodesConfiguredLimitTest() : LinkNodesTest(3, 64, 1) {}
};

TEST_F(LinkNodesConfiguredLimitTest, ConfiguredLimitBelowTheNodeLimitApplies) {
    Give("root");
    Give("c1");
    Give("c2");

    EXPECT_EQ(Link("root", "c1"), 0u);
    EXPECT_EQ(Link("root", "c2"), 1u);
    EXPECT_EQ(Sw("root")->GetTreeNode(kDefaultTreeId)->num_children, 1);
}

class LinkNodesZeroLimitTest : public LinkNodesTest {
protected:
    LinkNodesZeroLimitTest() : LinkNodesTest(3, 64, 0) {}
};

TEST_F(LinkNodesZeroLimitTest, ConfiguredLimitOfZeroRefusesEveryLink) {
    Give("root");
    Give("c1");
    Give("c2");
    LogCapture log(kLogLevelError);

    EXPECT_EQ(Link("root", "c1"), 1u);
    EXPECT_EQ(Link("root", "c2"), 1u);

    EXPECT_EQ(log.Messages(kLogLevelError).size(), 2u);
    EXPECT_TRUE(info.tree_nodes.empty());
    EXPECT_TRUE(nodes_in_tree.empty());
}

TEST_F(LinkNodesTest, ChildAlreadyInTheTreeKeepsItsNewEdgeAndIsOnlyReported) {
    TreeNode* root = Give("root");
    TreeNode* child = Give("c1");
    nodes_in_tree.insert(Sw("c1"));
    info.tree_nodes.push_back(child);
    info.tree_nodes_count = 1;
    LogCapture log(kLogLevelDebug);

    EXPECT_EQ(Link("root", "c1"), 0u);

    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "Tried adding child: c1 GUID:0x1002 that is already part of tree\n"));
    EXPECT_THAT(info.tree_nodes, ElementsAre(child, root));
    EXPECT_EQ(info.tree_nodes_count, 2u);
    EXPECT_EQ(root->child_edges.at(0).far_end, child);
    EXPECT_EQ(child->GetParent(), root);
}

TEST_F(LinkNodesTest, ChildLinkedUnderASecondParentPointsAtTheLaterParent) {
    TreeNode* first = Give("c1");
    TreeNode* second = Give("c2");
    TreeNode* child = Give("c3");

    ASSERT_EQ(Link("c1", "c3"), 0u);
    ASSERT_EQ(Link("c2", "c3"), 0u);

    EXPECT_EQ(first->child_edges.at(0).far_end, child);
    EXPECT_EQ(second->child_edges.at(0).far_end, child);
    EXPECT_EQ(child->GetParent(), second);
    EXPECT_THAT(info.tree_nodes, ElementsAre(first, child, second));
}

TEST_F(LinkNodesTest, RefusedEdgeIsReusedByTheParentsNextLink) {
    TreeNode* root = Give("root");
    TreeNode* child = Give("c1");
    LogCapture log(kLogLevelError);

    // An edge from a node to itself is refused by the edge itself, not by the limit.
    EXPECT_EQ(Link("root", "root"), 1u);
    EXPECT_EQ(root->num_children, 0);
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("Failed to create connection between: parent: root GUID:0x1001 "
                            "tree_id:65535 - child: root GUID:0x1001 tree_id:65535\n"));

    ASSERT_EQ(Link("root", "c1"), 0u);
    EXPECT_EQ(child->child_index, 0);
    EXPECT_EQ(root->child_edges.at(0).far_end, child);
    EXPECT_EQ(root->num_children, 1);
}

TEST_F(LinkNodesTest, ParentWithoutDefaultTreeNodeIsABrokenInvariant) {
    Give("c1");
    LogCapture log(kLogLevelError);

    try {
        Link("root", "c1");
        FAIL() << "no assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "Parent AggNode: root GUID:0x1001 doesn't have default tree node");
    }
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("-A- assert(p_parent_tree_node) failed. Parent AggNode: root "
                            "GUID:0x1001 doesn't have default tree node"));
}

TEST_F(LinkNodesTest, ChildWithoutDefaultTreeNodeIsABrokenInvariant) {
    Give("root");
    LogCapture log(kLogLevelError);

    try {
        Link("root", "c1");
        FAIL() << "no assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "Child AggNode: c1 GUID:0x1002 doesn't have default tree node");
    }
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("-A- assert(p_child_tree_node) failed. Child AggNode: c1 "
                            "GUID:0x1002 doesn't have default tree node"));
}

TEST_F(LinkNodesTest, WhenNeitherHasADefaultTreeNodeOnlyTheParentIsReported) {
    LogCapture log(kLogLevelError);

    EXPECT_THROW(Link("root", "c1"), AMAssertException);

    ASSERT_EQ(log.Messages(kLogLevelError).size(), 1u);
    EXPECT_EQ(log.Messages(kLogLevelError)[0].rfind("-A- assert(p_parent_tree_node) failed.", 0),
              0u);
}

TEST_F(LinkNodesTest, NullDefaultTreeNodeEntryCountsAsMissing) {
    Give("c1");
    Sw("root")->tree_nodes_by_id[kDefaultTreeId] = nullptr;

    EXPECT_THROW(Link("root", "c1"), AMAssertException);
    EXPECT_TRUE(info.tree_nodes.empty());
}

class LinkNodesManyChildrenTest : public LinkNodesTest {
protected:
    LinkNodesManyChildrenTest() : LinkNodesTest(257, 300, 300) {}
};

TEST_F(LinkNodesManyChildrenTest, TwoHundredFiftySeventhChildIsRefusedWithOneWarning) {
    TreeNode* root = Give("root");
    for (int i = 1; i <= 257; ++i) {
        Give("c" + std::to_string(i));
    }
    LogCapture log(kLogLevelDebug);
    for (int i = 1; i <= 256; ++i) {
        ASSERT_EQ(Link("root", "c" + std::to_string(i)), 0u);
    }
    ASSERT_TRUE(log.Messages(kLogLevelWarning).empty());

    EXPECT_EQ(Link("root", "c257"), 1u);

    EXPECT_THAT(log.Messages(kLogLevelWarning),
                ElementsAre("Children limit 300 of root GUID:0x1001 lowered to 256: a child "
                            "index addresses no more children\n"));
    EXPECT_EQ(root->num_children, 256);
    EXPECT_EQ(Sw("c257")->GetTreeNode(kDefaultTreeId)->GetParent(), nullptr);
    std::set<uint16_t> indices;
    for (uint16_t i = 0; i < root->num_children; ++i) {
        const TreeNode* child = root->child_edges.at(i).far_end;
        EXPECT_EQ(child->child_index, i);
        indices.insert(child->child_index);
    }
    EXPECT_EQ(indices.size(), 256u);
}

class LinkNodesLimitOf256Test : public LinkNodesTest {
protected:
    LinkNodesLimitOf256Test() : LinkNodesTest(257, 256, 300) {}
};

TEST_F(LinkNodesLimitOf256Test, ALimitTheIndexCanAddressIsKeptWithoutWarning) {
    for (int i = 0; i <= 257; ++i) {
        Give(i == 0 ? "root" : "c" + std::to_string(i));
    }
    LogCapture log(kLogLevelWarning);
    for (int i = 1; i <= 256; ++i) {
        ASSERT_EQ(Link("root", "c" + std::to_string(i)), 0u);
    }

    EXPECT_EQ(Link("root", "c257"), 1u);

    EXPECT_TRUE(log.Messages(kLogLevelWarning).empty());
    EXPECT_EQ(log.Messages(kLogLevelError).size(), 1u);
}

}  // namespace
