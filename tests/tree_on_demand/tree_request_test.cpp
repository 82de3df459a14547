#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "support/failing_allocation.h"
#include "support/foreign_node.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// leaf-1 (0x1001) and leaf-2 (0x1002) under spine (0x1003), links on `plane`.
FabricSketch TwoLeavesOneSpine(uint8_t plane = 0) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0).Switch("spine", 1);
    auto on_plane = [plane](LinkDescription& link) { link.plane = plane; };
    sketch.Link("leaf-1", "spine", 1, on_plane).Link("leaf-2", "spine", 1, on_plane);
    return sketch;
}

std::vector<uint64_t> GuidsOf(const std::list<const PortData*>& ports) {
    std::vector<uint64_t> guids;
    for (const PortData* port : ports) {
        guids.push_back(port->port_guid);
    }
    return guids;
}

TEST(TreeRequest, SeveralPortsOnOneSwitchShareOneDefaultTreeNodeInPortOrder) {
    FabricSketch sketch;
    sketch.Switch("leaf-1", 0).Hosts("leaf-1", {"h1", "h2", "h3"});
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    // Given out of order: the request visits ports in the manager's order (by GUID).
    JobRun run = RunJobOnPorts(creator, {{0x2003, 0}, {0x2001, 0}, {0x2002, 0}});

    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(creator.GetCreatedTreeNodes().size(), 1u);
    const TreeNode* leaf = run.NodeOf("leaf-1");
    ASSERT_NE(leaf, nullptr);
    EXPECT_THAT(GuidsOf(leaf->host_ports), ElementsAre(0x2001, 0x2002, 0x2003));
    EXPECT_EQ(leaf->linked_child_count, 3);
}

TEST(TreeRequest, NewTreeNodesTakeTheFirstPortsPlaneWhileEachPortIsLookedUpOnItsOwn) {
    FabricSketch sketch = TwoLeavesOneSpine(1);
    // One host GUID with a port on each plane, each plane on another leaf.
    sketch.Host("h-plane-1", "leaf-1", 1).Host("h-plane-2", "leaf-2", 2);
    sketch.Description().hosts[1].guid = sketch.Description().hosts[0].guid;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJobOnPorts(creator, {{0x2001, 2}, {0x2001, 1}});

    ASSERT_EQ(run.status, 0);
    ASSERT_NE(run.NodeOf("leaf-2"), nullptr);
    EXPECT_EQ(run.NodeOf("leaf-1")->plane, 1);
    EXPECT_EQ(run.NodeOf("leaf-2")->plane, 1);
    EXPECT_EQ(run.NodeOf("leaf-2")->host_ports.front()->plane, 2);
    EXPECT_EQ(run.info.plane, 1);
}

TEST(TreeRequest, SecondRequestFirstDestroysThePreviousJobsTreeNodes) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    ASSERT_EQ(RunJob(creator, fabric, {"h1", "h2"}).status, 0);
    ASSERT_EQ(creator.GetCreatedTreeNodes().size(), 3u);

    // Fails at its first port, before anything of its own is made.
    JobRun second = RunJobOnPorts(creator, {{0x9999, 0}}, {}, ZeltaExtJobId{2, 0, "next"});

    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(creator.GetCreatedTreeNodes(), IsEmpty());
    for (const char* name : {"leaf-1", "leaf-2", "spine"}) {
        EXPECT_EQ(fabric.Switch(name)->tree_nodes_by_id.count(kDefaultTreeId), 0u) << name;
    }
    EXPECT_EQ(second.info.job_id.job_number, 2u);
}

TEST(TreeRequest, PortWithoutSwitchStopsTheRequestAndKeepsWhatWasMadeBeforeIt) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2", "leaf-3", "leaf-4"}, 0).Switch("spine", 1);
    for (const char* leaf : {"leaf-1", "leaf-2", "leaf-3", "leaf-4"}) {
        sketch.Link(leaf, "spine").Host(std::string("h-") + leaf, leaf, 3);
    }
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    JobRun run;
    run.score.max_active_trees = 5;
    // Third in port order: after (0x2002, 3), before (0x2003, 3).
    *run.ports = {{0x2001, 3}, {0x2002, 3}, {0x2002, 7}, {0x2003, 3}, {0x2004, 3}};
    JobPortSet ports;
    for (const PortData& port : *run.ports) {
        ports.insert(&port);
    }
    const ZeltaExtJobId job_id{42, 0, "abc"};
    LogCapture log(kLogLevelDetail);

    run.status = creator.CreateTree(ports, JobResource{}, job_id, run.info, run.score);

    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(log.Entries(), IsEmpty());
    EXPECT_EQ(run.info.error_text, "Port 0x2002 (plane 7) of the job is attached to no switch\n");
    EXPECT_EQ(run.info.job_id, job_id);
    EXPECT_EQ(run.info.plane, 3);
    EXPECT_EQ(run.score.max_active_trees, 5u);  // never reset
    EXPECT_EQ(creator.GetCreatedTreeNodes().size(), 2u);
    for (const char* reached : {"leaf-1", "leaf-2"}) {
        const TreeNode* node = fabric.Switch(reached)->GetTreeNode(kDefaultTreeId);
        ASSERT_NE(node, nullptr) << reached;
        EXPECT_EQ(node->host_ports.size(), 1u);
        EXPECT_EQ(node->linked_child_count, 1);
    }
    for (const char* unreached : {"leaf-3", "leaf-4", "spine"}) {
        EXPECT_EQ(fabric.Switch(unreached)->GetTreeNode(kDefaultTreeId), nullptr) << unreached;
    }
}

TEST(TreeRequest, AssertionDeepInTheBuilderBecomesOneCaughtExceptionAndStatusOne) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    InstalledFabric fabric(sketch);
    // An upward path to a node that hosts no switch record breaks the sweep's invariant.
    ForeignNode stranger("stranger");
    stranger.LinkUpFrom(fabric.Switch("leaf-1"));
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelError);

    JobRun run = RunJob(creator, fabric, {"h1", "h2"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(log.Count(kLogLevelError,
                        "Exception caught: dynamic_cast<AggNodeFabricInfo *> failed on AggPath\n"),
              1u);
    EXPECT_EQ(run.info.error_text,
              "Exception caught: dynamic_cast<AggNodeFabricInfo *> failed on AggPath\n");
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone);
    EXPECT_THAT(run.info.tree_nodes, IsEmpty());
    EXPECT_EQ(run.info.tree_nodes_count, 0u);
    EXPECT_EQ(run.info.root_node, nullptr);
}

TEST(TreeRequest, AssertionAfterPartOfTheTreeWasLinkedLeavesTheRecordCleared) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);
    // When the first edge is announced, the other leaf loses its default tree node: the
    // second edge then breaks an invariant while the record already holds the root and
    // the first two tree nodes.
    std::string lost_leaf;
    LogSink forward;
    forward = log_set_sink([&](const LogRecord& record) {
        forward(record);
        if (lost_leaf.empty() && record.message.starts_with("AddDescendant(")) {
            const bool first_is_leaf_1 =
                record.message.find("child=leaf-1 ") != std::string_view::npos;
            lost_leaf = first_is_leaf_1 ? "leaf-2" : "leaf-1";
            fabric.Switch(lost_leaf)->tree_nodes_by_id[kDefaultTreeId] = nullptr;
        }
    });

    JobRun run = RunJob(creator, fabric, {"h1", "h2"});

    ASSERT_FALSE(lost_leaf.empty()) << log.Dump();
    const std::string message = "Child AggNode: " + fabric.Switch(lost_leaf)->port_info->GetName() +
                                " doesn't have default tree node";
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("-A- assert(p_child_tree_node) failed. " + message,
                            "Exception caught: " + message + "\n"));
    EXPECT_THAT(run.info.tree_nodes, IsEmpty());
    EXPECT_EQ(run.info.tree_nodes_count, 0u);
    EXPECT_EQ(run.info.root_node, nullptr);
    // The job's owner reads what the log says.
    EXPECT_EQ(run.info.error_text, "Exception caught: " + message + "\n");
    // The summary belongs to a build that returned; this one threw.
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "job id: "));
}

TEST(TreeRequest, FailedAllocationOfALeafTreeNodeIsLoggedAndFailsTheRequest) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    JobRun run;
    *run.ports = {{0x2001, 0}, {0x2002, 0}};
    JobPortSet ports{&(*run.ports)[0], &(*run.ports)[1]};
    LogCapture log(kLogLevelError);

    FailNextAllocationOfSize(sizeof(TreeNode));
    run.status = creator.CreateTree(ports, JobResource{}, ZeltaExtJobId{}, run.info, run.score);
    FailNextAllocationOfSize(0);

    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("Failed to allocate new tree node at node: leaf-1 GUID:0x1001\n",
                            std::string("Exception caught: ") + std::bad_alloc().what() + "\n"));
    EXPECT_THAT(creator.GetCreatedTreeNodes(), IsEmpty());
    EXPECT_EQ(fabric.Switch("leaf-1")->GetTreeNode(kDefaultTreeId), nullptr);
    EXPECT_EQ(fabric.Switch("leaf-2")->GetTreeNode(kDefaultTreeId), nullptr);
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kOutOfMemory);
    EXPECT_THAT(creator.LastInternalFailure().text, HasSubstr("out of memory"));
    EXPECT_EQ(run.info.error_text, creator.LastInternalFailure().text + "\n");
}

TEST(TreeRequest, TheRequestAfterAnAllocationFailureIsServedAndReportsNoFailure) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    JobRun failed;
    *failed.ports = {{0x2001, 0}, {0x2002, 0}};
    JobPortSet ports{&(*failed.ports)[0], &(*failed.ports)[1]};
    LogCapture log(kLogLevelError);
    FailNextAllocationOfSize(sizeof(TreeNode));
    failed.status =
        creator.CreateTree(ports, JobResource{}, ZeltaExtJobId{}, failed.info, failed.score);
    FailNextAllocationOfSize(0);
    ASSERT_EQ(creator.LastInternalFailure().kind, InternalFailure::kOutOfMemory);

    JobRun served = RunJob(creator, fabric, {"h1", "h2"});

    EXPECT_EQ(served.status, 0);
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone);
    EXPECT_THAT(creator.LastInternalFailure().text, IsEmpty());
}

TEST(TreeRequest, ARefusalIsNotAnInternalFailure) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    sketch.Sw("spine").excluded = true;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJob(creator, fabric, {"h1", "h2"});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone);
}

TEST(TreeRequest, MoreThan255PortsOnOneSwitchWrapTheLinkedChildCount) {
    FabricSketch sketch;
    sketch.Switch("leaf-1", 0);
    std::vector<PortData> ports;
    for (int i = 0; i < 257; ++i) {
        sketch.Host("h" + std::to_string(i), "leaf-1");
        ports.push_back(PortData{static_cast<uint64_t>(0x2001 + i), 0});
    }
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;

    JobRun run = RunJobOnPorts(creator, ports);

    ASSERT_EQ(run.status, 0);
    const TreeNode* leaf = run.NodeOf("leaf-1");
    ASSERT_NE(leaf, nullptr);
    EXPECT_EQ(leaf->host_ports.size(), 257u);
    EXPECT_EQ(leaf->linked_child_count, 1);  // 257 in 8 bits
}

TEST(TreeRequest, JobSummaryListsTheTreeSwitchesWhenBothModulesTrace) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);

    JobRun run = RunJob(creator, fabric, {"h1", "h2"}, {}, ZeltaExtJobId{42, 0, "abc"});

    ASSERT_EQ(run.status, 0);
    std::string expected = "job id: abc_42 contain 3 ANs:\n";
    for (const TreeNode* node : run.info.tree_nodes) {
        expected += node->agg_node->port_info->GetName() + "\n";
    }
    EXPECT_EQ(log.Count(kLogLevelDebug, expected), 1u) << log.Dump();
    EXPECT_EQ(run.info.tree_nodes.front()->agg_node->name, "spine");
}

TEST(TreeRequest, JobSummaryWithoutFabricTraceCarriesNoList) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);
    log_set_level(kLogModuleFabric, kLogLevelWarning);

    JobRun run = RunJob(creator, fabric, {"h1", "h2"}, {}, ZeltaExtJobId{42, 0, "abc"});

    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(log.Count(kLogLevelDebug, "job id: abc_42 contain 0 ANs:\n"), 1u) << log.Dump();
}

TEST(TreeRequest, FailedBuildClearsTheRecordButStillLogsTheSummary) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    sketch.Sw("spine").excluded = true;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);

    JobRun run = RunJob(creator, fabric, {"h1", "h2"});

    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.info.tree_nodes, IsEmpty());
    EXPECT_EQ(run.info.root_node, nullptr);
    EXPECT_EQ(log.Count(kLogLevelDebug, "job id: default_0 contain 0 ANs:\n"), 1u) << log.Dump();
    // The reason stays readable for the job's owner.
    EXPECT_EQ(run.info.error_text,
              "Failed to find any root switch that spans all the required leaf switches for the "
              "job\n");
}

TEST(TreeRequest, SuccessfulRequestResetsTheScoreForTheJob) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    sketch.Sw("spine").active_trees = 2;
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    JobRun run;
    run.score.total_active_trees = 100;
    *run.ports = {{0x2001, 0}, {0x2002, 0}};
    JobPortSet ports{&(*run.ports)[0], &(*run.ports)[1]};

    run.status = creator.CreateTree(ports, JobResource{}, ZeltaExtJobId{}, run.info, run.score);

    ASSERT_EQ(run.status, 0);
    // Only the final tree's switches count: the spine once, the leaves carry none.
    EXPECT_EQ(run.score.total_active_trees, 2u);
    EXPECT_EQ(run.score.priority, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
}

TEST(TreeRequest, AnEmptyPortSetIsRefusedWithAReason) {
    FabricSketch sketch = TwoLeavesOneSpine();
    sketch.Host("h1", "leaf-1").Host("h2", "leaf-2");
    InstalledFabric fabric(sketch);
    OnDemandTreeCreator creator;
    JobRun earlier = RunJob(creator, fabric, {"h1", "h2"});
    ASSERT_EQ(earlier.status, 0);
    // Read now: the next request destroys the nodes the record points at.
    const std::vector<std::string> earlier_switches = earlier.SwitchNames();
    LogCapture log(kLogLevelError);

    JobSubTreeInfo info;
    JobSubTreeScore score;
    const int status =
        creator.CreateTree(JobPortSet{}, JobResource{}, ZeltaExtJobId{42, 0, "slurm"}, info, score);

    EXPECT_EQ(status, 1);
    EXPECT_EQ(info.error_text, "The job has no ports: there is no tree to build\n");
    EXPECT_EQ(info.job_id.ToString(), "slurm_42");
    EXPECT_THAT(info.tree_nodes, IsEmpty());
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("Job slurm_42: The job has no ports: there is no tree to build\n"));
    EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone);
    // The earlier job's nodes are gone from the switches, as at the start of any request.
    EXPECT_THAT(creator.GetCreatedTreeNodes(), IsEmpty());
    EXPECT_EQ(fabric.Switch("spine")->GetTreeNode(kDefaultTreeId), nullptr);

    JobRun next = RunJob(creator, fabric, {"h1", "h2"});
    EXPECT_EQ(next.status, 0);
    EXPECT_EQ(next.SwitchNames(), earlier_switches);
}

}  // namespace
