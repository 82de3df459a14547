#include "support/random_dfp.h"

#include <rapidcheck.h>

namespace {

// A non-empty random part of `names` (all of them when `all` is set).
std::vector<std::string> SomeOf(const std::vector<std::string>& names, bool all) {
    std::vector<std::string> picked;
    for (const std::string& name : names) {
        if (all || *rc::gen::arbitrary<bool>()) {
            picked.push_back(name);
        }
    }
    if (picked.empty()) {
        picked.push_back(*rc::gen::elementOf(names));
    }
    return picked;
}

void AddGroupSwitch(RandomDfp& random, const std::string& name, int rank, uint16_t group,
                    bool defer_root) {
    random.sketch.DfpSwitch(name, rank, group, [defer_root](SwitchDescription& sw) {
        sw.topology_kind = 3;
        sw.defer_root = defer_root;
    });
}

// One group: spines, middle switches when three levels, leaves with one host each.
void AddGroup(RandomDfp& random, int g, DfpWiring wiring, DfpLevels levels) {
    const auto group = static_cast<uint16_t>(g + 1);
    const std::string prefix = "g" + std::to_string(group) + "-";
    const bool full_group = wiring == DfpWiring::kComplete;
    const int spine_rank = levels == DfpLevels::kTwo ? 1 : 2;
    std::vector<std::string> spines;
    const int n_spines = *rc::gen::inRange(1, 4);
    for (int s = 0; s < n_spines; ++s) {
        spines.push_back(prefix + "spine-" + std::to_string(s));
        AddGroupSwitch(random, spines.back(), spine_rank, group, false);
    }
    std::vector<std::string> gateways = spines;
    std::vector<std::string> leaf_uplinks = spines;
    if (levels != DfpLevels::kTwo) {
        std::vector<std::string> middles;
        const int n_middles = *rc::gen::inRange(1, 4);
        for (int m = 0; m < n_middles; ++m) {
            middles.push_back(prefix + "mid-" + std::to_string(m));
            AddGroupSwitch(random, middles.back(), 1, group, true);
            for (const std::string& spine : SomeOf(spines, full_group)) {
                random.sketch.Link(middles.back(), spine,
                                   static_cast<uint16_t>(*rc::gen::inRange(1, 3)));
            }
        }
        if (levels == DfpLevels::kThreeGlobalOnMiddles) {
            gateways.insert(gateways.end(), middles.begin(), middles.end());
        }
        leaf_uplinks = middles;
    }
    const int n_leaves = *rc::gen::inRange(1, 4);
    for (int l = 0; l < n_leaves; ++l) {
        const std::string leaf = prefix + "leaf-" + std::to_string(l);
        AddGroupSwitch(random, leaf, 0, group, true);
        const std::vector<std::string> uplinks =
            levels == DfpLevels::kTwo ? leaf_uplinks : SomeOf(leaf_uplinks, full_group);
        for (const std::string& upper : uplinks) {
            random.sketch.Link(leaf, upper, static_cast<uint16_t>(*rc::gen::inRange(1, 3)));
        }
        random.hosts.push_back("h-" + leaf);
        random.sketch.Host(random.hosts.back(), leaf);
    }
    random.spines.push_back(std::move(spines));
    random.gateways.push_back(std::move(gateways));
}

// Every group joined to an earlier one, every gateway with one global link, and a few
// more links at random.
void AddRandomGlobalLinks(RandomDfp& random, int n_groups) {
    auto other_group = [&](int g) {
        const int other = *rc::gen::inRange(0, n_groups - 1);
        return other >= g ? other + 1 : other;
    };
    auto any_gateway = [&](int g) {
        const std::vector<std::string>& gateways = random.gateways[static_cast<size_t>(g)];
        return gateways[static_cast<size_t>(*rc::gen::inRange<size_t>(0, gateways.size()))];
    };
    for (int g = 1; g < n_groups; ++g) {
        random.sketch.Link(any_gateway(g), any_gateway(*rc::gen::inRange(0, g)));
    }
    for (int g = 0; g < n_groups; ++g) {
        for (const std::string& gateway : random.gateways[static_cast<size_t>(g)]) {
            random.sketch.Link(gateway, any_gateway(other_group(g)));
        }
    }
    const int extra = *rc::gen::inRange(0, 2 * n_groups);
    for (int i = 0; i < extra; ++i) {
        const int g = *rc::gen::inRange(0, n_groups);
        random.sketch.Link(any_gateway(g), any_gateway(other_group(g)),
                           static_cast<uint16_t>(*rc::gen::inRange(1, 3)));
    }
}

}  // namespace

RandomDfp GenerateRandomDfp(DfpWiring wiring, DfpLevels levels, int max_groups) {
    RandomDfp random;
    const int n_groups = *rc::gen::inRange(2, max_groups + 1);
    random.sketch.Options(64, static_cast<uint8_t>(*rc::gen::inRange(0, 4)));
    for (int g = 0; g < n_groups; ++g) {
        AddGroup(random, g, wiring, levels);
    }
    if (wiring == DfpWiring::kComplete) {
        for (int a = 0; a < n_groups; ++a) {
            for (int b = a + 1; b < n_groups; ++b) {
                for (const std::string& spine_a : random.spines[static_cast<size_t>(a)]) {
                    for (const std::string& spine_b : random.spines[static_cast<size_t>(b)]) {
                        random.sketch.Link(spine_a, spine_b);
                    }
                }
            }
        }
    } else {
        AddRandomGlobalLinks(random, n_groups);
    }
    return random;
}

std::vector<std::string> PickRandomJob(const RandomDfp& random) {
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

std::string DescribeRandomDfp(const RandomDfp& random, const std::vector<std::string>& job) {
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
