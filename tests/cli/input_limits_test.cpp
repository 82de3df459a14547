// The largest inputs the tool accepts: a file written wrong (thousands of levels, one
// spine for every leaf, thousands of Dragonfly+ groups, huge names or files) is refused
// within seconds with exit 2 and a message naming the limit it passes, while inputs at
// the limits load and build.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using ::testing::HasSubstr;
using Json = nlohmann::json;

constexpr unsigned kSecondsPerRun = 30;

std::string Hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// A chain s0 - s1 - ... of `length` switches; hosts h0.. on the switches in `host_switches`.
Json Chain(size_t length, const std::vector<size_t>& host_switches, bool explicit_ranks) {
    Json fabric = {{"aggtree_fabric", 1},
                   {"switches", Json::array()},
                   {"links", Json::array()},
                   {"hosts", Json::array()}};
    for (size_t i = 0; i < length; ++i) {
        Json sw = {{"guid", Hex(0x1000 + i)}, {"name", "s" + std::to_string(i)}};
        if (explicit_ranks) {
            sw["rank"] = i;
        }
        fabric["switches"].push_back(sw);
        if (i > 0) {
            fabric["links"].push_back(
                {{"a", "s" + std::to_string(i - 1)}, {"b", "s" + std::to_string(i)}});
        }
    }
    for (size_t h = 0; h < host_switches.size(); ++h) {
        fabric["hosts"].push_back({{"guid", Hex(0x100000 + h)},
                                   {"name", "h" + std::to_string(h)},
                                   {"switch", "s" + std::to_string(host_switches[h])}});
    }
    return fabric;
}

// One spine above `leaves` leaves with a host each; children limits out of the way.
Json Fan(size_t leaves) {
    Json fabric = {{"aggtree_fabric", 1},
                   {"options", {{"max_tree_children", 65535}}},
                   {"switches", Json::array()},
                   {"links", Json::array()},
                   {"hosts", Json::array()}};
    fabric["switches"].push_back(
        {{"guid", Hex(0x1000)}, {"name", "spine"}, {"tree_children_limit", 65535}});
    for (size_t i = 0; i < leaves; ++i) {
        const std::string leaf = "l" + std::to_string(i);
        fabric["switches"].push_back({{"guid", Hex(0x2000 + i)}, {"name", leaf}});
        fabric["links"].push_back({{"a", "spine"}, {"b", leaf}});
        fabric["hosts"].push_back(
            {{"guid", Hex(0x100000 + i)}, {"name", "h" + std::to_string(i)}, {"switch", leaf}});
    }
    return fabric;
}

// `groups` Dragonfly+ groups of one switch each, chained, each with one host.
Json GroupChain(size_t groups) {
    Json fabric = {{"aggtree_fabric", 1},
                   {"switches", Json::array()},
                   {"links", Json::array()},
                   {"hosts", Json::array()}};
    for (size_t i = 0; i < groups; ++i) {
        const std::string name = "s" + std::to_string(i);
        fabric["switches"].push_back({{"guid", Hex(0x1000 + i)},
                                      {"name", name},
                                      {"rank", 0},
                                      {"topology_kind", 3},
                                      {"dfp_group_id", i + 1}});
        if (i > 0) {
            fabric["links"].push_back({{"a", "s" + std::to_string(i - 1)}, {"b", name}});
        }
        fabric["hosts"].push_back(
            {{"guid", Hex(0x100000 + i)}, {"name", "h" + std::to_string(i)}, {"switch", name}});
    }
    return fabric;
}

class InputLimitsTest : public CliTest {
protected:
    std::string Write(const std::string& name, const Json& json) {
        return WriteFile(name, json.dump());
    }

    // Exit 2 with one line naming the file and containing `fragment`.
    static void ExpectRefused(const RunResult& run, const std::string& file,
                              const std::string& fragment) {
        EXPECT_EQ(run.exit_code, 2) << run.err;
        EXPECT_EQ(run.err.rfind("aggtree: " + file + ": ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find(fragment), std::string::npos) << run.err;
        EXPECT_EQ(Lines(run.err).size(), 1u) << run.err;
    }
};

// A script that links every switch to the next: 20,000 levels of ranks, inferred or given.
TEST_F(InputLimitsTest, AChainOfTwentyThousandSwitchesIsRefusedNamingTheLevelLimit) {
    const std::string inferred = Write("chain.json", Chain(20000, {0, 19999}, false));
    const std::string ranked = Write("ranked.json", Chain(20000, {0}, true));
    ExpectRefused(RunAggtree({"info", inferred}, {}, {kSecondsPerRun, 0}), inferred,
                  "/switches/64: the switches stand on 10000 levels (distinct ranks) and switch "
                  "\"s64\" (rank 64) on level 65; aggtree accepts at most 64 levels");
    ExpectRefused(
        RunAggtree({"build", "--fabric", ranked, "--hosts", "h0"}, {}, {kSecondsPerRun, 0}), ranked,
        "aggtree accepts at most 64 levels");
}

TEST_F(InputLimitsTest, SixtyFourLevelsLoadAndBuild) {
    // Two chains of 63 levels, a0 .. a62 and b0 .. b62, meet in "top": the tree of the
    // hosts on a0 and b0 runs through every level.
    Json fabric = {{"aggtree_fabric", 1},
                   {"switches", {{{"guid", Hex(0x1000)}, {"name", "top"}, {"rank", 63}}}},
                   {"links", Json::array()},
                   {"hosts", Json::array()}};
    for (const std::string chain : {"a", "b"}) {
        for (int level = 0; level < 63; ++level) {
            const std::string name = chain + std::to_string(level);
            fabric["switches"].push_back({{"guid", Hex((chain == "a" ? 0x2000 : 0x3000) + level)},
                                          {"name", name},
                                          {"rank", level}});
            fabric["links"].push_back(
                {{"a", name}, {"b", level == 62 ? "top" : chain + std::to_string(level + 1)}});
        }
        fabric["hosts"].push_back({{"guid", Hex(chain == "a" ? 0x100000 : 0x200000)},
                                   {"name", "h" + chain},
                                   {"switch", chain + "0"}});
    }
    const std::string file = Write("chains.json", fabric);
    RunResult info = RunAggtree({"info", file, "--json"}, {}, {kSecondsPerRun, 0});
    ASSERT_EQ(info.exit_code, 0) << info.err;
    EXPECT_EQ(Json::parse(info.out)["switches_by_rank"].size(), 64u);
    RunResult build = RunAggtree({"build", "--fabric", file, "--hosts", "ha,hb", "--json"}, {},
                                 {kSecondsPerRun, 0});
    ASSERT_EQ(build.exit_code, 0) << build.err;
    Json result = Json::parse(build.out);
    EXPECT_EQ(result["root"], "top");
    EXPECT_EQ(result["tree_nodes"].size(), 127u);
}

TEST_F(InputLimitsTest, ASpineWithSeventyThousandChildrenIsRefusedNamingThePortLimit) {
    const std::string fabric = Write("fan.json", Fan(70000));
    ExpectRefused(
        RunAggtree({"build", "--fabric", fabric, "--hosts", "h0,h1"}, {}, {kSecondsPerRun, 0}),
        fabric,
        "/switches/0: switch \"spine\" has 70000 ports (cables to other switches and host "
        "ports); aggtree accepts at most 4096 per switch");
}

// A child index tells 256 children apart, so the job is refused, within seconds and
// saying why; 256 of the children still get their tree.
TEST_F(InputLimitsTest, ASpineWithFourThousandChildrenEndsWithinSecondsSayingWhy) {
    const std::string fabric = Write("fan.json", Fan(4096));
    Json job = {{"hosts", Json::array()}};
    for (size_t i = 0; i < 4096; ++i) {
        job["hosts"].push_back("h" + std::to_string(i));
    }
    const std::string job_file = Write("job.json", job);
    RunResult build = RunAggtree({"build", "--fabric", fabric, "--job", job_file, "--json"}, {},
                                 {kSecondsPerRun, 0});
    ASSERT_EQ(build.exit_code, 1) << build.err;
    EXPECT_THAT(build.err, HasSubstr("lowered to 256"));
    EXPECT_NE(Json::parse(build.out)["error_text"], "");

    Json few = {{"hosts", Json::array()}};
    for (size_t i = 0; i < 256; ++i) {
        few["hosts"].push_back("h" + std::to_string(i * 16));
    }
    RunResult served =
        RunAggtree({"build", "--fabric", fabric, "--job", Write("few.json", few), "--json"}, {},
                   {kSecondsPerRun, 0});
    ASSERT_EQ(served.exit_code, 0) << served.err;
    Json result = Json::parse(served.out);
    EXPECT_EQ(result["root"], "spine");
    EXPECT_EQ(result["tree_nodes"][0]["num_children"], 256);
}

TEST_F(InputLimitsTest, MoreDragonflyPlusGroupsThanTheLimitAreRefused) {
    const std::string fabric = Write("groups.json", GroupChain(2049));
    ExpectRefused(RunAggtree({"info", fabric}, {}, {kSecondsPerRun, 0}), fabric,
                  "/switches/2048: switch \"s2048\" opens Dragonfly+ group 2049, one more than "
                  "the 2048 groups aggtree accepts");
}

// Served or refused by the builder, but within seconds.
TEST_F(InputLimitsTest, AChainOfTheMostDragonflyPlusGroupsEndsWithinSeconds) {
    Json chain = GroupChain(2048);
    chain["options"] = {{"max_childless_islands", 255}};
    const std::string fabric = Write("groups.json", chain);
    RunResult build = RunAggtree({"build", "--fabric", fabric, "--hosts", "h0,h1,h1000,h2047"}, {},
                                 {kSecondsPerRun, 0});
    EXPECT_TRUE(build.exit_code == 0 || build.exit_code == 1) << build.err;
}

TEST_F(InputLimitsTest, ANameOfTwoThousandBytesIsRefused) {
    Json fabric = Chain(2, {0}, false);
    fabric["switches"][1]["name"] = std::string(2000, 'x');
    fabric["links"][0]["b"] = std::string(2000, 'x');
    const std::string file = Write("names.json", fabric);
    ExpectRefused(RunAggtree({"info", file}, {}, {kSecondsPerRun, 0}), file,
                  "/switches/1: the name of switch \"" + std::string(40, 'x') +
                      "...\" is 2000 bytes long; aggtree accepts names of at most 1024 bytes");
}

TEST_F(InputLimitsTest, AFileAboveTheSizeLimitIsRefusedUnread) {
    // Sparse: the size is there without the disk space.
    const std::string file = WriteFile("huge.json", "{");
    std::filesystem::resize_file(file, uint64_t{600} << 20);
    ExpectRefused(RunAggtree({"info", file}, {}, {kSecondsPerRun, 0}), file,
                  "the file is 629145600 bytes long; aggtree reads files of at most 536870912 "
                  "bytes (512 MiB)");
    ExpectRefused(RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job", file}, {},
                             {kSecondsPerRun, 0}),
                  file, "aggtree reads files of at most 536870912 bytes");
}

TEST_F(InputLimitsTest, GeneratorsRefuseWhatTheLoadersWouldRefuse) {
    RunResult fat_tree = RunAggtree(
        {"generate", "fat-tree", "--levels", "3", "--radix", "256", "-o", Path("f.json")}, {},
        {kSecondsPerRun, 0});
    EXPECT_EQ(fat_tree.exit_code, 2);
    EXPECT_EQ(fat_tree.err,
              "aggtree: generate fat-tree: the fabric would have 4194304 host ports; aggtree "
              "accepts at most 1048576\n");
    RunResult dragonfly = RunAggtree(
        {"generate", "dragonfly-plus", "--groups", "3000", "--leaves-per-group", "1",
         "--spines-per-group", "1", "--hosts-per-leaf", "1", "--global-links-per-spine", "2"},
        {}, {kSecondsPerRun, 0});
    EXPECT_EQ(dragonfly.exit_code, 2);
    EXPECT_EQ(dragonfly.err,
              "aggtree: generate dragonfly-plus: the fabric would have 3000 Dragonfly+ groups; "
              "aggtree accepts at most 2048\n");
    EXPECT_FALSE(std::filesystem::exists(Path("f.json")));
}

}  // namespace
}  // namespace aggtree_cli_test
