// The tree score: its order, what Update folds in or refuses, and the job record.
#include "fabric_model/job_sub_tree.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/fabric.h"
#include "fabric_model/tree_node.h"
#include "support/fabric_sketch.h"

namespace {

JobSubTreeScore ScoreOf(uint32_t max_active, uint32_t total_active, uint16_t links,
                        uint32_t nodes) {
    JobSubTreeScore score;
    score.max_active_trees = max_active;
    score.total_active_trees = total_active;
    score.min_parallel_links = links;
    score.node_count = nodes;
    return score;
}

bool Worse(const JobSubTreeScore& a, const JobSubTreeScore& b) {
    JobSubTreeInfo info;
    return a.IsWorseThan(b, info);
}

// ---- order ---------------------------------------------------------------------------

TEST(TreeScoreOrder, BusierBusiestSwitchIsWorseWhateverElse) {
    JobSubTreeScore busy = ScoreOf(3, 3, 8, 1);
    JobSubTreeScore calm = ScoreOf(2, 50, 1, 40);
    EXPECT_TRUE(Worse(busy, calm));
    EXPECT_FALSE(Worse(calm, busy));
}

TEST(TreeScoreOrder, ThenMoreActiveTreesInAllIsWorse) {
    JobSubTreeScore loaded = ScoreOf(2, 7, 8, 1);
    JobSubTreeScore light = ScoreOf(2, 6, 1, 40);
    EXPECT_TRUE(Worse(loaded, light));
    EXPECT_FALSE(Worse(light, loaded));
}

TEST(TreeScoreOrder, ThenFewerParallelLinksIsWorse) {
    JobSubTreeScore thin = ScoreOf(2, 6, 1, 3);
    JobSubTreeScore thick = ScoreOf(2, 6, 2, 40);
    EXPECT_TRUE(Worse(thin, thick));
    EXPECT_FALSE(Worse(thick, thin));
}

TEST(TreeScoreOrder, ScoreWithoutHopsHasTheBestLinks) {
    JobSubTreeScore single = ScoreOf(0, 0, UINT16_MAX, 1);
    JobSubTreeScore hops = ScoreOf(0, 0, 60000, 1);
    EXPECT_TRUE(Worse(hops, single));
    JobSubTreeScore dead_hop = ScoreOf(0, 0, 0, 1);
    EXPECT_TRUE(Worse(dead_hop, hops));
}

TEST(TreeScoreOrder, ThenMoreSwitchesIsWorse) {
    JobSubTreeScore big = ScoreOf(2, 6, 2, 5);
    JobSubTreeScore small = ScoreOf(2, 6, 2, 4);
    EXPECT_TRUE(Worse(big, small));
    EXPECT_FALSE(Worse(small, big));
}

TEST(TreeScoreOrder, EqualFiguresAreNeitherWorse) {
    JobSubTreeScore a = ScoreOf(2, 6, 2, 4);
    JobSubTreeScore b = ScoreOf(2, 6, 2, 4);
    // Figures outside the order do not break the tie.
    b.leaf_count = 9;
    b.min_free_tree_ids = 1;
    b.priority = ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE;
    EXPECT_FALSE(Worse(a, b));
    EXPECT_FALSE(Worse(b, a));
    EXPECT_FALSE(Worse(a, a));
}

TEST(TreeScoreOrder, EmptyScoresAreEqual) {
    EXPECT_FALSE(Worse(JobSubTreeScore{}, JobSubTreeScore{}));
}

// Small ranges so that ties on every figure are frequent.
rc::Gen<JobSubTreeScore> ArbitraryScore() {
    return rc::gen::apply(
        [](uint32_t max_active, uint32_t total_active, uint16_t links, uint32_t nodes,
           uint32_t leaves) {
            JobSubTreeScore score = ScoreOf(max_active, total_active, links, nodes);
            score.leaf_count = leaves;
            return score;
        },
        rc::gen::inRange<uint32_t>(0, 3), rc::gen::inRange<uint32_t>(0, 3),
        rc::gen::elementOf(std::vector<uint16_t>{0, 1, 2, UINT16_MAX}),
        rc::gen::inRange<uint32_t>(0, 3), rc::gen::inRange<uint32_t>(0, 3));
}

RC_GTEST_PROP(TreeScoreOrder, IsAStrictWeakOrder, ()) {
    const JobSubTreeScore a = *ArbitraryScore();
    const JobSubTreeScore b = *ArbitraryScore();
    const JobSubTreeScore c = *ArbitraryScore();
    auto equivalent = [](const JobSubTreeScore& x, const JobSubTreeScore& y) {
        return !Worse(x, y) && !Worse(y, x);
    };
    RC_ASSERT(!Worse(a, a));                                                 // irreflexive
    RC_ASSERT(!(Worse(a, b) && Worse(b, a)));                                // asymmetric
    RC_ASSERT(!(Worse(a, b) && Worse(b, c)) || Worse(a, c));                 // transitive
    RC_ASSERT(!(equivalent(a, b) && equivalent(b, c)) || equivalent(a, c));  // ties
}

RC_GTEST_PROP(TreeScoreOrder, WorseIsDecidedByTheFourFiguresInTurn, ()) {
    const JobSubTreeScore a = *ArbitraryScore();
    const JobSubTreeScore b = *ArbitraryScore();
    bool expected = false;
    if (a.max_active_trees != b.max_active_trees) {
        expected = a.max_active_trees > b.max_active_trees;
    } else if (a.total_active_trees != b.total_active_trees) {
        expected = a.total_active_trees > b.total_active_trees;
    } else if (a.min_parallel_links != b.min_parallel_links) {
        expected = a.min_parallel_links < b.min_parallel_links;
    } else {
        expected = a.node_count > b.node_count;
    }
    RC_ASSERT(Worse(a, b) == expected);
}

// ---- Update --------------------------------------------------------------------------

// A spine above two leaves; the job asks for one unit and one buffer.
class TreeScoreUpdate : public ::testing::Test {
protected:
    TreeScoreUpdate() {
        sketch.MaxTreeId(15)
            .Switches({"leaf-1", "leaf-2"}, 0)
            .Switch("spine", 1)
            .Link("leaf-1", "spine", 3)
            .Link("leaf-2", "spine", 1);
        job.units = 1;
        job.buffers = 1;
        job.groups = 1;
        job.queue_pairs = 1;
    }

    void Install() { fabric = std::make_unique<Fabric>(sketch.Description()); }

    TreeNode* Node(const std::string& name, TreeNode* parent = nullptr) {
        nodes.push_back(std::make_unique<TreeNode>(kDefaultTreeId, fabric->FindSwitch(name), 0));
        TreeNode* node = nodes.back().get();
        if (parent != nullptr) {
            EXPECT_EQ(node->parent_edge.SetTreeNode(node, parent), 0);
        }
        return node;
    }

    int Fold(TreeNode* node) { return score.Update(*node, true, kDefaultTreeId, info); }

    FabricSketch sketch;
    std::unique_ptr<Fabric> fabric;
    std::vector<std::unique_ptr<TreeNode>> nodes;
    JobResource job;
    JobSubTreeInfo info;
    JobSubTreeScore score;
};

TEST_F(TreeScoreUpdate, FoldsTheSwitchFiguresIn) {
    sketch.Sw("spine").active_trees = 4;
    sketch.Sw("spine").used_tree_ids = {0, 1, 2};
    sketch.Sw("leaf-1").active_trees = 1;
    sketch.Sw("leaf-2").active_trees = 2;
    Install();
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    TreeNode* spine = Node("spine");
    TreeNode* leaf_1 = Node("leaf-1", spine);
    TreeNode* leaf_2 = Node("leaf-2", spine);
    PortData port{0x2001, 0};
    leaf_1->host_ports.push_back(&port);

    ASSERT_EQ(Fold(spine), 0);
    EXPECT_EQ(score.max_active_trees, 4u);
    EXPECT_EQ(score.total_active_trees, 4u);
    EXPECT_EQ(score.node_count, 1u);
    EXPECT_EQ(score.leaf_count, 0u);
    EXPECT_EQ(score.min_free_tree_ids, 13u);
    EXPECT_EQ(score.min_parallel_links, UINT16_MAX);  // the root has no hop

    ASSERT_EQ(Fold(leaf_1), 0);
    ASSERT_EQ(Fold(leaf_2), 0);
    EXPECT_EQ(score.max_active_trees, 4u);
    EXPECT_EQ(score.total_active_trees, 7u);
    EXPECT_EQ(score.node_count, 3u);
    EXPECT_EQ(score.leaf_count, 1u);  // only leaf-1 carries host ports
    EXPECT_EQ(score.min_free_tree_ids, 13u);
    EXPECT_EQ(score.min_parallel_links, 1);  // leaf-2's single link
}

TEST_F(TreeScoreUpdate, HopCountsItsParallelLinks) {
    Install();
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    TreeNode* spine = Node("spine");
    ASSERT_EQ(Fold(Node("leaf-1", spine)), 0);
    EXPECT_EQ(score.min_parallel_links, 3);
}

TEST_F(TreeScoreUpdate, HopCountsOnlyLinksTheJobCanUse) {
    // Besides its 3 plain links, leaf-1 has links that are down, on another plane,
    // exclusively locked and at their lock limit.
    sketch.Link("leaf-1", "spine", 2, [](LinkDescription& l) { l.usable = false; });
    sketch.Link("leaf-1", "spine", 2, [](LinkDescription& l) { l.plane = 1; });
    sketch.Link("leaf-1", "spine", 1, [](LinkDescription& l) { l.exclusively_locked = true; });
    sketch.Link("leaf-1", "spine", 1, [](LinkDescription& l) {
        l.lock_limit = 1;
        l.lock_count = 1;
    });
    Install();
    TreeNode* spine = Node("spine");
    TreeNode* leaf = Node("leaf-1", spine);

    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    ASSERT_EQ(Fold(leaf), 0);
    EXPECT_EQ(score.min_parallel_links, 5);  // no lock demand: locks do not matter

    JobResource locking = job;
    locking.flags = kJobFlagLockRequired;
    score.Reset(locking, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    ASSERT_EQ(Fold(leaf), 0);
    EXPECT_EQ(score.min_parallel_links, 3);

    info.plane = 1;  // a job on plane 1 has only the two plane-1 links
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    ASSERT_EQ(Fold(leaf), 0);
    EXPECT_EQ(score.min_parallel_links, 2);
}

TEST_F(TreeScoreUpdate, HopBetweenIslandsCountsItsSiblingLinks) {
    FabricSketch islands;
    islands.DfpSwitch("g1", 1, 1).DfpSwitch("g2", 1, 2).Link("g1", "g2", 4);
    islands.Link("g1", "g2", 1, [](LinkDescription& l) { l.usable = false; });
    sketch = islands;
    Install();
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    TreeNode* root = Node("g1");
    ASSERT_EQ(Fold(Node("g2", root)), 0);
    EXPECT_EQ(score.min_parallel_links, 4);
}

TEST_F(TreeScoreUpdate, SwitchWithoutAFreeTreeIdIsRefused) {
    for (uint16_t id = 0; id <= 15; ++id) {
        sketch.Sw("spine").used_tree_ids.push_back(id);
    }
    sketch.Sw("spine").active_trees = 16;
    Install();
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    EXPECT_EQ(Fold(Node("spine")), 1);
    EXPECT_EQ(score.node_count, 0u);
    EXPECT_EQ(score.max_active_trees, 0u);
}

TEST_F(TreeScoreUpdate, SwitchShortOfTheJobsQuotaIsRefused) {
    sketch.Sw("spine").resources.groups = 0;
    Install();
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    EXPECT_EQ(Fold(Node("spine")), 1);
    EXPECT_EQ(score.node_count, 0u);
    EXPECT_EQ(Fold(Node("leaf-1")), 0);
}

TEST_F(TreeScoreUpdate, QuotaModeOneSkipsTheResourceCheck) {
    sketch.Sw("spine").resources.groups = 0;
    Install();
    job.quota_mode = kQuotaModeSkipCheck;
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    EXPECT_EQ(Fold(Node("spine")), 0);
    EXPECT_EQ(score.node_count, 1u);
}

TEST_F(TreeScoreUpdate, PayloadIsNotAResourceTheSwitchMustHave) {
    Install();
    job.payload = UINT32_MAX;
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    EXPECT_EQ(score.quota.payload, 0u);
    EXPECT_EQ(Fold(Node("spine")), 0);
}

TEST_F(TreeScoreUpdate, NodeWithoutASwitchIsRefused) {
    Install();
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    TreeNode orphan(kDefaultTreeId, nullptr, 0);
    EXPECT_EQ(Fold(&orphan), 1);
}

TEST_F(TreeScoreUpdate, ResetEmptiesTheFiguresAndKeepsTheJob) {
    Install();
    score.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    TreeNode* spine = Node("spine");
    ASSERT_EQ(Fold(spine), 0);
    ASSERT_EQ(Fold(Node("leaf-1", spine)), 0);

    JobResource other = job;
    other.units = 7;
    other.quota_mode = 2;
    other.flags = kJobFlagLockRequired;
    other.lock_options = kJobLockOptionExclusive;
    score.Reset(other, ZELTA_RESOURCE_PRIORITY_NODES);
    EXPECT_EQ(score.node_count, 0u);
    EXPECT_EQ(score.leaf_count, 0u);
    EXPECT_EQ(score.max_active_trees, 0u);
    EXPECT_EQ(score.total_active_trees, 0u);
    EXPECT_EQ(score.min_parallel_links, UINT16_MAX);
    EXPECT_EQ(score.min_free_tree_ids, UINT32_MAX);
    EXPECT_EQ(score.priority, ZELTA_RESOURCE_PRIORITY_NODES);
    EXPECT_EQ(score.quota.units, 7u);
    EXPECT_EQ(score.quota_mode, 2);
    EXPECT_TRUE(score.lock_required);
    EXPECT_TRUE(score.exclusive_demand);
}

TEST_F(TreeScoreUpdate, ScoreWithABusierSwitchLosesToOneWithout) {
    sketch.Sw("leaf-1").active_trees = 5;
    Install();
    JobSubTreeScore with_busy;
    with_busy.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    JobSubTreeScore without;
    without.Reset(job, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    ASSERT_EQ(with_busy.Update(*Node("leaf-1"), true, kDefaultTreeId, info), 0);
    ASSERT_EQ(without.Update(*Node("leaf-2"), true, kDefaultTreeId, info), 0);
    EXPECT_TRUE(with_busy.IsWorseThan(without, info));
    EXPECT_FALSE(without.IsWorseThan(with_busy, info));
}

// ---- job record ----------------------------------------------------------------------

JobSubTreeInfo FilledRecord(TreeNode* node, AggNodeFabricInfo* root) {
    JobSubTreeInfo info;
    info.tree_nodes.push_back(node);
    info.tree_nodes_count = 1;
    info.tree_id = 4;
    info.second_tree_id = 5;
    info.plane = 2;
    info.root_node = root;
    info.root_node_attr = 3;
    info.error_text = "no root found";
    info.job_id = ZeltaExtJobId{42, 1, "abc"};
    info.score_max_active_trees = 1;
    info.score_total_active_trees = 2;
    info.score_node_count = 3;
    info.score_leaf_count = 4;
    info.score_min_free_tree_ids = 5;
    info.score_priority = 3;
    return info;
}

void ExpectTreeAndSummaryCleared(const JobSubTreeInfo& info) {
    EXPECT_TRUE(info.tree_nodes.empty());
    EXPECT_EQ(info.tree_nodes_count, 0u);
    EXPECT_EQ(info.tree_id, 0xFFFF);
    EXPECT_EQ(info.second_tree_id, 0xFFFF);
    EXPECT_EQ(info.root_node, nullptr);
    EXPECT_EQ(info.root_node_attr, 0);
    EXPECT_EQ(info.score_max_active_trees, 0u);
    EXPECT_EQ(info.score_total_active_trees, 0u);
    EXPECT_EQ(info.score_node_count, 0u);
    EXPECT_EQ(info.score_leaf_count, 0u);
    EXPECT_EQ(info.score_min_free_tree_ids, 0u);
    EXPECT_EQ(info.score_priority, 0);
}

TEST(JobRecordClear, NewRequestEmptiesEverything) {
    AggNodeFabricInfo sw;
    TreeNode node(kDefaultTreeId, &sw, 2);
    JobSubTreeInfo info = FilledRecord(&node, &sw);
    info.Clear(true);
    ExpectTreeAndSummaryCleared(info);
    EXPECT_EQ(info.plane, 0);
    EXPECT_TRUE(info.error_text.empty());
    EXPECT_EQ(info.job_id, ZeltaExtJobId{});
}

TEST(JobRecordClear, AfterAFailureTheJobPlaneAndReasonStay) {
    AggNodeFabricInfo sw;
    TreeNode node(kDefaultTreeId, &sw, 2);
    JobSubTreeInfo info = FilledRecord(&node, &sw);
    info.Clear(false);
    ExpectTreeAndSummaryCleared(info);
    EXPECT_EQ(info.plane, 2);
    EXPECT_EQ(info.error_text, "no root found");
    EXPECT_EQ(info.job_id, (ZeltaExtJobId{42, 1, "abc"}));
}

TEST(JobRecordClear, ClearingDoesNotDestroyTheTreeNodes) {
    AggNodeFabricInfo sw;
    TreeNode node(kDefaultTreeId, &sw, 0);
    sw.AddTreeNode(kDefaultTreeId, &node);
    JobSubTreeInfo info = FilledRecord(&node, &sw);
    info.Clear(true);
    EXPECT_EQ(sw.GetTreeNode(kDefaultTreeId), &node);
}

}  // namespace
