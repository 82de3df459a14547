// Path search through Dragonfly+ islands: island degrees, the start island, the
// depth-first search with its childless-island limit, cuts and dead ends, and the
// comparison of full paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "common/am_assert.h"
#include "support/dfp_islands.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

// Island roots are given by hand, so no sweep is needed: a switch named like "a" is a
// root of group 1, "b*" of group 2, "c" of group 3; "x*", "y", "z*" lie in groups that
// hold no job leaves.
class DfpPathSearch : public ::testing::Test {
protected:
    static FabricSketch Base(uint8_t max_childless_islands) {
        FabricSketch sketch;
        sketch.Options(64, max_childless_islands)
            .DfpSwitch("a", 1, 1)
            .DfpSwitch("a2", 1, 1)
            .DfpSwitch("b", 1, 2)
            .DfpSwitch("b1", 1, 2)
            .DfpSwitch("b2", 1, 2)
            .DfpSwitch("c", 1, 3)
            .DfpSwitch("d", 1, 4)
            .DfpSwitch("x", 1, 7)
            .DfpSwitch("x1", 1, 7)
            .DfpSwitch("x2", 1, 8)
            .DfpSwitch("y", 1, 9)
            .DfpSwitch("z1", 1, 10)
            .DfpSwitch("z2", 1, 11);
        return sketch;
    }

    void Install(const FabricSketch& sketch) { fabric = std::make_unique<InstalledFabric>(sketch); }

    void AddIsland(uint16_t id, const std::vector<std::string>& roots) {
        AddDfpIsland(islands, *fabric, id, roots);
    }

    const AggNode* N(const std::string& name) { return fabric->Switch(name); }

    uint32_t Search(const JobResource& resource = {}) {
        return creator.DfpFindPathThruIslands(islands, resource, job, path_nodes, siblings,
                                              start_node);
    }

    std::vector<std::string> PathNames() const {
        std::vector<std::string> names;
        for (const AggNode* node : path_nodes) {
            names.push_back(node->name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // Messages at level 4 that start with `prefix`.
    static std::vector<std::string> Starting(const LogCapture& log, const std::string& prefix) {
        std::vector<std::string> found;
        for (const std::string& message : log.Messages(kLogLevelDebug)) {
            if (message.rfind(prefix, 0) == 0) {
                found.push_back(message);
            }
        }
        return found;
    }

    std::unique_ptr<InstalledFabric> fabric;
    OnDemandTreeCreator creator;
    DfpIslandMap islands;
    JobSubTreeInfo job;
    AggNodeSet path_nodes;
    NodeSiblingsMap siblings;
    const AggNode* start_node = nullptr;
};

TEST_F(DfpPathSearch, IslandWhoseRootsHaveNoLinksStopsTheSearchBeforeItStarts) {
    Install(Base(1).Link("a", "x"));
    AddIsland(1, {"a"});
    AddIsland(3, {"c"});
    LogCapture log;
    EXPECT_EQ(Search(), 1u);
    EXPECT_EQ(log.Messages(kLogLevelWarning),
              std::vector<std::string>{"Island 3 has no outbound links\n"});
    EXPECT_TRUE(Starting(log, "Min-links island").empty()) << log.Dump();
    EXPECT_TRUE(Starting(log, "DfpFindPathThruIslands Partial path").empty()) << log.Dump();
}

TEST_F(DfpPathSearch, LimitIsTracedAndOutboundLinksCountEveryParallelLink) {
    Install(Base(1).Link("a", "b", 2).Link("a", "x"));
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    EXPECT_EQ(log.Messages(kLogLevelDebug).front(),
              "DfpFindPathThruIslands max allowed childless islands: 1\n");
    EXPECT_EQ(islands.at(1)->outbound_links, 3);
    EXPECT_EQ(islands.at(2)->outbound_links, 2);
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "island_id: 1 outbound_links: 3\n")) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "island_id: 2 outbound_links: 2\n")) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "Min-links island: 2\n")) << log.Dump();
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(siblings.at(N("a")), (AggNodeSet{N("b"), N("x")}));
    EXPECT_EQ(siblings.at(N("b")), AggNodeSet{N("a")});
}

TEST_F(DfpPathSearch, EqualOutboundLinksStartFromTheFirstIslandOfTheMap) {
    Install(Base(1).Link("a", "b"));
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "Min-links island: " + std::to_string(islands.begin()->first) + "\n"))
        << log.Dump();
}

TEST_F(DfpPathSearch, ChildlessLimitZeroEndsEveryBranchAtTheFirstTransitNode) {
    Install(Base(0).Link("a", "x").Link("x", "c"));
    AddIsland(1, {"a"});
    AddIsland(3, {"c"});
    LogCapture log;
    EXPECT_EQ(Search(), 1u);
    EXPECT_EQ(log.Messages(kLogLevelWarning),
              std::vector<std::string>{"DfpFindPathThruIslands No path found\n"});
    // One run, from the start island's only root, stopped at x.
    const std::vector<std::string> stops = Starting(
        log, "DfpFindPathThruIslands Reached max allowed childless islands. Partial path: ");
    ASSERT_EQ(stops.size(), 1u) << log.Dump();
    EXPECT_NE(stops[0].find("x"), std::string::npos);
    EXPECT_EQ(log.Count(kLogLevelDebug, "- Removed childless x\n"), 1u) << log.Dump();
    EXPECT_TRUE(Starting(log, "DfpFindPathThruIslands Candidate path").empty());
}

TEST_F(DfpPathSearch, ChildlessLimitOneCrossesOneTransitIsland) {
    Install(Base(1).Link("a", "x").Link("x", "c"));
    AddIsland(1, {"a"});
    AddIsland(3, {"c"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a", "c", "x"}));
    EXPECT_EQ(start_node, N("x"));
    const std::vector<std::string> results =
        Starting(log,
                 "DfpFindPathThruIslands Result: max-degree node: x degree: 2 n_childless=1 "
                 "best_path: ");
    EXPECT_EQ(results.size(), 1u) << log.Dump();
    EXPECT_EQ(
        Starting(log, "DfpFindPathThruIslands Candidate crowned as best. max-degree node: ").size(),
        1u);
}

TEST_F(DfpPathSearch, DeadEndInATransitIslandIsUndoneBeforeTheNextBranch) {
    // x1 (group 7) is tried before x2 (group 8) and leads nowhere.
    Install(
        Base(2).Link("a", "x1").Link("a", "x2").Link("x2", "c").Link("c", "z1").Link("c", "z2"));
    AddIsland(1, {"a"});
    AddIsland(3, {"c"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "Min-links island: 1\n")) << log.Dump();
    EXPECT_EQ(log.Count(kLogLevelDebug, "- Removed childless x1\n"), 1u) << log.Dump();
    EXPECT_EQ(
        log.Count(kLogLevelDebug, "DfpFindPathThruIslands Removed childless at dead-end: x1\n"), 1u)
        << log.Dump();
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a", "c", "x2"}));
    EXPECT_EQ(start_node, N("x2"));
}

TEST_F(DfpPathSearch, PartialPathNoShorterThanTheBestFullPathIsHalted) {
    Install(Base(1).Link("a", "b").Link("a", "x").Link("x", "b"));
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(Starting(log,
                       "DfpFindPathThruIslands Path search is halted: expected length=3 > "
                       "shortest full path=2. Partial path: ")
                  .size(),
              1u)
        << log.Dump();
}

TEST_F(DfpPathSearch, EqualFullPathsKeepTheFirstFound) {
    Install(Base(1).Link("a", "b1").Link("a", "b2"));
    AddIsland(1, {"a"});
    AddIsland(2, {"b1", "b2"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    const std::vector<std::string> candidates =
        Starting(log, "DfpFindPathThruIslands Candidate path: ");
    ASSERT_EQ(candidates.size(), 2u) << log.Dump();
    const std::vector<std::string> compares = Starting(log, "PathCompare: ");
    ASSERT_EQ(compares.size(), 2u) << log.Dump();
    EXPECT_NE(compares[0].find("curr_best: <null> candidate: "), std::string::npos);
    EXPECT_NE(compares[0].find(". candidate_better?: 1. reason: no_best_yet\n"), std::string::npos);
    EXPECT_NE(compares[1].find(". candidate_better?: 0. reason: node_comparer_decision\n"),
              std::string::npos)
        << compares[1];
    EXPECT_EQ(Starting(log, "DfpFindPathThruIslands Candidate crowned as best").size(), 1u);
    // The result is the first full path found.
    const std::string first_b = candidates[0].find("b1") != std::string::npos ? "b1" : "b2";
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a", first_b}));
    for (const LogCapture::Entry& entry : log.Entries()) {
        if (entry.message.rfind("PathCompare: ", 0) == 0) {
            EXPECT_EQ(entry.function, "IsCandidateBetter");
        }
    }
}

TEST_F(DfpPathSearch, BranchWithMoreTransitNodesThanTheBestIsHalted) {
    Install(Base(2).Link("a", "b").Link("a", "x1").Link("x1", "c").Link("b", "c").Link("b", "z1"));
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    AddIsland(3, {"c"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(start_node, N("b"));
    // Islands 1 and 3 tie on 2 links; from either, the route through x1 comes last.
    EXPECT_EQ(Starting(log,
                       "DfpFindPathThruIslands Path search is halted: cur "
                       "n_childless_islands=1 > used in full path=0. Partial path: ")
                  .size(),
              1u)
        << log.Dump();
}

TEST_F(DfpPathSearch, FullPathWithFewerTransitNodesIsPreferred) {
    // Island 1 has two roots: a reaches b only through x1, a2 reaches it directly.
    Install(
        Base(2).Link("a", "x1").Link("x1", "b").Link("a2", "b").Link("b", "z1").Link("b", "z2"));
    AddIsland(1, {"a", "a2"});
    AddIsland(2, {"b"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "Min-links island: 1\n")) << log.Dump();
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a2", "b"}));
    // Whichever root runs first, the path through x1 never stays best.
    for (const std::string& compare : Starting(log, "PathCompare: ")) {
        if (compare.find("reason: path_length") != std::string::npos) {
            EXPECT_EQ(compare, "PathCompare: curr_best: x1 candidate: " + start_node->name +
                                   ". candidate_better?: 1. reason: path_length\n");
        }
    }
}

TEST_F(DfpPathSearch, NodeMetAgainWhileOnThePathKeepsItsChildrenConnected) {
    // From a, b is tried first and reaches x, which leads on to c (a dead end that stays
    // as island 3's root).  Then a's own frame for x comes up while x is still on the
    // path carrying c; taking x off would cut c from the path.  d is reached last,
    // through x2.  Parallel links make island 1 the one with the fewest links.
    Install(Base(2)
                .Link("a", "x")
                .Link("a", "b")
                .Link("a", "x2")
                .Link("b", "x", 3)
                .Link("x", "c", 4)
                .Link("x2", "d", 4));
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    AddIsland(3, {"c"});
    AddIsland(4, {"d"});
    LogCapture log;
    ASSERT_EQ(Search(), 0u) << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "Min-links island: 1\n")) << log.Dump();
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a", "b", "c", "d", "x", "x2"}));
    EXPECT_EQ(start_node, N("a"));
    EXPECT_EQ(log.Count(kLogLevelDebug, "- Removed childless x\n"), 0u) << log.Dump();
    EXPECT_EQ(Starting(log,
                       "DfpFindPathThruIslands Result: max-degree node: a degree: 3 "
                       "n_childless=2 best_path: ")
                  .size(),
              1u)
        << log.Dump();
}

TEST_F(DfpPathSearch, OutboundLinksOfAnIslandAreSummedIn16Bits) {
    // 65535 links to b and one to x add up to 65536, which wraps to 0.
    Install(Base(1).Link("a", "b", 65535).Link("a", "x"));
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    LogCapture log;
    EXPECT_EQ(Search(), 1u);
    EXPECT_EQ(islands.at(1)->outbound_links, 0);
    EXPECT_EQ(log.Messages(kLogLevelWarning),
              std::vector<std::string>{"Island 1 has no outbound links\n"});
    EXPECT_TRUE(Starting(log, "Min-links island").empty()) << log.Dump();
}

// A chain r1 - r2 - ... - rN of single-root islands 1..N.
class DfpPathSearchChain : public DfpPathSearch {
protected:
    uint32_t SearchChain(uint16_t n_islands) {
        FabricSketch sketch;
        sketch.Options(64, 1);
        for (uint16_t i = 1; i <= n_islands; ++i) {
            sketch.DfpSwitch(Root(i), 1, i);
            if (i > 1) {
                sketch.Link(Root(i - 1), Root(i));
            }
        }
        Install(sketch);
        for (uint16_t i = 1; i <= n_islands; ++i) {
            AddIsland(i, {Root(i)});
        }
        return Search();
    }

    static std::string Root(int i) { return "r" + std::to_string(i); }
};

TEST_F(DfpPathSearchChain, PathThroughAllOf255IslandsIsFull) {
    LogCapture log(kLogLevelWarning);
    EXPECT_EQ(SearchChain(255), 0u) << log.Dump();
    EXPECT_EQ(path_nodes.size(), 255u);
}

TEST_F(DfpPathSearchChain, IslandCountIsTakenInOneByteSo256IslandsAreNeverFull) {
    // 256 entered islands count as 0, which never equals the map's 256.
    LogCapture log(kLogLevelWarning);
    EXPECT_EQ(SearchChain(256), 1u);
    EXPECT_EQ(log.Messages(kLogLevelWarning),
              std::vector<std::string>{"DfpFindPathThruIslands No path found\n"});
    EXPECT_TRUE(path_nodes.empty());
}

TEST_F(DfpPathSearch, LockedLinksAreInvisibleToAJobThatNeedsLocks) {
    Install(Base(1).Link("a", "b", 1, [](LinkDescription& link) {
        link.lock_limit = 1;
        link.lock_count = 1;
    }));
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    JobResource locking;
    locking.flags = kJobFlagLockRequired;
    LogCapture log;
    EXPECT_EQ(Search(locking), 1u);
    EXPECT_TRUE(log.ContainsFragment(kLogLevelWarning, "has no outbound links\n")) << log.Dump();
}

TEST_F(DfpPathSearch, LockedLinksServeAJobThatNeedsNoLocks) {
    Install(Base(1).Link("a", "b", 1, [](LinkDescription& link) {
        link.lock_limit = 1;
        link.lock_count = 1;
    }));
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    EXPECT_EQ(Search(), 0u);
    EXPECT_EQ(PathNames(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(DfpPathSearch, EmptyIslandMapIsABrokenInvariant) {
    Install(Base(1));
    LogCapture log;
    try {
        Search();
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "p_min_links_island_info==null");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{
                  "-A- assert(p_min_links_island_info) failed. p_min_links_island_info==null"});
}

TEST_F(DfpPathSearch, ReachedNodeWithoutAdjacentNodesIsABrokenInvariant) {
    // a serves no job, so x cannot offer it back; c has more links, so a's island starts.
    FabricSketch sketch = Base(1).Link("a", "x").Link("c", "z1").Link("c", "z2");
    sketch.Sw("a").valid = false;
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(3, {"c"});
    LogCapture log;
    try {
        Search();
        FAIL() << "expected an assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(), "Encountered reachable node with no adjacents");
    }
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{
                  "DfpFindPathThruIslands -A- Reachable node with no adjacents: x\n"});
}

}  // namespace
