// The tool's own parsers, in process: log levels, job ids, the random host draw and
// the error line format.
#include <gtest/gtest.h>

#include <set>

#include "cli/cli_support.h"
#include "cli/job_sources.h"
#include "cli/log_setup.h"

namespace aggtree::cli {
namespace {

TEST(ParseLogLevel, ReadsModulesAndLevels) {
    LogLevelSetting trees = ParseLogLevel("TREES=5");
    EXPECT_EQ(trees.module, "TREES");
    EXPECT_EQ(trees.level, 5);
    LogLevelSetting fabric = ParseLogLevel("fabric=0");
    EXPECT_EQ(fabric.module, "FABRIC");
    EXPECT_EQ(fabric.level, 0);
    LogLevelSetting all = ParseLogLevel("all=4");
    EXPECT_EQ(all.module, "");
    EXPECT_EQ(all.level, 4);
}

TEST(ParseLogLevel, RefusesMalformedValues) {
    for (const char* bad : {"TREES", "TREES=", "TREES=6", "TREES=+4", "TREES= 4", "X=1", "all=a"}) {
        EXPECT_THROW(ParseLogLevel(bad), UsageError) << bad;
    }
}

TEST(ParseJobIdText, SplitsAtTheLastUnderscore) {
    ZeltaExtJobId id = ParseJobIdText("my_cluster_42");
    EXPECT_EQ(id.id_prefix, "my_cluster");
    EXPECT_EQ(id.job_number, 42u);
    EXPECT_EQ(id.ToString(), "my_cluster_42");
}

TEST(ParseJobIdText, ABareNumberHasTheDefaultPrefix) {
    ZeltaExtJobId id = ParseJobIdText("7");
    EXPECT_EQ(id.id_prefix, "");
    EXPECT_EQ(id.ToString(), "default_7");
}

TEST(ParseJobIdText, RefusesTextWithoutANumber) {
    for (const char* bad :
         {"", "slurm", "slurm_", "slurm_4x", "_-1", "slurm_18446744073709551616"}) {
        EXPECT_THROW(ParseJobIdText(bad), UsageError) << bad;
    }
}

TEST(PickRandomHosts, DrawsDistinctHostsTheSameWayEveryTime) {
    std::vector<size_t> first = PickRandomHosts(100, 10, 3);
    EXPECT_EQ(first, PickRandomHosts(100, 10, 3));
    EXPECT_NE(first, PickRandomHosts(100, 10, 4));
    std::set<size_t> distinct(first.begin(), first.end());
    EXPECT_EQ(distinct.size(), 10u);
    for (size_t index : first) {
        EXPECT_LT(index, 100u);
    }
}

TEST(PickRandomHosts, AllHostsIsAPermutation) {
    std::vector<size_t> all = PickRandomHosts(8, 8, 1);
    std::set<size_t> distinct(all.begin(), all.end());
    EXPECT_EQ(distinct, (std::set<size_t>{0, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(FormatInputError, NamesFileWhereAndProblem) {
    EXPECT_EQ(FormatInputError(InputError("job.json", "/hosts/2", "unknown host 'x'")),
              "aggtree: job.json: /hosts/2: unknown host 'x'");
    EXPECT_EQ(FormatInputError(InputError("job.json", "", "the job has no ports")),
              "aggtree: job.json: the job has no ports");
}

}  // namespace
}  // namespace aggtree::cli
