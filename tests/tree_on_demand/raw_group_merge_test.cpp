// Folding an offered group without leaves of its own into a switch's candidates.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/assertion_text.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

FabricSketch FourLeavesTwoMiddlesOneTop() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2", "leaf-3", "leaf-4"}, 0)
        .Switches({"mid-1", "mid-2"}, 1)
        .Switch("top", 2);
    return sketch;
}

class RawGroupMergeTest : public ::testing::Test {
protected:
    RawGroupMergeTest() : fabric(FourLeavesTwoMiddlesOneTop()), top(fabric.Switch("top")) {}

    AggNodeFabricInfo* Sw(const std::string& name) { return fabric.Switch(name); }
    std::string Name(const std::string& name) { return Sw(name)->port_info->GetName(); }

    LeafSwitchSet Leaves(const std::vector<std::string>& names) {
        LeafSwitchSet leaves;
        for (const std::string& name : names) {
            leaves.insert(Sw(name));
        }
        return leaves;
    }

    DescendantGroup& Group(const std::string& at, const std::vector<std::string>& leaves) {
        DescendantGroup& group = groups.emplace_back(Sw(at));
        group.leaf_nodes = Leaves(leaves);
        group.leaves_hash = CalculateLeavesHash(group.leaf_nodes, LeafNodeGuidKey);
        return group;
    }

    // A candidate of the top switch, appended to `out`.
    DescendantGroup& Candidate(const std::vector<std::string>& leaves) {
        DescendantGroup& candidate = Group("top", leaves);
        out.push_back(&candidate);
        return candidate;
    }

    // An offered group with `links` parallel up-links to the top switch (none recorded
    // when 0).
    DescendantGroup& Raw(const std::string& at, const std::vector<std::string>& leaves,
                         int32_t links) {
        if (links > 0) {
            top.map_valid_path_count_to_child[Sw(at)] = links;
        }
        return Group(at, leaves);
    }

    void Merge(const DescendantGroup& raw) {
        creator.CombineGroupsWithRawGroup(out, raw, job, top, groups);
    }

    static std::string Lines(const std::vector<DescendantGroup*>& list) {
        std::string text;
        for (const DescendantGroup* group : list) {
            text += "\n" + group->ToString(0);
        }
        return text;
    }

    InstalledFabric fabric;
    QuasiFatTreeAnInfo top;
    OnDemandTreeCreator creator;
    JobSubTreeInfo job;
    DescendantGroupList groups;
    std::vector<DescendantGroup*> out;
};

TEST_F(RawGroupMergeTest, NoCandidatesOnlyTracesTheInputAndTheEmptyResult) {
    LogCapture log;
    DescendantGroup& raw = Raw("mid-1", {"leaf-1"}, 1);

    Merge(raw);

    EXPECT_TRUE(out.empty());
    EXPECT_EQ(groups.size(), 1u);
    EXPECT_EQ(log.Messages(4), (std::vector<std::string>{
                                   "MergeGroups raw:\n" + raw.ToString(0) + "\ncombined:\n",
                                   "MergeGroups result: \n",
                               }));
}

TEST_F(RawGroupMergeTest, InputAndResultTracesWaitForTheFabricModule) {
    LogCapture log;
    log_set_level(kLogModuleFabric, kLogLevelWarning);
    Candidate({"leaf-1", "leaf-2"});
    DescendantGroup& raw = Raw("mid-1", {"leaf-1"}, 1);

    Merge(raw);

    EXPECT_FALSE(log.ContainsFragment(4, "MergeGroups raw:"));
    EXPECT_FALSE(log.ContainsFragment(4, "MergeGroups result:"));
    EXPECT_TRUE(log.Contains(4, "MergeGroups redundant raw group\n")) << log.Dump();
}

TEST_F(RawGroupMergeTest, InputAndResultTracesAreSentUnderTheTreesModule) {
    LogCapture log;
    log_set_level(kLogModuleTrees, kLogLevelWarning);
    DescendantGroup& raw = Raw("mid-1", {"leaf-1"}, 1);

    Merge(raw);
    EXPECT_TRUE(log.Entries().empty()) << "the fabric gate alone logs nothing\n" << log.Dump();

    log_set_level(kLogModuleTrees, kLogLevelDebug);
    Merge(raw);
    ASSERT_EQ(log.Entries().size(), 2u) << log.Dump();
    for (const LogCapture::Entry& entry : log.Entries()) {
        EXPECT_EQ(entry.module, kLogModuleTrees);
        EXPECT_EQ(entry.level, kLogLevelDebug);
    }
}

TEST_F(RawGroupMergeTest, RawGroupInsideANoBetterCandidateIsRedundant) {
    LogCapture log;
    DescendantGroup& first = Candidate({"leaf-1", "leaf-2", "leaf-3"});
    DescendantGroup& second = Candidate({"leaf-4"});
    DescendantGroup& raw = Raw("mid-1", {"leaf-2", "leaf-3"}, 1);
    raw.score.max_active_trees = 1;
    const size_t groups_before = groups.size();

    Merge(raw);

    EXPECT_EQ(out, (std::vector<DescendantGroup*>{&first, &second}));
    EXPECT_EQ(groups.size(), groups_before);
    EXPECT_EQ(log.Messages(4),
              (std::vector<std::string>{
                  "MergeGroups raw:\n" + raw.ToString(0) + "\ncombined:" + Lines(out) + "\n",
                  "MergeGroups combined DG_ID=" + std::to_string(first.id) +
                      " combined_group_contains_raw_group=1 "
                      "raw_group_score_better_than_combined_group=0\n",
                  "MergeGroups redundant raw group\n",
                  "MergeGroups result: " + Lines(out) + "\n",
              }));
}

TEST_F(RawGroupMergeTest, RawGroupWithTheLeavesOfAStrictlyBetterCandidateIsRedundant) {
    LogCapture log;
    DescendantGroup& better = Candidate({"leaf-1", "leaf-2"});
    DescendantGroup& other = Candidate({"leaf-3"});
    DescendantGroup& raw = Raw("mid-1", {"leaf-1", "leaf-2"}, 1);
    raw.score.max_active_trees = 2;

    Merge(raw);

    EXPECT_EQ(out, (std::vector<DescendantGroup*>{&better, &other}));
    EXPECT_EQ(log.Count(4, "MergeGroups redundant raw group\n"), 1u) << log.Dump();
    EXPECT_FALSE(log.ContainsFragment(4, "MergeGroups combined DG_ID=" + std::to_string(other.id)));
}

TEST_F(RawGroupMergeTest, RawGroupCoveringTwoNoBetterCandidatesReplacesEach) {
    LogCapture log;
    DescendantGroup& first = Candidate({"leaf-1"});
    DescendantGroup& second = Candidate({"leaf-2"});
    DescendantGroup& raw = Raw("mid-1", {"leaf-1", "leaf-2"}, 3);
    raw.score.min_parallel_links = 1;
    first.score.min_parallel_links = 1;
    second.score.min_parallel_links = 1;

    Merge(raw);

    ASSERT_EQ(out.size(), 2u);
    EXPECT_NE(out[0], out[1]);
    for (const DescendantGroup* replacement : out) {
        EXPECT_NE(replacement, &first);
        EXPECT_NE(replacement, &second);
        EXPECT_EQ(replacement->node, Sw("top"));
        EXPECT_EQ(replacement->children, std::vector<DescendantGroup*>{&raw});
        EXPECT_EQ(replacement->leaf_nodes, raw.leaf_nodes);
        EXPECT_EQ(replacement->score.min_parallel_links, 3) << "assigned, not the least";
        EXPECT_EQ(replacement->score.node_count, 2u);
        EXPECT_EQ(replacement->score.leaf_count, 2u);
        EXPECT_EQ(replacement->leaves_hash,
                  CalculateLeavesHash(replacement->leaf_nodes, LeafNodeGuidKey));
    }
    EXPECT_EQ(out[0]->id + 1, out[1]->id) << "in the order they were made";
    EXPECT_EQ(log.Count(4,
                        "MergeGroups raw_group_contains_combined_group=1 "
                        "combined_group_score_better_than_raw_group=0\n"),
              2u);
    EXPECT_EQ(log.Count(4, "MergeGroups redundant combined group\n"), 2u) << log.Dump();
    EXPECT_TRUE(log.Contains(4, "MergeGroups result: " + Lines(out) + "\n"));
}

TEST_F(RawGroupMergeTest, RemovalSwapsTheLastSurvivorIntoTheGap) {
    DescendantGroup& redundant = Candidate({"leaf-1"});
    std::vector<DescendantGroup*> worse;
    for (int i = 0; i < 3; ++i) {
        DescendantGroup& candidate = Candidate({"leaf-1", "leaf-2", "leaf-3"});
        candidate.score.max_active_trees = 5;
        worse.push_back(&candidate);
    }
    DescendantGroup& raw = Raw("mid-1", {"leaf-1", "leaf-2"}, 1);

    Merge(raw);

    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[0]->children, std::vector<DescendantGroup*>{&raw});
    EXPECT_EQ(std::vector<DescendantGroup*>(out.begin() + 1, out.end()),
              (std::vector<DescendantGroup*>{worse[2], worse[0], worse[1]}));
    EXPECT_EQ(std::count(out.begin(), out.end(), &redundant), 0);
}

TEST_F(RawGroupMergeTest, PartialOverlapAddsAMergedGroupInFrontAndKeepsTheCandidate) {
    LogCapture log;
    DescendantGroup& member = Group("mid-1", {"leaf-1", "leaf-2"});
    DescendantGroup& candidate = Candidate({"leaf-1", "leaf-2"});
    candidate.children.push_back(&member);
    candidate.score.max_active_trees = 3;
    candidate.score.min_parallel_links = 4;
    DescendantGroup& raw = Raw("mid-2", {"leaf-2", "leaf-3"}, 2);

    Merge(raw);

    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1], &candidate);
    DescendantGroup& merged = *out[0];
    EXPECT_EQ(merged.node, Sw("top"));
    EXPECT_EQ(merged.children, (std::vector<DescendantGroup*>{&member, &raw}));
    EXPECT_EQ(merged.leaf_nodes, Leaves({"leaf-1", "leaf-2", "leaf-3"}));
    EXPECT_EQ(merged.score.max_active_trees, 3u) << "the worse of the two scores";
    EXPECT_EQ(merged.score.min_parallel_links, 2);
    EXPECT_EQ(merged.score.node_count, 3u);
    EXPECT_EQ(merged.score.leaf_count, 3u);
    EXPECT_EQ(merged.leaves_hash, CalculateLeavesHash(merged.leaf_nodes, LeafNodeGuidKey));
    EXPECT_EQ(candidate.children, std::vector<DescendantGroup*>{&member});
    EXPECT_EQ(candidate.leaf_nodes, Leaves({"leaf-1", "leaf-2"}));
    EXPECT_TRUE(log.Contains(4, "MergeGroups combined DG_ID=" + std::to_string(candidate.id) +
                                    " combined_group_contains_raw_group=0 "
                                    "raw_group_score_better_than_combined_group=1\n"));
    EXPECT_TRUE(log.Contains(4,
                             "MergeGroups raw_group_contains_combined_group=0 "
                             "combined_group_score_better_than_raw_group=0\n"))
        << log.Dump();
}

TEST_F(RawGroupMergeTest, PartialOverlapOfEqualScoresCarriesTheRawScore) {
    DescendantGroup& candidate = Candidate({"leaf-1", "leaf-2"});
    candidate.score.min_parallel_links = 1;
    candidate.score.min_free_tree_ids = 10;
    DescendantGroup& raw = Raw("mid-2", {"leaf-2", "leaf-3"}, 5);
    raw.score.min_parallel_links = 1;
    raw.score.min_free_tree_ids = 20;

    Merge(raw);

    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0]->score.min_free_tree_ids, 20u);
    EXPECT_EQ(out[0]->score.min_parallel_links, 1) << "a larger link count does not raise it";
}

TEST_F(RawGroupMergeTest, CandidateHoldingABetterRawGroupIsPassedOver) {
    DescendantGroup& holder = Candidate({"leaf-1", "leaf-2", "leaf-3"});
    holder.score.max_active_trees = 5;
    DescendantGroup& apart = Candidate({"leaf-4"});
    DescendantGroup& raw = Raw("mid-1", {"leaf-1", "leaf-2"}, 1);

    Merge(raw);

    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0]->leaf_nodes, Leaves({"leaf-1", "leaf-2", "leaf-4"}));
    EXPECT_EQ(out[1], &holder);
    EXPECT_EQ(out[2], &apart);
    EXPECT_EQ(holder.leaf_nodes, Leaves({"leaf-1", "leaf-2", "leaf-3"}));
}

TEST_F(RawGroupMergeTest, EarlyStopStillRewritesTheCandidates) {
    DescendantGroup& redundant = Candidate({"leaf-1"});
    DescendantGroup& holder = Candidate({"leaf-1", "leaf-2", "leaf-3"});
    DescendantGroup& unseen = Candidate({"leaf-4"});
    DescendantGroup& raw = Raw("mid-1", {"leaf-1", "leaf-2"}, 1);

    Merge(raw);

    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0]->children, std::vector<DescendantGroup*>{&raw});
    EXPECT_EQ(out[1], &unseen);
    EXPECT_EQ(out[2], &holder);
    EXPECT_EQ(std::count(out.begin(), out.end(), &redundant), 0);
}

TEST_F(RawGroupMergeTest, MergeWithoutLinkCountNamesTheCandidatesSwitchTwice) {
    LogCapture log;
    Candidate({"leaf-1", "leaf-2"});
    DescendantGroup& raw = Raw("mid-2", {"leaf-2", "leaf-3"}, 0);

    std::string expected = "MapValidPathCount doesn't contain a value for a child: " + Name("top") +
                           ", on node: " + Name("top");
    EXPECT_EQ(AssertionText([&] { Merge(raw); }), expected);
    EXPECT_TRUE(log.Contains(1,
                             "-A- assert(map_it != "
                             "quasi_fat_tree_info.map_valid_path_count_to_child.end()) failed. " +
                                 expected))
        << log.Dump();
}

TEST_F(RawGroupMergeTest, ReplacementWithoutLinkCountIsAnAssertion) {
    Candidate({"leaf-1"});
    DescendantGroup& raw = Raw("mid-2", {"leaf-1", "leaf-2"}, 0);

    EXPECT_EQ(AssertionText([&] { Merge(raw); }),
              "MapValidPathCount doesn't contain a value for a child: " + Name("top") +
                  ", on node: " + Name("top"));
}

TEST_F(RawGroupMergeTest, GroupIdsContinueFromThePreviousCall) {
    Candidate({"leaf-1"});
    DescendantGroup& first_raw = Raw("mid-1", {"leaf-1", "leaf-2"}, 1);
    Merge(first_raw);
    ASSERT_EQ(out.size(), 1u);
    const uint16_t first_id = out[0]->id;

    DescendantGroup& second_raw = Raw("mid-2", {"leaf-2", "leaf-3"}, 1);
    const uint16_t next_free = DescendantGroup::s_id;
    Merge(second_raw);

    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1]->id, first_id);
    EXPECT_EQ(out[0]->id, next_free) << "not reset between calls";
    EXPECT_EQ(DescendantGroup::s_id, static_cast<uint16_t>(next_free + 1));
}

TEST_F(RawGroupMergeTest, GroupIdsKeepCountingAcrossCallsAndWrap) {
    struct RestoreGroupIds {
        uint16_t saved = DescendantGroup::s_id;
        ~RestoreGroupIds() { DescendantGroup::s_id = saved; }
    } restore;
    Candidate({"leaf-1"});
    Candidate({"leaf-2"});
    DescendantGroup& raw = Raw("mid-1", {"leaf-1", "leaf-2"}, 1);
    DescendantGroup::s_id = 65535;

    Merge(raw);

    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0]->id, 65535);
    EXPECT_EQ(out[1]->id, 0);
    EXPECT_EQ(DescendantGroup::s_id, 1);
}

}  // namespace
