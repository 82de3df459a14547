// aggtree simulate: replays a workload trace against one fabric model and one tree
// creator, and summarises how the fabric coped.
#include <memory>
#include <string>

#include "cli/cli_support.h"
#include "cli/commands.h"
#include "cli/log_setup.h"
#include "cli/replay_plot.h"
#include "cli/replay_report.h"
#include "simulation/host_pool.h"
#include "simulation/trace.h"
#include "simulation/workload_replay.h"

namespace aggtree::cli {

namespace {

struct SimulateOptions {
    FabricSource fabric;
    std::string trace;
    std::string placement = "compact";
    uint32_t seed = 1;
    uint64_t procs_per_host = 1;
    bool events = false;
    bool json = false;
    std::string plot_file;
    LogSettings log;
    bool log_given = false;
};

int RunSimulate(const SimulateOptions& options) {
    ReplayOptions replay_options;
    if (!ParsePlacement(options.placement, replay_options.placement)) {
        throw UsageError("--placement: bad value '" + options.placement +
                         "': expected compact, linear or random");
    }
    if (options.procs_per_host == 0) {
        throw UsageError("--procs-per-host: must be 1 or more");
    }
    // Checked before anything runs: a plot that cannot be drawn is a usage problem.
    if (!options.plot_file.empty() && !HasGnuplot()) {
        throw UsageError("--plot: gnuplot is not on PATH (install gnuplot-nox)");
    }
    replay_options.seed = options.seed;
    replay_options.forward_log = options.log_given;

    LogSession log(options.log);
    std::vector<std::string> warnings;
    FabricDescription description = LoadFabricDescription(options.fabric, warnings);
    for (const std::string& warning : warnings) {
        log.Warn(options.fabric.path + ": " + warning);
    }
    TraceReadOptions read_options;
    read_options.procs_per_host = options.procs_per_host;
    RequireNotADirectory(options.trace);
    const Trace trace = LoadTrace(options.trace, read_options);

    std::unique_ptr<Fabric> fabric = MakeFabric(description, options.fabric.path);
    InstalledFabricScope installed(*fabric);
    WorkloadReplay replay(*fabric, replay_options);
    ReplayEventSink on_event;
    if (options.events) {
        on_event = [&](const ReplayEvent& event) {
            WriteOutput("", options.json ? EventToJson(event, *fabric).dump() + "\n"
                                         : RenderEventText(event, *fabric));
        };
    }
    const ReplaySummary summary = replay.Run(trace, on_event);

    const ReplayInputs inputs{options.fabric.path, options.trace, trace.format,
                              PlacementName(replay_options.placement)};
    if (options.json) {
        // With the events, every line is one JSON object; alone, the summary is indented.
        nlohmann::ordered_json json = SummaryToJson(summary, inputs);
        WriteOutput("", (options.events ? json.dump() : json.dump(2)) + "\n");
    } else {
        WriteOutput("", (options.events ? "\n" : "") + RenderSummaryText(summary, inputs));
    }
    if (!options.plot_file.empty()) {
        PlotReplay(replay.Timeline(), summary, "aggtree simulate: " + options.trace,
                   options.plot_file);
    }
    return kExitBuilt;
}

}  // namespace

void AddSimulateCommand(CLI::App& app, int& exit_status) {
    auto options = std::make_shared<SimulateOptions>();
    CLI::App* simulate = app.add_subcommand(
        "simulate",
        "Replay a workload trace (JSON lines or SWF) on a fabric: which jobs get a tree, why "
        "the others do not, how the trees spread (exit 0 replayed, 2 bad input)");
    simulate
        ->add_option("--fabric", options->fabric.path, "Fabric file (JSON) or ibnetdiscover dump")
        ->type_name("FILE")
        ->required();
    AddIbnetdiscoverOptions(simulate, options->fabric);
    simulate
        ->add_option("--trace", options->trace,
                     "Trace: JSON lines ({\"t\":0,\"op\":\"start\",\"job\":7,\"count\":8}, ...) "
                     "or the Standard Workload Format (.swf), recognised by content")
        ->type_name("FILE")
        ->required();
    simulate
        ->add_option("--placement", options->placement,
                     "Hosts of jobs given as a count: compact (fewest leaf switches, the "
                     "default), linear (lowest names) or random")
        ->type_name("POLICY");
    simulate->add_option("--seed", options->seed, "Seed of random placements (default 1)")
        ->type_name("S");
    simulate
        ->add_option("--procs-per-host", options->procs_per_host,
                     "SWF traces: processors per host (default 1)")
        ->type_name("N");
    simulate->add_flag("--events", options->events, "Print one line per event before the summary");
    simulate->add_flag("--json", options->json,
                       "Print the summary as one JSON object (events, with --events, as JSON "
                       "lines before it)");
    simulate
        ->add_option("--plot", options->plot_file,
                     "Draw trees and jobs over time and the per-switch load into a PNG file "
                     "(needs gnuplot)")
        ->type_name("FILE.png");
    CLI::Option* level =
        simulate
            ->add_option("--log-level", options->log.levels,
                         "Show the builder's log, per module, repeatable: TREES=5, FABRIC=4 or "
                         "all=4 (by default it is not shown; the summary counts refusals)")
            ->type_name("MODULE=LEVEL");
    simulate
        ->add_option("--log-format", options->log.format,
                     "text (default) or jsonl: one JSON object per message")
        ->type_name("FORMAT");
    CLI::Option* file =
        simulate
            ->add_option("--log-file", options->log.file,
                         "Write the builder's log (level 2 unless --log-level) to this file")
            ->type_name("PATH");
    simulate->callback([options, level, file, &exit_status] {
        options->log_given = level->count() > 0 || file->count() > 0;
        exit_status = RunSimulate(*options);
    });
}

}  // namespace aggtree::cli
