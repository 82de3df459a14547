// Descendant groups: ids, leaf coverage, leaf-set hash, candidate order, text form.
#include "tree_on_demand/descendant_group.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/fabric_sketch.h"

namespace {

// Restores the process-wide group-id counter after a test that moves it.
class GroupIdCounterGuard {
public:
    GroupIdCounterGuard() : m_saved(DescendantGroup::s_id) {}
    ~GroupIdCounterGuard() { DescendantGroup::s_id = m_saved; }
    GroupIdCounterGuard(const GroupIdCounterGuard&) = delete;
    GroupIdCounterGuard& operator=(const GroupIdCounterGuard&) = delete;

private:
    uint16_t m_saved;
};

FabricSketch FourSwitches() {
    FabricSketch sketch;
    sketch.Switches({"sw1", "sw2", "sw3", "sw4"}, 0);
    return sketch;
}

// One step of the leaf-set hash, written out as the hash is defined.
uint64_t HashStep(uint64_t h, uint64_t k) {
    uint64_t m = h * k;
    return h + ((m * m) << 32) + ((h ^ k) + (h >> 2)) + ((k >> 5) + (k << 8)) +
           ((m >> 32) + (m << 48));
}

class DescendantGroupTest : public ::testing::Test {
protected:
    DescendantGroupTest() : fabric(FourSwitches()) {}

    AggNodeFabricInfo* Sw(const std::string& name) { return fabric.Switch(name); }

    GroupIdCounterGuard id_guard;
    InstalledFabric fabric;
};

TEST_F(DescendantGroupTest, ConstructionTakesTheNextIdAndStartsEmpty) {
    DescendantGroup::s_id = 40;
    DescendantGroup first(Sw("sw1"));
    DescendantGroup second(Sw("sw2"));
    EXPECT_EQ(first.id, 40);
    EXPECT_EQ(second.id, 41);
    EXPECT_EQ(DescendantGroup::s_id, 42);
    EXPECT_EQ(first.node, Sw("sw1"));
    EXPECT_TRUE(first.leaf_nodes.empty());
    EXPECT_TRUE(first.children.empty());
    EXPECT_EQ(first.leaves_hash, 0u);
    EXPECT_EQ(first.size(), 0u);
    EXPECT_EQ(first.score.min_parallel_links, UINT16_MAX);
    EXPECT_EQ(first.score.node_count, 0u);
}

TEST_F(DescendantGroupTest, IdWrapsToZeroAfter65536Groups) {
    DescendantGroup::s_id = 0;
    std::vector<uint16_t> ids;
    DescendantGroupList groups;
    for (int i = 0; i < 65537; ++i) {
        ids.push_back(groups.emplace_back(Sw("sw1")).id);
    }
    EXPECT_EQ(ids[65535], 65535);
    EXPECT_EQ(ids[65536], 0);
    EXPECT_EQ(DescendantGroup::s_id, 1);
}

TEST_F(DescendantGroupTest, ToStringOfAGroupWithoutChildrenIsOneLine) {
    DescendantGroup group(Sw("sw1"));
    group.id = 7;
    EXPECT_EQ(group.ToString(0), "DG_id: 7 node: sw1");
}

TEST_F(DescendantGroupTest, ToStringPrintsNullForAGroupWithoutSwitch) {
    DescendantGroup group;
    group.id = 12;
    EXPECT_EQ(group.ToString(0), "DG_id: 12 node: null");
}

TEST_F(DescendantGroupTest, ToStringIndentsChildrenOneDashPerLevel) {
    DescendantGroup grandchild(Sw("sw1"));
    grandchild.id = 4;
    DescendantGroup first_child(Sw("sw1"));
    first_child.id = 2;
    DescendantGroup second_child(Sw("sw2"));
    second_child.id = 3;
    second_child.children.push_back(&grandchild);
    DescendantGroup top(Sw("sw3"));
    top.id = 1;
    top.children = {&first_child, &second_child};

    EXPECT_EQ(top.ToString(0),
              "DG_id: 1 node: sw3 children:\n"
              "-DG_id: 2 node: sw1\n"
              "-DG_id: 3 node: sw2 children:\n"
              "--DG_id: 4 node: sw1");
}

TEST_F(DescendantGroupTest, ToStringStartsChildLinesFromTheGivenIndent) {
    DescendantGroup child(Sw("sw1"));
    child.id = 9;
    DescendantGroup top(Sw("sw2"));
    top.id = 8;
    top.children.push_back(&child);
    EXPECT_EQ(top.ToString(2), "DG_id: 8 node: sw2 children:\n---DG_id: 9 node: sw1");
}

TEST_F(DescendantGroupTest, CoverageOfAGroupWithoutChildrenCountsItsOwnSwitch) {
    DescendantGroup group(Sw("sw4"));
    group.leaf_nodes = {Sw("sw1"), Sw("sw2"), Sw("sw3")};
    group.UpdateLeafCoverage();
    EXPECT_EQ(group.score.node_count, 1u);
    EXPECT_EQ(group.score.leaf_count, 3u);
}

TEST_F(DescendantGroupTest, CoverageLeafCountIsTheGroupsOwnLeafSet) {
    DescendantGroup child(Sw("sw1"));
    child.leaf_nodes = {Sw("sw1"), Sw("sw2")};
    DescendantGroup top(Sw("sw3"));
    top.leaf_nodes = {Sw("sw1")};
    top.children.push_back(&child);
    top.UpdateLeafCoverage();
    EXPECT_EQ(top.score.leaf_count, 1u);
    EXPECT_EQ(top.score.node_count, 2u);
}

TEST_F(DescendantGroupTest, CoverageCountsTwoChildrenOnOneSwitchOnce) {
    DescendantGroup first(Sw("sw1"));
    DescendantGroup second(Sw("sw1"));
    DescendantGroup top(Sw("sw3"));
    top.children = {&first, &second};
    top.UpdateLeafCoverage();
    EXPECT_EQ(top.score.node_count, 2u);
}

TEST_F(DescendantGroupTest, CoverageDoesNotDescendIntoAMemberWhoseSwitchIsCounted) {
    // sw4 hangs only below a member on sw3, which is counted before that member is met.
    DescendantGroup below(Sw("sw4"));
    DescendantGroup back_on_top(Sw("sw3"));
    back_on_top.children.push_back(&below);
    DescendantGroup middle(Sw("sw1"));
    middle.children.push_back(&back_on_top);
    DescendantGroup top(Sw("sw3"));
    top.children.push_back(&middle);
    top.UpdateLeafCoverage();
    EXPECT_EQ(top.score.node_count, 2u);
}

TEST_F(DescendantGroupTest, CoverageFollowsASameSwitchMemberQueuedBeforeItsSwitchWasCounted) {
    // Both members on sw1 are queued while sw1 is still uncounted, so the members of
    // the second one are reached as well.
    DescendantGroup under_first(Sw("sw2"));
    DescendantGroup under_second(Sw("sw4"));
    DescendantGroup first(Sw("sw1"));
    first.children.push_back(&under_first);
    DescendantGroup second(Sw("sw1"));
    second.children.push_back(&under_second);
    DescendantGroup top(Sw("sw3"));
    top.children = {&first, &second};
    top.UpdateLeafCoverage();
    EXPECT_EQ(top.score.node_count, 4u);
}

TEST_F(DescendantGroupTest, LeafKeyIsTheSwitchGuid) {
    EXPECT_EQ(LeafNodeGuidKey(Sw("sw1")), 0x1001ul);
    EXPECT_EQ(LeafNodeGuidKey(Sw("sw4")), 0x1004ul);
}

TEST_F(DescendantGroupTest, EmptyLeafSetHashesToZero) {
    EXPECT_EQ(CalculateLeavesHash(LeafSwitchSet{}, LeafNodeGuidKey), 0u);
}

TEST_F(DescendantGroupTest, OneLeafSetHashesByTheFormula) {
    const uint64_t k = 0x1002;
    const uint64_t expected =
        1 + ((k * k) << 32) + ((1 ^ k) + 0) + ((k >> 5) + (k << 8)) + ((k >> 32) + (k << 48));
    EXPECT_EQ(CalculateLeavesHash(LeafSwitchSet{Sw("sw2")}, LeafNodeGuidKey), expected);
}

TEST_F(DescendantGroupTest, HashArithmeticWrapsAt64Bits) {
    const uint64_t k = 0xfedcba9876543210ull;
    LeafKeyFunction large_key = [k](AggNodeFabricInfo* const&) {
        return static_cast<unsigned long>(k);
    };
    const uint64_t expected =
        1 + ((k * k) << 32) + ((1 ^ k) + 0) + ((k >> 5) + (k << 8)) + ((k >> 32) + (k << 48));
    EXPECT_EQ(CalculateLeavesHash(LeafSwitchSet{Sw("sw1")}, large_key), expected);
}

TEST_F(DescendantGroupTest, SeveralLeavesHashInTheSetsIterationOrder) {
    LeafSwitchSet leaves{Sw("sw1"), Sw("sw3"), Sw("sw4")};
    uint64_t expected = 1;
    for (AggNodeFabricInfo* leaf : leaves) {
        expected = HashStep(expected, leaf->port_info->guid);
    }
    EXPECT_EQ(CalculateLeavesHash(leaves, LeafNodeGuidKey), expected);
    EXPECT_NE(CalculateLeavesHash(leaves, LeafNodeGuidKey),
              CalculateLeavesHash(LeafSwitchSet{Sw("sw1"), Sw("sw3")}, LeafNodeGuidKey));
}

TEST_F(DescendantGroupTest, CandidateOrderPutsStrictlyLargerGroupsFirst) {
    DescendantGroup small(Sw("sw1"));
    small.leaf_nodes = {Sw("sw1")};
    DescendantGroup large(Sw("sw2"));
    large.leaf_nodes = {Sw("sw1"), Sw("sw2"), Sw("sw3")};
    DescendantGroup middle(Sw("sw3"));
    middle.leaf_nodes = {Sw("sw2"), Sw("sw3")};
    DescendantGroup middle_too(Sw("sw4"));
    middle_too.leaf_nodes = {Sw("sw3"), Sw("sw4")};

    EXPECT_TRUE(DescendantGroupHasMoreLeaves(&large, &small));
    EXPECT_FALSE(DescendantGroupHasMoreLeaves(&small, &large));
    EXPECT_FALSE(DescendantGroupHasMoreLeaves(&middle, &middle_too));
    EXPECT_FALSE(DescendantGroupHasMoreLeaves(&middle_too, &middle));

    std::vector<DescendantGroup*> candidates{&small, &middle, &large, &middle_too};
    std::sort(candidates.begin(), candidates.end(), DescendantGroupHasMoreLeaves);
    std::vector<size_t> sizes;
    for (const DescendantGroup* candidate : candidates) {
        sizes.push_back(candidate->size());
    }
    EXPECT_EQ(sizes, (std::vector<size_t>{3, 2, 2, 1}));
    EXPECT_EQ(candidates.front(), &large);
    EXPECT_EQ(candidates.back(), &small);
}

TEST_F(DescendantGroupTest, SwitchRecordStartsWithoutBestGroupOrOffers) {
    QuasiFatTreeAnInfo info(Sw("sw2"));
    EXPECT_EQ(info.node, Sw("sw2"));
    EXPECT_EQ(info.best_group, nullptr);
    EXPECT_TRUE(info.child_groups.empty());
    EXPECT_TRUE(info.map_valid_path_count_to_child.empty());
    EXPECT_FLOAT_EQ(info.child_groups.max_load_factor(), 1.0f);
    EXPECT_FLOAT_EQ(info.map_valid_path_count_to_child.max_load_factor(), 1.0f);
}

}  // namespace
