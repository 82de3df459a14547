#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/am_assert.h"
#include "support/default_tree_nodes.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kNoRootText =
    "Failed to find any root switch that spans all the required leaf switches for the job\n";

// Calls the dispatcher directly on leaves that got their default tree nodes by hand.
class DispatcherTest : public ::testing::Test {
protected:
    explicit DispatcherTest(const FabricSketch& sketch) : fabric(sketch) {}

    int Build(std::initializer_list<std::string> leaf_names, bool give_tree_nodes = true) {
        LeafSwitchOrderedSet leaves;
        for (const std::string& name : leaf_names) {
            leaves.insert(fabric.Switch(name));
            if (give_tree_nodes) {
                pool.Add(fabric.Switch(name));
            }
        }
        return creator.BuildDynamicQuasiFatTree(leaves, job, info, score);
    }

    InstalledFabric fabric;
    DefaultTreeNodePool pool;     // after the fabric: its nodes go first
    OnDemandTreeCreator creator;  // its nodes go before the fabric's switches too
    JobResource job;
    JobSubTreeInfo info;
    JobSubTreeScore score;
};

// Two leaves of any plain kind under one spine that asks not to be a root when
// islands are checked.
FabricSketch PlainKindsUnderDeferredSpine() {
    FabricSketch sketch;
    sketch.Switch("leaf-1", 0)
        .Switch("leaf-2", 0, [](SwitchDescription& sw) { sw.topology_kind = 5; })
        .Switch("spine", 1, [](SwitchDescription& sw) { sw.defer_root = true; })
        .Link("leaf-1", "spine")
        .Link("leaf-2", "spine");
    return sketch;
}

class PlainKindsTest : public DispatcherTest {
protected:
    PlainKindsTest() : DispatcherTest(PlainKindsUnderDeferredSpine()) {}
};

TEST_F(PlainKindsTest, LeavesOfPlainKindsFormOneUncheckedIslandInQuasiFatTreeMode) {
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(Build({"leaf-1", "leaf-2"}), 0) << log.Dump();

    EXPECT_EQ(log.Count(kLogLevelDebug,
                        "After DfpTreeBFSBottomup() island_id: 65535. n_island_roots=1\nNodes: "
                        "\n\tspine\n"),
              1u);
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "QFT MODE\n"));
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "DFP MODE\n"));
    // Unchecked: the deferred spine is still a root.
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "Post-bottomup picked root=spine\n"));
    EXPECT_EQ(info.root_node, fabric.Switch("spine"));
}

// Leaves and spine of Dragonfly+ group 7.
FabricSketch OneDragonflyGroup() {
    FabricSketch sketch;
    sketch.DfpSwitch("leaf-1", 0, 7)
        .DfpSwitch("leaf-2", 0, 7)
        .DfpSwitch("spine", 1, 7)
        .Link("leaf-1", "spine")
        .Link("leaf-2", "spine");
    return sketch;
}

class OneGroupTest : public DispatcherTest {
protected:
    OneGroupTest() : DispatcherTest(OneDragonflyGroup()) {}
};

TEST_F(OneGroupTest, LeavesOfOneDragonflyGroupAreBuiltAsAQuasiFatTree) {
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(Build({"leaf-1", "leaf-2"}), 0) << log.Dump();

    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "After DfpTreeBFSBottomup() island_id: 7. n_island_roots=1\nNodes: "
                             "\n\tspine\n"));
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "QFT MODE\n"));
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "DFP MODE\n"));
    EXPECT_EQ(info.root_node, fabric.Switch("spine"));
}

// leaf-1 in group 1 and leaf-2 in group 2, each on its own spine, the spines joined.
// A leaf of topology kind 2 is no valid root when islands are checked; kind 3 is.
FabricSketch TwoGroups(uint32_t kind_1, uint32_t kind_2) {
    FabricSketch sketch;
    auto kind = [](uint32_t k) { return [k](SwitchDescription& sw) { sw.topology_kind = k; }; };
    sketch.DfpSwitch("leaf-1", 0, 1, kind(kind_1))
        .DfpSwitch("leaf-2", 0, 2, kind(kind_2))
        .DfpSwitch("spine-1", 1, 1, kind(3))
        .DfpSwitch("spine-2", 1, 2, kind(3))
        .Link("leaf-1", "spine-1")
        .Link("leaf-2", "spine-2")
        .Link("spine-1", "spine-2");
    return sketch;
}

struct TwoGroupKinds {
    uint32_t kind_1;
    uint32_t kind_2;
};

// Test names show the two kinds, not the bytes of the case.
void PrintTo(const TwoGroupKinds& kinds, std::ostream* out) {
    *out << "kinds " << kinds.kind_1 << " and " << kinds.kind_2;
}

class TwoGroupsCheckedTest : public DispatcherTest,
                             public ::testing::WithParamInterface<TwoGroupKinds> {
protected:
    TwoGroupsCheckedTest() : DispatcherTest(TwoGroups(GetParam().kind_1, GetParam().kind_2)) {}
};

// Whichever island is swept first, the one whose leaf is of kind 2 is checked.
TEST_P(TwoGroupsCheckedTest, EveryIslandIsSweptWithTopologyChecks) {
    try {
        Build({"leaf-1", "leaf-2"});
        FAIL() << "no topology error";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "not tree or DFP topology");
    }
}

INSTANTIATE_TEST_SUITE_P(EitherIsland, TwoGroupsCheckedTest,
                         ::testing::Values(TwoGroupKinds{3, 2}, TwoGroupKinds{2, 3}));

class TwoGroupsTest : public DispatcherTest {
protected:
    TwoGroupsTest() : DispatcherTest(TwoGroups(3, 3)) {}
};

TEST_F(TwoGroupsTest, LeavesInTwoGroupsAreJoinedInDragonflyMode) {
    LogCapture log(kLogLevelDebug);

    Build({"leaf-1", "leaf-2"});

    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "After DfpTreeBFSBottomup() island_id: 1. n_island_roots=1\nNodes: "
                             "\n\tleaf-1\n"));
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "After DfpTreeBFSBottomup() island_id: 2. n_island_roots=1\nNodes: "
                             "\n\tleaf-2\n"));
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "DFP MODE\n"));
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "QFT MODE\n"));
}

// A group switch beside a plain switch: two islands as well.
FabricSketch GroupSwitchBesidePlainSwitch() {
    FabricSketch sketch;
    sketch.Switch("plain-leaf", 0).DfpSwitch("group-leaf", 0, 4).Link("plain-leaf", "group-leaf");
    return sketch;
}

class MixedKindsTest : public DispatcherTest {
protected:
    MixedKindsTest() : DispatcherTest(GroupSwitchBesidePlainSwitch()) {}
};

TEST_F(MixedKindsTest, GroupSwitchBesidePlainSwitchMakesTwoCheckedIslands) {
    // The group leaf (kind 2) covers its island alone and fails the check.
    EXPECT_THROW(Build({"plain-leaf", "group-leaf"}), std::logic_error);
}

class EmptyJobTest : public DispatcherTest {
protected:
    EmptyJobTest() : DispatcherTest(FabricSketch().Switch("leaf-1", 0)) {}
};

TEST_F(EmptyJobTest, EmptyLeafSetGoesStraightToDragonflyMode) {
    LogCapture log(kLogLevelDebug);

    try {
        Build({});
    } catch (const std::exception&) {
        // What the Dragonfly+ stage makes of no island at all is its own business.
    }

    EXPECT_TRUE(log.Contains(kLogLevelDebug, "DFP MODE\n"));
    EXPECT_FALSE(log.ContainsFragment(kLogLevelDebug, "After DfpTreeBFSBottomup()"));
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "QFT MODE\n"));
}

// Two leaves under two spines loaded in the order given; `second_load` active trees on
// the spine loaded second.
FabricSketch TwoSpines(const std::string& first, const std::string& second, uint32_t first_load = 0,
                       uint32_t second_load = 0) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switch(first, 1, [=](SwitchDescription& sw) { sw.active_trees = first_load; })
        .Switch(second, 1, [=](SwitchDescription& sw) { sw.active_trees = second_load; });
    for (const char* leaf : {"leaf-1", "leaf-2"}) {
        sketch.Link(leaf, first).Link(leaf, second);
    }
    return sketch;
}

class EqualSpinesTest : public DispatcherTest {
protected:
    // Loaded first, so at the lower address, though its name sorts last.
    EqualSpinesTest() : DispatcherTest(TwoSpines("spine-b", "spine-a")) {}
};

TEST_F(EqualSpinesTest, EqualRootCandidatesLeaveTheRootAtTheLowerAddress) {
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(Build({"leaf-1", "leaf-2"}), 0) << log.Dump();

    EXPECT_TRUE(
        log.Contains(kLogLevelDebug,
                     "After DfpTreeBFSBottomup() island_id: 65535. n_island_roots=2\nNodes: "
                     "\n\tspine-b\n\tspine-a\n"));
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "Post-bottomup picked root=spine-b\n"));
    EXPECT_EQ(info.root_node, fabric.Switch("spine-b"));
}

class LessLoadedLaterSpineTest : public DispatcherTest {
protected:
    LessLoadedLaterSpineTest() : DispatcherTest(TwoSpines("spine-b", "spine-a", 1, 0)) {}
};

TEST_F(LessLoadedLaterSpineTest, StrictlyBetterLaterCandidateBecomesTheRoot) {
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(Build({"leaf-1", "leaf-2"}), 0) << log.Dump();

    EXPECT_TRUE(log.Contains(kLogLevelDebug, "Post-bottomup picked root=spine-a\n"));
    EXPECT_EQ(info.root_node, fabric.Switch("spine-a"));
}

// Three leaves loaded as leaf-c, leaf-a, leaf-b (their address order) under a spine.
FabricSketch ThreeLeavesOutOfNameOrder(bool middle_leaf_full) {
    FabricSketch sketch;
    sketch.MaxTreeId(3).Switch("leaf-c", 0).Switch("leaf-a", 0, [&](SwitchDescription& sw) {
        if (middle_leaf_full) {
            sw.used_tree_ids = {0, 1, 2, 3};
        }
    });
    sketch.Switch("leaf-b", 0).Switch("spine", 1);
    for (const char* leaf : {"leaf-c", "leaf-a", "leaf-b"}) {
        sketch.Link(leaf, "spine");
    }
    return sketch;
}

class LeafOrderTest : public DispatcherTest {
protected:
    LeafOrderTest() : DispatcherTest(ThreeLeavesOutOfNameOrder(false)) {}
};

TEST_F(LeafOrderTest, LeavesAreSeededAndTheirGroupsNumberedInAddressOrder) {
    DescendantGroup::s_id = 100;
    LogCapture log(kLogLevelDebug);

    ASSERT_EQ(Build({"leaf-b", "leaf-a", "leaf-c"}), 0) << log.Dump();

    // Seeds took 100, 101, 102; each leaf's own group follows in the same order.
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "CombineGroups number_of_possible_links_to_use_in_job=65535 "
                             "group=DG_id: 103 node: leaf-c"))
        << log.Dump();
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "CombineGroups number_of_possible_links_to_use_in_job=65535 "
                             "group=DG_id: 104 node: leaf-a"));
    EXPECT_TRUE(log.Contains(kLogLevelDebug,
                             "CombineGroups number_of_possible_links_to_use_in_job=65535 "
                             "group=DG_id: 105 node: leaf-b"));
}

class FullLeafTest : public DispatcherTest {
protected:
    FullLeafTest() : DispatcherTest(ThreeLeavesOutOfNameOrder(true)) {}
};

TEST_F(FullLeafTest, LeafThatCannotTakeATreeStopsTheSeedingWithATrace) {
    DescendantGroup::s_id = 200;
    LogCapture log(kLogLevelDetail);

    EXPECT_EQ(Build({"leaf-b", "leaf-a", "leaf-c"}), 1);

    // leaf-c was seeded first, leaf-a failed, leaf-b was never reached.
    EXPECT_EQ(DescendantGroup::s_id, 202);
    EXPECT_TRUE(log.Contains(kLogLevelDebug, "Failed to use TreeNode on: leaf-a GUID:0x1002\n"));
    EXPECT_THAT(log.Messages(kLogLevelError), IsEmpty());
    EXPECT_EQ(info.error_text,
              "Leaf switch 'leaf-a' cannot take one more tree (no free tree id, or not enough "
              "free resources for the job's quota)\n");
}

class LeafOrderNoNodesTest : public DispatcherTest {
protected:
    LeafOrderNoNodesTest() : DispatcherTest(ThreeLeavesOutOfNameOrder(false)) {}
};

TEST_F(LeafOrderNoNodesTest, LeafWithoutDefaultTreeNodeIsABrokenInvariant) {
    LogCapture log(kLogLevelError);

    try {
        Build({"leaf-a"}, false);
        FAIL() << "no assertion";
    } catch (const AMAssertException& e) {
        EXPECT_STREQ(e.what(),
                     "Leaf node: leaf-a GUID:0x1002 doesn't have default tree node that is "
                     "required for quasi fat tree algorithm");
    }
    EXPECT_TRUE(log.Contains(kLogLevelError,
                             "-A- assert(leaf_tree_node) failed. Leaf node: leaf-a GUID:0x1002 "
                             "doesn't have default tree node that is required for quasi fat "
                             "tree algorithm"));
}

// Two leaves whose only spine cannot serve the job.
FabricSketch ExcludedSpine() {
    FabricSketch sketch = TwoSpines("spine-1", "spine-2");
    sketch.Sw("spine-1").excluded = true;
    sketch.Sw("spine-2").valid = false;
    return sketch;
}

class NoRootTest : public DispatcherTest {
protected:
    NoRootTest() : DispatcherTest(ExcludedSpine()) {}
};

TEST_F(NoRootTest, IslandWithoutRootCandidateAppendsTheReasonAndFails) {
    info.error_text = "earlier\n";
    LogCapture log(kLogLevelDebug);

    EXPECT_EQ(Build({"leaf-1", "leaf-2"}), 1);

    EXPECT_EQ(info.error_text, std::string("earlier\n") + kNoRootText);
    EXPECT_EQ(log.Count(kLogLevelError, kNoRootText), 1u);
    EXPECT_FALSE(log.Contains(kLogLevelDebug, "QFT MODE\n"));
}

// A spine that takes only one child.
FabricSketch NarrowSpine() {
    FabricSketch sketch = TwoSpines("spine", "unused");
    sketch.Sw("spine").tree_children_limit = 1;
    sketch.Sw("unused").excluded = true;
    return sketch;
}

class NarrowSpineTest : public DispatcherTest {
protected:
    NarrowSpineTest() : DispatcherTest(NarrowSpine()) {}
};

TEST_F(NarrowSpineTest, FailedTopDownLinkingNamesTheRootInTheErrorText) {
    LogCapture log(kLogLevelError);

    EXPECT_EQ(Build({"leaf-1", "leaf-2"}), 1);

    EXPECT_EQ(info.error_text, "Failed to build a tree based on the selected root 'spine'\n");
    EXPECT_THAT(log.Messages(kLogLevelError),
                ::testing::Contains(HasSubstr("Failed to create connection between")));
}

}  // namespace
