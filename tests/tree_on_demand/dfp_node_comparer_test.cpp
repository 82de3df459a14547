// Comparison of a current best node with a candidate in the Dragonfly+ builder: which
// rule decides, what it answers and how the decision is traced.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/am_assert.h"
#include "support/dfp_islands.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/dfp_records.h"

namespace {

class DfpNodeComparerTest : public ::testing::Test {
protected:
    DfpNodeComparerTest() : fabric(Sketch()), comparer(&islands) {
        AddIsland(1, {"r1", "r1b"}, 4);
        AddIsland(2, {"r2"}, 4);
        AddIsland(3, {"r3"}, 6);
    }

    static FabricSketch Sketch() {
        FabricSketch sketch;
        sketch.DfpSwitch("r1", 1, 1)
            .DfpSwitch("r1b", 1, 1)
            .DfpSwitch("r2", 1, 2)
            .DfpSwitch("r3", 1, 3)
            .DfpSwitch("t7", 1, 7)
            .Switch("plain", 1)
            .Switch("plain2", 1);
        return sketch;
    }

    void AddIsland(uint16_t id, const std::vector<std::string>& roots, uint16_t links) {
        AddDfpIsland(islands, fabric, id, roots, links);
    }

    // Gives `name` a record in its island's sweep map whose best group carries a score
    // with `active_trees` trees on its busiest switch.
    void RateRoot(uint16_t island, const std::string& name, uint32_t active_trees) {
        DfpIslandInfo& info = *islands.at(island);
        AggNodeFabricInfo* sw = fabric.Switch(name);
        info.descendant_groups.emplace_back(sw);
        info.descendant_groups.back().score.max_active_trees = active_trees;
        auto record = std::make_unique<QuasiFatTreeAnInfo>(sw);
        record->best_group = &info.descendant_groups.back();
        info.agg_node_to_quasi_fat_tree_info[sw] = std::move(record);
    }

    const AggNode* N(const std::string& name) { return fabric.Switch(name); }

    static std::string Line(const std::string& best, const std::string& candidate, bool better,
                            const std::string& reason) {
        return "NodeCompare: curr_best: " + best + " candidate: " + candidate +
               ". candidate_better?: " + (better ? "1" : "0") + ". reason: " + reason + "\n";
    }

    InstalledFabric fabric;
    DfpIslandMap islands;
    DfpNodeComparer comparer;
    JobSubTreeInfo job;
};

TEST_F(DfpNodeComparerTest, WithoutCurrentBestAnyCandidateIsBetter) {
    LogCapture log;
    EXPECT_TRUE(comparer.IsCandidateBetter(nullptr, N("t7"), nullptr));
    EXPECT_TRUE(comparer.IsCandidateBetter(nullptr, N("r2"), nullptr));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              (std::vector<std::string>{Line("<null>", "t7", true, "no_best_yet"),
                                        Line("<null>", "r2", true, "no_best_yet")}));
    EXPECT_EQ(log.Entries()[0].function, "IsCandidateBetter");
}

TEST_F(DfpNodeComparerTest, CandidateOfChildlessIslandLosesToJobIsland) {
    LogCapture log;
    EXPECT_FALSE(comparer.IsCandidateBetter(N("r1"), N("t7"), nullptr));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              std::vector<std::string>{Line("r1", "t7", false, "candidate_childless_island")});
}

TEST_F(DfpNodeComparerTest, TwoNodesWithoutIslandKeepTheCurrentBest) {
    LogCapture log;
    EXPECT_FALSE(comparer.IsCandidateBetter(N("plain"), N("plain2"), nullptr));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              std::vector<std::string>{Line("plain", "plain2", false, "both_childless_island")});
}

TEST_F(DfpNodeComparerTest, JobIslandCandidateBeatsChildlessCurrentBest) {
    LogCapture log;
    EXPECT_TRUE(comparer.IsCandidateBetter(N("t7"), N("r1"), nullptr));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              std::vector<std::string>{Line("t7", "r1", true, "curr_childless_island")});
}

TEST_F(DfpNodeComparerTest, DifferentIslandsWithEqualOutboundLinksKeepTheCurrentBest) {
    LogCapture log;
    EXPECT_FALSE(comparer.IsCandidateBetter(N("r1"), N("r2"), nullptr));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              (std::vector<std::string>{"island1: 1 avail_conn: 4. island2: 2 avail_conn: 4\n",
                                        Line("r1", "r2", false, "curr_best_good_enough")}));
    EXPECT_EQ(log.Entries()[0].function, "operator()");
    EXPECT_EQ(log.Entries()[1].function, "IsCandidateBetter");
}

TEST_F(DfpNodeComparerTest, CandidateIslandWithMoreOutboundLinksIsBetter) {
    LogCapture log;
    EXPECT_TRUE(comparer.IsCandidateBetter(N("r1"), N("r3"), nullptr));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              (std::vector<std::string>{"island1: 1 avail_conn: 4. island2: 3 avail_conn: 6\n",
                                        Line("r1", "r3", true, "outbound_links")}));
}

TEST_F(DfpNodeComparerTest, CandidateIslandWithFewerOutboundLinksIsNotBetter) {
    LogCapture log;
    EXPECT_FALSE(comparer.IsCandidateBetter(N("r3"), N("r2"), nullptr));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              (std::vector<std::string>{"island1: 3 avail_conn: 6. island2: 2 avail_conn: 4\n",
                                        Line("r3", "r2", false, "outbound_links")}));
}

TEST_F(DfpNodeComparerTest, SameIslandWithoutJobRecordKeepsTheCurrentBest) {
    RateRoot(1, "r1", 5);
    RateRoot(1, "r1b", 0);  // far better, but without a job record it is not looked at
    LogCapture log;
    EXPECT_FALSE(comparer.IsCandidateBetter(N("r1"), N("r1b"), nullptr));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              std::vector<std::string>{Line("r1", "r1b", false, "same_island")});
}

TEST_F(DfpNodeComparerTest, SameIslandWithJobRecordPrefersTheBetterIslandTree) {
    RateRoot(1, "r1", 5);
    RateRoot(1, "r1b", 2);
    LogCapture log;
    EXPECT_TRUE(comparer.IsCandidateBetter(N("r1"), N("r1b"), &job));
    EXPECT_FALSE(comparer.IsCandidateBetter(N("r1b"), N("r1"), &job));
    EXPECT_EQ(log.Messages(kLogLevelDebug),
              (std::vector<std::string>{Line("r1", "r1b", true, "same_island_qft_score"),
                                        Line("r1b", "r1", false, "same_island_qft_score")}));
}

TEST_F(DfpNodeComparerTest, SameIslandWithEqualScoresKeepsTheCurrentBest) {
    RateRoot(1, "r1", 3);
    RateRoot(1, "r1b", 3);
    EXPECT_FALSE(comparer.IsCandidateBetter(N("r1"), N("r1b"), &job));
    EXPECT_FALSE(comparer.IsCandidateBetter(N("r1b"), N("r1"), &job));
}

TEST_F(DfpNodeComparerTest, NullCandidateIsABrokenInvariant) {
    LogCapture log;
    try {
        comparer.IsCandidateBetter(N("r1"), nullptr, nullptr);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "p_candidate==null");
    }
    ASSERT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"-A- assert(p_candidate) failed. p_candidate==null"});
    EXPECT_EQ(log.Entries()[0].function, "operator()");
    EXPECT_TRUE(log.Messages(kLogLevelDebug).empty());
}

TEST_F(DfpNodeComparerTest, CurrentBestMissingFromTheSweepMapIsABrokenInvariant) {
    RateRoot(1, "r1b", 1);
    LogCapture log;
    try {
        comparer.IsCandidateBetter(N("r1"), N("r1b"), &job);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "Missing QFT info for island_id: 1 node1: r1");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{
                  "-A- assert(iter_qft_info1 != "
                  "p_island_info1->agg_node_to_quasi_fat_tree_info.end()) failed. Missing QFT "
                  "info for island_id: 1 node1: r1"});
    EXPECT_EQ(log.Entries()[0].function, "operator()");
}

TEST_F(DfpNodeComparerTest, CandidateMissingFromTheSweepMapIsABrokenInvariant) {
    RateRoot(1, "r1", 1);
    LogCapture log;
    try {
        comparer.IsCandidateBetter(N("r1"), N("r1b"), &job);
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "Missing QFT info for island_id: 1 node2: r1b");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{
                  "-A- assert(iter_qft_info2 != "
                  "p_island_info1->agg_node_to_quasi_fat_tree_info.end()) failed. Missing QFT "
                  "info for island_id: 1 node2: r1b"});
}

TEST_F(DfpNodeComparerTest, NothingIsTracedWhenTheDebugLevelIsOff) {
    LogCapture log(kLogLevelWarning);
    EXPECT_TRUE(comparer.IsCandidateBetter(N("r1"), N("r3"), nullptr));
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

}  // namespace
