// Merging with the raw group: folds an offered group that has no leaf of its own into
// the candidates a switch has built so far.
//
// Candidates are visited in the order of `out`.  For each, the raw group is either
// redundant (stop), makes the candidate redundant (a group of the raw group alone
// replaces it), matches its leaves while scoring worse (stop), adds nothing new (next
// candidate), or brings leaves the candidate lacks (a merged group is added and the
// candidate kept).  Groups made here go to the front of `out`; the survivors lose
// their order because removal swaps to the back.
//
// Cost: O(C * L) set look-ups for C candidates of up to L leaves, plus O(C^2) for the
// removals; the traces are built only when wanted.
#include <algorithm>
#include <string>
#include <vector>

#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

std::string PortName(const AggNodeFabricInfo* node) {
    return node->port_info->GetName();
}

void RefreshLeafHash(DescendantGroup& group) {
    group.leaves_hash = CalculateLeavesHash(group.leaf_nodes, LeafNodeGuidKey);
}

// True when every leaf of `inner` is a leaf of `outer` (also when `inner` has none).
bool ContainsAllLeaves(const DescendantGroup& outer, const DescendantGroup& inner) {
    return std::all_of(inner.leaf_nodes.begin(), inner.leaf_nodes.end(),
                       [&outer](AggNodeFabricInfo* leaf) { return outer.leaf_nodes.count(leaf); });
}

// The groups of `out`, one per line, for the traces.
std::string CandidatesText(const std::vector<DescendantGroup*>& out) {
    std::string text;
    for (const DescendantGroup* candidate : out) {
        text += "\n" + candidate->ToString(0);
    }
    return text;
}

// The raw group's up-links to the switch.  The message names the candidate's switch
// (which is the combining switch itself) twice; kept so for the logs' readers.
int32_t RawGroupParallelLinks(const DescendantGroup& raw, const DescendantGroup& candidate,
                              const QuasiFatTreeAnInfo& quasi_fat_tree_info) {
    auto map_it = quasi_fat_tree_info.map_valid_path_count_to_child.find(raw.node);
    TREES_ASSERT_IN("CombineGroupsWithRawGroup",
                    map_it != quasi_fat_tree_info.map_valid_path_count_to_child.end(),
                    "MapValidPathCount doesn't contain a value for a child: %s, on node: %s",
                    PortName(candidate.node).c_str(), PortName(quasi_fat_tree_info.node).c_str());
    return map_it->second;
}

// Groups are owned by the request's list and never const there; `raw` is only read
// through the member pointer.
DescendantGroup* AsMember(const DescendantGroup& raw) {
    return const_cast<DescendantGroup*>(&raw);
}

// A group of the raw group alone, standing in for a candidate it makes redundant.
DescendantGroup* ReplaceByRawGroup(const DescendantGroup& raw, const DescendantGroup& candidate,
                                   const QuasiFatTreeAnInfo& quasi_fat_tree_info,
                                   DescendantGroupList& groups) {
    DescendantGroup& replacement = groups.emplace_back(quasi_fat_tree_info.node);
    replacement.score = raw.score;
    replacement.children.push_back(AsMember(raw));
    replacement.leaf_nodes = raw.leaf_nodes;
    replacement.score.min_parallel_links =
        static_cast<uint16_t>(RawGroupParallelLinks(raw, candidate, quasi_fat_tree_info));
    replacement.UpdateLeafCoverage();
    RefreshLeafHash(replacement);
    return &replacement;
}

// The candidate joined with the raw group, rated by the worse of the two (raw's on a
// tie), the candidate's members placed before the raw group.
DescendantGroup* MergeWithRawGroup(const DescendantGroup& raw, const DescendantGroup& candidate,
                                   bool raw_better, const QuasiFatTreeAnInfo& quasi_fat_tree_info,
                                   DescendantGroupList& groups) {
    DescendantGroup& merged = groups.emplace_back(quasi_fat_tree_info.node);
    merged.score = raw_better ? candidate.score : raw.score;
    merged.leaf_nodes = raw.leaf_nodes;
    merged.leaf_nodes.insert(candidate.leaf_nodes.begin(), candidate.leaf_nodes.end());
    merged.children = candidate.children;
    merged.children.push_back(AsMember(raw));
    int32_t link_count = RawGroupParallelLinks(raw, candidate, quasi_fat_tree_info);
    if (link_count < static_cast<int32_t>(merged.score.min_parallel_links)) {
        merged.score.min_parallel_links = static_cast<uint16_t>(link_count);
    }
    merged.UpdateLeafCoverage();
    RefreshLeafHash(merged);
    return &merged;
}

// Drops the removed candidates by swapping them to the back, then puts the new groups
// in front in the order they were made.
void RewriteCandidates(std::vector<DescendantGroup*>& out,
                       const std::vector<DescendantGroup*>& to_remove,
                       const std::vector<DescendantGroup*>& new_groups) {
    const size_t initial_size = out.size();
    size_t removed = 0;
    for (DescendantGroup* candidate : to_remove) {
        auto found = std::find(out.begin(), out.end(), candidate);
        std::iter_swap(found,
                       out.begin() + static_cast<std::ptrdiff_t>(initial_size - 1 - removed));
        ++removed;
    }
    out.resize(initial_size - removed);
    out.insert(out.begin(), new_groups.begin(), new_groups.end());
}

}  // namespace

void OnDemandTreeCreator::CombineGroupsWithRawGroup(std::vector<DescendantGroup*>& out,
                                                    const DescendantGroup& raw,
                                                    JobSubTreeInfo& job_sub_tree_info,
                                                    const QuasiFatTreeAnInfo& quasi_fat_tree_info,
                                                    DescendantGroupList& groups) {
    if (log_check_level(kLogModuleFabric, kLogLevelDebug)) {
        std::string text = "raw:\n" + raw.ToString(0) + "\ncombined:" + CandidatesText(out);
        TREES_LOG(kLogLevelDebug, "MergeGroups %s\n", text.c_str());
    }

    std::vector<DescendantGroup*> new_groups;
    std::vector<DescendantGroup*> to_remove;
    for (DescendantGroup* candidate : out) {
        bool raw_better = candidate->score.IsWorseThan(raw.score, job_sub_tree_info);
        bool c_contains_raw = ContainsAllLeaves(*candidate, raw);
        TREES_LOG(kLogLevelDebug,
                  "MergeGroups combined DG_ID=%d combined_group_contains_raw_group=%d "
                  "raw_group_score_better_than_combined_group=%d\n",
                  static_cast<int>(candidate->id), c_contains_raw, raw_better);
        if (c_contains_raw && !raw_better) {
            TREES_LOG(kLogLevelDebug, "MergeGroups redundant raw group\n");
            break;
        }

        bool raw_contains_c = ContainsAllLeaves(raw, *candidate);
        bool c_better = raw.score.IsWorseThan(candidate->score, job_sub_tree_info);
        TREES_LOG(kLogLevelDebug,
                  "MergeGroups raw_group_contains_combined_group=%d "
                  "combined_group_score_better_than_raw_group=%d\n",
                  raw_contains_c, c_better);
        if (raw_contains_c && !c_better) {
            TREES_LOG(kLogLevelDebug, "MergeGroups redundant combined group\n");
            new_groups.push_back(ReplaceByRawGroup(raw, *candidate, quasi_fat_tree_info, groups));
            to_remove.push_back(candidate);
            continue;
        }
        if (raw.size() == candidate->size() && raw_contains_c) {
            break;  // the same leaves, and the candidate scores strictly better
        }
        if (c_contains_raw) {
            continue;  // nothing new from the raw group for this candidate
        }
        new_groups.push_back(
            MergeWithRawGroup(raw, *candidate, raw_better, quasi_fat_tree_info, groups));
    }

    RewriteCandidates(out, to_remove, new_groups);

    if (log_check_level(kLogModuleFabric, kLogLevelDebug)) {
        std::string text = CandidatesText(out);
        TREES_LOG(kLogLevelDebug, "MergeGroups result: %s\n", text.c_str());
    }
}
