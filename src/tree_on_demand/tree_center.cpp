// Tree centre: the node of an undirected tree from which the farthest node is the
// fewest hops away.  The Dragonfly+ builder roots the joined tree there, so that the
// deepest island root is as close to the root as it can be.
//
// Order of visit: leaves are peeled layer by layer (each layer in set order) until one
// or two nodes are left; of two, the one with more neighbours wins, the first found on
// equal counts.  A graph with an isolated node or with no leaf left to peel is not a
// tree and yields null.
//
// Cost: linear in nodes plus edges; the degree map and two layer sets are the only
// allocations.
#include <cstdint>

#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

const AggNode* OnDemandTreeCreator::FindTreeCenter(
    const NodeSiblingsMap& map_node_to_adjacents) const {
    TREES_LOG(kLogLevelDetail, "FindCenter - Start\n");
    if (map_node_to_adjacents.empty()) {
        TREES_LOG(kLogLevelWarning, "Input tree is empty\n");
        return nullptr;
    }
    if (map_node_to_adjacents.size() <= 2) {
        return map_node_to_adjacents.begin()->first;
    }

    // Degrees stay 16-bit while peeling, as the rest of the builder's degree counts do.
    AggNodeMap<uint16_t> map_node_to_degree;
    AggNodeSet current_layer;
    for (const auto& [node, adjacents] : map_node_to_adjacents) {
        if (adjacents.empty()) {
            TREES_LOG(kLogLevelError, "Found disconnected node: %s\n", node->name.c_str());
            return nullptr;
        }
        if (adjacents.size() == 1) {
            current_layer.insert(node);
            map_node_to_degree[node] = 0;
        } else {
            map_node_to_degree[node] = static_cast<uint16_t>(adjacents.size());
        }
    }

    size_t peeled = current_layer.size();
    if (peeled == 0) {
        TREES_LOG(kLogLevelError, "Given graph is cyclic\n");
        return nullptr;
    }

    uint32_t n_rounds = 0;
    const AggNodeSet* candidates = &current_layer;
    AggNodeSet next_layer;
    while (peeled < map_node_to_adjacents.size()) {
        ++n_rounds;
        next_layer.clear();
        for (const AggNode* node : current_layer) {
            // Every layer node is a key of the input by construction.
            for (const AggNode* adjacent : map_node_to_adjacents.at(node)) {
                auto iter = map_node_to_degree.find(adjacent);
                TREES_ASSERT(iter != map_node_to_degree.end(), "Failed map_node_to_degree.find(%s)",
                             adjacent->name.c_str());
                if (iter->second != 0) {
                    --iter->second;
                    if (iter->second == 1) {
                        next_layer.insert(adjacent);
                    }
                }
            }
            map_node_to_degree[node] = 0;
        }
        if (next_layer.empty()) {
            TREES_LOG(kLogLevelError, "Encountered cyclic subgraph\n");
            return nullptr;
        }
        peeled += next_layer.size();
        if (peeled >= map_node_to_adjacents.size()) {
            candidates = &next_layer;
            break;
        }
        current_layer.swap(next_layer);
    }

    // Two centres are one hop apart: either is one more hop from the far end.
    if (candidates->size() > 1) {
        ++n_rounds;
    }
    TREES_LOG(kLogLevelDebug, "n_candidates=%zu max_hops=%u\n", candidates->size(), n_rounds);
    if (candidates->size() == 1) {
        return *candidates->begin();
    }

    auto candidate_iter = candidates->begin();
    const AggNode* node1 = *candidate_iter;
    const AggNode* node2 = *++candidate_iter;
    auto adjacenets_iter_1 = map_node_to_adjacents.find(node1);
    TREES_ASSERT(adjacenets_iter_1 != map_node_to_adjacents.end(),
                 "Failed map_node_to_adjacents.find(node1=%s)", node1->name.c_str());
    auto adjacenets_iter_2 = map_node_to_adjacents.find(node2);
    TREES_ASSERT(adjacenets_iter_2 != map_node_to_adjacents.end(),
                 "Failed map_node_to_adjacents.find(node2=%s)", node2->name.c_str());
    TREES_LOG(kLogLevelDebug, "degree of %s: %zu, degree of %s: %zu\n", node1->name.c_str(),
              adjacenets_iter_1->second.size(), node2->name.c_str(),
              adjacenets_iter_2->second.size());
    if (adjacenets_iter_2->second.size() > adjacenets_iter_1->second.size()) {
        return node2;
    }
    return node1;
}
