// Default tree nodes (tree id 65535) made by hand, for tests that drive one stage of the
// builder directly instead of going through a whole request.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/tree_node.h"

// Owns the tree nodes it makes.  A tree node unregisters itself from its switch when it
// is destroyed, so the pool must go before the fabric that holds the switches.
class DefaultTreeNodePool {
public:
    // A fresh default tree node of `node` on `plane`, registered under tree id 65535.
    TreeNode* Add(AggNodeFabricInfo* node, uint8_t plane = 0);

    size_t size() const { return m_nodes.size(); }

private:
    std::vector<std::unique_ptr<TreeNode>> m_nodes;
};
