#include "common/am_bit_array.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/am_common.h"
#include "support/cache_line_override.h"
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

void ClearRange(AMBitArray& bits, uint64_t first, uint64_t last) {
    for (uint64_t i = first; i <= last; ++i) {
        bits.SetBit2False(i);
    }
}

TEST(AMBitArray, SixtyFourIdsFillOneWordWithoutPadding) {
    AMBitArray bits(uint64_t{63} + 1);  // max_tree_id 63
    EXPECT_EQ(bits.GetBitCount(), 64u);
    ASSERT_EQ(bits.GetWordCount(), 1u);
    EXPECT_EQ(bits.GetTailBits(), 0u);
    EXPECT_EQ(bits.GetWords()[0], UINT64_MAX);
    EXPECT_TRUE(bits.IsBitSet(63));
    EXPECT_FALSE(bits.IsBitSet(64));
}

TEST(AMBitArray, SixtyFiveIdsTakeTwoWordsWithPaddingSet) {
    AMBitArray bits(uint64_t{64} + 1);  // max_tree_id 64
    EXPECT_EQ(bits.GetBitCount(), 65u);
    ASSERT_EQ(bits.GetWordCount(), 2u);
    EXPECT_EQ(bits.GetTailBits(), 1u);
    // Bits 65 to 127 are padding and set like the rest.
    EXPECT_EQ(bits.GetWords()[1], UINT64_MAX);
    EXPECT_TRUE(bits.IsBitSet(64));
    EXPECT_FALSE(bits.IsBitSet(65));
}

TEST(AMBitArray, WordCountFollowsTheBitCount) {
    EXPECT_EQ(AMBitArray(1).GetWordCount(), 1u);
    EXPECT_EQ(AMBitArray(1).GetTailBits(), 1u);
    EXPECT_EQ(AMBitArray(128).GetWordCount(), 2u);
    EXPECT_EQ(AMBitArray(128).GetTailBits(), 0u);
    EXPECT_EQ(AMBitArray(129).GetWordCount(), 3u);
    EXPECT_EQ(AMBitArray(65536).GetWordCount(), 1024u);
}

TEST(AMBitArray, FindFirstSetGivesTheLowestSetBit) {
    AMBitArray bits(200);
    uint64_t index = 999;
    ASSERT_TRUE(bits.FindFirstSet(index));
    EXPECT_EQ(index, 0u);
    ClearRange(bits, 0, 9);
    ASSERT_TRUE(bits.FindFirstSet(index));
    EXPECT_EQ(index, 10u);
    ClearRange(bits, 10, 130);
    ASSERT_TRUE(bits.FindFirstSet(index));
    EXPECT_EQ(index, 131u);
}

TEST(AMBitArray, LastRealBitOfATwoWordArrayIsFound) {
    AMBitArray bits(65);
    ClearRange(bits, 0, 63);
    uint64_t index = 0;
    ASSERT_TRUE(bits.FindFirstSet(index));
    EXPECT_EQ(index, 64u);
}

TEST(AMBitArray, ScanLandingOnPaddingReportsNone) {
    AMBitArray bits(65);
    ClearRange(bits, 0, 64);
    // The second word still holds padding bits 65 to 127.
    EXPECT_NE(bits.GetWords()[1], 0u);
    uint64_t index = 12345;
    EXPECT_FALSE(bits.FindFirstSet(index));
    EXPECT_EQ(index, 12345u);
}

TEST(AMBitArray, FullOneWordArrayWithEveryBitClearReportsNone) {
    AMBitArray bits(64);
    ClearRange(bits, 0, 63);
    EXPECT_EQ(bits.GetWords()[0], 0u);
    uint64_t index = 0;
    EXPECT_FALSE(bits.FindFirstSet(index));
}

TEST(AMBitArray, PaddingLeftInTheOnlyWordIsNeverReported) {
    // After an AND with a longer array whose matching bits are clear, all that is left
    // set in the one word are bits 10 to 63, above the bit count.
    AMBitArray longer(128);
    ClearRange(longer, 0, 9);
    AMBitArray shorter(10);
    shorter.And(longer);
    EXPECT_NE(shorter.GetWords()[0], 0u);
    uint64_t index = 0;
    EXPECT_FALSE(shorter.FindFirstSet(index));
}

TEST(AMBitArray, EmptyArrayHasNothingToFind) {
    AMBitArray bits;
    EXPECT_EQ(bits.GetBitCount(), 0u);
    EXPECT_EQ(bits.GetWordCount(), 0u);
    EXPECT_EQ(bits.GetWords(), nullptr);
    uint64_t index = 0;
    EXPECT_FALSE(bits.FindFirstSet(index));
}

TEST(AMBitArray, SetBit2FalseClearsOnlyThatBit) {
    AMBitArray bits(130);
    bits.SetBit2False(64);
    EXPECT_EQ(bits.GetWords()[0], UINT64_MAX);
    EXPECT_EQ(bits.GetWords()[1], ~uint64_t{1});
    EXPECT_EQ(bits.GetWords()[2], UINT64_MAX);
    EXPECT_FALSE(bits.IsBitSet(64));
    bits.SetBit2True(64);
    EXPECT_TRUE(bits.IsBitSet(64));
}

TEST(AMBitArray, OutOfRangeSetBit2FalseIsLoggedAndChangesNothing) {
    AMBitArray bits(65);
    LogCapture log;
    bits.SetBit2False(65);
    bits.SetBit2False(1000);
    EXPECT_EQ(bits.GetWords()[0], UINT64_MAX);
    EXPECT_EQ(bits.GetWords()[1], UINT64_MAX);
    ASSERT_EQ(log.Entries().size(), 2u) << log.Dump();
    const LogCapture::Entry& entry = log.Entries()[0];
    EXPECT_EQ(entry.level, kLogLevelError);
    EXPECT_EQ(entry.module, "TREES  ");
    EXPECT_EQ(entry.file, "am_bit_array");
    EXPECT_EQ(entry.function, "SetBit2False");
    EXPECT_EQ(entry.message,
              "Got a request to set a bit at location: 65, but bit array size is: 65 bits");
    EXPECT_EQ(log.Entries()[1].message,
              "Got a request to set a bit at location: 1000, but bit array size is: 65 bits");
}

TEST(AMBitArray, SetBit2FalseOnAnEmptyArrayIsLogged) {
    AMBitArray bits;
    LogCapture log;
    bits.SetBit2False(0);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{
                  "Got a request to set a bit at location: 0, but bit array size is: 0 bits"});
}

TEST(AMBitArray, OutOfRangeRequestsAreQuietAboveTheErrorLevelGate) {
    AMBitArray bits(8);
    LogCapture log(0);  // every module off
    bits.SetBit2False(8);
    EXPECT_TRUE(log.Entries().empty());
    EXPECT_EQ(bits.GetWords()[0], UINT64_MAX);
}

TEST(AMBitArray, AndWithAShorterArrayZeroesTheWordsItLacks) {
    AMBitArray bits(3 * 64);
    AMBitArray other(64);
    other.SetBit2False(0);
    other.SetBit2False(63);
    bits.And(other);
    ASSERT_EQ(bits.GetWordCount(), 3u);
    EXPECT_EQ(bits.GetWords()[0], UINT64_MAX & ~uint64_t{1} & ~(uint64_t{1} << 63));
    EXPECT_EQ(bits.GetWords()[1], 0u);
    EXPECT_EQ(bits.GetWords()[2], 0u);
    uint64_t index = 0;
    ASSERT_TRUE(bits.FindFirstSet(index));
    EXPECT_EQ(index, 1u);
}

TEST(AMBitArray, AndWithALongerArrayStopsAtItsOwnEnd) {
    AMBitArray bits(64);
    AMBitArray other(3 * 64);
    other.SetBit2False(5);
    other.SetBit2False(70);
    bits.And(other);
    ASSERT_EQ(bits.GetWordCount(), 1u);
    EXPECT_EQ(bits.GetWords()[0], ~(uint64_t{1} << 5));
    EXPECT_EQ(other.GetWords()[1], ~(uint64_t{1} << 6));  // the other array is untouched
}

TEST(AMBitArray, AndOfEqualArraysKeepsCommonBits) {
    AMBitArray bits(100);
    AMBitArray other(100);
    bits.SetBit2False(3);
    other.SetBit2False(4);
    other.SetBit2False(99);
    bits.And(other);
    EXPECT_FALSE(bits.IsBitSet(3));
    EXPECT_FALSE(bits.IsBitSet(4));
    EXPECT_FALSE(bits.IsBitSet(99));
    EXPECT_TRUE(bits.IsBitSet(5));
    EXPECT_TRUE(bits.IsBitSet(98));
}

TEST(AMBitArray, AndWithAnEmptyArrayClearsEverything) {
    AMBitArray bits(130);
    AMBitArray empty;
    bits.And(empty);
    for (uint64_t i = 0; i < bits.GetWordCount(); ++i) {
        EXPECT_EQ(bits.GetWords()[i], 0u) << "word " << i;
    }
    uint64_t index = 0;
    EXPECT_FALSE(bits.FindFirstSet(index));
}

TEST(AMBitArray, AndIntoAnEmptyArrayLeavesItEmpty) {
    AMBitArray empty;
    AMBitArray other(64);
    empty.And(other);
    EXPECT_EQ(empty.GetWordCount(), 0u);
    uint64_t index = 0;
    EXPECT_FALSE(empty.FindFirstSet(index));
}

TEST(AMBitArray, FailedAllocationIsLoggedAndLeavesAnEmptyArray) {
    LogCapture log;
    // 2^62 bits would take 2^59 bytes.
    AMBitArray bits(uint64_t{1} << 62);
    EXPECT_EQ(bits.GetBitCount(), 0u);
    EXPECT_EQ(bits.GetWordCount(), 0u);
    EXPECT_EQ(bits.GetTailBits(), 0u);
    EXPECT_EQ(bits.GetWords(), nullptr);
    ASSERT_EQ(log.Entries().size(), 1u) << log.Dump();
    const LogCapture::Entry& entry = log.Entries()[0];
    EXPECT_EQ(entry.level, kLogLevelError);
    EXPECT_EQ(entry.module, "TREES  ");
    EXPECT_EQ(entry.file, "am_bit_array");
    EXPECT_EQ(entry.function, "AMBitArray");
    EXPECT_EQ(entry.message, "Could not allocate memory for bit array, size: 576460752303423488");
    uint64_t index = 0;
    EXPECT_FALSE(bits.FindFirstSet(index));
}

TEST(AMBitArray, FailedMallocIsLoggedAndLeavesAnEmptyArray) {
    CacheLineOverride unknown(0);
    LogCapture log;
    AMBitArray bits(UINT64_MAX);  // 2^58 words, 2^61 bytes
    EXPECT_EQ(bits.GetWordCount(), 0u);
    EXPECT_EQ(bits.GetWords(), nullptr);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{
                  "Could not allocate memory for bit array, size: 2305843009213693952"});
}

TEST(AMBitArray, AlignmentTheAllocatorRefusesCountsAsAFailedAllocation) {
    CacheLineOverride odd(24);  // not a power of two
    LogCapture log;
    AMBitArray bits(128);
    EXPECT_EQ(bits.GetWordCount(), 0u);
    EXPECT_EQ(log.Messages(kLogLevelError),
              std::vector<std::string>{"Could not allocate memory for bit array, size: 16"});
}

TEST(AMBitArray, UnknownCacheLineSizeFallsBackToMalloc) {
    CacheLineOverride unknown(0);
    ASSERT_EQ(AMCommon::GetCacheLineSize(), 0);
    LogCapture log;
    AMBitArray bits(100);
    ASSERT_EQ(bits.GetWordCount(), 2u);
    EXPECT_NE(bits.GetWords(), nullptr);
    EXPECT_EQ(bits.GetWords()[0], UINT64_MAX);
    EXPECT_EQ(bits.GetWords()[1], UINT64_MAX);
    bits.SetBit2False(0);
    uint64_t index = 0;
    ASSERT_TRUE(bits.FindFirstSet(index));
    EXPECT_EQ(index, 1u);
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(AMBitArray, ForcedCacheLineSizeIsUsedForAlignment) {
    CacheLineOverride line(256);
    AMBitArray bits(64);
    ASSERT_NE(bits.GetWords(), nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bits.GetWords()) % 256u, 0u);
}

TEST(AMBitArray, MovingHandsTheStorageOver) {
    AMBitArray bits(70);
    bits.SetBit2False(3);
    const uint64_t* storage = bits.GetWords();
    AMBitArray moved(std::move(bits));
    EXPECT_EQ(moved.GetWords(), storage);
    EXPECT_EQ(moved.GetBitCount(), 70u);
    EXPECT_EQ(moved.GetTailBits(), 6u);
    EXPECT_FALSE(moved.IsBitSet(3));
    EXPECT_EQ(bits.GetWordCount(), 0u);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(bits.GetWords(), nullptr);

    AMBitArray assigned(10);
    assigned = std::move(moved);
    EXPECT_EQ(assigned.GetWords(), storage);
    EXPECT_EQ(assigned.GetBitCount(), 70u);
    EXPECT_EQ(moved.GetBitCount(), 0u);  // NOLINT(bugprone-use-after-move)
}

}  // namespace
