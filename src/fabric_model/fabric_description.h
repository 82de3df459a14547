// A fabric as plain data: what a fabric file, an import or a generator produces, and
// what a Fabric is built from.  Switches are referred to by their index in `switches`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/options.h"

struct SwitchDescription {
    uint64_t guid = 0;
    std::string name;
    std::optional<int> rank;  // inferred by the topology loaders when absent
    uint32_t topology_kind = 1;
    uint16_t dfp_group_id = 0;
    bool defer_root = false;
    uint8_t plane = 0;
    bool plane_known = false;
    bool plane_enabled = false;
    uint8_t node_attr = 0;
    uint16_t tree_children_limit = 64;
    bool valid = true;
    bool excluded = false;
    uint32_t mode = 0;
    bool has_required_capability = true;
    bool lock_available = true;
    bool exclusive_lock_available = true;
    SwitchResources resources;
    std::vector<uint16_t> used_tree_ids;
    uint32_t active_trees = 0;
};

struct LinkDescription {
    size_t a = 0;
    size_t b = 0;
    uint16_t count = 1;  // parallel links, each its own path
    uint8_t plane = 0;
    bool usable = true;
    uint8_t lock_limit = 255;
    uint8_t lock_count = 0;
    uint8_t exclusive_lock_count = 0;
    bool exclusively_locked = false;
};

struct HostDescription {
    uint64_t guid = 0;
    std::string name;
    uint8_t plane = 0;
    size_t switch_index = 0;
};

struct JobTreeIdsDescription {
    std::string job;  // the job id's text form
    std::vector<uint16_t> tree_ids;
};

struct FabricDescription {
    uint16_t max_tree_id = 127;
    std::vector<uint16_t> sat_tree_ids;
    OptionInfo options;
    std::vector<SwitchDescription> switches;
    std::vector<LinkDescription> links;
    std::vector<HostDescription> hosts;
    std::vector<JobTreeIdsDescription> job_tree_ids;
    std::vector<size_t> roots;  // switches ranks are counted down from, when given
};

// Island of a described switch, by the same rule as GetAggNodeIslandId.
uint16_t GetSwitchDescriptionIslandId(const SwitchDescription& sw);
