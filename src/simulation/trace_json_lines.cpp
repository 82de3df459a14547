// The JSON-lines trace reader.  One pass over the lines, one JSON parse per line; ends
// are paired with their starts once every line is read, so lines may come in any order.
#include <cmath>
#include <string>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "simulation/trace.h"
#include "simulation/trace_internal.h"
#include "topology/input_limits.h"
#include "topology/topology_internal.h"

namespace aggtree {

namespace {

using json = nlohmann::json;

struct EndLine {
    double time = 0;
    size_t line = 0;
};

class LineReader {
public:
    LineReader(const std::string& file, size_t line) : m_file(file), m_line(line) {}

    [[noreturn]] void Fail(const std::string& problem) const {
        throw InputError(m_file, "line " + std::to_string(m_line), problem);
    }

    // The line's JSON, nested no deeper than the fabric file may be; the parser's words
    // with overlong tokens cut short.
    json Parse(std::string_view text) const {
        try {
            return internal::ParseJsonNestingLimited(text, m_file);
        } catch (const json::parse_error& error) {
            throw InputError(m_file, At("line 1, column " + std::to_string(error.byte)),
                             "malformed JSON: " + internal::JsonErrorProblem(error.what()));
        } catch (const InputError& error) {
            throw InputError(m_file, At(error.where()), error.problem());
        }
    }

    // A place the JSON reader named within the line ("line 1, column 7", or nothing) as a
    // place in the file.
    std::string At(const std::string& within_line) const {
        const std::string first_line = "line 1";
        const std::string line = "line " + std::to_string(m_line);
        if (within_line.rfind(first_line, 0) == 0) {
            return line + within_line.substr(first_line.size());
        }
        return line;
    }

    double Time(const json& event) const {
        auto t = event.find("t");
        if (t == event.end() || !t->is_number() || !std::isfinite(t->get<double>())) {
            Fail("\"t\" must be the event's time in seconds, a number");
        }
        return t->get<double>();
    }

    uint64_t Count(const json& value, const char* key) const {
        if (!value.is_number_unsigned() || value.get<uint64_t>() == 0) {
            Fail(std::string("\"") + key + "\" must be a number of hosts, a whole number above 0");
        }
        return value.get<uint64_t>();
    }

    // No fabric aggtree reads has more hosts, or longer host names, than its limits allow.
    std::vector<std::string> Hosts(const json& value) const {
        if (!value.is_array() || value.empty()) {
            Fail("\"hosts\" must be a non-empty array of host names");
        }
        if (value.size() > kMaxHostPorts) {
            Fail("\"hosts\" lists " + std::to_string(value.size()) +
                 " hosts; aggtree accepts fabrics of at most " + std::to_string(kMaxHostPorts));
        }
        std::vector<std::string> hosts;
        for (const json& host : value) {
            if (!host.is_string()) {
                Fail("\"hosts\" must be a non-empty array of host names");
            }
            const std::string& name = host.get_ref<const std::string&>();
            if (name.size() > kMaxNameBytes) {
                Fail("a host name is " + std::to_string(name.size()) +
                     " bytes long; aggtree accepts names of at most " +
                     std::to_string(kMaxNameBytes) + " bytes");
            }
            hosts.push_back(name);
        }
        return hosts;
    }

    // Which hosts the start event asks for: exactly one of hosts, count and random.
    void ReadHostRequest(const json& event, TraceJob& job) const {
        int given = 0;
        for (const char* key : {"hosts", "count", "random"}) {
            given += event.contains(key) ? 1 : 0;
        }
        if (given != 1) {
            Fail("a start gives its hosts in exactly one of \"hosts\", \"count\" and \"random\"");
        }
        if (auto hosts = event.find("hosts"); hosts != event.end()) {
            job.request = HostRequest::kNamed;
            job.hosts = Hosts(*hosts);
        } else if (auto count = event.find("count"); count != event.end()) {
            job.request = HostRequest::kCount;
            job.count = Count(*count, "count");
        } else {
            job.request = HostRequest::kRandom;
            job.count = Count(event["random"], "random");
        }
    }

    void CheckKeys(const json& event) const {
        for (const auto& [key, value] : event.items()) {
            if (key != "t" && key != "op" && key != "job" && key != "hosts" && key != "count" &&
                key != "random") {
                Fail("unknown key \"" + key + "\" (keys: t, op, job, hosts, count, random)");
            }
        }
    }

private:
    const std::string& m_file;
    size_t m_line;
};

}  // namespace

Trace ParseJsonLinesTrace(std::string_view text, const std::string& file) {
    Trace trace;
    trace.file = file;
    trace.format = "jsonl";
    std::unordered_map<uint64_t, size_t> job_index;  // job number -> place in trace.jobs
    std::unordered_map<uint64_t, size_t> end_index;  // job number -> place in `ends`
    std::vector<std::pair<uint64_t, EndLine>> ends;  // in file order
    internal::ForEachLine(text, [&](std::string_view line, size_t line_number) {
        if (internal::IsBlank(line)) {
            return;
        }
        LineReader reader(file, line_number);
        json event = reader.Parse(line);
        if (!event.is_object()) {
            reader.Fail("expected one JSON object per line");
        }
        reader.CheckKeys(event);
        auto job = event.find("job");
        if (job == event.end() || !job->is_number_unsigned()) {
            reader.Fail("\"job\" must be the job's number, a whole number of 0 or more");
        }
        const uint64_t number = job->get<uint64_t>();
        const double time = reader.Time(event);
        auto op = event.find("op");
        const std::string op_text =
            (op != event.end() && op->is_string()) ? op->get<std::string>() : std::string();
        if (op_text == "start") {
            TraceJob started{number, time, std::nullopt, HostRequest::kNamed,
                             {},     0,    line_number,  0};
            reader.ReadHostRequest(event, started);
            auto [place, fresh] = job_index.emplace(number, trace.jobs.size());
            if (!fresh) {
                reader.Fail("job " + std::to_string(number) + " starts twice (first at line " +
                            std::to_string(trace.jobs[place->second].start_line) + ")");
            }
            trace.jobs.push_back(std::move(started));
        } else if (op_text == "end") {
            if (event.contains("hosts") || event.contains("count") || event.contains("random")) {
                reader.Fail("an end gives no hosts");
            }
            auto [place, fresh] = end_index.emplace(number, ends.size());
            if (!fresh) {
                reader.Fail("job " + std::to_string(number) + " ends twice (first at line " +
                            std::to_string(ends[place->second].second.line) + ")");
            }
            ends.emplace_back(number, EndLine{time, line_number});
        } else {
            reader.Fail("\"op\" must be \"start\" or \"end\"");
        }
    });
    for (const auto& [number, end] : ends) {
        auto started = job_index.find(number);
        LineReader reader(file, end.line);
        if (started == job_index.end()) {
            reader.Fail("job " + std::to_string(number) + " ends but never starts");
        }
        TraceJob& job = trace.jobs[started->second];
        if (end.time < job.start) {
            reader.Fail("job " + std::to_string(number) +
                        " ends (t=" + internal::TimeText(end.time) +
                        ") before it starts (t=" + internal::TimeText(job.start) + ", line " +
                        std::to_string(job.start_line) + ")");
        }
        job.end = end.time;
        job.end_line = end.line;
    }
    return trace;
}

}  // namespace aggtree
