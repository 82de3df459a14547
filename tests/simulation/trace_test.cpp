// Reading workload traces: JSON lines and the Standard Workload Format, told apart by
// content, and every problem named by file and line.
#include "simulation/trace.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using aggtree::HostRequest;
using aggtree::InputError;
using aggtree::ParseJsonLinesTrace;
using aggtree::ParseSwfTrace;
using aggtree::ParseTrace;
using aggtree::Trace;
using aggtree::TraceReadOptions;

// The problem of the InputError that reading `text` raises, as "<where>: <problem>".
template <typename Read>
std::string ErrorOf(Read read) {
    try {
        read();
    } catch (const InputError& error) {
        EXPECT_EQ(error.file(), "trace");
        return error.where() + ": " + error.problem();
    }
    return "no error";
}

std::string JsonLinesError(const std::string& text) {
    return ErrorOf([&] { ParseJsonLinesTrace(text, "trace"); });
}

std::string SwfError(const std::string& text) {
    return ErrorOf([&] { ParseSwfTrace(text, "trace"); });
}

// ---- JSON lines -----------------------------------------------------------------------

TEST(JsonLinesTrace, StartsAndEndsArePairedWhateverTheirOrder) {
    const Trace trace = ParseJsonLinesTrace(
        "{\"t\": 9.5, \"op\": \"end\", \"job\": 7}\n"
        "\n"
        "{\"t\": 0.0, \"op\": \"start\", \"job\": 7, \"hosts\": [\"node001\", \"node002\"]}\r\n"
        "{\"t\": 1, \"op\": \"start\", \"job\": 8, \"count\": 64}\n"
        "{\"t\": 2, \"op\": \"start\", \"job\": 9, \"random\": 3}\n"
        "{\"t\": 4, \"op\": \"end\", \"job\": 9}\n",
        "trace");
    EXPECT_EQ(trace.format, "jsonl");
    EXPECT_EQ(trace.file, "trace");
    EXPECT_TRUE(trace.skipped.empty());
    ASSERT_EQ(trace.jobs.size(), 3u);
    EXPECT_EQ(trace.jobs[0].job, 7u);
    EXPECT_EQ(trace.jobs[0].request, HostRequest::kNamed);
    EXPECT_EQ(trace.jobs[0].hosts, (std::vector<std::string>{"node001", "node002"}));
    EXPECT_EQ(trace.jobs[0].start, 0.0);
    EXPECT_EQ(trace.jobs[0].end, 9.5);
    EXPECT_EQ(trace.jobs[0].start_line, 3u);
    EXPECT_EQ(trace.jobs[0].end_line, 1u);
    EXPECT_EQ(trace.jobs[1].request, HostRequest::kCount);
    EXPECT_EQ(trace.jobs[1].count, 64u);
    EXPECT_FALSE(trace.jobs[1].end.has_value());
    EXPECT_EQ(trace.jobs[1].end_line, 0u);
    EXPECT_EQ(trace.jobs[2].request, HostRequest::kRandom);
    EXPECT_EQ(trace.jobs[2].count, 3u);
    EXPECT_EQ(trace.jobs[2].end, 4.0);
}

TEST(JsonLinesTrace, EveryProblemNamesItsLine) {
    const std::string start = "{\"t\": 0, \"op\": \"start\", \"job\": 1, \"count\": 2}\n";
    EXPECT_EQ(JsonLinesError(start + "{\"t\": 1, \"op\": \"start\", \"job\": 1, \"count\": 2}\n"),
              "line 2: job 1 starts twice (first at line 1)");
    EXPECT_EQ(JsonLinesError(start + "{\"t\": 1, \"op\": \"end\", \"job\": 1}\n"
                                     "{\"t\": 2, \"op\": \"end\", \"job\": 1}\n"),
              "line 3: job 1 ends twice (first at line 2)");
    EXPECT_EQ(JsonLinesError(start + "{\"t\": 1, \"op\": \"end\", \"job\": 4}\n"),
              "line 2: job 4 ends but never starts");
    EXPECT_EQ(JsonLinesError("{\"t\": 5, \"op\": \"start\", \"job\": 1, \"count\": 2}\n"
                             "{\"t\": 4.5, \"op\": \"end\", \"job\": 1}\n"),
              "line 2: job 1 ends (t=4.5) before it starts (t=5, line 1)");
    EXPECT_EQ(JsonLinesError(start + "{\"t\": 1, \"op\": \"stop\", \"job\": 1}\n"),
              "line 2: \"op\" must be \"start\" or \"end\"");
    EXPECT_EQ(JsonLinesError(start + "{\"t\": 1, \"op\": \"end\", \"job\": 1, \"host\": 3}\n"),
              "line 2: unknown key \"host\" (keys: t, op, job, hosts, count, random)");
    EXPECT_EQ(JsonLinesError("{\"t\": 0, \"op\": \"start\", \"job\": 1}\n"),
              "line 1: a start gives its hosts in exactly one of \"hosts\", \"count\" and "
              "\"random\"");
    EXPECT_EQ(JsonLinesError("{\"t\": 0, \"op\": \"start\", \"job\": 1, \"count\": 2, "
                             "\"random\": 2}\n"),
              "line 1: a start gives its hosts in exactly one of \"hosts\", \"count\" and "
              "\"random\"");
    EXPECT_EQ(JsonLinesError("{\"t\": 0, \"op\": \"start\", \"job\": 1, \"count\": 0}\n"),
              "line 1: \"count\" must be a number of hosts, a whole number above 0");
    EXPECT_EQ(JsonLinesError("{\"t\": 0, \"op\": \"start\", \"job\": 1, \"hosts\": []}\n"),
              "line 1: \"hosts\" must be a non-empty array of host names");
    EXPECT_EQ(JsonLinesError("{\"t\": \"0\", \"op\": \"start\", \"job\": 1, \"count\": 1}\n"),
              "line 1: \"t\" must be the event's time in seconds, a number");
    EXPECT_EQ(JsonLinesError("{\"t\": 0, \"op\": \"start\", \"job\": -1, \"count\": 1}\n"),
              "line 1: \"job\" must be the job's number, a whole number of 0 or more");
    EXPECT_EQ(JsonLinesError(start + "[1, 2]\n"), "line 2: expected one JSON object per line");
    EXPECT_EQ(JsonLinesError(start + start.substr(0, 20) + "\n").substr(0, 37),
              "line 2, column 21: malformed JSON: sy");
}

TEST(JsonLinesTrace, InputBeyondTheLimitsIsRefusedNamingItsLine) {
    const std::string start = "{\"t\": 0, \"op\": \"start\", \"job\": 1, \"count\": 2}\n";
    EXPECT_EQ(JsonLinesError(start + std::string(40, '[') + std::string(40, ']') + "\n"),
              "line 2: the JSON nests deeper than 32 levels (aggtree's files nest at most 4)");
    EXPECT_EQ(JsonLinesError(start + "{\"t\": 1e400, \"op\": \"end\", \"job\": 1}\n"),
              "line 2, column 11: malformed JSON: the number '1e400' is too large");
    const std::string long_name(1025, 'n');
    EXPECT_EQ(JsonLinesError("{\"t\": 0, \"op\": \"start\", \"job\": 1, \"hosts\": [\"" +
                             long_name + "\"]}\n"),
              "line 1: a host name is 1025 bytes long; aggtree accepts names of at most 1024 "
              "bytes");
    // The parser's words quote at most 40 characters of the token it stopped at.
    const std::string error = JsonLinesError(start + "{\"t\": " + std::string(5000, 'x') + "}\n");
    EXPECT_EQ(error.substr(0, 36), "line 2, column 7: malformed JSON: sy");
    EXPECT_LT(error.size(), 200u);
}

// ---- Standard Workload Format ---------------------------------------------------------

// One SWF job line: job, submit, wait, run time, allocated and requested processors.
std::string SwfJob(int job, int submit, int wait, int run, int allocated, int requested) {
    return std::to_string(job) + " " + std::to_string(submit) + " " + std::to_string(wait) + " " +
           std::to_string(run) + " " + std::to_string(allocated) + " -1 -1 " +
           std::to_string(requested) + " 3600 -1 1 3 1 -1 1 1 -1 -1\n";
}

TEST(SwfTrace, CommentsAreSkippedAndFieldsGiveStartEndAndSize) {
    const std::string text =
        "; Version: 2.2\n"
        ";  Computer: a cluster\n"
        "\n" +
        SwfJob(1, 0, 10, 100, 8, 8) + "  ; a comment after blanks\n" + SwfJob(2, 50, -1, 30, 3, 4) +
        "\t3\t60\t0\t20\t-1\t-1\t-1\t5\t-1\t-1\t1\t3\t1\t-1\t1\t1\t-1\t-1\n";
    TraceReadOptions options;
    options.procs_per_host = 4;
    const Trace trace = ParseSwfTrace(text, "trace", options);
    EXPECT_EQ(trace.format, "swf");
    ASSERT_EQ(trace.jobs.size(), 3u);
    EXPECT_EQ(trace.jobs[0].job, 1u);
    EXPECT_EQ(trace.jobs[0].start, 10.0);  // submit + wait
    EXPECT_EQ(trace.jobs[0].end, 110.0);
    EXPECT_EQ(trace.jobs[0].request, HostRequest::kCount);
    EXPECT_EQ(trace.jobs[0].count, 2u);  // 8 processors, 4 per host
    EXPECT_EQ(trace.jobs[0].start_line, 4u);
    EXPECT_EQ(trace.jobs[1].start, 50.0);  // a wait of -1 counts as 0
    EXPECT_EQ(trace.jobs[1].end, 80.0);
    EXPECT_EQ(trace.jobs[1].count, 1u);  // 3 processors: ceil(3 / 4)
    EXPECT_EQ(trace.jobs[2].count, 2u);  // allocated -1: the 5 requested
    EXPECT_EQ(trace.jobs[2].start, 60.0);
    EXPECT_TRUE(trace.skipped.empty());
}

TEST(SwfTrace, JobsWithoutSizeRunTimeOrSubmitTimeAreSkippedAndCounted) {
    const Trace trace = ParseSwfTrace(SwfJob(1, 0, 0, 10, 4, 4) + SwfJob(2, 0, 0, -1, 4, 4) +
                                          SwfJob(3, 0, 0, 10, -1, -1) + SwfJob(4, 0, 0, 10, 0, -1) +
                                          SwfJob(5, -1, 0, 10, 4, 4) + SwfJob(6, 0, 0, -1, 4, 4),
                                      "trace");
    ASSERT_EQ(trace.jobs.size(), 1u);
    EXPECT_EQ(trace.jobs[0].job, 1u);
    EXPECT_EQ(trace.skipped, (std::map<std::string, uint64_t>{
                                 {"no run time", 2}, {"no size", 2}, {"no submit time", 1}}));
}

TEST(SwfTrace, MalformedLineIsNamed) {
    const std::string good = SwfJob(1, 0, 0, 10, 4, 4);
    EXPECT_EQ(SwfError("; header\n" + good + "2 0 0 10 4\n"),
              "line 3: expected 18 whitespace-separated numbers (Standard Workload Format; a "
              "JSON-lines trace starts with '{'), found 5 fields");
    EXPECT_EQ(SwfError(good + "2 0 0 ten 4 -1 -1 4 3600 -1 1 3 1 -1 1 1 -1 -1\n"),
              "line 2: field 4 is not a number: 'ten'");
    EXPECT_EQ(SwfError(good + SwfJob(1, 5, 0, 10, 4, 4)),
              "line 2: job 1 appears twice (first at line 1)");
    EXPECT_EQ(SwfError("2.5 0 0 10 4 -1 -1 4 3600 -1 1 3 1 -1 1 1 -1 -1\n"),
              "line 1: field 1 (job number) must be a whole number from 0 to 2^53");
    EXPECT_EQ(SwfError(good + "x\n"),
              "line 2: expected 18 whitespace-separated numbers (Standard Workload Format; a "
              "JSON-lines trace starts with '{'), found 1 field");
}

TEST(SwfTrace, NumbersBeyondWhatAJobCanBeAreRefusedOrHeld) {
    EXPECT_EQ(SwfError("1e300 0 0 10 4 -1 -1 4 3600 -1 1 3 1 -1 1 1 -1 -1\n"),
              "line 1: field 1 (job number) must be a whole number from 0 to 2^53");
    EXPECT_EQ(SwfError("1 1e308 0 1e308 4 -1 -1 4 3600 -1 1 3 1 -1 1 1 -1 -1\n"),
              "line 1: the job's start or end time is too large");
    const std::string long_field(5000, '7');
    EXPECT_EQ(SwfError("1 0 0 " + long_field + "x 4 -1 -1 4 3600 -1 1 3 1 -1 1 1 -1 -1\n"),
              "line 1: field 4 is not a number: '" + std::string(40, '7') + "...'");
    // Far more processors than any fabric has hosts: held at 2^53 hosts, skipped by the
    // replay as larger than the fabric.
    const Trace trace =
        ParseSwfTrace("1 0 0 10 1e300 -1 -1 4 3600 -1 1 3 1 -1 1 1 -1 -1\n", "trace");
    ASSERT_EQ(trace.jobs.size(), 1u);
    EXPECT_EQ(trace.jobs[0].count, uint64_t{1} << 53);
}

TEST(SwfTrace, DecimalFieldsAreNumbers) {
    const Trace trace =
        ParseSwfTrace("1 0.5 1.5 10.25 4 12.75 -1 4 3600 -1 1 3 1 -1 1 1 -1 -1\n", "trace");
    ASSERT_EQ(trace.jobs.size(), 1u);
    EXPECT_EQ(trace.jobs[0].start, 2.0);
    EXPECT_EQ(trace.jobs[0].end, 12.25);
}

// ---- recognising the format -----------------------------------------------------------

TEST(TraceFormat, RecognisedByContent) {
    EXPECT_EQ(
        ParseTrace("\n  {\"t\": 0, \"op\": \"start\", \"job\": 1, \"count\": 1}\n", "trace").format,
        "jsonl");
    EXPECT_EQ(ParseTrace("; only a header\n", "trace").format, "swf");
    EXPECT_EQ(ParseTrace(SwfJob(1, 0, 0, 10, 4, 4), "trace").format, "swf");
    EXPECT_EQ(ErrorOf([] { ParseTrace(" \n\n", "trace"); }),
              ": the file is empty: expected a trace in JSON lines or in the Standard Workload "
              "Format");
}

}  // namespace
