// Running out of memory while loading is no bad input: under an address-space limit too
// small for the input, the tool ends with exit 3 and one line naming the file and saying
// that memory ran out, never with exit 2 or an abort.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"
#include "support/ibnetdiscover_dump.h"
#include "topology/fabric_file.h"
#include "topology/generators.h"

namespace aggtree_cli_test {
namespace {

constexpr size_t kMiB = size_t{1} << 20;

class OutOfMemoryWhileLoadingTest : public CliTest {
protected:
    void SetUp() override {
#ifdef AGGTREE_SANITIZED
        GTEST_SKIP() << "the sanitizers' shadow memory does not fit an address-space limit";
#endif
        CliTest::SetUp();
    }

    // The smallest address space (in MiB steps) in which the tool summarises the small
    // example: below it the tool cannot even start.
    static size_t StartingAddressSpace() {
        static size_t starting = 0;
        for (size_t limit = 8 * kMiB; starting == 0 && limit < 256 * kMiB; limit += kMiB) {
            RunResult run = RunAggtree({"info", Example("fat-tree.json")}, {}, {30, limit});
            if (run.exit_code == 0) {
                starting = limit;
            }
        }
        EXPECT_NE(starting, 0u) << "the tool does not start in 256 MiB";
        return starting;
    }

    // Runs `args` under limits from the starting address space up in `step`s until a run
    // succeeds; every run that fails must fail with exit 3 and one of `reports`.
    void ExpectOutOfMemoryReported(const std::vector<std::string>& args,
                                   const std::vector<std::string>& reports, size_t step) {
        const size_t start = StartingAddressSpace();
        size_t out_of_memory = 0;
        bool succeeded = false;
        for (size_t limit = start; limit < start + 512 * kMiB && !succeeded; limit += step) {
            RunResult run = RunAggtree(args, {}, {60, limit});
            const std::string where = "limit " + std::to_string(limit / kMiB) + " MiB";
            if (run.exit_code == 0) {
                succeeded = true;
                continue;
            }
            ++out_of_memory;
            EXPECT_EQ(run.exit_code, 3) << where << ": " << run.err;
            bool known = false;
            for (const std::string& report : reports) {
                known = known || run.err == report + "\n";
            }
            EXPECT_TRUE(known) << where << ": " << run.err;
        }
        EXPECT_TRUE(succeeded) << "no run had memory enough";
        EXPECT_GT(out_of_memory, 0u) << "no run ran out of memory";
    }
};

TEST_F(OutOfMemoryWhileLoadingTest, AFabricFileTooLargeForTheMemoryExitsThreeNamingIt) {
    aggtree::FatTreeParams params;
    params.levels = 3;
    params.radix = 24;
    const std::string fabric =
        WriteFile("fabric.json", aggtree::WriteFabricJson(aggtree::GenerateFatTree(params)));
    ExpectOutOfMemoryReported({"info", fabric},
                              {"aggtree: " + fabric + ": out of memory while loading the file"},
                              2 * kMiB);
}

TEST_F(OutOfMemoryWhileLoadingTest, ADumpTooLargeForTheMemoryExitsThreeNamingIt) {
    aggtree::FatTreeParams params;
    params.levels = 3;
    params.radix = 16;
    const std::string dump =
        WriteFile("fabric.ibnetdiscover", WriteIbnetdiscoverDump(aggtree::GenerateFatTree(params)));
    ExpectOutOfMemoryReported(
        {"convert", dump, "-o", Path("out.json")},
        {"aggtree: " + dump + ": out of memory while loading the file", "aggtree: out of memory"},
        kMiB);
}

// The job file is the largest input: when it does not fit, it is the one named.
TEST_F(OutOfMemoryWhileLoadingTest, AJobFileTooLargeForTheMemoryExitsThreeNamingIt) {
    nlohmann::json job = {{"hosts", nlohmann::json::array()}};
    for (int i = 0; i < 100000; ++i) {
        job["hosts"].push_back("node00" + std::to_string(1 + i % 8));
    }
    const std::string job_file = WriteFile("job.json", job.dump());
    const std::string fabric = Example("fat-tree.json");
    ExpectOutOfMemoryReported({"build", "--fabric", fabric, "--job", job_file},
                              {"aggtree: " + job_file + ": out of memory while loading the file",
                               "aggtree: " + fabric + ": out of memory while loading the file"},
                              kMiB);
}

}  // namespace
}  // namespace aggtree_cli_test
