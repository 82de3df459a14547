// Free and busy hosts, and where the placement policies put a job.
#include "simulation/host_pool.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"

namespace {

using aggtree::HostPool;
using aggtree::Placement;

// leaf-1 carries 4 hosts, leaf-2 3, leaf-3 2; names out of order on purpose.
FabricSketch ThreeLeaves() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2", "leaf-3"}, 0)
        .Hosts("leaf-1", {"node10", "node2", "node1", "node3"})
        .Hosts("leaf-2", {"node4", "node5", "node6"})
        .Hosts("leaf-3", {"node7", "node8"});
    return sketch;
}

class HostPoolTest : public ::testing::Test {
protected:
    HostPoolTest() : fabric(ThreeLeaves().Description()), pool(fabric) {}

    std::vector<std::string> Names(const std::vector<size_t>& hosts) const {
        std::vector<std::string> names;
        for (size_t host : hosts) {
            names.push_back(fabric.Hosts()[host].name);
        }
        return names;
    }

    std::vector<size_t> Indices(const std::vector<std::string>& names) const {
        std::vector<size_t> hosts;
        for (const std::string& name : names) {
            hosts.push_back(static_cast<size_t>(fabric.FindHost(name) - fabric.Hosts().data()));
        }
        return hosts;
    }

    std::vector<std::string> Pick(uint64_t count, Placement placement) {
        return Names(pool.Pick(count, placement, engine));
    }

    Fabric fabric;
    HostPool pool;
    std::mt19937 engine{1};
};

TEST(NaturalNameOrder, DigitRunsCompareAsNumbers) {
    EXPECT_TRUE(aggtree::NaturalNameLess("node2", "node10"));
    EXPECT_FALSE(aggtree::NaturalNameLess("node10", "node2"));
    EXPECT_TRUE(aggtree::NaturalNameLess("node001", "node002"));
    EXPECT_TRUE(aggtree::NaturalNameLess("a9b", "a10"));
    EXPECT_TRUE(aggtree::NaturalNameLess("node", "node1"));
    EXPECT_TRUE(aggtree::NaturalNameLess("node01", "node1"));  // equal numbers: plain text
    EXPECT_FALSE(aggtree::NaturalNameLess("node1", "node1"));
    EXPECT_TRUE(aggtree::NaturalNameLess("rack2-node9", "rack10-node1"));
}

TEST_F(HostPoolTest, LinearTakesTheLowestFreeNames) {
    EXPECT_EQ(Pick(5, Placement::kLinear),
              (std::vector<std::string>{"node1", "node2", "node3", "node4", "node5"}));
    pool.Take(Indices({"node2", "node4"}));
    EXPECT_EQ(Pick(3, Placement::kLinear), (std::vector<std::string>{"node1", "node3", "node5"}));
}

TEST_F(HostPoolTest, CompactUsesTheFewestLeavesAndTheTightestLeafForTheRest) {
    // Two hosts fit on leaf-3 exactly, leaving the larger leaves whole.
    EXPECT_EQ(Pick(2, Placement::kCompact), (std::vector<std::string>{"node7", "node8"}));
    // Three fit on leaf-2 exactly.
    EXPECT_EQ(Pick(3, Placement::kCompact), (std::vector<std::string>{"node4", "node5", "node6"}));
    // Four only on leaf-1.
    EXPECT_EQ(Pick(4, Placement::kCompact),
              (std::vector<std::string>{"node1", "node2", "node3", "node10"}));
    // Six: the largest leaf whole, then the two left over on leaf-3 (two leaves).
    EXPECT_EQ(Pick(6, Placement::kCompact),
              (std::vector<std::string>{"node1", "node2", "node3", "node7", "node8", "node10"}));
    // One host: the tightest leaf, the lowest name on it.
    EXPECT_EQ(Pick(1, Placement::kCompact), (std::vector<std::string>{"node7"}));
}

TEST_F(HostPoolTest, CompactBreaksTiesByTheLowestNames) {
    pool.Take(Indices({"node1", "node2"}));  // leaf-1 and leaf-3 both have 2 free
    EXPECT_EQ(Pick(2, Placement::kCompact), (std::vector<std::string>{"node3", "node10"}));
    EXPECT_EQ(Pick(5, Placement::kCompact),
              (std::vector<std::string>{"node3", "node4", "node5", "node6", "node10"}));
}

TEST_F(HostPoolTest, RandomDrawsFreeHostsReproducibly) {
    pool.Take(Indices({"node1", "node5"}));
    std::vector<std::string> first = Pick(4, Placement::kRandom);
    engine.seed(1);
    EXPECT_EQ(Pick(4, Placement::kRandom), first);
    ASSERT_EQ(first.size(), 4u);
    for (const std::string& name : first) {
        EXPECT_NE(name, "node1");
        EXPECT_NE(name, "node5");
    }
    for (size_t i = 1; i < first.size(); ++i) {
        EXPECT_TRUE(aggtree::NaturalNameLess(first[i - 1], first[i])) << "in name order";
    }
    // Other seeds give other draws.
    std::set<std::vector<std::string>> draws;
    for (uint32_t seed = 1; seed <= 10; ++seed) {
        engine.seed(seed);
        draws.insert(Pick(4, Placement::kRandom));
    }
    EXPECT_GT(draws.size(), 1u);
}

TEST_F(HostPoolTest, TooFewFreeHostsGiveNothing) {
    EXPECT_EQ(pool.Size(), 9u);
    pool.Take(Indices({"node1", "node2", "node3", "node4", "node5"}));
    EXPECT_EQ(pool.FreeCount(), 4u);
    EXPECT_FALSE(pool.IsFree(Indices({"node3"})[0]));
    for (Placement placement : {Placement::kCompact, Placement::kLinear, Placement::kRandom}) {
        EXPECT_TRUE(Pick(5, placement).empty());
        EXPECT_EQ(Pick(4, placement).size(), 4u);
    }
    pool.Give(Indices({"node3", "node4"}));
    EXPECT_EQ(pool.FreeCount(), 6u);
    EXPECT_TRUE(pool.IsFree(Indices({"node3"})[0]));
}

TEST(PlacementNames, ReadAndWritten) {
    Placement placement = Placement::kLinear;
    EXPECT_TRUE(aggtree::ParsePlacement("compact", placement));
    EXPECT_EQ(placement, Placement::kCompact);
    EXPECT_TRUE(aggtree::ParsePlacement("random", placement));
    EXPECT_STREQ(aggtree::PlacementName(placement), "random");
    EXPECT_FALSE(aggtree::ParsePlacement("packed", placement));
    EXPECT_EQ(placement, Placement::kRandom);
}

}  // namespace
