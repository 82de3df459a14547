// The Dragonfly+ fallback search on islands given by hand: the fewest transit switches,
// then the fewest switches; only admitted transit switches with a free tree id, only
// links that carry the job's lock demand; the limit on transit switches; and what it
// hands to the linking stage.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/dfp_islands.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::UnorderedElementsAre;

// "a*" are roots of job group 1, "b*" of job group 2, "c" of job group 3; "t*" lie in
// groups without job leaves (groups 7, 8, ...).
class DfpFallbackSearch : public ::testing::Test {
protected:
    static FabricSketch Base(uint8_t max_childless_islands) {
        FabricSketch sketch;
        sketch.Options(64, max_childless_islands)
            .DfpSwitch("a", 1, 1)
            .DfpSwitch("a2", 1, 1)
            .DfpSwitch("b", 1, 2)
            .DfpSwitch("b2", 1, 2)
            .DfpSwitch("c", 1, 3)
            .DfpSwitch("t1", 1, 7)
            .DfpSwitch("t2", 1, 8)
            .DfpSwitch("t3", 1, 9)
            .DfpSwitch("t4", 1, 10);
        return sketch;
    }

    void Install(const FabricSketch& sketch) { fabric = std::make_unique<InstalledFabric>(sketch); }

    void AddIsland(uint16_t id, const std::vector<std::string>& roots) {
        AddDfpIsland(islands, *fabric, id, roots);
    }

    uint32_t Search(const JobResource& resource = {}) {
        return creator.DfpFallbackSearch(islands, resource, path_nodes, siblings, start_node);
    }

    std::vector<std::string> ChosenNames() const {
        std::vector<std::string> names;
        for (const AggNode* node : path_nodes) {
            names.push_back(node->name);
        }
        return names;
    }

    std::unique_ptr<InstalledFabric> fabric;
    OnDemandTreeCreator creator;
    DfpIslandMap islands;
    AggNodeSet path_nodes;
    NodeSiblingsMap siblings;
    const AggNode* start_node = nullptr;
};

TEST_F(DfpFallbackSearch, RootsLinkedDirectlyNeedNoTransit) {
    FabricSketch sketch = Base(1);
    sketch.Link("a", "t1").Link("t1", "b").Link("a", "b");
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});

    ASSERT_EQ(Search(), 0u);

    EXPECT_THAT(ChosenNames(), UnorderedElementsAre("a", "b"));
}

TEST_F(DfpFallbackSearch, OneTransitIsPreferredToTwo) {
    // a - t1 - t2 - b needs two transits, a2 - t3 - b one.
    FabricSketch sketch = Base(2);
    sketch.Link("a", "t1").Link("t1", "t2").Link("t2", "b").Link("a2", "t3").Link("t3", "b");
    Install(sketch);
    AddIsland(1, {"a", "a2"});
    AddIsland(2, {"b"});
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(Search(), 0u);

    EXPECT_THAT(ChosenNames(), UnorderedElementsAre("a2", "t3", "b"));
    EXPECT_EQ(start_node->name, "t3");
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "DfpFallbackSearch found the tree's switches: 1 transit switches, 3 "
                             "switches, start t3: t3, a2, b\n"))
        << log.Dump();
}

TEST_F(DfpFallbackSearch, TwoTransitsInARowAreFoundWithALimitOfTwo) {
    FabricSketch sketch = Base(2);
    sketch.Link("a", "t1").Link("t1", "t2").Link("t2", "b");
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});

    ASSERT_EQ(Search(), 0u);

    EXPECT_THAT(ChosenNames(), UnorderedElementsAre("a", "t1", "t2", "b"));
    for (const AggNode* node : path_nodes) {
        EXPECT_EQ(siblings.count(node), 1u) << node->name;
    }
}

TEST_F(DfpFallbackSearch, MoreTransitsThanTheLimitFindNothing) {
    FabricSketch sketch = Base(1);
    sketch.Link("a", "t1").Link("t1", "t2").Link("t2", "b");
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    LogCapture log(kLogLevelDebug);

    EXPECT_EQ(Search(), 1u);

    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "DfpFallbackSearch No set joins all 2 job islands within 1 transit "
                             "switches\n"));
    EXPECT_TRUE(log.Messages(kLogLevelWarning).empty());
}

TEST_F(DfpFallbackSearch, FewerSwitchesWinAmongSetsWithAsManyTransits) {
    // b, b2 and c are linked in a row.  Through t1 (next to a and b) the set is a, t1, b,
    // b2, c; through t2 (next to a and b2) it is a, t2, b2, c, since b can go.  Both
    // cross one transit; t1 is tried first, t2's smaller set wins.
    FabricSketch sketch = Base(1);
    sketch.Link("b", "b2").Link("b2", "c");
    sketch.Link("a", "t1").Link("t1", "b").Link("a", "t2").Link("t2", "b2");
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(2, {"b", "b2"});
    AddIsland(3, {"c"});

    ASSERT_EQ(Search(), 0u);

    EXPECT_THAT(ChosenNames(), UnorderedElementsAre("a", "t2", "b2", "c"));
}

TEST_F(DfpFallbackSearch, TransitThatIsNotAdmittedIsNotCrossed) {
    FabricSketch sketch = Base(1);
    sketch.Link("a", "t1").Link("t1", "b");
    sketch.Sw("t1").lock_available = false;
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    JobResource locking;
    locking.flags = 8;  // lock_required

    EXPECT_EQ(Search(locking), 1u);
    EXPECT_EQ(Search(), 0u);
}

TEST_F(DfpFallbackSearch, TransitWithoutAFreeTreeIdIsNotCrossed) {
    FabricSketch sketch = Base(1);
    sketch.MaxTreeId(1).Link("a", "t1").Link("t1", "b");
    sketch.Sw("t1").used_tree_ids = {0, 1};
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});

    EXPECT_EQ(Search(), 1u);
}

TEST_F(DfpFallbackSearch, LinkLockedForTheJobIsNotUsed) {
    FabricSketch sketch = Base(1);
    sketch.Link("a", "t1").Link("t1", "b", 1,
                                [](LinkDescription& link) { link.exclusively_locked = true; });
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    JobResource locking;
    locking.flags = 8;  // lock_required

    EXPECT_EQ(Search(locking), 1u);
    EXPECT_EQ(Search(), 0u);
}

TEST_F(DfpFallbackSearch, IslandWithoutRootsCannotBeJoined) {
    FabricSketch sketch = Base(1);
    sketch.Link("a", "b");
    Install(sketch);
    AddIsland(1, {"a"});
    AddIsland(2, {"b"});
    AddIsland(3, {});

    EXPECT_EQ(Search(), 1u);
}

}  // namespace
