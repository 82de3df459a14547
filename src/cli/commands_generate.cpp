// aggtree generate: fat trees, Dragonfly+ and director-chassis fabrics of any size, as
// fabric files.
#include <memory>
#include <stdexcept>
#include <string>

#include "cli/cli_support.h"
#include "cli/commands.h"
#include "topology/fabric_file.h"
#include "topology/generators.h"

namespace aggtree::cli {

namespace {

// Writes a generated fabric; a size the generator refuses is a usage problem.
template <typename Generate>
int WriteGenerated(const std::string& command, const std::string& output, Generate generate) {
    FabricDescription description;
    try {
        description = generate();
    } catch (const std::invalid_argument& error) {
        throw UsageError(command + ": " + error.what());
    }
    WriteOutput(output, WriteFabricJson(description));
    return kExitBuilt;
}

void AddFatTree(CLI::App& generate, int& exit_status) {
    struct Options {
        FatTreeParams params;
        std::string output;
    };
    auto options = std::make_shared<Options>();
    CLI::App* fat_tree =
        generate.add_subcommand("fat-tree", "A 2- or 3-level fat tree of radix-R switches");
    fat_tree->add_option("--levels", options->params.levels, "2 (leaves, spines) or 3 (and core)")
        ->type_name("N")
        ->required();
    fat_tree->add_option("--radix", options->params.radix, "Ports per switch")
        ->type_name("R")
        ->required();
    fat_tree
        ->add_option("--hosts-per-leaf", options->params.hosts_per_leaf,
                     "Hosts on each leaf (default radix/2)")
        ->type_name("H");
    fat_tree
        ->add_option("--parallel-links", options->params.parallel_links,
                     "Links between each connected pair of switches (default 1)")
        ->type_name("P");
    fat_tree
        ->add_option("--planes", options->params.planes,
                     "Independent copies of the fabric, one per plane (default 1)")
        ->type_name("N");
    fat_tree->add_option("-o,--output", options->output, "Output file (default: standard output)")
        ->type_name("FILE");
    fat_tree->callback([options, &exit_status] {
        exit_status = WriteGenerated("generate fat-tree", options->output,
                                     [&] { return GenerateFatTree(options->params); });
    });
}

void AddDragonflyPlus(CLI::App& generate, int& exit_status) {
    struct Options {
        DragonflyPlusParams params;
        std::string output;
    };
    auto options = std::make_shared<Options>();
    CLI::App* dfp = generate.add_subcommand(
        "dragonfly-plus",
        "A Dragonfly+ fabric: groups of leaves and spines joined by global links");
    dfp->add_option("--groups", options->params.groups, "Number of groups")
        ->type_name("G")
        ->required();
    dfp->add_option("--leaves-per-group", options->params.leaves_per_group, "Leaves per group")
        ->type_name("L")
        ->required();
    dfp->add_option("--spines-per-group", options->params.spines_per_group, "Spines per group")
        ->type_name("S")
        ->required();
    dfp->add_option("--hosts-per-leaf", options->params.hosts_per_leaf, "Hosts on each leaf")
        ->type_name("H")
        ->required();
    dfp->add_option("--global-links-per-spine", options->params.global_links_per_spine,
                    "Links from each spine to spines of other groups")
        ->type_name("K")
        ->required();
    dfp->add_option("--wiring", options->params.wiring,
                    "How global links are laid: consecutive (default), palmtree or random")
        ->type_name("WIRING")
        ->check(CLI::IsMember({"consecutive", "palmtree", "random"}));
    dfp->add_option("--seed", options->params.seed, "Seed of the random wiring (default 1)")
        ->type_name("S");
    dfp->add_option("-o,--output", options->output, "Output file (default: standard output)")
        ->type_name("FILE");
    dfp->callback([options, &exit_status] {
        exit_status = WriteGenerated("generate dragonfly-plus", options->output,
                                     [&] { return GenerateDragonflyPlus(options->params); });
    });
}

void AddDirector(CLI::App& generate, int& exit_status) {
    struct Options {
        DirectorParams params;
        std::string output;
    };
    auto options = std::make_shared<Options>();
    DirectorParams& params = options->params;
    CLI::App* director = generate.add_subcommand(
        "director", "Director chassis (meshed leaf and spine cards) above edge switches");
    director->add_option("--chassis", params.chassis, "Number of chassis (default 3)")
        ->type_name("N");
    director->add_option("--leaf-cards", params.leaf_cards, "Leaf cards per chassis (default 27)")
        ->type_name("L");
    director
        ->add_option("--spine-cards", params.spine_cards, "Spine cards per chassis (default 18)")
        ->type_name("S");
    director
        ->add_option("--edge-switches", params.edge_switches,
                     "Edge switches, which carry the hosts (default 78)")
        ->type_name("E");
    director
        ->add_option("--hosts-per-edge", params.hosts_per_edge,
                     "Hosts on each edge switch (default 18)")
        ->type_name("H");
    director
        ->add_option("--cables-per-chassis", params.cables_per_chassis,
                     "Cables from each edge switch into each chassis (default 6)")
        ->type_name("C");
    director
        ->add_option("--max-cards-per-chassis", params.max_cards_per_chassis,
                     "The most leaf cards those cables spread over (default 3)")
        ->type_name("M");
    director->add_option("--seed", params.seed, "Seed of the cabling (default 1)")->type_name("S");
    director->add_option("-o,--output", options->output, "Output file (default: standard output)")
        ->type_name("FILE");
    director->callback([options, &exit_status] {
        exit_status = WriteGenerated("generate director", options->output,
                                     [&] { return GenerateDirector(options->params); });
    });
}

}  // namespace

void AddGenerateCommand(CLI::App& app, int& exit_status) {
    CLI::App* generate = app.add_subcommand(
        "generate", "Write a generated fabric file (fat tree, Dragonfly+ or director)");
    generate->require_subcommand(1);
    AddFatTree(*generate, exit_status);
    AddDragonflyPlus(*generate, exit_status);
    AddDirector(*generate, exit_status);
}

}  // namespace aggtree::cli
