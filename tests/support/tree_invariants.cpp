#include "support/tree_invariants.h"

#include <algorithm>
#include <map>
#include <set>

#include "fabric_model/tree_node.h"

std::string CheckTreeInvariants(const JobSubTreeInfo& info, const Fabric& fabric,
                                const std::vector<PortData>& ports, uint16_t max_tree_children) {
    if (info.tree_nodes.empty()) {
        return "the tree has no node";
    }
    if (info.tree_nodes_count != info.tree_nodes.size()) {
        return "tree_nodes_count " + std::to_string(info.tree_nodes_count) +
               " but the list holds " + std::to_string(info.tree_nodes.size());
    }
    if (info.root_node == nullptr) {
        return "no root";
    }
    std::set<const TreeNode*> in_list(info.tree_nodes.begin(), info.tree_nodes.end());
    if (in_list.size() != info.tree_nodes.size()) {
        return "a tree node stands twice in the list";
    }
    std::set<const AggNodeFabricInfo*> switches;
    const TreeNode* root = nullptr;
    std::map<const TreeNode*, int> child_edge_refs;
    for (const TreeNode* node : info.tree_nodes) {
        if (!switches.insert(node->agg_node).second) {
            return "switch " + node->agg_node->name + " has two tree nodes";
        }
        uint16_t limit = std::min(node->agg_node->tree_children_limit, max_tree_children);
        if (node->num_children > limit) {
            return node->agg_node->name + " has " + std::to_string(node->num_children) +
                   " children, above its limit " + std::to_string(limit);
        }
        for (uint16_t i = 0; i < node->num_children; ++i) {
            const TreeNode* child = node->child_edges.at(i).far_end;
            if (child == nullptr || in_list.count(child) == 0) {
                return node->agg_node->name + " has a child edge to a node outside the tree";
            }
            ++child_edge_refs[child];
        }
        const TreeNode* parent = node->GetParent();
        if (parent == nullptr) {
            if (root != nullptr) {
                return "two nodes without parent: " + root->agg_node->name + " and " +
                       node->agg_node->name;
            }
            root = node;
            continue;
        }
        if (in_list.count(parent) == 0) {
            return node->agg_node->name + " has a parent outside the tree";
        }
        if (node->child_index >= parent->num_children ||
            parent->child_edges.at(node->child_index).far_end != node) {
            return node->agg_node->name + " is not at its child index under its parent";
        }
        if (node->agg_node->CountLinksTo(parent->agg_node) == 0) {
            return "the edge from " + parent->agg_node->name + " to " + node->agg_node->name +
                   " runs over no link that carries a path";
        }
    }
    if (root == nullptr) {
        return "every node has a parent: the tree is a cycle";
    }
    if (root->agg_node != info.root_node) {
        return "the parentless node " + root->agg_node->name + " is not the record's root " +
               info.root_node->name;
    }
    for (const TreeNode* node : info.tree_nodes) {
        if (node != root && child_edge_refs[node] != 1) {
            return node->agg_node->name + " is listed as a child " +
                   std::to_string(child_edge_refs[node]) + " times";
        }
        const TreeNode* walk = node;
        size_t steps = 0;
        while (walk->GetParent() != nullptr && steps <= info.tree_nodes.size()) {
            walk = walk->GetParent();
            ++steps;
        }
        if (walk != root) {
            return node->agg_node->name + " does not reach the root";
        }
    }
    for (const PortData& port : ports) {
        const AggNodeFabricInfo* leaf =
            fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{port.port_guid, port.plane});
        if (leaf == nullptr) {
            continue;
        }
        auto it = std::find_if(info.tree_nodes.begin(), info.tree_nodes.end(),
                               [&](const TreeNode* n) { return n->agg_node == leaf; });
        if (it == info.tree_nodes.end()) {
            return "leaf switch " + leaf->name + " is not in the tree";
        }
        bool carried =
            std::any_of((*it)->host_ports.begin(), (*it)->host_ports.end(), [&](const PortData* p) {
                return p->port_guid == port.port_guid && p->plane == port.plane;
            });
        if (!carried) {
            return "leaf switch " + leaf->name + " does not carry port " +
                   GuidToString(port.port_guid);
        }
    }
    if (info.tree_id > fabric.max_tree_id) {
        return "tree id " + std::to_string(info.tree_id) + " above max_tree_id";
    }
    for (const TreeNode* node : info.tree_nodes) {
        if (!node->agg_node->free_tree_ids.IsBitSet(info.tree_id)) {
            return "tree id " + std::to_string(info.tree_id) + " is not free on " +
                   node->agg_node->name;
        }
    }
    std::set<uint16_t> held;
    fabric.GetJobTreeIds(info.job_id, held);
    if (held.count(info.tree_id) != 0 && !fabric.IsSatTreeId(info.tree_id)) {
        return "tree id " + std::to_string(info.tree_id) + " is already held by the job";
    }
    return "";
}
