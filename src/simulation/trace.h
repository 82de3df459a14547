// Workload traces: which jobs start when, on which hosts, and when they end.
//
// Two formats, told apart by content:
// - JSON lines, one event per line:
//     {"t": 0.0, "op": "start", "job": 7, "hosts": ["node001", "node002"]}
//     {"t": 0.0, "op": "start", "job": 8, "count": 64}      (hosts placed by the replay)
//     {"t": 0.0, "op": "start", "job": 9, "random": 64}     (hosts drawn at random)
//     {"t": 9.5, "op": "end", "job": 7}
//   Lines may come in any order; a job starts once and ends at most once, not before it
//   starts.  Blank lines are allowed.
// - the Standard Workload Format of the Parallel Workloads Archive: ';' comment lines,
//   then 18 whitespace-separated numbers per job, -1 for unknown.  A job starts at its
//   submit time (field 2) plus its wait time (field 3, -1 counting as 0), runs for field
//   4 seconds and needs field 5 processors (field 8 when field 5 is -1), that is
//   ceil(processors / procs_per_host) hosts, placed by the replay.  A job without size
//   (both -1 or 0), without run time (-1) or without submit time (-1) is skipped and
//   counted.
// Every problem is an InputError naming the file and the line.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "topology/input_error.h"

namespace aggtree {

// How a job's hosts are given.
enum class HostRequest : uint8_t {
    kNamed,   // the hosts are listed by name or GUID
    kCount,   // a number of hosts, placed by the replay's placement policy
    kRandom,  // a number of hosts drawn at random from the free hosts
};

// One job of a trace.
struct TraceJob {
    uint64_t job = 0;           // the job number (the job id is "default_<job>")
    double start = 0;           // seconds
    std::optional<double> end;  // seconds; none: the job runs past the end of the trace
    HostRequest request = HostRequest::kNamed;
    std::vector<std::string> hosts;  // kNamed: names or GUID texts, in the trace's order
    uint64_t count = 0;              // kCount, kRandom: the number of hosts
    size_t start_line = 0;           // where the job's start stands in the file
    size_t end_line = 0;             // where its end stands (0 without an end)
};

// A trace as read: its jobs in file order and the jobs skipped while reading.
struct Trace {
    std::string file;
    std::string format;                       // "jsonl" or "swf"
    std::vector<TraceJob> jobs;               // in the order their starts stand in the file
    std::map<std::string, uint64_t> skipped;  // jobs left out while reading, by reason
};

// Reading options.
struct TraceReadOptions {
    uint64_t procs_per_host = 1;  // SWF: processors per host
};

// Reads a JSON-lines trace; throws InputError naming `file` and the line.
Trace ParseJsonLinesTrace(std::string_view text, const std::string& file);

// Reads a Standard Workload Format trace; throws InputError naming `file` and the line.
Trace ParseSwfTrace(std::string_view text, const std::string& file,
                    const TraceReadOptions& options = {});

// Reads either format, recognised by content: JSON lines when the first character that
// is not blank is '{', else SWF.
Trace ParseTrace(std::string_view text, const std::string& file,
                 const TraceReadOptions& options = {});

// Reads a trace file from disk.
Trace LoadTrace(const std::string& path, const TraceReadOptions& options = {});

}  // namespace aggtree
