#include "cli/tree_render.h"

#include <map>
#include <set>
#include <sstream>
#include <unordered_set>

#include "cli/cli_support.h"

namespace aggtree::cli {

namespace {

using Json = nlohmann::ordered_json;

// The child at child index `index` ("null" far ends stay null).
const TreeNode* ChildAt(const TreeNode* node, uint16_t index) {
    if (index >= node->child_edges.size()) {
        return nullptr;
    }
    return node->child_edges[index].far_end;
}

std::string Plural(size_t count, const std::string& one, const std::string& many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// The Dragonfly+ group of a switch, or -1 when it belongs to none.
int GroupOf(const TreeNode* node) {
    if (node == nullptr || node->agg_node == nullptr) {
        return -1;
    }
    uint16_t island = GetAggNodeIslandId(node->agg_node);
    return island == kNoIslandId ? -1 : island;
}

std::string NodeLine(const TreeNode* node, const HostNames& names) {
    std::string line = SwitchName(node);
    int group = GroupOf(node);
    if (group >= 0) {
        line += " [group " + std::to_string(group) + "]";
    }
    if (node->num_children > 0) {
        line += "  (" + Plural(node->num_children, "child", "children") + ")";
    }
    if (!node->host_ports.empty()) {
        line += "  hosts: ";
        bool first = true;
        for (const PortData* port : node->host_ports) {
            line += first ? "" : ", ";
            line += port ? names.Name(port->port_guid, port->plane) : "?";
            first = false;
        }
    }
    return line;
}

void DrawSubtree(const TreeNode* node, const std::string& prefix, bool is_root, bool is_last,
                 const HostNames& names, std::unordered_set<const TreeNode*>& drawn,
                 std::string& out) {
    std::string branch = is_root ? "" : (is_last ? "└── " : "├── ");
    out += prefix + branch + NodeLine(node, names) + "\n";
    drawn.insert(node);
    std::string child_prefix = is_root ? "" : prefix + (is_last ? "    " : "│   ");
    for (uint16_t i = 0; i < node->num_children; ++i) {
        const TreeNode* child = ChildAt(node, i);
        bool last = i + 1 == node->num_children;
        if (child == nullptr) {
            out += child_prefix + (last ? "└── " : "├── ") + "(missing child)\n";
        } else if (drawn.count(child) != 0) {
            out += child_prefix + (last ? "└── " : "├── ") + SwitchName(child) + " (again)\n";
        } else {
            DrawSubtree(child, child_prefix, false, last, names, drawn, out);
        }
    }
}

std::string ScoreLine(const JobSubTreeInfo& info, const JobSubTreeScore& score) {
    std::ostringstream line;
    line << "Score: " << Plural(info.score_node_count, "switch", "switches") << ", "
         << Plural(info.score_leaf_count, "leaf switch", "leaf switches")
         << ", busiest switch carries " << Plural(info.score_max_active_trees, "tree", "trees")
         << ", " << info.score_total_active_trees << " active trees in all";
    if (score.min_parallel_links != UINT16_MAX) {
        line << ", weakest hop " << Plural(score.min_parallel_links, "link", "parallel links");
    }
    line << ", fewest free tree ids " << info.score_min_free_tree_ids << "\n";
    return line.str();
}

std::string DotQuote(const std::string& text) {
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c == '\n' ? ' ' : c;
    }
    return quoted + "\"";
}

std::string DotSwitchId(const TreeNode* node) {
    return DotQuote("sw " + GuidToString(node->agg_node ? node->agg_node->GetGuid() : 0));
}

}  // namespace

std::string SwitchName(const TreeNode* node) {
    if (node == nullptr || node->agg_node == nullptr) {
        return "?";
    }
    return node->agg_node->name;
}

std::vector<const TreeNode*> TreeNodesFromRoot(const JobSubTreeInfo& info) {
    std::vector<const TreeNode*> order;
    std::unordered_set<const TreeNode*> seen;
    std::vector<const TreeNode*> stack;
    for (const TreeNode* node : info.tree_nodes) {
        if (node != nullptr && node->GetParent() == nullptr) {
            stack.push_back(node);
            break;
        }
    }
    while (!stack.empty()) {
        const TreeNode* node = stack.back();
        stack.pop_back();
        if (!seen.insert(node).second) {
            continue;
        }
        order.push_back(node);
        for (uint16_t i = node->num_children; i > 0; --i) {
            const TreeNode* child = ChildAt(node, static_cast<uint16_t>(i - 1));
            if (child != nullptr) {
                stack.push_back(child);
            }
        }
    }
    for (const TreeNode* node : info.tree_nodes) {
        if (node != nullptr && seen.insert(node).second) {
            order.push_back(node);
        }
    }
    return order;
}

Json ResultToJson(int status, const ZeltaExtJobId& job_id, const JobSubTreeInfo& info,
                  const JobSubTreeScore& score) {
    Json result;
    result["status"] = status;
    result["job_id"] = job_id.ToString();
    result["tree_id"] = info.tree_id;
    result["second_tree_id"] = info.second_tree_id;
    result["plane"] = info.plane;
    if (info.root_node != nullptr) {
        result["root"] = info.root_node->name;
        result["root_guid"] = GuidToString(info.root_node->GetGuid());
    } else {
        result["root"] = nullptr;
        result["root_guid"] = nullptr;
    }
    result["root_node_attr"] = info.root_node_attr;
    result["error_text"] = info.error_text;
    Json nodes = Json::array();
    for (const TreeNode* node : info.tree_nodes) {
        if (node == nullptr) {
            continue;
        }
        Json entry;
        entry["switch"] = SwitchName(node);
        entry["guid"] = GuidToString(node->agg_node ? node->agg_node->GetGuid() : 0);
        const TreeNode* parent = node->GetParent();
        entry["parent"] = parent ? Json(SwitchName(parent)) : Json(nullptr);
        entry["child_index"] = node->child_index;
        entry["num_children"] = node->num_children;
        Json children = Json::array();
        for (uint16_t i = 0; i < node->num_children; ++i) {
            const TreeNode* child = ChildAt(node, i);
            children.push_back(child ? Json(SwitchName(child)) : Json(nullptr));
        }
        entry["children"] = std::move(children);
        Json host_ports = Json::array();
        for (const PortData* port : node->host_ports) {
            if (port != nullptr) {
                host_ports.push_back(GuidToString(port->port_guid));
            }
        }
        entry["host_ports"] = std::move(host_ports);
        nodes.push_back(std::move(entry));
    }
    result["tree_nodes"] = std::move(nodes);
    Json score_json;
    score_json["max_active_trees"] = info.score_max_active_trees;
    score_json["total_active_trees"] = info.score_total_active_trees;
    score_json["node_count"] = info.score_node_count;
    score_json["leaf_count"] = info.score_leaf_count;
    score_json["min_free_tree_ids"] = info.score_min_free_tree_ids;
    score_json["priority"] = info.score_priority;
    score_json["min_parallel_links"] = score.min_parallel_links;
    result["score"] = std::move(score_json);
    return result;
}

std::string RenderTextTree(const JobSubTreeInfo& info, const Fabric& fabric) {
    HostNames names(fabric);
    std::string out;
    std::unordered_set<const TreeNode*> drawn;
    for (const TreeNode* node : TreeNodesFromRoot(info)) {
        if (drawn.count(node) == 0) {
            DrawSubtree(node, "", true, true, names, drawn, out);
        }
    }
    return out;
}

std::string RenderTextResult(int status, const ZeltaExtJobId& job_id, const JobSubTreeInfo& info,
                             const JobSubTreeScore& score, const Fabric& fabric) {
    std::ostringstream out;
    if (status == 0) {
        out << "Tree " << info.tree_id;
        if (info.second_tree_id != 0xFFFF) {
            out << " (second tree " << info.second_tree_id << ")";
        }
        out << " for job " << job_id.ToString() << " on plane " << unsigned{info.plane} << ", root "
            << (info.root_node ? info.root_node->name : std::string("?")) << "\n\n";
        out << RenderTextTree(info, fabric) << "\n" << ScoreLine(info, score);
        return out.str();
    }
    out << "Job " << job_id.ToString() << " cannot be served (builder status " << status << ").\n";
    if (!info.tree_nodes.empty()) {
        out << "\nTree nodes the builder left in the record:\n" << RenderTextTree(info, fabric);
    }
    if (!info.error_text.empty()) {
        out << "\n" << info.error_text;
        if (info.error_text.back() != '\n') {
            out << "\n";
        }
    } else {
        out << "The builder gave no reason; run with --log-level TREES=4 to follow it.\n";
    }
    return out.str();
}

std::string RenderDot(const ZeltaExtJobId& job_id, const JobSubTreeInfo& info,
                      const Fabric& fabric) {
    HostNames names(fabric);
    std::vector<const TreeNode*> nodes = TreeNodesFromRoot(info);
    std::ostringstream dot;
    std::string title = "job " + job_id.ToString() + ", tree " + std::to_string(info.tree_id);
    if (info.root_node != nullptr) {
        title += ", root " + info.root_node->name;
    }
    dot << "digraph aggtree {\n";
    dot << "  graph [label=" << DotQuote(title) << ", labelloc=t];\n";
    dot << "  node [shape=box, style=rounded];\n";
    std::map<int, std::vector<const TreeNode*>> by_group;
    for (const TreeNode* node : nodes) {
        by_group[GroupOf(node)].push_back(node);
    }
    for (const auto& [group, members] : by_group) {
        std::string indent = "  ";
        if (group >= 0) {
            dot << "  subgraph " << DotQuote("cluster_group_" + std::to_string(group)) << " {\n";
            dot << "    label=" << DotQuote("group " + std::to_string(group)) << ";\n";
            indent = "    ";
        }
        for (const TreeNode* node : members) {
            dot << indent << DotSwitchId(node) << " [label=" << DotQuote(SwitchName(node));
            if (node->GetParent() == nullptr) {
                dot << ", penwidth=2";
            }
            dot << "];\n";
        }
        if (group >= 0) {
            dot << "  }\n";
        }
    }
    for (const TreeNode* node : nodes) {
        for (uint16_t i = 0; i < node->num_children; ++i) {
            const TreeNode* child = ChildAt(node, i);
            if (child != nullptr) {
                dot << "  " << DotSwitchId(node) << " -> " << DotSwitchId(child) << ";\n";
            }
        }
        for (const PortData* port : node->host_ports) {
            if (port == nullptr) {
                continue;
            }
            std::string id = DotQuote("host " + GuidToString(port->port_guid) + " plane " +
                                      std::to_string(port->plane));
            dot << "  " << id
                << " [shape=ellipse, label=" << DotQuote(names.Name(port->port_guid, port->plane))
                << "];\n";
            dot << "  " << DotSwitchId(node) << " -> " << id << ";\n";
        }
    }
    dot << "}\n";
    return dot.str();
}

}  // namespace aggtree::cli
