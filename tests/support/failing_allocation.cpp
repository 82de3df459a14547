#include "support/failing_allocation.h"

#include <cstdlib>
#include <new>

namespace {
// Size of the allocation to fail; 0 when disarmed.
std::size_t g_fail_allocation_of_size = 0;
// Allocations left before the one to fail (1: the next); 0 when disarmed.
std::size_t g_allocations_until_failure = 0;
bool g_armed_failure_thrown = false;
}  // namespace

void FailNextAllocationOfSize(std::size_t size) {
    g_fail_allocation_of_size = size;
}

void FailAllocationNumber(std::size_t number) {
    g_allocations_until_failure = number;
    g_armed_failure_thrown = false;
}

bool ArmedAllocationFailed() {
    return g_armed_failure_thrown;
}

void* operator new(std::size_t size) {
    if (g_fail_allocation_of_size != 0 && size == g_fail_allocation_of_size) {
        g_fail_allocation_of_size = 0;
        throw std::bad_alloc();
    }
    if (g_allocations_until_failure != 0 && --g_allocations_until_failure == 0) {
        g_armed_failure_thrown = true;
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
