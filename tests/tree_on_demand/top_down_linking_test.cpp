#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "common/am_assert.h"
#include "support/default_tree_nodes.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// Switch GUIDs follow the load order: root 0x1001, p-low 0x1002, p-high 0x1003,
// child 0x1004, leaf-a 0x1005, leaf-l 0x1006, leaf-b 0x1007.  p-low is loaded before
// p-high, so it has the lower address.
FabricSketch ThreeLevels() {
    FabricSketch sketch;
    sketch.Switch("root", 2, [](SwitchDescription& sw) { sw.node_attr = 7; })
        .Switches({"p-low", "p-high"}, 1)
        .Switches({"child", "leaf-a", "leaf-l", "leaf-b"}, 0);
    return sketch;
}

// Drives the top-down half on records built by hand, the way the bottom-up sweep
// would leave them.
class TopDownLinkingTest : public ::testing::Test {
protected:
    TopDownLinkingTest() : fabric(ThreeLevels()) {}

    AggNodeFabricInfo* Sw(const std::string& name) { return fabric.Switch(name); }
    TreeNode* Node(const std::string& name) { return Sw(name)->GetTreeNode(kDefaultTreeId); }

    void GiveDefaultTreeNodes(std::initializer_list<std::string> names) {
        for (const std::string& name : names) {
            pool.Add(Sw(name));
        }
    }

    // A group rooted at `node` that covers `leaves` through `children`; `load` makes
    // its score worse (more active trees on its busiest switch).
    DescendantGroup* Group(const std::string& node, std::initializer_list<std::string> leaves,
                           std::vector<DescendantGroup*> children = {}, uint32_t load = 0) {
        DescendantGroup& group = groups.emplace_back(Sw(node));
        for (const std::string& leaf : leaves) {
            group.leaf_nodes.insert(Sw(leaf));
        }
        group.children = std::move(children);
        group.score.max_active_trees = load;
        return &group;
    }

    // The best group a leaf switch gets from the sweep: the leaf alone, no members.
    DescendantGroup* LeafGroup(const std::string& leaf) { return Group(leaf, {leaf}); }

    // Records `group` as the best group of its switch.
    QuasiFatTreeAnInfo* Best(DescendantGroup* group) {
        auto& record = infos[group->node];
        record = std::make_unique<QuasiFatTreeAnInfo>(group->node);
        record->best_group = group;
        return record.get();
    }

    uint32_t RunFrom(QuasiFatTreeAnInfo* root) {
        return creator.QuasiFatTreeBFSUpBottom(job, root, info, infos, score, nodes_in_tree);
    }

    uint32_t SelectRoutes() {
        return creator.QuasiFatTreeSelectBestRoute(routes, info, infos, next_level, nodes_in_tree);
    }

    std::vector<std::string> ChildNames(const std::string& parent) {
        std::vector<std::string> names;
        const TreeNode* node = Node(parent);
        for (uint16_t i = 0; i < node->num_children; ++i) {
            names.push_back(node->child_edges.at(i).far_end->agg_node->name);
        }
        return names;
    }

    std::string ParentName(const std::string& child) {
        const TreeNode* parent = Node(child)->GetParent();
        return parent ? parent->agg_node->name : "";
    }

    InstalledFabric fabric;
    DefaultTreeNodePool pool;  // after the fabric: its nodes go first
    OnDemandTreeCreator creator;
    DescendantGroupList groups;
    QuasiFatTreeInfoMap infos;
    JobResource job;
    JobSubTreeInfo info;
    JobSubTreeScore score;
    NodesInTreeSet nodes_in_tree;
    LeavesRouteMap routes;
    TreeLevelMap next_level;
};

TEST_F(TopDownLinkingTest, RootServingTheOnlyLeafIsATreeOfItsOwnDefaultTreeNode) {
    GiveDefaultTreeNodes({"root"});
    // The root is the job's only leaf; its one member is its own share.
    QuasiFatTreeAnInfo* root = Best(Group("root", {"root"}, {LeafGroup("root")}));
    score.max_active_trees = 9;
    LogCapture log(kLogLevelDebug);

    EXPECT_EQ(RunFrom(root), 0u);

    EXPECT_THAT(log.Messages(kLogLevelDebug),
                ElementsAre("qft_root=root\n", "leaves_route is empty. linked_route_count=0\n",
                            "AggTree with a single switch\n"));
    EXPECT_THAT(info.tree_nodes, ElementsAre(Node("root")));
    EXPECT_EQ(info.tree_nodes_count, 1u);
    EXPECT_EQ(info.root_node, Sw("root"));
    EXPECT_EQ(info.root_node_attr, 7);
    EXPECT_TRUE(nodes_in_tree.empty());
    // The score is reset for the job with the load-balance priority.
    EXPECT_EQ(score.max_active_trees, 0u);
    EXPECT_EQ(score.priority, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
}

TEST_F(TopDownLinkingTest, RootWhoseOnlyOwnMemberCoversTwoLeavesIsABrokenInvariant) {
    GiveDefaultTreeNodes({"root", "leaf-a", "leaf-b"});
    DescendantGroup* own = Group("root", {"leaf-a", "leaf-b"});
    QuasiFatTreeAnInfo* root = Best(Group("root", {"leaf-a", "leaf-b"}, {own}));
    LogCapture log(kLogLevelError);

    try {
        RunFrom(root);
        FAIL() << "no assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(),
                     "No nodes were linked into a tree for the selected root 'root' while "
                     "best_group.size()=2 (>1)\n");
    }
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("-A- assert(root_quasi_an_info->best_group->leaf_nodes.size() == "
                            "1) failed. No nodes were linked into a tree for the selected root "
                            "'root' while best_group.size()=2 (>1)\n"));
    EXPECT_TRUE(info.tree_nodes.empty());
}

TEST_F(TopDownLinkingTest, SingleSwitchRootWithoutDefaultTreeNodeIsABrokenInvariant) {
    QuasiFatTreeAnInfo* root = Best(LeafGroup("leaf-a"));
    LogCapture log(kLogLevelError);

    try {
        RunFrom(root);
        FAIL() << "no assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(),
                     "AggNode: leaf-a GUID:0x1005 doesn't have default tree node that is "
                     "required for quasi fat tree algorithm");
    }
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("-A- assert(p_tree_node) failed. AggNode: leaf-a GUID:0x1005 "
                            "doesn't have default tree node that is required for quasi fat "
                            "tree algorithm"));
}

// root covers {a, l, b} through p-low {a, l} and p-high {l, b}: both parents of the
// second level reach leaf-l.
class SharedLeafTest : public TopDownLinkingTest {
protected:
    QuasiFatTreeAnInfo* Build(uint32_t low_load, uint32_t high_load) {
        GiveDefaultTreeNodes({"root", "p-low", "p-high", "leaf-a", "leaf-l", "leaf-b"});
        DescendantGroup* a = LeafGroup("leaf-a");
        DescendantGroup* l = LeafGroup("leaf-l");
        DescendantGroup* b = LeafGroup("leaf-b");
        for (DescendantGroup* leaf : {a, l, b}) {
            Best(leaf);
        }
        DescendantGroup* low = Group("p-low", {"leaf-a", "leaf-l"}, {a, l}, low_load);
        DescendantGroup* high = Group("p-high", {"leaf-l", "leaf-b"}, {l, b}, high_load);
        Best(low);
        Best(high);
        return Best(Group("root", {"leaf-a", "leaf-l", "leaf-b"}, {low, high}));
    }
};

TEST_F(SharedLeafTest, EqualScoresLeaveTheSharedLeafWithTheLowerAddressParent) {
    QuasiFatTreeAnInfo* root = Build(0, 0);
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(RunFrom(root), 0u);

    EXPECT_THAT(ChildNames("root"), UnorderedElementsAre("p-low", "p-high"));
    EXPECT_EQ(ParentName("leaf-l"), "p-low");
    EXPECT_THAT(ChildNames("p-low"), UnorderedElementsAre("leaf-a", "leaf-l"));
    EXPECT_THAT(ChildNames("p-high"), ElementsAre("leaf-b"));
    EXPECT_EQ(info.tree_nodes.front(), Node("root"));
    EXPECT_EQ(info.tree_nodes_count, 6u);
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "leaves_route is empty. linked_route_count=2\n"));
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "AggTree with a single switch\n"));
}

TEST_F(SharedLeafTest, StrictlyBetterParentTakesTheSharedLeafFromTheLowerAddressParent) {
    QuasiFatTreeAnInfo* root = Build(1, 0);

    ASSERT_EQ(RunFrom(root), 0u);

    EXPECT_EQ(ParentName("leaf-l"), "p-high");
    EXPECT_THAT(ChildNames("p-low"), ElementsAre("leaf-a"));
    EXPECT_THAT(ChildNames("p-high"), UnorderedElementsAre("leaf-l", "leaf-b"));
}

TEST_F(TopDownLinkingTest, RoutesOfEqualScoreAreLinkedInTheRouteMapsOrder) {
    GiveDefaultTreeNodes({"root", "p-low", "p-high"});
    Best(Group("p-low", {"leaf-a"}));
    Best(Group("p-high", {"leaf-b"}));
    JobSubTreeScore same;
    routes[Sw("leaf-a")] = BestRouteInfo{Sw("root"), Sw("p-low"), &same};
    routes[Sw("leaf-b")] = BestRouteInfo{Sw("root"), Sw("p-high"), &same};
    const std::string first = routes.begin()->second.child_node->name;
    const std::string second = std::next(routes.begin())->second.child_node->name;

    ASSERT_EQ(SelectRoutes(), 0u);

    EXPECT_THAT(ChildNames("root"), ElementsAre(first, second));
    EXPECT_TRUE(routes.empty());
    EXPECT_EQ(next_level.size(), 2u);
}

TEST_F(TopDownLinkingTest, BetterRouteIsLinkedFirstWhereverItStandsInTheRouteMap) {
    GiveDefaultTreeNodes({"root", "p-low", "p-high"});
    Best(Group("p-low", {"leaf-a"}));
    Best(Group("p-high", {"leaf-b"}));
    JobSubTreeScore better;
    JobSubTreeScore worse;
    worse.max_active_trees = 1;
    routes[Sw("leaf-a")] = BestRouteInfo{Sw("root"), Sw("p-low"), &worse};
    routes[Sw("leaf-b")] = BestRouteInfo{Sw("root"), Sw("p-high"), &worse};
    // Whichever leaf the map visits last gets the better route.
    AggNodeFabricInfo* last_leaf = std::next(routes.begin())->first;
    routes[last_leaf].score = &better;
    const std::string expected_first = routes[last_leaf].child_node->name;

    ASSERT_EQ(SelectRoutes(), 0u);

    ASSERT_EQ(ChildNames("root").size(), 2u);
    EXPECT_EQ(ChildNames("root")[0], expected_first);
}

TEST_F(TopDownLinkingTest, ChildChosenForOneLeafDropsTheRoutesToItsOtherLeaves) {
    GiveDefaultTreeNodes({"p-low", "p-high", "child", "leaf-b"});
    Best(Group("child", {"leaf-a", "leaf-b"}));
    Best(LeafGroup("leaf-b"));
    JobSubTreeScore better;
    JobSubTreeScore worse;
    worse.max_active_trees = 1;
    routes[Sw("leaf-a")] = BestRouteInfo{Sw("p-low"), Sw("child"), &better};
    routes[Sw("leaf-b")] = BestRouteInfo{Sw("p-high"), Sw("leaf-b"), &worse};

    ASSERT_EQ(SelectRoutes(), 0u);

    EXPECT_THAT(ChildNames("p-low"), ElementsAre("child"));
    EXPECT_EQ(Node("p-high")->num_children, 0);
    EXPECT_EQ(Node("leaf-b")->GetParent(), nullptr);
    ASSERT_EQ(next_level.size(), 1u);
    EXPECT_EQ(next_level.begin()->first, Sw("child"));
    EXPECT_TRUE(routes.empty());
}

TEST_F(TopDownLinkingTest, ChildLinkedUnderTwoParentsEntersTheNextLevelOnce) {
    GiveDefaultTreeNodes({"p-low", "p-high", "child"});
    // The child's own best group covers only leaf-a; the route to leaf-b names the
    // child through another group of it, so that route survives the first link.
    Best(Group("child", {"leaf-a"}));
    JobSubTreeScore better;
    JobSubTreeScore worse;
    worse.max_active_trees = 1;
    routes[Sw("leaf-a")] = BestRouteInfo{Sw("p-low"), Sw("child"), &better};
    routes[Sw("leaf-b")] = BestRouteInfo{Sw("p-high"), Sw("child"), &worse};
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(SelectRoutes(), 0u);

    EXPECT_THAT(ChildNames("p-low"), ElementsAre("child"));
    EXPECT_THAT(ChildNames("p-high"), ElementsAre("child"));
    EXPECT_EQ(ParentName("child"), "p-high");
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "Tried adding child: child GUID:0x1004 that is already part of "
                             "tree\n"));
    ASSERT_EQ(next_level.size(), 1u);
    EXPECT_EQ(next_level.begin()->second, infos[Sw("child")].get());
}

TEST_F(TopDownLinkingTest, RefusedLinkFailsTheWalkAndKeepsTheEdgesAlreadyMade) {
    GiveDefaultTreeNodes({"root", "leaf-a", "leaf-b"});
    Sw("root")->tree_children_limit = 1;
    DescendantGroup* a = LeafGroup("leaf-a");
    DescendantGroup* b = LeafGroup("leaf-b");
    Best(a);
    Best(b);
    QuasiFatTreeAnInfo* root = Best(Group("root", {"leaf-a", "leaf-b"}, {a, b}));
    LogCapture log(kLogLevelError);

    EXPECT_EQ(RunFrom(root), 1u);

    std::vector<std::string> errors = log.Messages(kLogLevelError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].rfind("Failed to create connection between: parent: root GUID:0x1001", 0),
              0u);
    EXPECT_EQ(errors[1], "Failed to find best route in quasi fat tree algorithm\n");
    EXPECT_EQ(Node("root")->num_children, 1);
    EXPECT_EQ(info.tree_nodes.size(), 2u);
    EXPECT_EQ(info.tree_nodes.front(), Node("root"));
}

TEST_F(TopDownLinkingTest, WalkEndsWhenTheLastLevelHoldsOnlyOwnMembers) {
    GiveDefaultTreeNodes({"root", "leaf-a"});
    // As a leaf's best group is after an overlapping combination: the leaf's own seed
    // is its only member.
    DescendantGroup* a = Group("leaf-a", {"leaf-a"}, {LeafGroup("leaf-a")});
    Best(a);
    QuasiFatTreeAnInfo* root = Best(Group("root", {"leaf-a"}, {a}));
    LogCapture log(kLogLevelDebug);

    EXPECT_EQ(RunFrom(root), 0u);

    EXPECT_TRUE(log.Contains(kLogLevelDebug, "leaves_route is empty. linked_route_count=1\n"));
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "AggTree with a single switch\n"));
    EXPECT_THAT(info.tree_nodes, ElementsAre(Node("root"), Node("leaf-a")));
    EXPECT_EQ(nodes_in_tree.size(), 2u);
}

TEST_F(TopDownLinkingTest, LinkedChildWithoutRecordIsABrokenInvariant) {
    GiveDefaultTreeNodes({"root", "p-low"});
    JobSubTreeScore same;
    routes[Sw("leaf-a")] = BestRouteInfo{Sw("root"), Sw("p-low"), &same};
    LogCapture log(kLogLevelError);

    try {
        SelectRoutes();
        FAIL() << "no assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "quasi_fat_tree_an_info not found for: p-low GUID:0x1002");
    }
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("-A- assert(it != agg_node_to_quasi_fat_tree_info.end()) failed. "
                            "quasi_fat_tree_an_info not found for: p-low GUID:0x1002"));
    // The link is made before its child's record is looked up.
    EXPECT_THAT(ChildNames("root"), ElementsAre("p-low"));
}

TEST_F(TopDownLinkingTest, EmptyRouteMapLinksNothing) {
    EXPECT_EQ(SelectRoutes(), 0u);
    EXPECT_THAT(next_level, IsEmpty());
    EXPECT_TRUE(info.tree_nodes.empty());
}

}  // namespace
