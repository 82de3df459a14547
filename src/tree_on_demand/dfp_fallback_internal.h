// The graph of the Dragonfly+ fallback search and the steps that search it (see
// dfp_fallback_search.cpp for the search as a whole): the roots of the job islands and
// the admitted transit switches near them, their root components, the transit sets tried
// by size, and the completion of a working set into a small connected set.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "tree_on_demand/dfp_records.h"

namespace internal {

// Transit sets tried before the search gives up.
inline constexpr uint64_t kMaxTransitSets = uint64_t{1} << 21;
// Working transit sets of the fewest size that are completed and compared.
inline constexpr size_t kMaxCompletedSets = 64;

// A set of job islands, one bit per island.
class IslandBits {
public:
    // An empty set for `islands` islands.
    explicit IslandBits(size_t islands = 0) : m_words((islands + 63) / 64, 0) {}
    // Adds one island.
    void Set(size_t island) { m_words[island / 64] |= uint64_t{1} << (island % 64); }
    // Adds every island of `other` (a set of the same size).
    void Add(const IslandBits& other) {
        for (size_t i = 0; i < m_words.size(); ++i) {
            m_words[i] |= other.m_words[i];
        }
    }
    // True when the set holds all of the first `islands` islands.
    bool HasAll(size_t islands) const {
        for (size_t i = 0; i < m_words.size(); ++i) {
            const size_t bits = std::min<size_t>(64, islands - 64 * i);
            const uint64_t all = bits == 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
            if ((m_words[i] & all) != all) {
                return false;
            }
        }
        return true;
    }

private:
    std::vector<uint64_t> m_words;
};

// A switch of the search's graph.
struct GraphNode {
    const AggNode* node = nullptr;
    int island = -1;                 // index of the job island it is a root of; -1 for a transit
    int depth = 0;                   // transit hops from the nearest root
    std::vector<size_t> neighbours;  // graph node indices, ascending
};

// The search's graph and its root components.
struct FallbackGraph {
    std::vector<GraphNode> nodes;                         // the roots first, then transits
    std::unordered_map<const AggNode*, size_t> index;     // node index by switch
    size_t islands = 0;                                   // job islands
    std::vector<size_t> component_of;                     // by node; roots only
    std::vector<IslandBits> component_islands;            // by root component
    std::vector<size_t> transits;                         // candidate transit nodes, address order
    std::vector<std::vector<size_t>> transit_components;  // by candidate: adjacent components
    std::vector<std::vector<size_t>> transit_links;       // by candidate: adjacent candidates
};

// A transit set that joins every job island and the root components it joins.
struct WorkingSet {
    std::vector<size_t> transits;    // candidate positions
    std::vector<size_t> components;  // the root components joined, ascending
};

// Whether a transit switch may carry the job's tree.
using AdmitTransit = std::function<bool(const AggNode*)>;

// True when `a` lies before `b` in address order (the fabric's load order).
bool ByAddress(const AggNode* a, const AggNode* b);

// The graph breadth first from the roots of the job islands (islands by id, roots in
// address order), admitted transits up to `max_depth` hops away, with its root
// components and transit candidates; `siblings` receives every node's adjacent nodes.
void BuildFallbackGraph(const DfpIslandMap& map_island_info, bool lock_required,
                        bool exclusive_lock, int max_depth, const AdmitTransit& admit,
                        FallbackGraph& graph, NodeSiblingsMap& siblings);

// The working transit sets of the fewest size up to `limit`, at most kMaxCompletedSets
// of them; empty when there is none (then `gave_up` tells whether the cap was hit).
std::vector<WorkingSet> FindFewestTransitSets(const FallbackGraph& graph, size_t limit,
                                              bool& gave_up);

// The smallest set found for a working set: graph node indices, connected, holding a
// root of every job island.
std::vector<size_t> CompleteSet(const FallbackGraph& graph, const WorkingSet& working);

}  // namespace internal
