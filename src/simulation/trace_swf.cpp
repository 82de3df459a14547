// The Standard Workload Format reader.  One pass over the lines; each job line is split
// into its 18 fields and read as numbers, so the cost is linear in the file's size.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <unordered_map>

#include "simulation/trace.h"
#include "simulation/trace_internal.h"

namespace aggtree {

namespace {

constexpr size_t kSwfFields = 18;

// Fields by their 1-based number in the format's description.
enum SwfField : size_t {
    kJobNumber = 1,
    kSubmitTime = 2,
    kWaitTime = 3,
    kRunTime = 4,
    kAllocatedProcessors = 5,
    kRequestedProcessors = 8,
};

class SwfLine {
public:
    SwfLine(std::string_view line, const std::string& file, size_t line_number)
        : m_file(file), m_line_number(line_number) {
        size_t pos = 0;
        size_t count = 0;
        while (true) {
            pos = line.find_first_not_of(" \t", pos);
            if (pos == std::string_view::npos) {
                break;
            }
            size_t end = line.find_first_of(" \t", pos);
            if (end == std::string_view::npos) {
                end = line.size();
            }
            if (count < kSwfFields) {
                m_fields[count] = line.substr(pos, end - pos);
            }
            ++count;
            pos = end;
        }
        if (count != kSwfFields) {
            Fail(
                "expected 18 whitespace-separated numbers (Standard Workload Format; a "
                "JSON-lines trace starts with '{'), found " +
                std::to_string(count) + " field" + (count == 1 ? "" : "s"));
        }
    }

    double Number(SwfField field) const {
        std::string_view text = m_fields[field - 1];
        double value = 0;
        const char* first = text.data();
        if (!text.empty() && text.front() == '+') {
            ++first;
        }
        auto [end, ec] = std::from_chars(first, text.data() + text.size(), value);
        if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
            constexpr size_t kShown = 40;
            Fail("field " + std::to_string(static_cast<size_t>(field)) + " is not a number: '" +
                 std::string(text.substr(0, kShown)) + (text.size() > kShown ? "...'" : "'"));
        }
        return value;
    }

    // Every field must be a number, even those the replay does not use.
    void CheckAllNumbers() const {
        for (size_t field = 1; field <= kSwfFields; ++field) {
            Number(static_cast<SwfField>(field));
        }
    }

    [[noreturn]] void Fail(const std::string& problem) const {
        throw InputError(m_file, "line " + std::to_string(m_line_number), problem);
    }

private:
    const std::string& m_file;
    size_t m_line_number;
    std::string_view m_fields[kSwfFields];
};

// Whole numbers up to here are held exactly by a double: the largest job number, and the
// number of hosts a job too large for any fabric is held at.
constexpr double kLargestExactWholeNumber = 9007199254740992.0;  // 2^53

// ceil(processors / procs_per_host), held at 2^53 when larger (the job is then larger
// than the fabric) so that it converts.
uint64_t HostsFor(double processors, uint64_t procs_per_host) {
    const double hosts = std::ceil(processors / static_cast<double>(procs_per_host));
    return static_cast<uint64_t>(std::min(hosts, kLargestExactWholeNumber));
}

// A job's size in processors: the allocated processors, else the requested ones; 0 when
// neither is known.
double Processors(const SwfLine& fields) {
    double allocated = fields.Number(kAllocatedProcessors);
    if (allocated > 0) {
        return allocated;
    }
    double requested = fields.Number(kRequestedProcessors);
    return requested > 0 ? requested : 0;
}

}  // namespace

Trace ParseSwfTrace(std::string_view text, const std::string& file,
                    const TraceReadOptions& options) {
    Trace trace;
    trace.file = file;
    trace.format = "swf";
    const uint64_t procs_per_host = options.procs_per_host == 0 ? 1 : options.procs_per_host;
    std::unordered_map<uint64_t, size_t> job_line;
    internal::ForEachLine(text, [&](std::string_view line, size_t line_number) {
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string_view::npos || line[first] == ';') {
            return;
        }
        SwfLine fields(line, file, line_number);
        fields.CheckAllNumbers();
        double number = fields.Number(kJobNumber);
        if (number < 0 || number != std::floor(number) || number > kLargestExactWholeNumber) {
            fields.Fail("field 1 (job number) must be a whole number from 0 to 2^53");
        }
        const auto job_number = static_cast<uint64_t>(number);
        auto [earlier, fresh] = job_line.emplace(job_number, line_number);
        if (!fresh) {
            fields.Fail("job " + std::to_string(job_number) + " appears twice (first at line " +
                        std::to_string(earlier->second) + ")");
        }
        const double submit = fields.Number(kSubmitTime);
        const double wait = fields.Number(kWaitTime);
        const double run = fields.Number(kRunTime);
        const double processors = Processors(fields);
        if (submit < 0) {
            ++trace.skipped["no submit time"];
            return;
        }
        if (run < 0) {
            ++trace.skipped["no run time"];
            return;
        }
        if (processors <= 0) {
            ++trace.skipped["no size"];
            return;
        }
        TraceJob job;
        job.job = job_number;
        job.start = submit + (wait < 0 ? 0 : wait);
        job.end = job.start + run;
        if (!std::isfinite(*job.end)) {
            fields.Fail("the job's start or end time is too large");
        }
        job.request = HostRequest::kCount;
        job.count = HostsFor(processors, procs_per_host);
        job.start_line = line_number;
        job.end_line = line_number;
        trace.jobs.push_back(std::move(job));
    });
    return trace;
}

}  // namespace aggtree
