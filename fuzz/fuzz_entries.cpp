#include "fuzz/fuzz_entries.h"

#include <memory>
#include <set>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "common/log.h"
#include "fabric_model/fabric.h"
#include "fabric_model/tree_node.h"
#include "support/service_run.h"
#include "support/tree_invariants.h"
#include "topology/description_compare.h"
#include "topology/fabric_file.h"
#include "topology/generators.h"
#include "topology/ibnetdiscover.h"
#include "topology/input_error.h"
#include "topology/job_file.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace aggtree::fuzz {

namespace {

std::string_view Text(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// Every log message is formatted (the trace paths run too) and dropped.
class QuietLog {
public:
    explicit QuietLog(int level) : m_previous(log_set_sink([](const LogRecord&) {})) {
        log_set_all_levels(level);
    }
    ~QuietLog() {
        log_set_sink(m_previous);
        log_reset_levels();
    }
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

private:
    LogSink m_previous;
};

// Makes `description` the installed fabric for a scope.
class Installed {
public:
    explicit Installed(const FabricDescription& description)
        : m_fabric(std::make_unique<Fabric>(description)),
          m_previous_fabric(g_fabric),
          m_previous_options(g_option_info) {
        g_fabric = m_fabric.get();
        g_option_info = description.options;
    }
    ~Installed() {
        g_fabric = m_previous_fabric;
        g_option_info = m_previous_options;
    }
    Installed(const Installed&) = delete;
    Installed& operator=(const Installed&) = delete;

    Fabric& fabric() { return *m_fabric; }

private:
    std::unique_ptr<Fabric> m_fabric;
    Fabric* m_previous_fabric;
    OptionInfo m_previous_options;
};

// A description the loaders accepted must make a model, and survive its fabric file.
std::string CheckLoaded(const FabricDescription& description, const std::string& what) {
    try {
        Fabric fabric(description);
    } catch (const std::invalid_argument& error) {
        return what + " accepted a fabric the model refuses: " + error.what();
    }
    const std::string written = WriteFabricJson(description);
    FabricDescription again;
    try {
        again = ParseFabricJson(written, "written.json");
    } catch (const InputError& error) {
        return what + ": its own fabric file is refused: " + error.what();
    }
    const std::string differences = DescriptionDifferences(again, description);
    if (!differences.empty()) {
        return what + ": its fabric file reads back different:\n" + differences;
    }
    return "";
}

// Runs the request and checks what it leaves; `result` receives the tree's signature.
std::string CheckRequest(OnDemandTreeCreator& creator, Fabric& fabric, ServedRequest& request,
                         const JobResource& resource, const ZeltaExtJobId& job_id,
                         std::string& result) {
    Serve(creator, request, resource, job_id);
    if (request.status != 0 && request.status != 1) {
        return "CreateTree returned " + std::to_string(request.status);
    }
    if (creator.LastInternalFailure().kind != InternalFailure::kNone) {
        return "internal failure: " + creator.LastInternalFailure().text;
    }
    const std::string registered = CheckRegisteredTreeNodes(fabric, creator);
    if (!registered.empty()) {
        return registered;
    }
    if (request.status == 0) {
        const std::string broken = CheckTreeInvariants(request.info, fabric, request.ports,
                                                       g_option_info.max_tree_children);
        if (!broken.empty()) {
            return "broken tree: " + broken + "\n" + TreeSignature(request.info);
        }
    } else if (!request.info.tree_nodes.empty()) {
        return "a refusal left tree nodes in the record";
    }
    result = std::to_string(request.status) + "\n" + TreeSignature(request.info);
    return "";
}

// Bytes read one at a time; past the end every read is 0.
class ByteReader {
public:
    ByteReader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    uint8_t Next() { return m_position < m_size ? m_data[m_position++] : 0; }
    // A value from 0 to `count` - 1.
    size_t Below(size_t count) { return count == 0 ? 0 : Next() % count; }
    bool Bit() { return (Next() & 1) != 0; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_position = 0;
};

struct FuzzedJob {
    std::vector<PortData> ports;
    JobResource resource;
    ZeltaExtJobId job_id;
};

FabricDescription FabricFromBytes(ByteReader& bytes) {
    FabricDescription description;
    const size_t switch_count = 1 + bytes.Below(24);
    const bool dragonfly = bytes.Bit();
    static constexpr uint16_t kChildrenLimits[] = {1, 2, 3, 4, 8, 64, 0, 255};
    description.options.max_tree_children = kChildrenLimits[bytes.Below(8)];
    description.options.max_childless_islands = static_cast<uint8_t>(bytes.Below(4));
    description.max_tree_id = static_cast<uint16_t>(bytes.Bit() ? 127 : bytes.Below(130));
    for (size_t i = 0; i < switch_count; ++i) {
        SwitchDescription sw;
        sw.guid = 0x1001 + i;
        sw.name = "s" + std::to_string(i);
        sw.rank = static_cast<int>(bytes.Below(4));
        if (dragonfly) {
            sw.topology_kind = 2 + bytes.Below(2);
            sw.dfp_group_id = static_cast<uint16_t>(bytes.Below(5));
            if (sw.dfp_group_id == 4) {
                sw.topology_kind = 1;  // a plain tree switch beside the groups
            }
        }
        const uint8_t flags = bytes.Next();
        sw.defer_root = (flags & 0x01) != 0;
        sw.excluded = (flags & 0x02) != 0 && (flags & 0x04) != 0;
        sw.valid = (flags & 0x08) == 0 || (flags & 0x10) == 0;
        sw.lock_available = (flags & 0x20) == 0;
        sw.exclusive_lock_available = (flags & 0x40) == 0;
        sw.has_required_capability = (flags & 0x80) == 0;
        sw.tree_children_limit = kChildrenLimits[bytes.Below(8)];
        sw.active_trees = bytes.Below(4);
        sw.plane = static_cast<uint8_t>(bytes.Below(2));
        sw.resources.units = static_cast<uint32_t>(bytes.Below(3));
        for (size_t used = bytes.Below(4); used > 0; --used) {
            sw.used_tree_ids.push_back(
                static_cast<uint16_t>(bytes.Below(description.max_tree_id + 1u)));
        }
        description.switches.push_back(std::move(sw));
    }
    const size_t link_count = bytes.Below(48);
    for (size_t l = 0; l < link_count; ++l) {
        LinkDescription link;
        link.a = bytes.Below(switch_count);
        link.b = bytes.Below(switch_count);
        if (link.a == link.b) {
            continue;
        }
        link.count = static_cast<uint16_t>(1 + bytes.Below(3));
        const uint8_t flags = bytes.Next();
        link.usable = (flags & 0x01) == 0 || (flags & 0x02) == 0;
        link.plane = static_cast<uint8_t>((flags >> 2) & 1);
        link.lock_limit = (flags & 0x08) != 0 ? 1 : 255;
        link.lock_count = (flags & 0x10) != 0 ? 1 : 0;
        link.exclusive_lock_count = (flags & 0x20) != 0 ? 1 : 0;
        link.exclusively_locked = (flags & 0x40) != 0;
        description.links.push_back(link);
    }
    const size_t host_count = 1 + bytes.Below(32);
    for (size_t h = 0; h < host_count; ++h) {
        HostDescription host;
        host.guid = 0x2001 + h;
        host.name = "h" + std::to_string(h);
        host.plane = static_cast<uint8_t>(bytes.Below(8) == 0 ? 1 : 0);
        host.switch_index = bytes.Below(switch_count);
        description.hosts.push_back(std::move(host));
    }
    if (bytes.Bit()) {
        description.sat_tree_ids.push_back(static_cast<uint16_t>(bytes.Below(4)));
    }
    if (bytes.Bit()) {
        description.job_tree_ids.push_back(
            JobTreeIdsDescription{"fuzz_7", {static_cast<uint16_t>(bytes.Below(4))}});
    }
    return description;
}

FuzzedJob JobFromBytes(ByteReader& bytes, const FabricDescription& description) {
    FuzzedJob job;
    job.job_id = ZeltaExtJobId{7, 0, "fuzz"};
    for (const HostDescription& host : description.hosts) {
        if (bytes.Bit()) {
            job.ports.push_back(PortData{host.guid, host.plane});
        }
    }
    if (bytes.Below(16) == 0) {
        job.ports.push_back(PortData{0xdead, 0});  // a port the fabric does not know
    }
    const uint8_t flags = bytes.Next();
    if ((flags & 0x01) != 0) {
        job.resource.flags |= kJobFlagLockRequired;
    }
    if ((flags & 0x02) != 0) {
        job.resource.lock_options |= kJobLockOptionExclusive;
    }
    job.resource.requires_node_capability = (flags & 0x04) != 0;
    job.resource.quota_mode = static_cast<uint8_t>((flags >> 3) & 1);
    job.resource.units = static_cast<uint32_t>((flags >> 4) & 3);
    return job;
}

// The job as a job file.
std::string JobText(const FuzzedJob& job) {
    std::string text = "{\"job_id\": {\"prefix\": \"" + job.job_id.id_prefix +
                       "\", \"number\": " + std::to_string(job.job_id.job_number) +
                       "}, \"ports\": [";
    for (size_t i = 0; i < job.ports.size(); ++i) {
        text += std::string(i == 0 ? "" : ", ") + "{\"guid\": \"" +
                GuidToString(job.ports[i].port_guid) +
                "\", \"plane\": " + std::to_string(job.ports[i].plane) + "}";
    }
    const JobResource& r = job.resource;
    text += "], \"resource\": {\"quota\": {\"units\": " + std::to_string(r.units) +
            "}, \"quota_mode\": " + std::to_string(r.quota_mode) +
            ", \"lock_required\": " + (r.IsLockRequired() ? "true" : "false") +
            ", \"exclusive_lock\": " + (r.IsExclusiveLock() ? "true" : "false") +
            ", \"requires_node_capability\": " + (r.requires_node_capability ? "true" : "false") +
            "}}\n";
    return text;
}

}  // namespace

std::string FuzzFabricFile(const uint8_t* data, size_t size) {
    std::vector<std::string> warnings;
    FabricDescription description;
    try {
        description = ParseFabricJson(Text(data, size), "fuzz.json", &warnings);
    } catch (const InputError&) {
        return "";
    }
    return CheckLoaded(description, "the fabric file reader");
}

std::string FuzzJobFile(const uint8_t* data, size_t size) {
    static const FabricDescription kFabric = [] {
        FatTreeParams params;
        params.levels = 2;
        params.radix = 4;
        params.planes = 2;
        return GenerateFatTree(params);
    }();
    QuietLog log(kLogLevelWarning);
    Installed installed(kFabric);
    ServedRequest request;
    JobDescription job;
    try {
        job = ParseJobJson(Text(data, size), "fuzz-job.json", installed.fabric());
    } catch (const InputError&) {
        return "";
    }
    if (job.ports.empty()) {
        return "the job file reader accepted a job without ports";
    }
    request.ports = job.ports;
    OnDemandTreeCreator creator;
    std::string result;
    return CheckRequest(creator, installed.fabric(), request, job.resource, job.job_id, result);
}

std::string FuzzIbnetdiscover(const uint8_t* data, size_t size) {
    std::string_view text = Text(data, size);
    std::string_view dump = text.substr(0, text.find('\0'));
    std::string_view groups;
    std::string_view roots;
    if (dump.size() < text.size()) {
        groups = text.substr(dump.size() + 1);
        roots = groups.substr(std::min(groups.size(), groups.find('\0')));
        groups = groups.substr(0, groups.find('\0'));
        roots = roots.empty() ? roots : roots.substr(1);
    }
    LooksLikeIbnetdiscover(text);
    std::vector<std::string> warnings;
    FabricDescription description;
    try {
        description = ParseIbnetdiscover(dump, "fuzz.ibnetdiscover", groups, "groups", roots,
                                         "roots", &warnings);
    } catch (const InputError&) {
        return "";
    }
    return CheckLoaded(description, "the ibnetdiscover import");
}

std::string FuzzCreateTree(const uint8_t* data, size_t size) {
    ByteReader bytes(data, size);
    const FabricDescription description = FabricFromBytes(bytes);
    const FuzzedJob job = JobFromBytes(bytes, description);
    // Trace levels on now and then, so that the trace messages are built too.
    QuietLog log(bytes.Below(4) == 0 ? kLogLevelDetail : kLogLevelWarning);
    Installed installed(description);
    OnDemandTreeCreator creator;
    std::string first;
    std::string second;
    std::string broken;
    for (std::string* result : {&first, &second}) {
        ServedRequest request;
        request.ports = job.ports;
        broken =
            CheckRequest(creator, installed.fabric(), request, job.resource, job.job_id, *result);
        if (!broken.empty()) {
            break;
        }
    }
    if (broken.empty() && first != second) {
        broken =
            "the same request gave another result the second time:\n" + first + "---\n" + second;
    }
    if (!broken.empty()) {
        // What it takes to see the same with the tool: the fabric and the job.
        broken += "\nfabric:\n" + WriteFabricJson(description) + "job:\n" + JobText(job);
    }
    return broken;
}

}  // namespace aggtree::fuzz
