#include "simulation/host_pool.h"

#include <algorithm>
#include <numeric>
#include <unordered_map>

namespace aggtree {

bool ParsePlacement(std::string_view text, Placement& placement) {
    if (text == "compact") {
        placement = Placement::kCompact;
    } else if (text == "linear") {
        placement = Placement::kLinear;
    } else if (text == "random") {
        placement = Placement::kRandom;
    } else {
        return false;
    }
    return true;
}

const char* PlacementName(Placement placement) {
    switch (placement) {
        case Placement::kCompact:
            return "compact";
        case Placement::kLinear:
            return "linear";
        case Placement::kRandom:
            return "random";
    }
    return "compact";
}

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Compares two digit runs as numbers: leading zeros ignored, then length, then digits.
int CompareNumbers(std::string_view a, std::string_view b) {
    auto strip = [](std::string_view digits) {
        size_t first = digits.find_first_not_of('0');
        return first == std::string_view::npos ? std::string_view() : digits.substr(first);
    };
    std::string_view x = strip(a);
    std::string_view y = strip(b);
    if (x.size() != y.size()) {
        return x.size() < y.size() ? -1 : 1;
    }
    int order = x.compare(y);
    return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

}  // namespace

bool NaturalNameLess(std::string_view a, std::string_view b) {
    size_t i = 0;
    size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (IsDigit(a[i]) && IsDigit(b[j])) {
            size_t i_end = i;
            size_t j_end = j;
            while (i_end < a.size() && IsDigit(a[i_end])) {
                ++i_end;
            }
            while (j_end < b.size() && IsDigit(b[j_end])) {
                ++j_end;
            }
            int order = CompareNumbers(a.substr(i, i_end - i), b.substr(j, j_end - j));
            if (order != 0) {
                return order < 0;
            }
            i = i_end;
            j = j_end;
        } else {
            if (a[i] != b[j]) {
                return a[i] < b[j];
            }
            ++i;
            ++j;
        }
    }
    if (a.size() - i != b.size() - j) {
        return a.size() - i < b.size() - j;
    }
    return a < b;  // equal as numbers ("node01", "node1"): plain text decides
}

HostPool::HostPool(const Fabric& fabric) {
    const std::vector<HostRecord>& hosts = fabric.Hosts();
    m_by_name.resize(hosts.size());
    std::iota(m_by_name.begin(), m_by_name.end(), size_t{0});
    std::stable_sort(m_by_name.begin(), m_by_name.end(), [&hosts](size_t a, size_t b) {
        return NaturalNameLess(hosts[a].name, hosts[b].name);
    });
    m_rank.resize(hosts.size());
    m_leaf_of.resize(hosts.size());
    std::unordered_map<const AggNodeFabricInfo*, size_t> leaf_number;
    for (size_t rank = 0; rank < m_by_name.size(); ++rank) {
        const size_t host = m_by_name[rank];
        m_rank[host] = rank;
        auto [leaf, fresh] = leaf_number.emplace(hosts[host].attached_switch, m_leaf_hosts.size());
        if (fresh) {
            m_leaf_hosts.emplace_back();
        }
        m_leaf_of[host] = leaf->second;
        m_leaf_hosts[leaf->second].push_back(host);
    }
    m_leaf_free.resize(m_leaf_hosts.size());
    for (size_t leaf = 0; leaf < m_leaf_hosts.size(); ++leaf) {
        m_leaf_free[leaf] = m_leaf_hosts[leaf].size();
    }
    m_busy.assign(hosts.size(), false);
    m_free_count = hosts.size();
}

std::vector<size_t> HostPool::Pick(uint64_t count, Placement placement,
                                   std::mt19937& engine) const {
    if (count == 0 || count > m_free_count) {
        return {};
    }
    switch (placement) {
        case Placement::kCompact:
            return PickCompact(count);
        case Placement::kLinear:
            return PickLinear(count);
        case Placement::kRandom:
            return PickRandom(count, engine);
    }
    return {};
}

void HostPool::Take(const std::vector<size_t>& hosts) {
    for (size_t host : hosts) {
        if (!m_busy[host]) {
            m_busy[host] = true;
            --m_free_count;
            --m_leaf_free[m_leaf_of[host]];
        }
    }
}

void HostPool::Give(const std::vector<size_t>& hosts) {
    for (size_t host : hosts) {
        if (m_busy[host]) {
            m_busy[host] = false;
            ++m_free_count;
            ++m_leaf_free[m_leaf_of[host]];
        }
    }
}

size_t HostPool::FirstFreeRank(size_t leaf) const {
    for (size_t host : m_leaf_hosts[leaf]) {
        if (!m_busy[host]) {
            return m_rank[host];
        }
    }
    return m_by_name.size();
}

void HostPool::TakeFromLeaf(size_t leaf, uint64_t count, std::vector<size_t>& out) const {
    for (size_t host : m_leaf_hosts[leaf]) {
        if (count == 0) {
            break;
        }
        if (!m_busy[host]) {
            out.push_back(host);
            --count;
        }
    }
}

void HostPool::SortByName(std::vector<size_t>& hosts) const {
    std::sort(hosts.begin(), hosts.end(),
              [this](size_t a, size_t b) { return m_rank[a] < m_rank[b]; });
}

std::vector<size_t> HostPool::PickCompact(uint64_t count) const {
    struct Candidate {
        size_t leaf;
        size_t free;
        size_t first_rank;
    };
    std::vector<Candidate> candidates;
    for (size_t leaf = 0; leaf < m_leaf_hosts.size(); ++leaf) {
        if (m_leaf_free[leaf] > 0) {
            candidates.push_back({leaf, m_leaf_free[leaf], FirstFreeRank(leaf)});
        }
    }
    // Largest leaves first, the lowest names first among equals.
    std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
        return a.free != b.free ? a.free > b.free : a.first_rank < b.first_rank;
    });
    std::vector<size_t> picked;
    uint64_t remaining = count;
    size_t next_whole = 0;  // candidates before it are taken whole
    while (remaining > 0) {
        // The tightest leaf that holds the rest ends the placement.
        const Candidate* fit = nullptr;
        for (size_t c = next_whole; c < candidates.size(); ++c) {
            const Candidate& candidate = candidates[c];
            if (candidate.free >= remaining &&
                (fit == nullptr || candidate.free < fit->free ||
                 (candidate.free == fit->free && candidate.first_rank < fit->first_rank))) {
                fit = &candidate;
            }
        }
        if (fit != nullptr) {
            TakeFromLeaf(fit->leaf, remaining, picked);
            break;
        }
        const Candidate& whole = candidates[next_whole++];
        TakeFromLeaf(whole.leaf, whole.free, picked);
        remaining -= whole.free;
    }
    SortByName(picked);
    return picked;
}

std::vector<size_t> HostPool::PickLinear(uint64_t count) const {
    std::vector<size_t> picked;
    for (size_t host : m_by_name) {
        if (picked.size() == count) {
            break;
        }
        if (!m_busy[host]) {
            picked.push_back(host);
        }
    }
    return picked;
}

std::vector<size_t> HostPool::PickRandom(uint64_t count, std::mt19937& engine) const {
    std::vector<size_t> free;
    free.reserve(m_free_count);
    for (size_t host : m_by_name) {
        if (!m_busy[host]) {
            free.push_back(host);
        }
    }
    // The modulo keeps the draw independent of the standard library's distributions,
    // which differ between implementations.
    for (size_t i = 0; i < count; ++i) {
        size_t j = i + static_cast<size_t>(engine() % (free.size() - i));
        std::swap(free[i], free[j]);
    }
    free.resize(count);
    SortByName(free);
    return free;
}

}  // namespace aggtree
