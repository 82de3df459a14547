#include "support/service_run.h"

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
