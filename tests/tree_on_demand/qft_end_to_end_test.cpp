// Whole requests on small quasi fat trees whose trees are worked out by hand.  Unless a
// test says otherwise every switch carries no other tree, so scores tie on load and the
// fewest-hops, most-links and lowest-address rules decide.  The order of a node's
// children among routes of equal score follows the route map's iteration and is not
// asserted; everything else is, node by node.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/tree_invariants.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

std::string Invariants(const JobRun& run, InstalledFabric& fabric) {
    return CheckTreeInvariants(run.info, fabric.fabric(), *run.ports,
                               g_option_info.max_tree_children);
}

std::vector<uint64_t> HostGuids(const JobRun& run, const std::string& switch_name) {
    std::vector<uint64_t> guids;
    const TreeNode* node = run.NodeOf(switch_name);
    if (node != nullptr) {
        for (const PortData* port : node->host_ports) {
            guids.push_back(port->port_guid);
        }
    }
    return guids;
}

// leaf-1 (0x1001, hosts h1 0x2001 and h2 0x2002) and leaf-2 (0x1002, host h3 0x2003)
// under spine-1 (0x1003) and spine-2 (0x1004), loaded in that order; `links_1` and
// `links_2` parallel links from each leaf to spine-1 and spine-2.
FabricSketch TwoLeavesTwoSpines(uint16_t links_1 = 1, uint16_t links_2 = 1) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0).Switches({"spine-1", "spine-2"}, 1);
    for (const char* leaf : {"leaf-1", "leaf-2"}) {
        sketch.Link(leaf, "spine-1", links_1).Link(leaf, "spine-2", links_2);
    }
    sketch.Hosts("leaf-1", {"h1", "h2"}).Host("h3", "leaf-2");
    return sketch;
}

// Checks the tree of a two-leaf job rooted at `spine`.
void ExpectTwoLeafTree(const JobRun& run, const std::string& spine) {
    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.info.root_node->name, spine);
    EXPECT_EQ(run.SwitchNames().front(), spine);
    EXPECT_THAT(run.SwitchNames(), UnorderedElementsAre(spine, "leaf-1", "leaf-2"));
    EXPECT_EQ(run.ParentOf(spine), "");
    EXPECT_EQ(run.ParentOf("leaf-1"), spine);
    EXPECT_EQ(run.ParentOf("leaf-2"), spine);
    EXPECT_THAT(run.ChildrenOf(spine), UnorderedElementsAre("leaf-1", "leaf-2"));
    EXPECT_THAT(run.ChildrenOf("leaf-1"), IsEmpty());
    EXPECT_THAT(run.ChildrenOf("leaf-2"), IsEmpty());
    EXPECT_THAT(HostGuids(run, "leaf-1"), ElementsAre(0x2001, 0x2002));
    EXPECT_THAT(HostGuids(run, "leaf-2"), ElementsAre(0x2003));
    EXPECT_THAT(HostGuids(run, spine), IsEmpty());
}

TEST(QuasiFatTreeEndToEnd, JobOnOneLeafSwitchIsThatSwitchAlone) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.Sw("leaf-1").node_attr = 9;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2"});

    ASSERT_EQ(run.status, 0);
    EXPECT_THAT(run.SwitchNames(), ElementsAre("leaf-1"));
    EXPECT_EQ(run.info.root_node, fabric.Switch("leaf-1"));
    EXPECT_EQ(run.info.root_node_attr, 9);
    EXPECT_EQ(run.ParentOf("leaf-1"), "");
    EXPECT_THAT(run.ChildrenOf("leaf-1"), IsEmpty());
    EXPECT_THAT(HostGuids(run, "leaf-1"), ElementsAre(0x2001, 0x2002));
    EXPECT_EQ(run.info.tree_id, 0);
    EXPECT_EQ(run.info.second_tree_id, 0xFFFF);
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, TwoLeavesUnderOneSpineHangUnderIt) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switch("spine", 1)
        .Link("leaf-1", "spine")
        .Link("leaf-2", "spine")
        .Hosts("leaf-1", {"h1", "h2"})
        .Host("h3", "leaf-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2", "h3"});

    ExpectTwoLeafTree(run, "spine");
    EXPECT_EQ(run.info.tree_id, 0);
    EXPECT_EQ(run.info.tree_nodes_count, 3u);
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, SpineWithMoreParallelLinksWinsOtherwiseEqualSpines) {
    // spine-2, loaded later, has two links to each leaf: its weakest hop is stronger.
    InstalledFabric fabric(TwoLeavesTwoSpines(1, 2));
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2", "h3"});

    ExpectTwoLeafTree(run, "spine-2");
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, SpineRatedByItsWeakestHopTiesAndTheLowerAddressWins) {
    // Two links to leaf-1 but one to leaf-2: spine-2's weakest hop equals spine-1's.
    FabricSketch sketch = TwoLeavesTwoSpines(1, 1);
    sketch.Link("leaf-1", "spine-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2", "h3"});

    ExpectTwoLeafTree(run, "spine-1");
    EXPECT_EQ(Invariants(run, fabric), "");
}

// Two pods of two leaves and two aggregation switches each, every leaf linked to both
// aggregation switches of its pod and every aggregation switch to both cores.  Hosts:
// h-1a (0x2001) on leaf-1a, h-1b (0x2002) on leaf-1b, h-2a (0x2003) on leaf-2a.
FabricSketch TwoPods() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1a", "leaf-1b", "leaf-2a", "leaf-2b"}, 0)
        .Switches({"agg-1a", "agg-1b", "agg-2a", "agg-2b"}, 1)
        .Switches({"core-1", "core-2"}, 2);
    for (const char* pod : {"1", "2"}) {
        for (const char* leaf : {"a", "b"}) {
            for (const char* agg : {"a", "b"}) {
                sketch.Link(std::string("leaf-") + pod + leaf, std::string("agg-") + pod + agg);
            }
        }
        for (const char* agg : {"a", "b"}) {
            for (const char* core : {"core-1", "core-2"}) {
                sketch.Link(std::string("agg-") + pod + agg, core);
            }
        }
    }
    sketch.Host("h-1a", "leaf-1a").Host("h-1b", "leaf-1b").Host("h-2a", "leaf-2a");
    return sketch;
}

TEST(QuasiFatTreeEndToEnd, JobSpanningPodsIsRootedAtACoreAndGoesDownThroughOneAggPerPod) {
    InstalledFabric fabric(TwoPods());
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h-1a", "h-1b", "h-2a"});

    // Every tie goes to the first switch in load order: core-1, agg-1a, agg-2a.
    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.info.root_node->name, "core-1");
    EXPECT_EQ(run.SwitchNames().front(), "core-1");
    EXPECT_THAT(run.SwitchNames(), UnorderedElementsAre("core-1", "agg-1a", "agg-2a", "leaf-1a",
                                                        "leaf-1b", "leaf-2a"));
    EXPECT_THAT(run.ChildrenOf("core-1"), UnorderedElementsAre("agg-1a", "agg-2a"));
    EXPECT_THAT(run.ChildrenOf("agg-1a"), UnorderedElementsAre("leaf-1a", "leaf-1b"));
    EXPECT_THAT(run.ChildrenOf("agg-2a"), ElementsAre("leaf-2a"));
    EXPECT_EQ(run.ParentOf("agg-1a"), "core-1");
    EXPECT_EQ(run.ParentOf("agg-2a"), "core-1");
    EXPECT_EQ(run.ParentOf("leaf-1a"), "agg-1a");
    EXPECT_EQ(run.ParentOf("leaf-1b"), "agg-1a");
    EXPECT_EQ(run.ParentOf("leaf-2a"), "agg-2a");
    EXPECT_THAT(HostGuids(run, "leaf-1a"), ElementsAre(0x2001));
    EXPECT_THAT(HostGuids(run, "leaf-1b"), ElementsAre(0x2002));
    EXPECT_THAT(HostGuids(run, "leaf-2a"), ElementsAre(0x2003));
    EXPECT_EQ(run.info.tree_id, 0);
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, ExcludedAggSwitchIsGoneAroundThroughItsPodPeer) {
    FabricSketch sketch = TwoPods();
    sketch.Sw("agg-1a").excluded = true;
    sketch.Sw("core-1").valid = false;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h-1a", "h-1b", "h-2a"});

    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.info.root_node->name, "core-2");
    EXPECT_THAT(run.ChildrenOf("core-2"), UnorderedElementsAre("agg-1b", "agg-2a"));
    EXPECT_THAT(run.ChildrenOf("agg-1b"), UnorderedElementsAre("leaf-1a", "leaf-1b"));
    EXPECT_THAT(run.ChildrenOf("agg-2a"), ElementsAre("leaf-2a"));
    EXPECT_EQ(run.NodeOf("agg-1a"), nullptr);
    EXPECT_EQ(run.NodeOf("core-1"), nullptr);
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, ExcludedSpineIsGoneAround) {
    // spine-2 would win on links, but it may not serve the job.
    FabricSketch sketch = TwoLeavesTwoSpines(1, 2);
    sketch.Sw("spine-2").excluded = true;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2", "h3"});

    ExpectTwoLeafTree(run, "spine-1");
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, InvalidSpineIsGoneAround) {
    FabricSketch sketch = TwoLeavesTwoSpines(1, 2);
    sketch.Sw("spine-2").valid = false;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2", "h3"});

    ExpectTwoLeafTree(run, "spine-1");
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, ExcludedLeafFailsTheWholeRequest) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.Sw("leaf-2").excluded = true;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);

    JobRun run = RunJob(creator, fabric, {"h1", "h3"});

    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "AggNode: leaf-2 GUID:0x1002 doesn't satisfy job requirements\n"));
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "AggNode: leaf-2 GUID:0x1002 is a leaf switch, cannot build quasi fat "
                             "tree\n"));
    EXPECT_THAT(run.info.tree_nodes, IsEmpty());
    EXPECT_EQ(run.info.root_node, nullptr);
}

JobResource LockJob(bool exclusive) {
    JobResource job;
    job.flags = kJobFlagLockRequired;
    job.lock_options = exclusive ? kJobLockOptionExclusive : 0;
    return job;
}

JobResource ExclusiveOptionWithoutLock() {
    JobResource job;
    job.lock_options = kJobLockOptionExclusive;
    return job;
}

// Runs the two-leaf job with `job` on TwoLeavesTwoSpines changed by `tweak` and returns
// the root's name ("" on failure); every tree must be proper.
std::string RootFor(const JobResource& job, const std::function<void(FabricSketch&)>& tweak) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    tweak(sketch);
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    JobRun run = RunJob(creator, fabric, {"h1", "h3"}, job);
    if (run.status != 0) {
        return "";
    }
    EXPECT_EQ(Invariants(run, fabric), "");
    EXPECT_THAT(run.ChildrenOf(run.info.root_node->name), UnorderedElementsAre("leaf-1", "leaf-2"));
    return run.info.root_node->name;
}

void LockTaken(FabricSketch& sketch) {
    sketch.Sw("spine-1").lock_available = false;
}
void ExclusiveLockTaken(FabricSketch& sketch) {
    sketch.Sw("spine-1").exclusive_lock_available = false;
}

// The first of leaf-1's links to spine-1 (the sketch adds it first).
LinkDescription& Leaf1ToSpine1(FabricSketch& sketch) {
    return sketch.Description().links[0];
}

TEST(QuasiFatTreeEndToEnd, SwitchWhoseLockIsTakenServesOnlyJobsWithoutLocks) {
    EXPECT_EQ(RootFor(LockJob(false), LockTaken), "spine-2");
    EXPECT_EQ(RootFor(LockJob(true), LockTaken), "spine-2");
    EXPECT_EQ(RootFor(JobResource{}, LockTaken), "spine-1");
}

TEST(QuasiFatTreeEndToEnd, SwitchWhoseExclusiveLockIsTakenServesOnlyNonExclusiveJobs) {
    EXPECT_EQ(RootFor(LockJob(true), ExclusiveLockTaken), "spine-2");
    EXPECT_EQ(RootFor(LockJob(false), ExclusiveLockTaken), "spine-1");
}

TEST(QuasiFatTreeEndToEnd, ExclusiveOptionWithoutLockRequiredAsksForNoLock) {
    auto both_taken = [](FabricSketch& sketch) {
        LockTaken(sketch);
        ExclusiveLockTaken(sketch);
        Leaf1ToSpine1(sketch).exclusively_locked = true;
    };
    EXPECT_EQ(RootFor(ExclusiveOptionWithoutLock(), both_taken), "spine-1");
}

TEST(QuasiFatTreeEndToEnd, PathAtItsLockLimitCarriesNoLockedJob) {
    auto full = [](FabricSketch& sketch) {
        Leaf1ToSpine1(sketch).lock_limit = 2;
        Leaf1ToSpine1(sketch).lock_count = 2;
    };
    EXPECT_EQ(RootFor(LockJob(false), full), "spine-2");
    EXPECT_EQ(RootFor(LockJob(true), full), "spine-2");
    EXPECT_EQ(RootFor(JobResource{}, full), "spine-1");
}

TEST(QuasiFatTreeEndToEnd, PathAtItsExclusiveLimitCarriesOnlyNonExclusiveLocks) {
    auto full = [](FabricSketch& sketch) {
        Leaf1ToSpine1(sketch).lock_limit = 2;
        Leaf1ToSpine1(sketch).exclusive_lock_count = 2;
    };
    EXPECT_EQ(RootFor(LockJob(true), full), "spine-2");
    EXPECT_EQ(RootFor(LockJob(false), full), "spine-1");
}

TEST(QuasiFatTreeEndToEnd, ExclusivelyLockedPathCarriesNoLockedJob) {
    auto locked = [](FabricSketch& sketch) { Leaf1ToSpine1(sketch).exclusively_locked = true; };
    EXPECT_EQ(RootFor(LockJob(false), locked), "spine-2");
    EXPECT_EQ(RootFor(LockJob(true), locked), "spine-2");
    EXPECT_EQ(RootFor(JobResource{}, locked), "spine-1");
}

TEST(QuasiFatTreeEndToEnd, RootThatCannotTakeAllItsChildrenFailsTheRequest) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.Sw("spine-1").tree_children_limit = 1;
    sketch.Sw("spine-2").excluded = true;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelError);

    JobRun run = RunJob(creator, fabric, {"h1", "h3"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.info.error_text, "Failed to build a tree based on the selected root 'spine-1'\n");
    EXPECT_TRUE(
        log.Contains(kLogLevelError, "Failed to find best route in quasi fat tree algorithm\n"));
    EXPECT_THAT(run.info.tree_nodes, IsEmpty());
}

TEST(QuasiFatTreeEndToEnd, ConfiguredChildrenLimitFailsEveryTreeThatNeedsMore) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.Options(1, 1);
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h3"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.info.error_text, "Failed to build a tree based on the selected root 'spine-1'\n");
}

// leaf-1 and leaf-2 reach plane-1 (0x1003) over plane-1 links and plane-2 (0x1004)
// over plane-2 links.  Host port 0x2001 is on leaf-1 on plane 1, 0x2002 on leaf-2 on
// plane 2.
FabricSketch TwoPlanes() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0).Switches({"plane-1", "plane-2"}, 1);
    for (const char* leaf : {"leaf-1", "leaf-2"}) {
        sketch.Link(leaf, "plane-1", 1, [](LinkDescription& link) { link.plane = 1; })
            .Link(leaf, "plane-2", 4, [](LinkDescription& link) { link.plane = 2; });
    }
    sketch.Host("h1", "leaf-1", 1).Host("h2", "leaf-2", 2);
    return sketch;
}

TEST(QuasiFatTreeEndToEnd, PortsOnTwoPlanesBuildOnTheFirstPortsPlane) {
    InstalledFabric fabric(TwoPlanes());
    OnDemandTreeCreator creator;

    // plane-2 has more links, but the job's plane is its first port's: 1.
    JobRun run = RunJob(creator, fabric, {"h1", "h2"});

    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.info.root_node->name, "plane-1");
    EXPECT_THAT(run.ChildrenOf("plane-1"), UnorderedElementsAre("leaf-1", "leaf-2"));
    for (const TreeNode* node : run.info.tree_nodes) {
        EXPECT_EQ(node->plane, 1) << node->agg_node->name;
    }
    EXPECT_EQ(run.info.plane, 1);
    EXPECT_THAT(HostGuids(run, "leaf-2"), ElementsAre(0x2002));
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, JobWhoseFirstPortIsOnTheOtherPlaneBuildsThere) {
    FabricSketch sketch = TwoPlanes();
    // Swap the hosts' GUIDs so the plane-2 port comes first.
    sketch.Description().hosts[0].guid = 0x2009;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJobOnPorts(creator, {{0x2009, 1}, {0x2002, 2}});

    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.info.root_node->name, "plane-2");
    EXPECT_EQ(run.info.plane, 2);
    EXPECT_EQ(run.NodeOf("leaf-1")->plane, 2);
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, SecondRequestReplacesTheFirstJobsTreeNodes) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2", "leaf-3"}, 0).Switch("spine", 1);
    for (const char* leaf : {"leaf-1", "leaf-2", "leaf-3"}) {
        sketch.Link(leaf, "spine");
    }
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2").Host("h3", "leaf-3");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    ASSERT_EQ(RunJob(creator, fabric, {"h1", "h2"}).status, 0);

    JobRun second = RunJob(creator, fabric, {"h2", "h3"}, {}, ZeltaExtJobId{2, 0, "next"});

    ASSERT_EQ(second.status, 0);
    EXPECT_THAT(second.ChildrenOf("spine"), UnorderedElementsAre("leaf-2", "leaf-3"));
    EXPECT_EQ(fabric.Switch("leaf-1")->tree_nodes_by_id.count(kDefaultTreeId), 0u);
    // Every default tree node left on a switch is one of this job's, alive.
    std::vector<const TreeNode*> created;
    for (const auto& node : creator.GetCreatedTreeNodes()) {
        created.push_back(node.get());
    }
    EXPECT_EQ(created.size(), 3u);
    for (const AggNodeFabricInfo& sw : fabric.fabric().Switches()) {
        const TreeNode* node = sw.GetTreeNode(kDefaultTreeId);
        if (node != nullptr) {
            EXPECT_THAT(created, ::testing::Contains(node)) << sw.name;
        }
    }
    EXPECT_EQ(second.NodeOf("leaf-2")->host_ports.size(), 1u);
    EXPECT_EQ(second.NodeOf("leaf-2")->GetParent(), second.NodeOf("spine"));
    EXPECT_EQ(Invariants(second, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, LessLoadedSpineIsPreferred) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.Sw("spine-1").active_trees = 3;
    sketch.Sw("spine-2").active_trees = 1;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2", "h3"});

    ExpectTwoLeafTree(run, "spine-2");
    EXPECT_EQ(run.info.score_max_active_trees, 1u);
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, TreeIdSkipsIdsHeldByTheJobAndIdsUsedOnTreeSwitches) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.MaxTreeId(15);
    sketch.Sw("leaf-1").used_tree_ids = {0};
    sketch.Sw("leaf-2").used_tree_ids = {1};
    sketch.Sw("spine-1").used_tree_ids = {2};
    // Not in the tree: its used id does not count.
    sketch.Sw("spine-2").used_tree_ids = {4};
    sketch.Sw("spine-2").excluded = true;
    sketch.JobTreeIds("abc_7", {3, 5});
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2", "h3"}, {}, ZeltaExtJobId{7, 0, "abc"});

    ExpectTwoLeafTree(run, "spine-1");
    EXPECT_EQ(run.info.tree_id, 4);
    EXPECT_EQ(Invariants(run, fabric), "");
}

TEST(QuasiFatTreeEndToEnd, SatTreeIdHeldByTheJobStaysAvailable) {
    FabricSketch sketch = TwoLeavesTwoSpines();
    sketch.Sw("leaf-1").used_tree_ids = {0};
    sketch.JobTreeIds("default_0", {1});
    sketch.Description().sat_tree_ids = {1};
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h3"});

    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.info.tree_id, 1);
    EXPECT_EQ(Invariants(run, fabric), "");
}

// 16 pods of 32 leaves and 4 aggregation switches, every leaf linked to every
// aggregation switch of its pod and every aggregation switch to each of 4 cores; one
// host per leaf.
FabricSketch LargeFatTree() {
    constexpr int kPods = 16;
    constexpr int kLeavesPerPod = 32;
    constexpr int kAggsPerPod = 4;
    constexpr int kCores = 4;
    FabricSketch sketch;
    for (int pod = 0; pod < kPods; ++pod) {
        for (int leaf = 0; leaf < kLeavesPerPod; ++leaf) {
            sketch.Switch("leaf-" + std::to_string(pod) + "-" + std::to_string(leaf), 0);
        }
    }
    for (int pod = 0; pod < kPods; ++pod) {
        for (int agg = 0; agg < kAggsPerPod; ++agg) {
            sketch.Switch("agg-" + std::to_string(pod) + "-" + std::to_string(agg), 1);
        }
    }
    for (int core = 0; core < kCores; ++core) {
        sketch.Switch("core-" + std::to_string(core), 2);
    }
    for (int pod = 0; pod < kPods; ++pod) {
        const std::string p = std::to_string(pod);
        for (int agg = 0; agg < kAggsPerPod; ++agg) {
            const std::string agg_name = "agg-" + p + "-" + std::to_string(agg);
            for (int leaf = 0; leaf < kLeavesPerPod; ++leaf) {
                sketch.Link("leaf-" + p + "-" + std::to_string(leaf), agg_name);
            }
            for (int core = 0; core < kCores; ++core) {
                sketch.Link(agg_name, "core-" + std::to_string(core));
            }
        }
        for (int leaf = 0; leaf < kLeavesPerPod; ++leaf) {
            const std::string leaf_name = "leaf-" + p + "-" + std::to_string(leaf);
            sketch.Host("h-" + leaf_name.substr(5), leaf_name);
        }
    }
    return sketch;
}

TEST(QuasiFatTreeEndToEnd, JobOnFiveHundredTwelveLeavesBuildsAProperTree) {
    InstalledFabric fabric(LargeFatTree());
    OnDemandTreeCreator creator;
    std::vector<std::string> hosts;
    for (const HostRecord& host : fabric.fabric().Hosts()) {
        hosts.push_back(host.name);
    }
    ASSERT_EQ(hosts.size(), 512u);

    JobRun run = RunJob(creator, fabric, hosts);

    ASSERT_EQ(run.status, 0);
    // Ties all round: the first core, and in every pod its first aggregation switch.
    EXPECT_EQ(run.info.root_node->name, "core-0");
    EXPECT_EQ(run.ChildrenOf("core-0").size(), 16u);
    EXPECT_EQ(run.info.tree_nodes_count, 1u + 16u + 512u);
    for (int pod = 0; pod < 16; ++pod) {
        const std::string p = std::to_string(pod);
        EXPECT_EQ(run.ParentOf("agg-" + p + "-0"), "core-0");
        EXPECT_EQ(run.ChildrenOf("agg-" + p + "-0").size(), 32u);
        EXPECT_EQ(run.ParentOf("leaf-" + p + "-31"), "agg-" + p + "-0");
    }
    EXPECT_EQ(Invariants(run, fabric), "");
}

}  // namespace
