// Whole requests where one switch would need more children than an 8-bit child index
// can tell apart.  The limits of the switch and of the options allow 1000 children; the
// builder still gives no node more than 256, so no two children share an index: a job
// that would need more is refused with a reason and one warning for the switch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/tree_invariants.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::ElementsAre;

// One spine over `leaves` leaves, one host each ("h1", ...); every limit at 1000.
FabricSketch SpineOver(int leaves) {
    FabricSketch sketch;
    sketch.Switch("spine", 1, [](SwitchDescription& sw) { sw.tree_children_limit = 1000; });
    for (int i = 1; i <= leaves; ++i) {
        const std::string leaf = "leaf-" + std::to_string(i);
        sketch.Switch(leaf, 0).Link(leaf, "spine").Host("h" + std::to_string(i), leaf);
    }
    sketch.Options(1000, 1);
    return sketch;
}

std::vector<std::string> AllHosts(int leaves) {
    std::vector<std::string> hosts;
    for (int i = 1; i <= leaves; ++i) {
        hosts.push_back("h" + std::to_string(i));
    }
    return hosts;
}

TEST(WideNodeEndToEnd, ThreeHundredLeavesUnderOneSpineAreRefusedWithAReason) {
    InstalledFabric fabric(SpineOver(300));
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelWarning);

    JobRun run = RunJob(creator, fabric, AllHosts(300));

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.info.error_text, "Failed to build a tree based on the selected root 'spine'\n");
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone);
    EXPECT_THAT(log.Messages(kLogLevelWarning),
                ElementsAre("Children limit 1000 of spine GUID:0x1001 lowered to 256: a child "
                            "index addresses no more children\n"));
}

TEST(WideNodeEndToEnd, TwoHundredFiftySixLeavesUnderOneSpineGetDistinctIndices) {
    InstalledFabric fabric(SpineOver(256));
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelWarning);

    JobRun run = RunJob(creator, fabric, AllHosts(256));

    ASSERT_EQ(run.status, 0) << run.info.error_text;
    EXPECT_EQ(CheckTreeInvariants(run.info, fabric.fabric(), *run.ports, 1000), "");
    const TreeNode* spine = run.NodeOf("spine");
    ASSERT_NE(spine, nullptr);
    EXPECT_EQ(spine->num_children, 256);
    std::set<uint16_t> indices;
    for (const std::string& leaf : run.ChildrenOf("spine")) {
        indices.insert(run.NodeOf(leaf)->child_index);
    }
    EXPECT_EQ(indices.size(), 256u);
    EXPECT_TRUE(log.Messages(kLogLevelWarning).empty());
}

}  // namespace
