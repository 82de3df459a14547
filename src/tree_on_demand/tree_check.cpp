// Final check of a built tree.
//
// Order of visit: the record's list once to index its nodes by switch; the list again
// to walk every node's child edges (limits, pairing, links) and its parent edge; one
// breadth-first walk from the root over child edges to find cycles and unreachable
// nodes; finally the job's ports.  Each step stops at the first broken invariant.
//
// Cost: O(nodes + edges + ports) hash operations, plus for every edge a look-up of the
// parent among the child's up-links (ordered map) or links to other islands (a scan).
#include "tree_on_demand/tree_check.h"

#include <algorithm>
#include <queue>
#include <unordered_map>
#include <unordered_set>

#include "fabric_model/fabric.h"
#include "fabric_model/tree_node.h"

namespace {

// An 8-bit child index tells this many children apart.
constexpr uint32_t kAddressableChildren = 256;

// A host port as carried by one switch's tree node.
struct CarriedPort {
    const AggNodeFabricInfo* leaf_switch;
    uint64_t guid;
    uint8_t plane;

    bool operator==(const CarriedPort&) const = default;
};

struct CarriedPortHash {
    size_t operator()(const CarriedPort& port) const noexcept {
        return std::hash<const void*>{}(port.leaf_switch) ^
               HcaPortKeyHash {}({port.guid, port.plane});
    }
};

struct TreeNodeIndex {
    std::unordered_map<const AggNodeFabricInfo*, const TreeNode*> by_switch;
    std::unordered_set<const TreeNode*> nodes;
};

std::string SwitchName(const TreeNode* node) {
    return node->agg_node != nullptr ? node->agg_node->name : std::string("<no switch>");
}

bool HasSiblingLink(const AggNode* from, const AggNode* to) {
    return std::any_of(from->sibling_links.begin(), from->sibling_links.end(),
                       [to](const AggPath& link) { return link.remote_node == to; });
}

// Inside an island the builder links a child under a switch it reaches over an
// up-link; between islands over a link joining the two.
bool FollowsALink(const AggNodeFabricInfo* child, const AggNodeFabricInfo* parent) {
    if (GetAggNodeIslandId(child) == GetAggNodeIslandId(parent)) {
        return child->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).count(parent) != 0;
    }
    return HasSiblingLink(child, parent);
}

std::string IndexNodes(const JobSubTreeInfo& info, TreeNodeIndex& index) {
    if (info.tree_nodes.empty()) {
        return "the tree has no node";
    }
    if (info.tree_nodes_count != info.tree_nodes.size()) {
        return "tree_nodes_count " + std::to_string(info.tree_nodes_count) +
               " but the list holds " + std::to_string(info.tree_nodes.size());
    }
    if (info.root_node == nullptr) {
        return "the record names no root";
    }
    for (const TreeNode* node : info.tree_nodes) {
        if (node == nullptr || node->agg_node == nullptr) {
            return "the list holds a tree node without a switch";
        }
        if (!index.nodes.insert(node).second) {
            return "the tree node of " + SwitchName(node) + " stands twice in the list";
        }
        if (!index.by_switch.emplace(node->agg_node, node).second) {
            return "switch " + SwitchName(node) + " has two tree nodes";
        }
    }
    return "";
}

// The child edges of one node: within its limits, each pointing at a node of the tree
// whose parent edge points back, at its own index, over a link of the model.
std::string CheckChildEdges(const TreeNode* node, const TreeNodeIndex& index,
                            uint16_t max_tree_children,
                            std::unordered_map<const TreeNode*, const TreeNode*>& parent_of) {
    const uint32_t limit = std::min<uint32_t>(
        {node->agg_node->tree_children_limit, max_tree_children, kAddressableChildren});
    if (node->num_children > limit) {
        return SwitchName(node) + " has " + std::to_string(node->num_children) +
               " children, above its limit " + std::to_string(limit);
    }
    if (node->child_edges.size() < node->num_children) {
        return SwitchName(node) + " has fewer child edges than children";
    }
    for (uint16_t i = 0; i < node->num_children; ++i) {
        const TreeEdge& edge = node->child_edges[i];
        const TreeNode* child = edge.far_end;
        if (child == nullptr || index.nodes.count(child) == 0) {
            return SwitchName(node) + " has child edge " + std::to_string(i) +
                   " to a node outside the tree";
        }
        if (edge.own_end != node || child->parent_edge.far_end != node ||
            child->parent_edge.own_end != child || edge.remote_edge != &child->parent_edge ||
            child->parent_edge.remote_edge != &edge) {
            return "the edges between " + SwitchName(node) + " and its child " + SwitchName(child) +
                   " do not point at each other";
        }
        if (child->child_index != i) {
            return SwitchName(child) + " has child index " + std::to_string(child->child_index) +
                   " but stands at index " + std::to_string(i) + " under " + SwitchName(node);
        }
        if (!parent_of.emplace(child, node).second) {
            return SwitchName(child) + " is a child twice";
        }
        if (!FollowsALink(child->agg_node, node->agg_node)) {
            return "the edge " + SwitchName(node) + " -> " + SwitchName(child) + " follows no link";
        }
    }
    return "";
}

// Exactly one node has no parent, it is the record's root, and every node reaches it.
std::string CheckOneRootWithoutCycle(
    const JobSubTreeInfo& info,
    const std::unordered_map<const TreeNode*, const TreeNode*>& parent_of) {
    const TreeNode* root = nullptr;
    for (const TreeNode* node : info.tree_nodes) {
        if (node->GetParent() != nullptr) {
            if (parent_of.count(node) == 0) {
                return SwitchName(node) + " has a parent that does not list it as a child";
            }
            continue;
        }
        if (root != nullptr) {
            return "two nodes without parent: " + SwitchName(root) + " and " + SwitchName(node);
        }
        root = node;
    }
    if (root == nullptr) {
        return "every node has a parent: the tree is a cycle";
    }
    if (root->agg_node != info.root_node) {
        return "the node without parent " + SwitchName(root) + " is not the record's root " +
               info.root_node->name;
    }
    std::unordered_set<const TreeNode*> reached{root};
    std::queue<const TreeNode*> pending;
    pending.push(root);
    while (!pending.empty()) {
        const TreeNode* node = pending.front();
        pending.pop();
        for (uint16_t i = 0; i < node->num_children; ++i) {
            const TreeNode* child = node->child_edges[i].far_end;
            if (reached.insert(child).second) {
                pending.push(child);
            }
        }
    }
    for (const TreeNode* node : info.tree_nodes) {
        if (reached.count(node) == 0) {
            return SwitchName(node) + " does not reach the root: its parents form a cycle";
        }
    }
    return "";
}

std::string CheckJobPorts(const TreeNodeIndex& index, const std::vector<JobLeafPort>& job_ports) {
    std::unordered_set<CarriedPort, CarriedPortHash> carried;
    for (const TreeNode* node : index.nodes) {
        for (const PortData* port : node->host_ports) {
            if (port != nullptr) {
                carried.insert({node->agg_node, port->port_guid, port->plane});
            }
        }
    }
    for (const JobLeafPort& job_port : job_ports) {
        if (job_port.leaf_switch == nullptr) {
            continue;
        }
        if (index.by_switch.count(job_port.leaf_switch) == 0) {
            return "leaf switch " + job_port.leaf_switch->name + " is not in the tree";
        }
        if (carried.count({job_port.leaf_switch, job_port.port.guid, job_port.port.plane}) == 0) {
            return "leaf switch " + job_port.leaf_switch->name + " does not carry port " +
                   GuidToString(job_port.port.guid);
        }
    }
    return "";
}

}  // namespace

std::string FindBrokenTreeInvariant(const JobSubTreeInfo& info,
                                    const std::vector<JobLeafPort>& job_ports,
                                    uint16_t max_tree_children) {
    TreeNodeIndex index;
    std::string broken = IndexNodes(info, index);
    if (!broken.empty()) {
        return broken;
    }
    std::unordered_map<const TreeNode*, const TreeNode*> parent_of;
    for (const TreeNode* node : info.tree_nodes) {
        broken = CheckChildEdges(node, index, max_tree_children, parent_of);
        if (!broken.empty()) {
            return broken;
        }
    }
    broken = CheckOneRootWithoutCycle(info, parent_of);
    if (!broken.empty()) {
        return broken;
    }
    return CheckJobPorts(index, job_ports);
}
