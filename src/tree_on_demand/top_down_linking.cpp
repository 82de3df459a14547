// Top-down linking: turns the best groups left by the bottom-up sweep into tree edges,
// walking down from the chosen root one level at a time.
//
// A level's nodes are visited in address order, their best group's member groups in
// the group's order and each member's leaves in set order; for every leaf the route
// of the best-scoring parent is kept, the first found on ties.  The routes are then
// linked best score first, and linking a child drops every other route to the leaves
// that child's own best group covers, so each leaf is reached through one child per
// level.  In a Dragonfly+ tree a chosen relay switch met as a child is not linked here
// (the links between islands give it its parent) but is walked below like any child.
// A level costs O(routes log routes) to order the routes once, plus the leaves of the
// linked children's groups.
#include <algorithm>
#include <utility>
#include <vector>

#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

constexpr const char* kUpBottom = "QuasiFatTreeBFSUpBottom";

// Offers the route {parent, child} to `leaf`; an existing route gives way only to a
// strictly better score, so the first route found wins ties.
void OfferRoute(LeavesRouteMap& leaves_route, AggNodeFabricInfo* leaf, const BestRouteInfo& route,
                JobSubTreeInfo& job_sub_tree_info) {
    auto [it, inserted] = leaves_route.try_emplace(leaf, route);
    if (!inserted && it->second.score->IsWorseThan(*route.score, job_sub_tree_info)) {
        it->second = route;
    }
}

// The routes of one level: for every leaf below it, through which parent of the level
// and which child of that parent it is best reached.
void CollectLevelRoutes(const TreeLevelMap& current_level, LeavesRouteMap& leaves_route,
                        JobSubTreeInfo& job_sub_tree_info) {
    for (const auto& [parent, parent_info] : current_level) {
        const DescendantGroup* best_group = parent_info->best_group;
        for (const DescendantGroup* member : best_group->children) {
            // The parent's own share of its group needs no edge.
            if (member->node == parent) {
                continue;
            }
            const BestRouteInfo route{parent_info->node, member->node, &best_group->score};
            for (AggNodeFabricInfo* leaf : member->leaf_nodes) {
                OfferRoute(leaves_route, leaf, route, job_sub_tree_info);
            }
        }
    }
}

// The leaves of a level's routes in the order their routes are linked: best score first,
// equal scores in the map's order.  Taking the first route left in this order is taking
// the first route of the best score left in the map's order (scores compare by a key,
// and erasing routes leaves the others' order as it is), without a scan per link.
std::vector<AggNodeFabricInfo*> OrderRoutes(const LeavesRouteMap& leaves_route,
                                            JobSubTreeInfo& job_sub_tree_info) {
    std::vector<LeavesRouteMap::const_iterator> routes;
    routes.reserve(leaves_route.size());
    for (auto it = leaves_route.begin(); it != leaves_route.end(); ++it) {
        routes.push_back(it);
    }
    std::stable_sort(routes.begin(), routes.end(), [&](const auto& a, const auto& b) {
        return b->second.score->IsWorseThan(*a->second.score, job_sub_tree_info);
    });
    std::vector<AggNodeFabricInfo*> leaves;
    leaves.reserve(routes.size());
    for (const auto& route : routes) {
        leaves.push_back(route->first);
    }
    return leaves;
}

// The tree of a root that serves the whole job alone: just its own default tree node.
uint32_t LinkSingleSwitchTree(const QuasiFatTreeAnInfo* root_quasi_an_info,
                              JobSubTreeInfo& job_sub_tree_info) {
    // Without a single route the root must be the job's only leaf.
    TREES_ASSERT_IN(kUpBottom, root_quasi_an_info->best_group->leaf_nodes.size() == 1,
                    "No nodes were linked into a tree for the selected root '%s' while "
                    "best_group.size()=%zu (>1)\n",
                    root_quasi_an_info->node->name.c_str(),
                    root_quasi_an_info->best_group->leaf_nodes.size());
    TREES_LOG_IN(kUpBottom, kLogLevelDebug, "AggTree with a single switch\n");
    TreeNode* p_tree_node = root_quasi_an_info->node->GetTreeNode(kDefaultTreeId);
    TREES_ASSERT_IN(kUpBottom, p_tree_node,
                    "AggNode: %s doesn't have default tree node that is required for quasi fat "
                    "tree algorithm",
                    root_quasi_an_info->node->port_info->GetName().c_str());
    job_sub_tree_info.tree_nodes.push_back(p_tree_node);
    ++job_sub_tree_info.tree_nodes_count;
    return 0;
}

}  // namespace

uint32_t OnDemandTreeCreator::QuasiFatTreeBFSUpBottom(
    const JobResource& job_resource, QuasiFatTreeAnInfo* root_quasi_an_info,
    JobSubTreeInfo& job_sub_tree_info, QuasiFatTreeInfoMap& agg_node_to_quasi_fat_tree_info,
    JobSubTreeScore& score, NodesInTreeSet& nodes_in_tree, const AggNodeSet* relays) {
    score.Reset(job_resource, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    AggNodeFabricInfo* root = root_quasi_an_info->node;
    TreeLevelMap current_level{{root, root_quasi_an_info}};
    TREES_LOG(kLogLevelDebug, "qft_root=%s\n", root->name.c_str());
    job_sub_tree_info.root_node = root;
    job_sub_tree_info.root_node_attr = root->node_attr;

    uint16_t linked_route_count = 0;
    while (!current_level.empty()) {
        LeavesRouteMap leaves_route;
        TreeLevelMap next_level;
        CollectLevelRoutes(current_level, leaves_route, job_sub_tree_info);
        if (leaves_route.empty()) {
            TREES_LOG(kLogLevelDebug, "leaves_route is empty. linked_route_count=%u\n",
                      static_cast<unsigned>(linked_route_count));
            break;
        }
        const uint32_t status = QuasiFatTreeSelectBestRoute(leaves_route, job_sub_tree_info,
                                                            agg_node_to_quasi_fat_tree_info,
                                                            next_level, nodes_in_tree, relays);
        if (status != 0) {
            TREES_LOG(kLogLevelError, "Failed to find best route in quasi fat tree algorithm\n");
            return status;
        }
        ++linked_route_count;
        current_level = std::move(next_level);
    }
    if (linked_route_count != 0) {
        return 0;
    }
    return LinkSingleSwitchTree(root_quasi_an_info, job_sub_tree_info);
}

uint32_t OnDemandTreeCreator::QuasiFatTreeSelectBestRoute(
    LeavesRouteMap& leaves_route, JobSubTreeInfo& job_sub_tree_info,
    QuasiFatTreeInfoMap& agg_node_to_quasi_fat_tree_info, TreeLevelMap& next_level,
    NodesInTreeSet& nodes_in_tree, const AggNodeSet* relays) {
    for (AggNodeFabricInfo* leaf : OrderRoutes(leaves_route, job_sub_tree_info)) {
        auto best = leaves_route.find(leaf);
        if (best == leaves_route.end()) {
            continue;  // reached through a child linked before
        }
        const BestRouteInfo route = best->second;
        if (relays != nullptr && relays->count(route.child_node) != 0) {
            // Its parent comes from the links between islands: one parent only.
            TREES_LOG(kLogLevelDebug, "Relay %s is not linked under %s\n",
                      route.child_node->name.c_str(), route.parent_node->name.c_str());
        } else {
            const uint32_t status =
                LinkNodes(route.parent_node, route.child_node, job_sub_tree_info, nodes_in_tree);
            if (status != 0) {
                return status;
            }
        }
        leaves_route.erase(best);

        auto it = agg_node_to_quasi_fat_tree_info.find(route.child_node);
        TREES_ASSERT(it != agg_node_to_quasi_fat_tree_info.end(),
                     "quasi_fat_tree_an_info not found for: %s",
                     route.child_node->port_info->GetName().c_str());
        // The child's own subtree reaches these leaves; no other route to them is needed.
        for (AggNodeFabricInfo* covered : it->second->best_group->leaf_nodes) {
            leaves_route.erase(covered);
        }
        next_level[route.child_node] = it->second.get();
    }
    return 0;
}
