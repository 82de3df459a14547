#include "simulation/workload_replay.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <tuple>

#include "common/log.h"

namespace aggtree {

// A job's state between its start and its end.
struct WorkloadReplay::RunningJob {
    bool started = false;
    bool served = false;
    double start = 0;
    std::vector<size_t> hosts;
};

// One start or end, with its place in the replay's order.
struct WorkloadReplay::Event {
    double time = 0;
    int phase = 0;   // 0 an end of a job started earlier, 1 a start, 2 a zero-length job's end
    size_t job = 0;  // index into the trace's jobs

    bool IsStart() const { return phase == 1; }
    bool operator<(const Event& other) const {
        return std::tie(time, phase, job) < std::tie(other.time, other.phase, other.job);
    }
};

namespace {

// Captures the builder's errors of each request for the refusal reasons, and passes every
// message on to the sink installed before when asked to.
class RequestLogCapture {
public:
    RequestLogCapture(std::vector<std::string>& errors, bool forward) {
        m_previous = log_set_sink([&errors, forward, this](const LogRecord& record) {
            if (record.level == kLogLevelError && record.module == kLogModuleTrees) {
                errors.emplace_back(record.message);
            }
            if (forward) {
                m_forward(record);
            }
        });
        // No sink installed means the default one: text on standard error.
        m_forward = m_previous ? m_previous : MakeTextLogSink(stderr);
    }
    ~RequestLogCapture() { log_set_sink(m_previous); }
    RequestLogCapture(const RequestLogCapture&) = delete;
    RequestLogCapture& operator=(const RequestLogCapture&) = delete;

private:
    LogSink m_previous;
    LogSink m_forward;
};

const char* InternalFailureName(InternalFailure kind) {
    switch (kind) {
        case InternalFailure::kOutOfMemory:
            return "out of memory";
        case InternalFailure::kBrokenTree:
            return "the built tree failed the final check";
        case InternalFailure::kNone:
            break;
    }
    return "internal failure";
}

double HoursOf(size_t hosts, double seconds) {
    return static_cast<double>(hosts) * seconds / 3600.0;
}

}  // namespace

WorkloadReplay::WorkloadReplay(Fabric& fabric, const ReplayOptions& options)
    : m_fabric(fabric),
      m_options(options),
      m_ledger(fabric),
      m_hosts(fabric),
      m_engine(options.seed),
      m_tree_id_holders(size_t{fabric.max_tree_id} + 1, 0) {}

std::vector<WorkloadReplay::Event> WorkloadReplay::OrderEvents(const Trace& trace) const {
    std::vector<Event> events;
    events.reserve(trace.jobs.size() * 2);
    for (size_t i = 0; i < trace.jobs.size(); ++i) {
        const TraceJob& job = trace.jobs[i];
        events.push_back(Event{job.start, 1, i});
        if (job.end) {
            events.push_back(Event{*job.end, *job.end > job.start ? 0 : 2, i});
        }
    }
    std::sort(events.begin(), events.end());
    return events;
}

void WorkloadReplay::ResolveNamedHosts(const Trace& trace) {
    m_named_hosts.assign(trace.jobs.size(), {});
    const HostRecord* first = m_fabric.Hosts().data();
    for (size_t i = 0; i < trace.jobs.size(); ++i) {
        const TraceJob& job = trace.jobs[i];
        if (job.request != HostRequest::kNamed) {
            continue;
        }
        std::vector<size_t>& hosts = m_named_hosts[i];
        for (const std::string& name : job.hosts) {
            const HostRecord* host = m_fabric.FindHost(name);
            if (host == nullptr) {
                throw InputError(
                    trace.file, "line " + std::to_string(job.start_line),
                    "unknown host '" + name + "': the fabric has no host of that name or GUID");
            }
            hosts.push_back(static_cast<size_t>(host - first));
        }
        std::sort(hosts.begin(), hosts.end());
        hosts.erase(std::unique(hosts.begin(), hosts.end()), hosts.end());
    }
}

void WorkloadReplay::CountInitialTreeIds() {
    for (const AggNodeFabricInfo& sw : m_fabric.Switches()) {
        for (size_t id = 0; id < m_tree_id_holders.size(); ++id) {
            if (!sw.free_tree_ids.IsBitSet(id) && m_tree_id_holders[id]++ == 0) {
                ++m_tree_ids_in_use;
            }
        }
    }
}

ReplaySummary WorkloadReplay::Run(const Trace& trace, const ReplayEventSink& on_event) {
    if (g_fabric != &m_fabric) {
        throw std::logic_error("the replay's fabric is not the installed fabric (g_fabric)");
    }
    if (m_summary.jobs != 0 || !m_timeline.empty()) {
        throw std::logic_error("a workload replay runs one trace");
    }
    ResolveNamedHosts(trace);
    m_jobs.clear();
    for (const TraceJob& job : trace.jobs) {
        m_jobs.push_back(&job);
    }
    const std::vector<Event> events = OrderEvents(trace);
    RequestLogCapture capture(m_logged_errors, m_options.forward_log);

    m_summary.jobs = trace.jobs.size();
    for (const auto& [reason, count] : trace.skipped) {
        m_summary.jobs += count;
        m_summary.skipped.AddMany(reason, count);
    }
    if (!events.empty()) {
        m_summary.first_time = events.front().time;
        m_summary.last_time = events.back().time;
    }
    CountInitialTreeIds();
    m_summary.peak_tree_ids_in_use = m_tree_ids_in_use;
    m_summary.peak_tree_ids_at = m_summary.first_time;
    for (const AggNodeFabricInfo& sw : m_fabric.Switches()) {
        if (sw.ServesJobs() && sw.CountFreeTreeIds() == 0 && !m_summary.tree_ids_ran_out_at) {
            m_summary.tree_ids_ran_out_at = m_summary.first_time;
            m_summary.tree_ids_ran_out_on = sw.name;
        }
    }
    RecordSwitchLoad(m_summary.first_time);

    std::vector<RunningJob> states(trace.jobs.size());
    m_timeline.reserve(events.size() + 1);
    m_timeline.push_back(TimelinePoint{m_summary.first_time, 0, m_tree_ids_in_use, 0, 0, 0,
                                       m_summary.skipped.Total()});
    for (const Event& order : events) {
        ReplayEvent event;
        event.time = order.time;
        event.job = trace.jobs[order.job].job;
        if (order.IsStart()) {
            Start(order.job, states[order.job], order.time, event);
        } else {
            End(order.job, states[order.job], order.time, event);
        }
        m_timeline.push_back(TimelinePoint{order.time, m_ledger.Size(), m_tree_ids_in_use,
                                           m_summary.served, m_summary.refused.Total(),
                                           m_summary.internal_failures.Total(),
                                           m_summary.skipped.Total()});
        if (on_event) {
            on_event(event);
        }
    }
    // Jobs that never end run until the last event.
    for (const RunningJob& state : states) {
        if (state.started) {
            const double hours = HoursOf(state.hosts.size(), m_summary.last_time - state.start);
            m_summary.node_hours += hours;
            m_summary.aggregated_node_hours += state.served ? hours : 0;
        }
    }
    m_summary.latency = SummariseLatency(m_latencies_us);
    m_summary.trees_held_at_end = m_ledger.Size();
    return m_summary;
}

bool WorkloadReplay::FindHosts(const TraceJob& job, size_t job_index, ReplayEvent& event) {
    if (job.request == HostRequest::kNamed) {
        for (size_t host : m_named_hosts[job_index]) {
            if (!m_hosts.IsFree(host)) {
                event.reason = "hosts busy";
                return false;
            }
        }
        event.hosts = m_named_hosts[job_index];
        return true;
    }
    if (job.count > m_hosts.Size()) {
        event.reason = "larger than the fabric";
        return false;
    }
    Placement placement =
        job.request == HostRequest::kRandom ? Placement::kRandom : m_options.placement;
    event.hosts = m_hosts.Pick(job.count, placement, m_engine);
    if (event.hosts.empty()) {
        event.reason = "too few free hosts";
        return false;
    }
    return true;
}

void WorkloadReplay::Start(size_t job_index, RunningJob& state, double time, ReplayEvent& event) {
    const TraceJob& job = *m_jobs[job_index];
    if (!FindHosts(job, job_index, event)) {
        event.outcome = JobOutcome::kSkipped;
        m_summary.skipped.Add(event.reason, event.reason, job.job, time);
        return;
    }
    m_hosts.Take(event.hosts);
    state.started = true;
    state.start = time;
    state.hosts = event.hosts;
    ++m_summary.started;
    RequestTree(job, state, time, event);
}

void WorkloadReplay::RequestTree(const TraceJob& job, RunningJob& state, double time,
                                 ReplayEvent& event) {
    const std::vector<HostRecord>& hosts = m_fabric.Hosts();
    m_request_ports.clear();
    m_request_ports.reserve(state.hosts.size());
    for (size_t host : state.hosts) {
        m_request_ports.push_back(PortData{hosts[host].guid, hosts[host].plane});
    }
    JobPortSet ports;
    for (const PortData& port : m_request_ports) {
        ports.insert(&port);
    }
    const ZeltaExtJobId job_id{job.job, 0, ""};
    JobSubTreeInfo info;
    JobSubTreeScore score;
    m_logged_errors.clear();
    const auto begin = std::chrono::steady_clock::now();
    const int status = m_creator.CreateTree(ports, m_options.resource, job_id, info, score);
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    event.latency_us = std::chrono::duration<double, std::micro>(elapsed).count();
    m_latencies_us.push_back(event.latency_us);

    if (status != 0) {
        const RequestFailure& failure = m_creator.LastInternalFailure();
        if (failure.kind != InternalFailure::kNone) {
            event.outcome = JobOutcome::kInternalFailure;
            event.reason = InternalFailureName(failure.kind);
            m_summary.internal_failures.Add(event.reason, failure.text, job.job, time);
            return;
        }
        RefusalReason refusal = ClassifyRefusal(info.error_text, m_logged_errors);
        event.outcome = JobOutcome::kRefused;
        event.reason = refusal.detail;
        m_summary.refused.Add(refusal.reason, refusal.detail, job.job, time);
        return;
    }
    LedgerStatus committed = m_ledger.Commit(info, m_options.resource);
    if (!committed.ok()) {
        // A tree the model cannot take says nothing about the job.
        event.outcome = JobOutcome::kInternalFailure;
        event.reason = committed.error_text;
        m_summary.internal_failures.Add("the model refused the built tree", committed.error_text,
                                        job.job, time);
        return;
    }
    const CommittedTree& tree = *m_ledger.Find(job_id);
    state.served = true;
    ++m_summary.served;
    event.outcome = JobOutcome::kServed;
    event.tree_id = tree.TreeId();
    event.root = tree.Root()->name;
    event.tree_switches = tree.Nodes().size();
    OnCommitted(tree, time);
}

void WorkloadReplay::End(size_t job_index, RunningJob& state, double time, ReplayEvent& event) {
    const TraceJob& job = *m_jobs[job_index];
    if (!state.started) {
        event.outcome = JobOutcome::kEndOfSkipped;
        return;
    }
    event.outcome = JobOutcome::kEnded;
    event.hosts = state.hosts;
    const double hours = HoursOf(state.hosts.size(), time - state.start);
    m_summary.node_hours += hours;
    if (state.served) {
        m_summary.aggregated_node_hours += hours;
        const ZeltaExtJobId job_id{job.job, 0, ""};
        const CommittedTree& tree = *m_ledger.Find(job_id);
        event.had_tree = true;
        event.tree_id = tree.TreeId();
        const size_t switches = tree.Nodes().size();
        LedgerStatus released = m_ledger.Release(job_id);
        if (!released.ok()) {
            throw std::logic_error(released.error_text);  // the replay committed it
        }
        OnReleased(event.tree_id, switches);
    }
    m_hosts.Give(state.hosts);
    state = RunningJob{};
}

void WorkloadReplay::OnCommitted(const CommittedTree& tree, double time) {
    for (const auto& node : tree.Nodes()) {
        if (m_tree_id_holders[tree.TreeId()]++ == 0) {
            ++m_tree_ids_in_use;
        }
        const AggNodeFabricInfo& sw = *node->agg_node;
        if (!m_summary.tree_ids_ran_out_at && sw.CountFreeTreeIds() == 0) {
            m_summary.tree_ids_ran_out_at = time;
            m_summary.tree_ids_ran_out_on = sw.name;
        }
    }
    if (m_tree_ids_in_use > m_summary.peak_tree_ids_in_use) {
        m_summary.peak_tree_ids_in_use = m_tree_ids_in_use;
        m_summary.peak_tree_ids_at = time;
    }
    if (m_ledger.Size() > m_peak_trees_held) {
        m_peak_trees_held = m_ledger.Size();
        RecordSwitchLoad(time);
    }
}

void WorkloadReplay::OnReleased(uint16_t tree_id, size_t switches) {
    // The id was not free on each of the tree's switches; now it is again.
    for (size_t i = 0; i < switches; ++i) {
        if (--m_tree_id_holders[tree_id] == 0) {
            --m_tree_ids_in_use;
        }
    }
}

void WorkloadReplay::RecordSwitchLoad(double time) {
    SwitchLoad load;
    load.at = time;
    load.trees_held = m_ledger.Size();
    uint64_t serving = 0;
    uint64_t total = 0;
    for (const AggNodeFabricInfo& sw : m_fabric.Switches()) {
        if (!sw.ServesJobs()) {
            continue;
        }
        ++serving;
        total += sw.active_trees;
        if (load.histogram.size() <= sw.active_trees) {
            load.histogram.resize(size_t{sw.active_trees} + 1, 0);
        }
        ++load.histogram[sw.active_trees];
        if (load.busiest.empty() || sw.active_trees > load.max) {
            load.max = sw.active_trees;
            load.busiest = sw.name;
        }
    }
    load.mean = serving > 0 ? static_cast<double>(total) / static_cast<double>(serving) : 0;
    m_summary.switch_load = std::move(load);
}

}  // namespace aggtree
