// Damaged and unusual input, tried as a new user would: cut dumps, dumps without their Ca
// records, long strings, binary junk and deep nesting.  Every run ends within seconds
// with exit 0, 1 or 2, and a refusal is one line naming the file.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"
#include "support/ibnetdiscover_dump.h"
#include "topology/generators.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::json;

// No run may take longer than this; a hang ends in SIGALRM and fails the test.
constexpr unsigned kSecondsPerRun = 20;

// Exit 0, 1 or 2 (no signal, no internal failure); a refusal names `file`.
void ExpectEndedCleanly(const RunResult& run, const std::string& file, const std::string& what) {
    EXPECT_TRUE(run.exit_code == 0 || run.exit_code == 1 || run.exit_code == 2)
        << what << ": exit " << run.exit_code << "\n"
        << run.err;
    if (run.exit_code == 2) {
        EXPECT_EQ(run.err.rfind("aggtree: " + file + ": ", 0), 0u) << what << ": " << run.err;
        EXPECT_EQ(Lines(run.err).size(), 1u) << what << ": " << run.err;
    }
}

// A 2-level fat tree of 8 leaves and 4 spines with 32 hosts, as a real-looking dump.
std::string SmallFatTreeDump() {
    aggtree::FatTreeParams params;
    params.levels = 2;
    params.radix = 8;
    params.parallel_links = 1;
    return WriteIbnetdiscoverDump(aggtree::GenerateFatTree(params));
}

// The dump without the records (blank-line separated) that contain `marker`.
std::string WithoutRecords(const std::string& dump, const std::string& marker) {
    std::string kept;
    size_t start = 0;
    while (start < dump.size()) {
        size_t end = dump.find("\n\n", start);
        end = end == std::string::npos ? dump.size() : end + 2;
        std::string record = dump.substr(start, end - start);
        if (record.find(marker) == std::string::npos) {
            kept += record;
        }
        start = end;
    }
    return kept;
}

// The first `count` lines of `text`.
std::string FirstLines(const std::string& text, size_t count) {
    size_t end = 0;
    for (size_t i = 0; i < count; ++i) {
        size_t newline = text.find('\n', end);
        if (newline == std::string::npos) {
            return text;
        }
        end = newline + 1;
    }
    return text.substr(0, end);
}

class DamagedInputTest : public CliTest {};

TEST_F(DamagedInputTest, TheWholeDumpLoadsAndBuilds) {
    const std::string dump = WriteFile("fabric.ibnetdiscover", SmallFatTreeDump());
    RunResult info = RunAggtree({"info", dump, "--json"}, {}, {kSecondsPerRun, 0});
    ASSERT_EQ(info.exit_code, 0) << info.err;
    Json summary = Json::parse(info.out);
    EXPECT_EQ(summary["switches"], 12);
    EXPECT_EQ(summary["hosts"], 32);
    RunResult build =
        RunAggtree({"build", "--fabric", dump, "--random-hosts", "5"}, {}, {kSecondsPerRun, 0});
    EXPECT_EQ(build.exit_code, 0) << build.err;
}

// A dump cut at any line (a copy that stopped early, a file written while the tool
// ran): each cut is read, summarised, converted and built on, or refused naming it.
TEST_F(DamagedInputTest, ADumpCutAtAnyLineEndsCleanly) {
    const std::string dump = SmallFatTreeDump();
    const size_t line_count = Lines(dump).size();
    ASSERT_GT(line_count, 120u);
    const std::string file = Path("cut.ibnetdiscover");
    for (size_t cut = 1; cut <= line_count; cut += line_count / 120) {
        WriteFile("cut.ibnetdiscover", FirstLines(dump, cut));
        const std::string what = "cut after line " + std::to_string(cut);
        ExpectEndedCleanly(RunAggtree({"info", file}, {}, {kSecondsPerRun, 0}), file, what);
        if (cut % 3 == 0) {
            ExpectEndedCleanly(
                RunAggtree({"convert", file, "-o", Path("out.json")}, {}, {kSecondsPerRun, 0}),
                file, what + " (convert)");
            ExpectEndedCleanly(RunAggtree({"build", "--fabric", file, "--random-hosts", "1"}, {},
                                          {kSecondsPerRun, 0}),
                               file, what + " (build)");
        }
    }
}

// Without Ca records the switches' port lines still name every host: the hosts come
// from there, with the same GUIDs and names.
TEST_F(DamagedInputTest, ADumpWithoutCaRecordsTakesItsHostsFromTheSwitchPorts) {
    const std::string whole = WriteFile("whole.ibnetdiscover", SmallFatTreeDump());
    const std::string cut =
        WriteFile("no-ca.ibnetdiscover", WithoutRecords(SmallFatTreeDump(), "caguid="));
    RunResult from_whole = RunAggtree({"convert", whole}, {}, {kSecondsPerRun, 0});
    RunResult from_cut = RunAggtree({"convert", cut}, {}, {kSecondsPerRun, 0});
    ASSERT_EQ(from_whole.exit_code, 0) << from_whole.err;
    ASSERT_EQ(from_cut.exit_code, 0) << from_cut.err;
    EXPECT_EQ(Json::parse(from_cut.out)["hosts"], Json::parse(from_whole.out)["hosts"]);
    RunResult info = RunAggtree({"info", cut}, {}, {kSecondsPerRun, 0});
    EXPECT_EQ(info.exit_code, 0) << info.err;
    RunResult build = RunAggtree({"build", "--fabric", cut, "--hosts", "node001,node017"}, {},
                                 {kSecondsPerRun, 0});
    EXPECT_EQ(build.exit_code, 0) << build.err;
}

// A file that ends inside a long string: one short line naming the file, the line and
// the column, however long the string.
TEST_F(DamagedInputTest, ALongUnterminatedStringIsRefusedWithItsPosition) {
    for (size_t length : {size_t{60000}, size_t{1000000}}) {
        const std::string fabric =
            WriteFile("long.json", R"({"aggtree_fabric": 1, "switches": [{"name": ")" +
                                       std::string(length, 'a'));
        RunResult run = RunAggtree({"info", fabric}, {}, {kSecondsPerRun, 0});
        EXPECT_EQ(run.exit_code, 2) << run.err.substr(0, 300);
        EXPECT_EQ(
            run.err.rfind("aggtree: " + fabric + ": line 1, column " + std::to_string(length + 46) +
                              ": malformed JSON: syntax error while parsing value - "
                              "invalid string: missing closing quote; last read: '\"aaa",
                          0),
            0u)
            << run.err.substr(0, 300);
        EXPECT_LT(run.err.size(), 300u);

        const std::string job = WriteFile("job.json", R"({"hosts": [")" + std::string(length, 'b'));
        RunResult build = RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job", job},
                                     {}, {kSecondsPerRun, 0});
        EXPECT_EQ(build.exit_code, 2) << build.err.substr(0, 300);
        EXPECT_EQ(build.err.rfind("aggtree: " + job + ": line 1, column " +
                                      std::to_string(length + 13) + ": malformed JSON: ",
                                  0),
                  0u)
            << build.err.substr(0, 300);
        EXPECT_LT(build.err.size(), 300u);
    }
}

TEST_F(DamagedInputTest, BinaryJunkIsRefusedNamingTheFile) {
    std::string junk;
    uint32_t state = 12345;
    for (int i = 0; i < 4096; ++i) {
        state = state * 1103515245u + 12345u;
        junk += static_cast<char>(state >> 24);
    }
    const std::string file = WriteFile("junk.bin", junk);
    ExpectEndedCleanly(RunAggtree({"info", file}, {}, {kSecondsPerRun, 0}), file, "info");
    ExpectEndedCleanly(RunAggtree({"convert", file}, {}, {kSecondsPerRun, 0}), file, "convert");
    ExpectEndedCleanly(RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job", file},
                                  {}, {kSecondsPerRun, 0}),
                       file, "job");
    ExpectEndedCleanly(
        RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--hosts-from", file}, {},
                   {kSecondsPerRun, 0}),
        file, "hosts file");
    // Junk that starts like a dump is read as one.
    const std::string dump_like = WriteFile("junk.ibnetdiscover", "Switch\t8 " + junk);
    ExpectEndedCleanly(RunAggtree({"info", dump_like}, {}, {kSecondsPerRun, 0}), dump_like,
                       "dump-like junk");
}

TEST_F(DamagedInputTest, DeepNestingIsRefusedNamingTheFile) {
    const std::string depth(200000, '[');
    const std::string fabric = WriteFile("deep.json", R"({"aggtree_fabric": 1, "switches": )" +
                                                          depth + std::string(200000, ']') + "}");
    RunResult run = RunAggtree({"info", fabric}, {}, {kSecondsPerRun, 0});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err, "aggtree: " + fabric +
                           ": the JSON nests deeper than 32 levels (aggtree's files nest at most "
                           "4)\n");
    const std::string unclosed = WriteFile("unclosed.json", depth);
    ExpectEndedCleanly(RunAggtree({"info", unclosed}, {}, {kSecondsPerRun, 0}), unclosed,
                       "unclosed nesting");
    const std::string job = WriteFile("job.json", R"({"hosts": )" + depth);
    ExpectEndedCleanly(RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job", job}, {},
                                  {kSecondsPerRun, 0}),
                       job, "nested job");
}

// Found by fuzzing: a number too large for a double escaped the readers as an exception
// of the JSON library, without the file's name.
TEST_F(DamagedInputTest, ANumberTooLargeIsRefusedWithItsPosition) {
    const std::string huge = "8" + std::string(30, '8') + "e888888888";
    const std::string job = WriteFile("job.json", "{\"job_id\": {\"number\": " + huge + "}}");
    RunResult build = RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job", job}, {},
                                 {kSecondsPerRun, 0});
    EXPECT_EQ(build.exit_code, 2);
    EXPECT_EQ(build.err, "aggtree: " + job + ": line 1, column 63: malformed JSON: the number '" +
                             huge.substr(0, 40) + "...' is too large\n");
    const std::string fabric =
        WriteFile("fabric.json", "{\"aggtree_fabric\": 1,\n \"max_tree_id\": " + huge + "}");
    RunResult info = RunAggtree({"info", fabric}, {}, {kSecondsPerRun, 0});
    EXPECT_EQ(info.exit_code, 2);
    EXPECT_EQ(info.err.rfind("aggtree: " + fabric + ": line 2, column 57: malformed JSON: ", 0), 0u)
        << info.err;
}

// Found by fuzzing: a node description in a legacy encoding made names that no JSON
// output could hold.  They are read as Latin-1.
TEST_F(DamagedInputTest, ADescriptionThatIsNotUtf8IsReadAsLatin1) {
    std::string dump = SmallFatTreeDump();
    const std::string leaf = "\"leaf-1\" enhanced";
    dump.replace(dump.find(leaf), leaf.size(), "\"leaf-\xe9\xe8\" enhanced");
    const std::string file = WriteFile("latin1.ibnetdiscover", dump);
    RunResult convert = RunAggtree({"convert", file}, {}, {kSecondsPerRun, 0});
    ASSERT_EQ(convert.exit_code, 0) << convert.err;
    EXPECT_EQ(Json::parse(convert.out)["switches"][0]["name"], "leaf-\u00e9\u00e8");
    RunResult build =
        RunAggtree({"build", "--fabric", file, "--hosts", "node001,node005", "--json"}, {},
                   {kSecondsPerRun, 0});
    ASSERT_EQ(build.exit_code, 0) << build.err;
    EXPECT_EQ(Json::parse(build.out)["tree_nodes"][1]["switch"], "leaf-\u00e9\u00e8");
}

// Found by fuzzing: a record header that ends after its number of ports.
TEST_F(DamagedInputTest, ARecordHeaderWithoutItsIdentifierNamesTheLine) {
    const std::string file =
        WriteFile("short.ibnetdiscover", "switchguid=0x5100000001\nSwitch\t40\n");
    RunResult run = RunAggtree({"info", file}, {}, {kSecondsPerRun, 0});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err, "aggtree: " + file +
                           ": line 2: expected the node's quoted identifier after its number of "
                           "ports\n");
}

}  // namespace
}  // namespace aggtree_cli_test
