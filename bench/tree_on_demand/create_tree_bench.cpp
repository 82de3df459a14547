// Cost of building one job's tree as fabrics and jobs grow: a 3-level fat tree with the
// job on every host, and a Dragonfly+ fabric with the job on one host per leaf.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "fabric_model/fabric.h"
#include "topology/generators.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

struct PreparedJob {
    std::unique_ptr<Fabric> fabric;
    std::vector<PortData> ports;
};

PreparedJob Prepare(const FabricDescription& description, size_t host_stride) {
    PreparedJob job;
    job.fabric = std::make_unique<Fabric>(description);
    for (size_t i = 0; i < job.fabric->Hosts().size(); i += host_stride) {
        const HostRecord& host = job.fabric->Hosts()[i];
        job.ports.push_back(PortData{host.guid, host.plane});
    }
    return job;
}

void RunCreateTree(benchmark::State& state, PreparedJob& job) {
    g_fabric = job.fabric.get();
    g_option_info = job.fabric->Options();
    JobPortSet ports;
    for (const PortData& port : job.ports) {
        ports.insert(&port);
    }
    OnDemandTreeCreator creator;
    JobResource resource;
    ZeltaExtJobId job_id;
    for (auto _ : state) {
        JobSubTreeInfo info;
        JobSubTreeScore score;
        int status = creator.CreateTree(ports, resource, job_id, info, score);
        if (status != 0) {
            state.SkipWithError("the tree could not be built");
            break;
        }
        benchmark::DoNotOptimize(info.tree_id);
    }
    state.counters["leaves"] = static_cast<double>(job.ports.size());
    g_fabric = nullptr;
}

void BM_CreateTreeFatTree3Level(benchmark::State& state) {
    aggtree::FatTreeParams params;
    params.levels = 3;
    params.radix = static_cast<int>(state.range(0));
    params.hosts_per_leaf = 1;
    PreparedJob job = Prepare(aggtree::GenerateFatTree(params), 1);
    RunCreateTree(state, job);
}
BENCHMARK(BM_CreateTreeFatTree3Level)->Arg(8)->Arg(16)->Arg(24)->Unit(benchmark::kMillisecond);

void BM_CreateTreeDragonflyPlus(benchmark::State& state) {
    aggtree::DragonflyPlusParams params;
    params.groups = static_cast<int>(state.range(0));
    params.leaves_per_group = 4;
    params.spines_per_group = 4;
    params.hosts_per_leaf = 1;
    params.global_links_per_spine = 2;
    PreparedJob job = Prepare(aggtree::GenerateDragonflyPlus(params), 1);
    RunCreateTree(state, job);
}
BENCHMARK(BM_CreateTreeDragonflyPlus)->Arg(4)->Arg(8)->Arg(16)->Unit(benchmark::kMillisecond);

}  // namespace
