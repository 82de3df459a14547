// Field-by-field comparison of fabric descriptions for the topology tests.
#pragma once

#include <sstream>
#include <string>

#include "fabric_model/fabric_description.h"

// Empty when the two descriptions hold the same fabric, field for field; otherwise the
// first differences found, one per line.
inline std::string DescriptionDifferences(const FabricDescription& x, const FabricDescription& y) {
    std::ostringstream out;
    auto check = [&](bool same, const std::string& what) {
        if (!same) {
            out << what << " differs\n";
        }
    };
    check(x.max_tree_id == y.max_tree_id, "max_tree_id");
    check(x.sat_tree_ids == y.sat_tree_ids, "sat_tree_ids");
    check(x.options.max_tree_children == y.options.max_tree_children, "max_tree_children");
    check(x.options.max_childless_islands == y.options.max_childless_islands,
          "max_childless_islands");
    check(x.options.dfp_fallback_search == y.options.dfp_fallback_search, "dfp_fallback_search");
    check(x.roots == y.roots, "roots");
    check(x.switches.size() == y.switches.size(), "number of switches");
    for (size_t i = 0; i < x.switches.size() && i < y.switches.size(); ++i) {
        const SwitchDescription& a = x.switches[i];
        const SwitchDescription& b = y.switches[i];
        const std::string at = "switch " + std::to_string(i) + " ";
        check(a.guid == b.guid, at + "guid");
        check(a.name == b.name, at + "name");
        check(a.rank == b.rank, at + "rank");
        check(a.topology_kind == b.topology_kind, at + "topology_kind");
        check(a.dfp_group_id == b.dfp_group_id, at + "dfp_group_id");
        check(a.defer_root == b.defer_root, at + "defer_root");
        check(a.plane == b.plane, at + "plane");
        check(a.plane_known == b.plane_known, at + "plane_known");
        check(a.plane_enabled == b.plane_enabled, at + "plane_enabled");
        check(a.node_attr == b.node_attr, at + "node_attr");
        check(a.tree_children_limit == b.tree_children_limit, at + "tree_children_limit");
        check(a.valid == b.valid, at + "valid");
        check(a.excluded == b.excluded, at + "excluded");
        check(a.mode == b.mode, at + "mode");
        check(a.has_required_capability == b.has_required_capability,
              at + "has_required_capability");
        check(a.lock_available == b.lock_available, at + "lock_available");
        check(a.exclusive_lock_available == b.exclusive_lock_available,
              at + "exclusive_lock_available");
        check(a.resources.units == b.resources.units, at + "units");
        check(a.resources.buffers == b.resources.buffers, at + "buffers");
        check(a.resources.groups == b.resources.groups, at + "groups");
        check(a.resources.queue_pairs == b.resources.queue_pairs, at + "queue_pairs");
        check(a.used_tree_ids == b.used_tree_ids, at + "used_tree_ids");
        check(a.active_trees == b.active_trees, at + "active_trees");
    }
    check(x.links.size() == y.links.size(), "number of links");
    for (size_t i = 0; i < x.links.size() && i < y.links.size(); ++i) {
        const LinkDescription& a = x.links[i];
        const LinkDescription& b = y.links[i];
        const std::string at = "link " + std::to_string(i) + " ";
        check(a.a == b.a && a.b == b.b, at + "ends");
        check(a.count == b.count, at + "count");
        check(a.plane == b.plane, at + "plane");
        check(a.usable == b.usable, at + "usable");
        check(a.lock_limit == b.lock_limit, at + "lock_limit");
        check(a.lock_count == b.lock_count, at + "lock_count");
        check(a.exclusive_lock_count == b.exclusive_lock_count, at + "exclusive_lock_count");
        check(a.exclusively_locked == b.exclusively_locked, at + "exclusively_locked");
    }
    check(x.hosts.size() == y.hosts.size(), "number of hosts");
    for (size_t i = 0; i < x.hosts.size() && i < y.hosts.size(); ++i) {
        const HostDescription& a = x.hosts[i];
        const HostDescription& b = y.hosts[i];
        const std::string at = "host " + std::to_string(i) + " ";
        check(a.guid == b.guid, at + "guid");
        check(a.name == b.name, at + "name");
        check(a.plane == b.plane, at + "plane");
        check(a.switch_index == b.switch_index, at + "switch");
    }
    check(x.job_tree_ids.size() == y.job_tree_ids.size(), "number of job_tree_ids");
    for (size_t i = 0; i < x.job_tree_ids.size() && i < y.job_tree_ids.size(); ++i) {
        check(x.job_tree_ids[i].job == y.job_tree_ids[i].job &&
                  x.job_tree_ids[i].tree_ids == y.job_tree_ids[i].tree_ids,
              "job_tree_ids " + std::to_string(i));
    }
    return out.str();
}
