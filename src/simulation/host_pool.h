// The fabric's hosts during a replay: which are busy, and where a job that asks for a
// number of hosts is placed.
//
// Hosts are ordered by name, digit runs compared as numbers ("node2" before "node10").
// Placement policies:
// - compact (what a topology-aware scheduler does): the fewest leaf switches, then the
//   lowest names.  Whole leaves are taken largest first while no single leaf can hold
//   what is left; the rest goes to the leaf with the fewest free hosts that can hold it
//   (the lowest-named such leaf on a tie), so large free leaves stay whole.  Cost
//   O(leaves x leaves used + hosts).
// - linear: the lowest free names.  O(hosts).
// - random: a uniform draw from the free hosts with the caller's engine (a partial
//   Fisher-Yates shuffle of the free hosts in name order, the same on every platform).
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "fabric_model/fabric.h"

namespace aggtree {

enum class Placement : uint8_t { kCompact, kLinear, kRandom };

// "compact", "linear" or "random"; false for any other text.
bool ParsePlacement(std::string_view text, Placement& placement);

// The placement's name as ParsePlacement reads it.
const char* PlacementName(Placement placement);

// True when `a` comes before `b` with digit runs compared as numbers.
bool NaturalNameLess(std::string_view a, std::string_view b);

class HostPool {
public:
    // Every host of `fabric` free; the fabric must outlive the pool.
    explicit HostPool(const Fabric& fabric);

    // Number of hosts.
    size_t Size() const { return m_busy.size(); }
    // Number of free hosts.
    size_t FreeCount() const { return m_free_count; }
    // True when the host (an index into Fabric::Hosts()) is free.
    bool IsFree(size_t host) const { return !m_busy[host]; }

    // `count` free hosts chosen by the policy, in name order; empty when fewer are free.
    // Nothing is taken.
    std::vector<size_t> Pick(uint64_t count, Placement placement, std::mt19937& engine) const;

    // Marks the hosts busy; each must be free.
    void Take(const std::vector<size_t>& hosts);
    // Marks the hosts free again.
    void Give(const std::vector<size_t>& hosts);

private:
    std::vector<size_t> PickCompact(uint64_t count) const;
    std::vector<size_t> PickLinear(uint64_t count) const;
    std::vector<size_t> PickRandom(uint64_t count, std::mt19937& engine) const;
    // The first `count` free hosts of a leaf, in name order.
    void TakeFromLeaf(size_t leaf, uint64_t count, std::vector<size_t>& out) const;
    // The rank (place in name order) of the leaf's first free host.
    size_t FirstFreeRank(size_t leaf) const;
    void SortByName(std::vector<size_t>& hosts) const;

    std::vector<size_t> m_by_name;                  // host indices in name order
    std::vector<size_t> m_rank;                     // host index -> place in m_by_name
    std::vector<size_t> m_leaf_of;                  // host index -> leaf number
    std::vector<std::vector<size_t>> m_leaf_hosts;  // leaf number -> hosts in name order
    std::vector<size_t> m_leaf_free;                // leaf number -> free hosts on it
    std::vector<bool> m_busy;
    size_t m_free_count = 0;
};

}  // namespace aggtree
