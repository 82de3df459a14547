#include "support/failing_allocation.h"

#include <cstdlib>
#include <new>

namespace {
// Size of the allocation to fail; 0 when disarmed.
std::size_t g_fail_allocation_of_size = 0;
}  // namespace

void FailNextAllocationOfSize(std::size_t size) {
    g_fail_allocation_of_size = size;
}

void* operator new(std::size_t size) {
    if (g_fail_allocation_of_size != 0 && size == g_fail_allocation_of_size) {
        g_fail_allocation_of_size = 0;
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
