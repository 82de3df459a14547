// Replaying a workload: a trace's jobs start and end in time order against one fabric
// model, one tree creator and one ledger of committed trees, as a fabric aggregation
// manager would see them.
//
// Events run in time order; at one instant ends come before starts (the hosts and trees
// of a job that ends are free for one that starts), except that a job ending at the very
// instant it starts ends after its start.  Among equals the trace's order stands.
//
// A start first finds the job's hosts: named hosts must all be free, a count is placed
// by the placement policy, a random draw takes free hosts at random; a job that cannot
// have its hosts is skipped and counted.  Otherwise the job runs on its hosts until its
// end, and asks the creator for a tree: a built tree is committed to the model (the job
// is served), a refusal is counted by its reason, and a failure of the builder itself
// (LastInternalFailure) is counted apart.  An end releases the job's hosts and its tree.
//
// Cost: one CreateTree per started job, plus O(tree switches) per commit and release and
// O(hosts) per placement; the switch-load record costs O(switches) each time the number
// of trees held reaches a new peak.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/job_resource.h"
#include "fabric_model/tree_ledger.h"
#include "simulation/host_pool.h"
#include "simulation/replay_summary.h"
#include "simulation/trace.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace aggtree {

struct ReplayOptions {
    Placement placement = Placement::kCompact;  // for jobs given as a count of hosts
    uint32_t seed = 1;                          // of random placements and draws
    JobResource resource;                       // every job's request
    bool forward_log = false;  // pass the builder's messages on to the sink installed before
};

// What happened to a job at one event.
enum class JobOutcome : uint8_t {
    kServed,           // started with a committed tree
    kRefused,          // started without a tree: the builder refused the job
    kInternalFailure,  // started without a tree: the builder failed for a reason of its own
    kSkipped,          // did not start
    kEnded,            // ended (its tree, if any, released)
    kEndOfSkipped,     // the end of a job that never started
};

// One event as it was replayed.
struct ReplayEvent {
    double time = 0;
    uint64_t job = 0;
    JobOutcome outcome = JobOutcome::kServed;
    std::vector<size_t> hosts;  // the job's hosts (indices into Fabric::Hosts())
    uint16_t tree_id = 0;       // served, or ended with a tree
    bool had_tree = false;      // ended: a tree was released
    std::string root;           // served: the root switch
    size_t tree_switches = 0;   // served: switches of the tree
    std::string reason;         // refused, internal failure, skipped: why
    double latency_us = 0;      // served, refused, internal failure: CreateTree's time
};

using ReplayEventSink = std::function<void(const ReplayEvent&)>;

class WorkloadReplay {
public:
    // A replay on `fabric`, which must be the installed fabric (g_fabric) while Run runs
    // and must outlive the replay.
    WorkloadReplay(Fabric& fabric, const ReplayOptions& options);
    WorkloadReplay(const WorkloadReplay&) = delete;
    WorkloadReplay& operator=(const WorkloadReplay&) = delete;

    // Replays the trace, calling `on_event` (when set) after every event.  Named hosts the
    // fabric does not know are an InputError naming the trace's file and line, raised
    // before anything runs.  Trees of jobs that never end stay committed (see Ledger()).
    ReplaySummary Run(const Trace& trace, const ReplayEventSink& on_event = {});

    // The state before the first event (at its time) and after every event of the run.
    const std::vector<TimelinePoint>& Timeline() const { return m_timeline; }

    // The trees committed to the model.
    const TreeLedger& Ledger() const { return m_ledger; }

private:
    struct RunningJob;
    struct Event;

    std::vector<Event> OrderEvents(const Trace& trace) const;
    void ResolveNamedHosts(const Trace& trace);
    void Start(size_t job_index, RunningJob& state, double time, ReplayEvent& event);
    bool FindHosts(const TraceJob& job, size_t job_index, ReplayEvent& event);
    void RequestTree(const TraceJob& job, RunningJob& state, double time, ReplayEvent& event);
    void End(size_t job_index, RunningJob& state, double time, ReplayEvent& event);
    void OnCommitted(const CommittedTree& tree, double time);
    void OnReleased(uint16_t tree_id, size_t switches);
    void RecordSwitchLoad(double time);
    void CountInitialTreeIds();

    Fabric& m_fabric;
    ReplayOptions m_options;
    TreeLedger m_ledger;
    OnDemandTreeCreator m_creator;
    HostPool m_hosts;
    std::mt19937 m_engine;
    std::vector<const TraceJob*> m_jobs;             // the trace's jobs during Run
    std::vector<PortData> m_request_ports;           // the ports of the last request
    std::vector<std::vector<size_t>> m_named_hosts;  // per trace job: resolved named hosts
    std::vector<uint32_t> m_tree_id_holders;  // per tree id: switches on which it is not free
    uint32_t m_tree_ids_in_use = 0;
    uint64_t m_peak_trees_held = 0;
    std::vector<std::string> m_logged_errors;  // the builder's errors in this request
    std::vector<double> m_latencies_us;
    std::vector<TimelinePoint> m_timeline;
    ReplaySummary m_summary;
};

}  // namespace aggtree
