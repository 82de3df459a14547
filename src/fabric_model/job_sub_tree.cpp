#include "fabric_model/job_sub_tree.h"

#include <algorithm>
#include <tuple>

#include "fabric_model/agg_node.h"
#include "fabric_model/tree_node.h"

void JobSubTreeScore::Reset(const JobResource& job_resource, zelta_resource_priority prio) {
    *this = JobSubTreeScore();
    priority = prio;
    quota.units = job_resource.units;
    quota.buffers = job_resource.buffers;
    quota.groups = job_resource.groups;
    quota.queue_pairs = job_resource.queue_pairs;
    quota_mode = job_resource.quota_mode;
}

int JobSubTreeScore::Update(TreeNode& tree_node, bool /*is_new*/, uint16_t /*tree_id*/,
                            JobSubTreeInfo& /*job_info*/) {
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
        min_parallel_links = std::min(min_parallel_links, sw->CountLinksTo(parent->agg_node));
    }
    return 0;
}

bool JobSubTreeScore::IsWorseThan(const JobSubTreeScore& other, JobSubTreeInfo& /*job_info*/) const {
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
