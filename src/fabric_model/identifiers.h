// Identifiers of the fabric model: job ids, port information, host ports.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// The job's identifier from the resource manager.
struct ZeltaExtJobId {
    uint64_t job_number = 0;  // printed in decimal
    uint64_t job_sub_id = 0;  // travels with the id; no text form uses it
    std::string id_prefix;    // printed before the number; "default" when empty

    // "<prefix or default>_<number>", e.g. "abc_42", "default_0".
    std::string ToString() const;

    bool operator==(const ZeltaExtJobId&) const = default;
};

// Description of a node or port of the fabric.
struct PortInfo {
    uint64_t guid = 0;  // first field: the node's hash key
    std::string name;
    uint16_t dfp_group_id = 0;   // Dragonfly+ group, the island id of kinds 2 and 3
    uint32_t topology_kind = 1;  // 1 tree switch; 2, 3 Dragonfly+ group switches
    bool defer_root = false;     // never a root candidate when islands are checked
    uint8_t plane = 0;
    bool plane_known = false;
    bool plane_enabled = false;

    // The plane as text: its decimal number.
    std::string PlaneToString() const;

    // "<name> GUID:0x<hex>" and, when the plane is known and enabled, " PLN:<plane>".
    std::string GetName() const;
};

// One host port of a job.
struct PortData {
    uint64_t port_guid = 0;
    uint8_t plane = 0;
};

// The manager's order of a job's ports: by GUID, then by plane.
struct PortDataSort {
    bool operator()(const PortData* a, const PortData* b) const {
        if (a->port_guid != b->port_guid) {
            return a->port_guid < b->port_guid;
        }
        return a->plane < b->plane;
    }
};

// Key of a host port: its GUID and its plane.
struct HcaPortKey {
    uint64_t guid = 0;
    uint8_t plane = 0;

    bool operator==(const HcaPortKey&) const = default;
};

struct HcaPortKeyHash {
    size_t operator()(const HcaPortKey& key) const noexcept {
        return std::hash<uint64_t>{}(key.guid * 31 + key.plane);
    }
};
