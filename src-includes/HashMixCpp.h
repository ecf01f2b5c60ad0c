// Word-at-a-time FNV-1a: a small, fast, non-cryptographic hash accumulator.
//
// Each step XORs a whole machine word (4 bytes for 32-bit, 8 for 64-bit, loaded
// little-endian) into the state and multiplies by the FNV prime. A tail of 1 to
// W-1 bytes is placed in the most significant bytes of one more, otherwise zero
// word. The word order and tail rule define the result: hashes computed by
// other processes or stored elsewhere stay comparable only if they never change.
//
// A HashMix is a plain value; any thread may use its own. Util::hash and
// Util::hash64 start at the FNV offset basis.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "KelvoBase.h"

namespace Kelvo {
namespace Impl {

template <typename T>
struct HashMixConstants;
template <>
struct HashMixConstants<uint32_t> {
    static constexpr uint32_t offsetBasis = 0x811c9dc5u;
    static constexpr uint32_t prime = 0x01000193u;
};
template <>
struct HashMixConstants<uint64_t> {
    static constexpr uint64_t offsetBasis = 0xcbf29ce484222325ull;
    static constexpr uint64_t prime = 0x100000001b3ull;
};

template <typename T>
class KELVO_EXPORT HashMix {
    static_assert(std::is_same_v<T, uint32_t> || std::is_same_v<T, uint64_t>,
                  "HashMix comes in 32 and 64 bits");
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words are loaded little-endian");

  public:
    static constexpr T offsetBasis = HashMixConstants<T>::offsetBasis;
    static constexpr T prime = HashMixConstants<T>::prime;
    static constexpr size_t wordSize = sizeof(T);

    constexpr explicit HashMix(T initial = offsetBasis) noexcept : state_(initial) {}

    constexpr T value() const noexcept { return state_; }

    // Out of line; same result as mixInline.
    HashMix& mix(const void* data, size_t length) noexcept;
    HashMix& mix(const String& text) noexcept { return mix(text.data(), text.size()); }

    inline HashMix& mixInline(const void* data, size_t length) noexcept {
        const auto* p = static_cast<const unsigned char*>(data);
        for (; length >= wordSize; p += wordSize, length -= wordSize) {
            mixWord(load<T>(p));
        }
        if (length > 0) {
            mixWord(tailWord(p, length));
        }
        return *this;
    }

    // mix(data, N) unrolled for the fixed size.
    template <size_t N>
    inline HashMix& mixFixedLen(const void* data) noexcept {
        static_assert(N == 1 || N == 2 || N == 4 || N == 8, "mixFixedLen takes 1, 2, 4 or 8 bytes");
        const auto* p = static_cast<const unsigned char*>(data);
        if constexpr (N == wordSize) {
            mixWord(load<T>(p));
        } else if constexpr (N > wordSize) {
            mixWord(load<T>(p));
            mixWord(load<T>(p + wordSize));
        } else if constexpr (N == 1) {
            mixWord(static_cast<T>(*p) << (8 * (wordSize - 1)));
        } else if constexpr (N == 2) {
            mixWord(static_cast<T>(load<uint16_t>(p)) << (8 * (wordSize - 2)));
        } else {
            mixWord(static_cast<T>(load<uint32_t>(p)) << (8 * (wordSize - 4)));
        }
        return *this;
    }

  private:
    template <typename W>
    static W load(const unsigned char* p) noexcept {
        W word;
        std::memcpy(&word, p, sizeof word);  // inputs need not be aligned
        return word;
    }
    // The 1 to W-1 tail bytes as if copied to the end of a zeroed word and
    // loaded: little-endian in the most significant bytes. Built from at most
    // three fixed-size loads, each byte read once, instead of a variable-length
    // copy, which costs a library call per short key.
    static T tailWord(const unsigned char* p, size_t length) noexcept {
        T word = 0;
        size_t at = 0;
        if constexpr (wordSize == 8) {
            if (length & 4) {
                word = load<uint32_t>(p);
                at = 4;
            }
        }
        if (length & 2) {
            word |= static_cast<T>(load<uint16_t>(p + at)) << (8 * at);
            at += 2;
        }
        if (length & 1) {
            word |= static_cast<T>(p[at]) << (8 * at);
        }
        return word << (8 * (wordSize - length));
    }
    void mixWord(T word) noexcept {
        state_ ^= word;
        state_ *= prime;
    }

    T state_;
};

extern template class HashMix<uint32_t>;
extern template class HashMix<uint64_t>;

}  // namespace Impl

namespace Util {

// 32-bit word-at-a-time FNV-1a from the offset basis.
KELVO_EXPORT uint32_t hash(const String& text) noexcept;
KELVO_EXPORT uint32_t hash(const void* data, unsigned length) noexcept;
// 64-bit word-at-a-time FNV-1a from the offset basis.
KELVO_EXPORT uint64_t hash64(const String& text) noexcept;
KELVO_EXPORT uint64_t hash64(const void* data, unsigned length) noexcept;

}  // namespace Util
}  // namespace Kelvo
