#include "support/failing_allocation.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstdlib>
#include <new>

namespace {
// Size of the allocation to fail; 0 when disarmed.
std::size_t g_fail_allocation_of_size = 0;
// Allocations of that size still to let through before the failing one.
std::size_t g_allocations_of_size_to_skip = 0;
// posix_memalign calls still to fail.
std::size_t g_aligned_failures = 0;
// Allocations left before the one to fail (1: the next); 0 when disarmed.
std::size_t g_allocations_until_failure = 0;
bool g_armed_failure_thrown = false;
}  // namespace

void FailNextAllocationOfSize(std::size_t size) {
    FailNthAllocationOfSize(size, 1);
}

void FailNthAllocationOfSize(std::size_t size, std::size_t nth) {
    g_fail_allocation_of_size = size;
    g_allocations_of_size_to_skip = nth == 0 ? 0 : nth - 1;
}

void FailNextAlignedAllocations(std::size_t count) {
    g_aligned_failures = count;
}

void FailAllocationNumber(std::size_t number) {
    g_allocations_until_failure = number;
    if (number != 0) {
        g_armed_failure_thrown = false;
    }
}

bool ArmedAllocationFailed() {
    return g_armed_failure_thrown;
}

void* operator new(std::size_t size) {
    if (g_fail_allocation_of_size != 0 && size == g_fail_allocation_of_size) {
        if (g_allocations_of_size_to_skip == 0) {
            g_fail_allocation_of_size = 0;
            throw std::bad_alloc();
        }
        --g_allocations_of_size_to_skip;
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

// The nothrow forms (used by the standard library's temporary buffers, for example in
// std::stable_sort) must come from the same allocator as the deletes above.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

// Stands in for the C library's: fails while armed, else passes the call on to the next
// definition (the C library's, or a sanitizer's or memory checker's).
extern "C" int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    if (g_aligned_failures > 0) {
        --g_aligned_failures;
        return ENOMEM;
    }
    using PosixMemalign = int (*)(void**, std::size_t, std::size_t);
    static const auto next = reinterpret_cast<PosixMemalign>(dlsym(RTLD_NEXT, "posix_memalign"));
    return next(memory, alignment, size);
}
