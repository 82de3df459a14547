// What a replay found: the records of its summary and timeline, the tally of reasons
// (refusals, skips, internal failures) and how a refusal's reason is told.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace aggtree {

// One reason with how often it occurred and its first occurrence.
struct ReasonCount {
    std::string reason;  // the reason as counted ("Couldn't find any available tree id ...")
    uint64_t count = 0;
    std::optional<uint64_t> first_job;  // the job of the first occurrence, when known
    double first_time = 0;              // its time, seconds (with first_job)
    std::string example;                // the full text of the first occurrence
};

// Occurrences counted by reason.
class ReasonTally {
public:
    // Counts one occurrence of `reason`; `example` is its full text.
    void Add(const std::string& reason, const std::string& example, uint64_t job, double time);
    // Adds `count` occurrences at once (reasons known before the replay, such as jobs left
    // out while a trace was read).
    void AddMany(const std::string& reason, uint64_t count);
    // All occurrences.
    uint64_t Total() const { return m_total; }
    // The reasons, most frequent first, then in order of first occurrence.
    std::vector<ReasonCount> Reasons() const;

private:
    std::vector<ReasonCount> m_reasons;  // in order of first occurrence
    std::unordered_map<std::string, size_t> m_index;
    uint64_t m_total = 0;
};

// How a refused request is counted: `reason` groups refusals (names of switches left
// out), `detail` keeps the full text.
struct RefusalReason {
    std::string reason;
    std::string detail;
};

// The reason of a refusal from the record's error text (its first line) or, should the
// builder have left no text, from the first error it logged during the request; "the
// builder gave no reason" when there is neither, so that such a refusal shows.  Quoted
// names and the text after a colon are left out of the reason so that refusals of one
// kind count together.
RefusalReason ClassifyRefusal(const std::string& error_text,
                              const std::vector<std::string>& logged_errors);

// Active trees per switch at one moment.
struct SwitchLoad {
    double at = 0;                    // when, seconds
    uint64_t trees_held = 0;          // trees committed by the replay then
    uint32_t max = 0;                 // the most active trees on one switch
    std::string busiest;              // the first switch (file order) carrying `max`
    double mean = 0;                  // mean over the switches that serve jobs
    std::vector<uint64_t> histogram;  // [k]: switches carrying k active trees
};

// CreateTree wall-clock time over all requests, in microseconds.
struct LatencySummary {
    uint64_t requests = 0;
    double median_us = 0;
    double p99_us = 0;
    double max_us = 0;
};

// Latency figures of the samples (reordered in place).
LatencySummary SummariseLatency(std::vector<double>& samples_us);

struct ReplaySummary {
    uint64_t jobs = 0;                  // jobs of the trace: started + skipped
    uint64_t started = 0;               // jobs that got their hosts and asked for a tree
    uint64_t served = 0;                // jobs that ran with a committed tree
    ReasonTally refused;                // the builder could not serve the job
    ReasonTally internal_failures;      // the request failed for no reason of the job's own
    ReasonTally skipped;                // the job never ran (no hosts, or left out of the trace)
    double node_hours = 0;              // hosts x hours of every job that ran
    double aggregated_node_hours = 0;   // of those, the ones that ran with a tree
    uint32_t peak_tree_ids_in_use = 0;  // distinct tree ids not free on some switch
    double peak_tree_ids_at = 0;
    std::optional<double> tree_ids_ran_out_at;  // first time some switch had no free id
    std::string tree_ids_ran_out_on;            // that switch
    SwitchLoad switch_load;                     // at the first moment the most trees were held
    LatencySummary latency;
    uint64_t trees_held_at_end = 0;
    double first_time = 0;  // of the first event, seconds
    double last_time = 0;   // of the last event

    // The share of node-hours that ran with a tree, 0 when no job ran.
    double AggregatedShare() const;
};

// The replay's state after one event.
struct TimelinePoint {
    double time = 0;
    uint64_t trees_held = 0;
    uint32_t tree_ids_in_use = 0;
    uint64_t served = 0;             // so far
    uint64_t refused = 0;            // so far
    uint64_t internal_failures = 0;  // so far
    uint64_t skipped = 0;            // so far, jobs left out while the trace was read included
};

}  // namespace aggtree
