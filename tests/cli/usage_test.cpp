// The command line as a whole: help, and usage mistakes that end with exit status 2
// and one line on standard error.
#include <gtest/gtest.h>

#include <ostream>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

class UsageTest : public CliTest {};

TEST_F(UsageTest, HelpListsEveryCommandAndExitsZero) {
    RunResult run = RunAggtree({"--help"});
    EXPECT_EQ(run.exit_code, 0);
    for (const char* command : {"build", "generate", "convert", "info", "demo"}) {
        EXPECT_NE(run.out.find(std::string("  ") + command + " "), std::string::npos) << command;
    }
}

TEST_F(UsageTest, BuildHelpListsTheFixedOptions) {
    RunResult run = RunAggtree({"build", "--help"});
    EXPECT_EQ(run.exit_code, 0);
    for (const char* option : {"--fabric", "--job", "--json", "--log-level", "--log-format",
                               "--log-file", "--hosts", "--dot", "--svg"}) {
        EXPECT_NE(run.out.find(option), std::string::npos) << option;
    }
}

struct Misuse {
    const char* name;
    std::vector<std::string> args;
    std::string err;
};

// Test names show the case's name, not the bytes of the case.
void PrintTo(const Misuse& value, std::ostream* out) {
    *out << value.name;
}

class MisuseTest : public CliTest, public ::testing::WithParamInterface<Misuse> {};

TEST_P(MisuseTest, ExitsTwoWithOneLine) {
    RunResult run = RunAggtree(GetParam().args);
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, GetParam().err + "\n");
}

const Misuse kMisuses[] = {
    {"NoCommand", {}, "aggtree: A subcommand is required (see 'aggtree --help')"},
    {"UnknownCommand",
     {"plant"},
     "aggtree: unknown command 'plant' (commands: build, generate, convert, info, demo, "
     "simulate, trace; see 'aggtree --help')"},
    {"BuildWithoutFabric",
     {"build", "--hosts", "node001"},
     "aggtree: --fabric is required (see 'aggtree --help')"},
    {"UnknownOption",
     {"build", "--fabric", "f.json", "--hosts", "n", "--colour"},
     "aggtree: The following argument was not expected: --colour (see 'aggtree --help')"},
    {"FabricWithoutValue",
     {"build", "--fabric"},
     "aggtree: --fabric: 1 required FILE missing (see 'aggtree --help')"},
};

INSTANTIATE_TEST_SUITE_P(Mistakes, MisuseTest, ::testing::ValuesIn(kMisuses),
                         [](const ::testing::TestParamInfo<Misuse>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace aggtree_cli_test
