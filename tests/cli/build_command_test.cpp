// aggtree build on the example fat tree: the JSON result node by node, the text tree,
// the job sources of the command line, and the exit status of every outcome.
#include <gtest/gtest.h>

#include <ostream>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::ordered_json;

// The example job on the example fat tree, worked out by hand.  The job's hosts sit on
// leaf-1 (node001, node002), leaf-2 (node004) and leaf-4 (node007).  Both spines reach
// every leaf over 2 parallel links, but spine-1 already carries 2 trees, so spine-2's
// group scores better (fewer active trees on its busiest switch) and becomes the root.
// It links to the leaves in fabric order, so their child indices are 0, 1, 2.  No tree
// id is used anywhere, so the job gets tree 0; all 128 ids (0..127) were free on every
// tree switch when scored; the weakest hop has 2 parallel links; the builder scores
// for load balance (priority 3).
const char* const kFatTreeResult = R"({
  "status": 0, "job_id": "default_7", "tree_id": 0, "second_tree_id": 65535,
  "plane": 0, "root": "spine-2", "root_guid": "0x1006", "root_node_attr": 0,
  "error_text": "",
  "tree_nodes": [
    { "switch": "spine-2", "guid": "0x1006", "parent": null, "child_index": 0,
      "num_children": 3, "children": ["leaf-1", "leaf-2", "leaf-4"], "host_ports": [] },
    { "switch": "leaf-1", "guid": "0x1001", "parent": "spine-2", "child_index": 0,
      "num_children": 0, "children": [], "host_ports": ["0x2001", "0x2002"] },
    { "switch": "leaf-2", "guid": "0x1002", "parent": "spine-2", "child_index": 1,
      "num_children": 0, "children": [], "host_ports": ["0x2004"] },
    { "switch": "leaf-4", "guid": "0x1004", "parent": "spine-2", "child_index": 2,
      "num_children": 0, "children": [], "host_ports": ["0x2007"] } ],
  "score": { "max_active_trees": 0, "total_active_trees": 0, "node_count": 4,
             "leaf_count": 3, "min_free_tree_ids": 128, "priority": 3,
             "min_parallel_links": 2 } })";

// Compares a result with the expected one key by key (in order) and node by node.
void ExpectResult(const Json& actual, const Json& expected) {
    std::vector<std::string> actual_keys;
    std::vector<std::string> expected_keys;
    for (const auto& item : actual.items()) {
        actual_keys.push_back(item.key());
    }
    for (const auto& item : expected.items()) {
        expected_keys.push_back(item.key());
    }
    ASSERT_EQ(actual_keys, expected_keys);
    for (const auto& item : expected.items()) {
        if (item.key() != "tree_nodes") {
            EXPECT_EQ(actual[item.key()], item.value()) << "key " << item.key();
        }
    }
    ASSERT_EQ(actual["tree_nodes"].size(), expected["tree_nodes"].size());
    for (size_t i = 0; i < expected["tree_nodes"].size(); ++i) {
        EXPECT_EQ(actual["tree_nodes"][i].dump(), expected["tree_nodes"][i].dump())
            << "tree node " << i;
    }
}

class BuildCommandTest : public CliTest {};

TEST_F(BuildCommandTest, JsonResultOfTheFatTreeExampleMatchesTheHandWorkedTree) {
    RunResult run = RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job",
                                Example("fat-tree-job.json"), "--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    ExpectResult(Json::parse(run.out), Json::parse(kFatTreeResult));
}

TEST_F(BuildCommandTest, TextResultDrawsTheTreeWithHostNames) {
    RunResult run = RunAggtree(
        {"build", "--fabric", Example("fat-tree.json"), "--job", Example("fat-tree-job.json")});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out,
              "Tree 0 for job default_7 on plane 0, root spine-2\n"
              "\n"
              "spine-2  (3 children)\n"
              "├── leaf-1  hosts: node001, node002\n"
              "├── leaf-2  hosts: node004\n"
              "└── leaf-4  hosts: node007\n"
              "\n"
              "Score: 4 switches, 3 leaf switches, busiest switch carries 0 trees, 0 active "
              "trees in all, weakest hop 2 parallel links, fewest free tree ids 128\n");
}

TEST_F(BuildCommandTest, HostsOnTheCommandLineBuildTheSameTreeAsTheJobFile) {
    RunResult run =
        RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--hosts",
                    "node001,node002, node004,node007,node001", "--job-id", "default_7", "--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    ExpectResult(Json::parse(run.out), Json::parse(kFatTreeResult));
}

TEST_F(BuildCommandTest, HostsFromAFileSkipCommentsAndBlankLines) {
    std::string hosts = WriteFile("hosts.txt",
                                  "# the job's hosts\nnode001\n\n  node002  # same leaf\n"
                                  "0x2004\nnode007\n");
    RunResult run = RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--hosts-from",
                                hosts, "--job-id", "default_7", "--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    ExpectResult(Json::parse(run.out), Json::parse(kFatTreeResult));
}

TEST_F(BuildCommandTest, JobIdOptionSetsPrefixAndNumber) {
    RunResult run = RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job",
                                Example("fat-tree-job.json"), "--job-id", "slurm_4242", "--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out)["job_id"], "slurm_4242");
}

TEST_F(BuildCommandTest, RandomHostsAreTheSameForTheSameSeed) {
    std::vector<std::string> args = {
        "build", "--fabric", Example("fat-tree.json"), "--random-hosts", "5", "--seed",
        "17",    "--json"};
    RunResult first = RunAggtree(args);
    RunResult second = RunAggtree(args);
    ASSERT_EQ(first.exit_code, 0) << first.err;
    EXPECT_EQ(first.out, second.out);
    size_t ports = 0;
    Json result = Json::parse(first.out);
    for (const Json& node : result["tree_nodes"]) {
        ports += node["host_ports"].size();
    }
    EXPECT_EQ(ports, 5u);
}

TEST_F(BuildCommandTest, RandomHostsMoreThanTheFabricHasIsAUsageError) {
    RunResult run =
        RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--random-hosts", "9"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "aggtree: --random-hosts: cannot pick 9 hosts: the fabric has 8\n");
}

TEST_F(BuildCommandTest, AJobTheFabricCannotServeExitsOneWithStatusOne) {
    // Every switch has 64 aggregation units free; the job asks for 100 on each.
    std::string job = WriteFile("big-job.json",
                                R"({"job_id": {"number": 9}, "hosts": ["node001", "node007"],
            "resource": {"quota": {"units": 100}}})");
    RunResult run =
        RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job", job, "--json"});
    EXPECT_EQ(run.exit_code, 1) << run.err;
    Json result = Json::parse(run.out);
    EXPECT_EQ(result["status"], 1);
    EXPECT_EQ(result["job_id"], "default_9");
    EXPECT_EQ(result["tree_id"], 65535);
    EXPECT_TRUE(result["root"].is_null());
    EXPECT_TRUE(result["tree_nodes"].empty());
}

TEST_F(BuildCommandTest, AJobTheFabricCannotServeIsSaidInText) {
    std::string job = WriteFile(
        "big-job.json",
        R"({"job_id": {"number": 9}, "hosts": ["node001"], "resource": {"quota": {"units": 100}}})");
    RunResult run = RunAggtree({"build", "--fabric", Example("fat-tree.json"), "--job", job});
    EXPECT_EQ(run.exit_code, 1) << run.err;
    EXPECT_EQ(Lines(run.out).at(0), "Job default_9 cannot be served (builder status 1).");
}

struct BadBuild {
    const char* name;
    std::vector<std::string> args;  // after "build --fabric <fat-tree example>"
    std::string job_text;           // written to job.json when not empty
    std::string expected_err;       // "{job}" stands for the job file's path
};

// Test names show the case's name, not the bytes of the case.
void PrintTo(const BadBuild& value, std::ostream* out) {
    *out << value.name;
}

class BadBuildTest : public CliTest, public ::testing::WithParamInterface<BadBuild> {};

TEST_P(BadBuildTest, ExitsTwoWithOneLineNamingTheProblem) {
    const BadBuild& bad = GetParam();
    std::string job = bad.job_text.empty() ? "" : WriteFile("job.json", bad.job_text);
    std::vector<std::string> args = {"build", "--fabric", Example("fat-tree.json")};
    for (const std::string& arg : bad.args) {
        args.push_back(arg == "{job}" ? job : arg);
    }
    RunResult run = RunAggtree(args);
    std::string expected = bad.expected_err;
    if (size_t at = expected.find("{job}"); at != std::string::npos) {
        expected.replace(at, 5, job);
    }
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, expected + "\n");
}

const BadBuild kBadBuilds[] = {
    {"MalformedJson",
     {"--job", "{job}"},
     "{\n  \"hosts\": [\"node001\",]\n}\n",
     "aggtree: {job}: line 2, column 23: malformed JSON: unexpected ']'; expected '[', '{', or "
     "a literal"},
    {"UnknownHostInJobFile",
     {"--job", "{job}"},
     R"({"hosts": ["node001", "node404"]})",
     "aggtree: {job}: /hosts/1: unknown host 'node404': the fabric has no host of that name or "
     "GUID"},
    {"EmptyJob",
     {"--job", "{job}"},
     R"({"hosts": []})",
     "aggtree: {job}: the job has no ports (give \"hosts\" or \"ports\")"},
    {"UnknownJobKey",
     {"--job", "{job}"},
     R"({"hosts": ["node001"], "resources": {}})",
     "aggtree: {job}: /resources: unknown key \"resources\" (expected one of: job_id, hosts, "
     "ports, resource)"},
    {"QuotaOutOfRange",
     {"--job", "{job}"},
     R"({"hosts": ["node001"], "resource": {"quota": {"queue_pairs": -3}}})",
     "aggtree: {job}: /resource/quota/queue_pairs: value -3 is out of range (0 to 4294967295)"},
    {"WrongType",
     {"--job", "{job}"},
     R"({"hosts": ["node001"], "resource": {"exclusive_lock": 1}})",
     "aggtree: {job}: /resource/exclusive_lock: expected true or false, got a number"},
    {"MissingJobFile",
     {"--job", "/nonexistent/job.json"},
     "",
     "aggtree: /nonexistent/job.json: cannot open the file"},
    {"UnknownHostOnCommandLine",
     {"--hosts", "node001,node404"},
     "",
     "aggtree: --hosts: unknown host 'node404': the fabric has no host of that name or GUID"},
    {"UnknownHostInHostsFile",
     {"--hosts-from", "{job}"},
     "node001\n# comment\nnode404\n",
     "aggtree: {job}: line 3: unknown host 'node404': the fabric has no host of that name or "
     "GUID"},
    {"NoJob",
     {},
     "",
     "aggtree: build: no job given (use --job FILE, --hosts LIST, --hosts-from FILE or "
     "--random-hosts N)"},
    {"TwoJobSources",
     {"--hosts", "node001", "--random-hosts", "2"},
     "",
     "aggtree: build: give only one of --job, --hosts, --hosts-from and --random-hosts"},
    {"BadJobId",
     {"--hosts", "node001", "--job-id", "slurm_x"},
     "",
     "aggtree: --job-id: bad value 'slurm_x': expected PREFIX_NUMBER (e.g. slurm_4242) or a "
     "number"},
};

INSTANTIATE_TEST_SUITE_P(BadInputs, BadBuildTest, ::testing::ValuesIn(kBadBuilds),
                         [](const ::testing::TestParamInfo<BadBuild>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(BuildCommandTest, AMissingFabricExitsTwoNamingIt) {
    RunResult run = RunAggtree({"build", "--fabric", Path("nowhere.json"), "--hosts", "node001"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("aggtree: " + Path("nowhere.json") + ": ", 0), 0u) << run.err;
    EXPECT_EQ(Lines(run.err).size(), 1u) << run.err;
}

TEST_F(BuildCommandTest, ABadFabricFileExitsTwoWithItsJsonPath) {
    std::string fabric =
        WriteFile("fabric.json",
                  R"({"aggtree_fabric": 1, "switches": [{"guid": "0x1", "name": "a", "colour": 3}],
            "links": [], "hosts": []})");
    RunResult run = RunAggtree({"build", "--fabric", fabric, "--hosts", "node001"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("aggtree: " + fabric + ": /switches/0/colour: ", 0), 0u) << run.err;
    EXPECT_EQ(Lines(run.err).size(), 1u) << run.err;
}

TEST_F(BuildCommandTest, AFabricTheModelCannotHoldExitsTwo) {
    // Two switches with one GUID pass the file's syntax but not the model.
    std::string fabric = WriteFile("fabric.json",
                                   R"({"aggtree_fabric": 1,
            "switches": [{"guid": "0x1", "name": "a", "rank": 0},
                         {"guid": "0x1", "name": "b", "rank": 1}],
            "links": [], "hosts": [{"guid": "0x9", "name": "h", "switch": "a"}]})");
    RunResult run = RunAggtree({"build", "--fabric", fabric, "--hosts", "h"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("aggtree: " + fabric + ": ", 0), 0u) << run.err;
    EXPECT_EQ(Lines(run.err).size(), 1u) << run.err;
}

}  // namespace
}  // namespace aggtree_cli_test
