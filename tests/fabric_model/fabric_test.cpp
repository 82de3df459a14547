// The fabric model as the tree builder sees it: hosts, paths, siblings, quotas, tree
// ids, lookups, tree nodes and edges.
#include "fabric_model/fabric.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/tree_node.h"
#include "support/fabric_sketch.h"

namespace {

const AggNodeFabricInfo* SwitchOf(const Fabric& fabric, const std::string& name) {
    const AggNodeFabricInfo* sw = fabric.FindSwitch(name);
    EXPECT_NE(sw, nullptr) << "no switch " << name;
    return sw;
}

// ---- hosts ---------------------------------------------------------------------------

TEST(FabricHosts, HostPortIsFoundByGuidAndPlane) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Host("node001", "leaf-1", 2)
        .Host("node002", "leaf-2", 0);
    Fabric fabric(sketch.Description());
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x2001, 2}),
              fabric.FindSwitch("leaf-1"));
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x2002, 0}),
              fabric.FindSwitch("leaf-2"));
}

TEST(FabricHosts, HostPortOnAnotherPlaneIsUnknown) {
    FabricSketch sketch;
    sketch.Switch("leaf-1", 0).Host("node001", "leaf-1", 2);
    Fabric fabric(sketch.Description());
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x2001, 0}), nullptr);
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x2001, 3}), nullptr);
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x9999, 2}), nullptr);
}

TEST(FabricHosts, OneGuidOnTwoPlanesMayHangOnTwoSwitches) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0);
    sketch.Description().hosts.push_back(HostDescription{0x77, "h-plane-1", 1, 0});
    sketch.Description().hosts.push_back(HostDescription{0x77, "h-plane-2", 2, 1});
    Fabric fabric(sketch.Description());
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x77, 1}),
              fabric.FindSwitch("leaf-1"));
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x77, 2}),
              fabric.FindSwitch("leaf-2"));
}

// ---- paths ---------------------------------------------------------------------------

TEST(FabricPaths, LinkFromLowerToHigherRankIsUpward) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0).Switch("spine", 1).Link("leaf", "spine");
    Fabric fabric(sketch.Description());
    const AggNodeFabricInfo* leaf = SwitchOf(fabric, "leaf");
    const AggNodeFabricInfo* spine = SwitchOf(fabric, "spine");

    const AggPathsMap& leaf_up = leaf->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP);
    ASSERT_EQ(leaf_up.size(), 1u);
    EXPECT_EQ(leaf_up.begin()->first, spine);
    ASSERT_EQ(leaf_up.begin()->second.size(), 1u);
    EXPECT_EQ(leaf_up.begin()->second.begin()->remote_node, spine);
    EXPECT_TRUE(leaf->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN).empty());

    const AggPathsMap& spine_down = spine->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN);
    ASSERT_EQ(spine_down.size(), 1u);
    EXPECT_EQ(spine_down.begin()->first, leaf);
    EXPECT_EQ(spine_down.begin()->second.begin()->remote_node, leaf);
    EXPECT_TRUE(spine->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).empty());
}

TEST(FabricPaths, DirectionFollowsRankNotTheOrderTheLinkNamesItsEnds) {
    FabricSketch sketch;
    sketch.Switch("spine", 2).Switch("leaf", 0).Link("spine", "leaf");
    Fabric fabric(sketch.Description());
    const AggNodeFabricInfo* leaf = SwitchOf(fabric, "leaf");
    const AggNodeFabricInfo* spine = SwitchOf(fabric, "spine");
    EXPECT_EQ(leaf->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).count(spine), 1u);
    EXPECT_EQ(spine->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN).count(leaf), 1u);
}

TEST(FabricPaths, ParallelLinksAreSeparatePaths) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0).Switch("spine", 1).Link("leaf", "spine", 3);
    Fabric fabric(sketch.Description());
    const AggNodeFabricInfo* leaf = SwitchOf(fabric, "leaf");
    const AggNodeFabricInfo* spine = SwitchOf(fabric, "spine");
    EXPECT_EQ(leaf->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).at(spine).size(), 3u);
    EXPECT_EQ(spine->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN).at(leaf).size(), 3u);
    EXPECT_EQ(leaf->CountLinksTo(spine), 3);
    EXPECT_EQ(spine->CountLinksTo(leaf), 3);
}

TEST(FabricPaths, PathCarriesTheLinksPlaneUsabilityAndLocks) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0).Switch("spine", 1).Link("leaf", "spine", 1, [](LinkDescription& l) {
        l.plane = 4;
        l.usable = false;
        l.lock_limit = 9;
        l.exclusive_lock_count = 2;
        l.exclusively_locked = true;
        l.lock_count = 5;
    });
    Fabric fabric(sketch.Description());
    const AggNodeFabricInfo* spine = SwitchOf(fabric, "spine");
    const AggPath& path =
        *SwitchOf(fabric, "leaf")->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).at(spine).begin();
    EXPECT_EQ(path.plane, 4);
    EXPECT_FALSE(path.is_usable);
    EXPECT_EQ(path.lock_limit, 9);
    EXPECT_EQ(path.exclusive_lock_count, 2);
    EXPECT_EQ(path.exclusively_locked, 1);
    EXPECT_EQ(path.lock_count, 5);
}

TEST(FabricPaths, EqualRankLinkInOneIslandCarriesNoPath) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0).Link("leaf-1", "leaf-2", 2);
    Fabric fabric(sketch.Description());
    for (const char* name : {"leaf-1", "leaf-2"}) {
        const AggNodeFabricInfo* sw = SwitchOf(fabric, name);
        EXPECT_TRUE(sw->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).empty()) << name;
        EXPECT_TRUE(sw->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN).empty()) << name;
        EXPECT_TRUE(sw->sibling_links.empty()) << name;
        EXPECT_EQ(sw->equal_rank_links, 2u) << name;
    }
}

TEST(FabricPaths, LinksBetweenIslandsAreSiblingsNotPaths) {
    FabricSketch sketch;
    sketch.DfpSwitch("g1-spine", 1, 1).DfpSwitch("g2-spine", 1, 2).DfpSwitch("g2-leaf", 0, 2);
    sketch.Link("g1-spine", "g2-spine", 2).Link("g1-spine", "g2-leaf");
    Fabric fabric(sketch.Description());
    const AggNodeFabricInfo* g1 = SwitchOf(fabric, "g1-spine");
    const AggNodeFabricInfo* g2 = SwitchOf(fabric, "g2-spine");
    const AggNodeFabricInfo* g2_leaf = SwitchOf(fabric, "g2-leaf");
    EXPECT_TRUE(g1->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).empty());
    EXPECT_TRUE(g1->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN).empty());
    EXPECT_EQ(g1->sibling_links.size(), 3u);
    EXPECT_EQ(g2->sibling_links.size(), 2u);
    EXPECT_EQ(g2_leaf->sibling_links.size(), 1u);
    EXPECT_EQ(g1->CountLinksTo(g2), 2);
    EXPECT_EQ(g1->CountLinksTo(g2_leaf), 1);
}

TEST(FabricPaths, TreeSwitchAndGroupSwitchAreInDifferentIslands) {
    FabricSketch sketch;
    sketch.Switch("tree-spine", 1)
        .DfpSwitch("group-0-leaf", 0, 0)
        .Link("tree-spine", "group-0-leaf");
    Fabric fabric(sketch.Description());
    EXPECT_EQ(GetAggNodeIslandId(SwitchOf(fabric, "tree-spine")), kNoIslandId);
    EXPECT_EQ(GetAggNodeIslandId(SwitchOf(fabric, "group-0-leaf")), 0);
    EXPECT_EQ(SwitchOf(fabric, "tree-spine")->sibling_links.size(), 1u);
    EXPECT_TRUE(
        SwitchOf(fabric, "group-0-leaf")->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).empty());
}

TEST(FabricPaths, IslandOfTopologyKindThreeIsItsGroup) {
    FabricSketch sketch;
    sketch.Switch("a", 0, [](SwitchDescription& sw) {
        sw.topology_kind = 3;
        sw.dfp_group_id = 12;
    });
    sketch.Switch("b", 0, [](SwitchDescription& sw) {
        sw.topology_kind = 4;
        sw.dfp_group_id = 12;
    });
    Fabric fabric(sketch.Description());
    EXPECT_EQ(GetAggNodeIslandId(SwitchOf(fabric, "a")), 12);
    EXPECT_EQ(GetAggNodeIslandId(SwitchOf(fabric, "b")), kNoIslandId);
    EXPECT_EQ(GetAggNodeIslandId(nullptr), kNoIslandId);
}

// ---- siblings ------------------------------------------------------------------------

// One group-1 spine linked to spines of groups 2 to 4, one tweak per link.
class Siblings : public ::testing::Test {
protected:
    void Build(const FabricSketch::LinkTweak& to_2, const FabricSketch::LinkTweak& to_3,
               uint16_t count_to_2 = 1) {
        sketch.DfpSwitch("g1", 1, 1)
            .DfpSwitch("g2", 1, 2)
            .DfpSwitch("g3", 1, 3)
            .DfpSwitch("g4", 1, 4);
        sketch.Link("g1", "g2", count_to_2, to_2).Link("g1", "g3", 1, to_3).Link("g1", "g4", 2);
    }
    void Install() { fabric = std::make_unique<Fabric>(sketch.Description()); }

    std::set<std::string> Offered(bool lock_required, bool exclusive_lock) {
        AggNodeSet siblings;
        counts.clear();
        fabric->FindSwitch("g1")->GetAdjacentSiblings(lock_required, exclusive_lock, siblings,
                                                      &counts);
        std::set<std::string> names;
        for (const AggNode* node : siblings) {
            names.insert(node->name);
        }
        return names;
    }

    uint16_t CountTo(const std::string& name) {
        auto it = counts.find(fabric->FindSwitch(name));
        return it == counts.end() ? 0 : it->second;
    }

    FabricSketch sketch;
    std::unique_ptr<Fabric> fabric;
    AggNodeMap<uint16_t> counts;
};

using Names = std::set<std::string>;

TEST_F(Siblings, EveryUsableLinkIsOfferedWithItsLinkCount) {
    Build({}, {}, 3);
    Install();
    EXPECT_EQ(Offered(false, false), (Names{"g2", "g3", "g4"}));
    EXPECT_EQ(CountTo("g2"), 3);
    EXPECT_EQ(CountTo("g3"), 1);
    EXPECT_EQ(CountTo("g4"), 2);
}

TEST_F(Siblings, CountsMayBeLeftOut) {
    Build({}, {});
    Install();
    AggNodeSet siblings;
    fabric->FindSwitch("g1")->GetAdjacentSiblings(false, false, siblings, nullptr);
    EXPECT_EQ(siblings.size(), 3u);
}

TEST_F(Siblings, UnusableLinksAreNeverOffered) {
    Build([](LinkDescription& l) { l.usable = false; }, {});
    Install();
    EXPECT_EQ(Offered(false, false), (Names{"g3", "g4"}));
    EXPECT_EQ(CountTo("g2"), 0);
}

TEST_F(Siblings, ExclusivelyLockedLinkIsOfferedOnlyToJobsWithoutLocks) {
    Build([](LinkDescription& l) { l.exclusively_locked = true; }, {});
    Install();
    EXPECT_EQ(Offered(false, false), (Names{"g2", "g3", "g4"}));
    EXPECT_EQ(Offered(false, true), (Names{"g2", "g3", "g4"}));  // exclusive alone: no lock
    EXPECT_EQ(Offered(true, false), (Names{"g3", "g4"}));
    EXPECT_EQ(Offered(true, true), (Names{"g3", "g4"}));
}

TEST_F(Siblings, LinkWithLockCountAtItsLimitRefusesLockingJobs) {
    Build(
        [](LinkDescription& l) {
            l.lock_limit = 3;
            l.lock_count = 3;
        },
        [](LinkDescription& l) {
            l.lock_limit = 3;
            l.lock_count = 2;  // one below: still free
        });
    Install();
    EXPECT_EQ(Offered(true, false), (Names{"g3", "g4"}));
    EXPECT_EQ(Offered(true, true), (Names{"g3", "g4"}));
    EXPECT_EQ(Offered(false, false), (Names{"g2", "g3", "g4"}));
}

TEST_F(Siblings, ExclusiveCountAtItsLimitRefusesOnlyExclusiveDemands) {
    Build(
        [](LinkDescription& l) {
            l.lock_limit = 2;
            l.exclusive_lock_count = 2;
        },
        {});
    Install();
    EXPECT_EQ(Offered(true, true), (Names{"g3", "g4"}));
    EXPECT_EQ(Offered(true, false), (Names{"g2", "g3", "g4"}));
}

TEST_F(Siblings, LinkCountsOnlyCountLinksThatPass) {
    Build({}, {}, 3);
    sketch.Link("g1", "g2", 2, [](LinkDescription& l) { l.exclusively_locked = true; });
    Install();
    Offered(false, false);
    EXPECT_EQ(CountTo("g2"), 5);
    Offered(true, false);
    EXPECT_EQ(CountTo("g2"), 3);
}

TEST_F(Siblings, SwitchesThatServeNoJobsAreNotOffered) {
    Build({}, {});
    sketch.DfpSwitch("g5", 1, 5, [](SwitchDescription& sw) { sw.mode = 1; });
    sketch.Link("g1", "g5");
    sketch.Sw("g2").valid = false;
    sketch.Sw("g3").excluded = true;
    Install();
    EXPECT_EQ(Offered(false, false), (Names{"g4"}));
    EXPECT_EQ(CountTo("g2"), 0);
    EXPECT_EQ(CountTo("g5"), 0);
}

TEST_F(Siblings, SameIslandNeighboursAreNotSiblings) {
    Build({}, {});
    sketch.DfpSwitch("g1-leaf", 0, 1).Link("g1", "g1-leaf");
    Install();
    EXPECT_EQ(Offered(false, false), (Names{"g2", "g3", "g4"}));
}

TEST(PathLocks, AvailabilityByDemand) {
    AggPath path;
    path.lock_limit = 2;
    EXPECT_TRUE(IsAggPathLockAvailable(path, false, false));
    EXPECT_TRUE(IsAggPathLockAvailable(path, true, false));
    EXPECT_TRUE(IsAggPathLockAvailable(path, true, true));
    path.lock_count = 2;
    EXPECT_TRUE(IsAggPathLockAvailable(path, false, false));
    EXPECT_FALSE(IsAggPathLockAvailable(path, true, false));
    EXPECT_FALSE(IsAggPathLockAvailable(path, true, true));
    path.lock_count = 0;
    path.exclusive_lock_count = 2;
    EXPECT_TRUE(IsAggPathLockAvailable(path, true, false));
    EXPECT_FALSE(IsAggPathLockAvailable(path, true, true));
    path.exclusive_lock_count = 0;
    path.exclusively_locked = 1;
    EXPECT_TRUE(IsAggPathLockAvailable(path, false, false));
    EXPECT_FALSE(IsAggPathLockAvailable(path, true, false));
    EXPECT_FALSE(IsAggPathLockAvailable(path, true, true));
}

// ---- quota ---------------------------------------------------------------------------

zelta_quota QuotaOf(uint32_t units, uint32_t buffers, uint32_t groups, uint32_t queue_pairs) {
    zelta_quota quota;
    quota.units = units;
    quota.buffers = buffers;
    quota.groups = groups;
    quota.queue_pairs = queue_pairs;
    return quota;
}

class Quota : public ::testing::Test {
protected:
    Quota() {
        sw.resources.units = 4;
        sw.resources.buffers = 40;
        sw.resources.groups = 6;
        sw.resources.queue_pairs = 8;
    }
    bool Has(const zelta_quota& quota, uint8_t mode = 0) {
        AggNodeInfo info;
        return sw.HasQuota(quota, mode, info);
    }
    AggNodeFabricInfo sw;
};

TEST_F(Quota, QuotaEqualToWhatIsFreeFits) {
    EXPECT_TRUE(Has(QuotaOf(4, 40, 6, 8)));
}

TEST_F(Quota, EachResourceCanRefuse) {
    EXPECT_FALSE(Has(QuotaOf(5, 40, 6, 8)));
    EXPECT_FALSE(Has(QuotaOf(4, 41, 6, 8)));
    EXPECT_FALSE(Has(QuotaOf(4, 40, 7, 8)));
    EXPECT_FALSE(Has(QuotaOf(4, 40, 6, 9)));
}

TEST_F(Quota, PayloadIsIgnored) {
    zelta_quota quota = QuotaOf(1, 1, 1, 1);
    quota.payload = UINT32_MAX;
    EXPECT_TRUE(Has(quota));
}

TEST_F(Quota, QuotaModeOneSkipsTheComparison) {
    EXPECT_TRUE(Has(QuotaOf(UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX), kQuotaModeSkipCheck));
    EXPECT_FALSE(Has(QuotaOf(UINT32_MAX, 0, 0, 0), 2));
}

TEST_F(Quota, InfoReportsWhatIsFreeEvenWhenRefused) {
    AggNodeInfo info;
    EXPECT_FALSE(sw.HasQuota(QuotaOf(100, 0, 0, 0), 0, info));
    EXPECT_EQ(info.free_units, 4u);
    EXPECT_EQ(info.free_buffers, 40u);
    EXPECT_EQ(info.free_groups, 6u);
    EXPECT_EQ(info.free_queue_pairs, 8u);
    EXPECT_EQ(info.resource_to_free.at(AGG_NODE_RESOURCE_UNITS), 4u);
    EXPECT_EQ(info.resource_to_free.at(AGG_NODE_RESOURCE_BUFFERS), 40u);
    EXPECT_EQ(info.resource_to_free.at(AGG_NODE_RESOURCE_GROUPS), 6u);
    EXPECT_EQ(info.resource_to_free.at(AGG_NODE_RESOURCE_QUEUE_PAIRS), 8u);
}

TEST(SwitchService, ServesJobsOnlyWhenValidNotExcludedAndNotInModeOne) {
    AggNodeFabricInfo sw;
    EXPECT_TRUE(sw.ServesJobs());
    sw.mode = 2;
    EXPECT_TRUE(sw.ServesJobs());
    sw.mode = 1;
    EXPECT_FALSE(sw.ServesJobs());
    sw.mode = 0;
    sw.is_excluded = true;
    EXPECT_FALSE(sw.ServesJobs());
    sw.is_excluded = false;
    sw.valid = false;
    EXPECT_FALSE(sw.ServesJobs());
}

// ---- tree ids ------------------------------------------------------------------------

TEST(FabricTreeIds, UsedTreeIdsClearTheirFreeBits) {
    FabricSketch sketch;
    sketch.MaxTreeId(127).Switch("sw", 0, [](SwitchDescription& sw) {
        sw.used_tree_ids = {0, 5, 127};
    });
    Fabric fabric(sketch.Description());
    const AMBitArray& free_ids = SwitchOf(fabric, "sw")->free_tree_ids;
    EXPECT_EQ(free_ids.GetBitCount(), 128u);
    EXPECT_FALSE(free_ids.IsBitSet(0));
    EXPECT_FALSE(free_ids.IsBitSet(5));
    EXPECT_FALSE(free_ids.IsBitSet(127));
    EXPECT_TRUE(free_ids.IsBitSet(1));
    EXPECT_TRUE(free_ids.IsBitSet(126));
    EXPECT_EQ(SwitchOf(fabric, "sw")->CountFreeTreeIds(), 125u);
    EXPECT_TRUE(SwitchOf(fabric, "sw")->HasFreeTreeId());
}

TEST(FabricTreeIds, SwitchWithEveryIdUsedHasNoneFreeDespitePadding) {
    FabricSketch sketch;
    sketch.MaxTreeId(64).Switch("sw", 0, [](SwitchDescription& sw) {
        for (uint16_t id = 0; id <= 64; ++id) {
            sw.used_tree_ids.push_back(id);
        }
    });
    Fabric fabric(sketch.Description());
    const AggNodeFabricInfo* sw = SwitchOf(fabric, "sw");
    EXPECT_EQ(sw->CountFreeTreeIds(), 0u);
    EXPECT_FALSE(sw->HasFreeTreeId());
}

TEST(FabricTreeIds, JobTreeIdsAreKeptByTheJobsText) {
    FabricSketch sketch;
    sketch.Switch("sw", 0).JobTreeIds("abc_42", {3, 1}).JobTreeIds("default_7", {9});
    Fabric fabric(sketch.Description());
    std::set<uint16_t> ids;
    EXPECT_EQ(fabric.GetJobTreeIds(ZeltaExtJobId{42, 0, "abc"}, ids), 0);
    EXPECT_EQ(ids, (std::set<uint16_t>{1, 3}));
    ids.clear();
    fabric.GetJobTreeIds(ZeltaExtJobId{7, 0, ""}, ids);
    EXPECT_EQ(ids, (std::set<uint16_t>{9}));
    ids.clear();
    fabric.GetJobTreeIds(ZeltaExtJobId{43, 0, "abc"}, ids);
    EXPECT_TRUE(ids.empty());
}

TEST(FabricTreeIds, RecordingAJobsIdsReplacesWhatWasThere) {
    FabricSketch sketch;
    sketch.Switch("sw", 0).JobTreeIds("abc_42", {3});
    Fabric fabric(sketch.Description());
    fabric.SetJobTreeIds("abc_42", {4, 5});
    std::set<uint16_t> ids;
    fabric.GetJobTreeIds(ZeltaExtJobId{42, 0, "abc"}, ids);
    EXPECT_EQ(ids, (std::set<uint16_t>{4, 5}));
}

TEST(FabricTreeIds, SatTreeIdsAreKnown) {
    FabricSketch sketch;
    sketch.Switch("sw", 0);
    sketch.Description().sat_tree_ids = {2, 60};
    Fabric fabric(sketch.Description());
    EXPECT_TRUE(fabric.IsSatTreeId(2));
    EXPECT_TRUE(fabric.IsSatTreeId(60));
    EXPECT_FALSE(fabric.IsSatTreeId(0));
    EXPECT_FALSE(fabric.IsSatTreeId(3));
    EXPECT_EQ(fabric.max_tree_id, 127);
}

// ---- lookups -------------------------------------------------------------------------

TEST(FabricLookup, SwitchByNameOrGuidText) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0);
    Fabric fabric(sketch.Description());
    const AggNodeFabricInfo* second = &fabric.Switches()[1];
    EXPECT_EQ(fabric.FindSwitch("leaf-2"), second);
    EXPECT_EQ(fabric.FindSwitch("0x1002"), second);
    EXPECT_EQ(fabric.FindSwitch("0x1001"), &fabric.Switches()[0]);
    EXPECT_EQ(fabric.FindSwitch("1002"), nullptr);  // a GUID text starts with 0x
    EXPECT_EQ(fabric.FindSwitch("0x1003"), nullptr);
    EXPECT_EQ(fabric.FindSwitch("0x"), nullptr);
    EXPECT_EQ(fabric.FindSwitch("0xzz"), nullptr);
    EXPECT_EQ(fabric.FindSwitch("leaf-3"), nullptr);
    EXPECT_EQ(fabric.FindSwitch(""), nullptr);
}

TEST(FabricLookup, HostByNameOrGuidText) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0).Hosts("leaf", {"node001", "node002"});
    Fabric fabric(sketch.Description());
    const HostRecord* host = fabric.FindHost("node002");
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(host->guid, 0x2002u);
    EXPECT_EQ(host->attached_switch, fabric.FindSwitch("leaf"));
    EXPECT_EQ(fabric.FindHost("0x2002"), host);
    EXPECT_EQ(fabric.FindHost("0x2001")->name, "node001");
    EXPECT_EQ(fabric.FindHost("0x2003"), nullptr);
    EXPECT_EQ(fabric.FindHost("node003"), nullptr);
    EXPECT_EQ(fabric.FindHost("leaf"), nullptr);
}

TEST(FabricLookup, GuidTextsRoundTrip) {
    EXPECT_EQ(GuidToString(0), "0x0");
    EXPECT_EQ(GuidToString(0x1a2b3c), "0x1a2b3c");
    uint64_t guid = 0;
    EXPECT_TRUE(ParseGuid("0x1a2b3c", guid));
    EXPECT_EQ(guid, 0x1a2b3cu);
    EXPECT_TRUE(ParseGuid("ffffffffffffffff", guid));
    EXPECT_EQ(guid, UINT64_MAX);
    EXPECT_FALSE(ParseGuid("0x1ffffffffffffffff", guid));  // seventeen digits
    EXPECT_FALSE(ParseGuid("0x12g", guid));
    EXPECT_FALSE(ParseGuid("", guid));
}

// ---- refused descriptions ------------------------------------------------------------

TEST(FabricDescriptionCheck, SwitchWithoutRankIsRefused) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0);
    sketch.Sw("leaf").rank.reset();
    EXPECT_THROW(Fabric{sketch.Description()}, std::invalid_argument);
}

TEST(FabricDescriptionCheck, DuplicateSwitchNameIsRefused) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0).Switch("leaf", 1);
    EXPECT_THROW(Fabric{sketch.Description()}, std::invalid_argument);
}

TEST(FabricDescriptionCheck, DuplicateSwitchGuidIsRefused) {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0);
    sketch.Sw("leaf-2").guid = sketch.Sw("leaf-1").guid;
    EXPECT_THROW(Fabric{sketch.Description()}, std::invalid_argument);
}

TEST(FabricDescriptionCheck, LinkToAnUnknownSwitchIsRefused) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0);
    sketch.Description().links.push_back(LinkDescription{0, 5});
    EXPECT_THROW(Fabric{sketch.Description()}, std::invalid_argument);
}

TEST(FabricDescriptionCheck, SelfLinkIsRefused) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0).Link("leaf", "leaf");
    EXPECT_THROW(Fabric{sketch.Description()}, std::invalid_argument);
}

TEST(FabricDescriptionCheck, DuplicateHostPortIsRefused) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0).Host("node001", "leaf", 1);
    sketch.Description().hosts.push_back(HostDescription{0x2001, "again", 1, 0});
    EXPECT_THROW(Fabric{sketch.Description()}, std::invalid_argument);
}

TEST(FabricDescriptionCheck, HostOnAnUnknownSwitchIsRefused) {
    FabricSketch sketch;
    sketch.Switch("leaf", 0);
    sketch.Description().hosts.push_back(HostDescription{0x2001, "node001", 0, 3});
    EXPECT_THROW(Fabric{sketch.Description()}, std::invalid_argument);
}

TEST(FabricDescriptionCheck, UsedTreeIdAboveTheMaximumIsRefused) {
    FabricSketch sketch;
    sketch.MaxTreeId(15).Switch("leaf", 0, [](SwitchDescription& sw) { sw.used_tree_ids = {16}; });
    EXPECT_THROW(Fabric{sketch.Description()}, std::invalid_argument);
    sketch.Sw("leaf").used_tree_ids = {15};
    EXPECT_NO_THROW(Fabric{sketch.Description()});
}

// ---- switches in memory --------------------------------------------------------------

TEST(FabricLayout, SwitchesLieInLoadOrder) {
    FabricSketch sketch;
    sketch.Switch("c", 0).Switch("a", 0).Switch("b", 0).Switch("spine", 1);
    // Links named in an order of their own.
    sketch.Link("spine", "b").Link("spine", "c").Link("spine", "a");
    Fabric fabric(sketch.Description());
    const std::vector<AggNodeFabricInfo>& switches = fabric.Switches();
    for (size_t i = 0; i < switches.size(); ++i) {
        EXPECT_EQ(switches[i].index, i);
        EXPECT_EQ(switches[i].name, sketch.Description().switches[i].name);
        EXPECT_EQ(fabric.FindSwitch(switches[i].name), &switches[i]);
        if (i > 0) {
            EXPECT_LT(&switches[i - 1], &switches[i]);
        }
    }
    // Paths are visited in address order, which is the load order.
    std::vector<std::string> visited;
    for (const auto& [remote, paths] :
         fabric.FindSwitch("spine")->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN)) {
        visited.push_back(remote->name);
    }
    EXPECT_EQ(visited, (std::vector<std::string>{"c", "a", "b"}));
}

TEST(FabricLayout, SwitchCarriesItsDescription) {
    FabricSketch sketch;
    sketch.Switch("sw", 3, [](SwitchDescription& sw) {
        sw.node_attr = 7;
        sw.tree_children_limit = 5;
        sw.active_trees = 9;
        sw.plane = 2;
        sw.plane_known = true;
        sw.plane_enabled = true;
        sw.defer_root = true;
    });
    Fabric fabric(sketch.Description());
    const AggNodeFabricInfo* sw = SwitchOf(fabric, "sw");
    EXPECT_EQ(sw->port_info, &sw->own_port_info);
    EXPECT_EQ(sw->port_info->guid, 0x1001u);
    EXPECT_EQ(sw->port_info->GetName(), "sw GUID:0x1001 PLN:2");
    EXPECT_TRUE(sw->port_info->defer_root);
    EXPECT_EQ(sw->node_attr, 7);
    EXPECT_EQ(sw->tree_children_limit, 5);
    EXPECT_EQ(sw->active_trees, 9u);
    EXPECT_EQ(sw->rank, 3);
    EXPECT_EQ(AggNodeHash{}(sw), 0x1001u);
}

// ---- tree nodes and edges ------------------------------------------------------------

TEST(TreeNodeLifecycle, AddTreeNodeReportsAReplacedNode) {
    AggNodeFabricInfo sw;
    TreeNode first(kDefaultTreeId, &sw, 0);
    TreeNode second(kDefaultTreeId, &sw, 0);
    EXPECT_EQ(sw.AddTreeNode(kDefaultTreeId, &first), 0);
    EXPECT_EQ(sw.AddTreeNode(kDefaultTreeId, &first), 0);  // the same node again
    EXPECT_EQ(sw.GetTreeNode(kDefaultTreeId), &first);
    EXPECT_EQ(sw.AddTreeNode(kDefaultTreeId, &second), 1);
    EXPECT_EQ(sw.GetTreeNode(kDefaultTreeId), &second);
    EXPECT_EQ(sw.GetTreeNode(3), nullptr);
}

TEST(TreeNodeLifecycle, DestroyingANodeRemovesItsEntry) {
    AggNodeFabricInfo sw;
    auto node = std::make_unique<TreeNode>(kDefaultTreeId, &sw, 1);
    sw.AddTreeNode(kDefaultTreeId, node.get());
    TreeNode other_id(5, &sw, 1);
    sw.AddTreeNode(5, &other_id);
    node.reset();
    EXPECT_EQ(sw.tree_nodes_by_id.count(kDefaultTreeId), 0u);
    EXPECT_EQ(sw.GetTreeNode(5), &other_id);
}

TEST(TreeNodeLifecycle, DestroyingAReplacedNodeKeepsItsSuccessor) {
    AggNodeFabricInfo sw;
    auto old_node = std::make_unique<TreeNode>(kDefaultTreeId, &sw, 0);
    sw.AddTreeNode(kDefaultTreeId, old_node.get());
    TreeNode new_node(kDefaultTreeId, &sw, 0);
    sw.AddTreeNode(kDefaultTreeId, &new_node);
    old_node.reset();
    EXPECT_EQ(sw.GetTreeNode(kDefaultTreeId), &new_node);
}

TEST(TreeNodeLifecycle, NodeKnowsItsSwitchTreeIdAndPlane) {
    FabricSketch sketch;
    sketch.Switch("sw1", 0);
    Fabric fabric(sketch.Description());
    AggNodeFabricInfo* sw = fabric.FindSwitch("sw1");
    TreeNode node(12, sw, 3);
    EXPECT_EQ(node.agg_node, sw);
    EXPECT_EQ(node.tree_id, 12);
    EXPECT_EQ(node.plane, 3);
    EXPECT_EQ(node.num_children, 0);
    EXPECT_EQ(node.linked_child_count, 0);
    EXPECT_EQ(node.GetParent(), nullptr);
    EXPECT_EQ(node.ToString(), "sw1 GUID:0x1001 tree_id:12");
}

TEST(TreeNodeLifecycle, ChildEdgesAreMadeOnFirstUseAndStayInPlace) {
    AggNodeFabricInfo sw;
    TreeNode node(kDefaultTreeId, &sw, 0);
    TreeEdge& first = node.ChildEdge(0);
    TreeEdge& fifth = node.ChildEdge(4);
    EXPECT_EQ(node.child_edges.size(), 5u);
    for (uint16_t i = 5; i < 200; ++i) {
        node.ChildEdge(i);
    }
    EXPECT_EQ(&node.ChildEdge(0), &first);
    EXPECT_EQ(&node.ChildEdge(4), &fifth);
}

TEST(TreeEdgeEnds, SetTreeNodeSetsBothEnds) {
    AggNodeFabricInfo sw;
    TreeNode parent(kDefaultTreeId, &sw, 0);
    TreeNode child(kDefaultTreeId, &sw, 0);
    EXPECT_EQ(child.parent_edge.SetTreeNode(&child, &parent), 0);
    EXPECT_EQ(child.parent_edge.own_end, &child);
    EXPECT_EQ(child.parent_edge.far_end, &parent);
    EXPECT_EQ(child.GetParent(), &parent);
}

TEST(TreeEdgeEnds, MissingOrIdenticalEndsAreRefusedAndChangeNothing) {
    AggNodeFabricInfo sw;
    TreeNode a(kDefaultTreeId, &sw, 0);
    TreeNode b(kDefaultTreeId, &sw, 0);
    TreeEdge edge;
    EXPECT_NE(edge.SetTreeNode(nullptr, &b), 0);
    EXPECT_NE(edge.SetTreeNode(&a, nullptr), 0);
    EXPECT_NE(edge.SetTreeNode(&a, &a), 0);
    EXPECT_EQ(edge.own_end, nullptr);
    EXPECT_EQ(edge.far_end, nullptr);
    ASSERT_EQ(edge.SetTreeNode(&a, &b), 0);
    EXPECT_NE(edge.SetTreeNode(&b, &b), 0);
    EXPECT_EQ(edge.own_end, &a);
    EXPECT_EQ(edge.far_end, &b);
}

}  // namespace
