#include "fabric_model/tree_ledger.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace {

using NodeIndex = std::unordered_map<const TreeNode*, size_t>;

zelta_quota QuotaOf(const JobResource& resource) {
    zelta_quota quota;
    quota.units = resource.units;
    quota.buffers = resource.buffers;
    quota.groups = resource.groups;
    quota.queue_pairs = resource.queue_pairs;
    return quota;
}

std::string ResourcesText(uint32_t units, uint32_t buffers, uint32_t groups, uint32_t queue_pairs) {
    return "units " + std::to_string(units) + ", buffers " + std::to_string(buffers) + ", groups " +
           std::to_string(groups) + ", queue pairs " + std::to_string(queue_pairs);
}

// What the switch gives for the quota: all of it, or with quota mode 1 (no comparison)
// as much as it has.
SwitchResources TakenFor(const SwitchResources& free, const zelta_quota& quota,
                         uint8_t quota_mode) {
    SwitchResources taken{quota.units, quota.buffers, quota.groups, quota.queue_pairs};
    if (quota_mode == kQuotaModeSkipCheck) {
        taken.units = std::min(taken.units, free.units);
        taken.buffers = std::min(taken.buffers, free.buffers);
        taken.groups = std::min(taken.groups, free.groups);
        taken.queue_pairs = std::min(taken.queue_pairs, free.queue_pairs);
    }
    return taken;
}

// Why one switch of the tree cannot take the tree; empty when it can.
std::string CheckSwitch(const AggNodeFabricInfo& sw, uint16_t tree_id, const zelta_quota& quota,
                        uint8_t quota_mode) {
    const std::string id_text = std::to_string(tree_id);
    if (!sw.free_tree_ids.IsBitSet(tree_id)) {
        return "tree id " + id_text + " is not free on switch '" + sw.name + "'";
    }
    if (sw.GetTreeNode(tree_id) != nullptr) {
        return "switch '" + sw.name + "' already holds a tree node under tree id " + id_text;
    }
    const SwitchResources& free = sw.resources;
    if (quota_mode != kQuotaModeSkipCheck &&
        (quota.units > free.units || quota.buffers > free.buffers || quota.groups > free.groups ||
         quota.queue_pairs > free.queue_pairs)) {
        return "switch '" + sw.name +
               "' has not enough free resources for the job's quota (needs " +
               ResourcesText(quota.units, quota.buffers, quota.groups, quota.queue_pairs) +
               "; has " + ResourcesText(free.units, free.buffers, free.groups, free.queue_pairs) +
               ")";
    }
    return "";
}

bool EdgeStaysInTree(const TreeEdge& edge, const NodeIndex& index) {
    return (edge.own_end == nullptr || index.count(edge.own_end) != 0) &&
           (edge.far_end == nullptr || index.count(edge.far_end) != 0);
}

// Why the record's tree cannot be committed; empty when it can.  Fills `index` with the
// place of every tree node in the record's list.
std::string CheckCommittable(const JobSubTreeInfo& tree, const Fabric& fabric,
                             const zelta_quota& quota, uint8_t quota_mode, NodeIndex& index) {
    if (tree.tree_nodes.empty()) {
        return "the record holds no tree (commit what CreateTree built)";
    }
    if (tree.tree_id > fabric.max_tree_id || tree.tree_id == kDefaultTreeId) {
        return "the record's tree id " + std::to_string(tree.tree_id) +
               " is not one of the fabric's tree ids (0 to " + std::to_string(fabric.max_tree_id) +
               "; commit what CreateTree built)";
    }
    std::unordered_set<const AggNodeFabricInfo*> switches;
    bool root_in_tree = false;
    for (const TreeNode* node : tree.tree_nodes) {
        if (node == nullptr || node->agg_node == nullptr) {
            return "the record holds a tree node without a switch";
        }
        if (!switches.insert(node->agg_node).second) {
            return "switch '" + node->agg_node->name + "' stands twice in the tree";
        }
        index.emplace(node, index.size());
        root_in_tree = root_in_tree || node->agg_node == tree.root_node;
        std::string refusal = CheckSwitch(*node->agg_node, tree.tree_id, quota, quota_mode);
        if (!refusal.empty()) {
            return refusal;
        }
    }
    if (!root_in_tree) {
        return "the record's root is not a switch of its tree";
    }
    for (const TreeNode* node : tree.tree_nodes) {
        bool inside = EdgeStaysInTree(node->parent_edge, index);
        for (const TreeEdge& edge : node->child_edges) {
            inside = inside && EdgeStaysInTree(edge, index);
        }
        if (!inside) {
            return "the tree node of switch '" + node->agg_node->name +
                   "' has an edge to a node outside the tree";
        }
    }
    return "";
}

// The copy of `edge`, an edge of some node of the source tree (null stays null).
TreeEdge* MapEdge(const TreeEdge* edge, const NodeIndex& index,
                  std::vector<std::unique_ptr<TreeNode>>& copies) {
    if (edge == nullptr || edge->own_end == nullptr) {
        return nullptr;
    }
    const TreeNode* owner = edge->own_end;
    TreeNode& owner_copy = *copies[index.at(owner)];
    if (edge == &owner->parent_edge) {
        return &owner_copy.parent_edge;
    }
    for (size_t k = 0; k < owner->child_edges.size(); ++k) {
        if (edge == &owner->child_edges[k]) {
            return &owner_copy.ChildEdge(static_cast<uint16_t>(k));
        }
    }
    return nullptr;
}

void CopyEdge(const TreeEdge& from, TreeEdge& to, const NodeIndex& index,
              std::vector<std::unique_ptr<TreeNode>>& copies) {
    to.own_end = from.own_end ? copies[index.at(from.own_end)].get() : nullptr;
    to.far_end = from.far_end ? copies[index.at(from.far_end)].get() : nullptr;
    to.remote_edge = MapEdge(from.remote_edge, index, copies);
}

// The record's tree as new tree nodes under the record's tree id, not yet registered
// with their switches: same order, planes, counters, child indices, edges and host ports
// (copied into `ports`).
void CopyTree(const JobSubTreeInfo& tree, const NodeIndex& index,
              std::vector<std::unique_ptr<TreeNode>>& copies, std::deque<PortData>& ports) {
    for (const TreeNode* node : tree.tree_nodes) {
        copies.push_back(std::make_unique<TreeNode>(tree.tree_id, node->agg_node, node->plane));
        TreeNode& copy = *copies.back();
        copy.num_children = node->num_children;
        copy.child_index = node->child_index;
        copy.linked_child_count = node->linked_child_count;
        copy.linked_child_indices = node->linked_child_indices;
        for (const PortData* port : node->host_ports) {
            ports.push_back(*port);
            copy.host_ports.push_back(&ports.back());
        }
    }
    // Every node exists before any edge is copied: an edge points into its far end.
    size_t i = 0;
    for (const TreeNode* node : tree.tree_nodes) {
        TreeNode& copy = *copies[i++];
        for (size_t k = 0; k < node->child_edges.size(); ++k) {
            CopyEdge(node->child_edges[k], copy.ChildEdge(static_cast<uint16_t>(k)), index, copies);
        }
        CopyEdge(node->parent_edge, copy.parent_edge, index, copies);
    }
}

}  // namespace

TreeLedger::TreeLedger(Fabric& fabric) : m_fabric(fabric) {}

TreeLedger::~TreeLedger() {
    for (auto& [job, tree] : m_trees) {
        Restore(*tree);
    }
}

LedgerStatus TreeLedger::Commit(const JobSubTreeInfo& tree, const JobResource& resource) {
    const std::string job_text = tree.job_id.ToString();
    auto refuse = [&job_text](const std::string& why) {
        return LedgerStatus{1, "cannot commit the tree of job " + job_text + ": " + why};
    };
    if (auto held = m_trees.find(job_text); held != m_trees.end()) {
        return refuse("the job already holds committed tree " +
                      std::to_string(held->second->m_tree_id) + " (release it first)");
    }
    const zelta_quota quota = QuotaOf(resource);
    NodeIndex index;
    std::string refusal = CheckCommittable(tree, m_fabric, quota, resource.quota_mode, index);
    if (!refusal.empty()) {
        return refuse(refusal);
    }

    // Everything that can throw comes before the first change of the model.
    auto committed = std::make_unique<CommittedTree>();
    committed->m_job_id = tree.job_id;
    committed->m_tree_id = tree.tree_id;
    committed->m_plane = tree.plane;
    committed->m_root = tree.root_node;
    CopyTree(tree, index, committed->m_nodes, committed->m_ports);
    for (const auto& node : committed->m_nodes) {
        committed->m_taken.push_back(
            TakenFor(node->agg_node->resources, quota, resource.quota_mode));
    }
    CommittedTree& held = *committed;
    auto [slot, inserted] = m_trees.emplace(job_text, std::move(committed));
    (void)inserted;
    try {
        held.m_job_tree_id_change = m_fabric.AddJobTreeId(job_text, held.m_tree_id);
        try {
            for (const auto& node : held.m_nodes) {
                node->agg_node->AddTreeNode(held.m_tree_id, node.get());
            }
        } catch (...) {
            m_fabric.UndoJobTreeId(job_text, held.m_tree_id, held.m_job_tree_id_change);
            throw;
        }
    } catch (...) {
        m_trees.erase(slot);  // the nodes unregister themselves
        throw;
    }

    for (size_t i = 0; i < held.m_nodes.size(); ++i) {
        AggNodeFabricInfo& sw = *held.m_nodes[i]->agg_node;
        const SwitchResources& taken = held.m_taken[i];
        sw.free_tree_ids.SetBit2False(held.m_tree_id);
        ++sw.active_trees;
        sw.resources.units -= taken.units;
        sw.resources.buffers -= taken.buffers;
        sw.resources.groups -= taken.groups;
        sw.resources.queue_pairs -= taken.queue_pairs;
    }
    return {};
}

LedgerStatus TreeLedger::Release(const ZeltaExtJobId& job_id) {
    const std::string job_text = job_id.ToString();
    auto held = m_trees.find(job_text);
    if (held == m_trees.end()) {
        return {1,
                "cannot release the tree of job " + job_text + ": the job holds no committed tree"};
    }
    Restore(*held->second);
    m_trees.erase(held);  // the nodes unregister themselves
    return {};
}

const CommittedTree* TreeLedger::Find(const ZeltaExtJobId& job_id) const {
    auto held = m_trees.find(job_id.ToString());
    return held == m_trees.end() ? nullptr : held->second.get();
}

void TreeLedger::Restore(CommittedTree& tree) {
    for (size_t i = 0; i < tree.m_nodes.size(); ++i) {
        AggNodeFabricInfo& sw = *tree.m_nodes[i]->agg_node;
        const SwitchResources& taken = tree.m_taken[i];
        sw.free_tree_ids.SetBit2True(tree.m_tree_id);
        if (sw.active_trees > 0) {
            --sw.active_trees;
        }
        sw.resources.units += taken.units;
        sw.resources.buffers += taken.buffers;
        sw.resources.groups += taken.groups;
        sw.resources.queue_pairs += taken.queue_pairs;
    }
    m_fabric.UndoJobTreeId(tree.m_job_id.ToString(), tree.m_tree_id, tree.m_job_tree_id_change);
}
