// What `aggtree simulate` prints: one line per event (text or JSON) and the summary
// (text for people, one JSON object for programs).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "fabric_model/fabric.h"
#include "simulation/replay_summary.h"
#include "simulation/workload_replay.h"

namespace aggtree::cli {

// The files a replay read, for the summary's heading.
struct ReplayInputs {
    std::string fabric;
    std::string trace;
    std::string trace_format;  // "jsonl" or "swf"
    std::string placement;
};

// One event as a line of text (with its line end).
std::string RenderEventText(const ReplayEvent& event, const Fabric& fabric);

// One event as a JSON object.
nlohmann::ordered_json EventToJson(const ReplayEvent& event, const Fabric& fabric);

// The summary for people.
std::string RenderSummaryText(const ReplaySummary& summary, const ReplayInputs& inputs);

// The summary as one JSON object: jobs, started, served, refused, internal_failures,
// skipped, aggregated_node_hours_share, node_hours, peak_tree_ids_in_use, peak_tree_ids_at,
// tree_ids_first_ran_out_at, tree_ids_ran_out_on, switch_load, latency_us,
// trees_held_at_end.
nlohmann::ordered_json SummaryToJson(const ReplaySummary& summary, const ReplayInputs& inputs);

}  // namespace aggtree::cli
