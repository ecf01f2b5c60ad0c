#include <Kelvo/HashMixCpp.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using Kelvo::Impl::HashMix;

namespace {

// The rule written out byte by byte: full words little-endian, then a tail in
// the most significant bytes of one more word.
template <typename T>
T referenceMix(T state, const unsigned char* p, size_t length) {
    constexpr size_t w = sizeof(T);
    for (size_t i = 0; i < length; i += w) {
        const size_t n = std::min(w, length - i);
        T word = 0;
        for (size_t b = 0; b < n; ++b) {
            word |= static_cast<T>(p[i + b]) << (8 * (w - n + b));
        }
        state = (state ^ word) * HashMix<T>::prime;
    }
    return state;
}

template <typename T>
void checkAgainstReference(std::mt19937_64& rng, const std::vector<unsigned char>& bytes) {
    for (size_t length = 0; length < 4097; length += length < 40 ? 1 : 1 + rng() % 300) {
        for (size_t offset = 0; offset < 16; ++offset) {  // aligned and not
            const unsigned char* p = bytes.data() + offset;
            const T seed = static_cast<T>(rng());
            const T expected = referenceMix<T>(seed, p, length);
            ASSERT_EQ(HashMix<T>(seed).mix(p, length).value(), expected)
                << sizeof(T) * 8 << "-bit, length " << length << ", offset " << offset;
            ASSERT_EQ(HashMix<T>(seed).mixInline(p, length).value(), expected);
            // Pieces that end on word boundaries add no tail.
            const size_t split = length / sizeof(T) / 2 * sizeof(T);
            ASSERT_EQ(HashMix<T>(seed).mix(p, split).mix(p + split, length - split).value(),
                      expected);
        }
    }
}

template <typename T, size_t... N>
void checkFixedLen(std::mt19937_64& rng, const std::vector<unsigned char>& bytes) {
    for (int round = 0; round < 1000; ++round) {
        const unsigned char* p = bytes.data() + rng() % 64;
        const T seed = static_cast<T>(rng());
        (
            [&] {
                ASSERT_EQ(HashMix<T>(seed).template mixFixedLen<N>(p).value(),
                          HashMix<T>(seed).mix(p, N).value())
                    << sizeof(T) * 8 << "-bit, N=" << N;
            }(),
            ...);
    }
}

}  // namespace

TEST(HashMix, KnownValuesFollowTheWordAndTailRule) {
    constexpr uint32_t b32 = 0x811c9dc5u, p32 = 16777619u;
    constexpr uint64_t b64 = 0xcbf29ce484222325ull, p64 = 0x100000001b3ull;
    const struct {
        std::string input;
        uint32_t h32;
        uint64_t h64;
    } cases[] = {
        {"", b32, b64},
        {"a", (b32 ^ 0x61000000u) * p32, (b64 ^ 0x6100000000000000ull) * p64},
        {"abcd", (b32 ^ 0x64636261u) * p32, (b64 ^ 0x6463626100000000ull) * p64},
        {"abcde", ((b32 ^ 0x64636261u) * p32 ^ 0x65000000u) * p32,
         (b64 ^ 0x6564636261000000ull) * p64},
        {"abcdefgh", ((b32 ^ 0x64636261u) * p32 ^ 0x68676665u) * p32,
         (b64 ^ 0x6867666564636261ull) * p64},
        {std::string("\0\0\0", 3), b32 * p32, b64 * p64},  // zero bytes still mix
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Kelvo::Util::hash(c.input), c.h32) << '"' << c.input << '"';
        EXPECT_EQ(Kelvo::Util::hash(c.input.data(), c.input.size()), c.h32);
        EXPECT_EQ(Kelvo::Util::hash64(c.input), c.h64) << '"' << c.input << '"';
        EXPECT_EQ(Kelvo::Util::hash64(c.input.data(), c.input.size()), c.h64);
    }
}

TEST(HashMix, MixAgreesWithReferenceModelAndFixedLengthFormsWithMix) {
    std::mt19937_64 rng(20240611);
    std::vector<unsigned char> bytes(4096 + 64);
    for (auto& byte : bytes) {
        byte = static_cast<unsigned char>(rng());
    }
    checkAgainstReference<uint32_t>(rng, bytes);
    checkAgainstReference<uint64_t>(rng, bytes);
    checkFixedLen<uint32_t, 1, 2, 4, 8>(rng, bytes);
    checkFixedLen<uint64_t, 1, 2, 4, 8>(rng, bytes);
}
