#include "support/service_run.h"

#include <set>
#include <sstream>

#include "fabric_model/tree_node.h"

std::string TreeSignature(const JobSubTreeInfo& info) {
    std::ostringstream text;
    if (info.tree_nodes.empty()) {
        text << "no tree: " << info.error_text;
        return text.str();
    }
    text << "tree " << info.tree_id << " plane " << static_cast<int>(info.plane) << " root "
         << (info.root_node != nullptr ? info.root_node->name : std::string("none")) << "\n";
    for (const TreeNode* node : info.tree_nodes) {
        const TreeNode* parent = node->GetParent();
        text << node->agg_node->name << " parent "
             << (parent != nullptr ? parent->agg_node->name : std::string("none")) << " index "
             << node->child_index << " children";
        for (uint16_t i = 0; i < node->num_children; ++i) {
            text << " " << node->child_edges.at(i).far_end->agg_node->name;
        }
        text << " hosts";
        for (const PortData* port : node->host_ports) {
            text << " " << GuidToString(port->port_guid);
        }
        text << "\n";
    }
    text << "score " << info.score_max_active_trees << " " << info.score_total_active_trees << " "
         << info.score_node_count << " " << info.score_leaf_count << " "
         << info.score_min_free_tree_ids << "\n";
    return text.str();
}

std::string CheckRegisteredTreeNodes(const Fabric& fabric, const OnDemandTreeCreator& creator) {
    std::set<const TreeNode*> made;
    for (const std::unique_ptr<TreeNode>& node : creator.GetCreatedTreeNodes()) {
        if (node == nullptr) {
            continue;
        }
        made.insert(node.get());
    }
    for (const AggNodeFabricInfo& sw : fabric.Switches()) {
        for (const auto& [tree_id, node] : sw.tree_nodes_by_id) {
            if (node == nullptr) {
                continue;
            }
            if (made.count(node) == 0) {
                return sw.name + " holds a tree node under tree id " + std::to_string(tree_id) +
                       " that the last request did not make";
            }
            if (node->agg_node != &sw || node->tree_id != tree_id) {
                return sw.name + " holds the tree node of another switch or tree id";
            }
        }
    }
    return "";
}
