// AMBitArray: a fixed-size array of bits, one bit per tree id.
//
// Storage is whole 64-bit words aligned to the cache line (AMCommon::GetCacheLineSize),
// so that AND-ing the free-id sets of a tree's switches and scanning for the first
// free id work a word at a time: And() is O(words), FindFirstSet() stops at the first
// non-zero word and takes its trailing-zero count.  A new array has every bit set,
// the padding bits above the bit count included.  A failed allocation is logged and
// leaves an empty array; nothing is thrown.
#pragma once

#include <cstdint>

class AMBitArray {
public:
    // An array of `bit_count` bits, all set.
    explicit AMBitArray(uint64_t bit_count = 0);
    ~AMBitArray();

    AMBitArray(AMBitArray&& other) noexcept;
    AMBitArray& operator=(AMBitArray&& other) noexcept;
    AMBitArray(const AMBitArray&) = delete;
    AMBitArray& operator=(const AMBitArray&) = delete;

    // Clears bit `index`; an index at or above the bit count is logged and ignored.
    void SetBit2False(uint64_t index);

    // Sets bit `index`; an index at or above the bit count is ignored.
    void SetBit2True(uint64_t index);

    // True when bit `index` is below the bit count and set.
    bool IsBitSet(uint64_t index) const;

    // ANDs `other` in word by word; words beyond `other`'s word count become 0.
    void And(const AMBitArray& other);

    // The first set bit of the first non-zero word, in `index`; false when there is no
    // such word or the bit found is a padding bit at or above the bit count.
    bool FindFirstSet(uint64_t& index) const;

    // Number of valid bits.
    uint64_t GetBitCount() const { return m_bit_count; }
    // Number of 64-bit words of storage.
    uint64_t GetWordCount() const { return m_word_count; }
    // Bits used in the last word; 0 means the whole word.
    uint32_t GetTailBits() const { return m_tail_bits; }
    // The storage, word i holding bits 64*i to 64*i+63.
    const uint64_t* GetWords() const { return m_words; }

private:
    void Release();

    uint64_t m_bit_count = 0;
    uint64_t m_word_count = 0;
    uint32_t m_tail_bits = 0;
    uint64_t* m_words = nullptr;
};
