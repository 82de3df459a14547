#include "cli/memory_reserve.h"

#include <cstdlib>
#include <new>

namespace aggtree::cli {

namespace {

void* g_reserve = nullptr;
constexpr size_t kSmallestReserve = size_t{64} << 10;

// Gives the reserve back and fails the allocation that ran out: the caller unwinds to
// its report with the reserve free for destructors on the way.
void ReleaseReserveAndFail() {
    std::free(g_reserve);
    g_reserve = nullptr;
    throw std::bad_alloc();
}

}  // namespace

MemoryReserve::MemoryReserve(size_t bytes) {
    // Under a tight limit, as much as there is: a little reserve still saves the report.
    for (size_t size = bytes; g_reserve == nullptr && size >= kSmallestReserve; size /= 2) {
        g_reserve = std::malloc(size);
    }
    std::set_new_handler(ReleaseReserveAndFail);
}

MemoryReserve::~MemoryReserve() {
    std::set_new_handler(nullptr);
    std::free(g_reserve);
    g_reserve = nullptr;
}

}  // namespace aggtree::cli
