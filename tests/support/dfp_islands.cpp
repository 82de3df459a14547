#include "support/dfp_islands.h"

#include <memory>
#include <utility>

// Builds the island record and stores it under `id`, replacing any earlier one.
DfpIslandInfo& AddDfpIsland(DfpIslandMap& islands, InstalledFabric& fabric, uint16_t id,
                            const std::vector<std::string>& roots, uint16_t outbound_links) {
    auto info = std::make_unique<DfpIslandInfo>();
    info->island_id = id;
    info->outbound_links = outbound_links;
    for (const std::string& root : roots) {
        info->island_roots.insert(fabric.Switch(root));
    }
    DfpIslandInfo& ref = *info;
    islands[id] = std::move(info);
    return ref;
}
