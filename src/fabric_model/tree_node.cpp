#include "fabric_model/tree_node.h"

#include "fabric_model/agg_node.h"

int TreeEdge::SetTreeNode(TreeNode* own, TreeNode* far) {
    if (own == nullptr || far == nullptr || own == far) {
        return 1;
    }
    own_end = own;
    far_end = far;
    return 0;
}

TreeNode::TreeNode(uint16_t id, AggNodeFabricInfo* node, uint8_t node_plane)
    : tree_id(id), agg_node(node), plane(node_plane) {}

TreeNode::~TreeNode() {
    if (agg_node != nullptr) {
        agg_node->RemoveTreeNode(tree_id, this);
    }
}

std::string TreeNode::ToString() const {
    std::string text = (agg_node && agg_node->port_info) ? agg_node->port_info->GetName() : "null";
    return text + " tree_id:" + std::to_string(tree_id);
}

TreeEdge& TreeNode::ChildEdge(uint16_t index) {
    while (child_edges.size() <= index) {
        child_edges.emplace_back();
    }
    return child_edges[index];
}
