// The job's result record and the score of a candidate tree or group.
//
// Score design.  A score rates a set of switches (a candidate group during the sweep,
// the whole tree at the end) for one job.  With the builder's priority
// (ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE) one score is worse than another when, in this
// order:
//   1. its busiest switch carries more active trees (max_active_trees), so that
//      concurrent jobs spread over the fabric instead of piling onto one spine;
//   2. its switches carry more active trees in all (total_active_trees);
//   3. it has fewer parallel links on its weakest hop (min_parallel_links), since more
//      parallel links leave more room for the aggregation traffic;
//   4. it uses more switches (node_count): fewer hops, fewer resources held.
// Equal on all four, neither is worse.  This is a lexicographic order on a key, hence
// a strict weak order.  Update refuses (returns 1) a tree node whose switch cannot host
// one more tree: no free tree id, or not enough free resources for the job's quota.
// Update counts on a node's hop to its parent only the links the job could use: usable,
// passing the job's lock demand and, inside an island, on the job's plane (the rules
// the sweep and the path search apply).  See docs/tree-score.md.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "fabric_model/identifiers.h"
#include "fabric_model/job_resource.h"

class AggNodeFabricInfo;
class TreeNode;
struct JobSubTreeInfo;

class JobSubTreeScore {
public:
    // An empty score.
    JobSubTreeScore() = default;

    // Prepares the score for the job: figures back to empty, the job's quota kept for
    // the checks of Update.
    void Reset(const JobResource& job_resource, zelta_resource_priority priority);

    // Folds a tree node in; 0 on success, 1 when its switch cannot host one more tree.
    int Update(TreeNode& tree_node, bool is_new, uint16_t tree_id, JobSubTreeInfo& job_info);

    // True when this score is strictly worse than `other`.
    bool IsWorseThan(const JobSubTreeScore& other, JobSubTreeInfo& job_info) const;

    // Result values, copied into the job record as its score summary.
    uint32_t max_active_trees = 0;            // most active trees on one switch
    uint32_t total_active_trees = 0;          // active trees over all switches folded in
    uint32_t node_count = 0;                  // switches of the group or tree
    uint32_t leaf_count = 0;                  // job leaf switches covered
    uint32_t min_free_tree_ids = UINT32_MAX;  // fewest free tree ids on one switch
    uint8_t priority = 0;                     // the zelta_resource_priority of Reset

    uint16_t min_parallel_links = UINT16_MAX;  // fewest parallel links on one hop

    zelta_quota quota;  // the job's quota, checked by Update
    uint8_t quota_mode = 0;
    bool lock_required = false;     // the job's lock demand, for counting usable links
    bool exclusive_demand = false;  // lock_required with the exclusive option
};

// The job's result record, owned by the caller.
struct JobSubTreeInfo {
    // Empties the record.  With `new_request` (the start of a request) everything goes,
    // the failure texts and job id included; without it (after a failure) the job id,
    // plane and failure texts stay so the job's owner can read why it failed.
    void Clear(bool new_request);

    std::list<TreeNode*> tree_nodes;  // in the order they were linked, root first
    uint32_t tree_nodes_count = 0;
    uint16_t tree_id = 0xFFFF;
    uint16_t second_tree_id = 0xFFFF;
    uint8_t plane = 0;
    AggNodeFabricInfo* root_node = nullptr;
    uint8_t root_node_attr = 0;
    std::string error_text;  // failure texts for the job's owner
    ZeltaExtJobId job_id;

    // Score summary, copied from the final score.
    uint32_t score_max_active_trees = 0;
    uint32_t score_total_active_trees = 0;
    uint32_t score_node_count = 0;
    uint32_t score_leaf_count = 0;
    uint32_t score_min_free_tree_ids = 0;
    uint8_t score_priority = 0;
};
