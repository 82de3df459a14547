// Properties of whole requests on random Dragonfly+ fabrics: a tree that is returned is
// a proper tree for the job whose every edge is a real link (an up-link inside a group,
// a global link between groups), and a job whose groups' spines are all linked to one
// another is always served.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <vector>

#include "fabric_model/tree_node.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/tree_invariants.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

enum class Wiring { kRandom, kComplete };

struct RandomDfp {
    FabricSketch sketch;
    std::vector<std::vector<std::string>> spines;  // by group index
    std::vector<std::string> hosts;
};

// Groups marked as the fabric note recommends: kind 3 throughout, leaves defer the root.
RandomDfp Generate(Wiring wiring) {
    RandomDfp random;
    const int n_groups = *rc::gen::inRange(2, 17);
    random.sketch.Options(64, static_cast<uint8_t>(*rc::gen::inRange(0, 4)));
    for (int g = 0; g < n_groups; ++g) {
        const auto group = static_cast<uint16_t>(g + 1);
        const std::string prefix = "g" + std::to_string(group) + "-";
        std::vector<std::string> spines;
        const int n_spines = *rc::gen::inRange(1, 4);
        for (int s = 0; s < n_spines; ++s) {
            spines.push_back(prefix + "spine-" + std::to_string(s));
            random.sketch.DfpSwitch(spines.back(), 1, group,
                                    [](SwitchDescription& sw) { sw.topology_kind = 3; });
        }
        const int n_leaves = *rc::gen::inRange(1, 4);
        for (int l = 0; l < n_leaves; ++l) {
            const std::string leaf = prefix + "leaf-" + std::to_string(l);
            random.sketch.DfpSwitch(leaf, 0, group, [](SwitchDescription& sw) {
                sw.topology_kind = 3;
                sw.defer_root = true;
            });
            for (const std::string& spine : spines) {
                random.sketch.Link(leaf, spine, static_cast<uint16_t>(*rc::gen::inRange(1, 3)));
            }
            random.hosts.push_back("h-" + leaf);
            random.sketch.Host(random.hosts.back(), leaf);
        }
        random.spines.push_back(std::move(spines));
    }

    auto any_spine = [&](int g) {
        const std::vector<std::string>& spines = random.spines[static_cast<size_t>(g)];
        return spines[static_cast<size_t>(*rc::gen::inRange<size_t>(0, spines.size()))];
    };
    auto other_group = [&](int g) {
        const int other = *rc::gen::inRange(0, n_groups - 1);
        return other >= g ? other + 1 : other;
    };

    if (wiring == Wiring::kComplete) {
        for (int a = 0; a < n_groups; ++a) {
            for (int b = a + 1; b < n_groups; ++b) {
                for (const std::string& spine_a : random.spines[static_cast<size_t>(a)]) {
                    for (const std::string& spine_b : random.spines[static_cast<size_t>(b)]) {
                        random.sketch.Link(spine_a, spine_b);
                    }
                }
            }
        }
        return random;
    }

    // Every group joined to an earlier one, every spine with a global link, and a few
    // more links at random.
    for (int g = 1; g < n_groups; ++g) {
        random.sketch.Link(any_spine(g), any_spine(*rc::gen::inRange(0, g)));
    }
    for (int g = 0; g < n_groups; ++g) {
        for (const std::string& spine : random.spines[static_cast<size_t>(g)]) {
            random.sketch.Link(spine, any_spine(other_group(g)));
        }
    }
    const int extra = *rc::gen::inRange(0, 2 * n_groups);
    for (int i = 0; i < extra; ++i) {
        const int g = *rc::gen::inRange(0, n_groups);
        random.sketch.Link(any_spine(g), any_spine(other_group(g)),
                           static_cast<uint16_t>(*rc::gen::inRange(1, 3)));
    }
    return random;
}

std::vector<std::string> PickJobHosts(const RandomDfp& random) {
    std::vector<std::string> job;
    for (const std::string& host : random.hosts) {
        if (*rc::gen::arbitrary<bool>()) {
            job.push_back(host);
        }
    }
    if (job.empty()) {
        job.push_back(*rc::gen::elementOf(random.hosts));
    }
    return job;
}

// The fabric and the job in a few lines, printed when a property fails.
std::string Describe(const RandomDfp& random, const std::vector<std::string>& job) {
    const FabricDescription& d = random.sketch.Description();
    std::string text =
        "max_childless_islands=" + std::to_string(d.options.max_childless_islands) + "\nlinks:";
    for (const LinkDescription& link : d.links) {
        text += " " + d.switches[link.a].name + "-" + d.switches[link.b].name + "x" +
                std::to_string(link.count);
    }
    text += "\njob:";
    for (const std::string& host : job) {
        text += " " + host;
    }
    return text + "\n";
}

bool HasUpLink(const AggNodeFabricInfo* child, const AggNodeFabricInfo* parent) {
    return child->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).count(parent) != 0;
}

bool HasGlobalLink(const AggNodeFabricInfo* a, const AggNodeFabricInfo* b) {
    for (const AggPath& link : a->sibling_links) {
        if (link.remote_node == b) {
            return true;
        }
    }
    return false;
}

// Checks the tree of a successful run; the text of the first broken property, or "".
std::string CheckDfpTree(const JobRun& run, InstalledFabric& fabric, uint16_t max_children) {
    std::string broken = CheckTreeInvariants(run.info, fabric.fabric(), *run.ports, max_children);
    if (!broken.empty()) {
        return broken;
    }
    for (const TreeNode* node : run.info.tree_nodes) {
        const TreeNode* parent = node->GetParent();
        if (parent == nullptr) {
            continue;
        }
        const AggNodeFabricInfo* child_switch = node->agg_node;
        const AggNodeFabricInfo* parent_switch = parent->agg_node;
        if (GetAggNodeIslandId(child_switch) == GetAggNodeIslandId(parent_switch)) {
            if (!HasUpLink(child_switch, parent_switch)) {
                return "edge " + parent_switch->name + " -> " + child_switch->name +
                       " follows no up-link";
            }
        } else if (!HasGlobalLink(child_switch, parent_switch)) {
            return "root edge " + parent_switch->name + " -> " + child_switch->name +
                   " follows no global link";
        }
    }
    return "";
}

RC_GTEST_PROP(DfpProperty, ReturnedTreesAreProperAndFollowRealLinks, ()) {
    RandomDfp random = Generate(Wiring::kRandom);
    const std::vector<std::string> job = PickJobHosts(random);
    RC_LOG() << Describe(random, job);
    InstalledFabric fabric(random.sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);
    JobRun run = RunJob(creator, fabric, job);
    RC_LOG() << log.Dump();
    RC_CLASSIFY(run.status == 0, "served");
    if (run.status == 0) {
        const std::string broken = CheckDfpTree(run, fabric, 64);
        RC_ASSERT(broken == "");
    } else {
        // A job that is turned down says why.
        RC_ASSERT(!run.info.error_text.empty());
        std::vector<std::string> reasons = log.Messages(kLogLevelWarning);
        RC_TAG(reasons.empty() ? std::string("no warning") : reasons.front());
        RC_ASSERT(log.Messages(kLogLevelError).size() + log.Messages(kLogLevelWarning).size() > 0u);
    }
}

RC_GTEST_PROP(DfpProperty, GroupsWhoseSpinesAreAllLinkedAreAlwaysServed, ()) {
    RandomDfp random = Generate(Wiring::kComplete);
    const std::vector<std::string> job = PickJobHosts(random);
    RC_LOG() << Describe(random, job);
    InstalledFabric fabric(random.sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelError);
    JobRun run = RunJob(creator, fabric, job);
    RC_ASSERT(run.status == 0);
    const std::string broken = CheckDfpTree(run, fabric, 64);
    RC_ASSERT(broken == "");
}

}  // namespace
