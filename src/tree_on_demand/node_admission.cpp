// Node admission: may this switch serve this job at all?
//
// The cheap tests run first and the first that fails ends the check: validity,
// exclusion, mode, then the locks the job asks for, then the quota (the most expensive
// test), then the capability when the job demands it.  Nothing is reserved and nothing
// is logged here; the bottom-up sweep reports a refusal.
#include "fabric_model/agg_node.h"
#include "fabric_model/job_resource.h"
#include "tree_on_demand/on_demand_tree_creator.h"

bool OnDemandTreeCreator::CheckIfAggNodeSatisfyJobRequest(const AggNodeFabricInfo& node,
                                                          const JobResource& job_resource) const {
    if (!node.IsValid()) {
        return false;
    }
    if (node.is_excluded) {
        return false;
    }

    // The second quantity (payload) describes the job's operations, not what a switch
    // must have free, so it is not handed to the quota test and stays 0.
    zelta_quota quota{};
    quota.units = job_resource.units;
    quota.buffers = job_resource.buffers;
    quota.groups = job_resource.groups;
    quota.queue_pairs = job_resource.queue_pairs;

    if (node.mode == 1) {
        return false;
    }

    const bool lock_required = job_resource.IsLockRequired();
    const bool exclusive_lock = job_resource.IsExclusiveLock();
    if (exclusive_lock && lock_required) {
        if (!node.IsExclusiveLockAvailable()) {
            return false;
        }
        if (!node.IsLockAvailable()) {
            return false;
        }
    } else if (lock_required) {
        if (!node.IsLockAvailable()) {
            return false;
        }
    }

    AggNodeInfo info;
    if (!node.HasQuota(quota, job_resource.quota_mode, info)) {
        return false;
    }

    if (job_resource.requires_node_capability) {
        return node.HasRequiredCapability();
    }
    return true;
}
