// Fabric generators: fat trees, Dragonfly+ fabrics and director-chassis fabrics of any
// size, as fabric files.
//
// Names: leaf-N, spine-N, core-N (fat trees), g<G>-leaf-N and g<G>-spine-N (Dragonfly+,
// dfp_group_id G), edge-N, c<C>-leaf-N and c<C>-spine-N (director chassis C), hosts
// node001, ...; on plane p > 0 every name ends in "-p<p>".
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

struct DirectorParams {
    int chassis = 3;                // director chassis, not linked to each other
    int leaf_cards = 27;            // leaf cards per chassis (rank 1)
    int spine_cards = 18;           // spine cards per chassis (rank 2), meshed with its leaf cards
    int edge_switches = 78;         // switches that carry the hosts (rank 0)
    int hosts_per_edge = 18;        // hosts on each edge switch
    int cables_per_chassis = 6;     // cables from each edge switch into each chassis
    int max_cards_per_chassis = 3;  // the most leaf cards those cables spread over
    uint32_t seed = 1;              // chooses the cards and the cables per card
};

// Director chassis with edge switches below them: each chassis a full mesh of its leaf and
// spine cards, every edge switch cabled into every chassis, its cables into one chassis
// spread over 1 .. max_cards_per_chassis of its leaf cards (chosen from the seed, the same
// on every machine).  Throws std::invalid_argument for bad sizes.
FabricDescription GenerateDirector(const DirectorParams& params);

}  // namespace aggtree
