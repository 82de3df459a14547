// Path search through islands: chooses which island roots carry a Dragonfly+ job's
// tree between islands.
//
// Order of visit: first every root of every job island is asked for its adjacent nodes
// of other islands (its degrees).  Then a depth-first search with an explicit stack runs
// once from each root of the island with the fewest outbound links; candidates are
// sorted with the current path as ordering object and pushed so that unentered job
// islands are tried first, entered ones next and transit (childless) islands last.
// Every path that enters all job islands is validated and compared with the best so
// far; branches that cannot beat the best are cut, dead ends are undone.
//
// Cost: each run visits every reachable node at most once per frame pushed for it
// (a node may be pushed from several parents before it is first popped); every
// expansion sorts the node's adjacent nodes, copying the current path twice, and every
// cut branch rebuilds the path from its frame chain, which costs the chain plus the
// stack.
#include <algorithm>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "fabric_model/options.h"
#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

using FrameStack = std::vector<const DfpBacktrackInfo*>;

bool IsJobIslandRoot(const DfpIslandMap& map_island_info, const AggNode* node) {
    auto island_iter = map_island_info.find(GetAggNodeIslandId(node));
    return island_iter != map_island_info.end() &&
           island_iter->second->island_roots.count(node) != 0;
}

// Puts `node` on the path, counting it as an entry into its job island or as one more
// childless-island node.  A node already on the path is not counted twice.
void PutOnPath(DfpTraversalPath& path, const AggNode* node) {
    if (!path.m_path_nodes.insert(node).second) {
        return;
    }
    if (IsJobIslandRoot(path.map_island_info, node)) {
        path.m_required_island_nodes[GetAggNodeIslandId(node)].insert(node);
    } else {
        ++path.m_n_childless_islands;  // one byte on purpose
    }
}

// After a cut branch the path is made anew from the chain of frames that led to
// `frame`.  A chain node's child count is what RemoveChildless expects of it: its
// frames still waiting on the stack plus the one chain child on the path.
void RebuildPathFromChain(DfpTraversalPath& path, const DfpBacktrackInfo* frame,
                          const FrameStack& stack) {
    std::vector<const DfpBacktrackInfo*> chain;
    for (const DfpBacktrackInfo* ancestor = frame->parent; ancestor != nullptr;
         ancestor = ancestor->parent) {
        chain.push_back(ancestor);
    }
    std::unordered_map<const DfpBacktrackInfo*, uint16_t> pending_children;
    for (const DfpBacktrackInfo* waiting : stack) {
        if (waiting->parent != nullptr) {
            ++pending_children[waiting->parent];
        }
    }
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        PutOnPath(path, (*it)->node);
        auto pending = pending_children.find(*it);
        const uint16_t waiting = pending == pending_children.end() ? 0 : pending->second;
        path.m_node_child_count[(*it)->node] = static_cast<uint16_t>(waiting + 1);
    }
}

// A frame whose node another frame already put on the path brings nothing new: that
// frame pushed the node's children already, and putting the node on the path a second
// time would let a later undo take it away from under them.  The frame is dropped like
// a removed child of its parent, which may leave the parent a dead end in turn.
void DropFrameOfNodeOnPath(DfpTraversalPath& path, const DfpBacktrackInfo* frame) {
    const DfpBacktrackInfo* parent = frame->parent;
    if (parent == nullptr) {
        return;
    }
    auto parent_count = path.m_node_child_count.find(parent->node);
    if (parent_count == path.m_node_child_count.end() || parent_count->second == 0) {
        return;
    }
    --parent_count->second;
    if (parent_count->second == 0) {
        path.RemoveChildless(parent);
    }
}

// Whether the candidate full path beats the best one so far: fewer transit nodes, then
// a higher max degree, then more outbound links on its weakest island root.
bool IsBetterFullPath(const DfpTraversalPath& curr_best, const DfpTraversalPath& candidate) {
    const char* reason = "curr_best_good_enough";
    bool candidate_better = false;
    const AggNode* p_max_degree_node1 = curr_best.m_max_degree_node;
    const AggNode* p_max_degree_node2 = candidate.m_max_degree_node;
    if (p_max_degree_node1 == nullptr) {
        reason = "no_best_yet";
        candidate_better = true;
    } else {
        TREES_ASSERT_IN("operator()", p_max_degree_node2,
                        "Best path candidate has null max-degree node");
        if (curr_best.m_n_childless_islands != candidate.m_n_childless_islands) {
            reason = "path_length";
            candidate_better = candidate.m_n_childless_islands < curr_best.m_n_childless_islands;
        } else if (curr_best.m_max_degree != candidate.m_max_degree) {
            reason = "max_degree";
            candidate_better = candidate.m_max_degree > curr_best.m_max_degree;
        } else if (curr_best.m_min_outbound_links != candidate.m_min_outbound_links) {
            reason = "min_outbound_links";
            candidate_better = candidate.m_min_outbound_links > curr_best.m_min_outbound_links;
        } else {
            reason = "node_comparer_decision";
        }
    }
    TREES_LOG_IN("IsCandidateBetter", kLogLevelDebug,
                 "PathCompare: curr_best: %s candidate: %s. candidate_better?: %d. reason: %s\n",
                 p_max_degree_node1 ? p_max_degree_node1->name.c_str() : "<null>",
                 p_max_degree_node2 ? p_max_degree_node2->name.c_str() : "<null>",
                 candidate_better ? 1 : 0, reason);
    return candidate_better;
}

}  // namespace

uint32_t OnDemandTreeCreator::DfpFindPathThruIslands(const DfpIslandMap& map_island_info,
                                                     const JobResource& job_resource,
                                                     JobSubTreeInfo& /*job_sub_tree_info*/,
                                                     AggNodeSet& path_nodes,
                                                     NodeSiblingsMap& map_node_to_siblings,
                                                     const AggNode*& p_start_node) {
    const bool lock_required = job_resource.IsLockRequired();
    const bool exclusive_lock = job_resource.IsExclusiveLock();
    const uint8_t max_childless_islands = g_option_info.max_childless_islands;
    TREES_LOG(kLogLevelDebug, "DfpFindPathThruIslands max allowed childless islands: %u\n",
              max_childless_islands);

    // Island degrees: how well each root, and each island, reaches the others.
    map_node_to_siblings.clear();
    NodeDegreesMap node_to_island_connectivity;
    for (const auto& [island_id, p_island_info] : map_island_info) {
        for (const AggNode* root : p_island_info->island_roots) {
            AggNodeSet& siblings = map_node_to_siblings[root];
            AggNodeMap<uint16_t> link_counts;
            root->GetAdjacentSiblings(lock_required, exclusive_lock, siblings, &link_counts);
            NodeDegrees& degrees = node_to_island_connectivity[root];
            uint16_t outbound_links = 0;
            for (const auto& [sibling, count] : link_counts) {
                outbound_links = static_cast<uint16_t>(outbound_links + count);
            }
            degrees.outbound_links = outbound_links;
            p_island_info->outbound_links =
                static_cast<uint16_t>(p_island_info->outbound_links + outbound_links);
            for (const AggNode* sibling : siblings) {
                if (IsJobIslandRoot(map_island_info, sibling)) {
                    ++degrees.island_connectivity;
                }
            }
        }
        if (p_island_info->outbound_links == 0) {
            TREES_LOG(kLogLevelWarning, "Island %d has no outbound links\n", island_id);
            return 1;
        }
        TREES_LOG(kLogLevelDebug, "island_id: %d outbound_links: %d\n", island_id,
                  p_island_info->outbound_links);
    }

    // The scarcest island has the fewest ways in, so starting there prunes the most.
    const DfpIslandInfo* p_min_links_island_info = nullptr;
    for (const auto& [island_id, p_island_info] : map_island_info) {
        if (p_min_links_island_info == nullptr ||
            p_island_info->outbound_links < p_min_links_island_info->outbound_links) {
            p_min_links_island_info = p_island_info.get();
        }
    }
    TREES_ASSERT(p_min_links_island_info, "p_min_links_island_info==null");
    TREES_LOG(kLogLevelDebug, "Min-links island: %d\n", p_min_links_island_info->island_id);

    DfpNodeComparer node_comparer(&map_island_info);
    std::optional<DfpTraversalPath> best_path;
    best_path.emplace(map_island_info, node_to_island_connectivity, node_comparer);
    // Frames live as long as the search: the stack and child frames point at them.
    std::vector<std::unique_ptr<DfpBacktrackInfo>> frames;

    for (const AggNode* start_node : p_min_links_island_info->island_roots) {
        FrameStack stack;
        AggNodeSet visited;
        std::optional<DfpTraversalPath> path;
        path.emplace(map_island_info, node_to_island_connectivity, node_comparer);
        frames.push_back(std::make_unique<DfpBacktrackInfo>(DfpBacktrackInfo{start_node, nullptr}));
        stack.push_back(frames.back().get());
        bool branch_cut = false;

        while (!stack.empty()) {
            const DfpBacktrackInfo* frame = stack.back();
            stack.pop_back();
            const AggNode* node = frame->node;
            visited.insert(node);

            auto siblings_iter = map_node_to_siblings.find(node);
            if (siblings_iter == map_node_to_siblings.end()) {
                siblings_iter = map_node_to_siblings.emplace(node, AggNodeSet{}).first;
                node->GetAdjacentSiblings(lock_required, exclusive_lock, siblings_iter->second,
                                          nullptr);
            }
            if (siblings_iter->second.empty()) {
                TREES_LOG(kLogLevelError,
                          "DfpFindPathThruIslands -A- Reachable node with no adjacents: %s\n",
                          node->name.c_str());
                am_assert_do_throw("Encountered reachable node with no adjacents");
            }

            if (branch_cut) {
                path.emplace(map_island_info, node_to_island_connectivity, node_comparer);
                RebuildPathFromChain(*path, frame, stack);
                branch_cut = false;
            }
            if (path->m_path_nodes.count(node) != 0) {
                DropFrameOfNodeOnPath(*path, frame);
                continue;
            }
            PutOnPath(*path, node);

            if (path->m_n_childless_islands > max_childless_islands) {
                TREES_LOG(kLogLevelDebug,
                          "DfpFindPathThruIslands Reached max allowed childless islands. "
                          "Partial path: %s\n",
                          path->ToString(kLogLevelDebug).c_str());
                path->RemoveChildless(frame);
                continue;
            }

            // The island count is compared in one byte, as the path's own counters are.
            if (static_cast<uint8_t>(path->m_required_island_nodes.size()) ==
                map_island_info.size()) {
                TREES_LOG(kLogLevelDebug, "DfpFindPathThruIslands Candidate path: %s\n",
                          path->ToString(kLogLevelDebug).c_str());
                path->ValidateOnFullPath(map_node_to_siblings);
                if (IsBetterFullPath(*best_path, *path)) {
                    TREES_LOG(kLogLevelDebug,
                              "DfpFindPathThruIslands Candidate crowned as best. max-degree "
                              "node: %s max-degree: %u\n",
                              path->ToString(kLogLevelDebug).c_str(), path->m_max_degree);
                    best_path.emplace(*path);
                }
                branch_cut = true;
                continue;
            }

            if (!best_path->m_path_nodes.empty()) {
                // A longer or more transit-heavy path can no longer win.
                if (best_path->m_path_nodes.size() <= path->m_path_nodes.size()) {
                    TREES_LOG(kLogLevelDebug,
                              "DfpFindPathThruIslands Path search is halted: expected "
                              "length=%zu > shortest full path=%zu. Partial path: %s\n",
                              path->m_path_nodes.size() + 1, best_path->m_path_nodes.size(),
                              path->ToString(kLogLevelDebug).c_str());
                    branch_cut = true;
                    continue;
                }
                if (best_path->m_n_childless_islands < path->m_n_childless_islands) {
                    TREES_LOG(kLogLevelDebug,
                              "DfpFindPathThruIslands Path search is halted: cur "
                              "n_childless_islands=%u > used in full path=%u. Partial path: %s\n",
                              path->m_n_childless_islands, best_path->m_n_childless_islands,
                              path->ToString(kLogLevelDebug).c_str());
                    branch_cut = true;
                    continue;
                }
            }
            TREES_LOG(kLogLevelDebug, "DfpFindPathThruIslands Partial path: %s\n",
                      path->ToString(kLogLevelDebug).c_str());

            // The candidate sorted last is pushed last and so tried first.
            std::vector<const AggNode*> candidates(siblings_iter->second.begin(),
                                                   siblings_iter->second.end());
            std::sort(candidates.begin(), candidates.end(), *path);
            uint16_t n_pushed = 0;
            for (const AggNode* candidate : candidates) {
                if (visited.count(candidate) != 0) {
                    continue;
                }
                frames.push_back(
                    std::make_unique<DfpBacktrackInfo>(DfpBacktrackInfo{candidate, frame}));
                stack.push_back(frames.back().get());
                ++n_pushed;
            }
            path->m_node_child_count[node] = n_pushed;
            if (n_pushed == 0 && path->RemoveChildless(frame) != 0) {
                TREES_LOG(kLogLevelDebug,
                          "DfpFindPathThruIslands Removed childless at dead-end: %s\n",
                          node->name.c_str());
            }
        }
    }

    if (best_path->m_path_nodes.empty()) {
        TREES_LOG(kLogLevelWarning, "DfpFindPathThruIslands No path found\n");
        return 1;
    }
    const AggNode* p_max_degree_node = best_path->m_max_degree_node;
    TREES_ASSERT(p_max_degree_node, "Max-degree node was not assigned");
    path_nodes = best_path->m_path_nodes;
    p_start_node = p_max_degree_node;
    TREES_LOG(kLogLevelDebug,
              "DfpFindPathThruIslands Result: max-degree node: %s degree: %u n_childless=%d "
              "best_path: %s\n",
              p_max_degree_node->name.c_str(), best_path->m_max_degree,
              best_path->m_n_childless_islands, best_path->ToString(kLogLevelDebug).c_str());
    return 0;
}
