// Full-path validation: settles the shape and the figures of merit of a path that has
// entered every job island.
//
// Order of visit: degrees of the path's nodes inside the path (set order); then pruning
// layer by layer from the path's leaves, like peeling a tree (a duplicate root of an
// island already covered, or a node that is no island root, goes; the last root of an
// island stays); then the node of highest degree (map order, the candidate comparer
// breaking ties); then the fewest outbound links among the path's island roots.
//
// Cost: linear in the path's nodes and their sibling sets; each node is pruned at most
// once and each pruning touches its siblings once.
#include <cstdint>

#include "tree_on_demand/dfp_records.h"
#include "tree_on_demand/trees_log.h"

namespace {

// True when `node` is one of the roots of a job island.
bool IsJobIslandRoot(const DfpIslandMap& map_island_info, const AggNode* node) {
    auto island_iter = map_island_info.find(GetAggNodeIslandId(node));
    return island_iter != map_island_info.end() &&
           island_iter->second->island_roots.count(node) != 0;
}

// Degree of every path node: the number of its siblings that lie on the path.
void FillNodeDegrees(const AggNodeSet& path_nodes, const NodeSiblingsMap& map_node_to_siblings,
                     AggNodeMap<uint16_t>& node_degrees) {
    for (const AggNode* node : path_nodes) {
        auto iter_siblings = map_node_to_siblings.find(node);
        TREES_ASSERT_IN("FillNodeDegrees", iter_siblings != map_node_to_siblings.end(),
                        "Node sibling info is not known: %s", node->name.c_str());
        auto degree = static_cast<uint16_t>(iter_siblings->second.size());
        for (const AggNode* sibling : iter_siblings->second) {
            if (path_nodes.count(sibling) != 0) {
                continue;
            }
            // A path is connected, so every node keeps at least one sibling on it.
            TREES_ASSERT_IN("FillNodeDegrees", degree > 1,
                            "Degree is about to become zero for node: %s", node->name.c_str());
            --degree;
        }
        node_degrees[node] = degree;
    }
}

}  // namespace

void DfpTraversalPath::ValidateOnFullPath(const NodeSiblingsMap& map_node_to_siblings) {
    FillNodeDegrees(m_path_nodes, map_node_to_siblings, m_node_degrees);

    // Peel the path's leaves that add nothing: they would only lengthen the tree.
    AggNodeSet working = m_path_nodes;
    int32_t n_removed = 0;
    while (!working.empty()) {
        AggNodeSet next;
        for (const AggNode* node : working) {
            auto degree_iter = m_node_degrees.find(node);
            if (degree_iter == m_node_degrees.end() || degree_iter->second > 1) {
                continue;
            }
            const uint16_t island_id = GetAggNodeIslandId(node);
            if (IsJobIslandRoot(map_island_info, node)) {
                auto island_nodes_iter = m_required_island_nodes.find(island_id);
                TREES_ASSERT(island_nodes_iter != m_required_island_nodes.end(),
                             "ValidateOnFullPath Nodes of required islands are missing. "
                             "island_id: %u",
                             island_id);
                if (island_nodes_iter->second.size() < 2) {
                    continue;  // the island's last entry point
                }
                island_nodes_iter->second.erase(node);
                TREES_LOG(kLogLevelDebug, "ValidateOnFullPath - Remove duplicate leaf: %s\n",
                          node->name.c_str());
            } else {
                TREES_LOG(kLogLevelDebug, "ValidateOnFullPath - Remove childless node: %s\n",
                          node->name.c_str());
            }
            if (m_path_nodes.erase(node) != 0) {
                ++n_removed;
            }
            m_node_degrees.erase(node);

            auto siblings_iter = map_node_to_siblings.find(node);
            if (siblings_iter == map_node_to_siblings.end()) {
                continue;
            }
            for (const AggNode* sibling : siblings_iter->second) {
                auto node_degree_iter = m_node_degrees.find(sibling);
                if (node_degree_iter == m_node_degrees.end()) {
                    continue;
                }
                TREES_ASSERT(node_degree_iter->second > 0,
                             "ValidateOnFullPath Degree is 0 for adjacent node: %s",
                             sibling->name.c_str());
                --node_degree_iter->second;
                if (node_degree_iter->second < 2) {
                    next.insert(sibling);
                }
            }
        }
        working = std::move(next);
    }
    if (n_removed != 0 && TREES_LOG_ENABLED(kLogLevelDebug)) {
        TREES_LOG(kLogLevelDebug, "ValidateOnFullPath After removel of %d nodes, path: %s\n",
                  n_removed, ToString(kLogLevelDebug).c_str());
    }

    TREES_ASSERT(!m_node_degrees.empty(), "m_node_degrees is empty");

    // The hub of the inter-island links: the best connected node of the path.
    m_max_degree_node = nullptr;
    for (const auto& [node, degree] : m_node_degrees) {
        if (m_max_degree_node == nullptr || degree > m_max_degree) {
            TREES_LOG(kLogLevelDebug,
                      "ValidateOnFullPath max_degree candidate: %s max_degree: %d > %d of "
                      "curr_best: %s\n",
                      node->name.c_str(), degree, m_max_degree,
                      m_max_degree_node ? m_max_degree_node->name.c_str() : "<null>");
            m_max_degree = degree;
            m_max_degree_node = node;
        } else if (degree == m_max_degree) {
            if (node_comparer.IsCandidateBetter(m_max_degree_node, node, nullptr)) {
                m_max_degree_node = node;
            }
        }
    }

    // The path is only as good as its weakest connected island root.
    for (const AggNode* node : m_path_nodes) {
        if (!IsJobIslandRoot(map_island_info, node)) {
            continue;
        }
        auto degree_iter = node_to_island_connectivity.find(node);
        TREES_ASSERT(degree_iter != node_to_island_connectivity.end(),
                     "degree of node %s is missing", node->name.c_str());
        const uint16_t outbound_links = degree_iter->second.outbound_links;
        // 0 stands for "not set yet", so a root without links never stays the minimum.
        if (m_min_outbound_links == 0 || m_min_outbound_links > outbound_links) {
            m_min_outbound_links = outbound_links;
        }
    }
    TREES_LOG(kLogLevelDebug, "m_min_outbound_links=%u m_max_degree=%u", m_min_outbound_links,
              m_max_degree);
}
