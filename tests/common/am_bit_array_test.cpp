#include "common/am_bit_array.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "common/am_common.h"
#include "support/log_capture.h"

namespace {

TEST(AMBitArray, NewArrayHasEveryBitSetPaddingIncluded) {
    AMBitArray bits(65);
    ASSERT_EQ(bits.GetWordCount(), 2u);
    EXPECT_EQ(bits.GetTailBits(), 1u);
    EXPECT_EQ(bits.GetWords()[0], UINT64_MAX);
    EXPECT_EQ(bits.GetWords()[1], UINT64_MAX);
}

TEST(AMBitArray, StorageIsAlignedToTheCacheLine) {
    int line = AMCommon::GetCacheLineSize();
    if (line <= 0) {
        GTEST_SKIP() << "cache-line size unknown on this machine";
    }
    AMBitArray bits(1000);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bits.GetWords()) % static_cast<uintptr_t>(line), 0u);
}

}  // namespace
