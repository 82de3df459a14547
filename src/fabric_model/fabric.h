// The fabric model: every switch in one contiguous array in load order (so the
// builder's address order of switches is the load order), paths by direction,
// siblings across islands, hosts by (GUID, plane), and the tree ids jobs hold.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/fabric_description.h"
#include "fabric_model/identifiers.h"

// A host port of the fabric.
struct HostRecord {
    uint64_t guid = 0;
    std::string name;
    uint8_t plane = 0;
    AggNodeFabricInfo* attached_switch = nullptr;
};

// What AddJobTreeId changed: whether the tree id and the job's entry were new.
struct JobTreeIdChange {
    bool tree_id_added = false;  // the job did not hold the id before
    bool entry_created = false;  // the job had no entry at all before
};

class Fabric {
public:
    // Builds the model; throws std::invalid_argument for a description it cannot hold
    // (missing rank, unknown switch index, self link, duplicate GUID, name or host port,
    // tree id above max_tree_id), std::bad_alloc when memory runs out.
    explicit Fabric(const FabricDescription& description);
    Fabric(const Fabric&) = delete;
    Fabric& operator=(const Fabric&) = delete;

    // The switch the host port hangs on, or null when none is known.
    AggNodeFabricInfo* GetSwitchThatIsConnectedToHost(HcaPortKey key) const;

    // Fills `tree_ids` with the tree ids the job already holds; returns 0.
    int GetJobTreeIds(const ZeltaExtJobId& job_id, std::set<uint16_t>& tree_ids) const;

    // True for a tree id of the SAT kind.
    bool IsSatTreeId(uint16_t tree_id) const;

    // Records the tree ids a job holds (replacing what was recorded).
    void SetJobTreeIds(const std::string& job_text, std::set<uint16_t> tree_ids);

    // Adds one tree id to what the job holds; says what was new, for UndoJobTreeId.
    JobTreeIdChange AddJobTreeId(const std::string& job_text, uint16_t tree_id);

    // Takes back exactly what AddJobTreeId reported as new.
    void UndoJobTreeId(const std::string& job_text, uint16_t tree_id, JobTreeIdChange change);

    // The description with the model's present state: each switch's free resources,
    // used tree ids (ascending) and active trees, the fabric's max_tree_id, and the tree
    // ids jobs hold (jobs of the loaded description first, in its order, then jobs
    // recorded since, by job text).  Written out, it is the fabric file of the model now.
    FabricDescription Snapshot() const;

    // The switch with that name or GUID text ("0x..."), or null.
    AggNodeFabricInfo* FindSwitch(std::string_view name_or_guid);
    const AggNodeFabricInfo* FindSwitch(std::string_view name_or_guid) const;

    // The host with that name or GUID text, or null.
    const HostRecord* FindHost(std::string_view name_or_guid) const;

    std::vector<AggNodeFabricInfo>& Switches() { return m_switches; }
    const std::vector<AggNodeFabricInfo>& Switches() const { return m_switches; }
    const std::vector<HostRecord>& Hosts() const { return m_hosts; }
    const FabricDescription& Description() const { return m_description; }
    const OptionInfo& Options() const { return m_description.options; }

    uint16_t max_tree_id = 127;  // tree ids run from 0 to it

private:
    FabricDescription m_description;
    std::vector<AggNodeFabricInfo> m_switches;  // never resized after construction
    std::vector<HostRecord> m_hosts;
    std::unordered_map<HcaPortKey, AggNodeFabricInfo*, HcaPortKeyHash> m_host_ports;
    std::unordered_map<std::string, size_t> m_switch_by_name;
    std::unordered_map<uint64_t, size_t> m_switch_by_guid;
    std::unordered_map<std::string, size_t> m_host_by_name;
    std::unordered_map<uint64_t, size_t> m_host_by_guid;
    std::map<std::string, std::set<uint16_t>> m_job_tree_ids;
    std::set<uint16_t> m_sat_tree_ids;
};

// The fabric the builder works on.
extern Fabric* g_fabric;

// "0x" and the GUID in lower-case hex without padding.
std::string GuidToString(uint64_t guid);

// Parses "0x<hex>" (or bare hex); false when the text is not a GUID.
bool ParseGuid(std::string_view text, uint64_t& guid);
