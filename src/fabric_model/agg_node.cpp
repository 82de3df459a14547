#include "fabric_model/agg_node.h"

#include <bit>
#include <tuple>

#include "fabric_model/tree_node.h"

bool AggPath::operator<(const AggPath& other) const {
    return std::tie(remote_node, link_id) < std::tie(other.remote_node, other.link_id);
}

bool IsAggPathLockAvailable(const AggPath& path, bool lock_required, bool exclusive_demand) {
    if (exclusive_demand) {
        return !path.exclusively_locked && path.exclusive_lock_count < path.lock_limit &&
               path.lock_count < path.lock_limit;
    }
    if (lock_required) {
        return !path.exclusively_locked && path.lock_count < path.lock_limit;
    }
    return true;
}

uint16_t GetAggNodeIslandId(const AggNode* node) {
    if (node == nullptr || node->port_info == nullptr) {
        return kNoIslandId;
    }
    uint32_t kind = node->port_info->topology_kind;
    return (kind == 2 || kind == 3) ? node->port_info->dfp_group_id : kNoIslandId;
}

const AggPathsMap& AggNode::GetAggPathsByDirection(AggPathDirection direction) const {
    return agg_paths[direction == AGG_PATH_DIRECTION_UP ? 0 : 1];
}

void AggNode::GetAdjacentSiblings(bool lock_required, bool exclusive_lock, AggNodeSet& siblings,
                                  AggNodeMap<uint16_t>* link_counts) const {
    bool exclusive_demand = lock_required && exclusive_lock;
    for (const AggPath& link : sibling_links) {
        if (!link.is_usable || link.remote_node == nullptr || !link.remote_node->ServesJobs()) {
            continue;
        }
        if (!IsAggPathLockAvailable(link, lock_required, exclusive_demand)) {
            continue;
        }
        siblings.insert(link.remote_node);
        if (link_counts != nullptr) {
            ++(*link_counts)[link.remote_node];
        }
    }
}

uint16_t AggNode::CountLinksTo(const AggNode* other) const {
    uint32_t count = 0;
    for (const AggPathsMap& paths : agg_paths) {
        auto it = paths.find(other);
        if (it != paths.end()) {
            count += static_cast<uint32_t>(it->second.size());
        }
    }
    for (const AggPath& link : sibling_links) {
        if (link.remote_node == other) {
            ++count;
        }
    }
    return static_cast<uint16_t>(count > UINT16_MAX ? UINT16_MAX : count);
}

int AggNodeFabricInfo::AddTreeNode(uint16_t tree_id, TreeNode* tree_node) {
    TreeNode*& slot = tree_nodes_by_id[tree_id];
    int replaced = (slot != nullptr && slot != tree_node) ? 1 : 0;
    slot = tree_node;
    return replaced;
}

void AggNodeFabricInfo::RemoveTreeNode(uint16_t tree_id, const TreeNode* tree_node) {
    auto it = tree_nodes_by_id.find(tree_id);
    if (it != tree_nodes_by_id.end() && it->second == tree_node) {
        tree_nodes_by_id.erase(it);
    }
}

TreeNode* AggNodeFabricInfo::GetTreeNode(uint16_t tree_id) const {
    auto it = tree_nodes_by_id.find(tree_id);
    return it == tree_nodes_by_id.end() ? nullptr : it->second;
}

bool AggNodeFabricInfo::HasQuota(const zelta_quota& quota, uint8_t quota_mode,
                                 AggNodeInfo& info) const {
    info.free_units = resources.units;
    info.free_buffers = resources.buffers;
    info.free_groups = resources.groups;
    info.free_queue_pairs = resources.queue_pairs;
    info.resource_to_free[AGG_NODE_RESOURCE_UNITS] = resources.units;
    info.resource_to_free[AGG_NODE_RESOURCE_BUFFERS] = resources.buffers;
    info.resource_to_free[AGG_NODE_RESOURCE_GROUPS] = resources.groups;
    info.resource_to_free[AGG_NODE_RESOURCE_QUEUE_PAIRS] = resources.queue_pairs;
    if (quota_mode == kQuotaModeSkipCheck) {
        return true;
    }
    // payload is a property of the job's operations, not a switch resource.
    return quota.units <= resources.units && quota.buffers <= resources.buffers &&
           quota.groups <= resources.groups && quota.queue_pairs <= resources.queue_pairs;
}

bool AggNodeFabricInfo::HasFreeTreeId() const {
    uint64_t first = 0;
    return free_tree_ids.FindFirstSet(first);
}

uint32_t AggNodeFabricInfo::CountFreeTreeIds() const {
    uint64_t count = 0;
    const uint64_t* words = free_tree_ids.GetWords();
    for (uint64_t i = 0; i < free_tree_ids.GetWordCount(); ++i) {
        uint64_t word = words[i];
        if (i + 1 == free_tree_ids.GetWordCount() && free_tree_ids.GetTailBits() != 0) {
            word &= (uint64_t{1} << free_tree_ids.GetTailBits()) - 1;  // drop padding bits
        }
        count += static_cast<uint64_t>(std::popcount(word));
    }
    return static_cast<uint32_t>(count);
}
