// aggtree trace: a synthetic workload for a fabric, as a JSON-lines trace that
// `aggtree simulate` replays.
#include <memory>
#include <stdexcept>
#include <string>

#include "cli/cli_support.h"
#include "cli/commands.h"
#include "simulation/trace_generator.h"

namespace aggtree::cli {

namespace {

struct TraceOptions {
    FabricSource fabric;
    TraceGeneratorParams params;
    std::string sizes = "powers-of-two";
    std::string output;
};

int RunTrace(TraceOptions& options) {
    if (!ParseSizeDistribution(options.sizes, options.params.sizes, options.params.fixed_size)) {
        throw UsageError("--sizes: bad value '" + options.sizes +
                         "': expected powers-of-two, log-uniform or a number of hosts");
    }
    std::vector<std::string> warnings;
    FabricDescription description = LoadFabricDescription(options.fabric, warnings);
    std::string text;
    try {
        text = GenerateTraceJsonLines(options.params, description.hosts.size());
    } catch (const std::invalid_argument& error) {
        throw UsageError(std::string("trace: ") + error.what());
    }
    WriteOutput(options.output, text);
    return kExitBuilt;
}

}  // namespace

void AddTraceCommand(CLI::App& app, int& exit_status) {
    auto options = std::make_shared<TraceOptions>();
    TraceGeneratorParams& params = options->params;
    CLI::App* trace = app.add_subcommand(
        "trace",
        "Write a synthetic workload for a fabric as a JSON-lines trace: Poisson arrivals, "
        "job sizes from a distribution, log-normal run times");
    trace->add_option("--fabric", options->fabric.path, "Fabric file (JSON) or ibnetdiscover dump")
        ->type_name("FILE")
        ->required();
    AddIbnetdiscoverOptions(trace, options->fabric);
    trace->add_option("--jobs", params.jobs, "Number of jobs (default 1000)")->type_name("N");
    trace->add_option("--rate", params.rate_per_hour, "Mean arrivals per hour (default 60)")
        ->type_name("PER_HOUR");
    trace
        ->add_option("--sizes", options->sizes,
                     "Job sizes in hosts: powers-of-two (default), log-uniform, or a fixed number")
        ->type_name("DIST");
    trace->add_option("--min-size", params.min_size, "Smallest job in hosts (default 1)")
        ->type_name("N");
    trace
        ->add_option("--max-size", params.max_size,
                     "Largest job in hosts (default a quarter of the fabric's hosts)")
        ->type_name("N");
    trace
        ->add_option("--duration-median", params.duration_median,
                     "Median run time in seconds (default 3600)")
        ->type_name("SECONDS");
    trace
        ->add_option("--duration-sigma", params.duration_sigma,
                     "Spread of run times: sigma of their natural logarithm (default 1)")
        ->type_name("SIGMA");
    trace->add_option("--seed", params.seed, "Seed (default 1)")->type_name("S");
    trace->add_option("--first-job", params.first_job, "Number of the first job (default 1)")
        ->type_name("N");
    trace->add_option("-o,--output", options->output, "Output file (default: standard output)")
        ->type_name("FILE");
    trace->callback([options, &exit_status] { exit_status = RunTrace(*options); });
}

}  // namespace aggtree::cli
