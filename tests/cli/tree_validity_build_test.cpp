// aggtree build on fabrics whose trees used to break: a Dragonfly+ middle switch that
// relays between groups, a Dragonfly+ spine that lies above none of the job's leaves,
// and a fat tree whose spine would need more than 256 children.  Each tree the tool
// prints is a proper tree, and each refusal says why.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::ordered_json;

// Group 1: g1-leaf - g1-mid - g1-spine (ranks 0, 1, 2); groups 2 and 3 a leaf under a
// spine; global links g1-spine-g2-spine, g2-spine-g1-mid, g1-mid-g3-spine.
const char* const kMiddleSwitchRelay = R"({ "aggtree_fabric": 1,
  "options": { "max_tree_children": 64, "max_childless_islands": 1 },
  "switches": [
    {"guid": "0x1001", "name": "g1-leaf", "rank": 0, "topology_kind": 3, "dfp_group_id": 1, "defer_root": true},
    {"guid": "0x1002", "name": "g1-mid", "rank": 1, "topology_kind": 3, "dfp_group_id": 1, "defer_root": true},
    {"guid": "0x1003", "name": "g1-spine", "rank": 2, "topology_kind": 3, "dfp_group_id": 1},
    {"guid": "0x1004", "name": "g2-leaf", "rank": 0, "topology_kind": 3, "dfp_group_id": 2, "defer_root": true},
    {"guid": "0x1005", "name": "g2-spine", "rank": 1, "topology_kind": 3, "dfp_group_id": 2},
    {"guid": "0x1006", "name": "g3-leaf", "rank": 0, "topology_kind": 3, "dfp_group_id": 3, "defer_root": true},
    {"guid": "0x1007", "name": "g3-spine", "rank": 1, "topology_kind": 3, "dfp_group_id": 3} ],
  "links": [
    {"a": "g1-leaf", "b": "g1-mid"}, {"a": "g1-mid", "b": "g1-spine"},
    {"a": "g2-leaf", "b": "g2-spine"}, {"a": "g3-leaf", "b": "g3-spine"},
    {"a": "g1-spine", "b": "g2-spine"}, {"a": "g2-spine", "b": "g1-mid"},
    {"a": "g1-mid", "b": "g3-spine"} ],
  "hosts": [
    {"guid": "0x2001", "name": "h1", "switch": "g1-leaf"},
    {"guid": "0x2002", "name": "h2", "switch": "g2-leaf"},
    {"guid": "0x2003", "name": "h3", "switch": "g3-leaf"} ] })";

// Group 1 has spines a (over the job's leaf) and b (over another leaf, and the only
// way to group 3); global links g1-spine-a-g2-spine, g2-spine-g1-spine-b,
// g1-spine-b-g3-spine.
const char* const kSpineAboveNoJobLeaf = R"({ "aggtree_fabric": 1,
  "switches": [
    {"guid": "0x1001", "name": "g1-leaf", "rank": 0, "topology_kind": 3, "dfp_group_id": 1, "defer_root": true},
    {"guid": "0x1002", "name": "g1-other-leaf", "rank": 0, "topology_kind": 3, "dfp_group_id": 1, "defer_root": true},
    {"guid": "0x1003", "name": "g1-spine-a", "rank": 1, "topology_kind": 3, "dfp_group_id": 1},
    {"guid": "0x1004", "name": "g1-spine-b", "rank": 1, "topology_kind": 3, "dfp_group_id": 1},
    {"guid": "0x1005", "name": "g2-leaf", "rank": 0, "topology_kind": 3, "dfp_group_id": 2, "defer_root": true},
    {"guid": "0x1006", "name": "g2-spine", "rank": 1, "topology_kind": 3, "dfp_group_id": 2},
    {"guid": "0x1007", "name": "g3-leaf", "rank": 0, "topology_kind": 3, "dfp_group_id": 3, "defer_root": true},
    {"guid": "0x1008", "name": "g3-spine", "rank": 1, "topology_kind": 3, "dfp_group_id": 3} ],
  "links": [
    {"a": "g1-leaf", "b": "g1-spine-a"}, {"a": "g1-other-leaf", "b": "g1-spine-b"},
    {"a": "g2-leaf", "b": "g2-spine"}, {"a": "g3-leaf", "b": "g3-spine"},
    {"a": "g1-spine-a", "b": "g2-spine"}, {"a": "g2-spine", "b": "g1-spine-b"},
    {"a": "g1-spine-b", "b": "g3-spine"} ],
  "hosts": [
    {"guid": "0x2001", "name": "h1", "switch": "g1-leaf"},
    {"guid": "0x2002", "name": "h2", "switch": "g2-leaf"},
    {"guid": "0x2003", "name": "h3", "switch": "g3-leaf"} ] })";

// Every switch of the result once, every switch but the root with a parent in the
// result that lists it among its children, and every job host on a switch of it.
void ExpectProperTree(const Json& result, const std::set<std::string>& hosts) {
    ASSERT_EQ(result["status"], 0);
    EXPECT_EQ(result["error_text"], "");
    std::map<std::string, Json> by_switch;
    for (const Json& node : result["tree_nodes"]) {
        EXPECT_TRUE(by_switch.emplace(node["switch"], node).second) << node["switch"];
    }
    std::set<std::string> carried;
    size_t roots = 0;
    for (const auto& [name, node] : by_switch) {
        for (const Json& port : node["host_ports"]) {
            carried.insert(port.get<std::string>());
        }
        if (node["parent"].is_null()) {
            ++roots;
            EXPECT_EQ(result["root"], name);
            continue;
        }
        const Json& parent = by_switch.at(node["parent"].get<std::string>());
        EXPECT_EQ(parent["children"][node["child_index"].get<size_t>()], name);
    }
    EXPECT_EQ(roots, 1u);
    EXPECT_EQ(carried, hosts);
}

class TreeValidityBuildTest : public CliTest {};

TEST_F(TreeValidityBuildTest, MiddleSwitchRelayingBetweenGroupsHasOneParent) {
    const std::string fabric = WriteFile("relay.json", kMiddleSwitchRelay);
    RunResult run = RunAggtree({"build", "--fabric", fabric, "--hosts", "h1,h2,h3", "--json"});

    EXPECT_EQ(run.exit_code, 0) << run.err;
    Json result = Json::parse(run.out);
    ExpectProperTree(result, {"0x2001", "0x2002", "0x2003"});
    EXPECT_EQ(result["root"], "g1-mid");
}

TEST_F(TreeValidityBuildTest, SpineAboveNoJobLeafRelaysInsteadOfFailingSilently) {
    const std::string fabric = WriteFile("spine.json", kSpineAboveNoJobLeaf);
    RunResult run = RunAggtree({"build", "--fabric", fabric, "--hosts", "h1,h2,h3", "--json"});

    EXPECT_EQ(run.exit_code, 0) << run.err;
    Json result = Json::parse(run.out);
    ExpectProperTree(result, {"0x2001", "0x2002", "0x2003"});
}

// A 2-level fat tree of radix 600 with two parallel links per pair: 300 leaves (one host
// each) under 150 spines, every children limit at 1000.
Json Radix600FatTree() {
    Json fabric = {{"aggtree_fabric", 1},
                   {"options", {{"max_tree_children", 1000}, {"max_childless_islands", 1}}}};
    Json switches = Json::array();
    Json links = Json::array();
    Json hosts = Json::array();
    for (int s = 1; s <= 150; ++s) {
        switches.push_back({{"guid", "0x" + std::to_string(50000 + s)},
                            {"name", "spine-" + std::to_string(s)},
                            {"rank", 1},
                            {"tree_children_limit", 1000}});
    }
    for (int l = 1; l <= 300; ++l) {
        const std::string leaf = "leaf-" + std::to_string(l);
        switches.push_back({{"guid", "0x" + std::to_string(10000 + l)},
                            {"name", leaf},
                            {"rank", 0},
                            {"tree_children_limit", 1000}});
        for (int s = 1; s <= 150; ++s) {
            links.push_back({{"a", leaf}, {"b", "spine-" + std::to_string(s)}, {"count", 2}});
        }
        hosts.push_back({{"guid", "0x" + std::to_string(200000 + l)},
                         {"name", "node" + std::to_string(l)},
                         {"switch", leaf}});
    }
    fabric["switches"] = switches;
    fabric["links"] = links;
    fabric["hosts"] = hosts;
    return fabric;
}

TEST_F(TreeValidityBuildTest, SpineThatWouldNeedMoreThan256ChildrenRefusesTheJobWithAReason) {
    const std::string fabric = WriteFile("radix-600.json", Radix600FatTree().dump());
    std::string hosts;
    for (int l = 1; l <= 300; ++l) {
        hosts += (l == 1 ? "" : ",") + std::string("node") + std::to_string(l);
    }
    RunResult run = RunAggtree({"build", "--fabric", fabric, "--hosts", hosts, "--json"});

    EXPECT_EQ(run.exit_code, 1) << run.err;
    Json result = Json::parse(run.out);
    EXPECT_EQ(result["error_text"],
              "Failed to build a tree based on the selected root 'spine-1'\n");
    EXPECT_TRUE(result["tree_nodes"].empty());
    size_t lowered = 0;
    for (const std::string& line : Lines(run.err)) {
        lowered += line.find("Children limit 1000 of spine-1 GUID:0x50001 lowered to 256") !=
                           std::string::npos
                       ? 1
                       : 0;
    }
    EXPECT_EQ(lowered, 1u) << run.err;
}

}  // namespace
}  // namespace aggtree_cli_test
