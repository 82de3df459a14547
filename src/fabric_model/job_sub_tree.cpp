#include "fabric_model/job_sub_tree.h"

#include <algorithm>
#include <tuple>

#include "fabric_model/agg_node.h"
#include "fabric_model/tree_node.h"

namespace {

// Links from `from` to `to` that a job could use: usable and passing its lock demand;
// links inside an island (the up and down paths) must also be on the job's plane, as
// the bottom-up sweep requires, while links between islands are taken as the path
// search takes them, whatever their plane.
uint16_t CountUsableLinks(const AggNode& from, const AggNode* to, uint8_t plane, bool lock_required,
                          bool exclusive_demand) {
    uint32_t count = 0;
    for (const AggPathsMap& paths : from.agg_paths) {
        auto it = paths.find(to);
        if (it == paths.end()) {
            continue;
        }
        for (const AggPath& path : it->second) {
            if (path.is_usable && path.plane == plane &&
                IsAggPathLockAvailable(path, lock_required, exclusive_demand)) {
                ++count;
            }
        }
    }
    for (const AggPath& link : from.sibling_links) {
        if (link.remote_node == to && link.is_usable &&
            IsAggPathLockAvailable(link, lock_required, exclusive_demand)) {
            ++count;
        }
    }
    return static_cast<uint16_t>(std::min<uint32_t>(count, UINT16_MAX));
}

}  // namespace

void JobSubTreeScore::Reset(const JobResource& job_resource, zelta_resource_priority prio) {
    *this = JobSubTreeScore();
    priority = prio;
    quota.units = job_resource.units;
    quota.buffers = job_resource.buffers;
    quota.groups = job_resource.groups;
    quota.queue_pairs = job_resource.queue_pairs;
    quota_mode = job_resource.quota_mode;
    lock_required = job_resource.IsLockRequired();
    exclusive_demand = lock_required && job_resource.IsExclusiveLock();
}

int JobSubTreeScore::Update(TreeNode& tree_node, bool /*is_new*/, uint16_t /*tree_id*/,
                            JobSubTreeInfo& job_info) {
    const AggNodeFabricInfo* sw = tree_node.agg_node;
    if (sw == nullptr || !sw->HasFreeTreeId()) {
        return 1;
    }
    AggNodeInfo info;
    if (!sw->HasQuota(quota, quota_mode, info)) {
        return 1;
    }
    max_active_trees = std::max(max_active_trees, sw->active_trees);
    total_active_trees += sw->active_trees;
    min_free_tree_ids = std::min(min_free_tree_ids, sw->CountFreeTreeIds());
    ++node_count;
    if (!tree_node.host_ports.empty()) {
        ++leaf_count;
    }
    const TreeNode* parent = tree_node.GetParent();
    if (parent != nullptr && parent->agg_node != nullptr) {
        min_parallel_links =
            std::min(min_parallel_links, CountUsableLinks(*sw, parent->agg_node, job_info.plane,
                                                          lock_required, exclusive_demand));
    }
    return 0;
}

bool JobSubTreeScore::IsWorseThan(const JobSubTreeScore& other,
                                  JobSubTreeInfo& /*job_info*/) const {
    // Larger key is worse; links count in reverse since more of them is better.
    auto key = [](const JobSubTreeScore& s) {
        return std::make_tuple(s.max_active_trees, s.total_active_trees,
                               UINT16_MAX - s.min_parallel_links, s.node_count);
    };
    return key(*this) > key(other);
}

void JobSubTreeInfo::Clear(bool new_request) {
    tree_nodes.clear();
    tree_nodes_count = 0;
    tree_id = 0xFFFF;
    second_tree_id = 0xFFFF;
    root_node = nullptr;
    root_node_attr = 0;
    score_max_active_trees = 0;
    score_total_active_trees = 0;
    score_node_count = 0;
    score_leaf_count = 0;
    score_min_free_tree_ids = 0;
    score_priority = 0;
    if (new_request) {
        plane = 0;
        error_text.clear();
        job_id = ZeltaExtJobId();
    }
}
