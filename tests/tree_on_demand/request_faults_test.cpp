// Faults inside a request: allocations that fail where the builder handles them (a leaf's
// tree node, a tree node of the sweep, the tree-id arrays), every allocation of a request
// failed in turn, and an exception thrown deep in the builder.  Each is logged as
// specified and fails the request with status 1; running out of memory is reported as
// an internal failure, not a refusal; and the next request on the same creator and model
// gets the same tree as without the fault, with no tree node of the failed one left on
// any switch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "fabric_model/tree_node.h"
#include "support/cache_line_override.h"
#include "support/fabric_sketch.h"
#include "support/failing_allocation.h"
#include "support/log_capture.h"
#include "support/service_run.h"
#include "support/tree_invariants.h"
#include "topology/generators.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const std::string kBadAllocCaught =
    std::string("Exception caught: ") + std::bad_alloc().what() + "\n";

// A 2-level fat tree of radix 8 with two parallel cables per leaf-spine pair.
FabricDescription SmallFatTree() {
    aggtree::FatTreeParams params;
    params.levels = 2;
    params.radix = 8;
    params.parallel_links = 2;
    return aggtree::GenerateFatTree(params);
}

// Five Dragonfly+ groups of 2 leaves and 2 spines with two global links per spine.
FabricDescription SmallDragonflyPlus() {
    aggtree::DragonflyPlusParams params;
    params.groups = 5;
    params.global_links_per_spine = 2;
    return aggtree::GenerateDragonflyPlus(params);
}

// Ports of the named hosts of `fabric`.
std::vector<PortData> PortsOf(InstalledFabric& fabric, const std::vector<std::string>& hosts) {
    std::vector<PortData> ports;
    for (const std::string& name : hosts) {
        const HostRecord* host = fabric.fabric().FindHost(name);
        EXPECT_NE(host, nullptr) << name;
        if (host != nullptr) {
            ports.push_back(PortData{host->guid, host->plane});
        }
    }
    return ports;
}

// A creator serving one job on one fabric, with the job's tree as served without faults.
class FaultBench {
public:
    FaultBench(const FabricDescription& description, const std::vector<std::string>& hosts)
        : fabric(description), m_hosts(hosts) {
        ServedRequest reference = Request();
        EXPECT_EQ(reference.status, 0) << reference.info.error_text;
        expected = TreeSignature(reference.info);
    }

    // The job once more, with `arm` run just before CreateTree and every fault disarmed
    // right after it.
    template <typename Arm>
    ServedRequest Request(Arm arm) {
        ServedRequest request;
        request.ports = PortsOf(fabric, m_hosts);
        Serve(creator, request, JobResource{}, ZeltaExtJobId{7, 0, "svc"}, arm, [] {
            FailNthAllocationOfSize(0, 0);
            FailAllocationNumber(0);
            FailNextAlignedAllocations(0);
        });
        return request;
    }
    ServedRequest Request() {
        return Request([] {});
    }

    // After a faulty request: the switches hold only its nodes, and the next request is
    // served with the tree served without faults.
    void ExpectServedAsBefore(const std::string& fault) {
        EXPECT_EQ(CheckRegisteredTreeNodes(fabric.fabric(), creator), "") << fault;
        ServedRequest next = Request();
        EXPECT_EQ(next.status, 0) << fault << ": " << next.info.error_text;
        EXPECT_EQ(creator.LastInternalFailure().kind, InternalFailure::kNone) << fault;
        EXPECT_EQ(TreeSignature(next.info), expected) << fault;
        EXPECT_EQ(CheckTreeInvariants(next.info, fabric.fabric(), next.ports,
                                      fabric.fabric().Options().max_tree_children),
                  "")
            << fault;
        EXPECT_EQ(CheckRegisteredTreeNodes(fabric.fabric(), creator), "") << fault;
    }

    InstalledFabric fabric;
    OnDemandTreeCreator creator;
    std::string expected;

private:
    std::vector<std::string> m_hosts;
};

TEST(RequestFaults, ALeafTreeNodeThatCannotBeAllocatedFailsOnlyThatRequest) {
    FaultBench bench(SmallFatTree(), {"node001", "node005", "node009"});
    LogCapture log(kLogLevelError);
    ServedRequest failed = bench.Request([] { FailNextAllocationOfSize(sizeof(TreeNode)); });
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("Failed to allocate new tree node at node: leaf-1 GUID:0x5100000001\n",
                            kBadAllocCaught));
    EXPECT_EQ(bench.creator.LastInternalFailure().kind, InternalFailure::kOutOfMemory);
    EXPECT_TRUE(failed.info.tree_nodes.empty());
    bench.ExpectServedAsBefore("leaf tree node");
}

TEST(RequestFaults, ATreeNodeOfTheSweepThatCannotBeAllocatedFailsOnlyThatRequest) {
    FaultBench bench(SmallFatTree(), {"node001", "node005", "node009"});
    LogCapture log(kLogLevelError);
    // Three leaves take the first three tree nodes; the fourth is the first spine's.
    ServedRequest failed = bench.Request([] { FailNthAllocationOfSize(sizeof(TreeNode), 4); });
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("Failed to allocate new tree node at node: spine-1 GUID:0x5100000005\n",
                            kBadAllocCaught));
    EXPECT_EQ(bench.creator.LastInternalFailure().kind, InternalFailure::kOutOfMemory);
    bench.ExpectServedAsBefore("sweep tree node");
}

TEST(RequestFaults, ARootTreeNodeOfAChildlessGroupThatCannotBeAllocatedFailsOnlyThatRequest) {
    // Groups 1, 3 and 5 are joined through group 4, which has no host of the job: its
    // root's tree node is the last one made.
    FaultBench bench(SmallDragonflyPlus(), {"node001", "node009", "node017"});
    ServedRequest reference = bench.Request();
    ASSERT_EQ(reference.status, 0);
    ASSERT_EQ(reference.info.tree_nodes.back()->agg_node->name, "g4-spine-1");
    const size_t made = bench.creator.GetCreatedTreeNodes().size();
    LogCapture log(kLogLevelError);
    ServedRequest failed =
        bench.Request([made] { FailNthAllocationOfSize(sizeof(TreeNode), made); });
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(log.Messages(kLogLevelError), ElementsAre(kBadAllocCaught));
    EXPECT_EQ(bench.creator.LastInternalFailure().kind, InternalFailure::kOutOfMemory);
    bench.ExpectServedAsBefore("tree node of a childless group's root");
}

TEST(RequestFaults, TheFirstTreeIdArrayFailingLeavesTheSecondToChoose) {
    FaultBench bench(SmallFatTree(), {"node001", "node009", "node010"});
    LogCapture log(kLogLevelError);
    ServedRequest served = bench.Request([] { FailNextAlignedAllocations(1); });
    EXPECT_EQ(served.status, 0);
    EXPECT_EQ(TreeSignature(served.info), bench.expected);
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("Could not allocate memory for bit array, size: 16"));
    EXPECT_EQ(bench.creator.LastInternalFailure().kind, InternalFailure::kNone);
    bench.ExpectServedAsBefore("first tree-id array");
}

TEST(RequestFaults, BothTreeIdArraysFailingIsAnInternalFailure) {
    FaultBench bench(SmallFatTree(), {"node001", "node009", "node010"});
    LogCapture log(kLogLevelError);
    ServedRequest failed = bench.Request([] { FailNextAlignedAllocations(2); });
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(log.Messages(kLogLevelError),
                ElementsAre("Could not allocate memory for bit array, size: 16",
                            "Could not allocate memory for bit array, size: 16",
                            "Couldn't find any available tree id to use for the job\n"));
    EXPECT_EQ(bench.creator.LastInternalFailure().kind, InternalFailure::kOutOfMemory);
    EXPECT_THAT(bench.creator.LastInternalFailure().text, HasSubstr("tree id"));
    bench.ExpectServedAsBefore("both tree-id arrays");
}

// Every allocation of the request fails in turn, wherever it is: each run fails with
// status 1 as out of memory (or absorbs the failure and serves the same tree), and the
// model keeps serving.
void FailEveryAllocationOfTheRequest(const FabricDescription& description,
                                     const std::vector<std::string>& hosts) {
    FaultBench bench(description, hosts);
    const LogSink quiet = log_set_sink([](const LogRecord&) {});
    size_t number = 1;
    size_t out_of_memory = 0;
    for (;; ++number) {
        bool failed = false;
        ServedRequest request = bench.Request([&] { FailAllocationNumber(number); });
        failed = ArmedAllocationFailed();
        if (!failed) {
            EXPECT_EQ(request.status, 0);
            break;  // the request no longer reaches allocation `number`
        }
        const std::string fault = "allocation " + std::to_string(number);
        if (request.status == 0) {
            EXPECT_EQ(TreeSignature(request.info), bench.expected) << fault;
        } else {
            EXPECT_EQ(request.status, 1) << fault;
            EXPECT_EQ(bench.creator.LastInternalFailure().kind, InternalFailure::kOutOfMemory)
                << fault;
            ++out_of_memory;
        }
        bench.ExpectServedAsBefore(fault);
        if (::testing::Test::HasFailure()) {
            break;
        }
    }
    log_set_sink(quiet);
    EXPECT_GT(out_of_memory, number / 2) << "of " << number << " allocations";
}

TEST(RequestFaults, EveryAllocationOfAFatTreeRequestFailingInTurnLeavesTheModelServing) {
    FailEveryAllocationOfTheRequest(SmallFatTree(), {"node001", "node005", "node006", "node013"});
}

TEST(RequestFaults, EveryAllocationOfADragonflyPlusRequestFailingInTurnLeavesTheModelServing) {
    FailEveryAllocationOfTheRequest(SmallDragonflyPlus(), {"node001", "node009", "node017"});
}

// A sink that throws on one message stands for any exception deep in the builder.
TEST(RequestFaults, AnExceptionDeepInTheBuilderFailsTheRequestAndLeavesTheModelServing) {
    for (const FabricDescription& description : {SmallFatTree(), SmallDragonflyPlus()}) {
        FaultBench bench(description, {"node001", "node005", "node009"});
        LogCapture log(kLogLevelDebug);
        std::vector<std::string> errors;
        const LogSink previous = log_set_sink([&errors](const LogRecord& record) {
            if (record.message.find("best among combined groups") != std::string_view::npos) {
                throw std::runtime_error("the manager's log failed");
            }
            if (record.level == kLogLevelError) {
                errors.emplace_back(record.message);
            }
        });
        ServedRequest failed = bench.Request();
        log_set_sink(previous);
        EXPECT_EQ(failed.status, 1);
        EXPECT_THAT(errors, ElementsAre("Exception caught: the manager's log failed\n"));
        EXPECT_EQ(bench.creator.LastInternalFailure().kind, InternalFailure::kNone);
        EXPECT_TRUE(failed.info.tree_nodes.empty());
        bench.ExpectServedAsBefore("exception in the sweep");
    }
}

}  // namespace
