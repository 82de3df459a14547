#include "common/am_common.h"

#include <unistd.h>

#include <atomic>

namespace {
std::atomic<int> g_cache_line_override{-1};

int ReadCacheLineSize() {
#ifdef _SC_LEVEL1_DCACHE_LINESIZE
    long size = sysconf(_SC_LEVEL1_DCACHE_LINESIZE);
    if (size > 0) {
        return static_cast<int>(size);
    }
#endif
    return 0;
}
}  // namespace

int AMCommon::GetCacheLineSize() {
    int forced = g_cache_line_override.load(std::memory_order_relaxed);
    if (forced >= 0) {
        return forced;
    }
    static const int size = ReadCacheLineSize();
    return size;
}

void AMCommon::SetCacheLineSizeOverride(int size) {
    g_cache_line_override.store(size, std::memory_order_relaxed);
}
