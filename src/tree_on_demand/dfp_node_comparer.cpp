// DfpNodeComparer: decides whether a candidate node beats the current best one and
// names the rule that decided, so that every choice of the Dragonfly+ builder can be
// followed in the trace.
//
// Order of the rules: no current best; childless islands (job islands win); different
// job islands (more outbound links win); one island (the better island-tree score wins,
// only when a job record is given).  Ties keep the current best.
//
// Cost: two island-map look-ups, and two more in the island's sweep map for the score
// rule.
#include "tree_on_demand/dfp_records.h"
#include "tree_on_demand/trees_log.h"

namespace {

AggNodeFabricInfo* AsFabricInfo(const AggNode* node) {
    // The sweep maps are keyed by mutable switches; the comparer only reads them.
    return const_cast<AggNodeFabricInfo*>(dynamic_cast<const AggNodeFabricInfo*>(node));
}

// The decision itself; `reason` is overwritten only by a rule that decides.
bool DecideCandidateBetter(const DfpIslandMap& map_island_info, const AggNode* p_curr_best,
                           const AggNode* p_candidate, JobSubTreeInfo* job_info,
                           const char*& reason) {
    if (p_curr_best == nullptr) {
        reason = "no_best_yet";
        return true;
    }
    TREES_ASSERT_IN("operator()", p_candidate, "p_candidate==null");

    const int island1 = GetAggNodeIslandId(p_curr_best);
    const int island2 = GetAggNodeIslandId(p_candidate);
    auto island_iter1 = map_island_info.find(static_cast<uint16_t>(island1));
    auto island_iter2 = map_island_info.find(static_cast<uint16_t>(island2));
    const bool in_map1 = island_iter1 != map_island_info.end();
    const bool in_map2 = island_iter2 != map_island_info.end();

    // A node of a childless island has no subtree under it: a job island is preferred.
    if (in_map1 && !in_map2) {
        reason = "candidate_childless_island";
        return false;
    }
    if (!in_map1 && !in_map2) {
        reason = "both_childless_island";
        return false;
    }
    if (in_map2 && !in_map1) {
        reason = "curr_childless_island";
        return true;
    }

    const DfpIslandInfo* p_island_info1 = island_iter1->second.get();
    const DfpIslandInfo* p_island_info2 = island_iter2->second.get();
    if (island1 != island2) {
        // Between islands, the better connected one is the better hub.
        TREES_LOG_IN("operator()", kLogLevelDebug,
                     "island1: %d avail_conn: %d. island2: %d avail_conn: %d\n", island1,
                     p_island_info1->outbound_links, island2, p_island_info2->outbound_links);
        if (p_island_info1->outbound_links == p_island_info2->outbound_links) {
            return false;
        }
        reason = "outbound_links";
        return p_island_info1->outbound_links < p_island_info2->outbound_links;
    }

    if (job_info == nullptr) {
        reason = "same_island";
        return false;
    }
    reason = "same_island_qft_score";
    auto iter_qft_info1 =
        p_island_info1->agg_node_to_quasi_fat_tree_info.find(AsFabricInfo(p_curr_best));
    TREES_ASSERT_IN(
        "operator()", iter_qft_info1 != p_island_info1->agg_node_to_quasi_fat_tree_info.end(),
        "Missing QFT info for island_id: %d node1: %s", island1, p_curr_best->name.c_str());
    auto iter_qft_info2 =
        p_island_info1->agg_node_to_quasi_fat_tree_info.find(AsFabricInfo(p_candidate));
    TREES_ASSERT_IN(
        "operator()", iter_qft_info2 != p_island_info1->agg_node_to_quasi_fat_tree_info.end(),
        "Missing QFT info for island_id: %d node2: %s", island1, p_candidate->name.c_str());

    const DescendantGroup* best_group1 = iter_qft_info1->second->best_group;
    const DescendantGroup* best_group2 = iter_qft_info2->second->best_group;
    // A switch that the sweep reached but never rated has no island tree to offer.
    if (best_group2 == nullptr) {
        return false;
    }
    if (best_group1 == nullptr) {
        return true;
    }
    return best_group1->score.IsWorseThan(best_group2->score, *job_info);
}

}  // namespace

bool DfpNodeComparer::IsCandidateBetter(const AggNode* curr_best, const AggNode* candidate,
                                        JobSubTreeInfo* job_info) const {
    const char* reason = "curr_best_good_enough";
    const bool candidate_better =
        DecideCandidateBetter(*map_island_info, curr_best, candidate, job_info, reason);
    TREES_LOG_IN("IsCandidateBetter", kLogLevelDebug,
                 "NodeCompare: curr_best: %s candidate: %s. candidate_better?: %d. reason: %s\n",
                 curr_best ? curr_best->name.c_str() : "<null>",
                 candidate ? candidate->name.c_str() : "<null>", candidate_better ? 1 : 0, reason);
    return candidate_better;
}
