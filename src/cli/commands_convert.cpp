// aggtree convert: the fabric file an import (or a fabric file) amounts to.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cli/cli_support.h"
#include "cli/commands.h"
#include "topology/fabric_file.h"

namespace aggtree::cli {

namespace {

struct ConvertOptions {
    FabricSource fabric;
    std::string output;
};

int RunConvert(const ConvertOptions& options) {
    std::vector<std::string> warnings;
    FabricDescription description = LoadFabricDescription(options.fabric, warnings);
    for (const std::string& warning : warnings) {
        std::fprintf(stderr, "aggtree: warning: %s: %s\n", options.fabric.path.c_str(),
                     warning.c_str());
    }
    // Refuse what build would refuse, so a converted file is always usable.
    MakeFabric(description, options.fabric.path);
    WriteOutput(options.output, WriteFabricJson(description));
    return kExitBuilt;
}

}  // namespace

void AddConvertCommand(CLI::App& app, int& exit_status) {
    auto options = std::make_shared<ConvertOptions>();
    CLI::App* convert = app.add_subcommand(
        "convert", "Write the fabric file of an ibnetdiscover dump (or of a fabric file)");
    convert->add_option("input", options->fabric.path, "ibnetdiscover dump or fabric file")
        ->type_name("INPUT")
        ->required();
    AddIbnetdiscoverOptions(convert, options->fabric);
    convert->add_option("-o,--output", options->output, "Output file (default: standard output)")
        ->type_name("FILE");
    convert->callback([options, &exit_status] { exit_status = RunConvert(*options); });
}

}  // namespace aggtree::cli
