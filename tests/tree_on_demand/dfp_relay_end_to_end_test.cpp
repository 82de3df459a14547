// Dragonfly+ jobs whose tree runs through switches that are not the roots of their
// groups, on small fabrics drawn by hand, with the trees worked out by hand:
//
// - a middle switch that relays between two other groups while its own group's subtree
//   passes through it keeps one parent;
// - a spine of a job's group that lies above none of the job's leaves relays with a
//   tree node of its own;
// - a group served by one switch is listed once.
//
// Every switch of a group has topology kind 3 and the group's id; leaves and middle
// switches defer the root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"
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

}  // namespace
