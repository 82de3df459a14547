// aggtree generate and aggtree convert: generated fabrics of several sizes and shapes
// come back unchanged through convert, have the sizes asked for, and bad sizes or
// outputs are refused with exit status 2.
#include <gtest/gtest.h>

#include <ostream>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::json;

struct Generated {
    const char* name;
    std::vector<std::string> args;  // after "generate"
    size_t switches;
    size_t hosts;
    size_t islands;
};

// Test names show the case's name, not the bytes of the case.
void PrintTo(const Generated& value, std::ostream* out) {
    *out << value.name;
}

class GeneratedFabricTest : public CliTest, public ::testing::WithParamInterface<Generated> {};

TEST_P(GeneratedFabricTest, ComesBackIdenticalThroughConvert) {
    std::vector<std::string> args = {"generate"};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    args.insert(args.end(), {"-o", Path("generated.json")});
    RunResult generated = RunAggtree(args);
    ASSERT_EQ(generated.exit_code, 0) << generated.err;
    EXPECT_EQ(generated.out, "");

    RunResult converted =
        RunAggtree({"convert", Path("generated.json"), "-o", Path("converted.json")});
    ASSERT_EQ(converted.exit_code, 0) << converted.err;
    EXPECT_EQ(converted.err, "");
    std::string original = ReadFile(Path("generated.json"));
    ASSERT_FALSE(original.empty());
    EXPECT_EQ(ReadFile(Path("converted.json")), original);
}

TEST_P(GeneratedFabricTest, WritesToStandardOutputWithoutOutputFile) {
    std::vector<std::string> args = {"generate"};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    RunResult to_stdout = RunAggtree(args);
    ASSERT_EQ(to_stdout.exit_code, 0) << to_stdout.err;
    args.insert(args.end(), {"-o", Path("generated.json")});
    ASSERT_EQ(RunAggtree(args).exit_code, 0);
    EXPECT_EQ(to_stdout.out, ReadFile(Path("generated.json")));
}

TEST_P(GeneratedFabricTest, HasTheSizeAskedFor) {
    std::vector<std::string> args = {"generate"};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    args.insert(args.end(), {"-o", Path("generated.json")});
    ASSERT_EQ(RunAggtree(args).exit_code, 0);
    RunResult info = RunAggtree({"info", Path("generated.json"), "--json"});
    ASSERT_EQ(info.exit_code, 0) << info.err;
    Json summary = Json::parse(info.out);
    EXPECT_EQ(summary["switches"], GetParam().switches);
    EXPECT_EQ(summary["hosts"], GetParam().hosts);
    EXPECT_EQ(summary["islands"].size(), GetParam().islands);
    EXPECT_EQ(summary["warnings"].size(), 0u);
}

// Sizes: a 2-level fat tree of radix R with P parallel links has R/P leaves and R/2/P
// spines; a 3-level one has R/P pods of R/2/P leaves and as many aggregation switches,
// and (R/2/P)^2 cores; every plane is a copy.  Dragonfly+: groups * (leaves + spines).
const Generated kGenerated[] = {
    {"FatTree2Radix4", {"fat-tree", "--levels", "2", "--radix", "4"}, 6, 8, 1},
    {"FatTree2Radix8ParallelLinks",
     {"fat-tree", "--levels", "2", "--radix", "8", "--parallel-links", "2", "--hosts-per-leaf",
      "3"},
     6,
     12,
     1},
    {"FatTree3Radix4", {"fat-tree", "--levels", "3", "--radix", "4"}, 20, 16, 1},
    {"FatTree3Radix8TwoPlanes",
     {"fat-tree", "--levels", "3", "--radix", "8", "--planes", "2"},
     160,
     256,
     1},
    {"DragonflyPlusConsecutive",
     {"dragonfly-plus", "--groups", "3", "--leaves-per-group", "2", "--spines-per-group", "2",
      "--hosts-per-leaf", "2", "--global-links-per-spine", "1", "--wiring", "consecutive"},
     12,
     12,
     3},
    {"DragonflyPlusPalmtree",
     {"dragonfly-plus", "--groups", "5", "--leaves-per-group", "3", "--spines-per-group", "2",
      "--hosts-per-leaf", "4", "--global-links-per-spine", "2", "--wiring", "palmtree"},
     25,
     60,
     5},
    {"DragonflyPlusRandom",
     {"dragonfly-plus", "--groups", "4", "--leaves-per-group", "2", "--spines-per-group", "3",
      "--hosts-per-leaf", "1", "--global-links-per-spine", "2", "--wiring", "random", "--seed",
      "99"},
     20,
     8,
     4},
    // 78 edge switches, 3 chassis of 27 leaf and 18 spine cards, 18 hosts per edge switch.
    {"DirectorDefaults", {"director"}, 78 + 3 * (27 + 18), 78 * 18, 1},
    {"DirectorSmall",
     {"director", "--chassis", "2", "--leaf-cards", "6", "--spine-cards", "4", "--edge-switches",
      "12", "--hosts-per-edge", "4", "--cables-per-chassis", "3", "--max-cards-per-chassis", "2",
      "--seed", "5"},
     12 + 2 * (6 + 4),
     48,
     1},
};

INSTANTIATE_TEST_SUITE_P(Sizes, GeneratedFabricTest, ::testing::ValuesIn(kGenerated),
                         [](const ::testing::TestParamInfo<Generated>& info) {
                             return std::string(info.param.name);
                         });

class GenerateConvertTest : public CliTest {};

TEST_F(GenerateConvertTest, RandomWiringDependsOnlyOnTheSeed) {
    std::vector<std::string> args = {"generate",
                                     "dragonfly-plus",
                                     "--groups",
                                     "6",
                                     "--leaves-per-group",
                                     "2",
                                     "--spines-per-group",
                                     "2",
                                     "--hosts-per-leaf",
                                     "1",
                                     "--global-links-per-spine",
                                     "3",
                                     "--wiring",
                                     "random",
                                     "--seed"};
    auto with_seed = [&](const std::string& seed) {
        std::vector<std::string> full = args;
        full.push_back(seed);
        RunResult run = RunAggtree(full);
        EXPECT_EQ(run.exit_code, 0) << run.err;
        return run.out;
    };
    EXPECT_EQ(with_seed("5"), with_seed("5"));
    EXPECT_NE(with_seed("5"), with_seed("6"));
}

TEST_F(GenerateConvertTest, DirectorCablingDependsOnlyOnTheSeed) {
    auto with_seed = [&](const std::string& seed) {
        RunResult run =
            RunAggtree({"generate", "director", "--edge-switches", "10", "--seed", seed});
        EXPECT_EQ(run.exit_code, 0) << run.err;
        return run.out;
    };
    EXPECT_EQ(with_seed("5"), with_seed("5"));
    EXPECT_NE(with_seed("5"), with_seed("6"));
}

TEST_F(GenerateConvertTest, ImportedIbnetdiscoverDumpConvertsToAStableFabricFile) {
    RunResult first = RunAggtree({"convert", Example("two-level.ibnetdiscover"), "--groups",
                                  Example("two-level.groups"), "-o", Path("imported.json")});
    ASSERT_EQ(first.exit_code, 0) << first.err;
    Json fabric = Json::parse(ReadFile(Path("imported.json")));
    EXPECT_EQ(fabric["aggtree_fabric"], 1);
    EXPECT_EQ(fabric["switches"].size(), 6u);
    EXPECT_EQ(fabric["hosts"].size(), 8u);
    RunResult again = RunAggtree({"convert", Path("imported.json")});
    ASSERT_EQ(again.exit_code, 0) << again.err;
    EXPECT_EQ(again.out, ReadFile(Path("imported.json")));
}

TEST_F(GenerateConvertTest, AnUnreadableInputExitsTwo) {
    RunResult run = RunAggtree({"convert", Path("missing.ibnetdiscover")});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("aggtree: " + Path("missing.ibnetdiscover") + ": ", 0), 0u) << run.err;
}

TEST_F(GenerateConvertTest, ABrokenDumpExitsTwoNamingTheLine) {
    std::string dump = WriteFile("broken.ibnetdiscover",
                                 "vendid=0x2c9\ndevid=0xd2f0\nswitchguid=0x1(1)\n"
                                 "Switch\t40 \"S-0000000000000001\"\t\t# \"spine\" enhanced port 0 "
                                 "lid 1 lmc 0\n[1]\tthis is not a port line\n");
    RunResult run = RunAggtree({"convert", dump});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("aggtree: " + dump + ": line 5", 0), 0u) << run.err;
    EXPECT_EQ(Lines(run.err).size(), 1u) << run.err;
}

struct BadGenerate {
    const char* name;
    std::vector<std::string> args;
    std::string err_start;
};

// Test names show the case's name, not the bytes of the case.
void PrintTo(const BadGenerate& value, std::ostream* out) {
    *out << value.name;
}

class BadGenerateTest : public CliTest, public ::testing::WithParamInterface<BadGenerate> {};

TEST_P(BadGenerateTest, ExitsTwoWithOneLine) {
    RunResult run = RunAggtree(GetParam().args);
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind(GetParam().err_start, 0), 0u) << run.err;
    EXPECT_EQ(Lines(run.err).size(), 1u) << run.err;
}

const BadGenerate kBadGenerates[] = {
    {"FourLevels",
     {"generate", "fat-tree", "--levels", "4", "--radix", "8"},
     "aggtree: generate fat-tree: a fat tree has 2 or 3 levels, not 4"},
    {"OddRadix",
     {"generate", "fat-tree", "--levels", "2", "--radix", "7"},
     "aggtree: generate fat-tree: "},
    {"RadixNotANumber", {"generate", "fat-tree", "--levels", "2", "--radix", "eight"}, "aggtree: "},
    {"MissingRadix", {"generate", "fat-tree", "--levels", "2"}, "aggtree: --radix is required"},
    {"NoShape", {"generate"}, "aggtree: "},
    {"UnknownWiring",
     {"generate", "dragonfly-plus", "--groups", "2", "--leaves-per-group", "1",
      "--spines-per-group", "1", "--hosts-per-leaf", "1", "--global-links-per-spine", "1",
      "--wiring", "spiral"},
     "aggtree: --wiring: spiral not in {consecutive,palmtree,random}"},
    {"NoGroups",
     {"generate", "dragonfly-plus", "--groups", "0", "--leaves-per-group", "1",
      "--spines-per-group", "1", "--hosts-per-leaf", "1", "--global-links-per-spine", "1"},
     "aggtree: generate dragonfly-plus: "},
    {"DirectorCardsBeyondTheCables",
     {"generate", "director", "--cables-per-chassis", "2"},
     "aggtree: generate director: 2 cables per edge switch into each chassis cannot spread over 3 "
     "leaf cards"},
    {"DirectorWithoutChassis",
     {"generate", "director", "--chassis", "0"},
     "aggtree: generate director: the number of chassis must be at least 1, not 0"},
    {"OutputIntoAMissingDirectory",
     {"generate", "fat-tree", "--levels", "2", "--radix", "4", "-o", "/nonexistent/dir/f.json"},
     "aggtree: /nonexistent/dir/f.json: cannot write the file: No such file or directory"},
};

INSTANTIATE_TEST_SUITE_P(BadInputs, BadGenerateTest, ::testing::ValuesIn(kBadGenerates),
                         [](const ::testing::TestParamInfo<BadGenerate>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace aggtree_cli_test
