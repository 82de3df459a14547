// aggtree build: one job's tree on one fabric, as text, JSON or a drawing.
#include <cstdio>
#include <memory>
#include <string>

#include "cli/cli_support.h"
#include "cli/commands.h"
#include "cli/graphviz.h"
#include "cli/job_sources.h"
#include "cli/log_setup.h"
#include "cli/tree_render.h"
#include "cli/tree_run.h"

namespace aggtree::cli {

namespace {

struct BuildOptions {
    FabricSource fabric;
    JobSource job;
    bool json = false;
    bool no_dfp_fallback = false;
    std::string dot_file;
    std::string svg_file;
    std::string png_file;
    LogSettings log;
};

// Graph files go out only for a built tree; a failed build says so instead.
void WriteGraphs(const BuildOptions& options, const TreeRun& run, const Fabric& fabric) {
    if (options.dot_file.empty() && options.svg_file.empty() && options.png_file.empty()) {
        return;
    }
    if (run.status != 0) {
        std::fprintf(stderr, "aggtree: no tree was built: graph files not written\n");
        return;
    }
    std::string dot = RenderDot(run.job.job_id, run.info, fabric);
    if (!options.dot_file.empty()) {
        WriteOutput(options.dot_file, dot);
    }
    if (!options.svg_file.empty()) {
        RenderWithDot(dot, "svg", options.svg_file);
    }
    if (!options.png_file.empty()) {
        RenderWithDot(dot, "png", options.png_file);
    }
}

int RunBuild(const BuildOptions& options) {
    // Checked before anything is built: a drawing that cannot be made is a usage problem.
    const std::string dot_missing =
        ": Graphviz 'dot' is not on PATH (install graphviz, or write the graph with --dot FILE "
        "and render it elsewhere)";
    if (!options.svg_file.empty() && !HasGraphvizDot()) {
        throw UsageError("--svg" + dot_missing);
    }
    if (!options.png_file.empty() && !HasGraphvizDot()) {
        throw UsageError("--png" + dot_missing);
    }
    LogSession log(options.log);
    std::vector<std::string> warnings;
    FabricDescription description = LoadFabricDescription(options.fabric, warnings);
    for (const std::string& warning : warnings) {
        log.Warn(options.fabric.path + ": " + warning);
    }
    if (options.no_dfp_fallback) {
        description.options.dfp_fallback_search = false;
    }
    std::unique_ptr<Fabric> fabric = MakeFabric(description, options.fabric.path);
    InstalledFabricScope installed(*fabric);
    TreeRun run;
    run.job = MakeJob(options.job, *fabric);
    RunTreeBuilder(run);
    WriteGraphs(options, run, *fabric);
    const RequestFailure& failure = run.creator.LastInternalFailure();
    if (options.json) {
        nlohmann::ordered_json result =
            ResultToJson(run.status, run.job.job_id, run.info, run.score);
        if (failure.kind != InternalFailure::kNone) {
            result["internal_error"] = failure.text;
        }
        WriteOutput(
            "",
            result.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
    } else if (failure.kind == InternalFailure::kNone) {
        WriteOutput("", RenderTextResult(run.status, run.job.job_id, run.info, run.score, *fabric));
    }
    if (failure.kind != InternalFailure::kNone) {
        // Not a refusal: a scheduler's script must not take it for one.
        std::fflush(stdout);
        std::fprintf(stderr, "aggtree: job %s: %s\n", run.job.job_id.ToString().c_str(),
                     failure.text.c_str());
        return kExitInternal;
    }
    return run.status == 0 ? kExitBuilt : kExitNotServed;
}

}  // namespace

void AddBuildCommand(CLI::App& app, int& exit_status) {
    auto options = std::make_shared<BuildOptions>();
    CLI::App* build = app.add_subcommand(
        "build",
        "Build one job's aggregation tree on a fabric and show it (exit 0 built, 1 the job "
        "cannot be served, 2 bad input, 3 internal failure)");
    build->add_option("--fabric", options->fabric.path, "Fabric file (JSON) or ibnetdiscover dump")
        ->type_name("FILE")
        ->required();
    AddIbnetdiscoverOptions(build, options->fabric);
    CLI::Option* job =
        build->add_option("--job", options->job.job_file, "Job file (JSON)")->type_name("FILE");
    CLI::Option* hosts = build
                             ->add_option("--hosts", options->job.hosts,
                                          "The job's hosts, comma-separated names or GUIDs")
                             ->type_name("LIST");
    CLI::Option* hosts_from = build
                                  ->add_option("--hosts-from", options->job.hosts_file,
                                               "File with one host per line ('#' comments)")
                                  ->type_name("FILE");
    CLI::Option* random_hosts = build
                                    ->add_option("--random-hosts", options->job.random_hosts,
                                                 "A job of N hosts drawn from the fabric")
                                    ->type_name("N");
    build->add_option("--seed", options->job.seed, "Seed of --random-hosts (default 1)")
        ->type_name("S");
    build
        ->add_option("--job-id", options->job.job_id,
                     "Job id PREFIX_NUMBER (e.g. slurm_4242); default: the job file's, or "
                     "default_0")
        ->type_name("PREFIX_NUMBER");
    build->add_flag("--json", options->json, "Print the result as one JSON object");
    build->add_flag("--no-dfp-fallback", options->no_dfp_fallback,
                    "Dragonfly+: keep to the path search alone, without the fallback search "
                    "when it finds no path (as the fabric option dfp_fallback_search: false)");
    build->add_option("--dot", options->dot_file, "Write the tree as a Graphviz dot file")
        ->type_name("FILE");
    build->add_option("--svg", options->svg_file, "Render the tree to SVG (needs Graphviz dot)")
        ->type_name("FILE");
    build->add_option("--png", options->png_file, "Render the tree to PNG (needs Graphviz dot)")
        ->type_name("FILE");
    build
        ->add_option("--log-level", options->log.levels,
                     "Log level of a module, repeatable: TREES=5, FABRIC=4 or all=4 (default 2)")
        ->type_name("MODULE=LEVEL");
    build
        ->add_option("--log-format", options->log.format,
                     "text (default) or jsonl: one JSON object per message")
        ->type_name("FORMAT");
    build
        ->add_option("--log-file", options->log.file,
                     "Write the log to this file instead of standard error")
        ->type_name("PATH");
    build->callback([options, job, hosts, hosts_from, random_hosts, &exit_status] {
        options->job.has_job_file = job->count() > 0;
        options->job.has_hosts = hosts->count() > 0;
        options->job.has_hosts_file = hosts_from->count() > 0;
        options->job.has_random_hosts = random_hosts->count() > 0;
        exit_status = RunBuild(*options);
    });
}

}  // namespace aggtree::cli
