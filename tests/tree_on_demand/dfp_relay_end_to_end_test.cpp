// Dragonfly+ jobs whose tree runs through switches that are not the roots of their
// groups, on small fabrics drawn by hand, with the trees worked out by hand:
//
// - a middle switch that relays between two other groups while its own group's subtree
//   passes through it keeps one parent;
// - a spine of a job's group that lies above none of the job's leaves relays with a
//   tree node of its own;
// - a group served by one switch is listed once;
// - when the path search finds no path within the transit limit, the fallback search
//   finds the tree through the one transit switch that joins the groups, and without
//   it the job is refused with a reason.
//
// Every switch of a group has topology kind 3 and the group's id; leaves and middle
// switches defer the root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/tree_invariants.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

void GroupSwitch(FabricSketch& sketch, const std::string& name, int rank, uint16_t group,
                 bool defer_root) {
    sketch.DfpSwitch(name, rank, group, [defer_root](SwitchDescription& sw) {
        sw.topology_kind = 3;
        sw.defer_root = defer_root;
    });
}

class DfpRelayEndToEnd : public ::testing::Test {
protected:
    JobRun Run(const FabricSketch& sketch, const std::vector<std::string>& hosts) {
        fabric = std::make_unique<InstalledFabric>(sketch);
        return RunJob(creator, *fabric, hosts);
    }

    // The run's tree is proper (the final check and the tree id) and holds no internal
    // failure.
    void ExpectProperTree(const JobRun& run) {
        ASSERT_EQ(run.status, 0) << run.info.error_text;
        EXPECT_EQ(CheckTreeInvariants(run.info, fabric->fabric(), *run.ports, 64), "");
        EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone);
    }

    std::unique_ptr<InstalledFabric> fabric;
    OnDemandTreeCreator creator;
};

// Group 1: g1-leaf - g1-mid - g1-spine; groups 2 and 3: a leaf under a spine.  Global
// links g1-spine-g2-spine, g2-spine-g1-mid, g1-mid-g3-spine.  The only way into group 3
// is g1-mid, which also carries group 1's subtree.
FabricSketch MiddleSwitchRelay() {
    FabricSketch sketch;
    GroupSwitch(sketch, "g1-leaf", 0, 1, true);
    GroupSwitch(sketch, "g1-mid", 1, 1, true);
    GroupSwitch(sketch, "g1-spine", 2, 1, false);
    GroupSwitch(sketch, "g2-leaf", 0, 2, true);
    GroupSwitch(sketch, "g2-spine", 1, 2, false);
    GroupSwitch(sketch, "g3-leaf", 0, 3, true);
    GroupSwitch(sketch, "g3-spine", 1, 3, false);
    sketch.Link("g1-leaf", "g1-mid").Link("g1-mid", "g1-spine");
    sketch.Link("g2-leaf", "g2-spine").Link("g3-leaf", "g3-spine");
    sketch.Link("g1-spine", "g2-spine").Link("g2-spine", "g1-mid").Link("g1-mid", "g3-spine");
    sketch.Host("h1", "g1-leaf").Host("h2", "g2-leaf").Host("h3", "g3-leaf");
    sketch.Options(64, 1);
    return sketch;
}

TEST_F(DfpRelayEndToEnd, MiddleSwitchRelayingBetweenGroupsKeepsOneParent) {
    // The path search joins g3-spine, g1-mid (the one transit), g2-spine and g1-spine.
    // g1-mid relays, so group 1's subtree does not link it under g1-spine: g1-spine ->
    // g1-mid is left out and g1-mid -> g1-leaf kept.  The chosen switches form the
    // chain g3-spine - g1-mid - g2-spine - g1-spine; its centre g1-mid is the root.
    JobRun run = Run(MiddleSwitchRelay(), {"h1", "h2", "h3"});

    ExpectProperTree(run);
    EXPECT_EQ(run.info.root_node->name, "g1-mid");
    EXPECT_THAT(run.ChildrenOf("g1-mid"), ElementsAre("g1-leaf", "g3-spine", "g2-spine"));
    EXPECT_THAT(run.ChildrenOf("g2-spine"), ElementsAre("g2-leaf", "g1-spine"));
    EXPECT_THAT(run.ChildrenOf("g3-spine"), ElementsAre("g3-leaf"));
    EXPECT_THAT(run.ChildrenOf("g1-spine"), ::testing::IsEmpty());
    EXPECT_EQ(run.info.tree_nodes_count, 7u);
}

// Group 1 has two spines; the job's leaf g1-leaf hangs under g1-spine-a only, while
// g1-spine-b (above the other leaf) carries the only link toward group 3.
FabricSketch SpineAboveNoJobLeaf() {
    FabricSketch sketch;
    GroupSwitch(sketch, "g1-leaf", 0, 1, true);
    GroupSwitch(sketch, "g1-other-leaf", 0, 1, true);
    GroupSwitch(sketch, "g1-spine-a", 1, 1, false);
    GroupSwitch(sketch, "g1-spine-b", 1, 1, false);
    GroupSwitch(sketch, "g2-leaf", 0, 2, true);
    GroupSwitch(sketch, "g2-spine", 1, 2, false);
    GroupSwitch(sketch, "g3-leaf", 0, 3, true);
    GroupSwitch(sketch, "g3-spine", 1, 3, false);
    sketch.Link("g1-leaf", "g1-spine-a").Link("g1-other-leaf", "g1-spine-b");
    sketch.Link("g2-leaf", "g2-spine").Link("g3-leaf", "g3-spine");
    sketch.Link("g1-spine-a", "g2-spine").Link("g2-spine", "g1-spine-b");
    sketch.Link("g1-spine-b", "g3-spine");
    sketch.Host("h1", "g1-leaf").Host("h2", "g2-leaf").Host("h3", "g3-leaf");
    sketch.Options(64, 1);
    return sketch;
}

TEST_F(DfpRelayEndToEnd, SpineAboveNoJobLeafRelaysWithATreeNodeOfItsOwn) {
    // The path g1-spine-a - g2-spine - g1-spine-b - g3-spine crosses g1-spine-b as its
    // transit; the sweep of group 1 never reached it, so it gets its tree node when it
    // is linked.  The chain has two centres, g2-spine and g1-spine-b, with two
    // neighbours each; the first in the centre's candidate order, g1-spine-b, is taken.
    JobRun run = Run(SpineAboveNoJobLeaf(), {"h1", "h2", "h3"});

    ExpectProperTree(run);
    EXPECT_EQ(run.info.root_node->name, "g1-spine-b");
    EXPECT_THAT(run.ChildrenOf("g1-spine-b"), ElementsAre("g3-spine", "g2-spine"));
    EXPECT_THAT(run.ChildrenOf("g2-spine"), ElementsAre("g2-leaf", "g1-spine-a"));
    EXPECT_THAT(run.ChildrenOf("g1-spine-a"), ElementsAre("g1-leaf"));
    EXPECT_THAT(run.ChildrenOf("g3-spine"), ElementsAre("g3-leaf"));
    EXPECT_EQ(run.NodeOf("g1-other-leaf"), nullptr);
}

// Two groups of one switch each, which carries the host and the global link and may be
// its group's root.
FabricSketch OneSwitchGroups() {
    FabricSketch sketch;
    GroupSwitch(sketch, "a", 0, 1, false);
    GroupSwitch(sketch, "b", 0, 2, false);
    sketch.Link("a", "b");
    sketch.Host("ha", "a").Host("hb", "b");
    return sketch;
}

TEST_F(DfpRelayEndToEnd, GroupServedByOneSwitchIsListedOnce) {
    JobRun run = Run(OneSwitchGroups(), {"ha", "hb"});

    ExpectProperTree(run);
    EXPECT_EQ(run.info.tree_nodes_count, 2u);
    EXPECT_THAT(run.SwitchNames(), UnorderedElementsAre("a", "b"));
    EXPECT_EQ(run.info.score_node_count, 2u);
}

// Job groups 3 (spines s3a, s3b over leaf l3) and 4 (spine s4 over l4); transit groups
// 1 (t1) and 2 (t2).  Global links s3a-t1, s3b-t1, s3b-t2, and four links t2-s4, so
// group 3 has the fewest links and the search starts there.  From s3a it spends its one
// transit on t1 and comes back into group 3; from s3b it tries t1 first too (group 1
// before group 2) and again has no transit left for t2.  The tree s3b - t2 - s4 needs
// one transit.
FabricSketch TransitSpentOnAReturn() {
    FabricSketch sketch;
    GroupSwitch(sketch, "t1", 1, 1, false);
    GroupSwitch(sketch, "t2", 1, 2, false);
    GroupSwitch(sketch, "l3", 0, 3, true);
    GroupSwitch(sketch, "s3a", 1, 3, false);
    GroupSwitch(sketch, "s3b", 1, 3, false);
    GroupSwitch(sketch, "l4", 0, 4, true);
    GroupSwitch(sketch, "s4", 1, 4, false);
    sketch.Link("l3", "s3a").Link("l3", "s3b").Link("l4", "s4");
    sketch.Link("s3a", "t1").Link("s3b", "t1").Link("s3b", "t2").Link("t2", "s4", 4);
    sketch.Host("h3", "l3").Host("h4", "l4");
    sketch.Options(64, 1);
    return sketch;
}

TEST_F(DfpRelayEndToEnd, FallbackFindsTheTreeThroughTheOneTransitThePathSearchMissed) {
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(TransitSpentOnAReturn(), {"h3", "h4"});

    EXPECT_TRUE(log.Contains(kLogLevelWarning, "DfpFindPathThruIslands No path found\n"));
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "DfpFallbackSearch found the tree's switches: 1 transit switches, 3 "
                             "switches, start t2: t2, s3b, s4\n"))
        << log.Dump();
    ExpectProperTree(run);
    // The chain s3b - t2 - s4 is centred on the transit.
    EXPECT_EQ(run.info.root_node->name, "t2");
    EXPECT_THAT(run.ChildrenOf("t2"), UnorderedElementsAre("s3b", "s4"));
    EXPECT_THAT(run.ChildrenOf("s3b"), ElementsAre("l3"));
    EXPECT_THAT(run.ChildrenOf("s4"), ElementsAre("l4"));
    EXPECT_TRUE(run.info.error_text.empty());
}

TEST_F(DfpRelayEndToEnd, WithoutTheFallbackTheJobIsRefusedWithAReason) {
    FabricSketch sketch = TransitSpentOnAReturn();
    sketch.Description().options.dfp_fallback_search = false;
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h3", "h4"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.info.error_text, "Failed to link all required Dragonfly+ groups\n");
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "DfpFallbackSearch"));
}

TEST_F(DfpRelayEndToEnd, NoTransitWithinTheLimitIsARefusalWithAReason) {
    FabricSketch sketch = TransitSpentOnAReturn();
    sketch.Options(64, 0);
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(sketch, {"h3", "h4"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.info.error_text, "Failed to link all required Dragonfly+ groups\n");
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "DfpFallbackSearch No set joins all 2 job islands within 0 transit "
                             "switches\n"));
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone);
}

// The transit the fallback needs cannot serve the job: t2 has no free tree id.
TEST_F(DfpRelayEndToEnd, FallbackCrossesNoTransitThatCannotTakeTheTree) {
    FabricSketch sketch = TransitSpentOnAReturn();
    sketch.MaxTreeId(3);
    sketch.Sw("t2").used_tree_ids = {0, 1, 2, 3};
    JobRun run = Run(sketch, {"h3", "h4"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.info.error_text, "Failed to link all required Dragonfly+ groups\n");
}

// Group 1: leaf l1 under spines a1 (no global link) and a2 (linked to b); group 2: l2
// under b, which has two more links to t in group 3.  Group 1 has the fewest links, so
// the path search starts from each of its roots and stops at a1, which has no adjacent
// node.
FabricSketch RootWithoutGlobalLinks() {
    FabricSketch sketch;
    GroupSwitch(sketch, "l1", 0, 1, true);
    GroupSwitch(sketch, "a1", 1, 1, false);
    GroupSwitch(sketch, "a2", 1, 1, false);
    GroupSwitch(sketch, "l2", 0, 2, true);
    GroupSwitch(sketch, "b", 1, 2, false);
    GroupSwitch(sketch, "t", 1, 3, false);
    sketch.Link("l1", "a1").Link("l1", "a2").Link("l2", "b");
    sketch.Link("a2", "b").Link("b", "t", 2);
    sketch.Host("h1", "l1").Host("h2", "l2");
    return sketch;
}

TEST_F(DfpRelayEndToEnd, RootWithoutGlobalLinksNoLongerStopsTheRequest) {
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(RootWithoutGlobalLinks(), {"h1", "h2"});

    EXPECT_TRUE(log.Contains(kLogLevelError,
                             "DfpFindPathThruIslands -A- Reachable node with no adjacents: a1\n"));
    ExpectProperTree(run);
    EXPECT_THAT(run.SwitchNames(), UnorderedElementsAre("a2", "l1", "b", "l2"));
}

TEST_F(DfpRelayEndToEnd, RootWithoutGlobalLinksStopsTheRequestWithoutTheFallback) {
    FabricSketch sketch = RootWithoutGlobalLinks();
    sketch.Description().options.dfp_fallback_search = false;
    JobRun run = Run(sketch, {"h1", "h2"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.info.error_text,
              "Exception caught: Encountered reachable node with no adjacents\n");
}

// Groups 1 (a over l1) and 2 (b over l2) are joined through t1 (group 7) or t2 (group
// 8); the path search tries the lower group first.  t1 has no tree id left.
FabricSketch TwoTransitsOneFull() {
    FabricSketch sketch;
    GroupSwitch(sketch, "l1", 0, 1, true);
    GroupSwitch(sketch, "a", 1, 1, false);
    GroupSwitch(sketch, "l2", 0, 2, true);
    GroupSwitch(sketch, "b", 1, 2, false);
    GroupSwitch(sketch, "t1", 1, 7, false);
    GroupSwitch(sketch, "t2", 1, 8, false);
    sketch.Link("l1", "a").Link("l2", "b");
    sketch.Link("a", "t1").Link("t1", "b").Link("a", "t2").Link("t2", "b");
    sketch.Host("h1", "l1").Host("h2", "l2");
    sketch.MaxTreeId(1);
    sketch.Sw("t1").used_tree_ids = {0, 1};
    return sketch;
}

TEST_F(DfpRelayEndToEnd, TransitThatCannotTakeTheTreeIsAvoided) {
    LogCapture log(kLogLevelDebug);
    JobRun run = Run(TwoTransitsOneFull(), {"h1", "h2"});

    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "DfpLinkIslandGraphs transit t1 of the path cannot take one more "
                             "tree\n"));
    ExpectProperTree(run);
    EXPECT_EQ(run.info.root_node->name, "t2");
    EXPECT_THAT(run.ChildrenOf("t2"), UnorderedElementsAre("a", "b"));
}

TEST_F(DfpRelayEndToEnd, TransitThatCannotTakeTheTreeRefusesTheJobWithoutTheFallback) {
    FabricSketch sketch = TwoTransitsOneFull();
    sketch.Description().options.dfp_fallback_search = false;
    JobRun run = Run(sketch, {"h1", "h2"});

    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.info.error_text,
                ::testing::StartsWith("Failed to update tree score with data of tree node: t1"));
}

}  // namespace
