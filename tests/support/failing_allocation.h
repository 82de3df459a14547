// Fault injection for allocation failures: replaces the global operator new of the test
// program that uses it.
#pragma once

#include <cstddef>

// Makes the next allocation of exactly `size` bytes throw std::bad_alloc, once; 0 disarms.
void FailNextAllocationOfSize(std::size_t size);

// Makes the `number`-th allocation from now (1: the next one) throw std::bad_alloc, once,
// whatever its size; 0 disarms.  Walking `number` up from 1 fails every allocation of a
// piece of code in turn.
void FailAllocationNumber(std::size_t number);

// True when the failure armed by FailAllocationNumber has been thrown (false once it is
// armed again): a walk is over when a run no longer reaches its number.
bool ArmedAllocationFailed();
