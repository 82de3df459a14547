// Choice of the job's tree id, the plane check and the score summary of a linked tree.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"
#include "fabric_model/tree_node.h"
#include "support/cache_line_override.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

constexpr const char* kNoFreeIdMessage = "Couldn't find any available tree id to use for the job\n";

std::vector<uint16_t> IdRange(uint16_t first, uint16_t last) {
    std::vector<uint16_t> ids;
    for (uint32_t id = first; id <= last; ++id) {
        ids.push_back(static_cast<uint16_t>(id));
    }
    return ids;
}

// Three leaves under one spine; the job is abc_42.
FabricSketch ThreeLeafSketch() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2", "leaf-3"}, 0)
        .Switch("spine", 1)
        .Link("leaf-1", "spine")
        .Link("leaf-2", "spine")
        .Link("leaf-3", "spine");
    return sketch;
}

class TreeIdAssignment : public ::testing::Test {
protected:
    TreeIdAssignment() { info.job_id = ZeltaExtJobId{42, 0, "abc"}; }

    void Install(const FabricSketch& sketch) { fabric = std::make_unique<InstalledFabric>(sketch); }

    // A default tree node of `switch_name` appended to the record's tree-node list.
    TreeNode* AddNode(const std::string& switch_name, uint8_t plane = 0) {
        nodes.push_back(
            std::make_unique<TreeNode>(kDefaultTreeId, fabric->Switch(switch_name), plane));
        info.tree_nodes.push_back(nodes.back().get());
        ++info.tree_nodes_count;
        return nodes.back().get();
    }

    int Assign() {
        score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
        return creator.UpdateQuasiFatTreeJobSubTreeInfo(info, score);
    }

    // Marks the record so that a failed assignment can be seen to leave it alone.
    void MarkRecord() {
        info.tree_id = 77;
        info.second_tree_id = 78;
        info.plane = 9;
        info.score_node_count = 123;
        info.score_max_active_trees = 456;
        info.score_priority = 7;
    }

    void ExpectRecordUntouched() const {
        EXPECT_EQ(info.tree_id, 77);
        EXPECT_EQ(info.second_tree_id, 78);
        EXPECT_EQ(info.plane, 9);
        EXPECT_EQ(info.score_node_count, 123u);
        EXPECT_EQ(info.score_max_active_trees, 456u);
        EXPECT_EQ(info.score_priority, 7);
    }

    // Declared first so that the tree nodes go before their switches.
    std::unique_ptr<InstalledFabric> fabric;
    std::vector<std::unique_ptr<TreeNode>> nodes;
    OnDemandTreeCreator creator;
    JobResource job;
    JobSubTreeInfo info;
    JobSubTreeScore score;
};

TEST_F(TreeIdAssignment, LowestIdFreeOnEveryTreeSwitchIsChosen) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.Sw("leaf-1").used_tree_ids = {0, 1};
    sketch.Sw("spine").used_tree_ids = {2};
    sketch.Sw("leaf-2").used_tree_ids = {4};
    sketch.Sw("leaf-3").used_tree_ids = {3};  // not in the tree: does not count
    Install(sketch);
    AddNode("spine");
    AddNode("leaf-1");
    AddNode("leaf-2");
    info.second_tree_id = 5;

    LogCapture log;
    ASSERT_EQ(Assign(), 0) << log.Dump();
    EXPECT_EQ(info.tree_id, 3);
    EXPECT_EQ(info.second_tree_id, 0xFFFF);
    EXPECT_EQ(info.plane, 0);
    EXPECT_TRUE(log.Messages(kLogLevelError).empty()) << log.Dump();
}

TEST_F(TreeIdAssignment, IdsTheJobAlreadyHoldsAreSkipped) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.Sw("spine").used_tree_ids = {2};
    sketch.JobTreeIds("abc_42", {0, 1, 3});
    sketch.JobTreeIds("abc_43", {4});  // another job's ids do not matter
    Install(sketch);
    AddNode("spine");
    AddNode("leaf-1");

    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.tree_id, 4);
}

TEST_F(TreeIdAssignment, JobHoldingEveryIdGetsNoneAndTheRecordIsLeftAlone) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(7).JobTreeIds("abc_42", IdRange(0, 7));
    Install(sketch);
    AddNode("spine", 1);
    AddNode("leaf-1", 1);
    MarkRecord();

    LogCapture log;
    EXPECT_EQ(Assign(), 1);
    ExpectRecordUntouched();
    ASSERT_EQ(log.Messages(kLogLevelError), std::vector<std::string>{kNoFreeIdMessage})
        << log.Dump();
    const LogCapture::Entry& entry = log.Entries().back();
    EXPECT_EQ(entry.module, "TREES  ");
    EXPECT_EQ(entry.file, "tree_on_demand");
    EXPECT_EQ(entry.function, "UpdateQuasiFatTreeJobSubTreeInfo");
}

TEST_F(TreeIdAssignment, IdsFreeNowhereAndHeldByTheJobLeaveNone) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(7);
    sketch.Sw("leaf-1").used_tree_ids = {0, 1, 2, 3};
    sketch.Sw("leaf-2").used_tree_ids = {4, 5};
    sketch.JobTreeIds("abc_42", {6, 7});
    Install(sketch);
    AddNode("leaf-1");
    AddNode("leaf-2");

    LogCapture log;
    EXPECT_EQ(Assign(), 1);
    EXPECT_EQ(log.Count(kLogLevelError, kNoFreeIdMessage), 1u) << log.Dump();
}

TEST_F(TreeIdAssignment, SatIdsHeldByTheJobStayAvailable) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.Description().sat_tree_ids = {0, 1};
    sketch.JobTreeIds("abc_42", {0, 1});
    Install(sketch);
    AddNode("spine");
    AddNode("leaf-1");

    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.tree_id, 0);
}

TEST_F(TreeIdAssignment, OnlyTheSatIdsOfTheJobAreKept) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.Description().sat_tree_ids = {1};
    sketch.JobTreeIds("abc_42", {0, 1, 2});
    Install(sketch);
    AddNode("spine");

    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.tree_id, 1);
}

TEST_F(TreeIdAssignment, JobIdsOutsideTheTreeIdSpaceAreLoggedOncePerArrayAndIgnored) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(127).JobTreeIds("abc_42", {0, 128, 500});
    Install(sketch);
    AddNode("spine");

    LogCapture log;
    ASSERT_EQ(Assign(), 0) << log.Dump();
    EXPECT_EQ(info.tree_id, 1);
    const std::string at_limit =
        "Got a request to set a bit at location: 128, but bit array size is: 128 bits";
    const std::string far_out =
        "Got a request to set a bit at location: 500, but bit array size is: 128 bits";
    EXPECT_EQ(log.Messages(kLogLevelError),
              (std::vector<std::string>{at_limit, at_limit, far_out, far_out}))
        << log.Dump();
    for (const LogCapture::Entry& entry : log.Entries()) {
        EXPECT_EQ(entry.module, "TREES  ");
        EXPECT_EQ(entry.file, "am_bit_array");
        EXPECT_EQ(entry.function, "SetBit2False");
    }
}

TEST_F(TreeIdAssignment, HighestIdOfAOneWordSpaceIsUsable) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(63);
    sketch.Sw("spine").used_tree_ids = IdRange(0, 62);
    Install(sketch);
    AddNode("spine");
    AddNode("leaf-1");

    LogCapture log;
    ASSERT_EQ(Assign(), 0) << log.Dump();
    EXPECT_EQ(info.tree_id, 63);
}

TEST_F(TreeIdAssignment, OneWordSpaceWithEveryIdTakenHasNoPaddingToFallOn) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(63).JobTreeIds("abc_42", {63});
    sketch.Sw("spine").used_tree_ids = IdRange(0, 62);
    Install(sketch);
    AddNode("spine");

    LogCapture log;
    EXPECT_EQ(Assign(), 1);
    // 63 is a real id: clearing it is no out-of-range request.
    EXPECT_EQ(log.Messages(kLogLevelError), std::vector<std::string>{kNoFreeIdMessage})
        << log.Dump();
}

TEST_F(TreeIdAssignment, IdInTheSecondWordIsFound) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(64);
    sketch.Sw("spine").used_tree_ids = IdRange(0, 63);
    Install(sketch);
    AddNode("spine");

    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.tree_id, 64);
}

TEST_F(TreeIdAssignment, WidestTreeIdSpaceReachesItsLastId) {
    // max_tree_id 65535: 65536 ids in 1024 whole words; the count must not wrap to 0.
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(65535);
    sketch.Sw("spine").used_tree_ids = IdRange(0, 65533);
    sketch.JobTreeIds("abc_42", {65534});
    Install(sketch);
    AddNode("spine");
    AddNode("leaf-1");

    LogCapture log;
    ASSERT_EQ(Assign(), 0) << log.Dump();
    EXPECT_EQ(info.tree_id, 65535);
    EXPECT_TRUE(log.Messages(kLogLevelError).empty()) << log.Dump();
}

TEST_F(TreeIdAssignment, ScanLandingOnAPaddingBitReportsNone) {
    // 65 ids: the second word holds id 64 and padding bits 65 to 127, all set.  With
    // ids 0 to 63 taken on the switch and 64 held by the job, the first set bit left is
    // padding bit 65.
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(64).JobTreeIds("abc_42", {64});
    sketch.Sw("spine").used_tree_ids = IdRange(0, 63);
    Install(sketch);
    AddNode("spine");
    MarkRecord();

    LogCapture log;
    EXPECT_EQ(Assign(), 1);
    ExpectRecordUntouched();
    EXPECT_EQ(log.Messages(kLogLevelError), std::vector<std::string>{kNoFreeIdMessage})
        << log.Dump();
}

TEST_F(TreeIdAssignment, MixOfPlanesIsReportedOnceAndTheFirstNonZeroPlaneKept) {
    FabricSketch sketch = ThreeLeafSketch();
    Install(sketch);
    AddNode("spine", 0);
    AddNode("leaf-1", 2);
    AddNode("leaf-2", 0);
    TreeNode* odd_one = AddNode("leaf-3", 3);

    LogCapture log;
    ASSERT_EQ(Assign(), 0) << log.Dump();
    EXPECT_EQ(info.plane, 2);
    // The message has no line end.
    const std::string mix = "tree_node set contain mix of planes. " + odd_one->ToString();
    ASSERT_EQ(log.Messages(kLogLevelError), std::vector<std::string>{mix}) << log.Dump();
    const LogCapture::Entry& entry = log.Entries().front();
    EXPECT_EQ(entry.module, "TREES  ");
    EXPECT_EQ(entry.file, "tree_on_demand");
    EXPECT_EQ(entry.function, "UpdateQuasiFatTreeJobSubTreeInfo");
}

TEST_F(TreeIdAssignment, NodesOnOnePlaneRaiseNoMix) {
    Install(ThreeLeafSketch());
    AddNode("spine", 4);
    AddNode("leaf-1", 0);
    AddNode("leaf-2", 4);

    LogCapture log;
    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.plane, 4);
    EXPECT_TRUE(log.Messages(kLogLevelError).empty()) << log.Dump();
}

TEST_F(TreeIdAssignment, PlaneStaysZeroWhenEveryNodeHasPlaneZero) {
    Install(ThreeLeafSketch());
    AddNode("spine", 0);
    AddNode("leaf-1", 0);
    info.plane = 6;

    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.plane, 0);
}

TEST_F(TreeIdAssignment, EmptyTreeTakesTheLowestIdTheJobDoesNotHold) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.Sw("spine").used_tree_ids = {1};  // no tree node: no switch restricts the ids
    sketch.JobTreeIds("abc_42", {0, 2});
    Install(sketch);
    info.plane = 6;

    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.tree_id, 1);
    EXPECT_EQ(info.plane, 0);
    EXPECT_EQ(info.second_tree_id, 0xFFFF);
    EXPECT_EQ(info.score_node_count, 0u);
}

TEST_F(TreeIdAssignment, NodeTheScoreRefusesFailsTheStageWithItsStatus) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(7);
    sketch.Sw("leaf-2").used_tree_ids = IdRange(0, 7);  // no free id: cannot host a tree
    Install(sketch);
    AddNode("spine", 1);
    AddNode("leaf-1", 2);
    TreeNode* full = AddNode("leaf-2", 3);
    AddNode("leaf-3", 4);
    MarkRecord();

    LogCapture log;
    EXPECT_EQ(Assign(), 1);
    ExpectRecordUntouched();
    // The node after the refused one is never looked at, so only one plane mix is seen.
    EXPECT_EQ(
        log.Messages(kLogLevelError),
        (std::vector<std::string>{
            "tree_node set contain mix of planes. " + nodes[1]->ToString(),
            "Failed to update tree score with data of tree node: " + full->ToString() + "\n"}))
        << log.Dump();
    EXPECT_EQ(score.node_count, 2u);
}

TEST_F(TreeIdAssignment, NodeOnASwitchShortOfQuotaFailsTheStage) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.Sw("leaf-1").resources.units = 2;
    Install(sketch);
    AddNode("leaf-1");
    job.units = 3;
    MarkRecord();

    LogCapture log;
    EXPECT_EQ(Assign(), 1);
    ExpectRecordUntouched();
    EXPECT_EQ(log.Count(kLogLevelError, "Failed to update tree score with data of tree node: " +
                                            nodes[0]->ToString() + "\n"),
              1u)
        << log.Dump();
}

TEST_F(TreeIdAssignment, ScoreSummaryIsCopiedFromTheFinalScore) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(15);
    sketch.Sw("spine").active_trees = 5;
    sketch.Sw("spine").used_tree_ids = {0, 1, 2, 3};
    sketch.Sw("leaf-1").active_trees = 3;
    sketch.Sw("leaf-2").active_trees = 1;
    sketch.Sw("leaf-2").used_tree_ids = {9};
    Install(sketch);
    TreeNode* spine = AddNode("spine");
    TreeNode* leaf_1 = AddNode("leaf-1");
    TreeNode* leaf_2 = AddNode("leaf-2");
    PortData port{0x2001, 0};
    leaf_1->host_ports.push_back(&port);
    leaf_2->host_ports.push_back(&port);
    ASSERT_EQ(leaf_1->parent_edge.SetTreeNode(leaf_1, spine), 0);
    ASSERT_EQ(leaf_2->parent_edge.SetTreeNode(leaf_2, spine), 0);

    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.tree_id, 4);
    EXPECT_EQ(info.score_max_active_trees, 5u);
    EXPECT_EQ(info.score_total_active_trees, 9u);
    EXPECT_EQ(info.score_node_count, 3u);
    EXPECT_EQ(info.score_leaf_count, 2u);
    EXPECT_EQ(info.score_min_free_tree_ids, 12u);  // spine: 16 ids, 4 taken
    EXPECT_EQ(info.score_priority, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    // Field for field the same as the score.
    EXPECT_EQ(info.score_max_active_trees, score.max_active_trees);
    EXPECT_EQ(info.score_total_active_trees, score.total_active_trees);
    EXPECT_EQ(info.score_node_count, score.node_count);
    EXPECT_EQ(info.score_leaf_count, score.leaf_count);
    EXPECT_EQ(info.score_min_free_tree_ids, score.min_free_tree_ids);
    EXPECT_EQ(info.score_priority, score.priority);
}

TEST_F(TreeIdAssignment, ArraysThatCannotBeAllocatedYieldNoId) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.MaxTreeId(127);
    Install(sketch);
    AddNode("spine");
    MarkRecord();

    LogCapture log;
    int status = 0;
    {
        // Not a power of two: the aligned allocation is refused.
        CacheLineOverride bad_alignment(24);
        status = Assign();
    }
    EXPECT_EQ(status, 1);
    ExpectRecordUntouched();
    const std::string no_memory = "Could not allocate memory for bit array, size: 16";
    EXPECT_EQ(log.Messages(kLogLevelError),
              (std::vector<std::string>{no_memory, no_memory, kNoFreeIdMessage}))
        << log.Dump();
    ASSERT_FALSE(log.Entries().empty());
    EXPECT_EQ(log.Entries().front().file, "am_bit_array");
    EXPECT_EQ(log.Entries().front().function, "AMBitArray");
}

TEST_F(TreeIdAssignment, MallocBackedArraysGiveTheSameChoice) {
    FabricSketch sketch = ThreeLeafSketch();
    sketch.Sw("spine").used_tree_ids = {0, 2};
    sketch.JobTreeIds("abc_42", {1});
    Install(sketch);
    AddNode("spine");

    CacheLineOverride unknown_line_size(0);
    ASSERT_EQ(Assign(), 0);
    EXPECT_EQ(info.tree_id, 3);
}

}  // namespace
