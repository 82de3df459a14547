// Build dispatcher: sorts the job's leaf switches into islands, sweeps each island
// bottom-up, then links one root top-down (one island, a quasi fat tree) or joins the
// island trees (several islands, Dragonfly+), and finally assigns the tree id.
//
// Leaves are visited in address order, so their seed groups are numbered in that
// order; islands are taken in the island map's order and each island is seeded,
// swept and checked completely before the next one starts.  Forming islands and
// seeding cost O(leaves); the rest is the cost of the stages called.
#include <memory>
#include <string>

#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

constexpr const char* kDispatcher = "BuildDynamicQuasiFatTree";

// A leaf of a Dragonfly+ group joins its group's island, any other leaf island 65535,
// so a plain quasi fat tree is a single island.
void FormIslands(const LeafSwitchOrderedSet& leaves, DfpIslandMap& islands) {
    for (AggNodeFabricInfo* leaf : leaves) {
        const uint16_t island_id = GetAggNodeIslandId(leaf);
        std::unique_ptr<DfpIslandInfo>& island = islands[island_id];
        if (!island) {
            island = std::make_unique<DfpIslandInfo>();
            island->island_id = island_id;
        }
        island->island_leaves.insert(leaf);
    }
}

// Gives one leaf its seed group: the leaf alone, offered to itself over one path, so
// the sweep treats a leaf like any switch whose children offered groups.  Returns
// false when the leaf's tree node cannot serve the job.
bool SeedLeaf(AggNodeFabricInfo* leaf, DfpIslandInfo& island, const JobResource& job_resource,
              JobSubTreeInfo& job_sub_tree_info) {
    island.bfs_queue.push(leaf);
    TreeNode* leaf_tree_node = leaf->GetTreeNode(kDefaultTreeId);
    TREES_ASSERT_IN(kDispatcher, leaf_tree_node,
                    "Leaf node: %s doesn't have default tree node that is required for quasi "
                    "fat tree algorithm",
                    leaf->port_info->GetName().c_str());

    DescendantGroup& group = island.descendant_groups.emplace_back(leaf);
    group.score.Reset(job_resource, ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE);
    if (group.score.Update(*leaf_tree_node, true, kDefaultTreeId, job_sub_tree_info) != 0) {
        TREES_LOG_IN(kDispatcher, kLogLevelDebug, "Failed to use TreeNode on: %s\n",
                     leaf->port_info->GetName().c_str());
        job_sub_tree_info.error_text += "Leaf switch '" + leaf->name +
                                        "' cannot take one more tree (no free tree id, or not "
                                        "enough free resources for the job's quota)\n";
        return false;
    }
    group.leaf_nodes.insert(leaf);

    std::unique_ptr<QuasiFatTreeAnInfo>& info = island.agg_node_to_quasi_fat_tree_info[leaf];
    info = std::make_unique<QuasiFatTreeAnInfo>(leaf);
    group.leaves_hash = CalculateLeavesHash(group.leaf_nodes, LeafNodeGuidKey);
    info->map_valid_path_count_to_child[leaf] = 1;
    info->child_groups.emplace(group.leaves_hash, &group);
    return true;
}

void LogIslandRoots(const DfpIslandInfo& island) {
    if (!TREES_LOG_ENABLED(kLogLevelDebug)) {
        return;
    }
    std::string roots_text;
    for (const auto& [root, info] : island.root_candidates) {
        roots_text += "\n\t";
        roots_text += root->name;
    }
    TREES_LOG_IN(kDispatcher, kLogLevelDebug,
                 "After DfpTreeBFSBottomup() island_id: %u. n_island_roots=%zu\nNodes: %s\n",
                 static_cast<unsigned>(island.island_id), island.root_candidates.size(),
                 roots_text.c_str());
}

// The best root candidate: the first in address order unless a later one scores
// strictly better, so equal candidates keep the lowest address.
QuasiFatTreeAnInfo* PickRoot(const RootCandidateMap& root_candidates,
                             JobSubTreeInfo& job_sub_tree_info) {
    QuasiFatTreeAnInfo* best = root_candidates.begin()->second;
    for (const auto& [node, candidate] : root_candidates) {
        if (best->best_group->score.IsWorseThan(candidate->best_group->score, job_sub_tree_info)) {
            best = candidate;
        }
    }
    return best;
}

}  // namespace

int OnDemandTreeCreator::BuildDynamicQuasiFatTree(const LeafSwitchOrderedSet& leaves,
                                                  const JobResource& job_resource,
                                                  JobSubTreeInfo& job_sub_tree_info,
                                                  JobSubTreeScore& score) {
    DfpIslandMap islands;
    NodesInTreeSet nodes_in_tree;
    FormIslands(leaves, islands);
    // Root candidates must be true tree or Dragonfly+ roots only when islands are joined.
    const bool check_topology = islands.size() > 1;

    for (auto& [island_id, island] : islands) {
        for (AggNodeFabricInfo* leaf : island->island_leaves) {
            if (!SeedLeaf(leaf, *island, job_resource, job_sub_tree_info)) {
                return 1;
            }
        }
        int status = QuasiFatTreeBFSBottomUp(
            island->bfs_queue, island->agg_node_to_quasi_fat_tree_info, island->root_candidates,
            job_sub_tree_info, job_resource, island->descendant_groups, island->island_leaves,
            check_topology);
        if (status != 0) {
            return status;
        }
        for (const auto& [root, info] : island->root_candidates) {
            island->island_roots.insert(root);
        }
        if (island->root_candidates.empty()) {
            static constexpr const char* kNoRoot =
                "Failed to find any root switch that spans all the required leaf switches for "
                "the job\n";
            job_sub_tree_info.error_text += kNoRoot;
            TREES_LOG(kLogLevelError, "%s", kNoRoot);
            return 1;
        }
        LogIslandRoots(*island);
    }

    if (islands.size() == 1) {
        TREES_LOG(kLogLevelDebug, "QFT MODE\n");
        DfpIslandInfo& island = *islands.begin()->second;
        QuasiFatTreeAnInfo* root = PickRoot(island.root_candidates, job_sub_tree_info);
        TREES_LOG(kLogLevelDebug, "Post-bottomup picked root=%s\n", root->node->name.c_str());
        const uint32_t status =
            QuasiFatTreeBFSUpBottom(job_resource, root, job_sub_tree_info,
                                    island.agg_node_to_quasi_fat_tree_info, score, nodes_in_tree);
        if (status != 0) {
            job_sub_tree_info.error_text +=
                "Failed to build a tree based on the selected root '" + root->node->name + "'\n";
            return static_cast<int>(status);
        }
        return UpdateQuasiFatTreeJobSubTreeInfo(job_sub_tree_info, score);
    }

    // No island at all is Dragonfly+ too: there is no single island to root.
    TREES_LOG(kLogLevelDebug, "DFP MODE\n");
    const uint32_t status =
        DfpLinkIslandGraphs(islands, job_resource, job_sub_tree_info, score, nodes_in_tree);
    if (status != 0) {
        job_sub_tree_info.error_text += "Failed to link all required Dragonfly+ groups\n";
        return static_cast<int>(status);
    }
    return UpdateQuasiFatTreeJobSubTreeInfo(job_sub_tree_info, score);
}
