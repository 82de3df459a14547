// Properties of whole requests on random quasi fat trees: whatever the fabric, a tree
// that is returned is a proper tree for the job, and a job that any tree builder could
// serve (one healthy leaf, or a healthy fat tree) is served.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/tree_invariants.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

constexpr uint16_t kMaxTreeId = 7;

enum class Health { kRandom, kHealthy };

struct RandomFabric {
    FabricSketch sketch;
    std::vector<std::string> leaves;
    std::vector<std::vector<std::string>> hosts_by_leaf;  // parallel to `leaves`
};

// True with probability 1/n whatever the generation size (inRange favours small values
// while the size is small).
bool OneIn(size_t n) {
    return *rc::gen::weightedElement<bool>({{1, true}, {n - 1, false}});
}

// 0 (no link) to 3 parallel links; at least one when the fabric is healthy.
uint16_t LinkCount(Health health) {
    return static_cast<uint16_t>(*rc::gen::inRange(health == Health::kHealthy ? 1 : 0, 4));
}

void AddHosts(RandomFabric& random) {
    for (const std::string& leaf : random.leaves) {
        std::vector<std::string> hosts;
        const int count = *rc::gen::inRange(1, 3);
        for (int i = 0; i < count; ++i) {
            hosts.push_back("h-" + leaf + "-" + std::to_string(i));
            random.sketch.Host(hosts.back(), leaf);
        }
        random.hosts_by_leaf.push_back(std::move(hosts));
    }
}

// Leaves under spines, each leaf-spine pair with its own number of parallel links.
RandomFabric TwoLevels(Health health) {
    RandomFabric random;
    const int n_leaves = *rc::gen::inRange(1, 9);
    const int n_spines = *rc::gen::inRange(1, 5);
    std::vector<std::string> spines;
    for (int i = 0; i < n_leaves; ++i) {
        random.leaves.push_back("leaf-" + std::to_string(i));
        random.sketch.Switch(random.leaves.back(), 0);
    }
    for (int i = 0; i < n_spines; ++i) {
        spines.push_back("spine-" + std::to_string(i));
        random.sketch.Switch(spines.back(), 1);
    }
    for (const std::string& leaf : random.leaves) {
        for (const std::string& spine : spines) {
            if (uint16_t links = LinkCount(health)) {
                random.sketch.Link(leaf, spine, links);
            }
        }
    }
    return random;
}

// Pods of leaves and aggregation switches under cores; leaves link only inside their
// pod, aggregation switches to any core.
RandomFabric ThreeLevels(Health health) {
    RandomFabric random;
    const int n_pods = *rc::gen::inRange(1, 4);
    const int n_cores = *rc::gen::inRange(1, 4);
    std::vector<std::string> aggs;
    std::vector<std::string> cores;
    for (int pod = 0; pod < n_pods; ++pod) {
        const std::string prefix = std::to_string(pod) + "-";
        std::vector<std::string> pod_leaves;
        std::vector<std::string> pod_aggs;
        for (int i = *rc::gen::inRange(1, 4); i > 0; --i) {
            pod_leaves.push_back("leaf-" + prefix + std::to_string(i));
            random.sketch.Switch(pod_leaves.back(), 0);
        }
        for (int i = *rc::gen::inRange(1, 4); i > 0; --i) {
            pod_aggs.push_back("agg-" + prefix + std::to_string(i));
            random.sketch.Switch(pod_aggs.back(), 1);
        }
        for (const std::string& leaf : pod_leaves) {
            for (const std::string& agg : pod_aggs) {
                if (uint16_t links = LinkCount(health)) {
                    random.sketch.Link(leaf, agg, links);
                }
            }
        }
        random.leaves.insert(random.leaves.end(), pod_leaves.begin(), pod_leaves.end());
        aggs.insert(aggs.end(), pod_aggs.begin(), pod_aggs.end());
    }
    for (int i = 0; i < n_cores; ++i) {
        cores.push_back("core-" + std::to_string(i));
        random.sketch.Switch(cores.back(), 2);
    }
    for (const std::string& agg : aggs) {
        for (const std::string& core : cores) {
            if (uint16_t links = LinkCount(health)) {
                random.sketch.Link(agg, core, links);
            }
        }
    }
    return random;
}

// Switches that may not serve, tree ids in use, tight children limits and tree ids the
// job already holds.
void Damage(RandomFabric& random) {
    FabricDescription& description = random.sketch.Description();
    for (SwitchDescription& sw : description.switches) {
        // A refused leaf refuses the whole job, so leaves are spared more often.
        const bool leaf = sw.rank == 0;
        if (OneIn(leaf ? 40 : 8)) {
            sw.excluded = true;
        } else if (OneIn(leaf ? 40 : 8)) {
            sw.valid = false;
        }
        for (uint16_t id = 0; id <= kMaxTreeId; ++id) {
            if (OneIn(6)) {
                sw.used_tree_ids.push_back(id);
            }
        }
        if (OneIn(5)) {
            sw.tree_children_limit = static_cast<uint16_t>(*rc::gen::inRange(1, 5));
        }
    }
    if (OneIn(5)) {
        description.options.max_tree_children = static_cast<uint16_t>(*rc::gen::inRange(0, 6));
    }
    std::vector<uint16_t> held;
    for (uint16_t id = 0; id <= kMaxTreeId; ++id) {
        if (OneIn(6)) {
            held.push_back(id);
        }
    }
    random.sketch.JobTreeIds(ZeltaExtJobId{}.ToString(), held);
}

RandomFabric AnyFabric(Health health) {
    RandomFabric random = *rc::gen::arbitrary<bool>() ? TwoLevels(health) : ThreeLevels(health);
    random.sketch.MaxTreeId(kMaxTreeId);
    AddHosts(random);
    if (health == Health::kRandom) {
        Damage(random);
    }
    return random;
}

// A non-empty random choice of the fabric's hosts.
std::vector<std::string> AnyJob(const RandomFabric& random) {
    std::vector<std::string> job;
    for (const std::vector<std::string>& hosts : random.hosts_by_leaf) {
        for (const std::string& host : hosts) {
            if (*rc::gen::arbitrary<bool>()) {
                job.push_back(host);
            }
        }
    }
    if (job.empty()) {
        job.push_back(*rc::gen::elementOf(random.hosts_by_leaf.front()));
    }
    return job;
}

struct Outcome {
    int status;
    std::string invariants;            // "" for a proper tree; not checked on failure
    InternalFailure internal_failure;  // kNone unless the builder itself failed
    std::string error_text;            // why the job was refused
};

Outcome Request(const RandomFabric& random, const std::vector<std::string>& job) {
    InstalledFabric fabric(random.sketch);
    OnDemandTreeCreator creator;
    LogCapture quiet(kLogLevelError);
    JobRun run = RunJob(creator, fabric, job);
    Outcome outcome{run.status, "", creator.LastInternalFailure().kind, run.info.error_text};
    if (run.status == 0) {
        outcome.invariants = CheckTreeInvariants(run.info, fabric.fabric(), *run.ports,
                                                 g_option_info.max_tree_children);
    }
    return outcome;
}

RC_GTEST_PROP(QuasiFatTreeProperties, EveryReturnedTreeIsAProperTreeForTheJob, ()) {
    const RandomFabric random = AnyFabric(Health::kRandom);
    const Outcome outcome = Request(random, AnyJob(random));
    RC_TAG(outcome.status == 0 ? "built" : "refused");
    RC_ASSERT(outcome.invariants == "");
    // A tree that failed the builder's final check would come back as an internal failure.
    RC_ASSERT(outcome.internal_failure == InternalFailure::kNone);
    // A refused job says why.
    RC_ASSERT(outcome.status == 0 || !outcome.error_text.empty());
}

RC_GTEST_PROP(QuasiFatTreeProperties, JobOnOneHealthyLeafIsAlwaysServed, ()) {
    RandomFabric random = AnyFabric(Health::kRandom);
    const size_t leaf = *rc::gen::inRange<size_t>(0, random.leaves.size());
    SwitchDescription& sw = random.sketch.Sw(random.leaves[leaf]);
    sw.excluded = false;
    sw.valid = true;
    sw.used_tree_ids.clear();
    // The job may hold every tree id but one.
    random.sketch.Description().job_tree_ids.back().tree_ids.resize(std::min<size_t>(
        random.sketch.Description().job_tree_ids.back().tree_ids.size(), kMaxTreeId));
    const Outcome outcome = Request(random, random.hosts_by_leaf[leaf]);
    RC_ASSERT(outcome.status == 0);
    RC_ASSERT(outcome.invariants == "");
}

RC_GTEST_PROP(QuasiFatTreeProperties, AnyJobOnAHealthyFatTreeIsServed, ()) {
    const RandomFabric random = AnyFabric(Health::kHealthy);
    const Outcome outcome = Request(random, AnyJob(random));
    RC_ASSERT(outcome.status == 0);
    RC_ASSERT(outcome.invariants == "");
}

}  // namespace
