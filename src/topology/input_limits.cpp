// Limit checks of loaded fabrics and input files: one pass over the description's
// switches, links and hosts, and a bounded read of a file.
#include "topology/input_limits.h"

#include <map>
#include <set>
#include <vector>

#include "fabric_model/fabric.h"
#include "topology/input_error.h"
#include "topology/topology_internal.h"

namespace aggtree {

namespace {

std::string Count(uint64_t count) {
    return std::to_string(count);
}

// A name as it can be shown in a message: long ones cut short.
std::string Shown(const std::string& name) {
    constexpr size_t kShown = 40;
    return name.size() <= kShown ? name : name.substr(0, kShown) + "...";
}

class LimitChecker {
public:
    LimitChecker(const FabricDescription& description, const std::string& file_name,
                 const internal::SwitchLocator& locate)
        : m_description(description), m_file(file_name), m_locate(locate) {}

    void Run() const {
        CheckSizes();
        CheckNames();
        CheckPorts();
        CheckLevels();
        CheckIslands();
    }

private:
    [[noreturn]] void Refuse(const std::string& where, const std::string& problem) const {
        throw InputError(m_file, where, problem);
    }

    std::string Where(size_t switch_index) const {
        return m_locate ? m_locate(switch_index) : std::string();
    }

    std::string SwitchName(size_t switch_index) const {
        return "\"" + Shown(m_description.switches[switch_index].name) + "\"";
    }

    void CheckSizes() const {
        if (m_description.switches.size() > kMaxSwitches) {
            Refuse("", "the fabric has " + Count(m_description.switches.size()) +
                           " switches; aggtree accepts at most " + Count(kMaxSwitches));
        }
        if (m_description.hosts.size() > kMaxHostPorts) {
            Refuse("", "the fabric has " + Count(m_description.hosts.size()) +
                           " host ports; aggtree accepts at most " + Count(kMaxHostPorts));
        }
        uint64_t cables = 0;
        for (const LinkDescription& link : m_description.links) {
            cables += link.count;
        }
        if (cables > kMaxCables) {
            Refuse("", "the fabric has " + Count(cables) +
                           " cables between switches; aggtree accepts at most " +
                           Count(kMaxCables));
        }
    }

    void CheckNames() const {
        for (size_t i = 0; i < m_description.switches.size(); ++i) {
            const std::string& name = m_description.switches[i].name;
            if (name.size() > kMaxNameBytes) {
                Refuse(Where(i), "the name of switch " + SwitchName(i) + " is " +
                                     Count(name.size()) +
                                     " bytes long; aggtree accepts names of "
                                     "at most " +
                                     Count(kMaxNameBytes) + " bytes");
            }
        }
        for (const HostDescription& host : m_description.hosts) {
            if (host.name.size() > kMaxNameBytes) {
                Refuse("", "the name of host \"" + Shown(host.name) + "\" is " +
                               Count(host.name.size()) +
                               " bytes long; aggtree accepts names of "
                               "at most " +
                               Count(kMaxNameBytes) + " bytes");
            }
        }
    }

    // Cables to other switches (each parallel cable one port) and host ports.
    void CheckPorts() const {
        const size_t n = m_description.switches.size();
        std::vector<uint64_t> ports(n, 0);
        for (const LinkDescription& link : m_description.links) {
            if (link.a < n && link.b < n) {
                ports[link.a] += link.count;
                ports[link.b] += link.count;
            }
        }
        for (const HostDescription& host : m_description.hosts) {
            if (host.switch_index < n) {
                ++ports[host.switch_index];
            }
        }
        for (size_t i = 0; i < n; ++i) {
            if (ports[i] > kMaxPortsPerSwitch) {
                Refuse(Where(i), "switch " + SwitchName(i) + " has " + Count(ports[i]) +
                                     " ports (cables to other switches and host ports); aggtree "
                                     "accepts at most " +
                                     Count(kMaxPortsPerSwitch) + " per switch");
            }
        }
    }

    void CheckLevels() const {
        // The first switch (in file order) of each rank, ranks in order.
        std::map<int, size_t> first_of_rank;
        for (size_t i = 0; i < m_description.switches.size(); ++i) {
            const std::optional<int>& rank = m_description.switches[i].rank;
            if (rank.has_value()) {
                first_of_rank.emplace(*rank, i);
            }
        }
        if (first_of_rank.size() <= kMaxLevels) {
            return;
        }
        auto beyond = first_of_rank.begin();
        std::advance(beyond, kMaxLevels);
        Refuse(Where(beyond->second),
               "the switches stand on " + Count(first_of_rank.size()) +
                   " levels (distinct ranks) and switch " + SwitchName(beyond->second) + " (rank " +
                   std::to_string(beyond->first) + ") on level " + Count(kMaxLevels + 1) +
                   "; aggtree accepts at most " + Count(kMaxLevels) +
                   " levels (is a chain of links written by mistake?)");
    }

    void CheckIslands() const {
        std::set<uint16_t> islands;
        for (size_t i = 0; i < m_description.switches.size(); ++i) {
            uint16_t island = GetSwitchDescriptionIslandId(m_description.switches[i]);
            if (island == kNoIslandId || !islands.insert(island).second) {
                continue;
            }
            if (islands.size() > kMaxIslands) {
                Refuse(Where(i), "switch " + SwitchName(i) + " opens Dragonfly+ group " +
                                     std::to_string(island) + ", one more than the " +
                                     Count(kMaxIslands) + " groups aggtree accepts");
            }
        }
    }

    const FabricDescription& m_description;
    const std::string& m_file;
    const internal::SwitchLocator& m_locate;
};

}  // namespace

namespace internal {

void CheckFabricLimitsLocated(const FabricDescription& description, const std::string& file_name,
                              const SwitchLocator& locate) {
    LimitChecker(description, file_name, locate).Run();
}

}  // namespace internal

void CheckFabricLimits(const FabricDescription& description, const std::string& file_name) {
    internal::CheckFabricLimitsLocated(description, file_name, {});
}

std::string ReadLimitedStream(std::istream& in, const std::string& file_name) {
    auto refuse_size = [&](uint64_t size) {
        throw InputError(file_name, "",
                         "the file is " + Count(size) +
                             " bytes long; aggtree reads files of at "
                             "most " +
                             Count(kMaxInputFileBytes) + " bytes (" +
                             Count(kMaxInputFileBytes >> 20) + " MiB)");
    };
    std::string text;
    // A file tells its size: one allocation, and a file too large is refused unread.
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.clear();
    in.seekg(0, std::ios::beg);
    if (size > 0) {
        if (static_cast<uint64_t>(size) > kMaxInputFileBytes) {
            refuse_size(static_cast<uint64_t>(size));
        }
        text.reserve(static_cast<size_t>(size));
    }
    // Plain reads: a failed allocation escapes as std::bad_alloc (a stream operator
    // would swallow it and leave a shortened text).
    char buffer[1 << 16];
    while (in) {
        in.read(buffer, sizeof(buffer));
        text.append(buffer, static_cast<size_t>(in.gcount()));
        if (text.size() > kMaxInputFileBytes) {
            refuse_size(text.size());
        }
    }
    if (in.bad()) {
        throw InputError(file_name, "", "cannot read the file");
    }
    return text;
}

}  // namespace aggtree
