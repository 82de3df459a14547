// Tree-id assignment: the last stage of every build, in both fabric shapes.
//
// It visits the job's tree nodes once, in the record's order (the order they were
// linked, root first): each is folded into the job's score, its switch's free tree ids
// are ANDed into the candidate set, and its plane is compared with the first non-zero
// plane met (a mix is reported, not refused).  Then the ids the job already holds are
// struck out, SAT ids excepted, and the lowest id left is taken.  The record receives
// tree id, plane and the score summary only on success.
//
// Cost: one score update and two word-wise ANDs per tree node, O(nodes * words) with
// words = ceil((max_tree_id + 1) / 64), at most 1024; one bit clear per job tree id;
// one scan that stops at the first non-zero word.  The two candidate arrays are the
// only memory taken and are released on every path; when neither can be allocated the
// refusal is marked as running out of memory, not as a verdict on the job.
#include <cstdint>
#include <set>

#include "common/am_bit_array.h"
#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"
#include "fabric_model/tree_node.h"
#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

int OnDemandTreeCreator::UpdateQuasiFatTreeJobSubTreeInfo(JobSubTreeInfo& job_sub_tree_info,
                                                          JobSubTreeScore& score) {
    const uint64_t tree_id_count = uint64_t{g_fabric->max_tree_id} + 1;
    // Both arrays are built alike; the second is searched only when the first yields
    // nothing (for instance when its allocation failed and it is empty).
    AMBitArray first_choice(tree_id_count);
    AMBitArray second_choice(tree_id_count);

    uint8_t plane = 0;
    for (TreeNode* tree_node : job_sub_tree_info.tree_nodes) {
        int rc = score.Update(*tree_node, true, kDefaultTreeId, job_sub_tree_info);
        if (rc != 0) {
            TREES_LOG(kLogLevelError, "Failed to update tree score with data of tree node: %s\n",
                      tree_node->ToString().c_str());
            job_sub_tree_info.error_text +=
                "Failed to update tree score with data of tree node: " + tree_node->ToString() +
                "\n";
            return rc;
        }

        first_choice.And(tree_node->agg_node->free_tree_ids);
        second_choice.And(tree_node->agg_node->free_tree_ids);

        // The reference plane is the first non-zero plane; a node on plane 0 never
        // conflicts with it.
        if (plane != 0 && tree_node->plane != 0 && tree_node->plane != plane) {
            TREES_LOG(kLogLevelError, "tree_node set contain mix of planes. %s",
                      tree_node->ToString().c_str());
        }
        if (plane == 0) {
            plane = tree_node->plane;
        }
    }

    std::set<uint16_t> job_tree_ids;
    g_fabric->GetJobTreeIds(job_sub_tree_info.job_id, job_tree_ids);
    for (uint16_t id : job_tree_ids) {
        if (g_fabric->IsSatTreeId(id)) {
            continue;  // SAT trees do not keep the job from reusing their id
        }
        first_choice.SetBit2False(id);
        second_choice.SetBit2False(id);
    }

    uint64_t tree_id = 0;
    if (!first_choice.FindFirstSet(tree_id) && !second_choice.FindFirstSet(tree_id)) {
        TREES_LOG(kLogLevelError, "Couldn't find any available tree id to use for the job\n");
        job_sub_tree_info.error_text += "Couldn't find any available tree id to use for the job\n";
        if (first_choice.GetBitCount() == 0 && second_choice.GetBitCount() == 0) {
            // Neither array could be allocated: no tree id was looked at, so the refusal
            // says nothing about the job.
            m_last_failure = {InternalFailure::kOutOfMemory,
                              "out of memory while choosing the tree id (the tree id arrays "
                              "could not be allocated)"};
        }
        return 1;
    }

    job_sub_tree_info.plane = plane;
    job_sub_tree_info.tree_id = static_cast<uint16_t>(tree_id);
    job_sub_tree_info.second_tree_id = 0xFFFF;  // no second tree
    job_sub_tree_info.score_max_active_trees = score.max_active_trees;
    job_sub_tree_info.score_total_active_trees = score.total_active_trees;
    job_sub_tree_info.score_node_count = score.node_count;
    job_sub_tree_info.score_leaf_count = score.leaf_count;
    job_sub_tree_info.score_min_free_tree_ids = score.min_free_tree_ids;
    job_sub_tree_info.score_priority = score.priority;
    return 0;
}
