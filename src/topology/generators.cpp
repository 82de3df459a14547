// Generated fabrics.
//
// Names and GUIDs:
// - Fat trees: leaf-N, spine-N (the second level) and core-N (the third), N from 1;
//   hosts node001, node002, ... (more digits when there are more than 999).  On a fabric
//   of several planes every plane is its own copy; the copies of plane p > 0 carry the
//   suffix "-p<p>" on every switch and host name (leaf-1-p1, node001-p1).
// - Dragonfly+: g<G>-leaf-<N> and g<G>-spine-<N>, G and N from 1, group G has
//   dfp_group_id G; hosts node001, ... numbered across the whole fabric.
// - Switch GUIDs are 0x5100000000 + (plane << 24) + n, host GUIDs 0x4800000000 +
//   (plane << 24) + n, n counting from 1 in file order within the plane.
//
// Dragonfly+ global links: each group has spines * global_links_per_spine global ports.
// The links between groups form a circulant pattern: full rounds in which every group is
// linked once to every other group, then, for the remainder, links to the nearest groups
// (offsets +-1, +-2, ...; offset groups/2 when an odd remainder needs it).  The wiring
// decides which spine of a group takes which of the group's global links:
// - "consecutive": the group's links ordered by the offset of the far group (i+1, i+2,
//   ..., round by round), handed out to the spines in order, global_links_per_spine each;
// - "palmtree": ordered the other way round (i-1, i-2, ...), so that port k of group i
//   leads towards group i-k-1;
// - "random": the group's links shuffled (std::mt19937 seeded with `seed`) before they
//   are handed out.
// Links that end on the same two spines are one link description with a count.
// Marking (docs/dragonfly-plus.md): every group switch has topology kind 3; leaves, and
// spines left without global links, are defer_root.
//
// Director fabrics: switches in the order edge-1 .. edge-E, then chassis by chassis its
// leaf cards c<C>-leaf-N and spine cards c<C>-spine-N; hosts node001, ... on the edge
// switches in order.  Links: every edge switch's cables, chassis by chassis and card by
// card, then each chassis's leaf-spine mesh (one cable per pair).  The cables of edge
// switch e into chassis c are laid by a SplitMix64 stream of their own, seeded from
// (seed, e, c): it draws how many cards (1 .. max), which cards (a partial Fisher-Yates
// draw), then one card for each cable beyond the first per card.  Bounded draws are the
// generator's output modulo the bound, never a standard library distribution, so the
// fabric is the same with every compiler; changing the number of edge switches or
// chassis leaves the cabling of the others as it was.
#include "topology/generators.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>

#include "topology/input_error.h"
#include "topology/input_limits.h"
#include "topology/topology_internal.h"

namespace aggtree {

namespace {

constexpr uint64_t kSwitchGuidBase = 0x5100000000ULL;
constexpr uint64_t kHostGuidBase = 0x4800000000ULL;
constexpr size_t kMaxNodesPerPlane = (size_t{1} << 24) - 1;

[[noreturn]] void Refuse(const std::string& what) {
    throw std::invalid_argument(what);
}

// What a generated fabric would hold, checked against the loaders' limits before it is
// made, so that every fabric the generators write can be read back.
struct GeneratedSize {
    uint64_t switches = 0;
    uint64_t hosts = 0;
    uint64_t cables = 0;
    uint64_t ports_per_switch = 0;  // of the busiest switch
    uint64_t islands = 0;
};

void RefuseBeyondLimits(const GeneratedSize& size) {
    auto refuse = [](uint64_t count, const std::string& what, uint64_t limit) {
        Refuse("the fabric would have " + std::to_string(count) + " " + what +
               "; aggtree accepts at most " + std::to_string(limit));
    };
    if (size.switches > kMaxSwitches) {
        refuse(size.switches, "switches", kMaxSwitches);
    }
    if (size.hosts > kMaxHostPorts) {
        refuse(size.hosts, "host ports", kMaxHostPorts);
    }
    if (size.cables > kMaxCables) {
        refuse(size.cables, "cables between switches", kMaxCables);
    }
    if (size.ports_per_switch > kMaxPortsPerSwitch) {
        refuse(size.ports_per_switch, "ports on one switch", kMaxPortsPerSwitch);
    }
    if (size.islands > kMaxIslands) {
        refuse(size.islands, "Dragonfly+ groups", kMaxIslands);
    }
}

std::string HostName(size_t number, size_t total) {
    std::string digits = std::to_string(number);
    size_t width = std::max<size_t>(3, std::to_string(total).size());
    return "node" + std::string(width - std::min(width, digits.size()), '0') + digits;
}

// SplitMix64 (Steele, Lea and Flood): tiny, fixed, and the same output everywhere.
class SplitMix64 {
public:
    explicit SplitMix64(uint64_t state) : m_state(state) {}

    uint64_t Next() {
        uint64_t z = (m_state += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }

    // A draw from 0 .. bound-1; the modulo bias is below 2^-40 for the bounds used here.
    size_t Below(size_t bound) { return static_cast<size_t>(Next() % bound); }

private:
    uint64_t m_state;
};

uint64_t Mix(uint64_t value) {
    return SplitMix64(value).Next();
}

class Builder {
public:
    explicit Builder(FabricDescription& description, uint8_t plane, bool planes_enabled)
        : m_description(description), m_plane(plane), m_planes_enabled(planes_enabled) {}

    std::string Suffix() const { return m_plane == 0 ? "" : "-p" + std::to_string(m_plane); }

    size_t AddSwitch(const std::string& name, int rank) {
        SwitchDescription sw;
        sw.guid = kSwitchGuidBase + (uint64_t{m_plane} << 24) + ++m_switch_count;
        sw.name = name + Suffix();
        sw.rank = rank;
        sw.plane = m_plane;
        sw.plane_known = m_planes_enabled;
        sw.plane_enabled = m_planes_enabled;
        m_description.switches.push_back(std::move(sw));
        return m_description.switches.size() - 1;
    }

    void AddLink(size_t a, size_t b, int count) {
        auto key = std::minmax(a, b);
        auto [it, inserted] = m_links.emplace(key, m_description.links.size());
        if (!inserted) {
            m_description.links[it->second].count =
                static_cast<uint16_t>(m_description.links[it->second].count + count);
            return;
        }
        LinkDescription link;
        link.a = a;
        link.b = b;
        link.count = static_cast<uint16_t>(count);
        link.plane = m_plane;
        m_description.links.push_back(link);
    }

    void AddHost(size_t switch_index, size_t total_hosts) {
        HostDescription host;
        ++m_host_count;
        host.guid = kHostGuidBase + (uint64_t{m_plane} << 24) + m_host_count;
        host.name = HostName(m_host_count, total_hosts) + Suffix();
        host.plane = m_plane;
        host.switch_index = switch_index;
        m_description.hosts.push_back(std::move(host));
    }

private:
    FabricDescription& m_description;
    uint8_t m_plane;
    bool m_planes_enabled;
    uint64_t m_switch_count = 0;
    uint64_t m_host_count = 0;
    std::map<std::pair<size_t, size_t>, size_t> m_links;
};

}  // namespace

FabricDescription GenerateFatTree(const FatTreeParams& params) {
    if (params.levels != 2 && params.levels != 3) {
        Refuse("a fat tree has 2 or 3 levels, not " + std::to_string(params.levels));
    }
    if (params.radix < 2 || params.radix % 2 != 0 || params.radix > 256) {
        Refuse("the radix must be an even number from 2 to 256, not " +
               std::to_string(params.radix));
    }
    const int half = params.radix / 2;
    if (params.parallel_links < 1 || half % params.parallel_links != 0) {
        Refuse("parallel links must be at least 1 and divide the " + std::to_string(half) +
               " up-ports of a leaf (radix " + std::to_string(params.radix) + "), not " +
               std::to_string(params.parallel_links));
    }
    const int hosts_per_leaf = params.hosts_per_leaf == -1 ? half : params.hosts_per_leaf;
    if (hosts_per_leaf < 0 || hosts_per_leaf > half) {
        Refuse("a leaf of radix " + std::to_string(params.radix) + " takes from 0 to " +
               std::to_string(half) + " hosts, not " + std::to_string(params.hosts_per_leaf));
    }
    if (params.planes < 1 || params.planes > 256) {
        Refuse("the number of planes must be from 1 to 256, not " + std::to_string(params.planes));
    }
    const int p = params.parallel_links;
    // Distinct up-neighbours of a leaf (and of an aggregation switch).
    const size_t fan = static_cast<size_t>(half / p);
    size_t leaves;
    size_t spines;
    size_t cores = 0;
    if (params.levels == 2) {
        spines = fan;
        leaves = static_cast<size_t>(params.radix / p);
    } else {
        const size_t pods = static_cast<size_t>(params.radix / p);
        leaves = pods * fan;
        spines = pods * fan;
        cores = fan * fan;
    }
    const size_t hosts = leaves * static_cast<size_t>(hosts_per_leaf);
    const uint64_t planes = static_cast<uint64_t>(params.planes);
    GeneratedSize size;
    size.switches = (leaves + spines + cores) * planes;
    size.hosts = hosts * planes;
    size.cables = (params.levels == 2 ? leaves * spines : 2 * leaves * fan) *
                  static_cast<uint64_t>(p) * planes;
    size.ports_per_switch = static_cast<uint64_t>(params.radix);
    RefuseBeyondLimits(size);
    if (leaves + spines + cores > kMaxNodesPerPlane || hosts > kMaxNodesPerPlane) {
        Refuse("the fat tree would be too large");
    }

    FabricDescription description;
    for (int plane = 0; plane < params.planes; ++plane) {
        Builder builder(description, static_cast<uint8_t>(plane), params.planes > 1);
        const size_t first_leaf = description.switches.size();
        for (size_t i = 0; i < leaves; ++i) {
            builder.AddSwitch("leaf-" + std::to_string(i + 1), 0);
        }
        const size_t first_spine = description.switches.size();
        for (size_t i = 0; i < spines; ++i) {
            builder.AddSwitch("spine-" + std::to_string(i + 1), 1);
        }
        const size_t first_core = description.switches.size();
        for (size_t i = 0; i < cores; ++i) {
            builder.AddSwitch("core-" + std::to_string(i + 1), 2);
        }
        if (params.levels == 2) {
            for (size_t l = 0; l < leaves; ++l) {
                for (size_t s = 0; s < spines; ++s) {
                    builder.AddLink(first_leaf + l, first_spine + s, p);
                }
            }
        } else {
            // Pod k: leaves and aggregation switches k*fan .. k*fan+fan-1; aggregation
            // switch a of a pod goes up to cores a*fan .. a*fan+fan-1.
            const size_t pods = leaves / fan;
            for (size_t pod = 0; pod < pods; ++pod) {
                for (size_t l = 0; l < fan; ++l) {
                    for (size_t a = 0; a < fan; ++a) {
                        builder.AddLink(first_leaf + pod * fan + l, first_spine + pod * fan + a, p);
                    }
                }
                for (size_t a = 0; a < fan; ++a) {
                    for (size_t c = 0; c < fan; ++c) {
                        builder.AddLink(first_spine + pod * fan + a, first_core + a * fan + c, p);
                    }
                }
            }
        }
        for (size_t l = 0; l < leaves; ++l) {
            for (int h = 0; h < hosts_per_leaf; ++h) {
                builder.AddHost(first_leaf + l, hosts);
            }
        }
    }
    return description;
}

FabricDescription GenerateDragonflyPlus(const DragonflyPlusParams& params) {
    if (params.groups < 1 || params.groups > 65534) {
        Refuse("the number of groups must be from 1 to 65534, not " +
               std::to_string(params.groups));
    }
    if (params.leaves_per_group < 1 || params.spines_per_group < 1) {
        Refuse("a group needs at least one leaf and one spine");
    }
    if (params.hosts_per_leaf < 0) {
        Refuse("hosts per leaf cannot be negative");
    }
    if (params.global_links_per_spine < 0) {
        Refuse("global links per spine cannot be negative");
    }
    if (params.wiring != "consecutive" && params.wiring != "palmtree" &&
        params.wiring != "random") {
        Refuse("unknown wiring \"" + params.wiring +
               "\" (expected consecutive, palmtree or random)");
    }
    const size_t groups = static_cast<size_t>(params.groups);
    const size_t leaves = static_cast<size_t>(params.leaves_per_group);
    const size_t spines = static_cast<size_t>(params.spines_per_group);
    const size_t per_spine = static_cast<size_t>(params.global_links_per_spine);
    const size_t ports = spines * per_spine;  // global ports of a group
    GeneratedSize size;
    size.islands = groups;
    size.switches = groups * (leaves + spines);
    RefuseBeyondLimits(size);  // bounds the products below
    size.hosts = groups * leaves * static_cast<uint64_t>(params.hosts_per_leaf);
    size.cables = groups * leaves * spines + groups * spines * per_spine / 2;
    size.ports_per_switch = std::max<uint64_t>(
        spines + static_cast<uint64_t>(params.hosts_per_leaf), leaves + per_spine);
    RefuseBeyondLimits(size);
    if (groups * (leaves + spines) > kMaxNodesPerPlane ||
        groups * leaves * static_cast<size_t>(params.hosts_per_leaf) > kMaxNodesPerPlane ||
        ports > 65535) {
        Refuse("the Dragonfly+ fabric would be too large");
    }
    if (per_spine > 0 && groups == 1) {
        Refuse("a single group has no other group to take its global links");
    }
    if (per_spine > (groups - 1) * spines && per_spine > 0) {
        Refuse(std::to_string(per_spine) + " global links per spine are more than the other " +
               std::to_string(groups - 1) + " groups can take (at most " +
               std::to_string((groups - 1) * spines) + ", one per spine of another group)");
    }
    if ((groups * ports) % 2 != 0) {
        Refuse("the global links cannot be paired up: " + std::to_string(groups) + " groups of " +
               std::to_string(spines) + " spines with " + std::to_string(per_spine) +
               " global links each make an odd number of link ends");
    }

    FabricDescription description;
    Builder builder(description, 0, false);
    const size_t hosts = groups * leaves * static_cast<size_t>(params.hosts_per_leaf);
    std::vector<size_t> first_spine(groups);
    for (size_t g = 0; g < groups; ++g) {
        const std::string prefix = "g" + std::to_string(g + 1) + "-";
        const size_t first_leaf = description.switches.size();
        for (size_t l = 0; l < leaves; ++l) {
            size_t index = builder.AddSwitch(prefix + "leaf-" + std::to_string(l + 1), 0);
            description.switches[index].topology_kind = 3;
            description.switches[index].dfp_group_id = static_cast<uint16_t>(g + 1);
        }
        first_spine[g] = description.switches.size();
        for (size_t s = 0; s < spines; ++s) {
            size_t index = builder.AddSwitch(prefix + "spine-" + std::to_string(s + 1), 1);
            description.switches[index].topology_kind = 3;
            description.switches[index].dfp_group_id = static_cast<uint16_t>(g + 1);
        }
        for (size_t l = 0; l < leaves; ++l) {
            for (size_t s = 0; s < spines; ++s) {
                builder.AddLink(first_leaf + l, first_spine[g] + s, 1);
            }
        }
    }
    // Hosts after all switches, numbered group by group.
    for (size_t g = 0; g < groups; ++g) {
        const size_t first_leaf = first_spine[g] - leaves;
        for (size_t l = 0; l < leaves; ++l) {
            for (int h = 0; h < params.hosts_per_leaf; ++h) {
                builder.AddHost(first_leaf + l, hosts);
            }
        }
    }

    // Links between groups: offsets of a circulant, each group's ends in offset order.
    // A link (g, g + offset) appears in the list of g with offset `offset` and in the list
    // of g + offset with offset groups - offset.
    struct GlobalEnd {
        size_t round;
        size_t offset;  // of the far group, 1 .. groups-1
        size_t link;
    };
    std::vector<std::vector<GlobalEnd>> ends(groups);
    std::vector<std::pair<size_t, size_t>> group_links;  // (group, far group)
    if (ports > 0) {
        const size_t full_rounds = ports / (groups - 1);
        const size_t remainder = ports % (groups - 1);
        auto add_offset = [&](size_t round, size_t offset) {
            const bool self_paired = 2 * offset == groups;
            for (size_t g = 0; g < groups; ++g) {
                if (self_paired && g >= groups / 2) {
                    break;
                }
                size_t far = (g + offset) % groups;
                size_t link = group_links.size();
                group_links.emplace_back(g, far);
                ends[g].push_back({round, offset, link});
                ends[far].push_back({round, groups - offset, link});
            }
        };
        for (size_t round = 0; round < full_rounds; ++round) {
            for (size_t offset = 1; 2 * offset <= groups; ++offset) {
                add_offset(round, offset);
            }
        }
        size_t pending = remainder;
        if (pending % 2 == 1) {
            add_offset(full_rounds, groups / 2);
            --pending;
        }
        for (size_t offset = 1; pending > 0; ++offset) {
            add_offset(full_rounds, offset);
            pending -= 2;
        }
    }
    std::mt19937 random(params.seed);
    std::vector<std::pair<size_t, size_t>> link_spines(group_links.size(), {SIZE_MAX, SIZE_MAX});
    for (size_t g = 0; g < groups; ++g) {
        std::vector<GlobalEnd>& list = ends[g];
        if (params.wiring == "palmtree") {
            std::stable_sort(list.begin(), list.end(), [](const GlobalEnd& x, const GlobalEnd& y) {
                return x.round != y.round ? x.round < y.round : x.offset > y.offset;
            });
        } else {
            std::stable_sort(list.begin(), list.end(), [](const GlobalEnd& x, const GlobalEnd& y) {
                return x.round != y.round ? x.round < y.round : x.offset < y.offset;
            });
            if (params.wiring == "random") {
                std::shuffle(list.begin(), list.end(), random);
            }
        }
        for (size_t k = 0; k < list.size(); ++k) {
            size_t spine = first_spine[g] + k / per_spine;
            auto& slot = link_spines[list[k].link];
            (group_links[list[k].link].first == g ? slot.first : slot.second) = spine;
        }
    }
    for (const auto& [a, b] : link_spines) {
        builder.AddLink(a, b, 1);
    }
    internal::MarkDragonflyPlusDeferRoots(description);
    return description;
}

namespace {

void CheckDirectorParams(const DirectorParams& params) {
    auto at_least = [](int value, int least, const std::string& what) {
        if (value < least) {
            Refuse(what + " must be at least " + std::to_string(least) + ", not " +
                   std::to_string(value));
        }
    };
    at_least(params.chassis, 1, "the number of chassis");
    at_least(params.leaf_cards, 1, "leaf cards per chassis");
    at_least(params.spine_cards, 1, "spine cards per chassis");
    at_least(params.edge_switches, 1, "the number of edge switches");
    at_least(params.hosts_per_edge, 0, "hosts per edge switch");
    at_least(params.cables_per_chassis, 1, "cables per edge switch into each chassis");
    at_least(params.max_cards_per_chassis, 1, "the most leaf cards per chassis");
    if (params.cables_per_chassis > 65535) {
        Refuse("cables per edge switch into each chassis must be at most 65535, not " +
               std::to_string(params.cables_per_chassis));
    }
    if (params.max_cards_per_chassis > params.leaf_cards) {
        Refuse("the cables of an edge switch cannot spread over " +
               std::to_string(params.max_cards_per_chassis) + " leaf cards: a chassis has " +
               std::to_string(params.leaf_cards));
    }
    if (params.max_cards_per_chassis > params.cables_per_chassis) {
        Refuse(std::to_string(params.cables_per_chassis) +
               " cables per edge switch into each chassis cannot spread over " +
               std::to_string(params.max_cards_per_chassis) + " leaf cards");
    }
    const size_t chassis = static_cast<size_t>(params.chassis);
    const size_t leaves = static_cast<size_t>(params.leaf_cards);
    const size_t spines = static_cast<size_t>(params.spine_cards);
    const size_t edges = static_cast<size_t>(params.edge_switches);
    const size_t cards = static_cast<size_t>(params.max_cards_per_chassis);
    GeneratedSize size;
    size.switches = edges + chassis * (leaves + spines);
    RefuseBeyondLimits(size);  // bounds the products below
    size.hosts = edges * static_cast<uint64_t>(params.hosts_per_edge);
    size.cables = chassis * leaves * spines +
                  edges * chassis * static_cast<uint64_t>(params.cables_per_chassis);
    // An edge switch's ports; a leaf card's depend on the cabling (checked when made).
    size.ports_per_switch = static_cast<uint64_t>(params.hosts_per_edge) +
                            chassis * static_cast<uint64_t>(params.cables_per_chassis);
    RefuseBeyondLimits(size);
    if (edges + chassis * (leaves + spines) > kMaxNodesPerPlane ||
        edges * static_cast<size_t>(params.hosts_per_edge) > kMaxNodesPerPlane ||
        chassis * leaves * spines + edges * chassis * cards > kMaxNodesPerPlane) {
        Refuse("the director fabric would be too large");
    }
}

// How the cables of one edge switch into one chassis are laid: (card, cables) by card.
std::vector<std::pair<size_t, int>> SpreadCables(const DirectorParams& params, size_t edge,
                                                 size_t chassis) {
    SplitMix64 random(Mix(Mix(Mix(params.seed) ^ edge) ^ chassis));
    const size_t card_count = 1 + random.Below(static_cast<size_t>(params.max_cards_per_chassis));
    std::vector<size_t> cards(static_cast<size_t>(params.leaf_cards));
    std::iota(cards.begin(), cards.end(), size_t{0});
    for (size_t i = 0; i < card_count; ++i) {
        std::swap(cards[i], cards[i + random.Below(cards.size() - i)]);
    }
    cards.resize(card_count);
    std::sort(cards.begin(), cards.end());
    std::vector<std::pair<size_t, int>> spread;
    for (size_t card : cards) {
        spread.emplace_back(card, 1);
    }
    for (size_t cable = card_count; cable < static_cast<size_t>(params.cables_per_chassis);
         ++cable) {
        ++spread[random.Below(card_count)].second;
    }
    return spread;
}

}  // namespace

FabricDescription GenerateDirector(const DirectorParams& params) {
    CheckDirectorParams(params);
    const size_t chassis = static_cast<size_t>(params.chassis);
    const size_t leaves = static_cast<size_t>(params.leaf_cards);
    const size_t spines = static_cast<size_t>(params.spine_cards);
    const size_t edges = static_cast<size_t>(params.edge_switches);

    FabricDescription description;
    Builder builder(description, 0, false);
    for (size_t e = 0; e < edges; ++e) {
        builder.AddSwitch("edge-" + std::to_string(e + 1), 0);
    }
    // Index of leaf card 0 of chassis c is first_leaf[c]; its spine cards follow its leaves.
    std::vector<size_t> first_leaf(chassis);
    for (size_t c = 0; c < chassis; ++c) {
        const std::string prefix = "c" + std::to_string(c + 1) + "-";
        first_leaf[c] = description.switches.size();
        for (size_t l = 0; l < leaves; ++l) {
            builder.AddSwitch(prefix + "leaf-" + std::to_string(l + 1), 1);
        }
        for (size_t s = 0; s < spines; ++s) {
            builder.AddSwitch(prefix + "spine-" + std::to_string(s + 1), 2);
        }
    }
    for (size_t e = 0; e < edges; ++e) {
        for (size_t c = 0; c < chassis; ++c) {
            for (const auto& [card, cables] : SpreadCables(params, e, c)) {
                builder.AddLink(e, first_leaf[c] + card, cables);
            }
        }
    }
    for (size_t c = 0; c < chassis; ++c) {
        for (size_t l = 0; l < leaves; ++l) {
            for (size_t s = 0; s < spines; ++s) {
                builder.AddLink(first_leaf[c] + l, first_leaf[c] + leaves + s, 1);
            }
        }
    }
    const size_t hosts = edges * static_cast<size_t>(params.hosts_per_edge);
    for (size_t e = 0; e < edges; ++e) {
        for (int h = 0; h < params.hosts_per_edge; ++h) {
            builder.AddHost(e, hosts);
        }
    }
    // The leaf cards' ports, known only now that the cables are laid.
    try {
        CheckFabricLimits(description, "the director fabric");
    } catch (const InputError& error) {
        Refuse(error.problem());
    }
    return description;
}

}  // namespace aggtree
