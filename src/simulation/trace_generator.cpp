#include "simulation/trace_generator.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <numbers>
#include <random>
#include <stdexcept>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

namespace aggtree {

bool ParseSizeDistribution(std::string_view text, SizeDistribution& sizes, uint64_t& fixed_size) {
    if (text == "powers-of-two") {
        sizes = SizeDistribution::kPowersOfTwo;
        return true;
    }
    if (text == "log-uniform") {
        sizes = SizeDistribution::kLogUniform;
        return true;
    }
    uint64_t size = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), size);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || size == 0) {
        return false;
    }
    sizes = SizeDistribution::kFixed;
    fixed_size = size;
    return true;
}

namespace {

[[noreturn]] void Refuse(const std::string& what) {
    throw std::invalid_argument(what);
}

// Draws of the generator, computed here rather than by the standard distributions so that
// a seed gives the same trace everywhere.
class Draws {
public:
    explicit Draws(uint32_t seed) : m_engine(seed) {}

    // Uniform in [0, 1).
    double Unit() { return static_cast<double>(m_engine() >> 11) * 0x1.0p-53; }

    // Uniform among the n whole numbers 0 .. n-1.
    uint64_t Below(uint64_t n) { return m_engine() % n; }

    // Exponential with the given mean.
    double Exponential(double mean) { return -std::log(1.0 - Unit()) * mean; }

    // Standard normal (Box-Muller).
    double Normal() {
        double radius = std::sqrt(-2.0 * std::log(1.0 - Unit()));
        return radius * std::cos(2.0 * std::numbers::pi * Unit());
    }

private:
    std::mt19937_64 m_engine;
};

int FloorLog2(uint64_t n) {
    int k = 0;
    while (n > 1) {
        n >>= 1;
        ++k;
    }
    return k;
}

int CeilLog2(uint64_t n) {
    int k = FloorLog2(n);
    return (uint64_t{1} << k) == n ? k : k + 1;
}

struct Sizes {
    SizeDistribution kind;
    uint64_t fixed = 1;
    uint64_t min = 1;
    uint64_t max = 1;
};

Sizes CheckSizes(const TraceGeneratorParams& params, uint64_t host_count) {
    if (host_count == 0) {
        Refuse("the fabric has no hosts");
    }
    Sizes sizes{params.sizes, params.fixed_size, params.min_size,
                params.max_size == 0 ? std::max<uint64_t>(1, host_count / 4) : params.max_size};
    const std::string hosts_text = std::to_string(host_count) + " hosts";
    if (sizes.kind == SizeDistribution::kFixed) {
        if (sizes.fixed == 0 || sizes.fixed > host_count) {
            Refuse("a job size of " + std::to_string(sizes.fixed) +
                   " hosts does not fit the fabric's " + hosts_text);
        }
        return sizes;
    }
    if (sizes.max > host_count) {
        Refuse("the largest job size " + std::to_string(sizes.max) + " exceeds the fabric's " +
               hosts_text);
    }
    if (sizes.min == 0 || sizes.min > sizes.max) {
        Refuse("the smallest job size must be from 1 to the largest (" + std::to_string(sizes.max) +
               ")");
    }
    if (sizes.kind == SizeDistribution::kPowersOfTwo &&
        CeilLog2(sizes.min) > FloorLog2(sizes.max)) {
        Refuse("no power of two lies between the smallest job size " + std::to_string(sizes.min) +
               " and the largest " + std::to_string(sizes.max));
    }
    return sizes;
}

uint64_t DrawSize(const Sizes& sizes, Draws& draws) {
    switch (sizes.kind) {
        case SizeDistribution::kFixed:
            return sizes.fixed;
        case SizeDistribution::kPowersOfTwo: {
            const int low = CeilLog2(sizes.min);
            const int high = FloorLog2(sizes.max);
            return uint64_t{1} << (low + static_cast<int>(draws.Below(high - low + 1)));
        }
        case SizeDistribution::kLogUniform: {
            const double low = std::log(static_cast<double>(sizes.min));
            const double high = std::log(static_cast<double>(sizes.max) + 1.0);
            const double size = std::floor(std::exp(low + draws.Unit() * (high - low)));
            return std::clamp(static_cast<uint64_t>(size), sizes.min, sizes.max);
        }
    }
    return sizes.min;
}

struct GeneratedEvent {
    int64_t time_ms;
    int phase;  // 0 end, 1 start: ends first at one instant
    uint64_t job;
    uint64_t size;

    bool operator<(const GeneratedEvent& other) const {
        return std::tie(time_ms, phase, job) < std::tie(other.time_ms, other.phase, other.job);
    }
};

}  // namespace

std::string GenerateTraceJsonLines(const TraceGeneratorParams& params, uint64_t host_count) {
    if (params.jobs == 0) {
        Refuse("the number of jobs must be at least 1");
    }
    if (!(params.rate_per_hour > 0) || !std::isfinite(params.rate_per_hour)) {
        Refuse("the arrival rate must be a number of jobs per hour above 0");
    }
    if (!(params.duration_median > 0) || !std::isfinite(params.duration_median)) {
        Refuse("the median run time must be a number of seconds above 0");
    }
    if (!(params.duration_sigma >= 0) || !std::isfinite(params.duration_sigma)) {
        Refuse("the run-time sigma must be a number of 0 or more");
    }
    const Sizes sizes = CheckSizes(params, host_count);
    Draws draws(params.seed);
    std::vector<GeneratedEvent> events;
    events.reserve(params.jobs * 2);
    double arrival = 0;
    for (uint64_t i = 0; i < params.jobs; ++i) {
        arrival += draws.Exponential(3600.0 / params.rate_per_hour);
        const uint64_t size = DrawSize(sizes, draws);
        const double duration = std::min(
            1e9, params.duration_median * std::exp(params.duration_sigma * draws.Normal()));
        const auto start_ms = static_cast<int64_t>(std::llround(arrival * 1000.0));
        const int64_t length_ms = std::max<int64_t>(1, std::llround(duration * 1000.0));
        const uint64_t job = params.first_job + i;
        events.push_back({start_ms, 1, job, size});
        events.push_back({start_ms + length_ms, 0, job, size});
    }
    std::sort(events.begin(), events.end());
    std::string text;
    for (const GeneratedEvent& event : events) {
        nlohmann::ordered_json line;
        line["t"] = static_cast<double>(event.time_ms) / 1000.0;
        line["op"] = event.phase == 1 ? "start" : "end";
        line["job"] = event.job;
        if (event.phase == 1) {
            line["count"] = event.size;
        }
        text += line.dump();
        text += '\n';
    }
    return text;
}

}  // namespace aggtree
