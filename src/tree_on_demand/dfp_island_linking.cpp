// Island graph linking: turns the chosen island roots into one Dragonfly+ job tree.
// Each chosen root gets its island's subtree linked under it, the chosen roots are
// joined to one another, and the centre of their graph becomes the tree's root.
//
// The chosen set comes from the path search; when that finds no path (or stops on a
// root without usable links, or crosses a transit switch that cannot take the tree),
// from the fallback search, unless the options turn it off.
//
// Order of visit: island subtrees in the chosen set's order; then a breadth-first walk
// from the search's start node builds the spanning tree of the chosen roots whose
// centre is taken; then a second breadth-first walk from that centre links each chosen
// root under the first processed root that lists it as a sibling.
//
// Every chosen switch gets exactly one parent: an island subtree never links a chosen
// switch under itself (a relay is linked by the root links instead, and the subtree
// goes on below it), and a chosen switch without a default tree node gets one.  The
// result is a tree whenever the chosen set is connected: every switch climbs through
// its subtree to a chosen switch, and the chosen switches climb the root links.
//
// Cost: the island subtrees cost what the top-down linking costs; the two walks are
// linear in the chosen roots and their sibling sets.
#include <memory>
#include <queue>
#include <unordered_set>

#include "fabric_model/options.h"
#include "fabric_model/tree_node.h"
#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

// The island maps and tree records hold mutable switches; the search hands out const
// nodes.  Null when the node is not a switch.
AggNodeFabricInfo* AsFabricInfo(const AggNode* node) {
    return const_cast<AggNodeFabricInfo*>(dynamic_cast<const AggNodeFabricInfo*>(node));
}

bool IsJobIslandRoot(const DfpIslandMap& map_island_info, const AggNode* node) {
    auto island_iter = map_island_info.find(GetAggNodeIslandId(node));
    return island_iter != map_island_info.end() &&
           island_iter->second->island_roots.count(node) != 0;
}

// A chosen transit switch that the final score would refuse: no free tree id, or not
// the resources of the job's quota.
const AggNode* FindTransitThatCannotTakeTheTree(const DfpIslandMap& map_island_info,
                                                const AggNodeSet& path_nodes,
                                                const JobResource& job_resource) {
    zelta_quota quota{};
    quota.units = job_resource.units;
    quota.buffers = job_resource.buffers;
    quota.groups = job_resource.groups;
    quota.queue_pairs = job_resource.queue_pairs;
    for (const AggNode* node : path_nodes) {
        if (IsJobIslandRoot(map_island_info, node)) {
            continue;
        }
        const AggNodeFabricInfo* fabric_info = AsFabricInfo(node);
        AggNodeInfo info;
        if (fabric_info != nullptr &&
            (!fabric_info->HasFreeTreeId() ||
             !fabric_info->HasQuota(quota, job_resource.quota_mode, info))) {
            return node;
        }
    }
    return nullptr;
}

// The island each chosen root heads: the first of an island's roots in the chosen
// set's order.  A second root of an entered island relays between two other islands
// and is no leaf that validation could prune; a second subtree would give the island's
// leaves two parents, so it is linked as a relay only, like any chosen switch that is
// not a root of its island.
std::unordered_map<const AggNode*, DfpIslandInfo*> FindIslandHeads(
    const DfpIslandMap& map_island_info, const AggNodeSet& path_nodes) {
    std::unordered_map<const AggNode*, DfpIslandInfo*> heads;
    std::unordered_set<uint16_t> headed_islands;
    for (const AggNode* node : path_nodes) {
        auto island_iter = map_island_info.find(GetAggNodeIslandId(node));
        if (island_iter == map_island_info.end() ||
            island_iter->second->island_roots.count(node) == 0 ||
            headed_islands.count(island_iter->first) != 0) {
            continue;
        }
        heads.emplace(node, island_iter->second.get());
        headed_islands.insert(island_iter->first);
    }
    return heads;
}

}  // namespace

uint32_t OnDemandTreeCreator::DfpChooseRootNodes(const DfpIslandMap& map_island_info,
                                                 const JobResource& job_resource,
                                                 JobSubTreeInfo& job_sub_tree_info,
                                                 AggNodeSet& path_nodes,
                                                 NodeSiblingsMap& map_node_to_siblings,
                                                 const AggNode*& p_start_node) {
    if (!g_option_info.dfp_fallback_search) {
        return DfpFindPathThruIslands(map_island_info, job_resource, job_sub_tree_info, path_nodes,
                                      map_node_to_siblings, p_start_node);
    }
    uint32_t status = 1;
    try {
        status = DfpFindPathThruIslands(map_island_info, job_resource, job_sub_tree_info,
                                        path_nodes, map_node_to_siblings, p_start_node);
    } catch (const AMAssertException& exception) {
        // Logged where it was raised; the search found no path.
        TREES_LOG(kLogLevelDebug, "DfpLinkIslandGraphs path search stopped: %s\n",
                  exception.what());
    }
    const AggNode* refused = nullptr;
    if (status == 0) {
        refused = FindTransitThatCannotTakeTheTree(map_island_info, path_nodes, job_resource);
        if (refused == nullptr) {
            return 0;
        }
        TREES_LOG(kLogLevelDebug,
                  "DfpLinkIslandGraphs transit %s of the path cannot take one more tree\n",
                  refused->name.c_str());
    }
    status = DfpFallbackSearch(map_island_info, job_resource, path_nodes, map_node_to_siblings,
                               p_start_node);
    if (status != 0 && refused != nullptr) {
        TREES_LOG(kLogLevelWarning,
                  "DfpLinkIslandGraphs transit %s of the path cannot take one more tree, and no "
                  "other switches join the job's islands\n",
                  refused->name.c_str());
    }
    return status;
}

uint32_t OnDemandTreeCreator::DfpLinkIslandGraphs(const DfpIslandMap& map_island_info,
                                                  const JobResource& job_resource,
                                                  JobSubTreeInfo& job_sub_tree_info,
                                                  JobSubTreeScore& score,
                                                  NodesInTreeSet& nodes_in_tree) {
    AggNodeSet path_nodes;
    NodeSiblingsMap map_node_to_siblings;
    const AggNode* p_start_node = nullptr;
    uint32_t status = DfpChooseRootNodes(map_island_info, job_resource, job_sub_tree_info,
                                         path_nodes, map_node_to_siblings, p_start_node);
    if (status != 0) {
        return status;
    }

    // Island subtrees.  Transit roots (no job island) and roots the sweep never rated
    // carry no subtree; each island hangs under the root that heads it.  Every other
    // chosen switch is a relay: the root links give it its parent, so a subtree that
    // passes through it does not link it under itself.
    const std::unordered_map<const AggNode*, DfpIslandInfo*> heads =
        FindIslandHeads(map_island_info, path_nodes);
    AggNodeSet relays;
    for (const AggNode* node : path_nodes) {
        if (heads.count(node) == 0) {
            relays.insert(node);
        }
    }
    for (const AggNode* node : path_nodes) {
        auto head_iter = heads.find(node);
        if (head_iter == heads.end()) {
            continue;
        }
        AggNodeFabricInfo* p_fabric_info = AsFabricInfo(node);
        TREES_ASSERT(p_fabric_info, "Failed downcasting AggNode* for node: %s",
                     node->port_info->GetName().c_str());
        QuasiFatTreeInfoMap& agg_node_to_quasi_fat_tree_info =
            head_iter->second->agg_node_to_quasi_fat_tree_info;
        auto qft_iter = agg_node_to_quasi_fat_tree_info.find(p_fabric_info);
        if (qft_iter == agg_node_to_quasi_fat_tree_info.end()) {
            continue;
        }
        const size_t listed = job_sub_tree_info.tree_nodes.size();
        status =
            QuasiFatTreeBFSUpBottom(job_resource, qft_iter->second.get(), job_sub_tree_info,
                                    agg_node_to_quasi_fat_tree_info, score, nodes_in_tree, &relays);
        if (status != 0) {
            job_sub_tree_info.error_text +=
                "Failed to build a tree based on the selected root '" + node->name + "'\n";
            return status;
        }
        // A root that serves its island alone is listed without entering the tree's
        // set; entered now, its root link does not list it a second time.
        if (job_sub_tree_info.tree_nodes.size() == listed + 1 &&
            job_sub_tree_info.tree_nodes.back() == p_fabric_info->GetTreeNode(kDefaultTreeId)) {
            nodes_in_tree.insert(p_fabric_info);
        }
    }

    // Root graph: the breadth-first spanning tree of the chosen roots.  A node may stand
    // in the queue twice; its second turn finds every sibling processed or visited.
    NodeSiblingsMap map_node_to_adjacents;
    std::queue<const AggNode*> pending;
    AggNodeSet processed;
    AggNodeSet visited;
    pending.push(p_start_node);
    while (!pending.empty()) {
        const AggNode* node = pending.front();
        pending.pop();
        processed.insert(node);
        auto node_to_siblings_iter = map_node_to_siblings.find(node);
        TREES_ASSERT(node_to_siblings_iter != map_node_to_siblings.end(),
                     "Node is missing from map_node_to_siblings: %s", node->name.c_str());
        for (const AggNode* sibling : node_to_siblings_iter->second) {
            if (processed.count(sibling) != 0 || path_nodes.count(sibling) == 0) {
                continue;
            }
            pending.push(sibling);
            if (visited.insert(sibling).second) {
                map_node_to_adjacents[node].insert(sibling);
                map_node_to_adjacents[sibling].insert(node);
            }
        }
    }

    // The centre keeps the farthest island root as few hops from the root as possible.
    const AggNode* p_root = FindTreeCenter(map_node_to_adjacents);
    TREES_ASSERT(p_root, "Failed to find a center of rank-0 subtree");
    TREES_LOG(kLogLevelDebug, "DfpLinkIslandGraphs Center for rank-0 subtree: %s\n",
              p_root->name.c_str());
    AggNodeFabricInfo* p_agg_root = AsFabricInfo(p_root);
    TREES_ASSERT(p_agg_root, "Failed downcast AggNode* -> AggNodeFabricInfo*");
    job_sub_tree_info.root_node = p_agg_root;

    // Root links, breadth first from the centre over all sibling links of the chosen
    // roots: every chosen root gets exactly one parent.
    processed.clear();
    visited.clear();
    pending = {};
    pending.push(p_agg_root);
    while (!pending.empty()) {
        const AggNode* node = pending.front();
        pending.pop();
        processed.insert(node);
        auto it = map_node_to_siblings.find(node);
        TREES_ASSERT(it != map_node_to_siblings.end(),
                     "Node is missing from map_node_to_siblings: %s",
                     node->port_info->GetName().c_str());
        for (const AggNode* sibling : it->second) {
            if (processed.count(sibling) != 0 || path_nodes.count(sibling) == 0) {
                continue;
            }
            pending.push(sibling);
            if (!visited.insert(sibling).second) {
                continue;
            }
            status = LinkDFPRootNodes(map_island_info, AsFabricInfo(node), AsFabricInfo(sibling),
                                      job_sub_tree_info, nodes_in_tree);
            if (status != 0) {
                return status;
            }
        }
    }
    return 0;
}

uint32_t OnDemandTreeCreator::LinkDFPRootNodes(const DfpIslandMap& /*map_island_info*/,
                                               AggNodeFabricInfo* p_parent_node,
                                               AggNodeFabricInfo* p_child_node,
                                               JobSubTreeInfo& job_sub_tree_info,
                                               NodesInTreeSet& nodes_in_tree) {
    TREES_ASSERT(p_parent_node, "p_parent_node==null; propapbly downcast failure");
    TREES_ASSERT(p_child_node, "p_child_node==null; propapbly downcast failure");

    // A transit root lies in no island of the job, so no sweep gave it a default tree
    // node; it gets one on first use.  So does a relay of a job island that the
    // island's sweep never reached (a spine above none of the job's leaves).
    for (AggNodeFabricInfo* node : {p_parent_node, p_child_node}) {
        if (node->GetTreeNode(kDefaultTreeId) != nullptr) {
            continue;
        }
        m_tree_nodes.push_back(
            std::make_unique<TreeNode>(kDefaultTreeId, node, job_sub_tree_info.plane));
        node->AddTreeNode(kDefaultTreeId, m_tree_nodes.back().get());
    }
    return LinkNodes(p_parent_node, p_child_node, job_sub_tree_info, nodes_in_tree);
}
