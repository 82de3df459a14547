// libFuzzer target: the tree builder on a fabric and job made from the bytes (fuzz_entries.h).
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzz_entries.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string broken = aggtree::fuzz::FuzzCreateTree(data, size);
    if (!broken.empty()) {
        std::fprintf(stderr, "%s\n", broken.c_str());
        std::abort();
    }
    return 0;
}
