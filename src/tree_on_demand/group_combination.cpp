// Group combination: the candidate groups of one switch from the groups its children
// offered (the record's child_groups).
//
// Offers are visited in the iteration order of child_groups.  When no job leaf is
// offered twice, one candidate takes every offer and is rated by its weakest member.
// When offers overlap they are walked largest first: an offer holding a leaf nobody
// else covers joins every candidate, the first offer seeds the first candidate, and
// any other offer is merged in by CombineGroupsWithRawGroup.  Finally each candidate
// is scored with the switch's default tree node, stopping at the first refusal.
//
// Cost: O(L) to count the L offered leaf memberships, plus, with overlaps, an
// O(R log R) sort of the R offers and O(C * L) work to grow the C candidates.
#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

using LeavesCountMap = std::unordered_map<AggNodeFabricInfo*, int32_t, AggNodeHash>;

std::string PortName(const AggNodeFabricInfo* node) {
    return node->port_info->GetName();
}

void RefreshLeafHash(DescendantGroup& group) {
    group.leaves_hash = CalculateLeavesHash(group.leaf_nodes, LeafNodeGuidKey);
}

// Counts in how many offers each leaf occurs; returns the highest count (0 for none).
int32_t CountOfferedLeaves(const QuasiFatTreeAnInfo& quasi_fat_tree_info,
                           LeavesCountMap& leaves_count) {
    int32_t max_count = 0;
    for (const auto& [hash, offered] : quasi_fat_tree_info.child_groups) {
        for (AggNodeFabricInfo* leaf : offered->leaf_nodes) {
            max_count = std::max(max_count, ++leaves_count[leaf]);
        }
    }
    return max_count;
}

// The parallel up-links from the switch of `member` to the combining switch.
int32_t ParallelLinksOf(const DescendantGroup& member,
                        const QuasiFatTreeAnInfo& quasi_fat_tree_info) {
    auto map_it = quasi_fat_tree_info.map_valid_path_count_to_child.find(member.node);
    TREES_ASSERT_IN("CombineGroups",
                    map_it != quasi_fat_tree_info.map_valid_path_count_to_child.end(),
                    "MapValidPathCount doesn't contain a value for a child: %s, on node: %s",
                    PortName(member.node).c_str(), PortName(quasi_fat_tree_info.node).c_str());
    return map_it->second;
}

// The weakest hop of a disjoint candidate: its own up-links and those inside members.
uint16_t FewestParallelLinks(const DescendantGroup& combined,
                             const QuasiFatTreeAnInfo& quasi_fat_tree_info) {
    int32_t fewest = UINT16_MAX;
    for (const DescendantGroup* child : combined.children) {
        auto link_count_iter = quasi_fat_tree_info.map_valid_path_count_to_child.find(child->node);
        TREES_ASSERT_IN("CombineGroups",
                        link_count_iter != quasi_fat_tree_info.map_valid_path_count_to_child.end(),
                        "Missing parallel link count from %s to %s",
                        PortName(quasi_fat_tree_info.node).c_str(), PortName(child->node).c_str());
        fewest = std::min({fewest, link_count_iter->second,
                           static_cast<int32_t>(child->score.min_parallel_links)});
    }
    return static_cast<uint16_t>(fewest);
}

void CombineDisjointGroups(const QuasiFatTreeAnInfo& quasi_fat_tree_info, TreeNode& tree_node,
                           std::vector<DescendantGroup*>& out, JobSubTreeInfo& job_sub_tree_info,
                           DescendantGroupList& groups) {
    AggNodeFabricInfo* node = quasi_fat_tree_info.node;
    DescendantGroup& combined = groups.emplace_back(node);
    const JobSubTreeScore* worst_score = nullptr;
    for (const auto& [hash, offered] : quasi_fat_tree_info.child_groups) {
        combined.leaf_nodes.insert(offered->leaf_nodes.begin(), offered->leaf_nodes.end());
        // A leaf's own seed group is part of this switch, not a member one level down.
        if (offered->node != node) {
            combined.children.push_back(offered);
        }
        if (worst_score == nullptr || offered->score.IsWorseThan(*worst_score, job_sub_tree_info)) {
            worst_score = &offered->score;
        }
    }
    TREES_ASSERT_IN("CombineGroups", worst_score, "raw_groups empty on AggNode: %s",
                    PortName(node).c_str());

    // A candidate is only as good as its weakest member.
    combined.score = *worst_score;
    if (combined.score.Update(tree_node, true, kDefaultTreeId, job_sub_tree_info) != 0) {
        TREES_LOG_IN("CombineGroups", kLogLevelDebug,
                     "CombineGroups Could not use TreeNode on: %s\n", PortName(node).c_str());
        return;
    }
    combined.score.min_parallel_links = FewestParallelLinks(combined, quasi_fat_tree_info);
    TREES_LOG_IN("CombineGroups", kLogLevelDebug,
                 "CombineGroups number_of_possible_links_to_use_in_job=%d group=%s",
                 static_cast<int>(combined.score.min_parallel_links), combined.ToString(0).c_str());
    combined.UpdateLeafCoverage();
    RefreshLeafHash(combined);
    out.push_back(&combined);
}

bool HasUniqueMember(const DescendantGroup& raw_group, const LeavesCountMap& leaves_count) {
    for (AggNodeFabricInfo* leaf : raw_group.leaf_nodes) {
        auto iter = leaves_count.find(leaf);
        TREES_ASSERT_IN("CombineGroups", iter != leaves_count.end(),
                        "leaf not found in leaves_count vector,  %s", PortName(leaf).c_str());
        if (iter->second == 1) {
            return true;
        }
    }
    return false;
}

// A group that alone reaches some leaf must be part of every candidate.
void AddToEveryCandidate(DescendantGroup& raw_group, std::vector<DescendantGroup*>& out,
                         JobSubTreeInfo& job_sub_tree_info,
                         const QuasiFatTreeAnInfo& quasi_fat_tree_info) {
    for (DescendantGroup* candidate : out) {
        candidate->leaf_nodes.insert(raw_group.leaf_nodes.begin(), raw_group.leaf_nodes.end());
        candidate->children.push_back(&raw_group);
        if (raw_group.score.IsWorseThan(candidate->score, job_sub_tree_info)) {
            candidate->score = raw_group.score;
        }
        int32_t link_count = ParallelLinksOf(raw_group, quasi_fat_tree_info);
        if (link_count < static_cast<int32_t>(candidate->score.min_parallel_links)) {
            candidate->score.min_parallel_links = static_cast<uint16_t>(link_count);
        }
        candidate->UpdateLeafCoverage();
        RefreshLeafHash(*candidate);
    }
}

// Only the hop up from the seed counts here, not the links inside it: the seed's own
// weakest hop is deliberately left out.
void SeedCandidate(DescendantGroup& raw_group, std::vector<DescendantGroup*>& out,
                   const QuasiFatTreeAnInfo& quasi_fat_tree_info, DescendantGroupList& groups) {
    DescendantGroup& candidate = groups.emplace_back(quasi_fat_tree_info.node);
    candidate.leaf_nodes = raw_group.leaf_nodes;
    candidate.children.push_back(&raw_group);
    candidate.score = raw_group.score;
    candidate.score.min_parallel_links =
        static_cast<uint16_t>(ParallelLinksOf(raw_group, quasi_fat_tree_info));
    candidate.UpdateLeafCoverage();
    RefreshLeafHash(candidate);
    out.push_back(&candidate);
}

}  // namespace

void OnDemandTreeCreator::CombineGroups(const QuasiFatTreeAnInfo& quasi_fat_tree_info,
                                        std::vector<DescendantGroup*>& out,
                                        JobSubTreeInfo& job_sub_tree_info,
                                        DescendantGroupList& groups) {
    AggNodeFabricInfo* node = quasi_fat_tree_info.node;
    TreeNode* p_tree_node = node->GetTreeNode(kDefaultTreeId);
    TREES_ASSERT(p_tree_node,
                 "AggNode: %s doesn't have default tree node that is required for quasi fat "
                 "tree algorithm",
                 PortName(node).c_str());
    TREES_LOG(kLogLevelDebug, "CombineGroups node: %s\n", PortName(node).c_str());

    LeavesCountMap leaves_count;
    int32_t max_count = CountOfferedLeaves(quasi_fat_tree_info, leaves_count);
    if (max_count == 0) {
        return;
    }
    if (max_count == 1) {
        CombineDisjointGroups(quasi_fat_tree_info, *p_tree_node, out, job_sub_tree_info, groups);
        return;
    }

    std::vector<DescendantGroup*> raw_groups;
    raw_groups.reserve(quasi_fat_tree_info.child_groups.size());
    for (const auto& [hash, offered] : quasi_fat_tree_info.child_groups) {
        raw_groups.push_back(offered);
    }
    std::sort(raw_groups.begin(), raw_groups.end(), DescendantGroupHasMoreLeaves);

    for (DescendantGroup* raw_group : raw_groups) {
        TREES_LOG(kLogLevelDebug, "CombineGroups Working on raw_group %s\n",
                  raw_group->ToString(0).c_str());
        bool group_has_unique_member = HasUniqueMember(*raw_group, leaves_count);
        if (group_has_unique_member) {
            TREES_LOG(kLogLevelDebug, "CombineGroups group_has_unique_member: %s\n",
                      raw_group->ToString(0).c_str());
        }
        if (out.empty()) {
            SeedCandidate(*raw_group, out, quasi_fat_tree_info, groups);
        } else if (group_has_unique_member) {
            AddToEveryCandidate(*raw_group, out, job_sub_tree_info, quasi_fat_tree_info);
        } else {
            CombineGroupsWithRawGroup(out, *raw_group, job_sub_tree_info, quasi_fat_tree_info,
                                      groups);
        }
    }

    // A refused candidate ends the scoring; it and the ones after it are still offered.
    for (DescendantGroup* candidate : out) {
        if (candidate->score.Update(*p_tree_node, true, kDefaultTreeId, job_sub_tree_info) != 0) {
            TREES_LOG(kLogLevelDebug, "CombineGroups Could not use TreeNode on: %s\n",
                      PortName(node).c_str());
            break;
        }
    }
}
