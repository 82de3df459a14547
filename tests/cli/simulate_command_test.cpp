// aggtree simulate and aggtree trace through the binary: the hand-made example trace
// event by event, SWF traces, the JSON summary's fields, the plot, synthetic traces, and
// bad input named by file and line with exit status 2.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

using Json = nlohmann::json;

// The output with every CreateTree time ("123 us") replaced by "N us".
std::string WithoutTimes(const std::string& text) {
    static const std::regex kMicroseconds("[0-9]+ us");
    return std::regex_replace(text, kMicroseconds, "N us");
}

class SimulateCommandTest : public CliTest {};

// The hand-made example: every event and the summary as worked out by hand (see
// docs/tool.md for the reasoning, event by event).
TEST_F(SimulateCommandTest, HandMadeTraceEventsAndSummary) {
    RunResult run = RunAggtree({"simulate", "--fabric", Example("two-tree-ids.json"), "--trace",
                                Example("two-tree-ids-trace.jsonl"), "--events"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const std::string fabric = Example("two-tree-ids.json");
    const std::string trace = Example("two-tree-ids-trace.jsonl");
    EXPECT_EQ(WithoutTimes(run.out),
              "t=0 job 1 start: 2 hosts on 2 leaf switches: served, tree 0 rooted at spine-1 (3 "
              "switches), N us\n"
              "t=1 job 2 start: 2 hosts on 2 leaf switches: served, tree 1 rooted at spine-2 (3 "
              "switches), N us\n"
              "t=2 job 3 start: 2 hosts on 2 leaf switches: refused: Leaf switch 'leaf-1' "
              "cannot take one more tree (no free tree id, or not enough free resources for the "
              "job's quota), N us\n"
              "t=3 job 4 start: skipped: hosts busy\n"
              "t=4 job 1 end: tree 0 released\n"
              "t=5 job 5 start: skipped: hosts busy\n"
              "t=5 job 6 start: 2 hosts on 2 leaf switches: served, tree 0 rooted at spine-1 (3 "
              "switches), N us\n"
              "t=6 job 2 end: tree 1 released\n"
              "t=6 job 3 end: ran without a tree\n"
              "t=6 job 4 end: never started\n"
              "t=6 job 5 end: never started\n"
              "t=6 job 7 start: 2 hosts on 2 leaf switches: served, tree 1 rooted at spine-2 (3 "
              "switches), N us\n"
              "t=7 job 6 end: tree 0 released\n"
              "t=8 job 8 start: 1 host on 1 leaf switch: served, tree 0 rooted at leaf-1 (1 "
              "switch), N us\n"
              "t=8 job 8 end: tree 0 released\n"
              "t=9 job 7 end: tree 1 released\n"
              "\n"
              "Replayed " +
                  trace + " (jsonl) on " + fabric +
                  ", placement compact, t=0 to t=9 s\n"
                  "\n"
                  "Jobs: 8 in the trace, 6 started, 5 served with a tree, 1 refused, 0 internal "
                  "failures, 2 skipped\n"
                  "Refused:\n"
                  "       1  Leaf switch cannot take one more tree (no free tree id, or not "
                  "enough free resources for the job's quota)\n"
                  "Skipped:\n"
                  "       2  hosts busy\n"
                  "Node-hours with a tree: 77.8% (0.00778 of 0.01)\n"
                  "Tree ids in use: peak 2 at t=1; first ran out at t=1 on leaf-1\n"
                  "Active trees per switch at the peak (t=1, 2 trees held): max 2 (leaf-1), mean "
                  "1.50\n"
                  "  histogram (active trees: switches): 1:2 2:2\n"
                  "CreateTree latency: median N us, p99 N us, max N us (6 requests)\n"
                  "Trees still held at the end: 0\n");
}

TEST_F(SimulateCommandTest, JsonSummaryCarriesTheNamedFields) {
    RunResult run = RunAggtree({"simulate", "--fabric", Example("two-tree-ids.json"), "--trace",
                                Example("two-tree-ids-trace.jsonl"), "--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    Json summary = Json::parse(run.out);
    EXPECT_EQ(summary["jobs"], 8);
    EXPECT_EQ(summary["started"], 6);
    EXPECT_EQ(summary["served"], 5);
    EXPECT_EQ(summary["refused"]["total"], 1);
    EXPECT_EQ(summary["refused"]["reasons"][0]["reason"],
              "Leaf switch cannot take one more tree (no free tree id, or not enough free "
              "resources for the job's quota)");
    EXPECT_EQ(summary["refused"]["reasons"][0]["first_job"], 3);
    EXPECT_EQ(summary["internal_failures"]["total"], 0);
    EXPECT_EQ(summary["skipped"]["total"], 2);
    EXPECT_EQ(summary["skipped"]["reasons"][0]["reason"], "hosts busy");
    EXPECT_NEAR(summary["aggregated_node_hours_share"].get<double>(), 28.0 / 36.0, 1e-6);
    EXPECT_EQ(summary["peak_tree_ids_in_use"], 2);
    EXPECT_EQ(summary["tree_ids_first_ran_out_at"], 1.0);
    EXPECT_EQ(summary["tree_ids_ran_out_on"], "leaf-1");
    EXPECT_EQ(summary["switch_load"]["max"], 2);
    EXPECT_EQ(summary["switch_load"]["mean"], 1.5);
    EXPECT_EQ(summary["switch_load"]["histogram"], Json::parse("[0, 2, 2]"));
    EXPECT_EQ(summary["latency_us"]["requests"], 6);
    for (const char* figure : {"median", "p99", "max"}) {
        EXPECT_TRUE(summary["latency_us"][figure].is_number()) << figure;
    }
    EXPECT_EQ(summary["trees_held_at_end"], 0);
}

TEST_F(SimulateCommandTest, JsonEventsAreOneObjectPerLineFollowedByTheSummary) {
    RunResult run = RunAggtree({"simulate", "--fabric", Example("two-tree-ids.json"), "--trace",
                                Example("two-tree-ids-trace.jsonl"), "--json", "--events"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    std::vector<std::string> lines = Lines(run.out);
    ASSERT_EQ(lines.size(), 17u);
    Json first = Json::parse(lines[0]);
    EXPECT_EQ(first["job"], 1);
    EXPECT_EQ(first["event"], "start");
    EXPECT_EQ(first["outcome"], "served");
    EXPECT_EQ(first["tree_id"], 0);
    EXPECT_EQ(first["root"], "spine-1");
    EXPECT_EQ(first["switches"], 3);
    EXPECT_EQ(first["hosts"], 2);
    Json refused = Json::parse(lines[2]);
    EXPECT_EQ(refused["outcome"], "refused");
    EXPECT_EQ(refused["reason"],
              "Leaf switch 'leaf-1' cannot take one more tree (no free tree id, or not enough "
              "free resources for the job's quota)");
    EXPECT_EQ(Json::parse(lines[3])["outcome"], "skipped");
    EXPECT_EQ(Json::parse(lines[4])["outcome"], "ended");
    EXPECT_EQ(Json::parse(lines[16])["served"], 5);
}

TEST_F(SimulateCommandTest, SwfTraceWithCommentsAndUnknownFields) {
    RunResult run = RunAggtree({"simulate", "--fabric", Example("fat-tree.json"), "--trace",
                                Example("workload.swf"), "--procs-per-host", "4", "--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    Json summary = Json::parse(run.out);
    EXPECT_EQ(summary["trace_format"], "swf");
    EXPECT_EQ(summary["jobs"], 6);
    EXPECT_EQ(summary["started"], 3);
    EXPECT_EQ(summary["served"], 3);
    EXPECT_EQ(summary["skipped"]["total"], 3);
    Json reasons = Json::object();
    for (const Json& reason : summary["skipped"]["reasons"]) {
        reasons[reason["reason"].get<std::string>()] = reason["count"];
    }
    EXPECT_EQ(reasons, Json::parse(R"({"no run time": 1, "no size": 1, "too few free hosts": 1})"));
    // Job 1: 8 processors on 2 hosts for an hour; job 2: 16 on 4 for half an hour (its wait
    // of -1 counts as 0); job 6: 8 on 2 for 10 minutes.
    EXPECT_NEAR(summary["node_hours"]["total"].get<double>(), 2 + 2 + 2.0 / 6, 1e-6);
    EXPECT_EQ(summary["last_time"], 3600.0);
}

TEST_F(SimulateCommandTest, MalformedSwfLineIsNamedWithExitStatusTwo) {
    std::string trace = WriteFile("bad.swf",
                                  "; a header\n"
                                  "1 0 0 60 4 -1 -1 4 60 -1 1 1 1 -1 1 -1 -1 -1\n"
                                  "2 10 0 60 4 -1 -1 4 60 -1 1 1 1\n");
    RunResult run =
        RunAggtree({"simulate", "--fabric", Example("fat-tree.json"), "--trace", trace});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "aggtree: " + trace +
                           ": line 3: expected 18 whitespace-separated numbers (Standard Workload "
                           "Format; a JSON-lines trace starts with '{'), found 13 fields\n");
}

TEST_F(SimulateCommandTest, BadJsonLinesTraceIsNamedWithExitStatusTwo) {
    std::string unknown_host =
        WriteFile("unknown.jsonl",
                  "{\"t\": 0, \"op\": \"start\", \"job\": 1, \"hosts\": [\"node001\"]}\n"
                  "{\"t\": 1, \"op\": \"start\", \"job\": 2, \"hosts\": [\"node404\"]}\n");
    RunResult run =
        RunAggtree({"simulate", "--fabric", Example("fat-tree.json"), "--trace", unknown_host});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "aggtree: " + unknown_host +
                           ": line 2: unknown host 'node404': the fabric has no host of that name "
                           "or GUID\n");

    std::string orphan = WriteFile("orphan.jsonl", "{\"t\": 1, \"op\": \"end\", \"job\": 2}\n");
    run = RunAggtree({"simulate", "--fabric", Example("fat-tree.json"), "--trace", orphan});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err, "aggtree: " + orphan + ": line 1: job 2 ends but never starts\n");

    run = RunAggtree(
        {"simulate", "--fabric", Example("fat-tree.json"), "--trace", Path("missing.jsonl")});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_NE(run.err.find("aggtree: " + Path("missing.jsonl") + ": cannot read the file"),
              std::string::npos)
        << run.err;
}

TEST_F(SimulateCommandTest, BuildersLogIsShownOnlyWhenAskedFor) {
    RunResult quiet = RunAggtree({"simulate", "--fabric", Example("two-tree-ids.json"), "--trace",
                                  Example("two-tree-ids-trace.jsonl")});
    ASSERT_EQ(quiet.exit_code, 0) << quiet.err;
    EXPECT_EQ(quiet.err, "");
    RunResult logged = RunAggtree({"simulate", "--fabric", Example("two-tree-ids.json"), "--trace",
                                   Example("two-tree-ids-trace.jsonl"), "--log-level", "TREES=4",
                                   "--log-format", "jsonl", "--log-file", Path("replay.log")});
    ASSERT_EQ(logged.exit_code, 0) << logged.err;
    EXPECT_EQ(logged.err, "");
    EXPECT_EQ(WithoutTimes(logged.out), WithoutTimes(quiet.out));
    std::vector<std::string> lines = Lines(ReadFile(Path("replay.log")));
    ASSERT_FALSE(lines.empty());
    size_t picked_roots = 0;
    for (const std::string& line : lines) {
        Json record = Json::parse(line);
        EXPECT_EQ(record["module"], "TREES  ");
        picked_roots +=
            record["message"].get<std::string>().rfind("Post-bottomup picked root=", 0) == 0;
    }
    EXPECT_EQ(picked_roots, 5u) << "one root per served job";
}

TEST_F(SimulateCommandTest, BadOptionsAreUsageErrors) {
    RunResult run = RunAggtree({"simulate", "--fabric", Example("fat-tree.json"), "--trace",
                                Example("two-tree-ids-trace.jsonl"), "--placement", "packed"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err,
              "aggtree: --placement: bad value 'packed': expected compact, linear or random\n");
    run = RunAggtree({"simulate", "--fabric", Example("fat-tree.json")});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err, "aggtree: --trace is required (see 'aggtree --help')\n");
}

TEST_F(SimulateCommandTest, PlotIsAPngPicture) {
    RunResult probe =
        RunAggtree({"simulate", "--fabric", Example("two-tree-ids.json"), "--trace",
                    Example("two-tree-ids-trace.jsonl"), "--plot", Path("replay.png")});
    if (probe.exit_code == 2 && probe.err.find("gnuplot is not on PATH") != std::string::npos) {
        GTEST_SKIP() << "gnuplot is not installed (scripts/install-deps.sh installs it)";
    }
    ASSERT_EQ(probe.exit_code, 0) << probe.err;
    const std::string png = ReadFile(Path("replay.png"));
    ASSERT_GT(png.size(), 1000u);
    EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));

    // A trace with no job at all still makes a picture, without complaints.
    std::string empty = WriteFile("empty.swf", "; no jobs\n");
    RunResult nothing = RunAggtree({"simulate", "--fabric", Example("fat-tree.json"), "--trace",
                                    empty, "--plot", Path("empty.png")});
    ASSERT_EQ(nothing.exit_code, 0) << nothing.err;
    EXPECT_EQ(nothing.err, "");
    EXPECT_EQ(ReadFile(Path("empty.png")).substr(0, 4), "\x89PNG");
}

TEST_F(SimulateCommandTest, PlotWithoutGnuplotIsRefusedBeforeAnythingRuns) {
    RunResult run = RunAggtree({"simulate", "--fabric", Example("two-tree-ids.json"), "--trace",
                                Example("two-tree-ids-trace.jsonl"), "--plot", Path("replay.png")},
                               {{"PATH", "/nonexistent"}});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "aggtree: --plot: gnuplot is not on PATH (install gnuplot-nox)\n");
}

// ---- aggtree trace ---------------------------------------------------------------------

TEST_F(SimulateCommandTest, GeneratedTraceReplaysOnItsFabric) {
    ASSERT_EQ(RunAggtree({"generate", "fat-tree", "--levels", "2", "--radix", "8", "-o",
                          Path("fabric.json")})
                  .exit_code,
              0);
    RunResult trace =
        RunAggtree({"trace", "--fabric", Path("fabric.json"), "--jobs", "200", "--rate", "600",
                    "--sizes", "log-uniform", "--max-size", "6", "--duration-median", "60",
                    "--seed", "5", "-o", Path("trace.jsonl")});
    ASSERT_EQ(trace.exit_code, 0) << trace.err;
    EXPECT_EQ(trace.out, "");
    std::vector<std::string> lines = Lines(ReadFile(Path("trace.jsonl")));
    ASSERT_EQ(lines.size(), 400u);
    Json first = Json::parse(lines[0]);
    EXPECT_EQ(first["op"], "start");
    EXPECT_TRUE(first["count"].is_number_unsigned());

    RunResult again = RunAggtree({"trace", "--fabric", Path("fabric.json"), "--jobs", "200",
                                  "--rate", "600", "--sizes", "log-uniform", "--max-size", "6",
                                  "--duration-median", "60", "--seed", "5"});
    EXPECT_EQ(again.out, ReadFile(Path("trace.jsonl"))) << "the same seed gives the same trace";

    RunResult run = RunAggtree({"simulate", "--fabric", Path("fabric.json"), "--trace",
                                Path("trace.jsonl"), "--placement", "random", "--json"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    Json summary = Json::parse(run.out);
    EXPECT_EQ(summary["jobs"], 200);
    EXPECT_EQ(summary["started"].get<int>() + summary["skipped"]["total"].get<int>(), 200);
    EXPECT_EQ(summary["served"].get<int>() + summary["refused"]["total"].get<int>() +
                  summary["internal_failures"]["total"].get<int>(),
              summary["started"].get<int>());
    EXPECT_GT(summary["served"].get<int>(), 0);
    EXPECT_EQ(summary["trees_held_at_end"], 0);
    EXPECT_EQ(summary["placement"], "random");
}

TEST_F(SimulateCommandTest, TraceParametersThatMakeNoTraceAreUsageErrors) {
    RunResult run =
        RunAggtree({"trace", "--fabric", Example("fat-tree.json"), "--sizes", "uniform"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err,
              "aggtree: --sizes: bad value 'uniform': expected powers-of-two, log-uniform or a "
              "number of hosts\n");
    run = RunAggtree({"trace", "--fabric", Example("fat-tree.json"), "--sizes", "9"});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err, "aggtree: trace: a job size of 9 hosts does not fit the fabric's 8 hosts\n");
    EXPECT_EQ(run.out, "");
}

}  // namespace
}  // namespace aggtree_cli_test
