// Nodes and edges of an aggregation tree.  A TreeNode belongs to one switch under one
// tree id; destroying it removes its entry from the switch, so no switch is left
// pointing at a destroyed node.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <set>
#include <string>

#include "fabric_model/identifiers.h"

class AggNodeFabricInfo;
class TreeNode;

// One end of a parent-child link.
struct TreeEdge {
    // Sets both ends; 0 on success, 1 when an end is null or both ends are one node.
    int SetTreeNode(TreeNode* own_end, TreeNode* far_end);

    TreeNode* own_end = nullptr;
    TreeNode* far_end = nullptr;
    TreeEdge* remote_edge = nullptr;  // the edge at the other end of the link
};

class TreeNode {
public:
    // The node of `agg_node` under `tree_id` and `plane`.
    TreeNode(uint16_t tree_id, AggNodeFabricInfo* agg_node, uint8_t plane);
    ~TreeNode();
    TreeNode(const TreeNode&) = delete;
    TreeNode& operator=(const TreeNode&) = delete;

    // "<switch port name> tree_id:<id>".
    std::string ToString() const;

    // Child edge number `index`, made on first use (edges never move once made).
    TreeEdge& ChildEdge(uint16_t index);

    // The parent's tree node, null for a root.
    TreeNode* GetParent() const { return parent_edge.far_end; }

    uint16_t tree_id;
    AggNodeFabricInfo* agg_node;
    uint8_t plane;
    uint16_t num_children = 0;  // child edges in use; the next free child index
    uint16_t child_index = 0;   // place among the parent's child edges
    TreeEdge parent_edge;
    std::deque<TreeEdge> child_edges;
    uint8_t linked_child_count = 0;  // host ports and linked switches; wraps
    std::list<const PortData*> host_ports;
    std::set<uint8_t> linked_child_indices;
};
