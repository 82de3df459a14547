// Reading and writing fabric files: defaults, every key, rank inference, the direction
// of links in the built model, round trips and loading from disk.
#include "topology/fabric_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "description_compare.h"
#include "fabric_model/fabric.h"

namespace aggtree {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const SwitchDescription& SwitchNamed(const FabricDescription& description,
                                     const std::string& name) {
    for (const SwitchDescription& sw : description.switches) {
        if (sw.name == name) {
            return sw;
        }
    }
    ADD_FAILURE() << "no switch " << name;
    static SwitchDescription none;
    return none;
}

int RankOf(const FabricDescription& description, const std::string& name) {
    const SwitchDescription& sw = SwitchNamed(description, name);
    EXPECT_TRUE(sw.rank.has_value()) << name;
    return sw.rank.value_or(-1);
}

// The source tree: from the test environment, else from this file's place in it.
std::string SourceDir() {
    if (const char* source = std::getenv("AGGTREE_SOURCE_DIR")) {
        return source;
    }
    return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path().string();
}

// A temporary file, removed at the end of the test.
class TempFile {
public:
    TempFile(const std::string& name, const std::string& content)
        : m_path(std::filesystem::temp_directory_path() /
                 ("aggtree_fabric_file_test_" + std::to_string(::getpid()) + "_" + name)) {
        std::ofstream(m_path) << content;
    }
    ~TempFile() { std::filesystem::remove(m_path); }
    std::string path() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

TEST(FabricFile, MinimalFileTakesEveryDefault) {
    const FabricDescription d = ParseFabricJson(R"({
        "aggtree_fabric": 1,
        "switches": [ { "guid": "0x1001", "name": "leaf-1" } ],
        "links": [],
        "hosts": [ { "guid": "0x2001", "switch": "leaf-1" } ] })",
                                                "min.json");
    EXPECT_EQ(d.max_tree_id, 127);
    EXPECT_THAT(d.sat_tree_ids, IsEmpty());
    EXPECT_EQ(d.options.max_tree_children, 64);
    EXPECT_EQ(d.options.max_childless_islands, 1);
    EXPECT_TRUE(d.options.dfp_fallback_search);
    EXPECT_THAT(d.job_tree_ids, IsEmpty());
    EXPECT_THAT(d.roots, IsEmpty());
    ASSERT_EQ(d.switches.size(), 1u);
    const SwitchDescription& sw = d.switches[0];
    EXPECT_EQ(sw.guid, 0x1001u);
    EXPECT_EQ(sw.name, "leaf-1");
    EXPECT_EQ(sw.rank, 0);  // inferred: it has a host
    EXPECT_EQ(sw.topology_kind, 1u);
    EXPECT_EQ(sw.dfp_group_id, 0);
    EXPECT_FALSE(sw.defer_root);
    EXPECT_EQ(sw.plane, 0);
    EXPECT_FALSE(sw.plane_known);
    EXPECT_FALSE(sw.plane_enabled);
    EXPECT_EQ(sw.node_attr, 0);
    EXPECT_EQ(sw.tree_children_limit, 64);
    EXPECT_TRUE(sw.valid);
    EXPECT_FALSE(sw.excluded);
    EXPECT_EQ(sw.mode, 0u);
    EXPECT_TRUE(sw.has_required_capability);
    EXPECT_TRUE(sw.lock_available);
    EXPECT_TRUE(sw.exclusive_lock_available);
    EXPECT_EQ(sw.resources.units, 64u);
    EXPECT_EQ(sw.resources.buffers, 1024u);
    EXPECT_EQ(sw.resources.groups, 64u);
    EXPECT_EQ(sw.resources.queue_pairs, 128u);
    EXPECT_THAT(sw.used_tree_ids, IsEmpty());
    EXPECT_EQ(sw.active_trees, 0u);
    ASSERT_EQ(d.hosts.size(), 1u);
    EXPECT_EQ(d.hosts[0].guid, 0x2001u);
    EXPECT_EQ(d.hosts[0].name, "0x2001");  // a host's name defaults to its GUID text
    EXPECT_EQ(d.hosts[0].plane, 0);
    EXPECT_EQ(d.hosts[0].switch_index, 0u);
}

TEST(FabricFile, LinkDefaults) {
    const FabricDescription d = ParseFabricJson(R"({
        "aggtree_fabric": 1,
        "switches": [ { "guid": "0x1001", "name": "leaf-1" },
                      { "guid": "0x1002", "name": "spine-1" } ],
        "links": [ { "a": "leaf-1", "b": "spine-1" } ],
        "hosts": [ { "guid": "0x2001", "switch": "leaf-1" } ] })",
                                                "links.json");
    ASSERT_EQ(d.links.size(), 1u);
    const LinkDescription& link = d.links[0];
    EXPECT_EQ(link.a, 0u);
    EXPECT_EQ(link.b, 1u);
    EXPECT_EQ(link.count, 1);
    EXPECT_EQ(link.plane, 0);
    EXPECT_TRUE(link.usable);
    EXPECT_EQ(link.lock_limit, 255);
    EXPECT_EQ(link.lock_count, 0);
    EXPECT_EQ(link.exclusive_lock_count, 0);
    EXPECT_FALSE(link.exclusively_locked);
}

const char* kEveryKey = R"({
  "aggtree_fabric": 1,
  "max_tree_id": 200,
  "sat_tree_ids": [3, 5],
  "options": { "max_tree_children": 12, "max_childless_islands": 3 },
  "roots": ["g7-spine"],
  "switches": [
    { "guid": "0x0002c90300a1b2c4", "name": "g7-leaf", "rank": 0,
      "topology_kind": 3, "dfp_group_id": 7, "defer_root": true,
      "plane": 2, "plane_known": true, "plane_enabled": true,
      "node_attr": 9, "tree_children_limit": 17,
      "valid": false, "excluded": true, "mode": 1, "has_required_capability": false,
      "lock_available": false, "exclusive_lock_available": false,
      "resources": { "units": 1, "buffers": 2, "groups": 3, "queue_pairs": 4 },
      "used_tree_ids": [0, 200],
      "active_trees": 6 },
    { "guid": "0xABCDEF", "name": "g7-spine", "topology_kind": 3, "dfp_group_id": 7 }
  ],
  "links": [
    { "a": "g7-leaf", "b": "0xabcdef", "count": 3, "plane": 2, "usable": false,
      "lock_limit": 10, "lock_count": 4, "exclusive_lock_count": 5,
      "exclusively_locked": true }
  ],
  "hosts": [
    { "guid": "0x2001", "name": "node001", "plane": 2, "switch": "0x2c90300a1b2c4" }
  ],
  "job_tree_ids": [ { "job": "abc_42", "tree_ids": [1, 2] }, { "job": "default_7", "tree_ids": [] } ]
})";

TEST(FabricFile, EveryKeyIsRead) {
    const FabricDescription d = ParseFabricJson(kEveryKey, "every.json");
    EXPECT_EQ(d.max_tree_id, 200);
    EXPECT_THAT(d.sat_tree_ids, ElementsAre(3, 5));
    EXPECT_EQ(d.options.max_tree_children, 12);
    EXPECT_EQ(d.options.max_childless_islands, 3);
    EXPECT_THAT(d.roots, ElementsAre(1u));
    ASSERT_EQ(d.switches.size(), 2u);
    const SwitchDescription& sw = d.switches[0];
    EXPECT_EQ(sw.guid, 0x0002c90300a1b2c4u);
    EXPECT_EQ(sw.name, "g7-leaf");
    EXPECT_EQ(sw.rank, 0);
    EXPECT_EQ(sw.topology_kind, 3u);
    EXPECT_EQ(sw.dfp_group_id, 7);
    EXPECT_TRUE(sw.defer_root);
    EXPECT_EQ(sw.plane, 2);
    EXPECT_TRUE(sw.plane_known);
    EXPECT_TRUE(sw.plane_enabled);
    EXPECT_EQ(sw.node_attr, 9);
    EXPECT_EQ(sw.tree_children_limit, 17);
    EXPECT_FALSE(sw.valid);
    EXPECT_TRUE(sw.excluded);
    EXPECT_EQ(sw.mode, 1u);
    EXPECT_FALSE(sw.has_required_capability);
    EXPECT_FALSE(sw.lock_available);
    EXPECT_FALSE(sw.exclusive_lock_available);
    EXPECT_EQ(sw.resources.units, 1u);
    EXPECT_EQ(sw.resources.buffers, 2u);
    EXPECT_EQ(sw.resources.groups, 3u);
    EXPECT_EQ(sw.resources.queue_pairs, 4u);
    EXPECT_THAT(sw.used_tree_ids, ElementsAre(0, 200));
    EXPECT_EQ(sw.active_trees, 6u);
    EXPECT_EQ(d.switches[1].guid, 0xabcdefu);
    // The root of its island, one hop above g7-leaf.
    EXPECT_EQ(d.switches[1].rank, 1);
    ASSERT_EQ(d.links.size(), 1u);
    const LinkDescription& link = d.links[0];
    EXPECT_EQ(link.a, 0u);
    EXPECT_EQ(link.b, 1u);  // named by its GUID
    EXPECT_EQ(link.count, 3);
    EXPECT_EQ(link.plane, 2);
    EXPECT_FALSE(link.usable);
    EXPECT_EQ(link.lock_limit, 10);
    EXPECT_EQ(link.lock_count, 4);
    EXPECT_EQ(link.exclusive_lock_count, 5);
    EXPECT_TRUE(link.exclusively_locked);
    ASSERT_EQ(d.hosts.size(), 1u);
    EXPECT_EQ(d.hosts[0].name, "node001");
    EXPECT_EQ(d.hosts[0].plane, 2);
    EXPECT_EQ(d.hosts[0].switch_index, 0u);  // switch by unpadded GUID text
    ASSERT_EQ(d.job_tree_ids.size(), 2u);
    EXPECT_EQ(d.job_tree_ids[0].job, "abc_42");
    EXPECT_THAT(d.job_tree_ids[0].tree_ids, ElementsAre(1, 2));
    EXPECT_EQ(d.job_tree_ids[1].job, "default_7");
    EXPECT_THAT(d.job_tree_ids[1].tree_ids, IsEmpty());
}

TEST(FabricFile, BuiltFabricAnswersFromTheFile) {
    const FabricDescription d = ParseFabricJson(kEveryKey, "every.json");
    Fabric fabric(d);
    EXPECT_EQ(fabric.max_tree_id, 200);
    EXPECT_TRUE(fabric.IsSatTreeId(5));
    EXPECT_FALSE(fabric.IsSatTreeId(4));
    const AggNodeFabricInfo* leaf = fabric.FindSwitch("g7-leaf");
    ASSERT_NE(leaf, nullptr);
    EXPECT_FALSE(leaf->free_tree_ids.IsBitSet(0));
    EXPECT_FALSE(leaf->free_tree_ids.IsBitSet(200));
    EXPECT_TRUE(leaf->free_tree_ids.IsBitSet(1));
    ZeltaExtJobId job;
    job.id_prefix = "abc";
    job.job_number = 42;
    std::set<uint16_t> held;
    fabric.GetJobTreeIds(job, held);
    EXPECT_THAT(held, ElementsAre(1, 2));
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x2001, 2}), leaf);
}

// leaf-1, leaf-2 (hosts) -- spine-1 -- core-1 -- top (no hosts), and a Dragonfly+ pair.
const char* kUnranked = R"({
  "aggtree_fabric": 1,
  "switches": [
    { "guid": "0x1", "name": "leaf-1" }, { "guid": "0x2", "name": "leaf-2" },
    { "guid": "0x3", "name": "spine-1" }, { "guid": "0x4", "name": "core-1" },
    { "guid": "0x5", "name": "top" }
  ],
  "links": [
    { "a": "leaf-1", "b": "spine-1" }, { "a": "leaf-2", "b": "spine-1" },
    { "a": "spine-1", "b": "core-1" }, { "a": "core-1", "b": "top" },
    { "a": "leaf-2", "b": "core-1" }
  ],
  "hosts": [ { "guid": "0x11", "switch": "leaf-1" }, { "guid": "0x12", "switch": "leaf-2" } ]
})";

TEST(FabricFile, RanksWithoutRootsRiseFromTheSwitchesWithHosts) {
    std::vector<std::string> warnings;
    const FabricDescription d = ParseFabricJson(kUnranked, "unranked.json", &warnings);
    EXPECT_EQ(RankOf(d, "leaf-1"), 0);
    EXPECT_EQ(RankOf(d, "leaf-2"), 0);
    EXPECT_EQ(RankOf(d, "spine-1"), 1);
    EXPECT_EQ(RankOf(d, "core-1"), 1);  // one above its lowest neighbour, leaf-2
    EXPECT_EQ(RankOf(d, "top"), 2);
    EXPECT_THAT(warnings, IsEmpty());
}

TEST(FabricFile, RanksFromRootsCountDownFromTheTop) {
    nlohmann::json file = nlohmann::json::parse(kUnranked);
    file["roots"] = {"top"};
    const FabricDescription d = ParseFabricJson(file.dump(), "rooted.json");
    // Distances from top: core-1 1, spine-1 2, leaf-2 2, leaf-1 3; largest 3.
    EXPECT_EQ(RankOf(d, "top"), 3);
    EXPECT_EQ(RankOf(d, "core-1"), 2);
    EXPECT_EQ(RankOf(d, "spine-1"), 1);
    EXPECT_EQ(RankOf(d, "leaf-2"), 1);
    EXPECT_EQ(RankOf(d, "leaf-1"), 0);
}

TEST(FabricFile, RootsMayBeGivenByGuidAndSeveral) {
    nlohmann::json file = nlohmann::json::parse(kUnranked);
    file["roots"] = {"0x4", "spine-1"};
    const FabricDescription d = ParseFabricJson(file.dump(), "rooted.json");
    EXPECT_THAT(d.roots, ElementsAre(3u, 2u));
    // Distances: core-1 0, spine-1 0, top 1, leaf-1 1, leaf-2 1; largest 1.
    EXPECT_EQ(RankOf(d, "core-1"), 1);
    EXPECT_EQ(RankOf(d, "spine-1"), 1);
    EXPECT_EQ(RankOf(d, "top"), 0);
    EXPECT_EQ(RankOf(d, "leaf-1"), 0);
}

TEST(FabricFile, ExplicitRankWinsAndSeedsItsNeighbours) {
    nlohmann::json file = nlohmann::json::parse(kUnranked);
    file["switches"][2]["rank"] = 5;  // spine-1
    const FabricDescription d = ParseFabricJson(file.dump(), "explicit.json");
    EXPECT_EQ(RankOf(d, "spine-1"), 5);
    EXPECT_EQ(RankOf(d, "core-1"), 1);
    EXPECT_EQ(RankOf(d, "top"), 2);

    file["roots"] = {"top"};
    file["switches"][0]["rank"] = 9;  // leaf-1
    const FabricDescription rooted = ParseFabricJson(file.dump(), "explicit.json");
    EXPECT_EQ(RankOf(rooted, "leaf-1"), 9);
    EXPECT_EQ(RankOf(rooted, "spine-1"), 5);
    EXPECT_EQ(RankOf(rooted, "leaf-2"), 1);
}

const char* kTwoGroups = R"({
  "aggtree_fabric": 1,
  "switches": [
    { "guid": "0x1", "name": "g1-leaf", "topology_kind": 3, "dfp_group_id": 1 },
    { "guid": "0x2", "name": "g1-spine", "topology_kind": 3, "dfp_group_id": 1 },
    { "guid": "0x3", "name": "g1-top", "topology_kind": 3, "dfp_group_id": 1 },
    { "guid": "0x4", "name": "g2-leaf", "topology_kind": 3, "dfp_group_id": 2 },
    { "guid": "0x5", "name": "g2-spine", "topology_kind": 3, "dfp_group_id": 2 }
  ],
  "links": [
    { "a": "g1-leaf", "b": "g1-spine" }, { "a": "g1-spine", "b": "g1-top" },
    { "a": "g2-leaf", "b": "g2-spine" }, { "a": "g1-top", "b": "g2-spine", "count": 2 },
    { "a": "g1-leaf", "b": "g2-leaf" }
  ],
  "hosts": [ { "guid": "0x11", "switch": "g1-leaf" }, { "guid": "0x12", "switch": "g2-leaf" } ]
})";

TEST(FabricFile, RanksAreInferredWithinEachIsland) {
    std::vector<std::string> warnings;
    const FabricDescription d = ParseFabricJson(kTwoGroups, "dfp.json", &warnings);
    EXPECT_EQ(RankOf(d, "g1-leaf"), 0);
    EXPECT_EQ(RankOf(d, "g1-spine"), 1);
    EXPECT_EQ(RankOf(d, "g1-top"), 2);  // not 2 via g2-spine: other islands do not count
    EXPECT_EQ(RankOf(d, "g2-leaf"), 0);
    EXPECT_EQ(RankOf(d, "g2-spine"), 1);
    // Host switches of different islands may be linked: no warning.
    EXPECT_THAT(warnings, IsEmpty());
}

TEST(FabricFile, RootsOfOneIslandLeaveTheOtherRankedFromItsHosts) {
    nlohmann::json file = nlohmann::json::parse(kTwoGroups);
    file["roots"] = {"g1-spine"};
    const FabricDescription d = ParseFabricJson(file.dump(), "dfp.json");
    // Island 1 from its root g1-spine: g1-leaf and g1-top at distance 1.
    EXPECT_EQ(RankOf(d, "g1-spine"), 1);
    EXPECT_EQ(RankOf(d, "g1-leaf"), 0);
    EXPECT_EQ(RankOf(d, "g1-top"), 0);
    EXPECT_EQ(RankOf(d, "g2-leaf"), 0);
    EXPECT_EQ(RankOf(d, "g2-spine"), 1);
}

TEST(FabricFile, LinkDirectionFollowsRanksWithinAnIsland) {
    const FabricDescription d = ParseFabricJson(kTwoGroups, "dfp.json");
    Fabric fabric(d);
    AggNodeFabricInfo* leaf = fabric.FindSwitch("g1-leaf");
    AggNodeFabricInfo* spine = fabric.FindSwitch("g1-spine");
    AggNodeFabricInfo* top = fabric.FindSwitch("g1-top");
    AggNodeFabricInfo* other_spine = fabric.FindSwitch("g2-spine");
    AggNodeFabricInfo* other_leaf = fabric.FindSwitch("g2-leaf");
    ASSERT_TRUE(leaf && spine && top && other_spine && other_leaf);
    const AggPathsMap& leaf_up = leaf->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP);
    ASSERT_EQ(leaf_up.size(), 1u);
    EXPECT_EQ(leaf_up.begin()->first, spine);
    EXPECT_TRUE(leaf->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN).empty());
    EXPECT_EQ(spine->GetAggPathsByDirection(AGG_PATH_DIRECTION_DOWN).count(leaf), 1u);
    EXPECT_EQ(spine->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).count(top), 1u);
    // Across islands: siblings, each parallel link its own path.
    EXPECT_TRUE(top->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).empty());
    EXPECT_EQ(top->sibling_links.size(), 2u);
    EXPECT_EQ(top->CountLinksTo(other_spine), 2);
    EXPECT_EQ(leaf->sibling_links.size(), 1u);
    EXPECT_EQ(other_leaf->sibling_links.size(), 1u);
}

const char* kLinkedLeaves = R"({
  "aggtree_fabric": 1,
  "switches": [ { "guid": "0x1", "name": "leaf-1" }, { "guid": "0x2", "name": "leaf-2" },
                { "guid": "0x3", "name": "spine-1" } ],
  "links": [ { "a": "leaf-1", "b": "spine-1" }, { "a": "leaf-2", "b": "spine-1" },
             { "a": "leaf-1", "b": "leaf-2" }, { "a": "leaf-2", "b": "leaf-1" } ],
  "hosts": [ { "guid": "0x11", "switch": "leaf-1" }, { "guid": "0x12", "switch": "leaf-2" },
             { "guid": "0x13", "name": "service", "switch": "spine-1" } ]
})";

TEST(FabricFile, LinkedSwitchesWithHostsAreReportedOnce) {
    std::vector<std::string> warnings;
    const FabricDescription d = ParseFabricJson(kLinkedLeaves, "linked.json", &warnings);
    // Every switch has hosts, so all rank 0 and no link carries a path.
    EXPECT_EQ(RankOf(d, "leaf-1"), 0);
    EXPECT_EQ(RankOf(d, "spine-1"), 0);
    const std::string tail =
        " both have hosts and are linked to each other, so both get rank 0 and their link "
        "carries no path; if one of them sits above the other (service hosts on a spine), give "
        "\"roots\" (--roots on import) naming the top switches";
    EXPECT_THAT(warnings, ElementsAre("switches \"leaf-1\" and \"spine-1\"" + tail,
                                      "switches \"leaf-2\" and \"spine-1\"" + tail,
                                      "switches \"leaf-1\" and \"leaf-2\"" + tail));
    Fabric fabric(d);
    EXPECT_EQ(fabric.FindSwitch("leaf-1")->equal_rank_links, 3u);
}

TEST(FabricFile, RootsResolveSpinesWithServiceHosts) {
    nlohmann::json file = nlohmann::json::parse(kLinkedLeaves);
    file["roots"] = {"spine-1"};
    std::vector<std::string> warnings;
    const FabricDescription d = ParseFabricJson(file.dump(), "linked.json", &warnings);
    EXPECT_EQ(RankOf(d, "spine-1"), 1);
    EXPECT_EQ(RankOf(d, "leaf-1"), 0);
    EXPECT_EQ(RankOf(d, "leaf-2"), 0);
    EXPECT_THAT(warnings, IsEmpty());
    Fabric fabric(d);
    EXPECT_EQ(fabric.FindSwitch("leaf-1")->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).size(),
              1u);
}

TEST(FabricFile, WarningsNeedNotBeCollected) {
    const FabricDescription d = ParseFabricJson(kLinkedLeaves, "linked.json");
    EXPECT_EQ(d.switches.size(), 3u);
}

TEST(FabricFile, InferRanksFillsOnlyMissingRanks) {
    FabricDescription d;
    for (const char* name : {"a", "b", "c"}) {
        SwitchDescription sw;
        sw.guid = d.switches.size() + 1;
        sw.name = name;
        d.switches.push_back(sw);
    }
    d.switches[2].rank = 7;
    d.links.push_back(LinkDescription{0, 1});
    d.links.push_back(LinkDescription{1, 2});
    d.hosts.push_back(HostDescription{0x10, "h", 0, 0});
    InferRanks(d, "memory");
    EXPECT_EQ(d.switches[0].rank, 0);
    EXPECT_EQ(d.switches[1].rank, 1);
    EXPECT_EQ(d.switches[2].rank, 7);
}

TEST(FabricFile, InferRanksNamesAnUnrankableSwitch) {
    FabricDescription d;
    SwitchDescription lone;
    lone.guid = 1;
    lone.name = "lonely";
    d.switches.push_back(lone);
    try {
        InferRanks(d, "memory");
        FAIL() << "expected an InputError";
    } catch (const InputError& error) {
        EXPECT_STREQ(error.what(),
                     "memory: switch \"lonely\" cannot be ranked: it has no hosts and no link "
                     "to a ranked switch of its island; give it a \"rank\" or name the top "
                     "switches in \"roots\"");
        EXPECT_EQ(error.file(), "memory");
        EXPECT_EQ(error.where(), "");
    }
}

TEST(FabricFile, WrittenFileReadsBackEqual) {
    const FabricDescription d = ParseFabricJson(kEveryKey, "every.json");
    const std::string text = WriteFabricJson(d);
    const FabricDescription again = ParseFabricJson(text, "written.json");
    EXPECT_EQ(DescriptionDifferences(d, again), "");
    EXPECT_EQ(WriteFabricJson(again), text);
    // Every key of the format is written, "roots" included.
    const nlohmann::json written = nlohmann::json::parse(text);
    EXPECT_EQ(written["roots"], nlohmann::json::array({"g7-spine"}));
    EXPECT_EQ(written["switches"][0].size(), 20u);
    EXPECT_EQ(written["links"][0].size(), 9u);
    EXPECT_EQ(written["hosts"][0].size(), 4u);
    EXPECT_EQ(written["switches"][1]["guid"], "0xabcdef");
}

TEST(FabricFile, FallbackSearchTurnedOffIsReadAndWrittenBack) {
    const FabricDescription d = ParseFabricJson(R"({
        "aggtree_fabric": 1, "options": { "dfp_fallback_search": false },
        "switches": [ { "guid": "0x1001", "name": "leaf-1" } ],
        "links": [],
        "hosts": [ { "guid": "0x2001", "switch": "leaf-1" } ] })",
                                                "off.json");
    EXPECT_FALSE(d.options.dfp_fallback_search);
    EXPECT_EQ(d.options.max_childless_islands, 1);
    const nlohmann::json written = nlohmann::json::parse(WriteFabricJson(d));
    EXPECT_EQ(written["options"]["dfp_fallback_search"], false);
    EXPECT_FALSE(ParseFabricJson(written.dump(), "written.json").options.dfp_fallback_search);
}

TEST(FabricFile, FallbackSearchLeftOnIsNotWritten) {
    const FabricDescription d = ParseFabricJson(kEveryKey, "every.json");
    const nlohmann::json written = nlohmann::json::parse(WriteFabricJson(d));
    EXPECT_FALSE(written["options"].contains("dfp_fallback_search"));
}

TEST(FabricFile, WritingLeavesOutRanksThatAreNotKnown) {
    FabricDescription d;
    SwitchDescription sw;
    sw.guid = 0x1001;
    sw.name = "leaf-1";
    d.switches.push_back(sw);
    d.hosts.push_back(HostDescription{0x2001, "node001", 0, 0});
    const nlohmann::json written = nlohmann::json::parse(WriteFabricJson(d));
    EXPECT_FALSE(written["switches"][0].contains("rank"));
    EXPECT_FALSE(written.contains("roots"));
    const FabricDescription again = ParseFabricJson(written.dump(), "written.json");
    EXPECT_EQ(again.switches[0].rank, 0);
}

TEST(FabricFile, InputErrorTextOmitsAnEmptyPlace) {
    EXPECT_STREQ(InputError("f.json", "/switches/0", "bad").what(), "f.json: /switches/0: bad");
    EXPECT_STREQ(InputError("f.json", "", "bad").what(), "f.json: bad");
    InputError error("f.json", "line 3", "oops");
    EXPECT_EQ(error.file(), "f.json");
    EXPECT_EQ(error.where(), "line 3");
    EXPECT_EQ(error.problem(), "oops");
}

TEST(FabricFile, LoadReadsAFabricFileFromDisk) {
    TempFile file("fabric.json", kUnranked);
    const FabricDescription d = LoadFabric(file.path());
    EXPECT_EQ(d.switches.size(), 5u);
    EXPECT_EQ(RankOf(d, "top"), 2);
}

TEST(FabricFile, LoadNamesAFileItCannotRead) {
    const std::string missing =
        (std::filesystem::temp_directory_path() / "aggtree_no_such_fabric.json").string();
    try {
        LoadFabric(missing);
        FAIL() << "expected an InputError";
    } catch (const InputError& error) {
        EXPECT_EQ(error.file(), missing);
        EXPECT_THAT(error.what(), HasSubstr("cannot read the file"));
    }
}

TEST(FabricFile, LoadRefusesADirectory) {
    const std::string dir = std::filesystem::temp_directory_path().string();
    try {
        LoadFabric(dir);
        FAIL() << "expected an InputError";
    } catch (const InputError& error) {
        EXPECT_EQ(std::string(error.what()), dir + ": cannot read the file: it is a directory");
    }
}

TEST(FabricFile, LoadRecognisesAnIbnetdiscoverDumpByContent) {
    const std::string dir = SourceDir();
    std::vector<std::string> warnings;
    const FabricDescription d =
        LoadFabric(dir + "/examples/two-level.ibnetdiscover", {}, &warnings);
    EXPECT_EQ(d.switches.size(), 6u);
    EXPECT_EQ(d.hosts.size(), 8u);
    EXPECT_THAT(warnings, IsEmpty());

    FabricLoadOptions options;
    options.groups_file = dir + "/examples/two-level.groups";
    const FabricDescription grouped =
        LoadFabric(dir + "/examples/two-level.ibnetdiscover", options);
    EXPECT_EQ(SwitchNamed(grouped, "leaf-4").dfp_group_id, 2);
}

TEST(FabricFile, LoadRefusesAGroupMapOrRootsFileForAFabricFile) {
    TempFile fabric("fabric.json", kUnranked);
    TempFile groups("groups.txt", "leaf-1 1\n");
    FabricLoadOptions options;
    options.groups_file = groups.path();
    try {
        LoadFabric(fabric.path(), options);
        FAIL() << "expected an InputError";
    } catch (const InputError& error) {
        EXPECT_EQ(error.file(), groups.path());
        EXPECT_THAT(error.problem(), HasSubstr("applies to ibnetdiscover dumps only"));
    }
    options = {};
    options.roots_file = groups.path();
    try {
        LoadFabric(fabric.path(), options);
        FAIL() << "expected an InputError";
    } catch (const InputError& error) {
        EXPECT_THAT(error.problem(), HasSubstr("list the top switches in its \"roots\""));
    }
}

}  // namespace
}  // namespace aggtree
