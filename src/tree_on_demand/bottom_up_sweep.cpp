// Bottom-up sweep: from the job's leaf switches upward, every admitted switch combines
// the groups its children offered, keeps the best one, and offers it to each parent
// reachable over a usable up-link.  A switch whose best group covers every leaf is a
// root candidate and is not climbed above.
//
// Switches are visited breadth first: the leaves in the order they were queued, then
// each parent in the order it was first reached (up-links in path-map order, then set
// order).  A switch is queued only when its record is made, so each is handled at most
// once.
//
// Cost: one admission check and one CombineGroups per switch reached, plus O(1) work
// per usable up-link.
#include <stdexcept>
#include <string>
#include <vector>

#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

std::string PortName(const AggNodeFabricInfo* node) {
    return node->port_info->GetName();
}

// The widest candidate; among equally wide ones the first unless a later one scores
// strictly better.
DescendantGroup* ChooseBestGroup(const std::vector<DescendantGroup*>& candidates,
                                 JobSubTreeInfo& job_sub_tree_info) {
    DescendantGroup* best = candidates.front();
    for (size_t i = 1; i < candidates.size(); ++i) {
        DescendantGroup* current = candidates[i];
        if (best == nullptr) {
            best = current;
            continue;
        }
        bool wider = current->size() > best->size();
        bool better = current->size() == best->size() &&
                      best->score.IsWorseThan(current->score, job_sub_tree_info);
        if (wider || better) {
            TREES_LOG_IN("QuasiFatTreeBFSBottomUp", kLogLevelDebug,
                         "curr_group_DG_id=%d (size=%zu) replaces best_group_DG_id=%d "
                         "(size=%zu)\n",
                         static_cast<int>(current->id), current->size(), static_cast<int>(best->id),
                         best->size());
            best = current;
        }
    }
    return best;
}

// Why the admission check turned a switch down, in the words of the fabric file.
std::string DescribeRefusal(const AggNodeFabricInfo& node, const JobResource& job_resource) {
    if (!node.IsValid()) {
        return "not valid";
    }
    if (node.is_excluded) {
        return "excluded";
    }
    if (node.mode == 1) {
        return "in mode 1";
    }
    const bool lock_required = job_resource.IsLockRequired();
    if (lock_required && job_resource.IsExclusiveLock() && !node.IsExclusiveLockAvailable()) {
        return "its exclusive lock is not available";
    }
    if (lock_required && !node.IsLockAvailable()) {
        return "its lock is not available";
    }
    zelta_quota quota{};
    quota.units = job_resource.units;
    quota.buffers = job_resource.buffers;
    quota.groups = job_resource.groups;
    quota.queue_pairs = job_resource.queue_pairs;
    AggNodeInfo info;
    if (!node.HasQuota(quota, job_resource.quota_mode, info)) {
        return "not enough free resources for the job's quota";
    }
    return "it lacks the required capability";
}

// Whether an up-link can carry the job on its plane with the locks it asks for.
bool IsUpLinkUsable(const AggPath& path, uint8_t plane, bool lock_required, bool exclusive_demand) {
    return path.is_usable && path.plane == plane &&
           IsAggPathLockAvailable(path, lock_required, exclusive_demand);
}

// What reaching a parent for the first time sets up: its record, its default tree
// node (owned by the creator) and its turn in the queue.
class ParentReacher {
public:
    ParentReacher(std::queue<AggNodeFabricInfo*>& bfs_queue,
                  QuasiFatTreeInfoMap& agg_node_to_quasi_fat_tree_info,
                  std::vector<std::unique_ptr<TreeNode>>& tree_nodes, uint8_t plane)
        : m_bfs_queue(bfs_queue),
          m_infos(agg_node_to_quasi_fat_tree_info),
          m_tree_nodes(tree_nodes),
          m_plane(plane) {}

    // The parent's record, made (with the rest) when the parent has none yet.
    QuasiFatTreeAnInfo& Reach(AggNodeFabricInfo* parent) {
        auto found = m_infos.find(parent);
        if (found != m_infos.end()) {
            return *found->second;
        }
        QuasiFatTreeAnInfo& info =
            *(m_infos[parent] = std::make_unique<QuasiFatTreeAnInfo>(parent));
        GiveDefaultTreeNode(parent);
        m_bfs_queue.push(parent);
        return info;
    }

private:
    void GiveDefaultTreeNode(AggNodeFabricInfo* parent) {
        try {
            m_tree_nodes.push_back(std::make_unique<TreeNode>(kDefaultTreeId, parent, m_plane));
            TreeNode* tree_node = m_tree_nodes.back().get();
            parent->AddTreeNode(kDefaultTreeId, tree_node);
            tree_node->linked_child_count = 0;
            tree_node->host_ports.clear();
            tree_node->linked_child_indices.clear();
        } catch (const std::bad_alloc&) {
            TREES_LOG_IN("QuasiFatTreeBFSBottomUp", kLogLevelError,
                         "Failed to allocate new tree node at node: %s\n",
                         PortName(parent).c_str());
            throw;
        }
    }

    std::queue<AggNodeFabricInfo*>& m_bfs_queue;
    QuasiFatTreeInfoMap& m_infos;
    std::vector<std::unique_ptr<TreeNode>>& m_tree_nodes;
    uint8_t m_plane;
};

// Offers the child's best group to the parent under its leaf-set hash.  A rival child
// offering the same leaves keeps the entry unless it scores worse, or scores the same
// with strictly fewer parallel links than the child has counted so far.
void OfferBestGroup(QuasiFatTreeAnInfo* parent_quasi_fat_tree_info, AggNodeFabricInfo* child,
                    DescendantGroup* best_group, JobSubTreeInfo& job_sub_tree_info) {
    auto [entry, inserted] =
        parent_quasi_fat_tree_info->child_groups.try_emplace(best_group->leaves_hash, best_group);
    DescendantGroup* offered = entry->second;
    if (inserted || offered->node == child) {
        return;  // new, or the child's own offer over another parallel path
    }
    auto count_per_child_of_identical_group_iter =
        parent_quasi_fat_tree_info->map_valid_path_count_to_child.find(offered->node);
    TREES_ASSERT_IN("QuasiFatTreeBFSBottomUp",
                    count_per_child_of_identical_group_iter !=
                        parent_quasi_fat_tree_info->map_valid_path_count_to_child.end(),
                    "MapValidPathCount doesn't contain a value for a child: %s, on node: %s",
                    PortName(offered->node).c_str(), PortName(child).c_str());
    if (offered->score.IsWorseThan(best_group->score, job_sub_tree_info)) {
        entry->second = best_group;
    } else if (best_group->score.IsWorseThan(offered->score, job_sub_tree_info)) {
        return;
    } else if (count_per_child_of_identical_group_iter->second <
               parent_quasi_fat_tree_info->map_valid_path_count_to_child[child]) {
        entry->second = best_group;
    }
}

}  // namespace

int OnDemandTreeCreator::QuasiFatTreeBFSBottomUp(
    std::queue<AggNodeFabricInfo*>& bfs_queue, QuasiFatTreeInfoMap& agg_node_to_quasi_fat_tree_info,
    RootCandidateMap& root_candidates, JobSubTreeInfo& job_sub_tree_info,
    const JobResource& job_resource, DescendantGroupList& descendant_groups,
    const LeafSwitchOrderedSet& leaf_switches, bool check_topology) {
    const size_t total_leaves = bfs_queue.size();
    const bool lock_required = job_resource.IsLockRequired();
    const bool exclusive_demand = lock_required && job_resource.IsExclusiveLock();
    ParentReacher reacher(bfs_queue, agg_node_to_quasi_fat_tree_info, m_tree_nodes,
                          job_sub_tree_info.plane);

    // A switch leaves the queue only when its turn is over; a failed turn leaves it there.
    for (; !bfs_queue.empty(); bfs_queue.pop()) {
        AggNodeFabricInfo* node = bfs_queue.front();
        if (!CheckIfAggNodeSatisfyJobRequest(*node, job_resource)) {
            TREES_LOG(kLogLevelDebug, "AggNode: %s doesn't satisfy job requirements\n",
                      PortName(node).c_str());
            if (leaf_switches.count(node) != 0) {
                TREES_LOG(kLogLevelDebug,
                          "AggNode: %s is a leaf switch, cannot build quasi fat tree\n",
                          PortName(node).c_str());
                job_sub_tree_info.error_text += "Leaf switch '" + node->name +
                                                "' cannot serve the job (" +
                                                DescribeRefusal(*node, job_resource) + ")\n";
                return 1;
            }
            continue;
        }

        auto it = agg_node_to_quasi_fat_tree_info.find(node);
        TREES_ASSERT(it != agg_node_to_quasi_fat_tree_info.end(),
                     "quasi_fat_tree_an_info not found for: %s", PortName(node).c_str());
        QuasiFatTreeAnInfo* quasi_fat_tree_info = it->second.get();

        std::vector<DescendantGroup*> candidates;
        CombineGroups(*quasi_fat_tree_info, candidates, job_sub_tree_info, descendant_groups);
        if (candidates.empty()) {
            TREES_LOG(kLogLevelError, "Failed to create any combined group on node: %s\n",
                      PortName(node).c_str());
            job_sub_tree_info.error_text +=
                "Failed to create any combined group on node: " + PortName(node) + "\n";
            return 1;
        }
        DescendantGroup* best_group = ChooseBestGroup(candidates, job_sub_tree_info);
        if (best_group == nullptr) {
            TREES_LOG(kLogLevelError,
                      "Failed to find a descendant_group that meets job requirements\n");
            job_sub_tree_info.error_text +=
                "Failed to find a descendant_group that meets job requirements\n";
            return 1;
        }
        TREES_LOG(kLogLevelDebug, "best among combined groups DG_ID: %d\n",
                  static_cast<int>(best_group->id));
        quasi_fat_tree_info->best_group = best_group;

        if (best_group->size() == total_leaves) {
            bool deferred = false;
            if (check_topology) {
                uint32_t kind = node->port_info->topology_kind;
                if (kind != 1 && kind != 3) {
                    throw std::logic_error("not tree or DFP topology");
                }
                deferred = node->port_info->defer_root;
            }
            if (!deferred) {
                root_candidates[node] = quasi_fat_tree_info;
                continue;  // nothing above a root candidate is needed
            }
        }

        for (const auto& [far_end, paths] : node->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP)) {
            for (const AggPath& path : paths) {
                if (!IsUpLinkUsable(path, job_sub_tree_info.plane, lock_required,
                                    exclusive_demand)) {
                    continue;
                }
                auto* parent_node = dynamic_cast<AggNodeFabricInfo*>(path.remote_node);
                TREES_ASSERT(parent_node, "dynamic_cast<AggNodeFabricInfo *> failed on AggPath");
                QuasiFatTreeAnInfo& parent_info = reacher.Reach(parent_node);
                ++parent_info.map_valid_path_count_to_child[node];
                OfferBestGroup(&parent_info, node, best_group, job_sub_tree_info);
            }
        }
    }
    return 0;
}
