#include "TestSupport.h"

using Kelvo::Impl::HashMix;

namespace {

// The rule written out byte by byte: FNV-1a over full words little-endian,
// then a tail in the most significant bytes of one more word.
template <typename T>
T referenceMix(T state, const unsigned char* p, size_t length) {
    constexpr size_t w = sizeof(T);
    constexpr T prime = w == 4 ? T(16777619u) : T(0x100000001b3ull);
    for (size_t i = 0; i < length; i += w) {
        const size_t n = std::min(w, length - i);
        T word = 0;
        for (size_t b = 0; b < n; ++b)
            word |= static_cast<T>(p[i + b]) << (8 * (w - n + b));
        state = (state ^ word) * prime;
    }
    return state;
}

// Every form against the model over lengths and alignments: mix (which is
// mixInline) in one and in two pieces and mixFixedLen<N> from a random seed,
// the Util forms from the offset basis. The random bytes include zeros, which still mix.
template <typename T, T (*hashBytes)(const void*, unsigned), T (*hashText)(const Kelvo::String&),
          size_t... N>
void checkAgainstReference(std::mt19937_64& rng, const std::vector<unsigned char>& bytes) {
    constexpr T basis = sizeof(T) == 4 ? T(0x811c9dc5u) : T(0xcbf29ce484222325ull);
    for (size_t length = 0; length < 4097; length += length < 40 ? 1 : 1 + rng() % 300) {
        for (size_t offset = 0; offset < 16; ++offset) {  // aligned and not
            const unsigned char* p = bytes.data() + offset;
            const T seed = static_cast<T>(rng()), expected = referenceMix<T>(seed, p, length);
            const T fromBasis = referenceMix<T>(basis, p, length);
            // Pieces that end on word boundaries add no tail.
            const size_t split = length / sizeof(T) / 2 * sizeof(T);
            ASSERT_EQ(
                (std::array{HashMix<T>(seed).mix(p, length).value(),
                            HashMix<T>(seed).mix(p, split).mix(p + split, length - split).value(),
                            hashBytes(p, static_cast<unsigned>(length)),
                            hashText(std::string(reinterpret_cast<const char*>(p), length))}),
                (std::array{expected, expected, fromBasis, fromBasis}))
                << sizeof(T) * 8 << "-bit, length " << length << ", offset " << offset;
            ASSERT_EQ((std::array{HashMix<T>(seed).template mixFixedLen<N>(p).value()...}),
                      (std::array{referenceMix<T>(seed, p, N)...}))
                << sizeof(T) * 8 << "-bit, offset " << offset;
        }
    }
}

TEST(HashMix, EveryFormAgreesWithTheReferenceModel) {
    std::mt19937_64 rng(20240611);
    std::vector<unsigned char> bytes(4096 + 16);
    for (auto& byte : bytes)
        byte = static_cast<unsigned char>(rng());
    using namespace Kelvo::Util;
    checkAgainstReference<uint32_t, hash, hash, 1, 2, 4, 8>(rng, bytes);
    checkAgainstReference<uint64_t, hash64, hash64, 1, 2, 4, 8>(rng, bytes);
}

}  // namespace
