// aggtree demo: two small fabrics built in, one job on each, both trees drawn.
#include <iostream>
#include <memory>
#include <string>

#include "cli/cli_support.h"
#include "cli/commands.h"
#include "cli/demo_fabrics.h"
#include "cli/job_sources.h"
#include "cli/tree_render.h"
#include "cli/tree_run.h"

namespace aggtree::cli {

namespace {

// Builds and shows the demo job on one demo fabric; true when the tree was built.
bool ShowDemo(const DemoFabric& demo, uint64_t job_number) {
    std::unique_ptr<Fabric> fabric = MakeFabric(demo.description, "demo fabric");
    InstalledFabricScope installed(*fabric);
    std::vector<std::string> hosts = DemoJobHosts(*fabric);
    std::string host_list;
    for (const std::string& host : hosts) {
        host_list += (host_list.empty() ? "" : ",") + host;
    }
    std::cout << "== " << demo.title << " ==\n";
    std::cout << "   " << fabric->Switches().size() << " switches, " << fabric->Hosts().size()
              << " hosts; the same fabric: aggtree " << demo.generate_args << "\n";
    std::cout << "   job demo_" << job_number << " on hosts " << host_list << "\n\n";
    TreeRun run;
    JobSource source;
    source.hosts = host_list;
    source.has_hosts = true;
    source.job_id = "demo_" + std::to_string(job_number);
    run.job = MakeJob(source, *fabric);
    RunTreeBuilder(run);
    std::cout << RenderTextResult(run.status, run.job.job_id, run.info, run.score, *fabric) << "\n";
    return run.status == 0;
}

int RunDemo() {
    std::cout << "aggtree demo: an aggregation tree for a job on each of two small fabrics.\n\n";
    bool built = ShowDemo(DemoFatTree(), 1);
    built = ShowDemo(DemoDragonflyPlus(), 2) && built;
    std::cout << "The same on your own fabric: write a fabric file "
                 "(aggtree generate fat-tree --levels 2 --radix 8 -o fabric.json, or aggtree "
                 "convert my-fabric.ibnetdiscover -o fabric.json), check it with aggtree info "
                 "fabric.json, then aggtree build --fabric fabric.json --hosts node001,node002 "
                 "(see docs/tool.md).\n";
    std::cout.flush();
    return built ? kExitBuilt : kExitNotServed;
}

}  // namespace

void AddDemoCommand(CLI::App& app, int& exit_status) {
    CLI::App* demo = app.add_subcommand(
        "demo", "Build and draw a tree on a small built-in fat tree and Dragonfly+ fabric");
    demo->callback([&exit_status] { exit_status = RunDemo(); });
}

}  // namespace aggtree::cli
