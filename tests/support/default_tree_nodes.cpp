#include "support/default_tree_nodes.h"

TreeNode* DefaultTreeNodePool::Add(AggNodeFabricInfo* node, uint8_t plane) {
    m_nodes.push_back(std::make_unique<TreeNode>(kDefaultTreeId, node, plane));
    node->AddTreeNode(kDefaultTreeId, m_nodes.back().get());
    return m_nodes.back().get();
}
