// Replaying workloads: a hand-made trace whose every event is worked out by hand, the
// spread of many concurrent trees over a fat tree, and how failures are counted.
#include "simulation/workload_replay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "fabric_model/tree_node.h"
#include "support/fabric_sketch.h"
#include "support/failing_allocation.h"
#include "support/log_capture.h"
#include "topology/fabric_file.h"
#include "topology/generators.h"

namespace {

using aggtree::JobOutcome;
using aggtree::ParseJsonLinesTrace;
using aggtree::ReplayEvent;
using aggtree::ReplayOptions;
using aggtree::ReplaySummary;
using aggtree::WorkloadReplay;

// Two leaves of three hosts under two spines; only tree ids 0 and 1 exist.
FabricSketch TwoTreeIds() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switches({"spine-1", "spine-2"}, 1)
        .Link("leaf-1", "spine-1")
        .Link("leaf-1", "spine-2")
        .Link("leaf-2", "spine-1")
        .Link("leaf-2", "spine-2")
        .Hosts("leaf-1", {"node001", "node002", "node005"})
        .Hosts("leaf-2", {"node003", "node004", "node006"})
        .MaxTreeId(1);
    return sketch;
}

// Worked out by hand, event by event (ends before starts at one instant, a zero-length job
// ends after its start):
//   t=0 job 1 node001,node003   served: id 0 on spine-1, leaf-1, leaf-2 (spines alike: the first)
//   t=1 job 2 node002,node004   served: id 1, on spine-2 (spine-1 carries a tree); now both
//                               leaves have no free id: tree ids ran out on leaf-1
//   t=2 job 3 node005,node006   refused: no tree id is free on the leaves
//   t=3 job 4 node001           skipped: node001 is busy with job 1
//   t=4 end 1                   id 0 back on spine-1, leaf-1, leaf-2
//   t=5 job 5 node005,node006   busy with job 3, which runs without a tree: skipped
//   t=5 job 6 node001,node003   served: id 0 on spine-1 (spine-2 carries job 2)
//   t=6 end 2                   id 1 back on spine-2, leaf-1, leaf-2
//   t=6 end 3                   ran without a tree
//   t=6 end 4, end 5            never started
//   t=6 job 7 node002,node004   served: id 1 (id 0 is job 6's), on spine-2
//   t=7 end 6                   id 0 back
//   t=8 job 8 node001           served at once and ended at once: id 0 on leaf-1 alone
//   t=8 end 8, t=9 end 7
const char* kHandMadeTrace =
    "{\"t\": 0, \"op\": \"start\", \"job\": 1, \"hosts\": [\"node001\", \"node003\"]}\n"
    "{\"t\": 1, \"op\": \"start\", \"job\": 2, \"hosts\": [\"node002\", \"node004\"]}\n"
    "{\"t\": 2, \"op\": \"start\", \"job\": 3, \"hosts\": [\"node005\", \"node006\"]}\n"
    "{\"t\": 3, \"op\": \"start\", \"job\": 4, \"hosts\": [\"node001\"]}\n"
    "{\"t\": 4, \"op\": \"end\", \"job\": 1}\n"
    "{\"t\": 5, \"op\": \"start\", \"job\": 5, \"hosts\": [\"node006\", \"node005\"]}\n"
    "{\"t\": 5, \"op\": \"start\", \"job\": 6, \"hosts\": [\"node001\", \"node003\"]}\n"
    "{\"t\": 6, \"op\": \"start\", \"job\": 7, \"hosts\": [\"node002\", \"node004\"]}\n"
    "{\"t\": 6, \"op\": \"end\", \"job\": 2}\n"
    "{\"t\": 6, \"op\": \"end\", \"job\": 3}\n"
    "{\"t\": 6, \"op\": \"end\", \"job\": 4}\n"
    "{\"t\": 6, \"op\": \"end\", \"job\": 5}\n"
    "{\"t\": 7, \"op\": \"end\", \"job\": 6}\n"
    "{\"t\": 8, \"op\": \"end\", \"job\": 8}\n"
    "{\"t\": 8, \"op\": \"start\", \"job\": 8, \"hosts\": [\"node001\"]}\n"
    "{\"t\": 9, \"op\": \"end\", \"job\": 7}\n";

struct SeenEvent {
    double time;
    uint64_t job;
    JobOutcome outcome;
    int tree_id;  // -1 when none
    std::string root;

    bool operator==(const SeenEvent&) const = default;
};

std::ostream& operator<<(std::ostream& out, const SeenEvent& event) {
    return out << "{t=" << event.time << " job " << event.job << " outcome "
               << static_cast<int>(event.outcome) << " tree " << event.tree_id << " root '"
               << event.root << "'}";
}

TEST(WorkloadReplay, HandMadeTraceGoesAsWorkedOut) {
    InstalledFabric fabric(TwoTreeIds());
    const std::string before = aggtree::WriteFabricJson(fabric.fabric().Snapshot());
    std::vector<SeenEvent> seen;
    std::vector<std::string> reasons;
    ReplaySummary summary;
    {
        WorkloadReplay replay(fabric.fabric(), ReplayOptions{});
        summary = replay.Run(
            ParseJsonLinesTrace(kHandMadeTrace, "hand.jsonl"), [&](const ReplayEvent& event) {
                const bool tree = event.outcome == JobOutcome::kServed || event.had_tree;
                seen.push_back(
                    {event.time, event.job, event.outcome, tree ? event.tree_id : -1, event.root});
                if (!event.reason.empty()) {
                    reasons.push_back(event.reason);
                }
            });
        EXPECT_EQ(replay.Ledger().Size(), 0u);
        // The state before the first event, then after each.
        ASSERT_EQ(replay.Timeline().size(), seen.size() + 1);
        EXPECT_EQ(replay.Timeline()[0].trees_held, 0u);
        EXPECT_EQ(replay.Timeline()[1].trees_held, 1u);
        EXPECT_EQ(replay.Timeline()[2].trees_held, 2u);
        EXPECT_EQ(replay.Timeline()[2].tree_ids_in_use, 2u);
        EXPECT_EQ(replay.Timeline()[3].refused, 1u);
        EXPECT_EQ(replay.Timeline()[4].skipped, 1u);
        EXPECT_EQ(replay.Timeline()[5].time, 4.0);
        EXPECT_EQ(replay.Timeline()[5].trees_held, 1u);
        EXPECT_EQ(replay.Timeline().back().trees_held, 0u);
        EXPECT_EQ(replay.Timeline().back().served, 5u);
    }
    const std::vector<SeenEvent> expected = {
        {0, 1, JobOutcome::kServed, 0, "spine-1"}, {1, 2, JobOutcome::kServed, 1, "spine-2"},
        {2, 3, JobOutcome::kRefused, -1, ""},      {3, 4, JobOutcome::kSkipped, -1, ""},
        {4, 1, JobOutcome::kEnded, 0, ""},         {5, 5, JobOutcome::kSkipped, -1, ""},
        {5, 6, JobOutcome::kServed, 0, "spine-1"}, {6, 2, JobOutcome::kEnded, 1, ""},
        {6, 3, JobOutcome::kEnded, -1, ""},        {6, 4, JobOutcome::kEndOfSkipped, -1, ""},
        {6, 5, JobOutcome::kEndOfSkipped, -1, ""}, {6, 7, JobOutcome::kServed, 1, "spine-2"},
        {7, 6, JobOutcome::kEnded, 0, ""},         {8, 8, JobOutcome::kServed, 0, "leaf-1"},
        {8, 8, JobOutcome::kEnded, 0, ""},         {9, 7, JobOutcome::kEnded, 1, ""},
    };
    EXPECT_EQ(seen, expected);
    ASSERT_EQ(reasons.size(), 3u);
    // The first leaf without a free tree id refuses the job, named; the tally leaves the
    // name out.
    EXPECT_EQ(reasons[0],
              "Leaf switch 'leaf-1' cannot take one more tree (no free tree id, or not enough "
              "free resources for the job's quota)");
    EXPECT_EQ(reasons[1], "hosts busy");
    EXPECT_EQ(reasons[2], "hosts busy");

    EXPECT_EQ(summary.jobs, 8u);
    EXPECT_EQ(summary.started, 6u);
    EXPECT_EQ(summary.served, 5u);
    EXPECT_EQ(summary.refused.Total(), 1u);
    ASSERT_EQ(summary.refused.Reasons().size(), 1u);
    EXPECT_EQ(summary.refused.Reasons()[0].reason,
              "Leaf switch cannot take one more tree (no free tree id, or not enough free "
              "resources for the job's quota)");
    EXPECT_EQ(summary.refused.Reasons()[0].first_job, 3u);
    EXPECT_EQ(summary.internal_failures.Total(), 0u);
    EXPECT_EQ(summary.skipped.Total(), 2u);
    ASSERT_EQ(summary.skipped.Reasons().size(), 1u);
    EXPECT_EQ(summary.skipped.Reasons()[0].reason, "hosts busy");
    EXPECT_EQ(summary.skipped.Reasons()[0].count, 2u);
    // Host-seconds: jobs 1 2x4, 2 2x5, 3 2x4, 6 2x2, 7 2x3, 8 1x0; with a tree all but job 3.
    EXPECT_DOUBLE_EQ(summary.node_hours, 36.0 / 3600);
    EXPECT_DOUBLE_EQ(summary.aggregated_node_hours, 28.0 / 3600);
    EXPECT_DOUBLE_EQ(summary.AggregatedShare(), 28.0 / 36.0);
    EXPECT_EQ(summary.peak_tree_ids_in_use, 2u);
    EXPECT_EQ(summary.peak_tree_ids_at, 1.0);
    ASSERT_TRUE(summary.tree_ids_ran_out_at.has_value());
    EXPECT_EQ(*summary.tree_ids_ran_out_at, 1.0);
    EXPECT_EQ(summary.tree_ids_ran_out_on, "leaf-1");
    // At the first peak (t=1, two trees): leaves 2 trees each, spines 1 each.
    EXPECT_EQ(summary.switch_load.at, 1.0);
    EXPECT_EQ(summary.switch_load.trees_held, 2u);
    EXPECT_EQ(summary.switch_load.max, 2u);
    EXPECT_EQ(summary.switch_load.busiest, "leaf-1");
    EXPECT_DOUBLE_EQ(summary.switch_load.mean, 1.5);
    EXPECT_EQ(summary.switch_load.histogram, (std::vector<uint64_t>{0, 2, 2}));
    EXPECT_EQ(summary.latency.requests, 6u);
    EXPECT_LE(summary.latency.median_us, summary.latency.p99_us);
    EXPECT_LE(summary.latency.p99_us, summary.latency.max_us);
    EXPECT_EQ(summary.trees_held_at_end, 0u);
    EXPECT_EQ(summary.first_time, 0.0);
    EXPECT_EQ(summary.last_time, 9.0);
    EXPECT_EQ(aggtree::WriteFabricJson(fabric.fabric().Snapshot()), before);
}

TEST(WorkloadReplay, TreesOfJobsThatNeverEndAreStillHeldAtTheEnd) {
    InstalledFabric fabric(TwoTreeIds());
    WorkloadReplay replay(fabric.fabric(), ReplayOptions{});
    ReplaySummary summary =
        replay.Run(ParseJsonLinesTrace("{\"t\": 0, \"op\": \"start\", \"job\": 1, \"count\": 2}\n"
                                       "{\"t\": 10, \"op\": \"start\", \"job\": 2, \"count\": 2}\n"
                                       "{\"t\": 20, \"op\": \"start\", \"job\": 3, \"random\": 2}\n"
                                       "{\"t\": 30, \"op\": \"end\", \"job\": 3}\n",
                                       "open.jsonl"));
    EXPECT_EQ(summary.served, 3u);
    EXPECT_EQ(summary.trees_held_at_end, 2u);
    EXPECT_EQ(replay.Ledger().Size(), 2u);
    // Compact placement: both jobs on one leaf each, one-switch trees.
    EXPECT_EQ(fabric.Switch("spine-1")->active_trees, 0u);
    EXPECT_EQ(fabric.Switch("leaf-1")->active_trees, 1u);
    EXPECT_EQ(fabric.Switch("leaf-2")->active_trees, 1u);
    // Jobs 1 and 2 run until the last event (t=30), job 3 for 10 s.
    EXPECT_DOUBLE_EQ(summary.node_hours, (2 * 30 + 2 * 20 + 2 * 10) / 3600.0);
}

TEST(WorkloadReplay, JobsThatCannotHaveTheirHostsAreSkippedByReason) {
    InstalledFabric fabric(TwoTreeIds());
    WorkloadReplay replay(fabric.fabric(), ReplayOptions{});
    ReplaySummary summary =
        replay.Run(ParseJsonLinesTrace("{\"t\": 0, \"op\": \"start\", \"job\": 1, \"count\": 7}\n"
                                       "{\"t\": 0, \"op\": \"start\", \"job\": 2, \"count\": 5}\n"
                                       "{\"t\": 1, \"op\": \"start\", \"job\": 3, \"count\": 2}\n"
                                       "{\"t\": 1, \"op\": \"start\", \"job\": 4, \"random\": 1}\n"
                                       "{\"t\": 2, \"op\": \"start\", \"job\": 5, \"random\": 1}\n",
                                       "skips.jsonl"));
    EXPECT_EQ(summary.started, 2u);
    std::vector<aggtree::ReasonCount> skipped = summary.skipped.Reasons();
    ASSERT_EQ(skipped.size(), 2u);
    EXPECT_EQ(skipped[0].reason, "too few free hosts");
    EXPECT_EQ(skipped[0].count, 2u);
    EXPECT_EQ(skipped[0].first_job, 3u);
    EXPECT_EQ(skipped[1].reason, "larger than the fabric");
    EXPECT_EQ(skipped[1].count, 1u);
}

TEST(WorkloadReplay, UnknownHostIsNamedWithTheTracesLineBeforeAnythingRuns) {
    InstalledFabric fabric(TwoTreeIds());
    WorkloadReplay replay(fabric.fabric(), ReplayOptions{});
    try {
        replay.Run(ParseJsonLinesTrace(
            "{\"t\": 0, \"op\": \"start\", \"job\": 1, \"hosts\": [\"node001\"]}\n"
            "{\"t\": 1, \"op\": \"start\", \"job\": 2, \"hosts\": [\"node404\"]}\n",
            "unknown.jsonl"));
        FAIL() << "no error";
    } catch (const aggtree::InputError& error) {
        EXPECT_EQ(error.file(), "unknown.jsonl");
        EXPECT_EQ(error.where(), "line 2");
        EXPECT_EQ(error.problem(),
                  "unknown host 'node404': the fabric has no host of that name or GUID");
    }
    EXPECT_EQ(replay.Ledger().Size(), 0u);
    EXPECT_EQ(fabric.Switch("leaf-1")->active_trees, 0u);
}

TEST(WorkloadReplay, OutOfMemoryInARequestIsCountedApartFromRefusals) {
    InstalledFabric fabric(TwoTreeIds());
    LogCapture quiet(kLogLevelError);
    WorkloadReplay replay(fabric.fabric(), ReplayOptions{});
    ReplaySummary summary = replay.Run(
        ParseJsonLinesTrace(
            "{\"t\": 0, \"op\": \"start\", \"job\": 1, \"hosts\": [\"node001\", \"node003\"]}\n"
            "{\"t\": 1, \"op\": \"start\", \"job\": 2, \"hosts\": [\"node002\", \"node004\"]}\n"
            "{\"t\": 2, \"op\": \"start\", \"job\": 3, \"hosts\": [\"node005\", \"node006\"]}\n",
            "oom.jsonl"),
        [](const ReplayEvent& event) {
            if (event.job == 1) {
                FailNextAllocationOfSize(sizeof(TreeNode));  // the next leaf node of job 2
            }
        });
    FailNextAllocationOfSize(0);
    EXPECT_EQ(summary.started, 3u);
    EXPECT_EQ(summary.served, 2u);
    EXPECT_EQ(summary.internal_failures.Total(), 1u);
    ASSERT_EQ(summary.internal_failures.Reasons().size(), 1u);
    EXPECT_EQ(summary.internal_failures.Reasons()[0].reason, "out of memory");
    EXPECT_EQ(summary.internal_failures.Reasons()[0].first_job, 2u);
    // Job 2 took no tree id, so job 3 finds id 1 free on the leaves.
    EXPECT_EQ(summary.refused.Total(), 0u);
}

// Many equal jobs at once on a fat tree: the score spreads their trees, so no switch
// carries more than twice the mean, and the spines share the roots evenly.
TEST(WorkloadReplay, ManyEqualConcurrentJobsSpreadOverTheSwitches) {
    aggtree::FatTreeParams params;
    params.levels = 2;
    params.radix = 16;  // 16 leaves of 8 hosts, 8 spines
    InstalledFabric fabric(aggtree::GenerateFatTree(params));
    std::string trace;
    for (int job = 1; job <= 32; ++job) {
        trace +=
            "{\"t\": 0, \"op\": \"start\", \"job\": " + std::to_string(job) + ", \"random\": 4}\n";
    }
    ReplayOptions options;
    options.seed = 7;
    WorkloadReplay replay(fabric.fabric(), options);
    ReplaySummary summary = replay.Run(ParseJsonLinesTrace(trace, "equal.jsonl"));
    ASSERT_EQ(summary.served, 32u);
    ASSERT_EQ(summary.switch_load.trees_held, 32u);
    EXPECT_LE(summary.switch_load.max, 2 * summary.switch_load.mean)
        << "busiest " << summary.switch_load.busiest;

    std::vector<uint32_t> spine_loads;
    for (const AggNodeFabricInfo& sw : fabric.fabric().Switches()) {
        if (sw.rank == 1) {
            spine_loads.push_back(sw.active_trees);
        }
    }
    ASSERT_EQ(spine_loads.size(), 8u);
    const double spine_mean =
        std::accumulate(spine_loads.begin(), spine_loads.end(), 0.0) / spine_loads.size();
    ASSERT_GT(spine_mean, 1.0) << "most jobs span several leaves";
    EXPECT_LE(*std::max_element(spine_loads.begin(), spine_loads.end()), 2 * spine_mean);
}

TEST(WorkloadReplay, ARefusalsReasonComesFromTheErrorTextOrTheLoggedError) {
    aggtree::RefusalReason from_text = aggtree::ClassifyRefusal(
        "Failed to build a tree based on the selected root 'spine-1'\nmore\n", {"ignored"});
    EXPECT_EQ(from_text.reason, "Failed to build a tree based on the selected root");
    EXPECT_EQ(from_text.detail, "Failed to build a tree based on the selected root 'spine-1' more");
    aggtree::RefusalReason from_log =
        aggtree::ClassifyRefusal("", {"Couldn't find any available tree id to use for the job\n"});
    EXPECT_EQ(from_log.reason, "Couldn't find any available tree id to use for the job");
    aggtree::RefusalReason with_node = aggtree::ClassifyRefusal(
        "", {"Failed to update tree score with data of tree node: leaf-1 GUID:0x1001\n"});
    EXPECT_EQ(with_node.reason, "Failed to update tree score with data of tree node");
    EXPECT_EQ(with_node.detail,
              "Failed to update tree score with data of tree node: leaf-1 GUID:0x1001");
    EXPECT_EQ(aggtree::ClassifyRefusal("", {}).reason, "the builder gave no reason");
}

}  // namespace
