// Fabric generators: fat trees and Dragonfly+ fabrics of any size, as fabric files.
//
// Names: leaf-N, spine-N, core-N (fat trees), g<G>-leaf-N and g<G>-spine-N (Dragonfly+,
// dfp_group_id G), hosts node001, ...; on plane p > 0 every name ends in "-p<p>".
// GUIDs: switches 0x5100000000 + (plane << 24) + n, hosts 0x4800000000 + (plane << 24)
// + n, n from 1 in file order.  Every switch has an explicit rank (leaves 0).
// (Wiring patterns: see generators.cpp.)
#pragma once

#include <cstdint>
#include <string>

#include "fabric_model/fabric_description.h"

namespace aggtree {

struct FatTreeParams {
    int levels = 2;           // 2 (leaves, spines) or 3 (leaves, aggregation, core)
    int radix = 8;            // ports per switch
    int hosts_per_leaf = -1;  // -1: radix / 2
    int parallel_links = 1;   // links between each connected pair of switches
    int planes = 1;           // independent copies of the fabric, one per plane
};

// A fat tree; throws std::invalid_argument (with a message for the user) for bad sizes.
FabricDescription GenerateFatTree(const FatTreeParams& params);

struct DragonflyPlusParams {
    int groups = 4;
    int leaves_per_group = 2;
    int spines_per_group = 2;
    int hosts_per_leaf = 2;
    int global_links_per_spine = 1;
    std::string wiring = "consecutive";  // "consecutive", "palmtree" or "random"
    uint32_t seed = 1;                   // for "random"
};

// A Dragonfly+ fabric (leaves and spines of each group marked as group switches);
// throws std::invalid_argument for bad sizes.
FabricDescription GenerateDragonflyPlus(const DragonflyPlusParams& params);

}  // namespace aggtree
