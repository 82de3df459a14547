// A cache-line size of the test's choosing, in force while the object lives.
#pragma once

// Sets the cache-line size the library sees and restores the machine's at the end.
class CacheLineOverride {
public:
    explicit CacheLineOverride(int size);
    ~CacheLineOverride();
    CacheLineOverride(const CacheLineOverride&) = delete;
    CacheLineOverride& operator=(const CacheLineOverride&) = delete;
};
