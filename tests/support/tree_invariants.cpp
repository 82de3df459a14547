#include "support/tree_invariants.h"

#include <set>

#include "fabric_model/tree_node.h"
#include "tree_on_demand/tree_check.h"

namespace {

// Whether the switch could serve any job at all and take one more tree.
std::string CheckUsableSwitch(const AggNodeFabricInfo& sw) {
    if (!sw.ServesJobs()) {
        return "switch " + sw.name + " serves no job (invalid, excluded or in mode 1)";
    }
    if (!sw.HasFreeTreeId()) {
        return "switch " + sw.name + " has no free tree id";
    }
    return "";
}

// The job's ports with the leaf switch the fabric attaches each to.
std::vector<JobLeafPort> LeafPortsOf(const Fabric& fabric, const std::vector<PortData>& ports) {
    std::vector<JobLeafPort> leaf_ports;
    for (const PortData& port : ports) {
        const HcaPortKey key{port.port_guid, port.plane};
        leaf_ports.push_back({key, fabric.GetSwitchThatIsConnectedToHost(key)});
    }
    return leaf_ports;
}

// The committed node mirrors the built one: same switch, plane, counters, parent and
// place under it, and host ports of the same values.
std::string CheckMirror(const TreeNode& committed, const TreeNode& built) {
    const std::string name = built.agg_node->name;
    if (committed.agg_node != built.agg_node) {
        return "committed node " + committed.agg_node->name + " stands where " + name +
               " was built";
    }
    if (committed.plane != built.plane || committed.num_children != built.num_children ||
        committed.child_index != built.child_index ||
        committed.linked_child_count != built.linked_child_count ||
        committed.linked_child_indices != built.linked_child_indices) {
        return "committed node of " + name + " differs from the built one";
    }
    const TreeNode* parent = committed.GetParent();
    const TreeNode* built_parent = built.GetParent();
    if ((parent == nullptr) != (built_parent == nullptr) ||
        (parent != nullptr && parent->agg_node != built_parent->agg_node)) {
        return "committed node of " + name + " has another parent than the built one";
    }
    if (parent != nullptr &&
        (committed.parent_edge.remote_edge != &parent->child_edges.at(committed.child_index) ||
         parent->child_edges.at(committed.child_index).remote_edge != &committed.parent_edge)) {
        return "the edges between " + name + " and its parent are not paired";
    }
    if (committed.host_ports.size() != built.host_ports.size()) {
        return "committed node of " + name + " carries another number of host ports";
    }
    auto port = built.host_ports.begin();
    for (const PortData* copy : committed.host_ports) {
        if (copy == *port || copy->port_guid != (*port)->port_guid ||
            copy->plane != (*port)->plane) {
            return "committed node of " + name + " does not carry its own copy of the ports";
        }
        ++port;
    }
    return "";
}

}  // namespace

std::string CheckTreeInvariants(const JobSubTreeInfo& info, const Fabric& fabric,
                                const std::vector<PortData>& ports, uint16_t max_tree_children) {
    std::string broken =
        FindBrokenTreeInvariant(info, LeafPortsOf(fabric, ports), max_tree_children);
    if (!broken.empty()) {
        return broken;
    }
    for (const TreeNode* node : info.tree_nodes) {
        broken = CheckUsableSwitch(*node->agg_node);
        if (!broken.empty()) {
            return broken;
        }
    }
    if (info.tree_id > fabric.max_tree_id) {
        return "tree id " + std::to_string(info.tree_id) + " above max_tree_id";
    }
    for (const TreeNode* node : info.tree_nodes) {
        if (!node->agg_node->free_tree_ids.IsBitSet(info.tree_id)) {
            return "tree id " + std::to_string(info.tree_id) + " is not free on " +
                   node->agg_node->name;
        }
    }
    std::set<uint16_t> held;
    fabric.GetJobTreeIds(info.job_id, held);
    if (held.count(info.tree_id) != 0 && !fabric.IsSatTreeId(info.tree_id)) {
        return "tree id " + std::to_string(info.tree_id) + " is already held by the job";
    }
    return "";
}

std::string CheckCommittedTree(const CommittedTree& committed, const JobSubTreeInfo& built,
                               const Fabric& fabric, const std::vector<PortData>& ports,
                               uint16_t max_tree_children) {
    JobSubTreeInfo view;
    for (const auto& node : committed.Nodes()) {
        view.tree_nodes.push_back(node.get());
    }
    view.tree_nodes_count = static_cast<uint32_t>(view.tree_nodes.size());
    view.root_node = committed.Root();
    std::string shape =
        FindBrokenTreeInvariant(view, LeafPortsOf(fabric, ports), max_tree_children);
    if (!shape.empty()) {
        return "committed tree: " + shape;
    }
    if (committed.TreeId() != built.tree_id || !(committed.JobId() == built.job_id) ||
        committed.Root() != built.root_node) {
        return "the committed tree's id, job or root is not the built tree's";
    }
    if (committed.Nodes().size() != built.tree_nodes.size()) {
        return "the committed tree has " + std::to_string(committed.Nodes().size()) +
               " nodes, the built one " + std::to_string(built.tree_nodes.size());
    }
    auto built_node = built.tree_nodes.begin();
    for (const auto& node : committed.Nodes()) {
        if (node.get() == *built_node) {
            return "the committed tree shares a node with the built one";
        }
        std::string mirror = CheckMirror(*node, **built_node++);
        if (!mirror.empty()) {
            return mirror;
        }
        const AggNodeFabricInfo& sw = *node->agg_node;
        if (node->tree_id != committed.TreeId() ||
            sw.GetTreeNode(committed.TreeId()) != node.get()) {
            return sw.name + " does not hold the committed node under tree id " +
                   std::to_string(committed.TreeId());
        }
        if (sw.free_tree_ids.IsBitSet(committed.TreeId())) {
            return "tree id " + std::to_string(committed.TreeId()) + " is still free on " + sw.name;
        }
    }
    std::set<uint16_t> held;
    fabric.GetJobTreeIds(committed.JobId(), held);
    if (held.count(committed.TreeId()) == 0) {
        return "the job's tree ids do not hold " + std::to_string(committed.TreeId());
    }
    return "";
}
