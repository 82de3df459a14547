// Properties of commit and release on random fabrics in random states: every commit
// holds the built tree and takes exactly the tree id, one active tree and the quota on
// each tree switch; refusals change nothing; and any sequence of commits and releases
// that ends with everything released leaves the model as it was, byte for byte in its
// fabric file.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fabric_model/tree_ledger.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/tree_invariants.h"
#include "topology/fabric_file.h"
#include "topology/generators.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

constexpr uint64_t kJobNumbers = 6;

bool OneIn(size_t n) {
    return *rc::gen::weightedElement<bool>({{1, true}, {n - 1, false}});
}

// A small generated fat tree or Dragonfly+ fabric.
FabricDescription AnyShape() {
    switch (*rc::gen::inRange(0, 3)) {
        case 0: {
            aggtree::FatTreeParams params;
            params.levels = 2;
            params.radix = *rc::gen::element(4, 8);
            params.parallel_links = *rc::gen::inRange(1, 3);
            return aggtree::GenerateFatTree(params);
        }
        case 1: {
            aggtree::FatTreeParams params;
            params.levels = 3;
            params.radix = 4;
            return aggtree::GenerateFatTree(params);
        }
        default: {
            aggtree::DragonflyPlusParams params;
            params.groups = *rc::gen::element(2, 4);
            params.leaves_per_group = *rc::gen::inRange(1, 3);
            params.spines_per_group = *rc::gen::inRange(1, 3);
            params.hosts_per_leaf = *rc::gen::inRange(1, 3);
            return aggtree::GenerateDragonflyPlus(params);
        }
    }
}

// The shape in a state a running manager could be in: tree ids in use, trees already
// active, resources partly taken, tree ids recorded for jobs, SAT ids.
FabricDescription AnyFabric() {
    FabricDescription description = AnyShape();
    description.max_tree_id = *rc::gen::element<uint16_t>(3, 7, 63, 64, 127);
    for (SwitchDescription& sw : description.switches) {
        for (uint16_t id = 0; id <= description.max_tree_id; ++id) {
            if (OneIn(5)) {
                sw.used_tree_ids.push_back(id);
            }
        }
        sw.active_trees = *rc::gen::inRange(0u, 4u);
        if (OneIn(4)) {
            sw.resources.units = *rc::gen::inRange(0u, 6u);
            sw.resources.groups = *rc::gen::inRange(0u, 6u);
        }
    }
    for (uint64_t job = 1; job <= kJobNumbers; ++job) {
        if (OneIn(3)) {
            std::vector<uint16_t> held;
            for (uint16_t id = 0; id <= description.max_tree_id; ++id) {
                if (OneIn(8)) {
                    held.push_back(id);
                }
            }
            description.job_tree_ids.push_back({ZeltaExtJobId{job, 0, ""}.ToString(), held});
        }
    }
    if (OneIn(3)) {
        description.sat_tree_ids.push_back(
            static_cast<uint16_t>(*rc::gen::inRange<int>(0, description.max_tree_id + 1)));
    }
    return description;
}

std::vector<std::string> AnyHosts(const Fabric& fabric) {
    std::vector<std::string> hosts;
    for (const HostRecord& host : fabric.Hosts()) {
        if (OneIn(3)) {
            hosts.push_back(host.name);
        }
    }
    if (hosts.empty()) {
        hosts.push_back((*rc::gen::elementOf(fabric.Hosts())).name);
    }
    return hosts;
}

JobResource AnyResource() {
    JobResource resource;
    resource.units = *rc::gen::inRange(0u, 3u);
    resource.groups = *rc::gen::inRange(0u, 3u);
    resource.buffers = *rc::gen::element(0u, 8u, 512u);
    resource.quota_mode = OneIn(4) ? kQuotaModeSkipCheck : 0;
    return resource;
}

std::string FabricFileNow(const Fabric& fabric) {
    return aggtree::WriteFabricJson(fabric.Snapshot());
}

using JobTreeIdMap = std::map<std::string, std::set<uint16_t>>;

JobTreeIdMap JobTreeIds(const FabricDescription& description) {
    JobTreeIdMap ids;
    for (const JobTreeIdsDescription& job : description.job_tree_ids) {
        ids[job.job].insert(job.tree_ids.begin(), job.tree_ids.end());
    }
    return ids;
}

// What a commit must have done to each switch of the tree and to the job's tree ids, and
// that it changed nothing else.
void CheckCommitTook(const FabricDescription& before, const FabricDescription& after,
                     const CommittedTree& tree) {
    std::map<size_t, size_t> tree_switch;  // switch index -> node place
    for (size_t i = 0; i < tree.Nodes().size(); ++i) {
        tree_switch[tree.Nodes()[i]->agg_node->index] = i;
    }
    for (size_t s = 0; s < before.switches.size(); ++s) {
        const SwitchDescription& was = before.switches[s];
        const SwitchDescription& now = after.switches[s];
        auto place = tree_switch.find(s);
        std::set<uint16_t> used(was.used_tree_ids.begin(), was.used_tree_ids.end());
        SwitchResources taken{0, 0, 0, 0};
        if (place != tree_switch.end()) {
            RC_ASSERT(used.insert(tree.TreeId()).second);
            taken = tree.TakenFrom(place->second);
        }
        const uint32_t added = place != tree_switch.end() ? 1 : 0;
        RC_ASSERT(now.active_trees == was.active_trees + added);
        RC_ASSERT(now.resources.units == was.resources.units - taken.units);
        RC_ASSERT(now.resources.buffers == was.resources.buffers - taken.buffers);
        RC_ASSERT(now.resources.groups == was.resources.groups - taken.groups);
        RC_ASSERT(now.resources.queue_pairs == was.resources.queue_pairs - taken.queue_pairs);
        RC_ASSERT(std::vector<uint16_t>(used.begin(), used.end()) == now.used_tree_ids);
    }
    JobTreeIdMap expected = JobTreeIds(before);
    expected[tree.JobId().ToString()].insert(tree.TreeId());
    RC_ASSERT(JobTreeIds(after) == expected);
}

RC_GTEST_PROP(TreeLedgerProperties, CommitsAndReleasesThatEndWithEverythingReleasedLeaveNoTrace,
              ()) {
    InstalledFabric fabric(AnyFabric());
    LogCapture quiet(kLogLevelError);
    const std::string start = FabricFileNow(fabric.fabric());
    OnDemandTreeCreator creator;
    TreeLedger ledger(fabric.fabric());
    std::vector<JobRun> runs;  // keeps the ports of every request alive

    const int steps = *rc::gen::inRange(1, 25);
    int commits = 0;
    int second_commits = 0;
    for (int step = 0; step < steps; ++step) {
        const ZeltaExtJobId job{*rc::gen::inRange<uint64_t>(1, kJobNumbers + 1), 0, ""};
        const std::string before_text = FabricFileNow(fabric.fabric());
        if (OneIn(3)) {
            const bool held = ledger.Find(job) != nullptr;
            LedgerStatus released = ledger.Release(job);
            RC_ASSERT(released.ok() == held);
            if (!held) {
                RC_ASSERT(released.error_text == "cannot release the tree of job " +
                                                     job.ToString() +
                                                     ": the job holds no committed tree");
                RC_ASSERT(FabricFileNow(fabric.fabric()) == before_text);
            }
            continue;
        }
        const JobResource resource = AnyResource();
        runs.push_back(RunJob(creator, fabric, AnyHosts(fabric.fabric()), resource, job));
        JobRun& run = runs.back();
        if (run.status != 0) {
            continue;
        }
        RC_ASSERT(CheckTreeInvariants(run.info, fabric.fabric(), *run.ports,
                                      g_option_info.max_tree_children) == "");
        const FabricDescription before = fabric.fabric().Snapshot();
        const bool held = ledger.Find(job) != nullptr;
        LedgerStatus committed = ledger.Commit(run.info, resource);
        if (held) {
            ++second_commits;
            RC_ASSERT(!committed.ok());
            RC_ASSERT(FabricFileNow(fabric.fabric()) == before_text);
            continue;
        }
        ++commits;
        RC_ASSERT(committed.ok());
        const CommittedTree& tree = *ledger.Find(job);
        RC_ASSERT(CheckCommittedTree(tree, run.info, fabric.fabric(), *run.ports,
                                     g_option_info.max_tree_children) == "");
        CheckCommitTook(before, fabric.fabric().Snapshot(), tree);
    }

    RC_TAG(commits == 0 ? "no commit" : (commits < 4 ? "1-3 commits" : "4+ commits"),
           second_commits > 0 ? "a second commit refused" : "no second commit");
    std::vector<ZeltaExtJobId> held;
    for (const auto& [text, tree] : ledger.Trees()) {
        held.push_back(tree->JobId());
    }
    for (size_t i = 0; i + 1 < held.size(); ++i) {  // in any order
        std::swap(held[i], held[*rc::gen::inRange(i, held.size())]);
    }
    for (const ZeltaExtJobId& job : held) {
        RC_ASSERT(ledger.Release(job).ok());
    }
    RC_ASSERT(ledger.Size() == 0u);
    RC_ASSERT(FabricFileNow(fabric.fabric()) == start);
}

}  // namespace
