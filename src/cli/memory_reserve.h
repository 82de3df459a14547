// Memory held back for reporting that memory ran out.
//
// When an allocation fails, the exception unwinds through objects whose destructors may
// allocate themselves (a parsed JSON document frees its nodes through a work list), and
// an exception from a destructor ends the program with an abort instead of exit status
// 3.  The reserve, taken at start, is given back at the first failed allocation, so
// that the unwinding and the report find memory.
#pragma once

#include <cstddef>

namespace aggtree::cli {

// Holds up to `bytes` of address space (untouched, so no resident memory; less when that
// much cannot be had) and installs the new handler that releases it and fails the
// allocation at hand; for the tool's whole run.
class MemoryReserve {
public:
    explicit MemoryReserve(size_t bytes);
    ~MemoryReserve();
    MemoryReserve(const MemoryReserve&) = delete;
    MemoryReserve& operator=(const MemoryReserve&) = delete;
};

}  // namespace aggtree::cli
