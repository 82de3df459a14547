// The bottom-up sweep over small fabrics: admission, best groups, root candidates,
// up-link filtering, new parents and offers of identical leaf sets.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/assertion_text.h"
#include "support/fabric_sketch.h"
#include "support/failing_allocation.h"
#include "support/foreign_node.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

JobResource LockingJob(bool lock_required, bool exclusive_lock) {
    JobResource resource;
    if (lock_required) {
        resource.flags |= kJobFlagLockRequired;
    }
    if (exclusive_lock) {
        resource.lock_options |= kJobLockOptionExclusive;
    }
    return resource;
}

// One island's sweep state, seeded the way a request seeds its leaves.
struct SweepBench {
    explicit SweepBench(const FabricSketch& sketch) : fabric(sketch) {}

    AggNodeFabricInfo* Sw(const std::string& name) { return fabric.Switch(name); }
    std::string Name(const std::string& name) { return Sw(name)->port_info->GetName(); }

    // Queues the leaves in address order, each with a default tree node, a seed group
    // covering only itself and a record offering that group over one path.
    void Seed(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            leaves.insert(Sw(name));
        }
        for (AggNodeFabricInfo* leaf : leaves) {
            queue.push(leaf);
            leaf_tree_nodes.push_back(std::make_unique<TreeNode>(kDefaultTreeId, leaf, job.plane));
            leaf->AddTreeNode(kDefaultTreeId, leaf_tree_nodes.back().get());
            DescendantGroup& seed = groups.emplace_back(leaf);
            seed.score.Reset(resource, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
            EXPECT_EQ(seed.score.Update(*leaf_tree_nodes.back(), true, kDefaultTreeId, job), 0);
            seed.leaf_nodes.insert(leaf);
            auto& info = infos[leaf] = std::make_unique<QuasiFatTreeAnInfo>(leaf);
            seed.leaves_hash = CalculateLeavesHash(seed.leaf_nodes, LeafNodeGuidKey);
            info->map_valid_path_count_to_child[leaf] = 1;
            info->child_groups.emplace(seed.leaves_hash, &seed);
        }
    }

    int Run(bool check_topology = false) {
        return creator.QuasiFatTreeBFSBottomUp(queue, infos, roots, job, resource, groups, leaves,
                                               check_topology);
    }

    QuasiFatTreeAnInfo* Info(const std::string& name) {
        auto found = infos.find(Sw(name));
        return found == infos.end() ? nullptr : found->second.get();
    }

    std::vector<std::string> RootNames() const {
        std::vector<std::string> names;
        for (const auto& [node, info] : roots) {
            names.push_back(node->name);
        }
        return names;
    }

    InstalledFabric fabric;
    OnDemandTreeCreator creator;
    std::vector<std::unique_ptr<TreeNode>> leaf_tree_nodes;
    std::queue<AggNodeFabricInfo*> queue;
    QuasiFatTreeInfoMap infos;
    RootCandidateMap roots;
    JobSubTreeInfo job;
    JobResource resource;
    DescendantGroupList groups;
    LeafSwitchOrderedSet leaves;
};

FabricSketch TwoLeavesOneSpine() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switch("spine-1", 1)
        .Link("leaf-1", "spine-1")
        .Link("leaf-2", "spine-1");
    return sketch;
}

TEST(BottomUpSweepTest, EmptyQueueReturnsZeroAndChangesNothing) {
    LogCapture log;
    SweepBench bench(TwoLeavesOneSpine());

    EXPECT_EQ(bench.Run(), 0);
    EXPECT_TRUE(bench.roots.empty());
    EXPECT_TRUE(bench.infos.empty());
    EXPECT_TRUE(bench.groups.empty());
    EXPECT_TRUE(bench.creator.GetCreatedTreeNodes().empty());
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(BottomUpSweepTest, SingleLeafIsARootCandidateWithoutVisitingItsParent) {
    LogCapture log;
    SweepBench bench(TwoLeavesOneSpine());
    bench.Seed({"leaf-1"});

    EXPECT_EQ(bench.Run(), 0);

    EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"leaf-1"});
    EXPECT_EQ(bench.roots.begin()->second, bench.Info("leaf-1"));
    EXPECT_EQ(bench.Info("spine-1"), nullptr);
    EXPECT_TRUE(bench.creator.GetCreatedTreeNodes().empty());
    EXPECT_TRUE(bench.queue.empty());
    const DescendantGroup* best = bench.Info("leaf-1")->best_group;
    ASSERT_NE(best, nullptr);
    EXPECT_EQ(best->size(), 1u);
    EXPECT_TRUE(
        log.Contains(4, "best among combined groups DG_ID: " + std::to_string(best->id) + "\n"))
        << log.Dump();
}

TEST(BottomUpSweepTest, TwoLeavesMeetAtTheirSpine) {
    LogCapture log;
    SweepBench bench(TwoLeavesOneSpine());
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 0);

    EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"spine-1"});
    QuasiFatTreeAnInfo* spine = bench.Info("spine-1");
    ASSERT_NE(spine, nullptr);
    EXPECT_EQ(spine->map_valid_path_count_to_child.at(bench.Sw("leaf-1")), 1);
    EXPECT_EQ(spine->map_valid_path_count_to_child.at(bench.Sw("leaf-2")), 1);
    EXPECT_EQ(spine->child_groups.size(), 2u);
    ASSERT_NE(spine->best_group, nullptr);
    EXPECT_EQ(spine->best_group->size(), 2u);
    EXPECT_EQ(spine->best_group->node, bench.Sw("spine-1"));
    EXPECT_EQ(spine->best_group->children.size(), 2u);
    EXPECT_EQ(spine->best_group->score.min_parallel_links, 1);
    EXPECT_NE(bench.Info("leaf-1")->best_group, nullptr);
    EXPECT_NE(bench.Info("leaf-2")->best_group, nullptr);
    EXPECT_EQ(log.Count(4, "CombineGroups node: " + bench.Name("spine-1") + "\n"), 1u)
        << "handled once although reached from two children";
    EXPECT_TRUE(log.Contains(
        4, "best among combined groups DG_ID: " + std::to_string(spine->best_group->id) + "\n"));
}

TEST(BottomUpSweepTest, NewParentGetsADefaultTreeNodeOfTheJobsPlane) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switch("spine-1", 1)
        .Link("leaf-1", "spine-1", 1, [](LinkDescription& link) { link.plane = 2; })
        .Link("leaf-2", "spine-1", 1, [](LinkDescription& link) { link.plane = 2; });
    SweepBench bench(sketch);
    bench.job.plane = 2;
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 0);

    const auto& made = bench.creator.GetCreatedTreeNodes();
    ASSERT_EQ(made.size(), 1u);
    const TreeNode& tree_node = *made[0];
    EXPECT_EQ(tree_node.agg_node, bench.Sw("spine-1"));
    EXPECT_EQ(tree_node.tree_id, kDefaultTreeId);
    EXPECT_EQ(tree_node.plane, 2);
    EXPECT_EQ(tree_node.linked_child_count, 0);
    EXPECT_TRUE(tree_node.host_ports.empty());
    EXPECT_TRUE(tree_node.linked_child_indices.empty());
    EXPECT_EQ(bench.Sw("spine-1")->GetTreeNode(kDefaultTreeId), &tree_node);
}

TEST(BottomUpSweepTest, ParallelUpLinksAreCountedEachAndOfferOneGroup) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switch("spine-1", 1)
        .Link("leaf-1", "spine-1", 2)
        .Link("leaf-2", "spine-1", 3);
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 0);

    QuasiFatTreeAnInfo* spine = bench.Info("spine-1");
    ASSERT_NE(spine, nullptr);
    EXPECT_EQ(spine->map_valid_path_count_to_child.at(bench.Sw("leaf-1")), 2);
    EXPECT_EQ(spine->map_valid_path_count_to_child.at(bench.Sw("leaf-2")), 3);
    EXPECT_EQ(spine->child_groups.size(), 2u);
    ASSERT_NE(spine->best_group, nullptr);
    EXPECT_EQ(spine->best_group->score.min_parallel_links, 2);
}

TEST(BottomUpSweepTest, LeafFailingAdmissionFailsTheSweep) {
    LogCapture log;
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Sw("leaf-2").valid = false;
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 1);
    EXPECT_TRUE(bench.roots.empty());
    EXPECT_TRUE(log.Contains(
        4, "AggNode: " + bench.Name("leaf-2") + " doesn't satisfy job requirements\n"));
    EXPECT_TRUE(log.Contains(
        4, "AggNode: " + bench.Name("leaf-2") + " is a leaf switch, cannot build quasi fat tree\n"))
        << log.Dump();
}

TEST(BottomUpSweepTest, LeafFailingAdmissionFailsTheSweepWithTracesOff) {
    LogCapture log(kLogLevelWarning);
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Sw("leaf-1").excluded = true;
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 1);
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(BottomUpSweepTest, InnerSwitchFailingAdmissionIsSkipped) {
    LogCapture log;
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switches({"mid-1", "mid-2", "mid-3"}, 1)
        .Switch("top", 2)
        .Link("leaf-1", "mid-1")
        .Link("leaf-1", "mid-3")
        .Link("leaf-2", "mid-2")
        .Link("mid-1", "top")
        .Link("mid-2", "top")
        .Link("mid-3", "top");
    sketch.Sw("mid-1").mode = 1;
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 0);

    EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"top"});
    EXPECT_EQ(
        log.Count(4, "AggNode: " + bench.Name("mid-1") + " doesn't satisfy job requirements\n"),
        1u);
    EXPECT_FALSE(log.ContainsFragment(4, "is a leaf switch"));
    ASSERT_NE(bench.Info("mid-1"), nullptr);
    EXPECT_EQ(bench.Info("mid-1")->best_group, nullptr);
    const auto& top_counts = bench.Info("top")->map_valid_path_count_to_child;
    EXPECT_EQ(top_counts.count(bench.Sw("mid-1")), 0u);
    EXPECT_EQ(top_counts.count(bench.Sw("mid-2")), 1u);
    EXPECT_EQ(top_counts.count(bench.Sw("mid-3")), 1u);
}

TEST(BottomUpSweepTest, QueuedSwitchWithoutRecordIsAnAssertion) {
    LogCapture log;
    SweepBench bench(TwoLeavesOneSpine());
    bench.queue.push(bench.Sw("leaf-1"));
    bench.leaves.insert(bench.Sw("leaf-1"));

    std::string expected = "quasi_fat_tree_an_info not found for: " + bench.Name("leaf-1");
    EXPECT_EQ(AssertionText([&] { bench.Run(); }), expected);
    EXPECT_TRUE(log.Contains(
        1, "-A- assert(it != agg_node_to_quasi_fat_tree_info.end()) failed. " + expected))
        << log.Dump();
}

TEST(BottomUpSweepTest, SwitchWithoutAnyUsableCandidateFailsTheSweep) {
    LogCapture log;
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.MaxTreeId(0);
    sketch.Sw("spine-1").used_tree_ids = {0};  // no tree id left to score it with
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 1);

    EXPECT_TRUE(bench.roots.empty());
    EXPECT_TRUE(log.Contains(
        4, "CombineGroups Could not use TreeNode on: " + bench.Name("spine-1") + "\n"));
    EXPECT_EQ(log.Messages(1), std::vector<std::string>{"Failed to create any combined group on "
                                                        "node: " +
                                                        bench.Name("spine-1") + "\n"})
        << log.Dump();
}

TEST(BottomUpSweepTest, UnconnectedLeavesGiveNoRootCandidateButSucceed) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0);
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 0);
    EXPECT_TRUE(bench.roots.empty());
    EXPECT_TRUE(bench.queue.empty());
}

TEST(BottomUpSweepTest, EveryFullCoverSpineIsACandidateAndNothingAboveIsReached) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switches({"spine-1", "spine-2"}, 1)
        .Switch("top", 2)
        .Link("leaf-1", "spine-1")
        .Link("leaf-1", "spine-2")
        .Link("leaf-2", "spine-1")
        .Link("leaf-2", "spine-2")
        .Link("spine-1", "top")
        .Link("spine-2", "top");
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 0);

    EXPECT_EQ(bench.RootNames(), (std::vector<std::string>{"spine-1", "spine-2"}));
    EXPECT_EQ(bench.Info("top"), nullptr);
    EXPECT_EQ(bench.creator.GetCreatedTreeNodes().size(), 2u);
}

TEST(BottomUpSweepTest, LeafReachedFromBelowIsNotQueuedAgain) {
    LogCapture log;
    FabricSketch sketch;
    sketch.Switch("leaf-1", 0).Switch("leaf-2", 1).Link("leaf-1", "leaf-2");
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(bench.Run(), 0);

    EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"leaf-2"});
    EXPECT_TRUE(bench.creator.GetCreatedTreeNodes().empty());
    EXPECT_EQ(log.Count(4, "CombineGroups node: " + bench.Name("leaf-2") + "\n"), 1u);
    const DescendantGroup* best = bench.Info("leaf-2")->best_group;
    ASSERT_NE(best, nullptr);
    EXPECT_EQ(best->size(), 2u);
    ASSERT_EQ(best->children.size(), 1u);
    EXPECT_EQ(best->children[0], bench.Info("leaf-1")->best_group);
}

TEST(BottomUpSweepTest, FullCoverOnANonDragonflyKindTwoSwitchIsALogicError) {
    FabricSketch sketch;
    sketch.DfpSwitch("leaf-1", 0, 5);
    SweepBench bench(sketch);
    bench.Seed({"leaf-1"});

    try {
        bench.Run(true);
        ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "not tree or DFP topology");
    }
}

TEST(BottomUpSweepTest, KindTwoIsNotCheckedWithoutTheTopologyFlag) {
    FabricSketch sketch;
    sketch.DfpSwitch("leaf-1", 0, 5);
    SweepBench bench(sketch);
    bench.Seed({"leaf-1"});

    EXPECT_EQ(bench.Run(false), 0);
    EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"leaf-1"});
}

TEST(BottomUpSweepTest, KindThreeAndTreeSwitchesPassTheTopologyCheck) {
    FabricSketch sketch;
    sketch.Switch("leaf-1", 0, [](SwitchDescription& sw) { sw.topology_kind = 3; })
        .Switch("leaf-2", 0);
    {
        SweepBench bench(sketch);
        bench.Seed({"leaf-1"});
        EXPECT_EQ(bench.Run(true), 0);
        EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"leaf-1"});
    }
    {
        SweepBench bench(sketch);
        bench.Seed({"leaf-2"});
        EXPECT_EQ(bench.Run(true), 0);
        EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"leaf-2"});
    }
}

TEST(BottomUpSweepTest, DeferredRootIsClimbedAboveWhenTopologyIsChecked) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Sw("leaf-1").defer_root = true;
    SweepBench bench(sketch);
    bench.Seed({"leaf-1"});

    EXPECT_EQ(bench.Run(true), 0);

    EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"spine-1"});
    ASSERT_NE(bench.Info("leaf-1")->best_group, nullptr);
}

TEST(BottomUpSweepTest, DeferredRootCountsWithoutTheTopologyCheck) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Sw("leaf-1").defer_root = true;
    SweepBench bench(sketch);
    bench.Seed({"leaf-1"});

    EXPECT_EQ(bench.Run(false), 0);
    EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"leaf-1"});
    EXPECT_EQ(bench.Info("spine-1"), nullptr);
}

TEST(BottomUpSweepTest, TreeNodeAllocationFailureIsLoggedAndRethrown) {
    LogCapture log;
    SweepBench bench(TwoLeavesOneSpine());
    bench.Seed({"leaf-1", "leaf-2"});

    FailNextAllocationOfSize(sizeof(TreeNode));
    EXPECT_THROW(bench.Run(), std::bad_alloc);
    FailNextAllocationOfSize(0);

    EXPECT_EQ(log.Messages(1),
              std::vector<std::string>{
                  "Failed to allocate new tree node at node: " + bench.Name("spine-1") + "\n"})
        << log.Dump();
    EXPECT_TRUE(bench.creator.GetCreatedTreeNodes().empty());
    EXPECT_EQ(bench.Sw("spine-1")->GetTreeNode(kDefaultTreeId), nullptr);
}

// Whether leaf-1 offers its group to the spine over a link changed by `tweak`.
bool LeafOneReachesSpine(const FabricSketch::LinkTweak& tweak, const JobResource& resource,
                         uint8_t job_plane = 0) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switch("spine-1", 1)
        .Link("leaf-1", "spine-1", 1, tweak)
        .Link("leaf-2", "spine-1", 1,
              [job_plane](LinkDescription& link) { link.plane = job_plane; });
    SweepBench bench(sketch);
    bench.resource = resource;
    bench.job.plane = job_plane;
    bench.Seed({"leaf-1", "leaf-2"});
    EXPECT_EQ(bench.Run(), 0);
    QuasiFatTreeAnInfo* spine = bench.Info("spine-1");
    return spine != nullptr && spine->map_valid_path_count_to_child.count(bench.Sw("leaf-1")) != 0;
}

TEST(BottomUpSweepTest, UnusableUpLinkIsNotUsed) {
    EXPECT_TRUE(LeafOneReachesSpine([](LinkDescription&) {}, JobResource{}));
    EXPECT_FALSE(
        LeafOneReachesSpine([](LinkDescription& link) { link.usable = false; }, JobResource{}));
}

TEST(BottomUpSweepTest, UpLinkOnAnotherPlaneIsNotUsed) {
    auto plane_one = [](LinkDescription& link) { link.plane = 1; };
    EXPECT_FALSE(LeafOneReachesSpine(plane_one, JobResource{}, 0));
    EXPECT_TRUE(LeafOneReachesSpine(plane_one, JobResource{}, 1));
}

TEST(BottomUpSweepTest, UpLinkLocksAreIgnoredWithoutLockDemand) {
    auto fully_locked = [](LinkDescription& link) {
        link.exclusively_locked = true;
        link.lock_limit = 2;
        link.lock_count = 2;
        link.exclusive_lock_count = 2;
    };
    EXPECT_TRUE(LeafOneReachesSpine(fully_locked, JobResource{}));
    EXPECT_TRUE(LeafOneReachesSpine(fully_locked, LockingJob(false, true)))
        << "an exclusive lock without a lock demand asks for nothing";
}

TEST(BottomUpSweepTest, LockDemandNeedsAnUnlockedLinkBelowItsLimit) {
    const JobResource job = LockingJob(true, false);
    EXPECT_FALSE(
        LeafOneReachesSpine([](LinkDescription& link) { link.exclusively_locked = true; }, job));
    EXPECT_FALSE(LeafOneReachesSpine(
        [](LinkDescription& link) {
            link.lock_limit = 3;
            link.lock_count = 3;
        },
        job));
    EXPECT_TRUE(LeafOneReachesSpine(
        [](LinkDescription& link) {
            link.lock_limit = 3;
            link.lock_count = 2;
            link.exclusive_lock_count = 3;
        },
        job));
}

TEST(BottomUpSweepTest, ExclusiveDemandNeedsBothCountersBelowTheLimit) {
    const JobResource job = LockingJob(true, true);
    EXPECT_FALSE(LeafOneReachesSpine(
        [](LinkDescription& link) {
            link.lock_limit = 3;
            link.exclusive_lock_count = 3;
        },
        job));
    EXPECT_FALSE(LeafOneReachesSpine(
        [](LinkDescription& link) {
            link.lock_limit = 3;
            link.lock_count = 3;
        },
        job));
    EXPECT_FALSE(
        LeafOneReachesSpine([](LinkDescription& link) { link.exclusively_locked = true; }, job));
    EXPECT_TRUE(LeafOneReachesSpine(
        [](LinkDescription& link) {
            link.lock_limit = 3;
            link.lock_count = 2;
            link.exclusive_lock_count = 2;
        },
        job));
}

// Two middles under the same two leaves offer identical leaf sets to the top; a third
// middle brings the third leaf.  Returns the middle whose group the top keeps.
std::string KeptOfferForTheSharedLeaves(uint16_t mid_1_links, uint16_t mid_2_links,
                                        uint32_t mid_1_load, uint32_t mid_2_load) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2", "leaf-3"}, 0)
        .Switches({"mid-1", "mid-2", "mid-3"}, 1)
        .Switch("top", 2)
        .Link("leaf-1", "mid-1")
        .Link("leaf-1", "mid-2")
        .Link("leaf-2", "mid-1")
        .Link("leaf-2", "mid-2")
        .Link("leaf-3", "mid-3")
        .Link("mid-1", "top", mid_1_links)
        .Link("mid-2", "top", mid_2_links)
        .Link("mid-3", "top");
    sketch.Sw("mid-1").active_trees = mid_1_load;
    sketch.Sw("mid-2").active_trees = mid_2_load;
    SweepBench bench(sketch);
    bench.Seed({"leaf-1", "leaf-2", "leaf-3"});
    EXPECT_EQ(bench.Run(), 0);

    const DescendantGroup* first = bench.Info("mid-1")->best_group;
    const DescendantGroup* second = bench.Info("mid-2")->best_group;
    EXPECT_EQ(first->leaves_hash, second->leaves_hash) << "both offer the same leaf set";
    const QuasiFatTreeAnInfo* top = bench.Info("top");
    EXPECT_EQ(top->map_valid_path_count_to_child.at(bench.Sw("mid-1")), mid_1_links);
    EXPECT_EQ(top->map_valid_path_count_to_child.at(bench.Sw("mid-2")), mid_2_links);
    EXPECT_EQ(bench.RootNames(), std::vector<std::string>{"top"});
    return top->child_groups.at(first->leaves_hash)->node->name;
}

TEST(BottomUpSweepTest, IdenticalOffersOfEqualScoreKeepTheFirstOnEqualLinks) {
    EXPECT_EQ(KeptOfferForTheSharedLeaves(1, 1, 0, 0), "mid-1");
}

TEST(BottomUpSweepTest, IdenticalOffersOfEqualScoreGoToTheChildWithMoreLinks) {
    EXPECT_EQ(KeptOfferForTheSharedLeaves(1, 2, 0, 0), "mid-2");
    EXPECT_EQ(KeptOfferForTheSharedLeaves(2, 1, 0, 0), "mid-1");
}

TEST(BottomUpSweepTest, IdenticalOffersGoToTheBetterScoreWhateverTheLinks) {
    EXPECT_EQ(KeptOfferForTheSharedLeaves(1, 1, 1, 0), "mid-2");
    EXPECT_EQ(KeptOfferForTheSharedLeaves(1, 2, 0, 1), "mid-1");
}

// A lone switch queued with a record holding the offers of three middles: the seed
// {1-4} (3 links), {4-6} and {5-6} (`mid_3_links`).  Its candidates come out as
// [seed + {5-6}, seed + {4-6}, seed], the first two covering all six leaves and rated
// by their fewest parallel links.
struct ThreeCandidatesBench {
    explicit ThreeCandidatesBench(int32_t mid_3_links) : bench(Sketch()) {
        AggNodeFabricInfo* top = bench.Sw("top");
        top_tree_node = std::make_unique<TreeNode>(kDefaultTreeId, top, 0);
        top->AddTreeNode(kDefaultTreeId, top_tree_node.get());
        auto& info = bench.infos[top] = std::make_unique<QuasiFatTreeAnInfo>(top);
        Offer(*info, "mid-1", {"leaf-1", "leaf-2", "leaf-3", "leaf-4"}, 3);
        Offer(*info, "mid-2", {"leaf-4", "leaf-5", "leaf-6"}, 3);
        Offer(*info, "mid-3", {"leaf-5", "leaf-6"}, mid_3_links);
        bench.queue.push(top);
    }

    static FabricSketch Sketch() {
        FabricSketch sketch;
        sketch.Switches({"leaf-1", "leaf-2", "leaf-3", "leaf-4", "leaf-5", "leaf-6"}, 0)
            .Switches({"mid-1", "mid-2", "mid-3"}, 1)
            .Switch("top", 2);
        return sketch;
    }

    void Offer(QuasiFatTreeAnInfo& info, const std::string& at,
               const std::vector<std::string>& leaves, int32_t links) {
        DescendantGroup& group = bench.groups.emplace_back(bench.Sw(at));
        for (const std::string& leaf : leaves) {
            group.leaf_nodes.insert(bench.Sw(leaf));
        }
        group.leaves_hash = CalculateLeavesHash(group.leaf_nodes, LeafNodeGuidKey);
        info.child_groups[group.leaves_hash] = &group;
        info.map_valid_path_count_to_child[bench.Sw(at)] = links;
    }

    // The top's candidates, in the order they were offered to the choice.
    std::vector<const DescendantGroup*> Candidates() {
        std::vector<const DescendantGroup*> made;
        for (const DescendantGroup& group : bench.groups) {
            if (group.node == bench.Sw("top")) {
                made.push_back(&group);
            }
        }
        return {made[2], made[1], made[0]};  // merges go in front, newest first
    }

    SweepBench bench;
    std::unique_ptr<TreeNode> top_tree_node;
};

TEST(BottomUpSweepTest, EquallyWideCandidateThatScoresBetterReplacesTheBest) {
    LogCapture log;
    ThreeCandidatesBench three(1);  // the first candidate has a single-link hop

    EXPECT_EQ(three.bench.Run(), 0);

    std::vector<const DescendantGroup*> candidates = three.Candidates();
    ASSERT_EQ(candidates[0]->size(), 6u);
    ASSERT_EQ(candidates[1]->size(), 6u);
    ASSERT_EQ(candidates[2]->size(), 4u);
    EXPECT_EQ(candidates[0]->score.min_parallel_links, 1);
    EXPECT_EQ(candidates[1]->score.min_parallel_links, 3);
    EXPECT_TRUE(candidates[1]->score.IsWorseThan(candidates[2]->score, three.bench.job))
        << "the narrow seed scores better yet never wins";
    EXPECT_EQ(three.bench.Info("top")->best_group, candidates[1]);
    EXPECT_EQ(log.Count(4, "curr_group_DG_id=" + std::to_string(candidates[1]->id) +
                               " (size=6) replaces best_group_DG_id=" +
                               std::to_string(candidates[0]->id) + " (size=6)\n"),
              1u)
        << log.Dump();
    EXPECT_FALSE(log.ContainsFragment(4, "curr_group_DG_id=" + std::to_string(candidates[2]->id)));
    EXPECT_TRUE(log.Contains(
        4, "best among combined groups DG_ID: " + std::to_string(candidates[1]->id) + "\n"));
    EXPECT_TRUE(three.bench.roots.empty()) << "one queued switch, so six leaves is no full cover";
}

TEST(BottomUpSweepTest, EquallyWideCandidatesOfEqualScoreKeepTheFirst) {
    LogCapture log;
    ThreeCandidatesBench three(3);

    EXPECT_EQ(three.bench.Run(), 0);

    std::vector<const DescendantGroup*> candidates = three.Candidates();
    ASSERT_EQ(candidates[0]->size(), 6u);
    ASSERT_EQ(candidates[1]->size(), 6u);
    EXPECT_FALSE(candidates[0]->score.IsWorseThan(candidates[1]->score, three.bench.job));
    EXPECT_FALSE(candidates[1]->score.IsWorseThan(candidates[0]->score, three.bench.job));
    EXPECT_EQ(three.bench.Info("top")->best_group, candidates[0]);
    EXPECT_FALSE(log.ContainsFragment(4, "replaces best_group_DG_id=")) << log.Dump();
}

TEST(BottomUpSweepTest, RivalOfferWithoutLinkCountIsAnAssertion) {
    LogCapture log;
    SweepBench bench(TwoLeavesOneSpine());
    // The spine already holds, for leaf-1's leaf set, an offer from leaf-2 that it never
    // counted a link for.
    DescendantGroup& rival = bench.groups.emplace_back(bench.Sw("leaf-2"));
    rival.leaf_nodes.insert(bench.Sw("leaf-1"));
    rival.leaves_hash = CalculateLeavesHash(rival.leaf_nodes, LeafNodeGuidKey);
    auto& spine = bench.infos[bench.Sw("spine-1")] =
        std::make_unique<QuasiFatTreeAnInfo>(bench.Sw("spine-1"));
    spine->child_groups[rival.leaves_hash] = &rival;
    bench.Seed({"leaf-1", "leaf-2"});

    std::string expected =
        "MapValidPathCount doesn't contain a value for a child: " + bench.Name("leaf-2") +
        ", on node: " + bench.Name("leaf-1");
    EXPECT_EQ(AssertionText([&] { bench.Run(); }), expected);
    EXPECT_TRUE(log.Contains(1,
                             "-A- assert(count_per_child_of_identical_group_iter != "
                             "parent_quasi_fat_tree_info->map_valid_path_count_to_child.end()) "
                             "failed. " +
                                 expected))
        << log.Dump();
}

TEST(BottomUpSweepTest, UpLinkToANodeThatIsNoSwitchIsAnAssertion) {
    LogCapture log;
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0);
    SweepBench bench(sketch);
    ForeignNode outsider("outsider");
    outsider.LinkUpFrom(bench.Sw("leaf-1"));
    bench.Seed({"leaf-1", "leaf-2"});

    EXPECT_EQ(AssertionText([&] { bench.Run(); }),
              "dynamic_cast<AggNodeFabricInfo *> failed on AggPath");
    EXPECT_TRUE(log.Contains(1,
                             "-A- assert(parent_node) failed. dynamic_cast<AggNodeFabricInfo *> "
                             "failed on AggPath"))
        << log.Dump();
}

}  // namespace
