// Cost of replaying a synthetic workload on a 128-host fat tree (16 leaves, 8 spines) as
// the trace grows: parsing excluded, one replay per iteration.  The load is kept light
// enough that most jobs run, so the figure is dominated by CreateTree, commit and release.
#include <benchmark/benchmark.h>

#include <string>

#include "fabric_model/fabric.h"
#include "simulation/trace.h"
#include "simulation/trace_generator.h"
#include "simulation/workload_replay.h"
#include "topology/generators.h"

namespace {

void BM_ReplayOn128Hosts(benchmark::State& state) {
    aggtree::FatTreeParams fat_tree;
    fat_tree.levels = 2;
    fat_tree.radix = 16;
    const FabricDescription description = aggtree::GenerateFatTree(fat_tree);
    aggtree::TraceGeneratorParams params;
    params.jobs = static_cast<uint64_t>(state.range(0));
    params.rate_per_hour = 120;
    params.duration_median = 300;
    const aggtree::Trace trace = aggtree::ParseJsonLinesTrace(
        aggtree::GenerateTraceJsonLines(params, description.hosts.size()), "bench");
    uint64_t served = 0;
    for (auto _ : state) {
        Fabric fabric(description);
        g_fabric = &fabric;
        g_option_info = fabric.Options();
        aggtree::ReplayOptions options;
        options.placement = aggtree::Placement::kRandom;
        aggtree::WorkloadReplay replay(fabric, options);
        served = replay.Run(trace).served;
        g_fabric = nullptr;
    }
    state.counters["served"] = static_cast<double>(served);
}
BENCHMARK(BM_ReplayOn128Hosts)->Arg(500)->Arg(1000)->Arg(2000)->Unit(benchmark::kMillisecond);

}  // namespace
