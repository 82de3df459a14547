// aggtree info: the summary of a fabric in text and JSON, with warnings of rank
// inference and the switches that serve no job.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::json;

class InfoCommandTest : public CliTest {};

TEST_F(InfoCommandTest, TextSummaryOfTheFatTreeExample) {
    RunResult run = RunAggtree({"info", Example("fat-tree.json")});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, "Fabric " + Example("fat-tree.json") +
                           "\n"
                           "  6 switches in 1 island\n"
                           "  8 hosts on 4 switches, plane 0\n"
                           "  8 switch pairs linked by 16 cables; 8 pairs with parallel cables "
                           "(up to 2)\n"
                           "  tree ids 0..127; max_tree_children 64, max_childless_islands 1\n"
                           "\n"
                           "Switches by island and rank:\n"
                           "  island        rank 0  rank 1   total\n"
                           "  (no group)         4       2       6\n"
                           "\n"
                           "Switches that serve no job: none\n"
                           "Warnings: none\n");
}

TEST_F(InfoCommandTest, JsonSummaryOfTheDragonflyPlusExampleCountsIslands) {
    RunResult run = RunAggtree({"info", Example("dragonfly-plus.json"), "--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    Json info = Json::parse(run.out);
    EXPECT_EQ(info["switches"], 12);
    EXPECT_EQ(info["hosts"], 6);
    EXPECT_EQ(info["host_switches"], 6);
    EXPECT_EQ(info["links"], 14);
    EXPECT_EQ(info["cables"], 14);
    EXPECT_EQ(info["cables_between_islands"], 2);
    EXPECT_EQ(info["links_with_parallel_cables"], 0);
    EXPECT_EQ(info["switches_by_rank"], Json::parse(R"({"0": 6, "1": 6})"));
    ASSERT_EQ(info["islands"].size(), 3u);
    for (int group = 1; group <= 3; ++group) {
        const Json& island = info["islands"][group - 1];
        EXPECT_EQ(island["island"], group);
        EXPECT_EQ(island["switches"], 4);
        EXPECT_EQ(island["switches_by_rank"], Json::parse(R"({"0": 2, "1": 2})"));
    }
    EXPECT_TRUE(info["switches_serving_no_job"].empty());
    EXPECT_TRUE(info["warnings"].empty());
}

TEST_F(InfoCommandTest, ShowsUnavailableSwitchesPlanesAndRankWarnings) {
    // Ranks are inferred: two linked switches with hosts both get rank 0 (a warning).
    std::string fabric = WriteFile("fabric.json", R"({"aggtree_fabric": 1,
        "switches": [{"guid": "0x1", "name": "leaf-1"}, {"guid": "0x2", "name": "leaf-2"},
                     {"guid": "0x3", "name": "spine-1", "excluded": true},
                     {"guid": "0x4", "name": "spine-2", "valid": false, "mode": 1}],
        "links": [{"a": "leaf-1", "b": "leaf-2"}, {"a": "leaf-1", "b": "spine-1"},
                  {"a": "leaf-2", "b": "spine-1", "count": 3}, {"a": "leaf-2", "b": "spine-2"}],
        "hosts": [{"guid": "0x11", "name": "n1", "switch": "leaf-1"},
                  {"guid": "0x12", "name": "n2", "switch": "leaf-2", "plane": 1}]})");
    RunResult json_run = RunAggtree({"info", fabric, "--json"});
    ASSERT_EQ(json_run.exit_code, 0) << json_run.err;
    Json info = Json::parse(json_run.out);
    EXPECT_EQ(info["host_planes"], Json::parse("[0, 1]"));
    EXPECT_EQ(info["cables"], 6);
    EXPECT_EQ(info["max_parallel_cables"], 3);
    EXPECT_EQ(info["equal_rank_cables"], 1);
    EXPECT_EQ(info["switches_serving_no_job"],
              Json::parse(R"([{"switch": "spine-1", "reasons": ["excluded"]},
                              {"switch": "spine-2", "reasons": ["invalid", "mode 1"]}])"));
    ASSERT_EQ(info["warnings"].size(), 1u);
    std::string warning = info["warnings"][0];
    EXPECT_NE(warning.find("leaf-1"), std::string::npos) << warning;
    EXPECT_NE(warning.find("leaf-2"), std::string::npos) << warning;
    EXPECT_NE(warning.find("roots"), std::string::npos) << warning;

    RunResult text_run = RunAggtree({"info", fabric});
    ASSERT_EQ(text_run.exit_code, 0) << text_run.err;
    EXPECT_NE(text_run.out.find("  2 hosts on 2 switches, planes 0, 1\n"), std::string::npos)
        << text_run.out;
    EXPECT_NE(text_run.out.find("Switches that serve no job:\n  spine-1 (excluded)\n  spine-2 "
                                "(invalid, mode 1)\n"),
              std::string::npos)
        << text_run.out;
    EXPECT_NE(text_run.out.find("Warnings:\n  " + warning + "\n"), std::string::npos)
        << text_run.out;
}

TEST_F(InfoCommandTest, AnIbnetdiscoverDumpWithAGroupMapShowsItsIslands) {
    RunResult plain = RunAggtree({"info", Example("two-level.ibnetdiscover"), "--json"});
    ASSERT_EQ(plain.exit_code, 0) << plain.err;
    EXPECT_EQ(Json::parse(plain.out)["islands"].size(), 1u);
    RunResult grouped = RunAggtree({"info", Example("two-level.ibnetdiscover"), "--groups",
                                    Example("two-level.groups"), "--json"});
    ASSERT_EQ(grouped.exit_code, 0) << grouped.err;
    Json info = Json::parse(grouped.out);
    ASSERT_EQ(info["islands"].size(), 2u);
    EXPECT_EQ(info["islands"][0]["island"], 1);
    EXPECT_EQ(info["islands"][1]["island"], 2);
}

TEST_F(InfoCommandTest, ABadFabricExitsTwoWithOneLine) {
    std::string fabric = WriteFile("fabric.json", R"({"aggtree_fabric": 1, "switches": [)");
    RunResult run = RunAggtree({"info", fabric});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("aggtree: " + fabric + ": line 1, column ", 0), 0u) << run.err;
    EXPECT_EQ(Lines(run.err).size(), 1u) << run.err;
}

TEST_F(InfoCommandTest, WithoutAFabricIsAUsageError) {
    RunResult run = RunAggtree({"info"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(Lines(run.err).size(), 1u) << run.err;
}

}  // namespace
}  // namespace aggtree_cli_test
