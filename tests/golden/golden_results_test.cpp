// Golden results: every case of tests/golden/cases.json runs `aggtree build ... --json`
// and must print exactly the recorded result (tests/golden/expected/<fabric>/<job>.json,
// byte for byte) and exit with the recorded status (expected/exit_status.txt).
//
// With AGGTREE_GOLDEN_REGENERATE=1 the cases record what they print instead, and the run
// drops the records of cases no longer in the manifest (scripts/regen-golden.sh).  A
// changed record is a deliberate change of the builder's results; see README.md here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>
#include <set>
#include <sstream>

#include "cli/aggtree_runner.h"
#include "golden_manifest.h"

namespace aggtree_golden {

// Test names and failure messages show the case's id.
void PrintTo(const GoldenCase& value, std::ostream* out) {
    *out << value.Id();
}

namespace {

namespace fs = std::filesystem;
using aggtree_cli_test::Lines;
using aggtree_cli_test::ReadFile;
using aggtree_cli_test::RunAggtree;
using aggtree_cli_test::RunResult;

bool Regenerating() {
    const char* value = std::getenv("AGGTREE_GOLDEN_REGENERATE");
    return value != nullptr && std::string(value) == "1";
}

fs::path ExpectedDir() {
    return GoldenSourceDir() / "expected";
}

fs::path ExpectedFile(const GoldenCase& golden_case) {
    return ExpectedDir() / golden_case.fabric / (golden_case.job + ".json");
}

fs::path StatusIndex() {
    return ExpectedDir() / "exit_status.txt";
}

// The recorded results: the JSON files below expected/.
std::vector<fs::path> RecordedFiles() {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(ExpectedDir())) {
        if (entry.path().extension() == ".json") {
            files.push_back(entry.path());
        }
    }
    return files;
}

// The case a recorded result belongs to: "<fabric>/<job>" from expected/<fabric>/<job>.json.
std::string IdOf(const fs::path& file) {
    const fs::path relative = fs::relative(file, ExpectedDir());
    return relative.parent_path().string() + "/" + relative.stem().string();
}

// The recorded exit statuses: "<fabric>/<job> <status>" per line.
std::map<std::string, int> ReadStatusIndex() {
    std::map<std::string, int> statuses;
    std::ifstream in(StatusIndex());
    std::string id;
    int status = 0;
    while (in >> id >> status) {
        statuses[id] = status;
    }
    return statuses;
}

void WriteStatusIndex(const std::map<std::string, int>& statuses) {
    std::ofstream out(StatusIndex(), std::ios::binary);
    for (const auto& [id, status] : statuses) {
        out << id << ' ' << status << '\n';
    }
}

std::map<std::string, int>& RegeneratedStatuses() {
    static std::map<std::string, int> statuses;
    return statuses;
}

// A command line that a shell runs as it stands.
std::string ShellCommand(const std::vector<std::string>& args) {
    std::string command = AGGTREE_BINARY;
    for (const std::string& arg : args) {
        const bool plain = std::all_of(arg.begin(), arg.end(), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
                   std::string("-_./,=:@").find(c) != std::string::npos;
        });
        command += " " + (plain ? arg : "'" + arg + "'");
    }
    return command;
}

// Where two texts part, in the style of a unified diff: the lines that differ between
// their common beginning and their common end (-: expected, +: actual), a few of each,
// with a few lines of context around them.
std::string DiffHint(const std::string& expected, const std::string& actual) {
    const std::vector<std::string> want = Lines(expected);
    const std::vector<std::string> got = Lines(actual);
    size_t first = 0;
    while (first < want.size() && first < got.size() && want[first] == got[first]) {
        ++first;
    }
    size_t suffix = 0;
    while (suffix < want.size() - first && suffix < got.size() - first &&
           want[want.size() - 1 - suffix] == got[got.size() - 1 - suffix]) {
        ++suffix;
    }
    constexpr size_t kContext = 3;
    constexpr size_t kShown = 8;
    std::ostringstream hint;
    hint << "--- expected (" << want.size() << " lines)\n+++ actual (" << got.size()
         << " lines)\n@@ line " << first + 1 << " @@\n";
    for (size_t i = first >= kContext ? first - kContext : 0; i < first; ++i) {
        hint << " " << want[i] << "\n";
    }
    auto show = [&](const std::vector<std::string>& lines, char mark) {
        const size_t end = lines.size() - suffix;
        for (size_t i = first; i < end && i < first + kShown; ++i) {
            hint << mark << lines[i] << "\n";
        }
        if (end > first + kShown) {
            hint << mark << "... (" << end - first - kShown << " more)\n";
        }
    };
    show(want, '-');
    show(got, '+');
    for (size_t i = want.size() - suffix; i < want.size() && i < want.size() - suffix + kContext;
         ++i) {
        hint << " " << want[i] << "\n";
    }
    if (first == want.size() && first == got.size()) {
        hint << "(the lines agree; the texts differ in line ends)\n";
    }
    return hint.str();
}

// In a regenerating run, records the exit statuses once every case has run and removes
// the records of cases that the manifest no longer lists.
class RegeneratedIndexWriter : public ::testing::Environment {
public:
    void TearDown() override {
        const GoldenManifest* manifest = TheManifest(nullptr);
        if (!Regenerating() || manifest == nullptr) {
            return;
        }
        std::set<std::string> ids;
        for (const GoldenCase& golden_case : manifest->Cases()) {
            ids.insert(golden_case.Id());
        }
        std::map<std::string, int> statuses;
        for (const auto& [id, status] : ReadStatusIndex()) {
            if (ids.count(id) != 0) {
                statuses[id] = status;
            }
        }
        for (const auto& [id, status] : RegeneratedStatuses()) {
            statuses[id] = status;
        }
        WriteStatusIndex(statuses);
        for (const fs::path& file : RecordedFiles()) {
            if (ids.count(IdOf(file)) == 0) {
                fs::remove(file);
            }
        }
        for (const auto& entry : fs::directory_iterator(ExpectedDir())) {
            if (entry.is_directory() && fs::is_empty(entry.path())) {
                fs::remove(entry.path());
            }
        }
    }
};

[[maybe_unused]] ::testing::Environment* const kIndexWriter =
    ::testing::AddGlobalTestEnvironment(new RegeneratedIndexWriter);

std::vector<GoldenCase> AllCases() {
    const GoldenManifest* manifest = TheManifest(nullptr);
    return manifest == nullptr ? std::vector<GoldenCase>{} : manifest->Cases();
}

class GoldenResultTest : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(GoldenResultTest, MatchesTheRecordedResult) {
    const GoldenCase& golden_case = GetParam();
#ifdef AGGTREE_GOLDEN_SANITIZED
    if (golden_case.skip_under_sanitizers) {
        GTEST_SKIP() << golden_case.Id() << " is too slow for the sanitizer build";
    }
#endif
    const GoldenManifest& manifest = *TheManifest(nullptr);
    PreparedFabric fabric;
    try {
        fabric = manifest.Prepare(golden_case.fabric);
    } catch (const std::exception& error) {
        FAIL() << error.what();
    }
    std::vector<std::string> args = {"build", "--fabric", fabric.file.string()};
    args.insert(args.end(), fabric.build_args.begin(), fabric.build_args.end());
    args.insert(args.end(), golden_case.job_args.begin(), golden_case.job_args.end());
    if (golden_case.inline_job) {
        args.push_back("--job");
        args.push_back(manifest.WriteJobFile(golden_case).string());
    }
    args.push_back("--json");
    const std::string command = ShellCommand(args);
    const RunResult run = RunAggtree(args);
    // 0 built, 1 refused, 3 internal failure are results; anything else is a broken case.
    ASSERT_TRUE(run.exit_code == 0 || run.exit_code == 1 || run.exit_code == 3)
        << "exit status " << run.exit_code << ", standard error:\n"
        << run.err << "reproduce: " << command;

    if (Regenerating()) {
        fs::create_directories(ExpectedFile(golden_case).parent_path());
        std::ofstream(ExpectedFile(golden_case), std::ios::binary) << run.out;
        RegeneratedStatuses()[golden_case.Id()] = run.exit_code;
        return;
    }
    static const std::map<std::string, int> kStatuses = ReadStatusIndex();
    auto recorded = kStatuses.find(golden_case.Id());
    ASSERT_TRUE(recorded != kStatuses.end() && fs::exists(ExpectedFile(golden_case)))
        << "no recorded result for " << golden_case.Id()
        << "; a new case is recorded by scripts/regen-golden.sh";
    EXPECT_EQ(run.exit_code, recorded->second) << "exit status differs; standard error:\n"
                                               << run.err << "reproduce: " << command;
    const std::string expected = ReadFile(ExpectedFile(golden_case));
    EXPECT_TRUE(run.out == expected)
        << "the result differs from " << ExpectedFile(golden_case).string() << "\n"
        << DiffHint(expected, run.out) << "reproduce: " << command
        << "\nA deliberate change is recorded by scripts/regen-golden.sh (tests/golden/README.md).";
}

INSTANTIATE_TEST_SUITE_P(Golden, GoldenResultTest, ::testing::ValuesIn(AllCases()),
                         [](const ::testing::TestParamInfo<GoldenCase>& info) {
                             return info.param.TestName();
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(GoldenResultTest);

TEST(GoldenManifestTest, LoadsWithAtLeastOneHundredCases) {
    std::string error;
    const GoldenManifest* manifest = TheManifest(&error);
    ASSERT_NE(manifest, nullptr) << error;
    EXPECT_GE(manifest->Cases().size(), 100u);
}

TEST(GoldenManifestTest, EveryRecordedResultBelongsToACase) {
    const GoldenManifest* manifest = TheManifest(nullptr);
    ASSERT_NE(manifest, nullptr);
    if (Regenerating()) {
        GTEST_SKIP() << "the records are being rewritten";
    }
    std::set<std::string> ids;
    for (const GoldenCase& golden_case : manifest->Cases()) {
        ids.insert(golden_case.Id());
    }
    std::set<std::string> recorded;
    for (const auto& [id, status] : ReadStatusIndex()) {
        recorded.insert(id);
    }
    for (const fs::path& file : RecordedFiles()) {
        const std::string id = IdOf(file);
        EXPECT_EQ(ids.count(id), 1u) << file << " belongs to no case";
        EXPECT_EQ(recorded.count(id), 1u) << id << " has no recorded exit status";
    }
    for (const std::string& id : recorded) {
        EXPECT_EQ(ids.count(id), 1u) << "exit_status.txt records " << id << ", which is no case";
    }
}

}  // namespace
}  // namespace aggtree_golden
