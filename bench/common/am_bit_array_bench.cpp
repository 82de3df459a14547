// Cost of the free-tree-id search: AND one switch's free ids in, then find the first.
#include <benchmark/benchmark.h>

#include "common/am_bit_array.h"

namespace {

void BM_BitArrayAndFindFirst(benchmark::State& state) {
    const uint64_t bits = static_cast<uint64_t>(state.range(0));
    AMBitArray switch_ids(bits);
    for (uint64_t i = 0; i + 1 < bits; ++i) {
        switch_ids.SetBit2False(i);  // only the last id is free: the scan goes all the way
    }
    for (auto _ : state) {
        AMBitArray choice(bits);
        choice.And(switch_ids);
        uint64_t first = 0;
        benchmark::DoNotOptimize(choice.FindFirstSet(first));
        benchmark::DoNotOptimize(first);
    }
}
BENCHMARK(BM_BitArrayAndFindFirst)->Arg(128)->Arg(1024)->Arg(8192)->Arg(65536);

}  // namespace
