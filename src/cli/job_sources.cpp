#include "cli/job_sources.h"

#include <algorithm>
#include <charconv>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <utility>

#include "cli/cli_support.h"

namespace aggtree::cli {

namespace {

std::string Trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return "";
    }
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

// Adds one host's port, without repeats; InputError at `file`/`where` for an unknown host.
void AddHost(const Fabric& fabric, const std::string& name, const std::string& file,
             const std::string& where, std::set<std::pair<uint64_t, uint8_t>>& seen,
             std::vector<PortData>& ports) {
    const HostRecord* host = fabric.FindHost(name);
    if (host == nullptr) {
        throw InputError(
            file, where,
            "unknown host '" + name + "': the fabric has no host of that name or GUID");
    }
    if (seen.emplace(host->guid, host->plane).second) {
        ports.push_back(PortData{host->guid, host->plane});
    }
}

std::vector<PortData> HostsFromList(const std::string& list, const Fabric& fabric) {
    std::vector<PortData> ports;
    std::set<std::pair<uint64_t, uint8_t>> seen;
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        if (comma == std::string::npos) {
            comma = list.size();
        }
        std::string name = Trim(list.substr(start, comma - start));
        if (!name.empty()) {
            AddHost(fabric, name, "--hosts", "", seen, ports);
        }
        start = comma + 1;
    }
    if (ports.empty()) {
        throw InputError("--hosts", "", "the job has no hosts");
    }
    return ports;
}

std::vector<PortData> HostsFromFile(const std::string& path, const Fabric& fabric) {
    std::string text = ReadTextFile(path);
    std::vector<PortData> ports;
    std::set<std::pair<uint64_t, uint8_t>> seen;
    size_t line_number = 0;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        ++line_number;
        std::string line = text.substr(start, end - start);
        size_t hash = line.find('#');
        if (hash != std::string::npos) {
            line.resize(hash);
        }
        line = Trim(line);
        if (!line.empty()) {
            if (line.find_first_of(" \t") != std::string::npos) {
                throw InputError(path, "line " + std::to_string(line_number),
                                 "expected one host per line, got '" + line + "'");
            }
            AddHost(fabric, line, path, "line " + std::to_string(line_number), seen, ports);
        }
        start = end + 1;
    }
    if (ports.empty()) {
        throw InputError(path, "", "the file names no hosts");
    }
    return ports;
}

std::vector<PortData> RandomHosts(long long count, uint32_t seed, const Fabric& fabric) {
    const std::vector<HostRecord>& hosts = fabric.Hosts();
    if (count <= 0 || static_cast<unsigned long long>(count) > hosts.size()) {
        throw UsageError("--random-hosts: cannot pick " + std::to_string(count) +
                         " hosts: the fabric has " + std::to_string(hosts.size()));
    }
    std::vector<PortData> ports;
    std::set<std::pair<uint64_t, uint8_t>> seen;
    for (size_t index : PickRandomHosts(hosts.size(), static_cast<size_t>(count), seed)) {
        const HostRecord& host = hosts[index];
        if (seen.emplace(host.guid, host.plane).second) {
            ports.push_back(PortData{host.guid, host.plane});
        }
    }
    return ports;
}

}  // namespace

ZeltaExtJobId ParseJobIdText(const std::string& text) {
    ZeltaExtJobId id;
    size_t underscore = text.rfind('_');
    std::string number = underscore == std::string::npos ? text : text.substr(underscore + 1);
    if (underscore != std::string::npos) {
        id.id_prefix = text.substr(0, underscore);
    }
    auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), id.job_number);
    if (number.empty() || ec != std::errc() || end != number.data() + number.size()) {
        throw UsageError("--job-id: bad value '" + text +
                         "': expected PREFIX_NUMBER (e.g. slurm_4242) or a number");
    }
    return id;
}

std::vector<size_t> PickRandomHosts(size_t host_count, size_t count, uint32_t seed) {
    std::vector<size_t> order(host_count);
    std::iota(order.begin(), order.end(), size_t{0});
    std::mt19937 engine(seed);
    count = std::min(count, host_count);
    // A partial Fisher-Yates shuffle; the modulo keeps the draw independent of the
    // standard library's distributions, which differ between implementations.
    for (size_t i = 0; i < count; ++i) {
        size_t j = i + static_cast<size_t>(engine() % (host_count - i));
        std::swap(order[i], order[j]);
    }
    order.resize(count);
    return order;
}

JobDescription MakeJob(const JobSource& source, const Fabric& fabric) {
    int sources = static_cast<int>(source.has_job_file) + static_cast<int>(source.has_hosts) +
                  static_cast<int>(source.has_hosts_file) +
                  static_cast<int>(source.has_random_hosts);
    if (sources != 1) {
        throw UsageError(sources == 0 ? "build: no job given (use --job FILE, --hosts LIST, "
                                        "--hosts-from FILE or --random-hosts N)"
                                      : "build: give only one of --job, --hosts, --hosts-from and "
                                        "--random-hosts");
    }
    std::optional<ZeltaExtJobId> job_id;
    if (!source.job_id.empty()) {
        job_id = ParseJobIdText(source.job_id);
    }
    JobDescription job;
    if (source.has_job_file) {
        job = LoadJobFile(source.job_file, fabric);
    } else if (source.has_hosts) {
        job.ports = HostsFromList(source.hosts, fabric);
    } else if (source.has_hosts_file) {
        job.ports = NameFileOnOutOfMemory(source.hosts_file,
                                          [&] { return HostsFromFile(source.hosts_file, fabric); });
    } else {
        job.ports = RandomHosts(source.random_hosts, source.seed, fabric);
    }
    if (job_id) {
        job.job_id = *job_id;
    }
    return job;
}

}  // namespace aggtree::cli
