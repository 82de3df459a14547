// aggtree info: what a fabric holds, as the builder will see it.
#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli/cli_support.h"
#include "cli/commands.h"

namespace aggtree::cli {

namespace {

using Json = nlohmann::ordered_json;

struct InfoOptions {
    FabricSource fabric;
    bool json = false;
};

struct FabricSummary {
    std::map<uint16_t, std::map<int, size_t>> by_island_rank;  // island -> rank -> switches
    std::set<int> ranks;
    std::set<size_t> host_switches;
    std::set<unsigned> host_planes;
    std::set<unsigned> link_planes;
    size_t cables = 0;
    size_t parallel_pairs = 0;
    unsigned max_parallel = 0;
    size_t cables_between_islands = 0;
    size_t equal_rank_cables = 0;
    std::vector<std::pair<std::string, std::vector<std::string>>> unavailable;
};

FabricSummary Summarize(const FabricDescription& fabric) {
    FabricSummary summary;
    for (const SwitchDescription& sw : fabric.switches) {
        int rank = sw.rank.value_or(-1);
        ++summary.by_island_rank[GetSwitchDescriptionIslandId(sw)][rank];
        summary.ranks.insert(rank);
        std::vector<std::string> reasons;
        if (!sw.valid) {
            reasons.push_back("invalid");
        }
        if (sw.excluded) {
            reasons.push_back("excluded");
        }
        if (sw.mode == 1) {
            reasons.push_back("mode 1");
        }
        if (!reasons.empty()) {
            summary.unavailable.emplace_back(sw.name, std::move(reasons));
        }
    }
    for (const HostDescription& host : fabric.hosts) {
        summary.host_switches.insert(host.switch_index);
        summary.host_planes.insert(host.plane);
    }
    for (const LinkDescription& link : fabric.links) {
        summary.cables += link.count;
        summary.link_planes.insert(link.plane);
        if (link.count > 1) {
            ++summary.parallel_pairs;
        }
        summary.max_parallel = std::max<unsigned>(summary.max_parallel, link.count);
        if (link.a >= fabric.switches.size() || link.b >= fabric.switches.size()) {
            continue;
        }
        const SwitchDescription& a = fabric.switches[link.a];
        const SwitchDescription& b = fabric.switches[link.b];
        if (GetSwitchDescriptionIslandId(a) != GetSwitchDescriptionIslandId(b)) {
            summary.cables_between_islands += link.count;
        } else if (a.rank == b.rank) {
            summary.equal_rank_cables += link.count;
        }
    }
    return summary;
}

std::string Count(size_t count, const std::string& one, const std::string& many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string IslandName(uint16_t island) {
    return island == kNoIslandId ? "(no group)" : "group " + std::to_string(island);
}

std::string JoinNumbers(const std::set<unsigned>& numbers) {
    std::string text;
    for (unsigned n : numbers) {
        text += (text.empty() ? "" : ", ") + std::to_string(n);
    }
    return text.empty() ? "none" : text;
}

std::string RenderText(const std::string& path, const FabricDescription& fabric,
                       const FabricSummary& s, const std::vector<std::string>& warnings) {
    std::ostringstream out;
    out << "Fabric " << path << "\n";
    out << "  " << Count(fabric.switches.size(), "switch", "switches") << " in "
        << Count(s.by_island_rank.size(), "island", "islands") << "\n";
    out << "  " << Count(fabric.hosts.size(), "host", "hosts") << " on "
        << Count(s.host_switches.size(), "switch", "switches") << ", "
        << (s.host_planes.size() == 1 ? "plane " : "planes ") << JoinNumbers(s.host_planes) << "\n";
    out << "  " << Count(fabric.links.size(), "switch pair", "switch pairs") << " linked by "
        << Count(s.cables, "cable", "cables");
    if (s.parallel_pairs > 0) {
        out << "; " << Count(s.parallel_pairs, "pair", "pairs") << " with parallel cables (up to "
            << s.max_parallel << ")";
    }
    out << "\n";
    if (s.cables_between_islands > 0) {
        out << "  " << Count(s.cables_between_islands, "cable", "cables") << " between islands\n";
    }
    if (s.equal_rank_cables > 0) {
        out << "  " << Count(s.equal_rank_cables, "cable", "cables")
            << " between switches of equal rank (no up or down path)\n";
    }
    out << "  tree ids 0.." << fabric.max_tree_id << "; max_tree_children "
        << fabric.options.max_tree_children << ", max_childless_islands "
        << unsigned{fabric.options.max_childless_islands}
        << (fabric.options.dfp_fallback_search ? "" : ", Dragonfly+ fallback search off") << "\n\n";

    out << "Switches by island and rank:\n  " << std::left << std::setw(12) << "island";
    for (int rank : s.ranks) {
        out << std::right << std::setw(8) << ("rank " + std::to_string(rank));
    }
    out << std::right << std::setw(8) << "total"
        << "\n";
    for (const auto& [island, ranks] : s.by_island_rank) {
        size_t total = 0;
        out << "  " << std::left << std::setw(12) << IslandName(island);
        for (int rank : s.ranks) {
            auto found = ranks.find(rank);
            size_t count = found == ranks.end() ? 0 : found->second;
            total += count;
            out << std::right << std::setw(8) << count;
        }
        out << std::right << std::setw(8) << total << "\n";
    }
    out << "\nSwitches that serve no job:";
    if (s.unavailable.empty()) {
        out << " none\n";
    } else {
        out << "\n";
        for (const auto& [name, reasons] : s.unavailable) {
            out << "  " << name << " (";
            for (size_t i = 0; i < reasons.size(); ++i) {
                out << (i ? ", " : "") << reasons[i];
            }
            out << ")\n";
        }
    }
    out << "Warnings:" << (warnings.empty() ? " none\n" : "\n");
    for (const std::string& warning : warnings) {
        out << "  " << warning << "\n";
    }
    return out.str();
}

Json RenderJson(const std::string& path, const FabricDescription& fabric, const FabricSummary& s,
                const std::vector<std::string>& warnings) {
    Json info;
    info["fabric"] = path;
    info["switches"] = fabric.switches.size();
    Json ranks = Json::object();
    for (const auto& [island, by_rank] : s.by_island_rank) {
        for (const auto& [rank, count] : by_rank) {
            std::string key = std::to_string(rank);
            ranks[key] = ranks.value(key, size_t{0}) + count;
        }
    }
    info["switches_by_rank"] = ranks;
    Json islands = Json::array();
    for (const auto& [island, by_rank] : s.by_island_rank) {
        Json entry;
        entry["island"] = island == kNoIslandId ? Json(nullptr) : Json(island);
        size_t total = 0;
        Json island_ranks = Json::object();
        for (const auto& [rank, count] : by_rank) {
            island_ranks[std::to_string(rank)] = count;
            total += count;
        }
        entry["switches"] = total;
        entry["switches_by_rank"] = island_ranks;
        islands.push_back(entry);
    }
    info["islands"] = islands;
    info["hosts"] = fabric.hosts.size();
    info["host_switches"] = s.host_switches.size();
    info["host_planes"] = s.host_planes;
    info["links"] = fabric.links.size();
    info["cables"] = s.cables;
    info["links_with_parallel_cables"] = s.parallel_pairs;
    info["max_parallel_cables"] = s.max_parallel;
    info["link_planes"] = s.link_planes;
    info["cables_between_islands"] = s.cables_between_islands;
    info["equal_rank_cables"] = s.equal_rank_cables;
    info["max_tree_id"] = fabric.max_tree_id;
    info["options"] = {{"max_tree_children", fabric.options.max_tree_children},
                       {"max_childless_islands", fabric.options.max_childless_islands}};
    if (!fabric.options.dfp_fallback_search) {
        info["options"]["dfp_fallback_search"] = false;
    }
    Json unavailable = Json::array();
    for (const auto& [name, reasons] : s.unavailable) {
        unavailable.push_back({{"switch", name}, {"reasons", reasons}});
    }
    info["switches_serving_no_job"] = unavailable;
    info["warnings"] = warnings;
    return info;
}

int RunInfo(const InfoOptions& options) {
    std::vector<std::string> warnings;
    FabricDescription description = LoadFabricDescription(options.fabric, warnings);
    MakeFabric(description, options.fabric.path);  // the same checks as build
    FabricSummary summary = Summarize(description);
    if (options.json) {
        WriteOutput("",
                    RenderJson(options.fabric.path, description, summary, warnings)
                            .dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) +
                        "\n");
    } else {
        WriteOutput("", RenderText(options.fabric.path, description, summary, warnings));
    }
    return kExitBuilt;
}

}  // namespace

void AddInfoCommand(CLI::App& app, int& exit_status) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App* info = app.add_subcommand(
        "info", "Show what a fabric holds: switches by island and rank, hosts, links, warnings");
    info->add_option("fabric", options->fabric.path, "Fabric file or ibnetdiscover dump")
        ->type_name("FABRIC")
        ->required();
    AddIbnetdiscoverOptions(info, options->fabric);
    info->add_flag("--json", options->json, "Print the summary as one JSON object");
    info->callback([options, &exit_status] { exit_status = RunInfo(*options); });
}

}  // namespace aggtree::cli
