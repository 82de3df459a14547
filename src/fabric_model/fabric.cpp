#include "fabric_model/fabric.h"

#include <charconv>
#include <new>
#include <stdexcept>
#include <utility>

Fabric* g_fabric = nullptr;

std::string GuidToString(uint64_t guid) {
    char buffer[24];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof(buffer), guid, 16);
    (void)ec;
    return "0x" + std::string(buffer, end);
}

bool ParseGuid(std::string_view text, uint64_t& guid) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > 16) {
        return false;
    }
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), guid, 16);
    return ec == std::errc() && end == text.data() + text.size();
}

uint16_t GetSwitchDescriptionIslandId(const SwitchDescription& sw) {
    return (sw.topology_kind == 2 || sw.topology_kind == 3) ? sw.dfp_group_id : kNoIslandId;
}

namespace {

[[noreturn]] void Refuse(const std::string& what) {
    throw std::invalid_argument(what);
}

AggPath MakePath(AggNode* remote, const LinkDescription& link, uint32_t link_id) {
    AggPath path;
    path.remote_node = remote;
    path.plane = link.plane;
    path.is_usable = link.usable;
    path.lock_limit = link.lock_limit;
    path.exclusive_lock_count = link.exclusive_lock_count;
    path.exclusively_locked = link.exclusively_locked ? 1 : 0;
    path.lock_count = link.lock_count;
    path.link_id = link_id;
    return path;
}

}  // namespace

Fabric::Fabric(const FabricDescription& description)
    : max_tree_id(description.max_tree_id),
      m_description(description),
      m_switches(description.switches.size()) {
    const uint64_t tree_id_bits = uint64_t{description.max_tree_id} + 1;
    for (size_t i = 0; i < description.switches.size(); ++i) {
        const SwitchDescription& d = description.switches[i];
        AggNodeFabricInfo& sw = m_switches[i];
        if (!d.rank.has_value()) {
            Refuse("switch '" + d.name + "' has no rank");
        }
        if (!m_switch_by_name.emplace(d.name, i).second) {
            Refuse("duplicate switch name '" + d.name + "'");
        }
        if (!m_switch_by_guid.emplace(d.guid, i).second) {
            Refuse("duplicate switch GUID " + GuidToString(d.guid));
        }
        sw.own_port_info.guid = d.guid;
        sw.own_port_info.name = d.name;
        sw.own_port_info.dfp_group_id = d.dfp_group_id;
        sw.own_port_info.topology_kind = d.topology_kind;
        sw.own_port_info.defer_root = d.defer_root;
        sw.own_port_info.plane = d.plane;
        sw.own_port_info.plane_known = d.plane_known;
        sw.own_port_info.plane_enabled = d.plane_enabled;
        sw.port_info = &sw.own_port_info;
        sw.name = d.name;
        sw.node_attr = d.node_attr;
        sw.tree_children_limit = d.tree_children_limit;
        sw.is_excluded = d.excluded;
        sw.mode = d.mode;
        sw.has_required_capability = d.has_required_capability;
        sw.valid = d.valid;
        sw.lock_available = d.lock_available;
        sw.exclusive_lock_available = d.exclusive_lock_available;
        sw.resources = d.resources;
        sw.active_trees = d.active_trees;
        sw.rank = *d.rank;
        sw.index = i;
        sw.free_tree_ids = AMBitArray(tree_id_bits);
        if (sw.free_tree_ids.GetBitCount() != tree_id_bits) {
            // The array logs and stays empty when it cannot be allocated; a switch without
            // free tree ids would refuse every job for no reason of the job's.
            throw std::bad_alloc();
        }
        for (uint16_t used : d.used_tree_ids) {
            if (used > description.max_tree_id) {
                Refuse("switch '" + d.name + "' uses tree id " + std::to_string(used) +
                       " above max_tree_id " + std::to_string(description.max_tree_id));
            }
            sw.free_tree_ids.SetBit2False(used);
        }
    }

    uint32_t link_id = 0;
    for (size_t l = 0; l < description.links.size(); ++l) {
        const LinkDescription& link = description.links[l];
        if (link.a >= m_switches.size() || link.b >= m_switches.size()) {
            Refuse("link " + std::to_string(l) + " names an unknown switch");
        }
        if (link.a == link.b) {
            Refuse("switch '" + description.switches[link.a].name + "' is linked to itself");
        }
        AggNodeFabricInfo& a = m_switches[link.a];
        AggNodeFabricInfo& b = m_switches[link.b];
        bool same_island = GetAggNodeIslandId(&a) == GetAggNodeIslandId(&b);
        for (uint16_t k = 0; k < link.count; ++k, ++link_id) {
            if (!same_island) {
                a.sibling_links.push_back(MakePath(&b, link, link_id));
                b.sibling_links.push_back(MakePath(&a, link, link_id));
            } else if (a.rank == b.rank) {
                ++a.equal_rank_links;
                ++b.equal_rank_links;
            } else {
                AggNodeFabricInfo& lower = a.rank < b.rank ? a : b;
                AggNodeFabricInfo& upper = a.rank < b.rank ? b : a;
                lower.agg_paths[AGG_PATH_DIRECTION_UP][&upper].insert(
                    MakePath(&upper, link, link_id));
                upper.agg_paths[AGG_PATH_DIRECTION_DOWN][&lower].insert(
                    MakePath(&lower, link, link_id));
            }
        }
    }

    m_hosts.reserve(description.hosts.size());
    for (const HostDescription& host : description.hosts) {
        if (host.switch_index >= m_switches.size()) {
            Refuse("host '" + host.name + "' names an unknown switch");
        }
        AggNodeFabricInfo* sw = &m_switches[host.switch_index];
        if (!m_host_ports.emplace(HcaPortKey{host.guid, host.plane}, sw).second) {
            Refuse("duplicate host port " + GuidToString(host.guid) + " on plane " +
                   std::to_string(host.plane));
        }
        m_host_by_name.emplace(host.name, m_hosts.size());
        m_host_by_guid.emplace(host.guid, m_hosts.size());
        m_hosts.push_back(HostRecord{host.guid, host.name, host.plane, sw});
    }

    for (uint16_t id : description.sat_tree_ids) {
        m_sat_tree_ids.insert(id);
    }
    for (const JobTreeIdsDescription& job : description.job_tree_ids) {
        m_job_tree_ids[job.job].insert(job.tree_ids.begin(), job.tree_ids.end());
    }
}

AggNodeFabricInfo* Fabric::GetSwitchThatIsConnectedToHost(HcaPortKey key) const {
    auto it = m_host_ports.find(key);
    return it == m_host_ports.end() ? nullptr : it->second;
}

int Fabric::GetJobTreeIds(const ZeltaExtJobId& job_id, std::set<uint16_t>& tree_ids) const {
    auto it = m_job_tree_ids.find(job_id.ToString());
    if (it != m_job_tree_ids.end()) {
        tree_ids.insert(it->second.begin(), it->second.end());
    }
    return 0;
}

bool Fabric::IsSatTreeId(uint16_t tree_id) const {
    return m_sat_tree_ids.count(tree_id) != 0;
}

void Fabric::SetJobTreeIds(const std::string& job_text, std::set<uint16_t> tree_ids) {
    m_job_tree_ids[job_text] = std::move(tree_ids);
}

JobTreeIdChange Fabric::AddJobTreeId(const std::string& job_text, uint16_t tree_id) {
    JobTreeIdChange change;
    auto [entry, created] = m_job_tree_ids.try_emplace(job_text);
    change.entry_created = created;
    try {
        change.tree_id_added = entry->second.insert(tree_id).second;
    } catch (...) {
        if (created) {
            m_job_tree_ids.erase(entry);
        }
        throw;
    }
    return change;
}

void Fabric::UndoJobTreeId(const std::string& job_text, uint16_t tree_id, JobTreeIdChange change) {
    auto entry = m_job_tree_ids.find(job_text);
    if (entry == m_job_tree_ids.end()) {
        return;
    }
    if (change.tree_id_added) {
        entry->second.erase(tree_id);
    }
    if (change.entry_created && entry->second.empty()) {
        m_job_tree_ids.erase(entry);
    }
}

FabricDescription Fabric::Snapshot() const {
    FabricDescription snapshot = m_description;
    snapshot.max_tree_id = max_tree_id;
    for (size_t i = 0; i < m_switches.size(); ++i) {
        const AggNodeFabricInfo& sw = m_switches[i];
        SwitchDescription& described = snapshot.switches[i];
        described.resources = sw.resources;
        described.active_trees = sw.active_trees;
        described.used_tree_ids.clear();
        for (uint64_t id = 0; id < sw.free_tree_ids.GetBitCount(); ++id) {
            if (!sw.free_tree_ids.IsBitSet(id)) {
                described.used_tree_ids.push_back(static_cast<uint16_t>(id));
            }
        }
    }
    snapshot.job_tree_ids.clear();
    std::set<std::string> written;
    auto write = [&](const std::string& job) {
        auto held = m_job_tree_ids.find(job);
        if (held != m_job_tree_ids.end() && written.insert(job).second) {
            snapshot.job_tree_ids.push_back(
                JobTreeIdsDescription{job, {held->second.begin(), held->second.end()}});
        }
    };
    for (const JobTreeIdsDescription& loaded : m_description.job_tree_ids) {
        write(loaded.job);
    }
    for (const auto& [job, ids] : m_job_tree_ids) {
        write(job);
    }
    return snapshot;
}

const AggNodeFabricInfo* Fabric::FindSwitch(std::string_view name_or_guid) const {
    auto by_name = m_switch_by_name.find(std::string(name_or_guid));
    if (by_name != m_switch_by_name.end()) {
        return &m_switches[by_name->second];
    }
    uint64_t guid = 0;
    if (name_or_guid.size() > 2 && name_or_guid.substr(0, 2) == "0x" &&
        ParseGuid(name_or_guid, guid)) {
        auto by_guid = m_switch_by_guid.find(guid);
        if (by_guid != m_switch_by_guid.end()) {
            return &m_switches[by_guid->second];
        }
    }
    return nullptr;
}

AggNodeFabricInfo* Fabric::FindSwitch(std::string_view name_or_guid) {
    return const_cast<AggNodeFabricInfo*>(std::as_const(*this).FindSwitch(name_or_guid));
}

const HostRecord* Fabric::FindHost(std::string_view name_or_guid) const {
    auto by_name = m_host_by_name.find(std::string(name_or_guid));
    if (by_name != m_host_by_name.end()) {
        return &m_hosts[by_name->second];
    }
    uint64_t guid = 0;
    if (name_or_guid.size() > 2 && name_or_guid.substr(0, 2) == "0x" &&
        ParseGuid(name_or_guid, guid)) {
        auto by_guid = m_host_by_guid.find(guid);
        if (by_guid != m_host_by_guid.end()) {
            return &m_hosts[by_guid->second];
        }
    }
    return nullptr;
}
