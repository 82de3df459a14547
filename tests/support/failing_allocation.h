// Fault injection for allocation failures: replaces the global operator new of the test
// program that uses it.
#pragma once

#include <cstddef>

// Makes the next allocation of exactly `size` bytes throw std::bad_alloc, once; 0 disarms.
void FailNextAllocationOfSize(std::size_t size);

// Makes the `nth` allocation of exactly `size` bytes from now (1: the next) throw
// std::bad_alloc, once; a size of 0 disarms.
void FailNthAllocationOfSize(std::size_t size, std::size_t nth);

// Makes the next `count` calls of posix_memalign (the cache-aligned arrays) fail with
// ENOMEM; 0 disarms.
void FailNextAlignedAllocations(std::size_t count);

// Makes the `number`-th allocation from now (1: the next one) throw std::bad_alloc, once,
// whatever its size; 0 disarms.  Walking `number` up from 1 fails every allocation of a
// piece of code in turn.
void FailAllocationNumber(std::size_t number);

// True when the failure last armed by FailAllocationNumber has been thrown (disarming
// keeps the answer; arming again clears it): a walk is over when a run no longer
// reaches its number.
bool ArmedAllocationFailed();
