// What a job asks of a switch: its quota, lock demands and capability, and the record
// in which a switch reports what it found while checking a quota.
#pragma once

#include <cstdint>
#include <map>

// Resource quantities, in the order the job's quota lists them.
struct zelta_quota {
    uint32_t units = 0;    // aggregation units
    uint32_t payload = 0;  // bytes per operation: a job property, not a switch resource
    uint32_t buffers = 0;
    uint32_t groups = 0;
    uint32_t queue_pairs = 0;
};

// How a tree score weighs its figures; the tree builder always asks for
// ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE.
enum zelta_resource_priority : uint8_t {
    ZELTA_RESOURCE_PRIORITY_NONE = 0,
    ZELTA_RESOURCE_PRIORITY_LINKS = 1,
    ZELTA_RESOURCE_PRIORITY_NODES = 2,
    ZELTA_RESOURCE_PRIORITY_LOAD_BALANCE = 3,
};

// Bit of JobResource::flags: the job needs the switches' lock.
inline constexpr uint64_t kJobFlagLockRequired = uint64_t{1} << 3;
// Bit of JobResource::lock_options: the lock is wanted exclusively.
inline constexpr uint32_t kJobLockOptionExclusive = uint32_t{1} << 1;
// quota_mode that skips the comparison of quota and free resources.
inline constexpr uint8_t kQuotaModeSkipCheck = 1;

// The job's request, read only by the builder.
struct JobResource {
    // Quota quantities, laid out in the order of zelta_quota's members.
    uint32_t units = 1;
    uint32_t payload = 256;
    uint32_t buffers = 8;
    uint32_t groups = 1;
    uint32_t queue_pairs = 1;
    uint8_t quota_mode = 0;
    uint64_t flags = 0;
    uint32_t lock_options = 0;
    bool requires_node_capability = false;

    // Bit 3 of flags.
    bool IsLockRequired() const { return (flags & kJobFlagLockRequired) != 0; }
    // Bit 1 of lock_options.
    bool IsExclusiveLock() const { return (lock_options & kJobLockOptionExclusive) != 0; }
};

// What a switch reported while its quota was checked.
struct AggNodeInfo {
    std::map<uint8_t, uint8_t> plane_to_tree_count;  // trees the switch carries, by plane
    std::map<uint8_t, uint8_t> plane_to_lock_count;  // locks held, by plane
    std::map<uint8_t, uint32_t> resource_to_free;    // free amount, by AggNodeResource
    uint32_t free_units = 0;
    uint32_t free_buffers = 0;
    uint32_t free_groups = 0;
    uint32_t free_queue_pairs = 0;
};

// Keys of AggNodeInfo::resource_to_free.
enum AggNodeResource : uint8_t {
    AGG_NODE_RESOURCE_UNITS = 0,
    AGG_NODE_RESOURCE_BUFFERS = 1,
    AGG_NODE_RESOURCE_GROUPS = 2,
    AGG_NODE_RESOURCE_QUEUE_PAIRS = 3,
};
