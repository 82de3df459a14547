// Fault injection for allocation failures: replaces the global operator new of the test
// program that uses it.
#pragma once

#include <cstddef>

// Makes the next allocation of exactly `size` bytes throw std::bad_alloc, once; 0 disarms.
void FailNextAllocationOfSize(std::size_t size);
