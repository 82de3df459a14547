// Working records of the quasi-fat-tree builder.
//
// DescendantGroup: a candidate subtree rooted at one switch, made of member groups one
// level down, covering a set of the job's leaf switches and rated by a JobSubTreeScore.
// QuasiFatTreeAnInfo: what the bottom-up sweep keeps per switch (offered groups, best
// group, valid parallel up-links per child).  BestRouteInfo: the route chosen for one
// leaf on one level of the top-down linking.
//
// All groups of one request live in one std::list (DescendantGroupList) so they never
// move; every other reference to a group is a plain pointer into it.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/job_sub_tree.h"

using LeafSwitchSet = std::unordered_set<AggNodeFabricInfo*, AggNodeHash>;
// Key of a switch in a leaf-set hash.
using LeafKeyFunction = std::function<unsigned long(AggNodeFabricInfo* const&)>;

class DescendantGroup {
public:
    // A group rooted at `root`, its id taken from s_id (which then advances, wrapping).
    explicit DescendantGroup(AggNodeFabricInfo* root = nullptr);

    // Recomputes score.node_count (distinct switches reached through children, this
    // group's own included) and score.leaf_count (size of leaf_nodes).
    void UpdateLeafCoverage();

    // "DG_id: <id> node: <name>" and, with children, " children:" followed by one line
    // per child, each indented by one more '-'.
    std::string ToString(int indent) const;

    // Number of leaf switches covered.
    size_t size() const { return leaf_nodes.size(); }

    // Counter of group ids; process-wide, never reset, 16-bit on purpose.
    static uint16_t s_id;

    uint16_t id;
    JobSubTreeScore score;
    LeafSwitchSet leaf_nodes;
    AggNodeFabricInfo* node;
    std::vector<DescendantGroup*> children;  // member groups one level down, not owned
    uint64_t leaves_hash = 0;
};

using DescendantGroupList = std::list<DescendantGroup>;

// The key of a switch in a leaf-set hash: its GUID.
unsigned long LeafNodeGuidKey(AggNodeFabricInfo* const& node);

// Order-dependent hash of a leaf set (0 for an empty set).
uint64_t CalculateLeavesHash(const LeafSwitchSet& leaf_nodes, const LeafKeyFunction& key);

// Candidate order: true when `a` covers strictly more leaves than `b`.
bool DescendantGroupHasMoreLeaves(const DescendantGroup* a, const DescendantGroup* b);

class QuasiFatTreeAnInfo {
public:
    explicit QuasiFatTreeAnInfo(AggNodeFabricInfo* switch_node = nullptr);

    AggNodeFabricInfo* node;
    std::unordered_map<uint64_t, DescendantGroup*> child_groups;  // by leaves_hash
    DescendantGroup* best_group = nullptr;
    std::unordered_map<AggNodeFabricInfo*, int32_t, AggNodeHash> map_valid_path_count_to_child;
};

using QuasiFatTreeInfoMap =
    std::unordered_map<AggNodeFabricInfo*, std::unique_ptr<QuasiFatTreeAnInfo>, AggNodeHash>;
// Switches whose best group covers all leaves, in address order.
using RootCandidateMap = std::map<const AggNodeFabricInfo*, QuasiFatTreeAnInfo*>;
// One level of the top-down walk, in address order.
using TreeLevelMap = std::map<const AggNodeFabricInfo*, QuasiFatTreeAnInfo*>;
// The job's leaf switches in address order.
using LeafSwitchOrderedSet = std::set<AggNodeFabricInfo*>;
// Switches whose default tree node is in the job's tree-node list.
using NodesInTreeSet = std::unordered_set<AggNodeFabricInfo*, AggNodeHash>;

struct BestRouteInfo {
    AggNodeFabricInfo* parent_node = nullptr;  // node of the current level
    AggNodeFabricInfo* child_node = nullptr;   // owner of the member group covering the leaf
    const JobSubTreeScore* score = nullptr;    // score of the parent's best group
};

using LeavesRouteMap = std::unordered_map<AggNodeFabricInfo*, BestRouteInfo, AggNodeHash>;
