// Committing built trees to the model and releasing them: what a commit takes, that the
// committed tree is the built one and outlives the creator's next request, what release
// gives back, and the refusals.
#include "fabric_model/tree_ledger.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "support/tree_invariants.h"
#include "topology/fabric_file.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

// Two leaves under two spines; job hosts on both leaves need a spine as root.
FabricSketch TwoLeavesTwoSpines() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switches({"spine-1", "spine-2"}, 1)
        .Link("leaf-1", "spine-1", 2)
        .Link("leaf-1", "spine-2")
        .Link("leaf-2", "spine-1", 2)
        .Link("leaf-2", "spine-2")
        .Hosts("leaf-1", {"node001", "node002"})
        .Hosts("leaf-2", {"node003", "node004"});
    return sketch;
}

std::string FabricFileNow(const Fabric& fabric) {
    return aggtree::WriteFabricJson(fabric.Snapshot());
}

std::set<uint16_t> JobTreeIds(const Fabric& fabric, const ZeltaExtJobId& job) {
    std::set<uint16_t> ids;
    fabric.GetJobTreeIds(job, ids);
    return ids;
}

class TreeLedgerTest : public ::testing::Test {
protected:
    TreeLedgerTest() : fabric(TwoLeavesTwoSpines()), ledger(fabric.fabric()) {}

    JobRun Build(const std::vector<std::string>& hosts, uint64_t job, JobResource resource = {}) {
        JobRun run = RunJob(creator, fabric, hosts, resource, ZeltaExtJobId{job, 0, ""});
        EXPECT_EQ(run.status, 0) << run.info.error_text;
        return run;
    }

    InstalledFabric fabric;
    TreeLedger ledger;
    OnDemandTreeCreator creator;
};

TEST_F(TreeLedgerTest, CommitTakesTheTreeIdAnActiveTreeAndTheQuotaOnEveryTreeSwitch) {
    JobResource resource;
    resource.units = 3;
    resource.buffers = 100;
    resource.groups = 2;
    resource.queue_pairs = 5;
    JobRun run = Build({"node001", "node003"}, 7, resource);
    ASSERT_EQ(run.SwitchNames(), (std::vector<std::string>{"spine-1", "leaf-1", "leaf-2"}));
    ASSERT_EQ(run.info.tree_id, 0);

    LedgerStatus status = ledger.Commit(run.info, resource);
    ASSERT_TRUE(status.ok()) << status.error_text;
    EXPECT_EQ(status.error_text, "");
    for (const char* name : {"spine-1", "leaf-1", "leaf-2"}) {
        const AggNodeFabricInfo* sw = fabric.Switch(name);
        EXPECT_FALSE(sw->free_tree_ids.IsBitSet(0)) << name;
        EXPECT_EQ(sw->CountFreeTreeIds(), 127u) << name;
        EXPECT_EQ(sw->active_trees, 1u) << name;
        EXPECT_EQ(sw->resources.units, 61u) << name;
        EXPECT_EQ(sw->resources.buffers, 924u) << name;
        EXPECT_EQ(sw->resources.groups, 62u) << name;
        EXPECT_EQ(sw->resources.queue_pairs, 123u) << name;
        ASSERT_NE(sw->GetTreeNode(0), nullptr) << name;
        EXPECT_EQ(sw->GetTreeNode(0)->tree_id, 0) << name;
    }
    const AggNodeFabricInfo* spare = fabric.Switch("spine-2");
    EXPECT_TRUE(spare->free_tree_ids.IsBitSet(0));
    EXPECT_EQ(spare->active_trees, 0u);
    EXPECT_EQ(spare->resources.units, 64u);
    EXPECT_EQ(spare->GetTreeNode(0), nullptr);
    EXPECT_EQ(JobTreeIds(fabric.fabric(), ZeltaExtJobId{7, 0, ""}), (std::set<uint16_t>{0}));
    EXPECT_EQ(ledger.Size(), 1u);
}

TEST_F(TreeLedgerTest, CommittedTreeIsTheBuiltTreeUnderItsOwnNodes) {
    JobRun run = Build({"node001", "node002", "node004"}, 7);
    ASSERT_TRUE(ledger.Commit(run.info, JobResource{}).ok());
    const CommittedTree* tree = ledger.Find(ZeltaExtJobId{7, 0, ""});
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(CheckCommittedTree(*tree, run.info, fabric.fabric(), *run.ports,
                                 g_option_info.max_tree_children),
              "");
    EXPECT_EQ(tree->TreeId(), 0);
    EXPECT_EQ(tree->Root()->name, "spine-1");
    ASSERT_EQ(tree->Nodes().size(), 3u);
    const TreeNode& leaf = *tree->Nodes()[1];
    EXPECT_EQ(leaf.agg_node->name, "leaf-1");
    EXPECT_EQ(leaf.host_ports.size(), 2u);
    EXPECT_NE(&leaf, run.NodeOf("leaf-1"));
    // The builder's default node stays where it was until the creator's next request.
    EXPECT_EQ(fabric.Switch("leaf-1")->GetTreeNode(kDefaultTreeId), run.NodeOf("leaf-1"));
}

TEST_F(TreeLedgerTest, CommittedTreeOutlivesTheCreatorsNextRequest) {
    JobRun first = Build({"node001", "node003"}, 7);
    ASSERT_TRUE(ledger.Commit(first.info, JobResource{}).ok());
    JobRun second = Build({"node002", "node004"}, 8);
    ASSERT_TRUE(ledger.Commit(second.info, JobResource{}).ok());

    // The first job's built nodes are gone; its committed nodes stay registered.
    const CommittedTree* tree = ledger.Find(ZeltaExtJobId{7, 0, ""});
    ASSERT_NE(tree, nullptr);
    for (const auto& node : tree->Nodes()) {
        EXPECT_EQ(node->agg_node->GetTreeNode(tree->TreeId()), node.get());
    }
    EXPECT_EQ(ledger.Size(), 2u);
}

TEST_F(TreeLedgerTest, LaterRequestsSeeCommittedTrees) {
    JobRun first = Build({"node001", "node003"}, 7);
    ASSERT_TRUE(ledger.Commit(first.info, JobResource{}).ok());
    ASSERT_EQ(first.SwitchNames(), (std::vector<std::string>{"spine-1", "leaf-1", "leaf-2"}));

    // The busier spine is avoided and id 0 is taken on both leaves.
    JobRun second = Build({"node002", "node004"}, 8);
    EXPECT_EQ(second.SwitchNames(), (std::vector<std::string>{"spine-2", "leaf-1", "leaf-2"}));
    EXPECT_EQ(second.info.tree_id, 1);

    // A job that holds a committed tree is not given that tree's id again.
    JobRun again = Build({"node002"}, 7);
    EXPECT_EQ(again.info.tree_id, 1);
}

TEST_F(TreeLedgerTest, ReleaseGivesBackExactlyWhatTheCommitTook) {
    const std::string before = FabricFileNow(fabric.fabric());
    JobRun run = Build({"node001", "node003"}, 7);
    ASSERT_TRUE(ledger.Commit(run.info, JobResource{}).ok());
    ASSERT_NE(FabricFileNow(fabric.fabric()), before);

    LedgerStatus status = ledger.Release(ZeltaExtJobId{7, 0, ""});
    ASSERT_TRUE(status.ok()) << status.error_text;
    EXPECT_EQ(FabricFileNow(fabric.fabric()), before);
    EXPECT_EQ(ledger.Size(), 0u);
    EXPECT_EQ(ledger.Find(ZeltaExtJobId{7, 0, ""}), nullptr);
    for (const AggNodeFabricInfo& sw : fabric.fabric().Switches()) {
        EXPECT_EQ(sw.GetTreeNode(run.info.tree_id), nullptr) << sw.name;
    }
}

TEST_F(TreeLedgerTest, CommittingAJobTwiceIsRefusedAndChangesNothing) {
    JobRun run = Build({"node001", "node003"}, 7);
    ASSERT_TRUE(ledger.Commit(run.info, JobResource{}).ok());
    const std::string committed = FabricFileNow(fabric.fabric());
    JobRun again = Build({"node002", "node004"}, 7);

    LedgerStatus status = ledger.Commit(again.info, JobResource{});
    EXPECT_EQ(status.status, 1);
    EXPECT_FALSE(status.ok());
    EXPECT_EQ(status.error_text,
              "cannot commit the tree of job default_7: the job already holds committed tree 0 "
              "(release it first)");
    EXPECT_EQ(FabricFileNow(fabric.fabric()), committed);
    EXPECT_EQ(ledger.Size(), 1u);
}

TEST_F(TreeLedgerTest, ReleasingAJobWithoutACommittedTreeIsRefused) {
    const std::string before = FabricFileNow(fabric.fabric());
    LedgerStatus status = ledger.Release(ZeltaExtJobId{9, 0, "slurm"});
    EXPECT_EQ(status.status, 1);
    EXPECT_EQ(status.error_text,
              "cannot release the tree of job slurm_9: the job holds no committed tree");
    EXPECT_EQ(FabricFileNow(fabric.fabric()), before);

    JobRun run = Build({"node001", "node003"}, 7);
    ASSERT_TRUE(ledger.Commit(run.info, JobResource{}).ok());
    ASSERT_TRUE(ledger.Release(ZeltaExtJobId{7, 0, ""}).ok());
    EXPECT_EQ(ledger.Release(ZeltaExtJobId{7, 0, ""}).error_text,
              "cannot release the tree of job default_7: the job holds no committed tree");
}

TEST_F(TreeLedgerTest, TreeIdTakenSinceTheBuildIsRefusedAndChangesNothing) {
    JobRun run = Build({"node001", "node003"}, 7);
    ASSERT_EQ(run.info.tree_id, 0);
    // Someone else takes id 0 on a leaf of the tree between build and commit.
    fabric.Switch("leaf-2")->free_tree_ids.SetBit2False(0);
    const std::string taken = FabricFileNow(fabric.fabric());

    LedgerStatus status = ledger.Commit(run.info, JobResource{});
    EXPECT_EQ(status.status, 1);
    EXPECT_EQ(status.error_text,
              "cannot commit the tree of job default_7: tree id 0 is not free on switch "
              "'leaf-2'");
    EXPECT_EQ(FabricFileNow(fabric.fabric()), taken);
    EXPECT_EQ(ledger.Size(), 0u);
    EXPECT_EQ(fabric.Switch("spine-1")->GetTreeNode(0), nullptr);
}

TEST_F(TreeLedgerTest, QuotaTheSwitchesCannotGiveIsRefused) {
    JobRun run = Build({"node001", "node003"}, 7);
    const std::string before = FabricFileNow(fabric.fabric());
    JobResource larger;
    larger.units = 100;
    LedgerStatus status = ledger.Commit(run.info, larger);
    EXPECT_EQ(status.error_text,
              "cannot commit the tree of job default_7: switch 'spine-1' has not enough free "
              "resources for the job's quota (needs units 100, buffers 8, groups 1, queue pairs "
              "1; has units 64, buffers 1024, groups 64, queue pairs 128)");
    EXPECT_EQ(FabricFileNow(fabric.fabric()), before);
}

TEST_F(TreeLedgerTest, RecordWithoutATreeIsRefused) {
    JobSubTreeInfo empty;
    empty.job_id = ZeltaExtJobId{7, 0, ""};
    EXPECT_EQ(ledger.Commit(empty, JobResource{}).error_text,
              "cannot commit the tree of job default_7: the record holds no tree (commit what "
              "CreateTree built)");

    JobRun run = Build({"node001", "node003"}, 7);
    run.info.tree_id = kDefaultTreeId;
    EXPECT_EQ(ledger.Commit(run.info, JobResource{}).error_text,
              "cannot commit the tree of job default_7: the record's tree id 65535 is not one of "
              "the fabric's tree ids (0 to 127; commit what CreateTree built)");
    EXPECT_EQ(ledger.Size(), 0u);
}

TEST(TreeLedger, QuotaModeOneTakesWhatTheSwitchHasUpToTheQuota) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.Sw("leaf-1").resources.units = 0;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    TreeLedger ledger(fabric.fabric());
    const std::string before = FabricFileNow(fabric.fabric());
    JobResource resource;
    resource.quota_mode = kQuotaModeSkipCheck;
    resource.units = 2;
    JobRun run = RunJob(creator, fabric, {"node001", "node003"}, resource, ZeltaExtJobId{7, 0, ""});
    ASSERT_EQ(run.status, 0) << run.info.error_text;

    ASSERT_TRUE(ledger.Commit(run.info, resource).ok());
    EXPECT_EQ(fabric.Switch("leaf-1")->resources.units, 0u);
    EXPECT_EQ(fabric.Switch("leaf-2")->resources.units, 62u);
    const CommittedTree* tree = ledger.Find(ZeltaExtJobId{7, 0, ""});
    ASSERT_NE(tree, nullptr);
    ASSERT_EQ(tree->Nodes()[1]->agg_node->name, "leaf-1");
    EXPECT_EQ(tree->TakenFrom(1).units, 0u);
    EXPECT_EQ(tree->TakenFrom(2).units, 2u);

    ASSERT_TRUE(ledger.Release(ZeltaExtJobId{7, 0, ""}).ok());
    EXPECT_EQ(FabricFileNow(fabric.fabric()), before);
}

TEST(TreeLedger, DestroyingTheLedgerReleasesEveryTreeItHolds) {
    InstalledFabric fabric(TwoLeavesTwoSpines());
    OnDemandTreeCreator creator;
    const std::string before = FabricFileNow(fabric.fabric());
    {
        TreeLedger ledger(fabric.fabric());
        for (uint64_t job : {1, 2, 3}) {
            JobRun run =
                RunJob(creator, fabric, {"node001", "node004"}, {}, ZeltaExtJobId{job, 0, ""});
            ASSERT_EQ(run.status, 0);
            ASSERT_TRUE(ledger.Commit(run.info, JobResource{}).ok());
        }
        ASSERT_NE(FabricFileNow(fabric.fabric()), before);
    }
    EXPECT_EQ(FabricFileNow(fabric.fabric()), before);
    for (const AggNodeFabricInfo& sw : fabric.fabric().Switches()) {
        for (const auto& [id, node] : sw.tree_nodes_by_id) {
            EXPECT_EQ(id, kDefaultTreeId) << sw.name << " keeps a node under tree id " << id;
        }
    }
}

TEST(TreeLedger, JobTreeIdsTheFabricRecordedBeforeStayAfterRelease) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.JobTreeIds("default_7", {5}).JobTreeIds("default_9", {});
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    TreeLedger ledger(fabric.fabric());
    const std::string before = FabricFileNow(fabric.fabric());
    for (uint64_t job : {7, 9, 11}) {
        JobRun run = RunJob(creator, fabric, {"node001", "node003"}, {}, ZeltaExtJobId{job, 0, ""});
        ASSERT_EQ(run.status, 0);
        ASSERT_TRUE(ledger.Commit(run.info, JobResource{}).ok());
    }
    EXPECT_EQ(JobTreeIds(fabric.fabric(), ZeltaExtJobId{7, 0, ""}), (std::set<uint16_t>{0, 5}));
    EXPECT_EQ(JobTreeIds(fabric.fabric(), ZeltaExtJobId{9, 0, ""}), (std::set<uint16_t>{1}));
    EXPECT_EQ(JobTreeIds(fabric.fabric(), ZeltaExtJobId{11, 0, ""}), (std::set<uint16_t>{2}));
    for (uint64_t job : {9, 7, 11}) {
        ASSERT_TRUE(ledger.Release(ZeltaExtJobId{job, 0, ""}).ok());
    }
    EXPECT_EQ(FabricFileNow(fabric.fabric()), before);
}

}  // namespace
