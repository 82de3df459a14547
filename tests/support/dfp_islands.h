// Dragonfly+ job islands made by hand, for tests that skip the sweep that finds them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "tree_on_demand/dfp_records.h"

// Puts island `id` into `islands` with the switches of `fabric` named `roots` as its roots
// and `outbound_links` as its link count; returns the new island.
DfpIslandInfo& AddDfpIsland(DfpIslandMap& islands, InstalledFabric& fabric, uint16_t id,
                            const std::vector<std::string>& roots, uint16_t outbound_links = 0);
