// Synthetic workloads: Poisson arrivals, job sizes from a distribution and log-normal run
// times, written as a JSON-lines trace whose jobs ask for a count of hosts (placed by the
// replay).  The draws use their own arithmetic on a 64-bit Mersenne Twister, so a seed
// gives the same trace with every standard library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace aggtree {

enum class SizeDistribution : uint8_t {
    kPowersOfTwo,  // a power of two between the smallest and the largest size, each alike
    kLogUniform,   // uniform in log(size) between the smallest and the largest size
    kFixed,        // always the same size
};

struct TraceGeneratorParams {
    uint64_t jobs = 1000;
    double rate_per_hour = 60;  // mean arrivals per hour
    SizeDistribution sizes = SizeDistribution::kPowersOfTwo;
    uint64_t fixed_size = 1;        // kFixed
    uint64_t min_size = 1;          // hosts
    uint64_t max_size = 0;          // hosts; 0: a quarter of the fabric's hosts (at least 1)
    double duration_median = 3600;  // seconds: the log-normal's median
    double duration_sigma = 1.0;    // the log-normal's sigma (of the natural logarithm)
    uint32_t seed = 1;
    uint64_t first_job = 1;  // jobs are numbered from it
};

// "powers-of-two", "log-uniform" or a size in hosts (fixed); false for any other text.
bool ParseSizeDistribution(std::string_view text, SizeDistribution& sizes, uint64_t& fixed_size);

// The trace's text for a fabric of `host_count` hosts: one start and one end per job,
// in time order (ends before starts at one instant), times in seconds rounded to the
// millisecond and every job at least a millisecond long.  Throws std::invalid_argument,
// with a message for the user, for parameters that make no trace.
std::string GenerateTraceJsonLines(const TraceGeneratorParams& params, uint64_t host_count);

}  // namespace aggtree
