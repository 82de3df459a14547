// Steps of the Dragonfly+ fallback search (the search as a whole, its order of visit
// and its cost are described in dfp_fallback_search.cpp).
//
// Building the graph visits the roots island by island (islands by id, roots in address
// order) and then breadth first over links between islands, in address order of the
// adjacent nodes; root components and transit candidates are found in one pass each,
// O(V + E).  Transit sets are tried as combinations of candidates in address order,
// each checked in O(k d) with a small disjoint-set structure.  Completing a working set
// is one breadth-first walk and one pruning pass per start, O(V + E) each.
#include "tree_on_demand/dfp_fallback_internal.h"

#include <numeric>
#include <queue>

namespace internal {

namespace {

// Disjoint sets of 0 .. n-1 with path halving.
class DisjointSets {
public:
    // n singletons.
    explicit DisjointSets(size_t n) : m_parent(n) {
        std::iota(m_parent.begin(), m_parent.end(), 0);
    }
    // The representative of x's set.
    size_t Find(size_t x) {
        while (m_parent[x] != x) {
            m_parent[x] = m_parent[m_parent[x]];
            x = m_parent[x];
        }
        return x;
    }
    // Merges the sets of a and b.
    void Join(size_t a, size_t b) { m_parent[Find(a)] = Find(b); }

private:
    std::vector<size_t> m_parent;
};

// Root components: roots joined by direct links, with the islands each one covers.
void FindRootComponents(FallbackGraph& graph) {
    DisjointSets sets(graph.nodes.size());
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        for (size_t j : graph.nodes[i].neighbours) {
            if (graph.nodes[i].island >= 0 && graph.nodes[j].island >= 0) {
                sets.Join(i, j);
            }
        }
    }
    std::unordered_map<size_t, size_t> component_by_representative;
    graph.component_of.assign(graph.nodes.size(), SIZE_MAX);
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (graph.nodes[i].island < 0) {
            continue;
        }
        auto [it, added] =
            component_by_representative.emplace(sets.Find(i), graph.component_islands.size());
        if (added) {
            graph.component_islands.emplace_back(graph.islands);
        }
        graph.component_of[i] = it->second;
        graph.component_islands[it->second].Set(static_cast<size_t>(graph.nodes[i].island));
    }
}

// Candidate transits and, for each, the root components and candidates next to it.
void FindTransitCandidates(FallbackGraph& graph) {
    std::vector<size_t> position(graph.nodes.size(), SIZE_MAX);
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (graph.nodes[i].island < 0 && graph.nodes[i].neighbours.size() >= 2) {
            graph.transits.push_back(i);
        }
    }
    std::sort(graph.transits.begin(), graph.transits.end(), [&](size_t a, size_t b) {
        return ByAddress(graph.nodes[a].node, graph.nodes[b].node);
    });
    for (size_t p = 0; p < graph.transits.size(); ++p) {
        position[graph.transits[p]] = p;
    }
    graph.transit_components.resize(graph.transits.size());
    graph.transit_links.resize(graph.transits.size());
    for (size_t p = 0; p < graph.transits.size(); ++p) {
        for (size_t j : graph.nodes[graph.transits[p]].neighbours) {
            if (graph.nodes[j].island >= 0) {
                graph.transit_components[p].push_back(graph.component_of[j]);
            } else if (position[j] != SIZE_MAX) {
                graph.transit_links[p].push_back(position[j]);
            }
        }
        std::vector<size_t>& components = graph.transit_components[p];
        std::sort(components.begin(), components.end());
        components.erase(std::unique(components.begin(), components.end()), components.end());
    }
}

// Whether the transits at `chosen` (candidate positions) join root components that
// cover every island; fills `working` when they do.
bool JoinsAllIslands(const FallbackGraph& graph, const std::vector<size_t>& chosen,
                     WorkingSet& working) {
    // Items: the chosen transits first, then the components they touch.
    std::vector<size_t> touched;
    for (size_t p : chosen) {
        touched.insert(touched.end(), graph.transit_components[p].begin(),
                       graph.transit_components[p].end());
    }
    std::sort(touched.begin(), touched.end());
    touched.erase(std::unique(touched.begin(), touched.end()), touched.end());
    DisjointSets sets(chosen.size() + touched.size());
    for (size_t a = 0; a < chosen.size(); ++a) {
        for (size_t component : graph.transit_components[chosen[a]]) {
            const size_t item =
                chosen.size() +
                static_cast<size_t>(std::lower_bound(touched.begin(), touched.end(), component) -
                                    touched.begin());
            sets.Join(a, item);
        }
        for (size_t b = a + 1; b < chosen.size(); ++b) {
            const std::vector<size_t>& links = graph.transit_links[chosen[a]];
            if (std::find(links.begin(), links.end(), chosen[b]) != links.end()) {
                sets.Join(a, b);
            }
        }
    }
    // With the fewest transits every chosen one is needed, so all must end up joined.
    const size_t group = sets.Find(0);
    IslandBits covered(graph.islands);
    for (size_t a = 0; a < chosen.size(); ++a) {
        if (sets.Find(a) != group) {
            return false;
        }
    }
    for (size_t c = 0; c < touched.size(); ++c) {
        if (sets.Find(chosen.size() + c) == group) {
            covered.Add(graph.component_islands[touched[c]]);
        }
    }
    if (!covered.HasAll(graph.islands)) {
        return false;
    }
    working.transits = chosen;
    working.components = touched;
    return true;
}

// The graph breadth first from the roots, transits up to `max_depth` hops away;
// `siblings` receives every node's adjacent nodes.
void BuildGraph(const DfpIslandMap& map_island_info, bool lock_required, bool exclusive_lock,
                int max_depth, const AdmitTransit& admit, FallbackGraph& graph,
                NodeSiblingsMap& siblings) {
    std::vector<uint16_t> island_ids;
    for (const auto& [island_id, island] : map_island_info) {
        island_ids.push_back(island_id);
    }
    std::sort(island_ids.begin(), island_ids.end());
    graph.islands = island_ids.size();
    std::queue<size_t> pending;
    for (size_t i = 0; i < island_ids.size(); ++i) {
        const AggNodeSet& roots = map_island_info.at(island_ids[i])->island_roots;
        std::vector<const AggNode*> ordered(roots.begin(), roots.end());
        std::sort(ordered.begin(), ordered.end(), ByAddress);
        for (const AggNode* root : ordered) {
            graph.index.emplace(root, graph.nodes.size());
            graph.nodes.push_back({root, static_cast<int>(i), 0, {}});
            pending.push(graph.nodes.size() - 1);
        }
    }
    auto adjacent = [&](const AggNode* node) -> const AggNodeSet& {
        auto [it, added] = siblings.try_emplace(node);
        if (added) {
            node->GetAdjacentSiblings(lock_required, exclusive_lock, it->second, nullptr);
        }
        return it->second;
    };
    while (!pending.empty()) {
        const size_t current = pending.front();
        pending.pop();
        if (graph.nodes[current].depth >= max_depth) {
            continue;
        }
        const AggNodeSet& next = adjacent(graph.nodes[current].node);
        std::vector<const AggNode*> ordered(next.begin(), next.end());
        std::sort(ordered.begin(), ordered.end(), ByAddress);
        for (const AggNode* node : ordered) {
            if (graph.index.count(node) != 0 || !admit(node)) {
                continue;
            }
            graph.index.emplace(node, graph.nodes.size());
            graph.nodes.push_back({node, -1, graph.nodes[current].depth + 1, {}});
            pending.push(graph.nodes.size() - 1);
        }
    }
    for (GraphNode& entry : graph.nodes) {
        for (const AggNode* node : adjacent(entry.node)) {
            auto it = graph.index.find(node);
            if (it != graph.index.end()) {
                entry.neighbours.push_back(it->second);
            }
        }
        std::sort(entry.neighbours.begin(), entry.neighbours.end());
    }
}

// Next combination of `k` positions out of `n` in lexicographic order; false after the
// last one.
bool NextCombination(std::vector<size_t>& chosen, size_t n) {
    const size_t k = chosen.size();
    for (size_t i = k; i-- > 0;) {
        if (chosen[i] < n - k + i) {
            ++chosen[i];
            for (size_t j = i + 1; j < k; ++j) {
                chosen[j] = chosen[j - 1] + 1;
            }
            return true;
        }
    }
    return false;
}

// Whether every island can be joined at all, with every candidate transit in the set.
bool AnySetJoinsAllIslands(const FallbackGraph& graph) {
    if (graph.transits.empty()) {
        return false;
    }
    DisjointSets sets(graph.nodes.size());
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        for (size_t j : graph.nodes[i].neighbours) {
            sets.Join(i, j);
        }
    }
    std::unordered_map<size_t, IslandBits> covered;
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (graph.nodes[i].island >= 0) {
            auto [it, added] = covered.try_emplace(sets.Find(i), graph.islands);
            it->second.Set(static_cast<size_t>(graph.nodes[i].island));
            if (it->second.HasAll(graph.islands)) {
                return true;
            }
        }
    }
    return false;
}

// The nodes of a working set's joined component: its transits and every root of the
// root components it joins.
std::vector<bool> MembersOf(const FallbackGraph& graph, const WorkingSet& working) {
    std::vector<bool> member(graph.nodes.size(), false);
    for (size_t p : working.transits) {
        member[graph.transits[p]] = true;
    }
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (graph.nodes[i].island >= 0 &&
            std::binary_search(working.components.begin(), working.components.end(),
                               graph.component_of[i])) {
            member[i] = true;
        }
    }
    return member;
}

// A breadth-first tree of the members from `start`, pruned from its leaves until no
// leaf can go: a transit leaf goes, and so does a root leaf whose island keeps another
// root.  Returns the nodes left, in the order they were reached.
std::vector<size_t> PrunedTree(const FallbackGraph& graph, const std::vector<bool>& member,
                               size_t start) {
    std::vector<std::vector<size_t>> tree_links(graph.nodes.size());
    std::vector<size_t> order{start};
    std::vector<bool> kept(graph.nodes.size(), false);
    kept[start] = true;
    for (size_t next = 0; next < order.size(); ++next) {
        for (size_t j : graph.nodes[order[next]].neighbours) {
            if (member[j] && !kept[j]) {
                kept[j] = true;
                tree_links[j].push_back(order[next]);
                tree_links[order[next]].push_back(j);
                order.push_back(j);
            }
        }
    }
    std::vector<size_t> roots_left(graph.islands, 0);
    std::vector<size_t> degree(graph.nodes.size(), 0);
    for (size_t i : order) {
        degree[i] = tree_links[i].size();
        if (graph.nodes[i].island >= 0) {
            ++roots_left[static_cast<size_t>(graph.nodes[i].island)];
        }
    }
    size_t left = order.size();
    std::queue<size_t> leaves;
    for (size_t n = order.size(); n-- > 0;) {
        if (degree[order[n]] <= 1) {
            leaves.push(order[n]);
        }
    }
    while (!leaves.empty() && left > 1) {
        const size_t i = leaves.front();
        leaves.pop();
        const int island = graph.nodes[i].island;
        if (!kept[i] || degree[i] > 1 ||
            (island >= 0 && roots_left[static_cast<size_t>(island)] < 2)) {
            continue;
        }
        kept[i] = false;
        --left;
        if (island >= 0) {
            --roots_left[static_cast<size_t>(island)];
        }
        for (size_t j : tree_links[i]) {
            if (kept[j] && --degree[j] <= 1) {
                leaves.push(j);
            }
        }
    }
    std::vector<size_t> result;
    for (size_t i : order) {
        if (kept[i]) {
            result.push_back(i);
        }
    }
    return result;
}

}  // namespace

bool ByAddress(const AggNode* a, const AggNode* b) {
    return std::less<const AggNode*>()(a, b);
}

void BuildFallbackGraph(const DfpIslandMap& map_island_info, bool lock_required,
                        bool exclusive_lock, int max_depth, const AdmitTransit& admit,
                        FallbackGraph& graph, NodeSiblingsMap& siblings) {
    BuildGraph(map_island_info, lock_required, exclusive_lock, max_depth, admit, graph, siblings);
    FindRootComponents(graph);
    FindTransitCandidates(graph);
}

std::vector<WorkingSet> FindFewestTransitSets(const FallbackGraph& graph, size_t limit,
                                              bool& gave_up) {
    std::vector<WorkingSet> found;
    for (size_t c = 0; c < graph.component_islands.size(); ++c) {
        if (graph.component_islands[c].HasAll(graph.islands) && found.size() < kMaxCompletedSets) {
            found.push_back({{}, {c}});
        }
    }
    if (!found.empty() || !AnySetJoinsAllIslands(graph)) {
        return found;
    }
    uint64_t tried = 0;
    const size_t largest = std::min(limit, graph.transits.size());
    for (size_t k = 1; k <= largest && found.empty(); ++k) {
        std::vector<size_t> chosen(k);
        std::iota(chosen.begin(), chosen.end(), 0);
        do {
            if (++tried > kMaxTransitSets) {
                gave_up = true;
                return found;
            }
            WorkingSet working;
            if (JoinsAllIslands(graph, chosen, working)) {
                found.push_back(std::move(working));
                if (found.size() == kMaxCompletedSets) {
                    break;
                }
            }
        } while (NextCombination(chosen, graph.transits.size()));
    }
    return found;
}

// Over the starts that can lead to a small set: the transits and the roots of the
// scarcest island.
std::vector<size_t> CompleteSet(const FallbackGraph& graph, const WorkingSet& working) {
    const std::vector<bool> member = MembersOf(graph, working);
    std::vector<size_t> roots_per_island(graph.islands, 0);
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (member[i] && graph.nodes[i].island >= 0) {
            ++roots_per_island[static_cast<size_t>(graph.nodes[i].island)];
        }
    }
    const size_t scarcest =
        static_cast<size_t>(std::min_element(roots_per_island.begin(), roots_per_island.end()) -
                            roots_per_island.begin());
    std::vector<size_t> starts;
    for (size_t p : working.transits) {
        starts.push_back(graph.transits[p]);
    }
    for (size_t i = 0; i < graph.nodes.size(); ++i) {
        if (member[i] && graph.nodes[i].island == static_cast<int>(scarcest)) {
            starts.push_back(i);
        }
    }
    std::vector<size_t> best;
    for (size_t start : starts) {
        std::vector<size_t> left = PrunedTree(graph, member, start);
        if (best.empty() || left.size() < best.size()) {
            best = std::move(left);
        }
    }
    return best;
}

}  // namespace internal
