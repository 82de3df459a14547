#include "common/am_bit_array.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/am_common.h"
#include "common/log.h"

// Reports use the unit's own name as their source, whatever file they are built from.
static constexpr const char* kBitArraySource = "am_bit_array";

AMBitArray::AMBitArray(uint64_t bit_count) {
    if (bit_count == 0) {
        return;
    }
    uint64_t word_count = ((bit_count - 1) >> 6) + 1;
    uint64_t byte_size = word_count * sizeof(uint64_t);
    void* storage = nullptr;
    int line_size = AMCommon::GetCacheLineSize();
    if (line_size > 0) {
        if (posix_memalign(&storage, static_cast<size_t>(line_size), byte_size) != 0) {
            storage = nullptr;
        }
    } else {
        storage = std::malloc(byte_size);
    }
    if (storage == nullptr) {
        log_send(kLogModuleTrees, kLogLevelError, kBitArraySource, __LINE__, "AMBitArray",
                 "Could not allocate memory for bit array, size: %lu",
                 static_cast<unsigned long>(byte_size));
        return;
    }
    m_words = static_cast<uint64_t*>(storage);
    m_bit_count = bit_count;
    m_word_count = word_count;
    m_tail_bits = static_cast<uint32_t>(bit_count & 63);
    std::memset(m_words, 0xFF, byte_size);
}

AMBitArray::~AMBitArray() {
    Release();
}

AMBitArray::AMBitArray(AMBitArray&& other) noexcept
    : m_bit_count(std::exchange(other.m_bit_count, 0)),
      m_word_count(std::exchange(other.m_word_count, 0)),
      m_tail_bits(std::exchange(other.m_tail_bits, 0)),
      m_words(std::exchange(other.m_words, nullptr)) {}

AMBitArray& AMBitArray::operator=(AMBitArray&& other) noexcept {
    if (this != &other) {
        Release();
        m_bit_count = std::exchange(other.m_bit_count, 0);
        m_word_count = std::exchange(other.m_word_count, 0);
        m_tail_bits = std::exchange(other.m_tail_bits, 0);
        m_words = std::exchange(other.m_words, nullptr);
    }
    return *this;
}

void AMBitArray::Release() {
    std::free(m_words);
    m_words = nullptr;
    m_bit_count = 0;
    m_word_count = 0;
    m_tail_bits = 0;
}

void AMBitArray::SetBit2False(uint64_t index) {
    if (index >= m_bit_count) {
        log_send(kLogModuleTrees, kLogLevelError, kBitArraySource, __LINE__, "SetBit2False",
                 "Got a request to set a bit at location: %lu, but bit array size is: %lu bits",
                 static_cast<unsigned long>(index), static_cast<unsigned long>(m_bit_count));
        return;
    }
    m_words[index >> 6] &= ~(uint64_t{1} << (index & 63));
}

void AMBitArray::SetBit2True(uint64_t index) {
    if (index >= m_bit_count) {
        return;
    }
    m_words[index >> 6] |= uint64_t{1} << (index & 63);
}

bool AMBitArray::IsBitSet(uint64_t index) const {
    return index < m_bit_count && ((m_words[index >> 6] >> (index & 63)) & 1) != 0;
}

void AMBitArray::And(const AMBitArray& other) {
    uint64_t i = 0;
    for (; i < other.m_word_count; ++i) {
        if (i >= m_word_count) {
            break;
        }
        m_words[i] &= other.m_words[i];
    }
    for (; i < m_word_count; ++i) {
        m_words[i] = 0;
    }
}

bool AMBitArray::FindFirstSet(uint64_t& index) const {
    for (uint64_t i = 0; i < m_word_count; ++i) {
        if (m_words[i] != 0) {
            uint64_t found = 64 * i + static_cast<uint64_t>(__builtin_ctzll(m_words[i]));
            if (found >= m_bit_count) {
                return false;
            }
            index = found;
            return true;
        }
    }
    return false;
}
