// DfpTraversalPath: the partial or full path of nodes that the Dragonfly+ path search
// grows.  It is also the ordering object of the search's candidate sort, and it undoes
// itself after a dead end.
//
// Order of visit: operator() compares two candidates by island-map membership, then by
// islands the path already entered, then by island connectivity, then by island id
// (descending).  RemoveChildless walks a dead end's parent chain towards the start frame
// and stops at the first node that must stay.
//
// Cost: operator() is a handful of hash look-ups; RemoveChildless is linear in the
// length of the parent chain; ToString is linear in the path size and free when its
// level is off.
#include <string>

#include "tree_on_demand/dfp_records.h"
#include "tree_on_demand/trees_log.h"

DfpTraversalPath::DfpTraversalPath(const DfpIslandMap& island_map,
                                   const NodeDegreesMap& connectivity,
                                   const DfpNodeComparer& comparer)
    : map_island_info(island_map),
      node_to_island_connectivity(connectivity),
      node_comparer(comparer) {}

std::string DfpTraversalPath::ToString(int level) const {
    // Every caller logs the result at `level`, so nothing is built when no one listens.
    if (!TREES_LOG_ENABLED(level)) {
        return "";
    }
    std::string text;
    for (const AggNode* node : m_path_nodes) {
        if (!text.empty()) {
            text += ", ";
        }
        text += node->name;
    }
    return text;
}

bool DfpTraversalPath::operator()(const AggNode* a, const AggNode* b) const {
    const uint16_t island_a = GetAggNodeIslandId(a);
    const uint16_t island_b = GetAggNodeIslandId(b);

    // The search tries the candidate that sorts last first, so transit nodes (not in a
    // job island) sort first: they are the last resort.
    const bool a_in_job_island = map_island_info.count(island_a) != 0;
    const bool b_in_job_island = map_island_info.count(island_b) != 0;
    if (a_in_job_island != b_in_job_island) {
        return !a_in_job_island;
    }
    if (!a_in_job_island) {
        return island_b < island_a;
    }

    // Islands not entered yet are tried before islands the path already holds.
    const bool a_entered = m_required_island_nodes.count(island_a) != 0;
    const bool b_entered = m_required_island_nodes.count(island_b) != 0;
    if (a_entered != b_entered) {
        return a_entered;
    }

    // Better connected roots are tried first; non-roots have no degrees and come last.
    auto degrees_a = node_to_island_connectivity.find(a);
    auto degrees_b = node_to_island_connectivity.find(b);
    const bool a_known = degrees_a != node_to_island_connectivity.end();
    const bool b_known = degrees_b != node_to_island_connectivity.end();
    if (a_known != b_known) {
        return !a_known;
    }
    if (a_known && degrees_a->second.island_connectivity != degrees_b->second.island_connectivity) {
        return degrees_a->second.island_connectivity < degrees_b->second.island_connectivity;
    }
    return island_b < island_a;
}

uint32_t DfpTraversalPath::RemoveChildless(const DfpBacktrackInfo* dead_end) {
    uint32_t n_removed = 0;
    if (dead_end == nullptr) {
        return n_removed;
    }
    const DfpBacktrackInfo* current = dead_end;
    while (true) {
        const AggNode* node = current->node;

        // A root of a job island carries that island's subtree: it never goes.
        auto island_iter = map_island_info.find(GetAggNodeIslandId(node));
        if (island_iter != map_island_info.end() &&
            island_iter->second->island_roots.count(node) != 0) {
            return n_removed;
        }

        // The dead end itself has no children by definition; an ancestor stays while
        // some of its pushed children are still pending or on the path.
        if (current != dead_end) {
            auto iter = m_node_child_count.find(node);
            TREES_ASSERT(iter != m_node_child_count.end(), "Missing node_child_count for node: %s",
                         node->name.c_str());
            if (iter->second != 0) {
                return n_removed;
            }
        }

        if (m_path_nodes.erase(node) == 0) {
            // Already undone through another frame of the same node: nothing to count.
            current = current->parent;
            if (current == nullptr) {
                return n_removed;
            }
            continue;
        }

        TREES_LOG(kLogLevelDebug, "- Removed childless %s\n", node->name.c_str());
        SafeReduceChildlessIslands("RemoveChildless");
        ++n_removed;

        const DfpBacktrackInfo* parent = current->parent;
        if (parent == nullptr) {
            return n_removed;
        }
        auto prev_iter = m_node_child_count.find(parent->node);
        TREES_ASSERT(prev_iter != m_node_child_count.end(),
                     "Missing node_child_count for parent node: %s", parent->node->name.c_str());
        TREES_ASSERT(prev_iter->second != 0, "Node's child_count is 0 for parent node: %s",
                     parent->node->name.c_str());
        --prev_iter->second;
        current = parent;
    }
}

void DfpTraversalPath::SafeReduceChildlessIslands(const char* context) {
    // The count is one byte wide; going below zero would wrap to 255 and silently lift
    // the childless-island limit.
    TREES_ASSERT_IN("SafeReduceChildlessIslands", m_n_childless_islands != 0,
                    "n_childless_islands is about to become negative. Context=%s", context);
    --m_n_childless_islands;
}
