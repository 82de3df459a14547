// The final check of a built tree, one invariant at a time: a proper tree passes, and
// each way of breaking it is named.  Trees are linked by hand with LinkNodes and then
// broken on purpose.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/default_tree_nodes.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/tree_check.h"

namespace {

using ::testing::HasSubstr;

// spine over leaf-1 and leaf-2; h1 on leaf-1, h2 on leaf-2; "other" is linked to
// nothing.  GUIDs: leaf-1 0x1001, leaf-2 0x1002, spine 0x1003, other 0x1004.
FabricSketch SpineOverTwoLeaves() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0).Switch("spine", 1).Switch("other", 1);
    sketch.Link("leaf-1", "spine").Link("leaf-2", "spine");
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    return sketch;
}

class TreeCheck : public ::testing::Test {
protected:
    TreeCheck() : fabric(SpineOverTwoLeaves()) {
        for (const char* name : {"leaf-1", "leaf-2", "spine", "other"}) {
            nodes.push_back(pool.Add(fabric.Switch(name)));
        }
        Leaf1()->host_ports.push_back(&ports[0]);
        Leaf2()->host_ports.push_back(&ports[1]);
    }

    TreeNode* Leaf1() { return nodes[0]; }
    TreeNode* Leaf2() { return nodes[1]; }
    TreeNode* Spine() { return nodes[2]; }

    // spine -> leaf-1, spine -> leaf-2, rooted at the spine.
    void LinkProperTree() {
        info.root_node = fabric.Switch("spine");
        ASSERT_EQ(
            creator.LinkNodes(fabric.Switch("spine"), fabric.Switch("leaf-1"), info, nodes_in_tree),
            0u);
        ASSERT_EQ(
            creator.LinkNodes(fabric.Switch("spine"), fabric.Switch("leaf-2"), info, nodes_in_tree),
            0u);
    }

    std::string Check(uint16_t max_tree_children = 64) {
        std::vector<JobLeafPort> job_ports = {
            {{ports[0].port_guid, ports[0].plane}, fabric.Switch("leaf-1")},
            {{ports[1].port_guid, ports[1].plane}, fabric.Switch("leaf-2")}};
        return FindBrokenTreeInvariant(info, job_ports, max_tree_children);
    }

    InstalledFabric fabric;
    DefaultTreeNodePool pool;
    std::vector<TreeNode*> nodes;
    std::vector<PortData> ports = {{0x2001, 0}, {0x2002, 0}};
    OnDemandTreeCreator creator;
    JobSubTreeInfo info;
    NodesInTreeSet nodes_in_tree;
};

TEST_F(TreeCheck, ProperTreePasses) {
    LinkProperTree();
    EXPECT_EQ(Check(), "");
}

TEST_F(TreeCheck, EmptyTreeIsNamed) {
    info.root_node = fabric.Switch("spine");
    EXPECT_EQ(Check(), "the tree has no node");
}

TEST_F(TreeCheck, CountThatDisagreesWithTheList) {
    LinkProperTree();
    info.tree_nodes_count = 4;
    EXPECT_EQ(Check(), "tree_nodes_count 4 but the list holds 3");
}

TEST_F(TreeCheck, NodeListedTwice) {
    LinkProperTree();
    info.tree_nodes.push_back(Leaf1());
    ++info.tree_nodes_count;
    EXPECT_EQ(Check(), "the tree node of leaf-1 stands twice in the list");
}

TEST_F(TreeCheck, TwoParentlessNodes) {
    LinkProperTree();
    info.tree_nodes.push_back(nodes[3]);
    ++info.tree_nodes_count;
    EXPECT_EQ(Check(), "two nodes without parent: spine and other");
}

TEST_F(TreeCheck, RootOtherThanTheRecordsRoot) {
    LinkProperTree();
    info.root_node = fabric.Switch("leaf-1");
    EXPECT_EQ(Check(), "the node without parent spine is not the record's root leaf-1");
}

TEST_F(TreeCheck, ChildLinkedUnderASecondParent) {
    LinkProperTree();
    ASSERT_EQ(
        creator.LinkNodes(fabric.Switch("leaf-2"), fabric.Switch("leaf-1"), info, nodes_in_tree),
        0u);
    EXPECT_EQ(Check(), "the edges between spine and its child leaf-1 do not point at each other");
}

TEST_F(TreeCheck, EdgeAgainstTheUpLinkFollowsNoLink) {
    LinkProperTree();
    // The spine hung under its own child: the link goes up from the leaf, not down.
    ASSERT_EQ(
        creator.LinkNodes(fabric.Switch("leaf-1"), fabric.Switch("spine"), info, nodes_in_tree),
        0u);
    EXPECT_EQ(Check(), "the edge leaf-1 -> spine follows no link");
}

// Switches of four Dragonfly+ groups: r alone, a, b and c linked in a triangle, so
// edges between them follow links and can close a cycle.
class TreeCheckCycle : public ::testing::Test {
protected:
    TreeCheckCycle() : fabric(Sketch()) {
        for (const char* name : {"r", "a", "b", "c"}) {
            pool.Add(fabric.Switch(name));
        }
    }

    static FabricSketch Sketch() {
        FabricSketch sketch;
        uint16_t group = 1;
        for (const char* name : {"r", "a", "b", "c"}) {
            sketch.DfpSwitch(name, 1, group++);
        }
        sketch.Link("a", "b").Link("b", "c").Link("c", "a");
        return sketch;
    }

    void Link(const char* parent, const char* child) {
        ASSERT_EQ(
            creator.LinkNodes(fabric.Switch(parent), fabric.Switch(child), info, nodes_in_tree),
            0u);
    }

    InstalledFabric fabric;
    DefaultTreeNodePool pool;
    OnDemandTreeCreator creator;
    JobSubTreeInfo info;
    NodesInTreeSet nodes_in_tree;
};

TEST_F(TreeCheckCycle, EveryNodeWithAParentIsACycle) {
    info.root_node = fabric.Switch("a");
    Link("a", "b");
    Link("b", "c");
    Link("c", "a");
    EXPECT_EQ(FindBrokenTreeInvariant(info, {}, 64),
              "every node has a parent: the tree is a cycle");
}

TEST_F(TreeCheckCycle, CycleBesideTheRootDoesNotReachIt) {
    info.root_node = fabric.Switch("r");
    info.tree_nodes.push_back(fabric.Switch("r")->GetTreeNode(kDefaultTreeId));
    info.tree_nodes_count = 1;
    Link("a", "b");
    Link("b", "c");
    Link("c", "a");
    EXPECT_EQ(FindBrokenTreeInvariant(info, {}, 64),
              "a does not reach the root: its parents form a cycle");
}

TEST_F(TreeCheck, ChildIndexThatPointsAtAnotherChild) {
    LinkProperTree();
    Leaf2()->child_index = 0;
    EXPECT_EQ(Check(), "leaf-2 has child index 0 but stands at index 1 under spine");
}

TEST_F(TreeCheck, EdgesThatDoNotPointAtEachOther) {
    LinkProperTree();
    Leaf2()->parent_edge.remote_edge = nullptr;
    EXPECT_EQ(Check(), "the edges between spine and its child leaf-2 do not point at each other");
}

TEST_F(TreeCheck, ParentThatDoesNotListTheChild) {
    LinkProperTree();
    Spine()->num_children = 1;  // leaf-2's edge is no longer counted
    EXPECT_EQ(Check(), "leaf-2 has a parent that does not list it as a child");
}

TEST_F(TreeCheck, ChildrenAboveTheConfiguredLimit) {
    LinkProperTree();
    EXPECT_EQ(Check(1), "spine has 2 children, above its limit 1");
}

TEST_F(TreeCheck, ChildrenAboveTheSwitchLimit) {
    LinkProperTree();
    fabric.Switch("spine")->tree_children_limit = 1;
    EXPECT_EQ(Check(), "spine has 2 children, above its limit 1");
}

TEST_F(TreeCheck, EdgeOnNoLinkOfTheModel) {
    info.root_node = fabric.Switch("other");
    ASSERT_EQ(
        creator.LinkNodes(fabric.Switch("other"), fabric.Switch("spine"), info, nodes_in_tree), 0u);
    ASSERT_EQ(
        creator.LinkNodes(fabric.Switch("spine"), fabric.Switch("leaf-1"), info, nodes_in_tree),
        0u);
    ASSERT_EQ(
        creator.LinkNodes(fabric.Switch("spine"), fabric.Switch("leaf-2"), info, nodes_in_tree),
        0u);
    EXPECT_EQ(Check(), "the edge other -> spine follows no link");
}

TEST_F(TreeCheck, JobLeafMissingFromTheTree) {
    info.root_node = fabric.Switch("spine");
    ASSERT_EQ(
        creator.LinkNodes(fabric.Switch("spine"), fabric.Switch("leaf-1"), info, nodes_in_tree),
        0u);
    EXPECT_EQ(Check(), "leaf switch leaf-2 is not in the tree");
}

TEST_F(TreeCheck, JobLeafWithoutItsPort) {
    LinkProperTree();
    Leaf2()->host_ports.clear();
    EXPECT_EQ(Check(), "leaf switch leaf-2 does not carry port 0x2002");
}

TEST_F(TreeCheck, PortCarriedByAnotherSwitchDoesNotCount) {
    LinkProperTree();
    Leaf2()->host_ports.clear();
    Leaf1()->host_ports.push_back(&ports[1]);
    EXPECT_EQ(Check(), "leaf switch leaf-2 does not carry port 0x2002");
}

// A request whose tree breaks an invariant is refused with the invariant as its reason,
// reported as an internal failure and never returned.  The spine's children limit is
// lowered behind the builder's back once the tree is linked (when the job summary is
// logged, just before the final check).
TEST(TreeRequestFinalCheck, TreeThatBreaksAnInvariantIsRefusedAsAnInternalFailure) {
    InstalledFabric fabric(SpineOverTwoLeaves());
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);
    LogSink forward;
    forward = log_set_sink([&](const LogRecord& record) {
        forward(record);
        if (record.message.starts_with("job id: ")) {
            fabric.Switch("spine")->tree_children_limit = 1;
        }
    });

    JobRun run = RunJob(creator, fabric, {"h1", "h2"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.info.error_text, "internal error: spine has 2 children, above its limit 1\n");
    EXPECT_TRUE(run.info.tree_nodes.empty());
    EXPECT_EQ(run.info.root_node, nullptr);
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kBrokenTree);
    EXPECT_EQ(creator.LastInternalFailure().text,
              "internal error: spine has 2 children, above its limit 1");
    EXPECT_THAT(log.Messages(kLogLevelError),
                ::testing::ElementsAre("Tree of job default_0 failed the final check: spine has 2 "
                                       "children, above its limit 1\n"));
}

TEST(TreeRequestFinalCheck, ProperTreeIsReturnedWithoutInternalFailure) {
    InstalledFabric fabric(SpineOverTwoLeaves());
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelError);

    JobRun run = RunJob(creator, fabric, {"h1", "h2"});

    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone);
    EXPECT_TRUE(log.Messages(kLogLevelError).empty());
}

}  // namespace
