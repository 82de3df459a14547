#include "cli/replay_report.h"

#include <cmath>
#include <cstdio>
#include <set>

namespace aggtree::cli {

namespace {

using ordered = nlohmann::ordered_json;

// Seconds with at most three decimals and no trailing zeros ("12.5", "3600").
std::string Seconds(double seconds) {
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%.3f", seconds);
    std::string text = buffer;
    while (text.back() == '0') {
        text.pop_back();
    }
    if (text.back() == '.') {
        text.pop_back();
    }
    return text;
}

std::string Fixed(double value, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%.*f", decimals, value);
    return buffer;
}

// Node-hours readable at any scale: "19779", "4.3", "0.00778".
std::string Hours(double hours) {
    if (hours >= 1000) {
        return Fixed(hours, 0);
    }
    if (hours >= 1 || hours == 0) {
        return Fixed(hours, 1);
    }
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%.3g", hours);
    return buffer;
}

// Rounded for JSON: figures measured in microseconds or shares need no more.
double Rounded(double value, int decimals) {
    const double scale = std::pow(10.0, decimals);
    return std::round(value * scale) / scale;
}

size_t LeafSwitchCount(const ReplayEvent& event, const Fabric& fabric) {
    std::set<const AggNodeFabricInfo*> leaves;
    for (size_t host : event.hosts) {
        leaves.insert(fabric.Hosts()[host].attached_switch);
    }
    return leaves.size();
}

// "1 host", "3 hosts"; `many` defaults to `one` + "s".
std::string Plural(uint64_t count, const std::string& one, const std::string& many = "") {
    return std::to_string(count) + " " + (count == 1 ? one : (many.empty() ? one + "s" : many));
}

const char* OutcomeName(JobOutcome outcome) {
    switch (outcome) {
        case JobOutcome::kServed:
            return "served";
        case JobOutcome::kRefused:
            return "refused";
        case JobOutcome::kInternalFailure:
            return "internal_failure";
        case JobOutcome::kSkipped:
            return "skipped";
        case JobOutcome::kEnded:
            return "ended";
        case JobOutcome::kEndOfSkipped:
            return "never_started";
    }
    return "";
}

bool IsStart(JobOutcome outcome) {
    return outcome != JobOutcome::kEnded && outcome != JobOutcome::kEndOfSkipped;
}

ordered TallyToJson(const ReasonTally& tally) {
    ordered reasons = ordered::array();
    for (const ReasonCount& reason : tally.Reasons()) {
        ordered entry;
        entry["reason"] = reason.reason;
        entry["count"] = reason.count;
        if (reason.first_job) {
            entry["first_job"] = *reason.first_job;
            entry["first_time"] = reason.first_time;
        }
        entry["example"] = reason.example;
        reasons.push_back(std::move(entry));
    }
    return ordered{{"total", tally.Total()}, {"reasons", std::move(reasons)}};
}

void AppendTally(std::string& text, const std::string& heading, const ReasonTally& tally) {
    if (tally.Total() == 0) {
        return;
    }
    text += heading + ":\n";
    for (const ReasonCount& reason : tally.Reasons()) {
        char count[32];
        std::snprintf(count, sizeof(count), "%8llu  ",
                      static_cast<unsigned long long>(reason.count));
        text += count + reason.reason + "\n";
    }
}

}  // namespace

std::string RenderEventText(const ReplayEvent& event, const Fabric& fabric) {
    std::string text = "t=" + Seconds(event.time) + " job " + std::to_string(event.job);
    text += IsStart(event.outcome) ? " start: " : " end: ";
    std::string latency = ", " + Fixed(event.latency_us, 0) + " us";
    std::string hosts = Plural(event.hosts.size(), "host") + " on " +
                        Plural(LeafSwitchCount(event, fabric), "leaf switch", "leaf switches");
    switch (event.outcome) {
        case JobOutcome::kServed:
            text += hosts + ": served, tree " + std::to_string(event.tree_id) + " rooted at " +
                    event.root + " (" + Plural(event.tree_switches, "switch", "switches") + ")" +
                    latency;
            break;
        case JobOutcome::kRefused:
            text += hosts + ": refused: " + event.reason + latency;
            break;
        case JobOutcome::kInternalFailure:
            text += hosts + ": internal failure: " + event.reason + latency;
            break;
        case JobOutcome::kSkipped:
            text += "skipped: " + event.reason;
            break;
        case JobOutcome::kEnded:
            text += event.had_tree ? "tree " + std::to_string(event.tree_id) + " released"
                                   : std::string("ran without a tree");
            break;
        case JobOutcome::kEndOfSkipped:
            text += "never started";
            break;
    }
    return text + "\n";
}

ordered EventToJson(const ReplayEvent& event, const Fabric& fabric) {
    ordered out;
    out["t"] = event.time;
    out["job"] = event.job;
    out["event"] = IsStart(event.outcome) ? "start" : "end";
    out["outcome"] = OutcomeName(event.outcome);
    if (!event.hosts.empty()) {
        out["hosts"] = event.hosts.size();
        out["leaf_switches"] = LeafSwitchCount(event, fabric);
    }
    if (event.outcome == JobOutcome::kServed || event.had_tree) {
        out["tree_id"] = event.tree_id;
    }
    if (event.outcome == JobOutcome::kServed) {
        out["root"] = event.root;
        out["switches"] = event.tree_switches;
    }
    if (!event.reason.empty()) {
        out["reason"] = event.reason;
    }
    if (IsStart(event.outcome) && event.outcome != JobOutcome::kSkipped) {
        out["latency_us"] = Rounded(event.latency_us, 1);
    }
    return out;
}

std::string RenderSummaryText(const ReplaySummary& summary, const ReplayInputs& inputs) {
    std::string text = "Replayed " + inputs.trace + " (" + inputs.trace_format + ") on " +
                       inputs.fabric + ", placement " + inputs.placement +
                       ", t=" + Seconds(summary.first_time) +
                       " to t=" + Seconds(summary.last_time) + " s\n\n";
    text += "Jobs: " + std::to_string(summary.jobs) + " in the trace, " +
            std::to_string(summary.started) + " started, " + std::to_string(summary.served) +
            " served with a tree, " + std::to_string(summary.refused.Total()) + " refused, " +
            Plural(summary.internal_failures.Total(), "internal failure") + ", " +
            std::to_string(summary.skipped.Total()) + " skipped\n";
    AppendTally(text, "Refused", summary.refused);
    AppendTally(text, "Internal failures", summary.internal_failures);
    AppendTally(text, "Skipped", summary.skipped);
    text += "Node-hours with a tree: " + Fixed(100.0 * summary.AggregatedShare(), 1) + "% (" +
            Hours(summary.aggregated_node_hours) + " of " + Hours(summary.node_hours) + ")\n";
    text += "Tree ids in use: peak " + std::to_string(summary.peak_tree_ids_in_use) +
            " at t=" + Seconds(summary.peak_tree_ids_at) + "; ";
    text += summary.tree_ids_ran_out_at
                ? "first ran out at t=" + Seconds(*summary.tree_ids_ran_out_at) + " on " +
                      summary.tree_ids_ran_out_on + "\n"
                : std::string("never ran out\n");
    const SwitchLoad& load = summary.switch_load;
    text += "Active trees per switch at the peak (t=" + Seconds(load.at) + ", " +
            Plural(load.trees_held, "tree") + " held): max " + std::to_string(load.max) +
            (load.busiest.empty() ? "" : " (" + load.busiest + ")") + ", mean " +
            Fixed(load.mean, 2) + "\n  histogram (active trees: switches):";
    for (size_t k = 0; k < load.histogram.size(); ++k) {
        if (load.histogram[k] != 0) {
            text += " " + std::to_string(k) + ":" + std::to_string(load.histogram[k]);
        }
    }
    text += "\n";
    const LatencySummary& latency = summary.latency;
    text += "CreateTree latency: median " + Fixed(latency.median_us, 0) + " us, p99 " +
            Fixed(latency.p99_us, 0) + " us, max " + Fixed(latency.max_us, 0) + " us (" +
            Plural(latency.requests, "request") + ")\n";
    text += "Trees still held at the end: " + std::to_string(summary.trees_held_at_end) + "\n";
    return text;
}

ordered SummaryToJson(const ReplaySummary& summary, const ReplayInputs& inputs) {
    ordered out;
    out["fabric"] = inputs.fabric;
    out["trace"] = inputs.trace;
    out["trace_format"] = inputs.trace_format;
    out["placement"] = inputs.placement;
    out["first_time"] = summary.first_time;
    out["last_time"] = summary.last_time;
    out["jobs"] = summary.jobs;
    out["started"] = summary.started;
    out["served"] = summary.served;
    out["refused"] = TallyToJson(summary.refused);
    out["internal_failures"] = TallyToJson(summary.internal_failures);
    out["skipped"] = TallyToJson(summary.skipped);
    out["aggregated_node_hours_share"] = Rounded(summary.AggregatedShare(), 6);
    out["node_hours"] = {{"total", Rounded(summary.node_hours, 6)},
                         {"with_tree", Rounded(summary.aggregated_node_hours, 6)}};
    out["peak_tree_ids_in_use"] = summary.peak_tree_ids_in_use;
    out["peak_tree_ids_at"] = summary.peak_tree_ids_at;
    out["tree_ids_first_ran_out_at"] =
        summary.tree_ids_ran_out_at ? ordered(*summary.tree_ids_ran_out_at) : ordered(nullptr);
    out["tree_ids_ran_out_on"] =
        summary.tree_ids_ran_out_at ? ordered(summary.tree_ids_ran_out_on) : ordered(nullptr);
    const SwitchLoad& load = summary.switch_load;
    out["switch_load"] = {
        {"at", load.at},           {"trees_held", load.trees_held}, {"max", load.max},
        {"busiest", load.busiest}, {"mean", Rounded(load.mean, 6)}, {"histogram", load.histogram}};
    const LatencySummary& latency = summary.latency;
    out["latency_us"] = {{"requests", latency.requests},
                         {"median", Rounded(latency.median_us, 1)},
                         {"p99", Rounded(latency.p99_us, 1)},
                         {"max", Rounded(latency.max_us, 1)}};
    out["trees_held_at_end"] = summary.trees_held_at_end;
    return out;
}

}  // namespace aggtree::cli
