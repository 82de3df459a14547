// Whole tree requests on small Dragonfly+ fabrics, with the answers worked out by hand:
// which switch is the root, how the island roots are linked, and how every island's
// subtree hangs under its root.
//
// Groups are marked as docs/dragonfly-plus.md recommends: every switch of a group has
// topology kind 3 and the group's id; leaves defer the root, spines (the switches with
// global links) do not.  A group g has leaves "l<g>", "l<g>b", ... and spines "s<g>",
// "s<g>b", ...; host "h<g>" hangs on "l<g>", "h<g>b" on "l<g>b".
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/tree_invariants.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

void DfpLeaf(FabricSketch& sketch, const std::string& name, uint16_t group) {
    sketch.DfpSwitch(name, 0, group, [](SwitchDescription& sw) {
        sw.topology_kind = 3;
        sw.defer_root = true;
    });
}

void DfpSpine(FabricSketch& sketch, const std::string& name, uint16_t group) {
    sketch.DfpSwitch(name, 1, group, [](SwitchDescription& sw) { sw.topology_kind = 3; });
}

// A two-level group: every leaf linked to every spine, one host per leaf.
void Group(FabricSketch& sketch, uint16_t group, std::vector<std::string> leaf_suffixes,
           std::vector<std::string> spine_suffixes) {
    const std::string g = std::to_string(group);
    for (const std::string& suffix : spine_suffixes) {
        DfpSpine(sketch, "s" + g + suffix, group);
    }
    for (const std::string& suffix : leaf_suffixes) {
        DfpLeaf(sketch, "l" + g + suffix, group);
        sketch.Host("h" + g + suffix, "l" + g + suffix);
        for (const std::string& spine : spine_suffixes) {
            sketch.Link("l" + g + suffix, "s" + g + spine);
        }
    }
}

class DfpEndToEnd : public ::testing::Test {
protected:
    JobRun Run(const FabricSketch& sketch, const std::vector<std::string>& hosts) {
        fabric = std::make_unique<InstalledFabric>(sketch);
        JobRun run = RunJob(creator, *fabric, hosts);
        if (run.status == 0) {
            EXPECT_EQ(CheckTreeInvariants(run.info, fabric->fabric(), *run.ports,
                                          sketch.Description().options.max_tree_children),
                      "");
        }
        return run;
    }

    static std::vector<std::string> Sorted(std::vector<std::string> names) {
        std::sort(names.begin(), names.end());
        return names;
    }

    std::unique_ptr<InstalledFabric> fabric;
    OnDemandTreeCreator creator;
};

TEST_F(DfpEndToEnd, TwoGroupsJoinedDirectlyHangEachLeafUnderItsSpine) {
    FabricSketch sketch;
    Group(sketch, 1, {""}, {""});
    Group(sketch, 2, {""}, {""});
    sketch.Link("s1", "s2");
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "h2"});
    ASSERT_EQ(run.status, 0) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "DFP MODE\n"));
    // Two chosen roots: either may be the centre; the other is its only switch child.
    const std::string root = run.info.root_node->name;
    ASSERT_TRUE(root == "s1" || root == "s2") << root;
    const std::string other = root == "s1" ? "s2" : "s1";
    EXPECT_EQ(run.ParentOf(root), "");
    EXPECT_EQ(run.ParentOf(other), root);
    EXPECT_EQ(run.ParentOf("l1"), "s1");
    EXPECT_EQ(run.ParentOf("l2"), "s2");
    EXPECT_EQ(run.ChildrenOf(root).size(), 2u);
    EXPECT_EQ(run.ChildrenOf(other), std::vector<std::string>{other == "s1" ? "l1" : "l2"});
    EXPECT_EQ(Sorted(run.SwitchNames()), (std::vector<std::string>{"l1", "l2", "s1", "s2"}));
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "DfpLinkIslandGraphs Center for rank-0 subtree: " + root + "\n"));
}

TEST_F(DfpEndToEnd, ThreeGroupsInALineAreRootedAtTheMiddleSpine) {
    FabricSketch sketch;
    Group(sketch, 1, {""}, {""});
    Group(sketch, 2, {"", "b"}, {""});
    Group(sketch, 3, {""}, {""});
    sketch.Link("s1", "s2").Link("s2", "s3");
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "h2", "h2b", "h3"});
    ASSERT_EQ(run.status, 0) << log.Dump();
    EXPECT_EQ(run.info.root_node->name, "s2");
    EXPECT_EQ(run.ParentOf("s2"), "");
    // Island 2's subtree is linked first, then the root links from s2.
    const std::vector<std::string> children = run.ChildrenOf("s2");
    ASSERT_EQ(children.size(), 4u);
    EXPECT_EQ(Sorted({children[0], children[1]}), (std::vector<std::string>{"l2", "l2b"}));
    EXPECT_EQ(Sorted({children[2], children[3]}), (std::vector<std::string>{"s1", "s3"}));
    EXPECT_EQ(run.ChildrenOf("s1"), std::vector<std::string>{"l1"});
    EXPECT_EQ(run.ChildrenOf("s3"), std::vector<std::string>{"l3"});
    EXPECT_TRUE(run.ChildrenOf("l1").empty());
    EXPECT_EQ(run.SwitchNames().size(), 7u);
    EXPECT_TRUE(
        log.Contains(kLogLevelDebug, "DfpLinkIslandGraphs Center for rank-0 subtree: s2\n"));
}

TEST_F(DfpEndToEnd, FourGroupsInARingAreJoinedAlongThreeOfTheRingLinks) {
    FabricSketch sketch;
    for (uint16_t g = 1; g <= 4; ++g) {
        Group(sketch, g, {""}, {""});
    }
    sketch.Link("s1", "s2").Link("s2", "s3").Link("s3", "s4").Link("s4", "s1");
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "h2", "h3", "h4"});
    ASSERT_EQ(run.status, 0) << log.Dump();
    // The whole ring is the chosen path; its spanning tree is a path of four spines, so
    // the centre is one of its two middle spines and it has both ring neighbours as
    // children.  The spine opposite the root hangs under one of them.
    const std::string root = run.info.root_node->name;
    const int r = root[1] - '0';
    ASSERT_TRUE(root.size() == 2 && root[0] == 's' && r >= 1 && r <= 4) << root;
    const std::string next = "s" + std::to_string(r % 4 + 1);
    const std::string previous = "s" + std::to_string((r + 2) % 4 + 1);
    const std::string opposite = "s" + std::to_string((r + 1) % 4 + 1);
    EXPECT_EQ(Sorted(run.ChildrenOf(root)), Sorted({"l" + root.substr(1), next, previous}));
    EXPECT_TRUE(run.ParentOf(opposite) == next || run.ParentOf(opposite) == previous)
        << run.ParentOf(opposite);
    for (int g = 1; g <= 4; ++g) {
        EXPECT_EQ(run.ParentOf("l" + std::to_string(g)), "s" + std::to_string(g));
    }
    EXPECT_EQ(run.SwitchNames().size(), 8u);
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "n_candidates=2 max_hops=2\n")) << log.Dump();
}

FabricSketch TransitFabric(uint8_t max_childless_islands) {
    FabricSketch sketch;
    sketch.Options(64, max_childless_islands);
    Group(sketch, 1, {""}, {""});
    Group(sketch, 2, {""}, {""});  // its host is not in the job
    Group(sketch, 3, {""}, {""});
    sketch.Link("s1", "s2").Link("s2", "s3");
    return sketch;
}

TEST_F(DfpEndToEnd, GroupsJoinedOnlyThroughATransitGroupFailWhenNoTransitIsAllowed) {
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(TransitFabric(0), {"h1", "h3"});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(log.Contains(kLogLevelWarning, "DfpFindPathThruIslands No path found\n"))
        << log.Dump();
    EXPECT_EQ(run.info.error_text, "Failed to link all required Dragonfly+ groups\n");
    EXPECT_TRUE(run.info.tree_nodes.empty());
}

TEST_F(DfpEndToEnd, GroupsJoinedThroughATransitGroupAreRootedAtTheTransitSpine) {
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(TransitFabric(1), {"h1", "h3"});
    ASSERT_EQ(run.status, 0) << log.Dump();
    // Path s1 - s2 - s3: its centre is the transit spine.
    EXPECT_EQ(run.info.root_node->name, "s2");
    EXPECT_EQ(Sorted(run.ChildrenOf("s2")), (std::vector<std::string>{"s1", "s3"}));
    EXPECT_EQ(run.ChildrenOf("s1"), std::vector<std::string>{"l1"});
    EXPECT_EQ(run.ChildrenOf("s3"), std::vector<std::string>{"l3"});
    EXPECT_EQ(run.NodeOf("l2"), nullptr);
    EXPECT_EQ(Sorted(run.SwitchNames()), (std::vector<std::string>{"l1", "l3", "s1", "s2", "s3"}));
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "n_candidates=1 max_hops=1\n")) << log.Dump();
}

TEST_F(DfpEndToEnd, GroupWhoseRootsHaveNoGlobalLinksCannotBeJoined) {
    FabricSketch sketch;
    Group(sketch, 1, {""}, {""});
    Group(sketch, 2, {""}, {""});
    Group(sketch, 3, {""}, {""});
    sketch.Link("s1", "s3");  // s2 has no global link
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "h2"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(log.Messages(kLogLevelWarning),
              std::vector<std::string>{"Island 2 has no outbound links\n"});
    EXPECT_EQ(run.info.error_text, "Failed to link all required Dragonfly+ groups\n");
}

TEST_F(DfpEndToEnd, JobInsideOneGroupIsBuiltAsAQuasiFatTree) {
    FabricSketch sketch;
    Group(sketch, 1, {"", "b"}, {""});
    Group(sketch, 2, {""}, {""});
    sketch.Link("s1", "s2");
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "h1b"});
    ASSERT_EQ(run.status, 0) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "QFT MODE\n"));
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "DFP MODE\n"));
    EXPECT_EQ(run.info.root_node->name, "s1");
    EXPECT_EQ(run.SwitchNames(), (std::vector<std::string>{"s1", "l1", "l1b"}));
    EXPECT_EQ(run.ChildrenOf("s1"), (std::vector<std::string>{"l1", "l1b"}));
}

TEST_F(DfpEndToEnd, SingleLeafOfOneGroupIsItsOwnTree) {
    // Inside one island the root is not checked, so the deferred leaf serves alone.
    FabricSketch sketch;
    Group(sketch, 1, {""}, {""});
    Group(sketch, 2, {""}, {""});
    sketch.Link("s1", "s2");
    JobRun run = Run(sketch, {"h1"});
    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.SwitchNames(), std::vector<std::string>{"l1"});
    EXPECT_EQ(run.info.root_node->name, "l1");
}

TEST_F(DfpEndToEnd, SingleLeafGroupsClimbToTheirSpinesWhenGroupsAreJoined) {
    // Group 1 has two spines, both roots of its one-leaf subtree and both linked to s2;
    // one of them is chosen and the other stays out of the tree.
    FabricSketch sketch;
    Group(sketch, 1, {""}, {"", "b"});
    Group(sketch, 2, {"", "b"}, {""});
    sketch.Link("s1b", "s2");
    sketch.Link("s1", "s2");
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "h2", "h2b"});
    ASSERT_EQ(run.status, 0) << log.Dump();
    const std::string root = run.info.root_node->name;
    ASSERT_TRUE(root == "s2" || root == "s1" || root == "s1b") << root;
    // Exactly one spine of group 1 carries l1; s2 carries both leaves of group 2.
    const std::string spine1 = run.ParentOf("l1");
    ASSERT_TRUE(spine1 == "s1" || spine1 == "s1b") << spine1;
    EXPECT_EQ(run.ChildrenOf("s2").size(), root == "s2" ? 3u : 2u);
    EXPECT_EQ(run.ParentOf("l2"), "s2");
    EXPECT_EQ(run.ParentOf("l2b"), "s2");
    EXPECT_TRUE(run.ParentOf(spine1) == "s2" || run.ParentOf("s2") == spine1);
    EXPECT_EQ(run.SwitchNames().size(), 5u);
}

TEST_F(DfpEndToEnd, PlainTreeSwitchesJoinDragonflyGroupsAsAnIslandOfTheirOwn) {
    FabricSketch sketch;
    Group(sketch, 1, {""}, {""});
    // A plain two-level tree: its leaf defers the root as well, so that its spine (the
    // switch with the global link) becomes the island's root.
    sketch.Switch("t-leaf", 0, [](SwitchDescription& sw) { sw.defer_root = true; })
        .Switch("t-spine", 1)
        .Link("t-leaf", "t-spine")
        .Host("ht", "t-leaf")
        .Link("t-spine", "s1");
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "ht"});
    ASSERT_EQ(run.status, 0) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "DFP MODE\n"));
    const std::string root = run.info.root_node->name;
    ASSERT_TRUE(root == "s1" || root == "t-spine") << root;
    const std::string other = root == "s1" ? "t-spine" : "s1";
    EXPECT_EQ(run.ParentOf(other), root);
    EXPECT_EQ(run.ParentOf("l1"), "s1");
    EXPECT_EQ(run.ParentOf("t-leaf"), "t-spine");
    EXPECT_EQ(Sorted(run.SwitchNames()),
              (std::vector<std::string>{"l1", "s1", "t-leaf", "t-spine"}));
}

TEST_F(DfpEndToEnd, LeafOfKindTwoAsFullCoverFailsTheMultiGroupJob) {
    // A group leaf marked kind 2 covers its group's only job leaf and may not be a root
    // candidate of a multi-group job: the sweep refuses the topology.
    FabricSketch sketch;
    Group(sketch, 1, {""}, {""});
    Group(sketch, 2, {""}, {""});
    sketch.Link("s1", "s2");
    sketch.Sw("l1").topology_kind = 2;
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "h2"});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(log.Contains(kLogLevelError, "Exception caught: not tree or DFP topology\n"))
        << log.Dump();
}

TEST_F(DfpEndToEnd, LeafThatMayBeARootLeavesItsGroupWithoutGlobalLinks) {
    // Without defer_root the single job leaf of group 1 is the group's only root, and a
    // leaf has no global link.
    FabricSketch sketch;
    Group(sketch, 1, {""}, {""});
    Group(sketch, 2, {""}, {""});
    sketch.Link("s1", "s2");
    sketch.Sw("l1").defer_root = false;
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h1", "h2"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(log.Messages(kLogLevelWarning),
              std::vector<std::string>{"Island 1 has no outbound links\n"});
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "After DfpTreeBFSBottomup() island_id: 1. n_island_roots=1\nNodes: "
                             "\n\tl1\n"))
        << log.Dump();
}

}  // namespace
