// Switches as the tree builder sees them: AggNode (a fabric node that hosts an
// aggregation node), its paths to other switches, and AggNodeFabricInfo (the switch
// with its tree nodes, free tree ids, limits and admission inputs).
//
// Every hash container keyed by a switch hashes the switch's GUID (AggNodeHash), so
// its iteration order never depends on where the heap happens to start.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "common/am_bit_array.h"
#include "fabric_model/identifiers.h"
#include "fabric_model/job_resource.h"

class AggNode;
class AggNodeFabricInfo;
class TreeNode;

// Tree id of a switch's default tree node, the working node that the builder links.
inline constexpr uint16_t kDefaultTreeId = 0xFFFF;
// Island id of a switch that belongs to no Dragonfly+ group.
inline constexpr uint16_t kNoIslandId = 0xFFFF;

// Hash of a switch pointer by the switch's GUID (stable from run to run).
struct AggNodeHash {
    size_t operator()(const AggNode* node) const noexcept;
};

using AggNodeSet = std::unordered_set<const AggNode*, AggNodeHash>;
template <typename Value>
using AggNodeMap = std::unordered_map<const AggNode*, Value, AggNodeHash>;

enum AggPathDirection : uint8_t {
    AGG_PATH_DIRECTION_UP = 0,
    AGG_PATH_DIRECTION_DOWN = 1,
};

// One physical link seen from one of its ends.
struct AggPath {
    AggNode* remote_node = nullptr;  // the far end
    uint8_t plane = 0;
    bool is_usable = true;
    uint8_t lock_limit = 255;
    uint8_t exclusive_lock_count = 0;
    uint8_t exclusively_locked = 0;
    uint8_t lock_count = 0;
    uint32_t link_id = 0;  // tells parallel links apart

    bool operator<(const AggPath& other) const;
};

// A node's paths in one direction, by far-end switch (address order, which is the
// fabric's load order), each parallel link its own path.
using AggPathsMap = std::map<const AggNode*, std::set<AggPath>>;

// Whether a path can carry the job's lock demand: exclusive demand needs the path not
// exclusively locked and both counters below the limit; a plain lock needs the path not
// exclusively locked and the lock counter below the limit.
bool IsAggPathLockAvailable(const AggPath& path, bool lock_required, bool exclusive_demand);

// Island of a switch: its Dragonfly+ group when its topology kind is 2 or 3, else
// kNoIslandId.
uint16_t GetAggNodeIslandId(const AggNode* node);

class AggNode {
public:
    virtual ~AggNode() = default;

    uint8_t node_attr = 0;          // copied into the job record for the root
    PortInfo* port_info = nullptr;  // names the node; its guid is the node's hash key
    std::string name;               // printed in trace messages

    // The node's paths in one direction.
    const AggPathsMap& GetAggPathsByDirection(AggPathDirection direction) const;

    // Adds the node's adjacent nodes of other islands that serve jobs and are reached
    // over links passing the job's lock demand; counts those links per node in
    // `link_counts` when it is not null.
    void GetAdjacentSiblings(bool lock_required, bool exclusive_lock, AggNodeSet& siblings,
                             AggNodeMap<uint16_t>* link_counts) const;

    // False for a switch that is invalid, excluded or in mode 1.
    virtual bool ServesJobs() const { return true; }

    // Number of links between this node and `other`, in any direction.
    uint16_t CountLinksTo(const AggNode* other) const;

    // The GUID of the node, 0 without port information.
    uint64_t GetGuid() const { return port_info ? port_info->guid : 0; }

    std::array<AggPathsMap, 2> agg_paths;  // by AggPathDirection
    std::vector<AggPath> sibling_links;    // links to switches of other islands
    uint32_t equal_rank_links = 0;         // same-island links that carry no path
};

inline size_t AggNodeHash::operator()(const AggNode* node) const noexcept {
    return static_cast<size_t>(node ? node->GetGuid() : 0);
}

// What a switch still has free.
struct SwitchResources {
    uint32_t units = 64;
    uint32_t buffers = 1024;
    uint32_t groups = 64;
    uint32_t queue_pairs = 128;
};

class AggNodeFabricInfo : public AggNode {
public:
    AggNodeFabricInfo() = default;
    AggNodeFabricInfo(const AggNodeFabricInfo&) = delete;
    AggNodeFabricInfo& operator=(const AggNodeFabricInfo&) = delete;

    // Enters `tree_node` under `tree_id`, replacing any entry; 1 when a different node
    // stood there, else 0.
    int AddTreeNode(uint16_t tree_id, TreeNode* tree_node);

    // Erases the entry under `tree_id` when it is `tree_node`.
    void RemoveTreeNode(uint16_t tree_id, const TreeNode* tree_node);

    // The tree node under `tree_id`, null when absent.
    TreeNode* GetTreeNode(uint16_t tree_id) const;

    // Admission inputs.  Virtual so that a switch can be observed while it is admitted
    // (which tests ran, in which order).
    virtual bool IsValid() const { return valid; }
    virtual bool IsLockAvailable() const { return lock_available; }
    virtual bool IsExclusiveLockAvailable() const { return exclusive_lock_available; }
    // has_required_capability, read through here by the admission check.
    virtual bool HasRequiredCapability() const { return has_required_capability; }

    // True when the switch can give the quota (quota_mode 1 skips the comparison);
    // fills `info` with what the switch has free.
    virtual bool HasQuota(const zelta_quota& quota, uint8_t quota_mode, AggNodeInfo& info) const;

    bool ServesJobs() const override { return valid && !is_excluded && mode != 1; }

    // True when some tree id is free on the switch.
    bool HasFreeTreeId() const;

    // Number of free tree ids.
    uint32_t CountFreeTreeIds() const;

    std::unordered_map<uint16_t, TreeNode*> tree_nodes_by_id;
    AMBitArray free_tree_ids;  // bit set when the tree id is free here
    uint16_t tree_children_limit = 64;
    bool is_excluded = false;
    uint32_t mode = 0;
    bool has_required_capability = true;
    bool valid = true;
    bool lock_available = true;
    bool exclusive_lock_available = true;
    SwitchResources resources;
    uint32_t active_trees = 0;  // trees the switch already carries
    int rank = 0;
    size_t index = 0;        // place in the fabric's switch array
    PortInfo own_port_info;  // what port_info points at
};
