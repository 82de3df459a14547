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

}  // namespace

std::string CheckTreeInvariants(const JobSubTreeInfo& info, const Fabric& fabric,
                                const std::vector<PortData>& ports, uint16_t max_tree_children) {
    std::vector<JobLeafPort> leaf_ports;
    for (const PortData& port : ports) {
        const HcaPortKey key{port.port_guid, port.plane};
        leaf_ports.push_back({key, fabric.GetSwitchThatIsConnectedToHost(key)});
    }
    std::string broken = FindBrokenTreeInvariant(info, leaf_ports, max_tree_children);
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
