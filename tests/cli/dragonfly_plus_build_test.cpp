// aggtree build on the example Dragonfly+ fabric: a tree across three groups, checked
// node by node, and the detailed trace that only a Dragonfly+ build produces.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::ordered_json;

// Worked out by hand.  examples/dragonfly-plus.json has groups 1, 2 and 3, each with
// leaves gN-leaf-1, gN-leaf-2 (defer_root) under gN-spine-1 and gN-spine-2; only the
// spine-1 switches carry global links, in a line: g1-spine-1 - g2-spine-1 - g3-spine-1
// (the spine-2 switches have none and are defer_root).  The job's hosts are node001
// (g1-leaf-1), node003 (g2-leaf-1) and node006 (g3-leaf-2), one leaf in each group.
// - Every leaf covers its group's job leaves but defers, so the sweep climbs to the
//   spines; the spine-2 switches defer too, so each group's only root is its spine-1.
// - Those roots are joined by the line of global links without crossing another group;
//   the centre of the line is g2-spine-1, the root.
// - Each group's root is linked down to its leaf first (child index 0), then the two
//   other roots hang below g2-spine-1 (child indices 1 and 2, in the builder's order).
// - All tree ids are free: tree 0.  6 switches, 3 of them leaves, no active trees, one
//   cable on every hop, 128 free tree ids, load-balance priority 3.
const std::map<std::string, std::string> kExpectedNodes = {
    {"g2-spine-1", R"({"switch": "g2-spine-1", "guid": "0x1007", "parent": null,
                       "num_children": 3, "host_ports": []})"},
    {"g2-leaf-1", R"({"switch": "g2-leaf-1", "guid": "0x1005", "parent": "g2-spine-1",
                      "child_index": 0, "num_children": 0, "children": [],
                      "host_ports": ["0x2003"]})"},
    {"g1-spine-1", R"({"switch": "g1-spine-1", "guid": "0x1003", "parent": "g2-spine-1",
                       "num_children": 1, "children": ["g1-leaf-1"], "host_ports": []})"},
    {"g1-leaf-1", R"({"switch": "g1-leaf-1", "guid": "0x1001", "parent": "g1-spine-1",
                      "child_index": 0, "num_children": 0, "children": [],
                      "host_ports": ["0x2001"]})"},
    {"g3-spine-1", R"({"switch": "g3-spine-1", "guid": "0x100b", "parent": "g2-spine-1",
                       "num_children": 1, "children": ["g3-leaf-2"], "host_ports": []})"},
    {"g3-leaf-2", R"({"switch": "g3-leaf-2", "guid": "0x100a", "parent": "g3-spine-1",
                      "child_index": 0, "num_children": 0, "children": [],
                      "host_ports": ["0x2006"]})"},
};

class DragonflyPlusBuildTest : public CliTest {
protected:
    RunResult Build(const std::vector<std::string>& extra) {
        std::vector<std::string> args = {"build", "--fabric", Example("dragonfly-plus.json"),
                                         "--job", Example("dragonfly-plus-job.json")};
        args.insert(args.end(), extra.begin(), extra.end());
        return RunAggtree(args);
    }
};

TEST_F(DragonflyPlusBuildTest, JsonResultMatchesTheHandWorkedTreeNodeByNode) {
    RunResult run = Build({"--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    Json result = Json::parse(run.out);
    std::vector<std::string> keys;
    for (const auto& item : result.items()) {
        keys.push_back(item.key());
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"status", "job_id", "tree_id", "second_tree_id",
                                              "plane", "root", "root_guid", "root_node_attr",
                                              "error_text", "tree_nodes", "score"}));
    EXPECT_EQ(result["status"], 0);
    EXPECT_EQ(result["job_id"], "demo_42");
    EXPECT_EQ(result["tree_id"], 0);
    EXPECT_EQ(result["second_tree_id"], 65535);
    EXPECT_EQ(result["plane"], 0);
    EXPECT_EQ(result["root"], "g2-spine-1");
    EXPECT_EQ(result["root_guid"], "0x1007");
    EXPECT_EQ(result["root_node_attr"], 0);
    EXPECT_EQ(result["error_text"], "");
    EXPECT_EQ(result["score"].dump(),
              Json::parse(R"({"max_active_trees": 0, "total_active_trees": 0, "node_count": 6,
                              "leaf_count": 3, "min_free_tree_ids": 128, "priority": 3,
                              "min_parallel_links": 1})")
                  .dump());

    std::set<std::string> seen;
    std::map<std::string, Json> by_switch;
    for (const Json& node : result["tree_nodes"]) {
        std::vector<std::string> node_keys;
        for (const auto& item : node.items()) {
            node_keys.push_back(item.key());
        }
        EXPECT_EQ(node_keys, (std::vector<std::string>{"switch", "guid", "parent", "child_index",
                                                       "num_children", "children", "host_ports"}));
        std::string name = node["switch"];
        EXPECT_TRUE(seen.insert(name).second) << name << " listed twice";
        by_switch[name] = node;
        auto expected = kExpectedNodes.find(name);
        ASSERT_NE(expected, kExpectedNodes.end()) << "unexpected tree node " << name;
        Json expected_node = Json::parse(expected->second);
        for (const auto& item : expected_node.items()) {
            EXPECT_EQ(node[item.key()], item.value()) << name << " key " << item.key();
        }
    }
    EXPECT_EQ(seen.size(), kExpectedNodes.size());

    // The root: its own leaf first, then the two other groups' roots, each listing the
    // root as parent at the child index where the root lists it.
    const Json& root = by_switch["g2-spine-1"];
    ASSERT_EQ(root["children"].size(), 3u);
    EXPECT_EQ(root["children"][0], "g2-leaf-1");
    std::set<std::string> other_roots = {root["children"][1].get<std::string>(),
                                         root["children"][2].get<std::string>()};
    EXPECT_EQ(other_roots, (std::set<std::string>{"g1-spine-1", "g3-spine-1"}));
    for (size_t i = 1; i < 3; ++i) {
        EXPECT_EQ(by_switch[root["children"][i].get<std::string>()]["child_index"], i);
    }
}

TEST_F(DragonflyPlusBuildTest, TextResultShowsEachSwitchWithItsGroup) {
    RunResult run = Build({});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    std::vector<std::string> lines = Lines(run.out);
    ASSERT_GE(lines.size(), 9u) << run.out;
    EXPECT_EQ(lines[0], "Tree 0 for job demo_42 on plane 0, root g2-spine-1");
    EXPECT_EQ(lines[2], "g2-spine-1 [group 2]  (3 children)");
    EXPECT_EQ(lines[3], "├── g2-leaf-1 [group 2]  hosts: node003");
    // The two other groups hang below the root, each with its leaf.
    std::string rest = run.out.substr(run.out.find(lines[3]) + lines[3].size());
    EXPECT_NE(rest.find("── g1-spine-1 [group 1]  (1 child)\n"), std::string::npos) << run.out;
    EXPECT_NE(rest.find("── g1-leaf-1 [group 1]  hosts: node001\n"), std::string::npos) << run.out;
    EXPECT_NE(rest.find("── g3-spine-1 [group 3]  (1 child)\n"), std::string::npos) << run.out;
    EXPECT_NE(rest.find("── g3-leaf-2 [group 3]  hosts: node006\n"), std::string::npos) << run.out;
}

TEST_F(DragonflyPlusBuildTest, DotFileClustersEachGroup) {
    RunResult run = Build({"--dot", Path("tree.dot")});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    std::string dot = ReadFile(Path("tree.dot"));
    for (int group = 1; group <= 3; ++group) {
        std::string cluster = "  subgraph \"cluster_group_" + std::to_string(group) +
                              "\" {\n    label=\"group " + std::to_string(group) + "\";\n";
        EXPECT_NE(dot.find(cluster), std::string::npos) << dot;
    }
    EXPECT_NE(dot.find("    \"sw 0x1007\" [label=\"g2-spine-1\", penwidth=2];\n"),
              std::string::npos)
        << dot;
    EXPECT_NE(dot.find("  \"sw 0x1007\" -> \"sw 0x1003\";\n"), std::string::npos) << dot;
    EXPECT_NE(dot.find("  \"sw 0x1007\" -> \"sw 0x100b\";\n"), std::string::npos) << dot;
}

TEST_F(DragonflyPlusBuildTest, GroupsThatCannotBeJoinedFailWithTheBuildersText) {
    // Without the global link between groups 2 and 3, group 3 cannot be reached.
    std::string fabric = ReadFile(Example("dragonfly-plus.json"));
    const std::string link = ",\n    { \"a\": \"g2-spine-1\", \"b\": \"g3-spine-1\" }";
    size_t at = fabric.find(link);
    ASSERT_NE(at, std::string::npos);
    fabric.erase(at, link.size());
    RunResult run = RunAggtree({"build", "--fabric", WriteFile("cut.json", fabric), "--job",
                                Example("dragonfly-plus-job.json"), "--json"});
    EXPECT_EQ(run.exit_code, 1) << run.err;
    Json result = Json::parse(run.out);
    EXPECT_EQ(result["status"], 1);
    EXPECT_EQ(result["job_id"], "demo_42");
    EXPECT_NE(result["error_text"].get<std::string>(), "");
    RunResult text = RunAggtree(
        {"build", "--fabric", Path("cut.json"), "--job", Example("dragonfly-plus-job.json")});
    EXPECT_EQ(text.exit_code, 1);
    EXPECT_NE(text.out.find(result["error_text"].get<std::string>()), std::string::npos)
        << text.out;
}

std::vector<Json> LevelRecords(const std::string& log, int level) {
    std::vector<Json> records;
    for (const std::string& line : Lines(log)) {
        Json record = Json::parse(line);
        if (record["level"] == level) {
            records.push_back(record);
        }
    }
    return records;
}

TEST_F(DragonflyPlusBuildTest, DetailedTraceAppearsOnlyAtLevelFive) {
    RunResult detailed = Build({"--json", "--log-level", "TREES=5", "--log-format", "jsonl"});
    ASSERT_EQ(detailed.exit_code, 0) << detailed.err;
    std::vector<Json> level5 = LevelRecords(detailed.err, 5);
    ASSERT_FALSE(level5.empty()) << detailed.err;
    bool found_centre = false;
    for (const Json& record : level5) {
        EXPECT_EQ(record["module"], "TREES  ");
        found_centre = found_centre || record["message"] == "FindCenter - Start\n";
    }
    EXPECT_TRUE(found_centre);

    for (const std::vector<std::string>& levels :
         {std::vector<std::string>{"--log-level", "TREES=4"},
          std::vector<std::string>{"--log-level", "all=4"},
          std::vector<std::string>{"--log-level", "TREES=4", "--log-level", "all=5"}}) {
        std::vector<std::string> args = {"--json", "--log-format", "jsonl"};
        args.insert(args.end(), levels.begin(), levels.end());
        RunResult run = Build(args);
        ASSERT_EQ(run.exit_code, 0) << run.err;
        EXPECT_TRUE(LevelRecords(run.err, 5).empty()) << run.err;
        EXPECT_FALSE(LevelRecords(run.err, 4).empty());
    }
}

}  // namespace
}  // namespace aggtree_cli_test
