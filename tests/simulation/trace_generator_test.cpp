// Synthetic traces: reproducible from their seed, readable by the trace reader, in time
// order, with sizes from the asked distribution.
#include "simulation/trace_generator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "simulation/trace.h"

namespace {

using aggtree::GenerateTraceJsonLines;
using aggtree::SizeDistribution;
using aggtree::TraceGeneratorParams;

aggtree::Trace Read(const std::string& text) {
    return aggtree::ParseJsonLinesTrace(text, "generated");
}

bool IsPowerOfTwo(uint64_t n) {
    return n != 0 && (n & (n - 1)) == 0;
}

TEST(TraceGenerator, SameSeedSameTraceOtherSeedOtherTrace) {
    TraceGeneratorParams params;
    params.jobs = 50;
    EXPECT_EQ(GenerateTraceJsonLines(params, 64), GenerateTraceJsonLines(params, 64));
    TraceGeneratorParams other = params;
    other.seed = 2;
    EXPECT_NE(GenerateTraceJsonLines(params, 64), GenerateTraceJsonLines(other, 64));
}

TEST(TraceGenerator, EveryJobStartsAndEndsInTimeOrder) {
    TraceGeneratorParams params;
    params.jobs = 300;
    params.first_job = 100;
    const std::string text = GenerateTraceJsonLines(params, 64);
    const aggtree::Trace trace = Read(text);
    ASSERT_EQ(trace.jobs.size(), 300u);
    std::set<uint64_t> numbers;
    for (const aggtree::TraceJob& job : trace.jobs) {
        numbers.insert(job.job);
        ASSERT_TRUE(job.end.has_value());
        EXPECT_GE(*job.end - job.start, 0.001 - 1e-9);
        EXPECT_EQ(job.request, aggtree::HostRequest::kCount);
        // Default sizes: powers of two up to a quarter of the hosts.
        EXPECT_TRUE(IsPowerOfTwo(job.count)) << job.count;
        EXPECT_LE(job.count, 16u);
        // Times are whole milliseconds.
        EXPECT_DOUBLE_EQ(std::round(job.start * 1000) / 1000, job.start);
    }
    EXPECT_EQ(*numbers.begin(), 100u);
    EXPECT_EQ(*numbers.rbegin(), 399u);
    double last = -1;
    bool last_was_start = false;
    size_t line = 0;
    for (size_t start = 0; start < text.size(); start = text.find('\n', start) + 1) {
        ++line;
        nlohmann::json event =
            nlohmann::json::parse(text.substr(start, text.find('\n', start) - start));
        const double t = event["t"].get<double>();
        const bool is_start = event["op"] == "start";
        ASSERT_TRUE(t > last || (t == last && (is_start || !last_was_start))) << "line " << line;
        last = t;
        last_was_start = is_start;
    }
}

TEST(TraceGenerator, ArrivalRateAndMedianDurationAreMet) {
    TraceGeneratorParams params;
    params.jobs = 4000;
    params.rate_per_hour = 120;
    params.duration_median = 600;
    params.duration_sigma = 0.5;
    params.sizes = SizeDistribution::kFixed;
    params.fixed_size = 3;
    const aggtree::Trace trace = Read(GenerateTraceJsonLines(params, 10));
    double last_start = 0;
    std::vector<double> durations;
    for (const aggtree::TraceJob& job : trace.jobs) {
        EXPECT_EQ(job.count, 3u);
        last_start = std::max(last_start, job.start);
        durations.push_back(*job.end - job.start);
    }
    // 4000 arrivals at 120 an hour take about 33.3 hours (within 5%).
    EXPECT_NEAR(last_start / 3600, 4000.0 / 120, 4000.0 / 120 * 0.05);
    std::nth_element(durations.begin(), durations.begin() + durations.size() / 2, durations.end());
    EXPECT_NEAR(durations[durations.size() / 2], 600, 600 * 0.05);
}

TEST(TraceGenerator, SizesFollowTheirDistribution) {
    TraceGeneratorParams params;
    params.jobs = 2000;
    params.sizes = SizeDistribution::kPowersOfTwo;
    params.min_size = 3;
    params.max_size = 40;
    std::set<uint64_t> sizes;
    for (const aggtree::TraceJob& job : Read(GenerateTraceJsonLines(params, 128)).jobs) {
        sizes.insert(job.count);
    }
    EXPECT_EQ(sizes, (std::set<uint64_t>{4, 8, 16, 32}));

    params.sizes = SizeDistribution::kLogUniform;
    sizes.clear();
    size_t small = 0;
    for (const aggtree::TraceJob& job : Read(GenerateTraceJsonLines(params, 128)).jobs) {
        sizes.insert(job.count);
        small += job.count < 11 ? 1 : 0;  // log 3 .. log 41: below 11 is half the range
    }
    EXPECT_EQ(*sizes.begin(), 3u);
    EXPECT_EQ(*sizes.rbegin(), 40u);
    EXPECT_NEAR(static_cast<double>(small) / 2000, 0.5, 0.05);
}

TEST(TraceGenerator, ParametersThatMakeNoTraceAreRefused) {
    auto refusal = [](TraceGeneratorParams params, uint64_t hosts) {
        try {
            GenerateTraceJsonLines(params, hosts);
        } catch (const std::invalid_argument& error) {
            return std::string(error.what());
        }
        return std::string("no error");
    };
    TraceGeneratorParams params;
    EXPECT_EQ(refusal(params, 0), "the fabric has no hosts");
    TraceGeneratorParams fixed;
    fixed.sizes = SizeDistribution::kFixed;
    fixed.fixed_size = 9;
    EXPECT_EQ(refusal(fixed, 8), "a job size of 9 hosts does not fit the fabric's 8 hosts");
    TraceGeneratorParams large;
    large.max_size = 9;
    EXPECT_EQ(refusal(large, 8), "the largest job size 9 exceeds the fabric's 8 hosts");
    TraceGeneratorParams no_power;
    no_power.min_size = 5;
    no_power.max_size = 7;
    EXPECT_EQ(refusal(no_power, 8),
              "no power of two lies between the smallest job size 5 and the largest 7");
    TraceGeneratorParams rate;
    rate.rate_per_hour = 0;
    EXPECT_EQ(refusal(rate, 8), "the arrival rate must be a number of jobs per hour above 0");
    TraceGeneratorParams none;
    none.jobs = 0;
    EXPECT_EQ(refusal(none, 8), "the number of jobs must be at least 1");
}

TEST(TraceGenerator, SizeDistributionNames) {
    SizeDistribution sizes = SizeDistribution::kFixed;
    uint64_t fixed = 0;
    EXPECT_TRUE(aggtree::ParseSizeDistribution("log-uniform", sizes, fixed));
    EXPECT_EQ(sizes, SizeDistribution::kLogUniform);
    EXPECT_TRUE(aggtree::ParseSizeDistribution("powers-of-two", sizes, fixed));
    EXPECT_EQ(sizes, SizeDistribution::kPowersOfTwo);
    EXPECT_TRUE(aggtree::ParseSizeDistribution("12", sizes, fixed));
    EXPECT_EQ(sizes, SizeDistribution::kFixed);
    EXPECT_EQ(fixed, 12u);
    EXPECT_FALSE(aggtree::ParseSizeDistribution("0", sizes, fixed));
    EXPECT_FALSE(aggtree::ParseSizeDistribution("uniform", sizes, fixed));
}

}  // namespace
