#include <Kelvo/HashMixCpp.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using Kelvo::Impl::HashMix;

namespace {

// The rule written out byte by byte, with no memcpy and no shifts by word:
// full words little-endian, then a tail in the most significant bytes.
template <typename T>
T referenceMix(T state, const unsigned char* p, size_t length) {
    constexpr size_t w = sizeof(T);
    const T prime = HashMix<T>::prime;
    size_t i = 0;
    for (; i + w <= length; i += w) {
        T word = 0;
        for (size_t b = 0; b < w; ++b) {
            word |= static_cast<T>(p[i + b]) << (8 * b);
        }
        state = (state ^ word) * prime;
    }
    const size_t tail = length - i;
    if (tail > 0) {
        T word = 0;
        for (size_t b = 0; b < tail; ++b) {
            word |= static_cast<T>(p[i + b]) << (8 * (w - tail + b));
        }
        state = (state ^ word) * prime;
    }
    return state;
}

template <typename T>
void checkAgainstReference(std::mt19937_64& rng) {
    std::vector<unsigned char> buffer(4096 + 64);
    for (auto& byte : buffer) {
        byte = static_cast<unsigned char>(rng());
    }
    std::vector<size_t> lengths;
    for (size_t n = 0; n <= 40; ++n) {
        lengths.push_back(n);
    }
    for (int i = 0; i < 50; ++i) {
        lengths.push_back(rng() % 4096);
    }
    lengths.push_back(4096);
    for (size_t length : lengths) {
        for (size_t offset = 0; offset < 16; ++offset) {  // aligned and unaligned
            const unsigned char* p = buffer.data() + offset;
            const T seed = static_cast<T>(rng());
            const T expected = referenceMix<T>(seed, p, length);
            ASSERT_EQ(HashMix<T>(seed).mix(p, length).value(), expected)
                << sizeof(T) * 8 << "-bit length " << length << " offset " << offset;
            ASSERT_EQ(HashMix<T>(seed).mixInline(p, length).value(), expected)
                << sizeof(T) * 8 << "-bit length " << length << " offset " << offset;
            // Mixing in pieces that end on word boundaries adds no tail.
            const size_t split = length / sizeof(T) / 2 * sizeof(T);
            ASSERT_EQ(HashMix<T>(seed).mix(p, split).mix(p + split, length - split).value(),
                      expected)
                << "split at " << split << " of " << length;
        }
    }
}

template <typename T, size_t N>
void checkFixedLen(std::mt19937_64& rng) {
    unsigned char buffer[N + 8];
    for (int round = 0; round < 2000; ++round) {
        for (auto& byte : buffer) {
            byte = static_cast<unsigned char>(rng());
        }
        const unsigned char* p = buffer + round % 8;
        const T seed = static_cast<T>(rng());
        ASSERT_EQ(HashMix<T>(seed).template mixFixedLen<N>(p).value(),
                  HashMix<T>(seed).mix(p, N).value())
            << sizeof(T) * 8 << "-bit N=" << N << " round " << round;
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
        {"ab", (b32 ^ 0x62610000u) * p32, (b64 ^ 0x6261000000000000ull) * p64},
        {"abcd", (b32 ^ 0x64636261u) * p32, (b64 ^ 0x6463626100000000ull) * p64},
        {"abcde", ((b32 ^ 0x64636261u) * p32 ^ 0x65000000u) * p32,
         (b64 ^ 0x6564636261000000ull) * p64},
        {"abcdefgh", ((b32 ^ 0x64636261u) * p32 ^ 0x68676665u) * p32,
         (b64 ^ 0x6867666564636261ull) * p64},
        {std::string("\0\0\0", 3), (b32 ^ 0u) * p32, (b64 ^ 0u) * p64},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Kelvo::Util::hash(c.input), c.h32) << '"' << c.input << '"';
        EXPECT_EQ(Kelvo::Util::hash(c.input.data(), c.input.size()), c.h32);
        EXPECT_EQ(Kelvo::Util::hash64(c.input), c.h64) << '"' << c.input << '"';
        EXPECT_EQ(Kelvo::Util::hash64(c.input.data(), c.input.size()), c.h64);
        EXPECT_EQ(HashMix<uint64_t>().mix(c.input).value(), c.h64);
    }
    // Not byte-wise FNV-1a, whose one-byte hash XORs the byte into the low bits.
    EXPECT_NE(Kelvo::Util::hash("a"), (b32 ^ 0x61u) * p32);
    // Zero bytes count: an embedded zero is not a terminator.
    EXPECT_NE(Kelvo::Util::hash(std::string("a\0b", 3)), Kelvo::Util::hash("a"));
}

TEST(HashMix, MixAgreesWithReferenceModelAtAnyLengthAndAlignment) {
    std::mt19937_64 rng(20240611);
    checkAgainstReference<uint32_t>(rng);
    checkAgainstReference<uint64_t>(rng);
}

TEST(HashMix, FixedLengthFormsAgreeWithMix) {
    std::mt19937_64 rng(7);
    checkFixedLen<uint32_t, 1>(rng);
    checkFixedLen<uint32_t, 2>(rng);
    checkFixedLen<uint32_t, 4>(rng);
    checkFixedLen<uint32_t, 8>(rng);
    checkFixedLen<uint64_t, 1>(rng);
    checkFixedLen<uint64_t, 2>(rng);
    checkFixedLen<uint64_t, 4>(rng);
    checkFixedLen<uint64_t, 8>(rng);
}
