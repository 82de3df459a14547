// aggtree build on a generated Dragonfly+ fabric where the path search finds no path
// but a tree exists through one transit spine: the fallback search serves the job, and
// --no-dfp-fallback or the fabric option dfp_fallback_search: false keep the path
// search alone.
#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::ordered_json;

class DragonflyPlusFallbackTest : public CliTest {
protected:
    // 27 groups of 8 leaves and 8 spines, 4 hosts per leaf, 4 global links per spine,
    // palm-tree wiring.
    std::string GenerateFabric() {
        const std::string path = Path("dfp27.json");
        RunResult run =
            RunAggtree({"generate", "dragonfly-plus", "--groups", "27", "--leaves-per-group", "8",
                        "--spines-per-group", "8", "--hosts-per-leaf", "4",
                        "--global-links-per-spine", "4", "--wiring", "palmtree", "-o", path});
        EXPECT_EQ(run.exit_code, 0) << run.err;
        return path;
    }

    // The 8-host job of seed 6 on the fabric, with `extra` arguments.
    RunResult BuildSeed6(const std::string& fabric, std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"build", "--fabric", fabric, "--random-hosts",
                                         "8",     "--seed",   "6",    "--json"};
        args.insert(args.end(), extra.begin(), extra.end());
        return RunAggtree(args);
    }
};

bool HasSwitch(const Json& result, const std::string& name) {
    for (const Json& node : result["tree_nodes"]) {
        if (node["switch"] == name) {
            return true;
        }
    }
    return false;
}

TEST_F(DragonflyPlusFallbackTest, JobThePathSearchMissesIsServedThroughOneTransitSpine) {
    const std::string fabric = GenerateFabric();

    RunResult run = BuildSeed6(fabric, {"--log-level", "TREES=4"});

    EXPECT_EQ(run.exit_code, 0) << run.err;
    Json result = Json::parse(run.out);
    EXPECT_EQ(result["status"], 0);
    EXPECT_TRUE(HasSwitch(result, "g25-spine-3"));
    EXPECT_NE(run.err.find("DfpFindPathThruIslands No path found"), std::string::npos);
    EXPECT_NE(run.err.find("DfpFallbackSearch found the tree's switches: 1 transit switches"),
              std::string::npos);
}

TEST_F(DragonflyPlusFallbackTest, NoDfpFallbackKeepsThePathSearchAlone) {
    const std::string fabric = GenerateFabric();

    RunResult run = BuildSeed6(fabric, {"--no-dfp-fallback"});

    EXPECT_EQ(run.exit_code, 1) << run.err;
    Json result = Json::parse(run.out);
    EXPECT_EQ(result["error_text"], "Failed to link all required Dragonfly+ groups\n");
}

TEST_F(DragonflyPlusFallbackTest, FabricOptionTurnsTheFallbackOff) {
    Json fabric = Json::parse(ReadFile(GenerateFabric()));
    fabric["options"]["dfp_fallback_search"] = false;
    const std::string path = WriteFile("off.json", fabric.dump());

    RunResult run = BuildSeed6(path);
    RunResult info = RunAggtree({"info", path});

    EXPECT_EQ(run.exit_code, 1) << run.err;
    EXPECT_EQ(info.exit_code, 0) << info.err;
    EXPECT_NE(info.out.find("max_childless_islands 1, Dragonfly+ fallback search off"),
              std::string::npos)
        << info.out;
}

TEST_F(DragonflyPlusFallbackTest, FabricOptionTurnedOnExplicitlyKeepsTheFallback) {
    Json fabric = Json::parse(ReadFile(GenerateFabric()));
    fabric["options"]["dfp_fallback_search"] = true;
    const std::string path = WriteFile("on.json", fabric.dump());

    EXPECT_EQ(BuildSeed6(path).exit_code, 0);
}

TEST_F(DragonflyPlusFallbackTest, OptionThatIsNotABooleanIsBadInput) {
    Json fabric = Json::parse(ReadFile(GenerateFabric()));
    fabric["options"]["dfp_fallback_search"] = 0;
    const std::string path = WriteFile("bad.json", fabric.dump());

    RunResult run = BuildSeed6(path);

    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err, "aggtree: " + path +
                           ": /options/dfp_fallback_search: expected true or false, got 0\n");
}

}  // namespace
}  // namespace aggtree_cli_test
