// The Dragonfly+ builder against a brute-force search on small random fabrics: a job
// that spans several groups is served exactly when some set of switches joins a root of
// every job group with at most max_childless_islands transit switches.
//
// The brute force works on the fabric description alone.  A group's roots are its
// switches that do not defer the root and reach every job leaf of the group over
// up-links; transit switches are all other switches with global links; a transit set X
// works when the global links among the roots and X join some roots of every job group
// into one component (roots cost nothing, so taking all of them never hurts).  Every
// set of at most max_childless_islands transit switches is tried.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <map>
#include <numeric>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/dfp_islands.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/random_dfp.h"
#include "support/tree_invariants.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

struct Oracle {
    const FabricDescription& d;
    std::vector<std::vector<size_t>> up;              // by switch: switches one up-link higher
    std::vector<std::vector<size_t>> global;          // by switch: switches of other groups linked
    std::map<uint16_t, std::set<size_t>> job_leaves;  // by group

    Oracle(const FabricDescription& description, const std::vector<std::string>& job)
        : d(description), up(d.switches.size()), global(d.switches.size()) {
        for (const LinkDescription& link : d.links) {
            const SwitchDescription& a = d.switches[link.a];
            const SwitchDescription& b = d.switches[link.b];
            if (a.dfp_group_id != b.dfp_group_id) {
                global[link.a].push_back(link.b);
                global[link.b].push_back(link.a);
            } else if (*a.rank < *b.rank) {
                up[link.a].push_back(link.b);
            } else if (*b.rank < *a.rank) {
                up[link.b].push_back(link.a);
            }
        }
        for (const HostDescription& host : d.hosts) {
            if (std::find(job.begin(), job.end(), host.name) != job.end()) {
                job_leaves[d.switches[host.switch_index].dfp_group_id].insert(host.switch_index);
            }
        }
    }

    bool Reaches(size_t from, size_t to) const {
        if (from == to) {
            return true;
        }
        for (size_t next : up[from]) {
            if (Reaches(next, to)) {
                return true;
            }
        }
        return false;
    }

    // Switches of the group that may be a root and lie above every job leaf of it.
    std::vector<size_t> Roots(uint16_t group) const {
        std::vector<size_t> roots;
        for (size_t s = 0; s < d.switches.size(); ++s) {
            if (d.switches[s].dfp_group_id != group || d.switches[s].defer_root) {
                continue;
            }
            bool covers = true;
            for (size_t leaf : job_leaves.at(group)) {
                covers = covers && Reaches(leaf, s);
            }
            if (covers) {
                roots.push_back(s);
            }
        }
        return roots;
    }

    // Whether the roots and the transit switches `chosen` join every job group.
    bool Joins(const std::map<size_t, size_t>& root_group, const std::vector<size_t>& chosen,
               size_t groups) const {
        std::set<size_t> members(chosen.begin(), chosen.end());
        for (const auto& [root, group] : root_group) {
            members.insert(root);
        }
        std::set<size_t> seen;
        for (size_t start : members) {
            if (seen.count(start) != 0) {
                continue;
            }
            std::set<size_t> covered;
            std::vector<size_t> stack{start};
            seen.insert(start);
            while (!stack.empty()) {
                const size_t s = stack.back();
                stack.pop_back();
                auto root = root_group.find(s);
                if (root != root_group.end()) {
                    covered.insert(root->second);
                }
                for (size_t next : global[s]) {
                    if (members.count(next) != 0 && seen.insert(next).second) {
                        stack.push_back(next);
                    }
                }
            }
            if (covered.size() == groups) {
                return true;
            }
        }
        return false;
    }

    // The fewest transit switches that join every job group, none when more than
    // `limit` would be needed (or a job group has no root).
    std::optional<size_t> FewestTransits(size_t limit) const {
        std::map<size_t, size_t> root_group;
        size_t group_index = 0;
        for (const auto& [group, leaves] : job_leaves) {
            const std::vector<size_t> roots = Roots(group);
            if (roots.empty()) {
                return std::nullopt;
            }
            for (size_t root : roots) {
                root_group[root] = group_index;
            }
            ++group_index;
        }
        std::vector<size_t> transits;
        for (size_t s = 0; s < d.switches.size(); ++s) {
            if (!global[s].empty() && root_group.count(s) == 0) {
                transits.push_back(s);
            }
        }
        for (size_t k = 0; k <= std::min(limit, transits.size()); ++k) {
            std::vector<bool> pick(transits.size(), false);
            std::fill(pick.begin(), pick.begin() + static_cast<long>(k), true);
            do {
                std::vector<size_t> chosen;
                for (size_t i = 0; i < transits.size(); ++i) {
                    if (pick[i]) {
                        chosen.push_back(transits[i]);
                    }
                }
                if (Joins(root_group, chosen, job_leaves.size())) {
                    return k;
                }
            } while (std::prev_permutation(pick.begin(), pick.end()));
        }
        return std::nullopt;
    }
};

void CheckAgainstBruteForce(DfpLevels levels) {
    RandomDfp random = GenerateRandomDfp(DfpWiring::kRandom, levels, 6);
    const std::vector<std::string> job = PickRandomJob(random);
    RC_LOG() << DescribeRandomDfp(random, job);
    const FabricDescription& description = random.sketch.Description();
    const Oracle oracle(description, job);
    if (oracle.job_leaves.size() < 2) {
        RC_SUCCEED("the job lies in one group");
    }
    const bool exists =
        oracle.FewestTransits(description.options.max_childless_islands).has_value();
    RC_CLASSIFY(exists, "a tree exists");

    InstalledFabric fabric(random.sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);
    JobRun run = RunJob(creator, fabric, job);
    RC_LOG() << log.Dump();
    RC_CLASSIFY(log.ContainsFragment(kLogLevelDebug, "DfpFallbackSearch found"), "by the fallback");
    RC_ASSERT((run.status == 0) == exists);
    if (run.status == 0) {
        RC_ASSERT(CheckTreeInvariants(run.info, fabric.fabric(), *run.ports, 64) == "");
    }
}

// The fallback search alone, on the job groups' roots as the brute force finds them: it
// finds a set exactly when one exists, with the fewest transit switches, and the set is
// connected over global links and holds a root of every job group.
void CheckFallbackAlone(DfpLevels levels) {
    RandomDfp random = GenerateRandomDfp(DfpWiring::kRandom, levels, 6);
    const std::vector<std::string> job = PickRandomJob(random);
    RC_LOG() << DescribeRandomDfp(random, job);
    const FabricDescription& description = random.sketch.Description();
    const Oracle oracle(description, job);
    const std::optional<size_t> fewest =
        oracle.FewestTransits(description.options.max_childless_islands);
    RC_CLASSIFY(fewest.has_value(), "a set exists");

    InstalledFabric fabric(random.sketch);
    DfpIslandMap islands;
    std::map<const AggNode*, uint16_t> root_island;
    for (const auto& [group, leaves] : oracle.job_leaves) {
        std::vector<std::string> roots;
        for (size_t root : oracle.Roots(group)) {
            roots.push_back(description.switches[root].name);
            root_island[fabric.Switch(roots.back())] = group;
        }
        AddDfpIsland(islands, fabric, group, roots);
    }
    OnDemandTreeCreator creator;
    AggNodeSet path_nodes;
    NodeSiblingsMap siblings;
    const AggNode* start = nullptr;
    const uint32_t status =
        creator.DfpFallbackSearch(islands, JobResource{}, path_nodes, siblings, start);

    RC_ASSERT((status == 0) == fewest.has_value());
    if (status != 0) {
        return;
    }
    std::set<uint16_t> entered;
    size_t transits = 0;
    for (const AggNode* node : path_nodes) {
        RC_ASSERT(siblings.count(node) != 0u);
        auto root = root_island.find(node);
        if (root != root_island.end()) {
            entered.insert(root->second);
        } else {
            ++transits;
        }
    }
    RC_ASSERT(entered.size() == oracle.job_leaves.size());
    RC_ASSERT(transits == *fewest);
    RC_ASSERT(path_nodes.count(start) != 0u);
    // Connected over the links between groups.
    AggNodeSet reached{start};
    std::vector<const AggNode*> stack{start};
    while (!stack.empty()) {
        const AggNode* node = stack.back();
        stack.pop_back();
        for (const AggNode* next : siblings.at(node)) {
            if (path_nodes.count(next) != 0 && reached.insert(next).second) {
                stack.push_back(next);
            }
        }
    }
    RC_ASSERT(reached.size() == path_nodes.size());
}

RC_GTEST_PROP(DfpFallbackProperty, FallbackAloneFindsTheFewestTransitSwitches, ()) {
    CheckFallbackAlone(*rc::gen::element(DfpLevels::kTwo, DfpLevels::kThreeGlobalOnSpines,
                                         DfpLevels::kThreeGlobalOnMiddles));
}

RC_GTEST_PROP(DfpFallbackProperty, TwoLevelGroupsAreServedExactlyWhenATreeExists, ()) {
    CheckAgainstBruteForce(DfpLevels::kTwo);
}

RC_GTEST_PROP(DfpFallbackProperty, ThreeLevelGroupsAreServedExactlyWhenATreeExists, ()) {
    CheckAgainstBruteForce(DfpLevels::kThreeGlobalOnSpines);
}

RC_GTEST_PROP(DfpFallbackProperty, MiddleSwitchGatewaysAreServedExactlyWhenATreeExists, ()) {
    CheckAgainstBruteForce(DfpLevels::kThreeGlobalOnMiddles);
}

}  // namespace
