// Dragonfly+ fallback search: when the path search finds no path of island roots, find
// a connected set of switches that holds a root of every job island and crosses at
// most `max_childless_islands` transit switches, if there is one.
//
// The graph: the roots of the job islands and the transit switches (any other switch,
// of a childless island or a non-root switch of a job island) that pass the admission
// check and have a free tree id, joined by links between islands that carry the job's
// lock demand.  Roots cost nothing; each transit switch counts once against the limit
// L.  In a set with the fewest transit switches every transit switch has two branches
// that each reach a root, so it lies within ceil(L/2) hops of a root and has two
// neighbours: only such candidates are kept (T of them).
//
// Order of visit: the graph breadth first from the roots (islands by id, roots in
// address order), up to ceil(L/2) transit hops.  Roots joined directly form root
// components.  Then transit sets of 0, 1, ... L switches are tried, each size as
// combinations of the candidates in address order; a set works when the root
// components it joins cover every job island.  The first size that works is the fewest
// transit switches (exact: every smaller size was tried in full).  Of the sets of that
// size, in that order, the first kMaxCompletedSets that work are each completed: a
// breadth-first tree of the joined component from each of its transit switches and
// from each root of its scarcest island, pruned from the leaves like a full path (a
// transit leaf, or a root leaf whose island keeps another root, goes).  The smallest
// pruned set wins, the first on ties.  So "fewest switches" means: fewest transit
// switches, exactly; then, among the completions tried, the fewest switches.
//
// Cost, with V nodes and E links in the graph, I job islands, d the largest degree:
// O(V + E) to build it; at most sum_{k=0..L} C(T, k) transit sets tried (capped by
// kMaxTransitSets), each O(k * d + k * I / 64); at most kMaxCompletedSets completions,
// each O((k + r) * (V + E)) with r the scarcest island's roots.  When no set joins all
#include <algorithm>
#include <string>
#include <vector>

#include "fabric_model/options.h"
#include "tree_on_demand/dfp_fallback_internal.h"
#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

namespace {

using internal::FallbackGraph;
using internal::WorkingSet;

constexpr const char* kFallback = "DfpFallbackSearch";

// The chosen switch with the most chosen neighbours, the first in address order on ties:
// where the linking starts its walk.
size_t ChooseStart(const FallbackGraph& graph, const std::vector<size_t>& chosen_nodes) {
    std::vector<bool> chosen(graph.nodes.size(), false);
    for (size_t i : chosen_nodes) {
        chosen[i] = true;
    }
    size_t start = chosen_nodes.front();
    size_t start_degree = 0;
    for (size_t i : chosen_nodes) {
        const size_t degree = static_cast<size_t>(
            std::count_if(graph.nodes[i].neighbours.begin(), graph.nodes[i].neighbours.end(),
                          [&](size_t j) { return chosen[j]; }));
        if (degree > start_degree ||
            (degree == start_degree &&
             internal::ByAddress(graph.nodes[i].node, graph.nodes[start].node))) {
            start = i;
            start_degree = degree;
        }
    }
    return start;
}

}  // namespace

uint32_t OnDemandTreeCreator::DfpFallbackSearch(const DfpIslandMap& map_island_info,
                                                const JobResource& job_resource,
                                                AggNodeSet& path_nodes,
                                                NodeSiblingsMap& map_node_to_siblings,
                                                const AggNode*& p_start_node) {
    const size_t limit = g_option_info.max_childless_islands;
    const int max_depth = static_cast<int>((limit + 1) / 2);
    auto admit = [&](const AggNode* node) {
        const auto* fabric_info = dynamic_cast<const AggNodeFabricInfo*>(node);
        return fabric_info != nullptr &&
               CheckIfAggNodeSatisfyJobRequest(*fabric_info, job_resource) &&
               fabric_info->HasFreeTreeId();
    };
    FallbackGraph graph;
    NodeSiblingsMap siblings;
    internal::BuildFallbackGraph(map_island_info, job_resource.IsLockRequired(),
                                 job_resource.IsExclusiveLock(), max_depth, admit, graph, siblings);
    TREES_LOG_IN(kFallback, kLogLevelDebug,
                 "DfpFallbackSearch %zu job islands, %zu roots, %zu transit candidates within "
                 "%d hops\n",
                 graph.islands,
                 static_cast<size_t>(std::count_if(
                     graph.nodes.begin(), graph.nodes.end(),
                     [](const internal::GraphNode& node) { return node.island >= 0; })),
                 graph.transits.size(), max_depth);

    bool gave_up = false;
    const std::vector<WorkingSet> working_sets =
        internal::FindFewestTransitSets(graph, limit, gave_up);
    if (working_sets.empty()) {
        if (gave_up) {
            TREES_LOG_IN(kFallback, kLogLevelWarning,
                         "DfpFallbackSearch gave up after %llu transit sets\n",
                         static_cast<unsigned long long>(internal::kMaxTransitSets));
        } else {
            // The path search has said why already.
            TREES_LOG_IN(kFallback, kLogLevelDebug,
                         "DfpFallbackSearch No set joins all %zu job islands within %zu transit "
                         "switches\n",
                         graph.islands, limit);
        }
        return 1;
    }
    std::vector<size_t> best;
    for (const WorkingSet& working : working_sets) {
        std::vector<size_t> completed = internal::CompleteSet(graph, working);
        if (best.empty() || completed.size() < best.size()) {
            best = std::move(completed);
        }
    }

    const size_t start = ChooseStart(graph, best);
    path_nodes.clear();
    map_node_to_siblings.clear();
    std::string names;
    for (size_t i : best) {
        const AggNode* node = graph.nodes[i].node;
        path_nodes.insert(node);
        map_node_to_siblings[node] = siblings.at(node);
        if (TREES_LOG_ENABLED(kLogLevelDebug)) {
            names += (names.empty() ? "" : ", ") + node->name;
        }
    }
    p_start_node = graph.nodes[start].node;
    // Says that the fallback found the tree.
    TREES_LOG_IN(kFallback, kLogLevelDebug,
                 "DfpFallbackSearch found the tree's switches: %zu transit switches, %zu "
                 "switches, start %s: %s\n",
                 working_sets.front().transits.size(), best.size(), p_start_node->name.c_str(),
                 names.c_str());
    return 0;
}
