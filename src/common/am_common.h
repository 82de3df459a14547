// Facts about the machine that the manager's data structures are laid out for.
#pragma once

class AMCommon {
public:
    // The processor's cache-line size in bytes; 0 or less means unknown.
    static int GetCacheLineSize();

    // Overrides the value GetCacheLineSize() reports (a value below 0 restores the
    // machine's own); lets tests take the malloc path of aligned arrays.
    static void SetCacheLineSizeOverride(int size);
};
