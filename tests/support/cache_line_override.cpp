#include "support/cache_line_override.h"

#include "common/am_common.h"

// Makes `size` the cache-line size until destruction.
CacheLineOverride::CacheLineOverride(int size) {
    AMCommon::SetCacheLineSizeOverride(size);
}

// Goes back to the machine's own cache-line size.
CacheLineOverride::~CacheLineOverride() {
    AMCommon::SetCacheLineSizeOverride(-1);
}
