// Linking two nodes: one parent-child edge between the default tree nodes of two
// switches, and the bookkeeping of which switches the job's tree already holds.
//
// Every edge of a job's tree is made here, by the top-down linking and by the joining
// of Dragonfly+ roots.  The parent is entered in the tree before the child, so the
// job's node list starts with the root.  A child's index is kept in 8 bits, so no node
// takes more than 256 children whatever its limits say: two children sharing an index
// would break the tree.  One link costs O(log children) for the set of child indices
// plus a hash lookup per switch.
#include <algorithm>

#include "fabric_model/options.h"
#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

constexpr const char* kLinkNodes = "LinkNodes";

// Children one node can take: as many as an 8-bit child index tells apart.
constexpr uint16_t kAddressableChildren = 256;

// The two edges are paired before the child's end is set and stay paired when that end
// is refused; only the status tells the caller.
bool ConnectEdges(TreeNode& parent_tree_node, TreeNode& child_tree_node, uint16_t child_index) {
    TreeEdge& child_edge = parent_tree_node.ChildEdge(child_index);
    if (child_edge.SetTreeNode(&parent_tree_node, &child_tree_node) != 0) {
        return false;
    }
    child_edge.remote_edge = &child_tree_node.parent_edge;
    child_tree_node.parent_edge.remote_edge = &child_edge;
    return child_tree_node.parent_edge.SetTreeNode(&child_tree_node, &parent_tree_node) == 0;
}

// Appends the switch's tree node to the job's list the first time the switch joins the
// tree; false when it was already in it.
bool EnterTree(const AggNodeFabricInfo* node, TreeNode* tree_node,
               JobSubTreeInfo& job_sub_tree_info, NodesInTreeSet& nodes_in_tree) {
    // The set holds the switches by identity only; nothing is changed through it.
    if (!nodes_in_tree.insert(const_cast<AggNodeFabricInfo*>(node)).second) {
        return false;
    }
    job_sub_tree_info.tree_nodes.push_back(tree_node);
    ++job_sub_tree_info.tree_nodes_count;
    return true;
}

}  // namespace

uint32_t OnDemandTreeCreator::LinkNodes(const AggNodeFabricInfo* parent,
                                        const AggNodeFabricInfo* child,
                                        JobSubTreeInfo& job_sub_tree_info,
                                        NodesInTreeSet& nodes_in_tree) const {
    TreeNode* p_parent_tree_node = parent->GetTreeNode(kDefaultTreeId);
    TREES_ASSERT(p_parent_tree_node, "Parent AggNode: %s doesn't have default tree node",
                 parent->port_info->GetName().c_str());
    TreeNode* p_child_tree_node = child->GetTreeNode(kDefaultTreeId);
    TREES_ASSERT(p_child_tree_node, "Child AggNode: %s doesn't have default tree node",
                 child->port_info->GetName().c_str());
    TREES_LOG(kLogLevelDebug, "AddDescendant(parent=%s child=%s)\n",
              p_parent_tree_node->ToString().c_str(), p_child_tree_node->ToString().c_str());

    const uint16_t child_index = p_parent_tree_node->num_children;
    const uint16_t children_limit =
        std::min(parent->tree_children_limit, g_option_info.max_tree_children);
    if (child_index >= kAddressableChildren && children_limit > kAddressableChildren) {
        // Said when it first matters; the refused link ends the linking of this tree.
        TREES_LOG_IN(kLinkNodes, kLogLevelWarning,
                     "Children limit %u of %s lowered to %u: a child index addresses no more "
                     "children\n",
                     static_cast<unsigned>(children_limit), parent->port_info->GetName().c_str(),
                     static_cast<unsigned>(kAddressableChildren));
    }
    // A refused link advances nothing, so the parent's next link reuses this edge.
    if (child_index >= std::min(children_limit, kAddressableChildren) ||
        !ConnectEdges(*p_parent_tree_node, *p_child_tree_node, child_index)) {
        TREES_LOG_IN(kLinkNodes, kLogLevelError,
                     "Failed to create connection between: parent: %s - child: %s\n",
                     p_parent_tree_node->ToString().c_str(), p_child_tree_node->ToString().c_str());
        return 1;
    }
    // Only the low 8 bits are kept, like the 8-bit set of child indices (deliberately).
    p_child_tree_node->child_index = static_cast<uint8_t>(child_index);
    p_parent_tree_node->num_children = static_cast<uint16_t>(child_index + 1);

    EnterTree(parent, p_parent_tree_node, job_sub_tree_info, nodes_in_tree);
    ++p_parent_tree_node->linked_child_count;
    p_parent_tree_node->linked_child_indices.insert(
        static_cast<uint8_t>(p_child_tree_node->child_index));

    if (!EnterTree(child, p_child_tree_node, job_sub_tree_info, nodes_in_tree)) {
        // By design a child met twice keeps its new edge; it is only reported.
        TREES_LOG(kLogLevelDebug, "Tried adding child: %s that is already part of tree\n",
                  child->port_info->GetName().c_str());
    }
    return 0;
}
