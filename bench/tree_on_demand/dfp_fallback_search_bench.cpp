// Cost of the Dragonfly+ fallback search on large fabrics.
//
// BM_DfpFallbackSearch: G groups of 16 spines, K global links per spine (random wiring),
// a job on J groups whose roots are all their spines (as the sweep finds them when every
// leaf is under every spine), and a limit of L transit switches.  Arguments: G, K, J, L.
//
// BM_DfpFallbackSearchWorstCase: the most work the search can be given.  Two job groups
// a and b joined by N chains of four transit switches each (a - t - u - v - w - b), with
// a limit of 3: every candidate lies within reach, a set exists (with 4), so no size up
// to 3 can be skipped, and sum_{k<=3} C(4N, k) transit sets are tried, up to the cap.
//
// The counters say whether a set was found and how many switches it holds.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/fabric_description.h"
#include "topology/generators.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

void BM_DfpFallbackSearch(benchmark::State& state) {
    aggtree::DragonflyPlusParams params;
    params.groups = static_cast<int>(state.range(0));
    params.leaves_per_group = 1;
    params.spines_per_group = 16;
    params.hosts_per_leaf = 1;
    params.global_links_per_spine = static_cast<int>(state.range(1));
    params.wiring = "random";
    Fabric fabric(aggtree::GenerateDragonflyPlus(params));
    g_fabric = &fabric;
    g_option_info = fabric.Options();
    g_option_info.max_childless_islands = static_cast<uint8_t>(state.range(3));

    // Job groups spread over the fabric: every (G / J)-th group.
    const int job_groups = static_cast<int>(state.range(2));
    DfpIslandMap islands;
    for (const AggNodeFabricInfo& sw : fabric.Switches()) {
        const uint16_t group = GetAggNodeIslandId(&sw);
        if (sw.rank != 1 || group % (params.groups / job_groups) != 1) {
            continue;
        }
        std::unique_ptr<DfpIslandInfo>& island = islands[group];
        if (!island) {
            island = std::make_unique<DfpIslandInfo>();
            island->island_id = group;
        }
        island->island_roots.insert(&sw);
    }

    OnDemandTreeCreator creator;
    uint32_t status = 1;
    size_t chosen = 0;
    for (auto _ : state) {
        AggNodeSet path_nodes;
        NodeSiblingsMap siblings;
        const AggNode* start = nullptr;
        status = creator.DfpFallbackSearch(islands, JobResource{}, path_nodes, siblings, start);
        chosen = path_nodes.size();
        benchmark::DoNotOptimize(start);
    }
    state.counters["found"] = status == 0 ? 1 : 0;
    state.counters["switches"] = static_cast<double>(chosen);
    g_fabric = nullptr;
}
BENCHMARK(BM_DfpFallbackSearch)
    ->Args({64, 16, 8, 1})
    ->Args({64, 16, 8, 2})
    ->Args({64, 16, 8, 3})
    ->Args({64, 16, 32, 1})
    ->Args({64, 32, 8, 2})
    ->Args({128, 16, 16, 2})
    ->Args({128, 16, 16, 3})
    ->Args({64, 2, 8, 1})
    ->Args({64, 2, 8, 2})
    ->Args({64, 2, 8, 3})
    ->Args({64, 2, 8, 4})
    ->Args({64, 2, 16, 3})
    ->Args({64, 4, 16, 2})
    ->Args({64, 4, 16, 3})
    ->Unit(benchmark::kMillisecond);

void BM_DfpFallbackSearchWorstCase(benchmark::State& state) {
    const int chains = static_cast<int>(state.range(0));
    FabricDescription description;
    auto add_switch = [&](const std::string& name, uint16_t group) {
        SwitchDescription sw;
        sw.guid = 0x1000 + description.switches.size();
        sw.name = name;
        sw.rank = 1;
        sw.topology_kind = 3;
        sw.dfp_group_id = group;
        description.switches.push_back(sw);
        return description.switches.size() - 1;
    };
    auto link = [&](size_t a, size_t b) {
        LinkDescription l;
        l.a = a;
        l.b = b;
        description.links.push_back(l);
    };
    const size_t a = add_switch("a", 1);
    const size_t b = add_switch("b", 2);
    uint16_t group = 10;
    for (int i = 0; i < chains; ++i) {
        size_t previous = a;
        for (const char* stage : {"t", "u", "v", "w"}) {
            const size_t next = add_switch(stage + std::to_string(i), group++);
            link(previous, next);
            previous = next;
        }
        link(previous, b);
    }
    description.options.max_childless_islands = 3;
    Fabric fabric(description);
    g_fabric = &fabric;
    g_option_info = fabric.Options();
    DfpIslandMap islands;
    for (uint16_t id : {1, 2}) {
        islands[id] = std::make_unique<DfpIslandInfo>();
        islands[id]->island_id = id;
        islands[id]->island_roots.insert(&fabric.Switches()[id - 1]);
    }
    OnDemandTreeCreator creator;
    uint32_t status = 1;
    for (auto _ : state) {
        AggNodeSet path_nodes;
        NodeSiblingsMap siblings;
        const AggNode* start = nullptr;
        status = creator.DfpFallbackSearch(islands, JobResource{}, path_nodes, siblings, start);
        benchmark::DoNotOptimize(start);
    }
    state.counters["found"] = status == 0 ? 1 : 0;
    state.counters["candidates"] = 4.0 * chains;
    g_fabric = nullptr;
}
BENCHMARK(BM_DfpFallbackSearchWorstCase)
    ->Arg(10)
    ->Arg(25)
    ->Arg(50)
    ->Arg(100)
    ->Unit(benchmark::kMillisecond);

}  // namespace
