// Tree request entry: turns a job's host ports into its leaf switches and runs the build.
//
// The ports are visited once in the manager's port order; each port costs one host
// lookup and at most one new default tree node, so the entry itself is O(ports log
// leaves).  Everything the build does after that is the dispatcher's.  A built tree is
// checked once more before success is reported (linear in the tree, tree_check.h): a
// tree that fails the check is never returned.  Every exception derived from
// std::exception that escapes the build becomes status 1 here, so the manager sees a
// plain failure and a cleared record; its text goes into the record's error text, so a
// failed request always says why.
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/options.h"
#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/tree_check.h"
#include "tree_on_demand/trees_log.h"

namespace {

using CreatedTreeNodes = std::vector<std::unique_ptr<TreeNode>>;

// The switch's default tree node; an entry holding null counts as absent.
TreeNode* FindDefaultTreeNode(const AggNodeFabricInfo& node) {
    return node.GetTreeNode(kDefaultTreeId);
}

// A fresh default tree node for a leaf, owned by the creator until its next request.
// Every leaf gets the job's plane, not the plane of the port that led to it, so the
// whole tree is built on one plane.
TreeNode* MakeLeafTreeNode(AggNodeFabricInfo& leaf, uint8_t job_plane, CreatedTreeNodes& created) {
    TreeNode* tree_node = nullptr;
    try {
        created.push_back(std::make_unique<TreeNode>(kDefaultTreeId, &leaf, job_plane));
        tree_node = created.back().get();
        leaf.AddTreeNode(kDefaultTreeId, tree_node);
    } catch (const std::bad_alloc&) {
        TREES_LOG_IN("CreateTree", kLogLevelError, "Failed to allocate new tree node at node: %s\n",
                     leaf.port_info->GetName().c_str());
        throw;
    }
    // A node made for this job starts with no children of an earlier one.
    tree_node->linked_child_count = 0;
    tree_node->host_ports.clear();
    tree_node->linked_child_indices.clear();
    return tree_node;
}

// The job summary.  The text is built only when the fabric trace is on and sent only
// when the builder's trace is on too: the manager gates the costly listing by the
// fabric module while the message itself belongs to the builder.
void LogJobSummary(const JobSubTreeInfo& job_sub_tree_info) {
    std::string nodes_text;
    unsigned long node_count = 0;
    if (log_check_level(kLogModuleFabric, kLogLevelDebug)) {
        for (const TreeNode* tree_node : job_sub_tree_info.tree_nodes) {
            nodes_text += tree_node->agg_node->port_info->GetName();
            nodes_text += "\n";
            ++node_count;
        }
    }
    TREES_LOG_IN("CreateTree", kLogLevelDebug, "job id: %s contain %lu ANs:\n%s",
                 job_sub_tree_info.job_id.ToString().c_str(), node_count, nodes_text.c_str());
}

}  // namespace

int OnDemandTreeCreator::RefuseBrokenTree(JobSubTreeInfo& job_sub_tree_info,
                                          const std::vector<JobLeafPort>& leaf_ports) {
    const std::string broken =
        FindBrokenTreeInvariant(job_sub_tree_info, leaf_ports, g_option_info.max_tree_children);
    if (broken.empty()) {
        return 0;
    }
    TREES_LOG_IN("CreateTree", kLogLevelError, "Tree of job %s failed the final check: %s\n",
                 job_sub_tree_info.job_id.ToString().c_str(), broken.c_str());
    m_last_failure = {InternalFailure::kBrokenTree, "internal error: " + broken};
    job_sub_tree_info.error_text += m_last_failure.text + "\n";
    return 1;
}

int OnDemandTreeCreator::CreateTree(const JobPortSet& ports, const JobResource& job_resource,
                                    const ZeltaExtJobId& job_id, JobSubTreeInfo& job_sub_tree_info,
                                    JobSubTreeScore& score) {
    job_sub_tree_info.Clear(true);
    m_last_failure = RequestFailure{};
    // The previous job's nodes go first, so no switch keeps pointing at them.
    for (std::unique_ptr<TreeNode>& tree_node : m_tree_nodes) {
        tree_node.reset();
    }
    m_tree_nodes.clear();

    if (ports.empty()) {
        // Beyond the entry's contract (the job's plane is its first port's), but a caller
        // that passes no port gets a refusal, not undefined behaviour.
        static constexpr const char* kNoPorts = "The job has no ports: there is no tree to build\n";
        job_sub_tree_info.job_id = job_id;
        job_sub_tree_info.error_text += kNoPorts;
        TREES_LOG(kLogLevelError, "Job %s: %s", job_id.ToString().c_str(), kNoPorts);
        return 1;
    }
    const uint8_t plane = (*ports.begin())->plane;
    job_sub_tree_info.plane = plane;
    job_sub_tree_info.job_id = job_id;

    LeafSwitchOrderedSet leaves;
    std::vector<JobLeafPort> leaf_ports;
    int status = 0;
    try {
        for (const PortData* port : ports) {
            const HcaPortKey port_key{port->port_guid, port->plane};
            AggNodeFabricInfo* leaf = g_fabric->GetSwitchThatIsConnectedToHost(port_key);
            if (leaf == nullptr) {
                // Deliberately left as it is: the caller sees which leaves were reached.
                job_sub_tree_info.error_text += "Port " + GuidToString(port->port_guid) +
                                                " (plane " + std::to_string(port->plane) +
                                                ") of the job is attached to no switch\n";
                return 1;
            }
            leaves.insert(leaf);
            leaf_ports.push_back({port_key, leaf});
            TreeNode* tree_node = FindDefaultTreeNode(*leaf);
            if (tree_node == nullptr) {
                tree_node = MakeLeafTreeNode(*leaf, plane, m_tree_nodes);
            }
            tree_node->host_ports.push_back(port);
            ++tree_node->linked_child_count;
        }
        score.Reset(job_resource, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
        job_sub_tree_info.job_id = job_id;
        status = BuildDynamicQuasiFatTree(leaves, job_resource, job_sub_tree_info, score);
        LogJobSummary(job_sub_tree_info);
        if (status == 0) {
            status = RefuseBrokenTree(job_sub_tree_info, leaf_ports);
        }
    } catch (const std::bad_alloc& exception) {
        TREES_LOG(kLogLevelError, "Exception caught: %s\n", exception.what());
        job_sub_tree_info.Clear(false);
        // Running out of memory says nothing about the job: the caller must not take it
        // for a refusal.
        m_last_failure = {
            InternalFailure::kOutOfMemory,
            std::string("out of memory while building the tree (") + exception.what() + ")"};
        job_sub_tree_info.error_text += m_last_failure.text + "\n";
        return 1;
    } catch (const std::exception& exception) {
        TREES_LOG(kLogLevelError, "Exception caught: %s\n", exception.what());
        job_sub_tree_info.Clear(false);
        job_sub_tree_info.error_text += std::string("Exception caught: ") + exception.what() + "\n";
        return 1;
    }
    if (status != 0) {
        job_sub_tree_info.Clear(false);
    }
    return status;
}
