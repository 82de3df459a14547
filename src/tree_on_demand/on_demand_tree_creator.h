// OnDemandTreeCreator: builds a job's in-network aggregation tree.
//
// A request (CreateTree) maps the job's host ports to leaf switches, gives each a
// default tree node (tree id 65535) and hands the leaf set to the dispatcher.  The
// dispatcher groups the leaves into islands (Dragonfly+ groups; one island for a quasi
// fat tree), sweeps every island bottom-up building descendant groups on each switch,
// and then either links one root top-down (one island) or searches a path of island
// roots, centres it and links the islands (Dragonfly+).  Finally the lowest tree id
// free on every tree switch and not held by the job is taken, and the score finalised.
//
// One request at a time; between requests only the tree nodes the creator made (owned
// here until the next request) and the group-id counter survive.
//
// Lifetime: the creator's tree nodes unregister themselves from their switches when
// destroyed, so destroy the creator before the fabric and never reuse one creator on
// another fabric.
#pragma once

#include <cstdint>
#include <memory>
#include <queue>
#include <set>
#include <string>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/identifiers.h"
#include "fabric_model/job_resource.h"
#include "fabric_model/job_sub_tree.h"
#include "fabric_model/tree_node.h"
#include "tree_on_demand/descendant_group.h"
#include "tree_on_demand/dfp_records.h"
#include "tree_on_demand/tree_check.h"

// The job's host ports in the manager's order.
using JobPortSet = std::set<const PortData*, PortDataSort>;

// A failure of the last request that says nothing about the job itself: the caller
// should not report it as a refusal.
enum class InternalFailure : uint8_t {
    kNone,         // the request succeeded, or the job was refused for a reason of its own
    kOutOfMemory,  // an allocation failed while the tree was built
    kBrokenTree,   // the built tree failed the final check and was not returned
};

// What went wrong inside the last request, beside its status.
struct RequestFailure {
    InternalFailure kind = InternalFailure::kNone;  // kNone unless the builder itself failed
    std::string text;                               // for the operator; empty with kNone
};

class OnDemandTreeCreator {
public:
    OnDemandTreeCreator() = default;
    OnDemandTreeCreator(const OnDemandTreeCreator&) = delete;
    OnDemandTreeCreator& operator=(const OnDemandTreeCreator&) = delete;

    // Builds the job's tree into `job_sub_tree_info` and `score`; 0 on success.
    int CreateTree(const JobPortSet& ports, const JobResource& job_resource,
                   const ZeltaExtJobId& job_id, JobSubTreeInfo& job_sub_tree_info,
                   JobSubTreeScore& score);

    // Islands, bottom-up sweeps, mode choice, linking and tree-id assignment.
    int BuildDynamicQuasiFatTree(const LeafSwitchOrderedSet& leaves,
                                 const JobResource& job_resource, JobSubTreeInfo& job_sub_tree_info,
                                 JobSubTreeScore& score);

    // True when the switch may serve the job (validity, exclusion, mode, locks, quota,
    // capability).
    bool CheckIfAggNodeSatisfyJobRequest(const AggNodeFabricInfo& node,
                                         const JobResource& job_resource) const;

    // Scores every tree node, checks planes, takes the lowest free tree id.
    int UpdateQuasiFatTreeJobSubTreeInfo(JobSubTreeInfo& job_sub_tree_info, JobSubTreeScore& score);

    // Bottom-up sweep of one island from its leaves: best groups and root candidates.
    int QuasiFatTreeBFSBottomUp(std::queue<AggNodeFabricInfo*>& bfs_queue,
                                QuasiFatTreeInfoMap& agg_node_to_quasi_fat_tree_info,
                                RootCandidateMap& root_candidates,
                                JobSubTreeInfo& job_sub_tree_info, const JobResource& job_resource,
                                DescendantGroupList& descendant_groups,
                                const LeafSwitchOrderedSet& leaf_switches, bool check_topology);

    // Candidate groups of one switch from the groups its children offered.
    void CombineGroups(const QuasiFatTreeAnInfo& quasi_fat_tree_info,
                       std::vector<DescendantGroup*>& out, JobSubTreeInfo& job_sub_tree_info,
                       DescendantGroupList& groups);

    // Merges a raw group without unique leaves into the candidates so far.
    void CombineGroupsWithRawGroup(std::vector<DescendantGroup*>& out, const DescendantGroup& raw,
                                   JobSubTreeInfo& job_sub_tree_info,
                                   const QuasiFatTreeAnInfo& quasi_fat_tree_info,
                                   DescendantGroupList& groups);

    // Links the chosen root down to every leaf, level by level.  A switch of `relays`
    // (Dragonfly+: linked to its parent by the root links) is not linked under its route
    // parent, but the walk goes on below it.
    uint32_t QuasiFatTreeBFSUpBottom(const JobResource& job_resource,
                                     QuasiFatTreeAnInfo* root_quasi_an_info,
                                     JobSubTreeInfo& job_sub_tree_info,
                                     QuasiFatTreeInfoMap& agg_node_to_quasi_fat_tree_info,
                                     JobSubTreeScore& score, NodesInTreeSet& nodes_in_tree,
                                     const AggNodeSet* relays = nullptr);

    // Links the routes of one level, best score first (relays as above).
    uint32_t QuasiFatTreeSelectBestRoute(LeavesRouteMap& leaves_route,
                                         JobSubTreeInfo& job_sub_tree_info,
                                         QuasiFatTreeInfoMap& agg_node_to_quasi_fat_tree_info,
                                         TreeLevelMap& next_level, NodesInTreeSet& nodes_in_tree,
                                         const AggNodeSet* relays = nullptr);

    // Makes one parent-child edge between two default tree nodes.
    uint32_t LinkNodes(const AggNodeFabricInfo* parent, const AggNodeFabricInfo* child,
                       JobSubTreeInfo& job_sub_tree_info, NodesInTreeSet& nodes_in_tree) const;

    // Dragonfly+: path search, island subtrees, centre and root links.
    uint32_t DfpLinkIslandGraphs(const DfpIslandMap& map_island_info,
                                 const JobResource& job_resource, JobSubTreeInfo& job_sub_tree_info,
                                 JobSubTreeScore& score, NodesInTreeSet& nodes_in_tree);

    // One root-to-root edge, giving a default tree node to a root outside job islands.
    uint32_t LinkDFPRootNodes(const DfpIslandMap& map_island_info, AggNodeFabricInfo* p_parent_node,
                              AggNodeFabricInfo* p_child_node, JobSubTreeInfo& job_sub_tree_info,
                              NodesInTreeSet& nodes_in_tree);

    // The island roots to join: the path search's, or the fallback search's when the
    // path search finds none (unless the options turn the fallback off).
    uint32_t DfpChooseRootNodes(const DfpIslandMap& map_island_info,
                                const JobResource& job_resource, JobSubTreeInfo& job_sub_tree_info,
                                AggNodeSet& path_nodes, NodeSiblingsMap& map_node_to_siblings,
                                const AggNode*& p_start_node);

    // Depth-first search for the best path of island roots joining all job islands.
    uint32_t DfpFindPathThruIslands(const DfpIslandMap& map_island_info,
                                    const JobResource& job_resource,
                                    JobSubTreeInfo& job_sub_tree_info, AggNodeSet& path_nodes,
                                    NodeSiblingsMap& map_node_to_siblings,
                                    const AggNode*& p_start_node);

    // When the path search finds no path: the fewest transit switches (then the fewest
    // switches found) that join a root of every job island within the childless limit.
    // Fills the same outputs as the path search; 0 when such a set exists.
    uint32_t DfpFallbackSearch(const DfpIslandMap& map_island_info, const JobResource& job_resource,
                               AggNodeSet& path_nodes, NodeSiblingsMap& map_node_to_siblings,
                               const AggNode*& p_start_node);

    // Centre of an undirected tree (null when empty, disconnected or cyclic).
    const AggNode* FindTreeCenter(const NodeSiblingsMap& map_node_to_adjacents) const;

    // Why the last request failed when its status 1 is not a refusal of the job.
    const RequestFailure& LastInternalFailure() const { return m_last_failure; }

    // The tree nodes this creator made for the last request.
    const std::vector<std::unique_ptr<TreeNode>>& GetCreatedTreeNodes() const {
        return m_tree_nodes;
    }

private:
    // The final check of a built tree: 0 when it holds, else 1 with the broken invariant
    // in the record's error text, in the log and as the request's internal failure.
    int RefuseBrokenTree(JobSubTreeInfo& job_sub_tree_info,
                         const std::vector<JobLeafPort>& leaf_ports);

    std::vector<std::unique_ptr<TreeNode>> m_tree_nodes;
    RequestFailure m_last_failure;
};
