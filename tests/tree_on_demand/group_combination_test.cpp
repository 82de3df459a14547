// Combining the groups a switch's children offered into the switch's candidates.
#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "support/assertion_text.h"
#include "support/default_tree_nodes.h"
#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

FabricSketch SixLeavesThreeMiddlesOneTop() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2", "leaf-3", "leaf-4", "leaf-5", "leaf-6"}, 0)
        .Switches({"mid-1", "mid-2", "mid-3"}, 1)
        .Switch("top", 2);
    return sketch;
}

class GroupCombinationTest : public ::testing::Test {
protected:
    GroupCombinationTest() : fabric(SixLeavesThreeMiddlesOneTop()) {}

    AggNodeFabricInfo* Sw(const std::string& name) { return fabric.Switch(name); }
    std::string Name(const std::string& name) { return Sw(name)->port_info->GetName(); }

    QuasiFatTreeAnInfo& Record(const std::string& name) { return records.emplace_back(Sw(name)); }

    void GiveDefaultTreeNode(const std::string& name) { tree_nodes.Add(Sw(name)); }

    // A group rooted at `at` covering `leaves`, offered to `info` over `links` parallel
    // up-links (no link count recorded when `links` is 0).
    DescendantGroup& Offer(QuasiFatTreeAnInfo& info, const std::string& at,
                           const std::vector<std::string>& leaves, int32_t links) {
        DescendantGroup& group = groups.emplace_back(Sw(at));
        for (const std::string& leaf : leaves) {
            group.leaf_nodes.insert(Sw(leaf));
        }
        group.leaves_hash = CalculateLeavesHash(group.leaf_nodes, LeafNodeGuidKey);
        info.child_groups[group.leaves_hash] = &group;
        if (links > 0) {
            info.map_valid_path_count_to_child[Sw(at)] = links;
        }
        return group;
    }

    std::vector<DescendantGroup*> Combine(const QuasiFatTreeAnInfo& info) {
        std::vector<DescendantGroup*> out;
        creator.CombineGroups(info, out, job, groups);
        return out;
    }

    LeafSwitchSet Leaves(const std::vector<std::string>& names) {
        LeafSwitchSet leaves;
        for (const std::string& name : names) {
            leaves.insert(Sw(name));
        }
        return leaves;
    }

    // The offered groups in the order the record hands them out.
    static std::vector<DescendantGroup*> OfferOrder(const QuasiFatTreeAnInfo& info) {
        std::vector<DescendantGroup*> order;
        for (const auto& [hash, group] : info.child_groups) {
            order.push_back(group);
        }
        return order;
    }

    InstalledFabric fabric;
    DefaultTreeNodePool tree_nodes;
    OnDemandTreeCreator creator;
    JobSubTreeInfo job;
    DescendantGroupList groups;
    std::list<QuasiFatTreeAnInfo> records;
};

TEST_F(GroupCombinationTest, SwitchWithoutDefaultTreeNodeIsAnAssertion) {
    LogCapture log;
    QuasiFatTreeAnInfo& top = Record("top");
    Offer(top, "mid-1", {"leaf-1"}, 1);

    EXPECT_EQ(AssertionText([&] { Combine(top); }),
              "AggNode: " + Name("top") +
                  " doesn't have default tree node that is required for quasi fat tree "
                  "algorithm");
    EXPECT_TRUE(log.Contains(1, "-A- assert(p_tree_node) failed. AggNode: " + Name("top") +
                                    " doesn't have default tree node that is required for "
                                    "quasi fat tree algorithm"))
        << log.Dump();
}

TEST_F(GroupCombinationTest, NothingOfferedGivesNoCandidate) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");

    EXPECT_TRUE(Combine(top).empty());
    EXPECT_TRUE(groups.empty());
    EXPECT_EQ(log.Messages(4),
              std::vector<std::string>{"CombineGroups node: " + Name("top") + "\n"});
}

TEST_F(GroupCombinationTest, LeafWithOnlyItsSeedGivesOneCandidateWithoutMembers) {
    LogCapture log;
    GiveDefaultTreeNode("leaf-1");
    QuasiFatTreeAnInfo& leaf = Record("leaf-1");
    DescendantGroup& seed = Offer(leaf, "leaf-1", {"leaf-1"}, 1);
    seed.score.max_active_trees = 2;

    std::vector<DescendantGroup*> out = Combine(leaf);

    ASSERT_EQ(out.size(), 1u);
    DescendantGroup& candidate = *out[0];
    EXPECT_EQ(candidate.node, Sw("leaf-1"));
    EXPECT_TRUE(candidate.children.empty());
    EXPECT_EQ(candidate.leaf_nodes, Leaves({"leaf-1"}));
    EXPECT_EQ(candidate.score.max_active_trees, 2u);
    EXPECT_EQ(candidate.score.min_parallel_links, 65535);
    EXPECT_EQ(candidate.score.node_count, 1u);
    EXPECT_EQ(candidate.score.leaf_count, 1u);
    EXPECT_EQ(candidate.score.min_free_tree_ids, 128u) << "scored with the leaf's tree node";
    EXPECT_EQ(candidate.leaves_hash, CalculateLeavesHash(Leaves({"leaf-1"}), LeafNodeGuidKey));
    EXPECT_EQ(&groups.back(), &candidate);
    EXPECT_TRUE(log.Contains(4,
                             "CombineGroups number_of_possible_links_to_use_in_job=65535 "
                             "group=DG_id: " +
                                 std::to_string(candidate.id) + " node: leaf-1"))
        << log.Dump();
}

TEST_F(GroupCombinationTest, DisjointOffersFormOneCandidateRatedByItsWorstMember) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    DescendantGroup& left = Offer(top, "mid-1", {"leaf-1", "leaf-2"}, 4);
    left.score.max_active_trees = 1;
    left.score.min_parallel_links = 3;
    DescendantGroup& right = Offer(top, "mid-2", {"leaf-3"}, 2);
    right.score.max_active_trees = 4;

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 1u);
    DescendantGroup& candidate = *out[0];
    EXPECT_EQ(candidate.node, Sw("top"));
    EXPECT_EQ(candidate.children, OfferOrder(top));
    EXPECT_EQ(candidate.leaf_nodes, Leaves({"leaf-1", "leaf-2", "leaf-3"}));
    EXPECT_EQ(candidate.score.max_active_trees, 4u);
    EXPECT_EQ(candidate.score.min_parallel_links, 2) << "least of counts 4, 2 and own 3, 65535";
    EXPECT_EQ(candidate.score.node_count, 3u);
    EXPECT_EQ(candidate.score.leaf_count, 3u);
    EXPECT_EQ(candidate.leaves_hash, CalculateLeavesHash(candidate.leaf_nodes, LeafNodeGuidKey));
    EXPECT_TRUE(log.Contains(
        4, "CombineGroups number_of_possible_links_to_use_in_job=2 group=" + candidate.ToString(0)))
        << log.Dump();
}

TEST_F(GroupCombinationTest, DisjointCandidateKeepsTheWeakestHopInsideAMember) {
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    Offer(top, "mid-1", {"leaf-1"}, 4).score.min_parallel_links = 1;
    Offer(top, "mid-2", {"leaf-2"}, 5);

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->score.min_parallel_links, 1);
}

TEST_F(GroupCombinationTest, DisjointOffersOfEqualScoreLeaveTheFirstOfferedAsRating) {
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    // Equal for IsWorseThan, told apart by a figure the comparison does not weigh.
    Offer(top, "mid-1", {"leaf-1"}, 1).score.min_free_tree_ids = 10;
    Offer(top, "mid-2", {"leaf-2"}, 1).score.min_free_tree_ids = 20;
    Offer(top, "mid-3", {"leaf-3"}, 1).score.min_free_tree_ids = 30;

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->score.min_free_tree_ids, OfferOrder(top).front()->score.min_free_tree_ids);
}

TEST_F(GroupCombinationTest, DisjointCandidateRefusedByTheTreeNodeIsNotOffered) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    Offer(top, "mid-1", {"leaf-1"}, 1);
    DescendantGroup& worst = Offer(top, "mid-2", {"leaf-2"}, 1);
    worst.score.max_active_trees = 9;
    worst.score.quota.units = 1000;  // more than any switch has free

    EXPECT_TRUE(Combine(top).empty());
    EXPECT_EQ(groups.size(), 3u) << "the refused candidate stays in the group list";
    EXPECT_TRUE(log.Contains(4, "CombineGroups Could not use TreeNode on: " + Name("top") + "\n"))
        << log.Dump();
    EXPECT_FALSE(log.ContainsFragment(4, "number_of_possible_links_to_use_in_job"));
}

TEST_F(GroupCombinationTest, DisjointMemberWithoutLinkCountIsAnAssertion) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    Offer(top, "mid-1", {"leaf-1"}, 0);

    std::string expected =
        "Missing parallel link count from " + Name("top") + " to " + Name("mid-1");
    EXPECT_EQ(AssertionText([&] { Combine(top); }), expected);
    EXPECT_TRUE(log.Contains(1,
                             "-A- assert(link_count_iter != "
                             "quasi_fat_tree_info.map_valid_path_count_to_child.end()) failed. " +
                                 expected))
        << log.Dump();
}

TEST_F(GroupCombinationTest, SeedGroupOfTheSwitchItselfIsNotAMember) {
    GiveDefaultTreeNode("leaf-2");
    QuasiFatTreeAnInfo& leaf = Record("leaf-2");
    Offer(leaf, "leaf-2", {"leaf-2"}, 1);
    DescendantGroup& below = Offer(leaf, "leaf-1", {"leaf-1"}, 3);

    std::vector<DescendantGroup*> out = Combine(leaf);

    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->children, std::vector<DescendantGroup*>{&below});
    EXPECT_EQ(out[0]->leaf_nodes, Leaves({"leaf-1", "leaf-2"}));
    EXPECT_EQ(out[0]->score.min_parallel_links, 3);
    EXPECT_EQ(out[0]->score.node_count, 2u);
}

TEST_F(GroupCombinationTest, OverlapLargestOfferSeedsAndAnOfferWithAUniqueLeafJoinsIt) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    DescendantGroup& large = Offer(top, "mid-1", {"leaf-1", "leaf-2", "leaf-3"}, 3);
    DescendantGroup& small = Offer(top, "mid-2", {"leaf-3", "leaf-4"}, 2);
    small.score.max_active_trees = 6;

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 1u);
    DescendantGroup& candidate = *out[0];
    EXPECT_EQ(candidate.children, (std::vector<DescendantGroup*>{&large, &small}));
    EXPECT_EQ(candidate.leaf_nodes, Leaves({"leaf-1", "leaf-2", "leaf-3", "leaf-4"}));
    EXPECT_EQ(candidate.score.max_active_trees, 6u) << "the worse member's score is copied";
    EXPECT_EQ(candidate.score.min_parallel_links, 2);
    EXPECT_EQ(candidate.score.leaf_count, 4u);
    EXPECT_EQ(candidate.score.min_free_tree_ids, 128u) << "scored with the switch's tree node";
    EXPECT_EQ(candidate.leaves_hash, CalculateLeavesHash(candidate.leaf_nodes, LeafNodeGuidKey));
    EXPECT_EQ(log.Messages(4),
              (std::vector<std::string>{
                  "CombineGroups node: " + Name("top") + "\n",
                  "CombineGroups Working on raw_group " + large.ToString(0) + "\n",
                  "CombineGroups group_has_unique_member: " + large.ToString(0) + "\n",
                  "CombineGroups Working on raw_group " + small.ToString(0) + "\n",
                  "CombineGroups group_has_unique_member: " + small.ToString(0) + "\n",
              }));
}

TEST_F(GroupCombinationTest, OverlapUniqueOfferWithMoreLinksKeepsTheCandidatesLinkCount) {
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    Offer(top, "mid-1", {"leaf-1", "leaf-2", "leaf-3"}, 3);
    Offer(top, "mid-2", {"leaf-3", "leaf-4"}, 7);

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->score.min_parallel_links, 3);
}

TEST_F(GroupCombinationTest, OverlapSeedCandidateCountsOnlyTheHopUpFromTheSeed) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    DescendantGroup& seed = Offer(top, "mid-1", {"leaf-1", "leaf-2"}, 3);
    seed.score.min_parallel_links = 1;
    Offer(top, "mid-2", {"leaf-2"}, 5).score.max_active_trees = 1;

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->children, std::vector<DescendantGroup*>{&seed});
    EXPECT_EQ(out[0]->leaf_nodes, Leaves({"leaf-1", "leaf-2"}));
    EXPECT_EQ(out[0]->score.min_parallel_links, 3) << "the seed's own weakest hop is left out";
    EXPECT_TRUE(log.Contains(4, "MergeGroups redundant raw group\n")) << log.Dump();
}

TEST_F(GroupCombinationTest, OverlapOfferWithoutUniqueLeafIsMergedIntoTheCandidates) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    DescendantGroup& seed = Offer(top, "mid-1", {"leaf-1", "leaf-2", "leaf-3"}, 3);
    DescendantGroup& partial = Offer(top, "mid-2", {"leaf-3", "leaf-4"}, 2);
    Offer(top, "mid-3", {"leaf-4"}, 2).score.max_active_trees = 1;  // no better than the merge

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0]->leaf_nodes, Leaves({"leaf-1", "leaf-2", "leaf-3", "leaf-4"}));
    EXPECT_EQ(out[0]->children, (std::vector<DescendantGroup*>{&seed, &partial}));
    EXPECT_EQ(out[1]->leaf_nodes, Leaves({"leaf-1", "leaf-2", "leaf-3"}));
    EXPECT_EQ(out[1]->children, std::vector<DescendantGroup*>{&seed});
    EXPECT_FALSE(
        log.ContainsFragment(4, "CombineGroups group_has_unique_member: " + partial.ToString(0)));
    EXPECT_EQ(log.Count(4, "MergeGroups redundant raw group\n"), 1u) << log.Dump();
}

TEST_F(GroupCombinationTest, OverlapOfferWithAUniqueLeafJoinsEveryCandidate) {
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    // The seed takes leaves 1-4; {3-5} has no leaf of its own and is merged beside it,
    // giving two candidates; {5-6} alone reaches leaf 6, so both candidates take it.
    DescendantGroup& seed = Offer(top, "mid-1", {"leaf-1", "leaf-2", "leaf-3", "leaf-4"}, 3);
    DescendantGroup& shared = Offer(top, "mid-2", {"leaf-3", "leaf-4", "leaf-5"}, 3);
    DescendantGroup& unique = Offer(top, "mid-3", {"leaf-5", "leaf-6"}, 2);

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0]->children, (std::vector<DescendantGroup*>{&seed, &shared, &unique}));
    EXPECT_EQ(out[1]->children, (std::vector<DescendantGroup*>{&seed, &unique}));
    for (const DescendantGroup* candidate : out) {
        EXPECT_EQ(candidate->leaf_nodes,
                  Leaves({"leaf-1", "leaf-2", "leaf-3", "leaf-4", "leaf-5", "leaf-6"}));
        EXPECT_EQ(candidate->score.min_parallel_links, 2);
        EXPECT_EQ(candidate->score.leaf_count, 6u);
        EXPECT_EQ(candidate->leaves_hash,
                  CalculateLeavesHash(candidate->leaf_nodes, LeafNodeGuidKey));
    }
    // Switches reached through the members, then one more from the final tree-node update.
    EXPECT_EQ(out[0]->score.node_count, 4u + 1u);
    EXPECT_EQ(out[1]->score.node_count, 3u + 1u);
}

TEST_F(GroupCombinationTest, RefusedSecondOfThreeCandidatesEndsTheScoring) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    // The seed takes leaves 1-4; the middle offer adds 5 and 6 to it (first merge); the
    // small offer scores better than that merge, so it is merged with the seed too.
    Offer(top, "mid-1", {"leaf-1", "leaf-2", "leaf-3", "leaf-4"}, 3);
    DescendantGroup& middle = Offer(top, "mid-2", {"leaf-4", "leaf-5", "leaf-6"}, 3);
    middle.score.max_active_trees = 5;
    middle.score.quota.units = 1000;  // refused by the switch's tree node
    Offer(top, "mid-3", {"leaf-5", "leaf-6"}, 3);

    std::vector<DescendantGroup*> out = Combine(top);

    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0]->leaf_nodes,
              Leaves({"leaf-1", "leaf-2", "leaf-3", "leaf-4", "leaf-5", "leaf-6"}));
    EXPECT_EQ(out[1]->leaf_nodes,
              Leaves({"leaf-1", "leaf-2", "leaf-3", "leaf-4", "leaf-5", "leaf-6"}));
    EXPECT_EQ(out[1]->score.quota.units, 1000u);
    EXPECT_EQ(out[2]->leaf_nodes, Leaves({"leaf-1", "leaf-2", "leaf-3", "leaf-4"}));
    EXPECT_EQ(out[0]->score.min_free_tree_ids, 128u) << "the first candidate was scored";
    EXPECT_EQ(out[1]->score.min_free_tree_ids, UINT32_MAX) << "the refusal changed nothing";
    EXPECT_EQ(out[2]->score.min_free_tree_ids, UINT32_MAX) << "the third was never scored";
    EXPECT_EQ(log.Count(4, "CombineGroups Could not use TreeNode on: " + Name("top") + "\n"), 1u)
        << log.Dump();
}

TEST_F(GroupCombinationTest, OverlapSeedWithoutLinkCountIsAnAssertion) {
    LogCapture log;
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    Offer(top, "mid-1", {"leaf-1", "leaf-2"}, 0);
    Offer(top, "mid-2", {"leaf-2"}, 1);

    std::string expected =
        "MapValidPathCount doesn't contain a value for a child: " + Name("mid-1") +
        ", on node: " + Name("top");
    EXPECT_EQ(AssertionText([&] { Combine(top); }), expected);
    EXPECT_TRUE(log.Contains(1,
                             "-A- assert(map_it != "
                             "quasi_fat_tree_info.map_valid_path_count_to_child.end()) failed. " +
                                 expected))
        << log.Dump();
}

TEST_F(GroupCombinationTest, OverlapUniqueOfferWithoutLinkCountIsAnAssertion) {
    GiveDefaultTreeNode("top");
    QuasiFatTreeAnInfo& top = Record("top");
    Offer(top, "mid-1", {"leaf-1", "leaf-2", "leaf-3"}, 2);
    Offer(top, "mid-2", {"leaf-3", "leaf-4"}, 0);

    EXPECT_EQ(AssertionText([&] { Combine(top); }),
              "MapValidPathCount doesn't contain a value for a child: " + Name("mid-2") +
                  ", on node: " + Name("top"));
}

}  // namespace
