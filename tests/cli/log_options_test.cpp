// The build command's log options: levels per module, the JSON-lines record format,
// the text format and the log file.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::ordered_json;

class LogOptionsTest : public CliTest {
protected:
    RunResult Build(const std::vector<std::string>& extra) {
        std::vector<std::string> args = {
            "build", "--fabric", Example("fat-tree.json"), "--job", Example("fat-tree-job.json"),
            "--json"};
        args.insert(args.end(), extra.begin(), extra.end());
        return RunAggtree(args);
    }
};

// Every line of a JSON-lines log parsed, checking the record's keys and their types.
std::vector<Json> ParseJsonLines(const std::string& text) {
    std::vector<Json> records;
    EXPECT_TRUE(text.empty() || text.back() == '\n') << "the log does not end with a line end";
    for (const std::string& line : Lines(text)) {
        Json record = Json::parse(line, nullptr, false);
        EXPECT_FALSE(record.is_discarded()) << "not JSON: " << line;
        if (record.is_discarded()) {
            continue;
        }
        std::vector<std::string> keys;
        for (const auto& item : record.items()) {
            keys.push_back(item.key());
        }
        EXPECT_EQ(keys, (std::vector<std::string>{"level", "module", "file", "line", "function",
                                                  "message"}))
            << line;
        EXPECT_TRUE(record["level"].is_number_integer()) << line;
        EXPECT_TRUE(record["module"].is_string()) << line;
        EXPECT_EQ(record["module"].get<std::string>().size(), 7u) << line;
        EXPECT_TRUE(record["file"].is_string()) << line;
        EXPECT_TRUE(record["line"].is_number_integer()) << line;
        EXPECT_TRUE(record["function"].is_string()) << line;
        EXPECT_TRUE(record["message"].is_string()) << line;
        records.push_back(record);
    }
    return records;
}

size_t CountAtLevel(const std::vector<Json>& records, int level) {
    size_t count = 0;
    for (const Json& record : records) {
        count += record["level"] == level ? 1 : 0;
    }
    return count;
}

TEST_F(LogOptionsTest, DefaultLevelKeepsASuccessfulBuildQuiet) {
    RunResult run = Build({"--log-format", "jsonl"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
}

TEST_F(LogOptionsTest, JsonLinesRecordsCarryTheTreesModuleTagWithItsBlanks) {
    RunResult run = Build({"--log-level", "TREES=5", "--log-format", "jsonl"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    std::vector<Json> records = ParseJsonLines(run.err);
    ASSERT_FALSE(records.empty());
    for (const Json& record : records) {
        EXPECT_EQ(record["module"], "TREES  ") << record.dump();
        EXPECT_LE(record["level"].get<int>(), 5);
    }
    EXPECT_GT(CountAtLevel(records, 4), 0u);
    // The result on standard output is untouched by the log.
    EXPECT_EQ(Json::parse(run.out)["root"], "spine-2");
}

TEST_F(LogOptionsTest, JsonLinesMessagesKeepTheirTrailingLineEnds) {
    RunResult run = Build({"--log-level", "TREES=5", "--log-format", "jsonl"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    size_t with_line_end = 0;
    for (const Json& record : ParseJsonLines(run.err)) {
        std::string message = record["message"];
        with_line_end += !message.empty() && message.back() == '\n' ? 1 : 0;
    }
    EXPECT_GT(with_line_end, 0u);
}

TEST_F(LogOptionsTest, AllSetsEveryModuleAndAModuleLevelOverridesIt) {
    RunResult debug = Build({"--log-level", "all=4", "--log-format", "jsonl"});
    ASSERT_EQ(debug.exit_code, 0) << debug.err;
    std::vector<Json> debug_records = ParseJsonLines(debug.err);
    EXPECT_GT(CountAtLevel(debug_records, 4), 0u);
    EXPECT_EQ(CountAtLevel(debug_records, 5), 0u);

    // The module's own level wins whatever the order on the command line.
    RunResult detailed =
        Build({"--log-level", "TREES=4", "--log-level", "all=1", "--log-format", "jsonl"});
    ASSERT_EQ(detailed.exit_code, 0) << detailed.err;
    EXPECT_GT(CountAtLevel(ParseJsonLines(detailed.err), 4), 0u);
}

TEST_F(LogOptionsTest, OtherModulesLevelsLeaveTheTreesModuleQuiet) {
    RunResult run = Build({"--log-level", "FABRIC=5", "--log-format", "jsonl"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    for (const Json& record : ParseJsonLines(run.err)) {
        EXPECT_NE(record["module"], "TREES  ") << record.dump();
    }
}

TEST_F(LogOptionsTest, ModuleNamesAreCaseInsensitive) {
    RunResult run = Build({"--log-level", "trees=4", "--log-format", "jsonl"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_GT(CountAtLevel(ParseJsonLines(run.err), 4), 0u);
}

TEST_F(LogOptionsTest, TextFormatMarksEachMessageWithLevelAndModule) {
    RunResult run = Build({"--log-level", "TREES=4"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    std::vector<std::string> lines = Lines(run.err);
    ASSERT_FALSE(lines.empty());
    size_t debug_lines = 0;
    for (const std::string& line : lines) {
        debug_lines += line.rfind("-D- TREES   ", 0) == 0 ? 1 : 0;
    }
    EXPECT_GT(debug_lines, 0u) << run.err;
}

TEST_F(LogOptionsTest, LogFileTakesTheLogAndStandardErrorStaysEmpty) {
    std::string log = Path("trees.jsonl");
    RunResult run = Build({"--log-level", "TREES=5", "--log-format", "jsonl", "--log-file", log});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    std::vector<Json> records = ParseJsonLines(ReadFile(log));
    EXPECT_GT(CountAtLevel(records, 4), 0u);
}

TEST_F(LogOptionsTest, ALogFileThatCannotBeOpenedExitsTwo) {
    std::string log = Path("no-such-dir/trees.log");
    RunResult run = Build({"--log-file", log});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err,
              "aggtree: " + log + ": cannot open the log file: No such file or directory\n");
}

class BadLogLevelTest : public LogOptionsTest,
                        public ::testing::WithParamInterface<std::pair<std::string, std::string>> {
};

TEST_P(BadLogLevelTest, ExitsTwoNamingTheValue) {
    const auto& [value, why] = GetParam();
    RunResult run = Build({"--log-level", value});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "aggtree: --log-level: bad value '" + value + "': " + why + "\n");
}

const std::string kLevelRange = "the level must be a number from 0 (nothing) to 5 (detailed trace)";
const std::string kForm = "expected MODULE=LEVEL, e.g. TREES=5, FABRIC=4 or all=4";

INSTANTIATE_TEST_SUITE_P(
    Values, BadLogLevelTest,
    ::testing::Values(std::pair{std::string("TREES"), kForm}, std::pair{std::string("5"), kForm},
                      std::pair{std::string("TREES="), kLevelRange},
                      std::pair{std::string("TREES=x"), kLevelRange},
                      std::pair{std::string("TREES=6"), kLevelRange},
                      std::pair{std::string("TREES=-1"), kLevelRange},
                      std::pair{std::string("TREES=4.5"), kLevelRange},
                      std::pair{std::string("all=99"), kLevelRange},
                      std::pair{
                          std::string("ROUTING=4"),
                          std::string("unknown module 'ROUTING' (known: TREES, FABRIC, all)")},
                      std::pair{std::string("=4"),
                                std::string("unknown module '' (known: TREES, FABRIC, all)")}));

TEST_F(LogOptionsTest, AnUnknownLogFormatExitsTwo) {
    RunResult run = Build({"--log-format", "xml"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "aggtree: --log-format: bad value 'xml' (expected text or jsonl)\n");
}

}  // namespace
}  // namespace aggtree_cli_test
