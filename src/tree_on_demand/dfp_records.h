// Working records of the Dragonfly+ builder: one DfpIslandInfo per job island, the
// NodeDegrees of island roots, the search frames (DfpBacktrackInfo), the candidate
// comparer (DfpNodeComparer) and the partial or full path (DfpTraversalPath) that the
// path search grows, sorts candidates with and undoes after dead ends.
#pragma once

#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "tree_on_demand/descendant_group.h"

// Per job island: its leaves, sweep state, roots and outbound links.
struct DfpIslandInfo {
    uint16_t island_id = 0;
    LeafSwitchOrderedSet island_leaves;
    std::queue<AggNodeFabricInfo*> bfs_queue;
    DescendantGroupList descendant_groups;  // owns every group of the island
    QuasiFatTreeInfoMap agg_node_to_quasi_fat_tree_info;
    RootCandidateMap root_candidates;
    AggNodeSet island_roots;  // keys of root_candidates
    uint16_t outbound_links = 0;
};

// Job islands by island id; an island absent from the map is childless.
using DfpIslandMap = std::unordered_map<uint16_t, std::unique_ptr<DfpIslandInfo>>;

// Connectivity of one island root.
struct NodeDegrees {
    uint16_t island_connectivity = 0;  // adjacent nodes that are roots of job islands
    uint16_t outbound_links = 0;       // links to all adjacent nodes; wraps
};

using NodeDegreesMap = AggNodeMap<NodeDegrees>;
using NodeSiblingsMap = AggNodeMap<AggNodeSet>;

// One frame of the depth-first path search.
struct DfpBacktrackInfo {
    const AggNode* node = nullptr;
    const DfpBacktrackInfo* parent = nullptr;  // null for a start frame
};

// Compares a current best node with a candidate and names the deciding rule.
class DfpNodeComparer {
public:
    explicit DfpNodeComparer(const DfpIslandMap* island_map) : map_island_info(island_map) {}

    // True when `candidate` is better than `curr_best`; logs the comparison at level 4.
    bool IsCandidateBetter(const AggNode* curr_best, const AggNode* candidate,
                           JobSubTreeInfo* job_info) const;

    const DfpIslandMap* map_island_info;
};

class DfpTraversalPath {
public:
    DfpTraversalPath(const DfpIslandMap& island_map, const NodeDegreesMap& connectivity,
                     const DfpNodeComparer& comparer);
    DfpTraversalPath(const DfpTraversalPath& other) = default;
    ~DfpTraversalPath() = default;

    // Names of the path's nodes joined by ", "; "" when `level` is off for "TREES  ".
    std::string ToString(int level) const;

    // Candidate order for the search's sort: true when `a` goes before `b` (the
    // candidate that sorts last is tried first).
    bool operator()(const AggNode* a, const AggNode* b) const;

    // Undoes the path from `dead_end` back to the last node that must stay; returns the
    // number of nodes removed.
    uint32_t RemoveChildless(const DfpBacktrackInfo* dead_end);

    // Degrees, pruning, max-degree node and minimum outbound links of a full path.
    void ValidateOnFullPath(const NodeSiblingsMap& map_node_to_siblings);

    const DfpIslandMap& map_island_info;
    const NodeDegreesMap& node_to_island_connectivity;
    const DfpNodeComparer& node_comparer;
    uint8_t m_n_childless_islands = 0;
    uint16_t m_min_outbound_links = 0;
    uint16_t m_max_degree = 0;
    const AggNode* m_max_degree_node = nullptr;
    std::unordered_map<uint16_t, AggNodeSet> m_required_island_nodes;
    AggNodeSet m_path_nodes;
    AggNodeMap<uint16_t> m_node_degrees;
    AggNodeMap<uint16_t> m_node_child_count;

private:
    // Lowers m_n_childless_islands by one; asserts it is not already 0.
    void SafeReduceChildlessIslands(const char* context);
};
