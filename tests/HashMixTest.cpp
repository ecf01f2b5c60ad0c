#include "TestSupport.h"

using namespace KelvoTest;

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

// mix, mixInline and mix in two pieces against the model over lengths and
// alignments; then mixFixedLen<N> against mix.
template <typename T, size_t... N>
void checkAgainstReference(std::mt19937_64& rng, const std::vector<unsigned char>& bytes) {
    for (size_t length = 0; length < 4097; length += length < 40 ? 1 : 1 + rng() % 300) {
        for (size_t offset = 0; offset < 16; ++offset) {  // aligned and not
            const unsigned char* p = bytes.data() + offset;
            const T seed = static_cast<T>(rng()), expected = referenceMix<T>(seed, p, length);
            // Pieces that end on word boundaries add no tail.
            const size_t split = length / sizeof(T) / 2 * sizeof(T);
            ASSERT_EQ(
                (std::array{HashMix<T>(seed).mix(p, length).value(),
                            HashMix<T>(seed).mixInline(p, length).value(),
                            HashMix<T>(seed).mix(p, split).mix(p + split, length - split).value()}),
                (std::array{expected, expected, expected}))
                << sizeof(T) * 8 << "-bit, length " << length << ", offset " << offset;
        }
    }
    for (int round = 0; round < 1000; ++round) {
        const unsigned char* p = bytes.data() + rng() % 64;
        const T seed = static_cast<T>(rng());
        ASSERT_EQ((std::array{HashMix<T>(seed).template mixFixedLen<N>(p).value()...}),
                  (std::array{HashMix<T>(seed).mix(p, N).value()...}))
            << sizeof(T) * 8 << "-bit";
    }
}

TEST(HashMix, MixAgreesWithReferenceModelAndFixedLengthFormsWithMix) {
    std::mt19937_64 rng(20240611);
    std::vector<unsigned char> bytes(4096 + 64);
    for (auto& byte : bytes)
        byte = static_cast<unsigned char>(rng());
    checkAgainstReference<uint32_t, 1, 2, 4, 8>(rng, bytes);
    checkAgainstReference<uint64_t, 1, 2, 4, 8>(rng, bytes);
    // The hashes start at the offset basis; zero bytes still mix.
    for (const std::string& input :
         {std::string(), std::string("abcdefghi"), std::string(3, '\0')}) {
        const auto* p = reinterpret_cast<const unsigned char*>(input.data());
        const auto n = static_cast<unsigned>(input.size());
        const uint32_t h32 = referenceMix<uint32_t>(0x811c9dc5u, p, n);
        const uint64_t h64 = referenceMix<uint64_t>(0xcbf29ce484222325ull, p, n);
        EXPECT_EQ(std::tuple(Kelvo::Util::hash(input), Kelvo::Util::hash(p, n),
                             Kelvo::Util::hash64(input), Kelvo::Util::hash64(p, n)),
                  std::tuple(h32, h32, h64, h64))
            << input.size() << " bytes";
    }
}

}  // namespace
