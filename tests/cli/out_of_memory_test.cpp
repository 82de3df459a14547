// aggtree build when memory runs out while the tree is built: exit 3, a message that
// names the job and says it ran out of memory, and "internal_error" in the JSON result.
// The binary runs with an allocation that fails preloaded (the sanitizer build skips
// these: its allocator must be loaded first).
#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"
#include "fabric_model/tree_node.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::ordered_json;

class OutOfMemoryTest : public CliTest {
protected:
    void SetUp() override {
        CliTest::SetUp();
#ifndef AGGTREE_FAILING_NEW
        GTEST_SKIP() << "no allocation failure can be preloaded in this build";
#endif
    }

    // The example job with the first allocation of a tree node's size failing: the
    // first tree node is made for the job's first leaf, after the fabric is loaded.
    RunResult RunWithFailingTreeNode(std::vector<std::string> extra_args) {
        std::vector<std::string> args = {"build", "--fabric", Example("fat-tree.json"), "--job",
                                         Example("fat-tree-job.json")};
        args.insert(args.end(), extra_args.begin(), extra_args.end());
#ifdef AGGTREE_FAILING_NEW
        return RunAggtree(args, {{"LD_PRELOAD", AGGTREE_FAILING_NEW},
                                 { "AGGTREE_TEST_FAIL_NEW_OF_SIZE",
                                   std::to_string(sizeof(TreeNode)) }});
#else
        return RunAggtree(args);
#endif
    }
};

TEST_F(OutOfMemoryTest, ExitsThreeNamingTheJobAndSayingMemoryRanOut) {
    RunResult run = RunWithFailingTreeNode({});

    EXPECT_EQ(run.exit_code, 3) << run.err;
    EXPECT_EQ(run.out, "");
    ASSERT_FALSE(Lines(run.err).empty());
    EXPECT_EQ(Lines(run.err).back(),
              "aggtree: job default_7: out of memory while building the tree (std::bad_alloc)");
}

TEST_F(OutOfMemoryTest, JsonResultCarriesTheInternalError) {
    RunResult run = RunWithFailingTreeNode({"--json"});

    EXPECT_EQ(run.exit_code, 3) << run.err;
    Json result = Json::parse(run.out);
    EXPECT_EQ(result["status"], 1);
    EXPECT_EQ(result["internal_error"], "out of memory while building the tree (std::bad_alloc)");
    EXPECT_EQ(result["error_text"], "out of memory while building the tree (std::bad_alloc)\n");
    EXPECT_TRUE(result["tree_nodes"].empty());
}

TEST_F(OutOfMemoryTest, WithoutAFailingAllocationTheSameRunBuildsTheTree) {
#ifdef AGGTREE_FAILING_NEW
    RunResult run = RunAggtree(
        {"build", "--fabric", Example("fat-tree.json"), "--job", Example("fat-tree-job.json")},
        {{"LD_PRELOAD", AGGTREE_FAILING_NEW}});
    EXPECT_EQ(run.exit_code, 0) << run.err;
#endif
}

}  // namespace
}  // namespace aggtree_cli_test
