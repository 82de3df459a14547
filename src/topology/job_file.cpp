#include "topology/job_file.h"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <utility>

#include <nlohmann/json.hpp>

#include "topology/input_limits.h"
#include "topology/topology_internal.h"

namespace aggtree {

namespace {

using Json = nlohmann::json;

// Reads a job file: every problem becomes an InputError naming the file and the place.
class JobReader {
public:
    JobReader(const std::string& file_name, const Fabric& fabric)
        : m_file(file_name), m_fabric(fabric) {}

    JobDescription Read(std::string_view text) {
        Json root = Parse(text);
        const internal::JsonDismantler<Json> dismantler(root);
        RequireObject(root, "");
        CheckKeys(root, "", {"job_id", "hosts", "ports", "resource"});

        JobDescription job;
        if (root.contains("job_id")) {
            ReadJobId(root["job_id"], "/job_id", job.job_id);
        }
        if (root.contains("resource")) {
            ReadResource(root["resource"], "/resource", job.resource);
        }
        if (root.contains("hosts")) {
            ReadHosts(root["hosts"], "/hosts", job.ports);
        }
        if (root.contains("ports")) {
            ReadPorts(root["ports"], "/ports", job.ports);
        }
        if (job.ports.empty()) {
            throw InputError(m_file, "", "the job has no ports (give \"hosts\" or \"ports\")");
        }
        return job;
    }

private:
    [[noreturn]] void Fail(const std::string& where, const std::string& problem) const {
        throw InputError(m_file, where, problem);
    }

    Json Parse(std::string_view text) const {
        try {
            return internal::ParseJsonNestingLimited(text, m_file);
        } catch (const Json::parse_error& error) {
            throw InputError(m_file, internal::JsonErrorLocation(text, error.byte),
                             "malformed JSON: " + ParseProblem(error.what()));
        }
    }

    // The parser's own words, without the prefix every value error shares.
    static std::string ParseProblem(const std::string& what) {
        std::string problem = internal::JsonErrorProblem(what);
        const std::string syntax = "syntax error while parsing value - ";
        if (problem.rfind(syntax, 0) == 0) {
            problem = problem.substr(syntax.size());
        }
        return problem;
    }

    static std::string TypeName(const Json& value) {
        if (value.is_number_integer() || value.is_number_float()) {
            return "a number";
        }
        if (value.is_string()) {
            return "a string";
        }
        if (value.is_boolean()) {
            return "a boolean";
        }
        if (value.is_null()) {
            return "null";
        }
        if (value.is_array()) {
            return "an array";
        }
        return "an object";
    }

    void RequireObject(const Json& value, const std::string& where) const {
        if (!value.is_object()) {
            Fail(where, "expected an object, got " + TypeName(value));
        }
    }

    void RequireArray(const Json& value, const std::string& where) const {
        if (!value.is_array()) {
            Fail(where, "expected an array, got " + TypeName(value));
        }
    }

    // A key as one JSON pointer token ("~" and "/" escaped).
    static std::string PointerToken(const std::string& key) {
        std::string token;
        for (char c : key) {
            if (c == '~') {
                token += "~0";
            } else if (c == '/') {
                token += "~1";
            } else {
                token += c;
            }
        }
        return token;
    }

    void CheckKeys(const Json& object, const std::string& where,
                   std::initializer_list<std::string_view> known) const {
        for (const auto& item : object.items()) {
            bool found = false;
            for (std::string_view key : known) {
                found = found || key == item.key();
            }
            if (!found) {
                std::string allowed;
                for (std::string_view key : known) {
                    allowed += allowed.empty() ? "" : ", ";
                    allowed += key;
                }
                Fail(where + "/" + PointerToken(item.key()),
                     "unknown key \"" + item.key() + "\" (expected one of: " + allowed + ")");
            }
        }
    }

    std::string String(const Json& value, const std::string& where) const {
        if (!value.is_string()) {
            Fail(where, "expected a string, got " + TypeName(value));
        }
        return value.get<std::string>();
    }

    bool Bool(const Json& value, const std::string& where) const {
        if (!value.is_boolean()) {
            Fail(where, "expected true or false, got " + TypeName(value));
        }
        return value.get<bool>();
    }

    // A whole number from 0 to `max`.
    uint64_t Unsigned(const Json& value, const std::string& where, uint64_t max) const {
        const std::string range = "0 to " + std::to_string(max);
        if (value.is_number_unsigned()) {
            uint64_t number = value.get<uint64_t>();
            if (number > max) {
                Fail(where, "value " + std::to_string(number) + " is out of range (" + range + ")");
            }
            return number;
        }
        if (value.is_number_integer()) {
            Fail(where, "value " + std::to_string(value.get<int64_t>()) + " is out of range (" +
                            range + ")");
        }
        if (value.is_number_float()) {
            double number = value.get<double>();
            if (std::isfinite(number) && number == std::floor(number)) {
                Fail(where, "value " + value.dump() + " is out of range (" + range + ")");
            }
            Fail(where, "expected a whole number, got " + value.dump());
        }
        Fail(where, "expected a whole number (" + range + "), got " + TypeName(value));
    }

    void ReadJobId(const Json& value, const std::string& where, ZeltaExtJobId& job_id) const {
        RequireObject(value, where);
        CheckKeys(value, where, {"prefix", "number"});
        if (value.contains("prefix")) {
            job_id.id_prefix = String(value["prefix"], where + "/prefix");
            if (job_id.id_prefix.size() > kMaxNameBytes) {
                Fail(where + "/prefix", "the prefix is " + std::to_string(job_id.id_prefix.size()) +
                                            " bytes long; aggtree accepts at most " +
                                            std::to_string(kMaxNameBytes));
            }
        }
        if (value.contains("number")) {
            job_id.job_number =
                Unsigned(value["number"], where + "/number", std::numeric_limits<uint64_t>::max());
        }
    }

    void ReadResource(const Json& value, const std::string& where, JobResource& resource) const {
        RequireObject(value, where);
        CheckKeys(
            value, where,
            {"quota", "quota_mode", "lock_required", "exclusive_lock", "requires_node_capability"});
        if (value.contains("quota")) {
            const Json& quota = value["quota"];
            const std::string at = where + "/quota";
            RequireObject(quota, at);
            CheckKeys(quota, at, {"units", "payload", "buffers", "groups", "queue_pairs"});
            const std::pair<const char*, uint32_t*> fields[] = {
                {"units", &resource.units},
                {"payload", &resource.payload},
                {"buffers", &resource.buffers},
                {"groups", &resource.groups},
                {"queue_pairs", &resource.queue_pairs},
            };
            for (const auto& [key, field] : fields) {
                if (quota.contains(key)) {
                    *field = static_cast<uint32_t>(
                        Unsigned(quota[key], at + "/" + key, std::numeric_limits<uint32_t>::max()));
                }
            }
        }
        if (value.contains("quota_mode")) {
            resource.quota_mode = static_cast<uint8_t>(Unsigned(
                value["quota_mode"], where + "/quota_mode", std::numeric_limits<uint8_t>::max()));
        }
        if (value.contains("lock_required") &&
            Bool(value["lock_required"], where + "/lock_required")) {
            resource.flags |= kJobFlagLockRequired;
        }
        if (value.contains("exclusive_lock") &&
            Bool(value["exclusive_lock"], where + "/exclusive_lock")) {
            resource.lock_options |= kJobLockOptionExclusive;
        }
        if (value.contains("requires_node_capability")) {
            resource.requires_node_capability =
                Bool(value["requires_node_capability"], where + "/requires_node_capability");
        }
    }

    void AddPort(PortData port, std::vector<PortData>& ports, const std::string& where) {
        if (m_seen.emplace(port.port_guid, port.plane).second) {
            if (ports.size() == kMaxHostPorts) {
                Fail(where, "the job has more than " + std::to_string(kMaxHostPorts) +
                                " ports; aggtree accepts at most that many");
            }
            ports.push_back(port);
        }
    }

    void ReadHosts(const Json& value, const std::string& where, std::vector<PortData>& ports) {
        RequireArray(value, where);
        for (size_t i = 0; i < value.size(); ++i) {
            const std::string at = where + "/" + std::to_string(i);
            std::string name = String(value[i], at);
            const HostRecord* host = m_fabric.FindHost(name);
            if (host == nullptr) {
                Fail(at,
                     "unknown host '" + name + "': the fabric has no host of that name or GUID");
            }
            AddPort(PortData{host->guid, host->plane}, ports, at);
        }
    }

    void ReadPorts(const Json& value, const std::string& where, std::vector<PortData>& ports) {
        RequireArray(value, where);
        for (size_t i = 0; i < value.size(); ++i) {
            const std::string at = where + "/" + std::to_string(i);
            const Json& port = value[i];
            RequireObject(port, at);
            CheckKeys(port, at, {"guid", "plane"});
            if (!port.contains("guid")) {
                Fail(at, "missing key \"guid\"");
            }
            std::string text = String(port["guid"], at + "/guid");
            PortData data;
            if (!ParseGuid(text, data.port_guid)) {
                Fail(at + "/guid",
                     "'" + text + "' is not a GUID (expected hexadecimal such as \"0x2001\")");
            }
            if (port.contains("plane")) {
                data.plane = static_cast<uint8_t>(
                    Unsigned(port["plane"], at + "/plane", std::numeric_limits<uint8_t>::max()));
            }
            AddPort(data, ports, at);
        }
    }

    std::string m_file;
    const Fabric& m_fabric;
    std::set<std::pair<uint64_t, uint8_t>> m_seen;
};

}  // namespace

JobDescription ParseJobJson(std::string_view text, const std::string& file_name,
                            const Fabric& fabric) {
    return NameFileOnOutOfMemory(file_name, [&] {
        JobReader reader(file_name, fabric);
        return reader.Read(text);
    });
}

JobDescription LoadJobFile(const std::string& path, const Fabric& fabric) {
    return NameFileOnOutOfMemory(path, [&] {
        std::error_code ignored;
        if (std::filesystem::is_directory(path, ignored)) {
            throw InputError(path, "", "is a directory, not a file");
        }
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            throw InputError(path, "", "cannot open the file");
        }
        return ParseJobJson(ReadLimitedStream(in, path), path, fabric);
    });
}

}  // namespace aggtree
