// The process's one reproducible source of pseudo-random numbers: a 64-bit
// Mersenne Twister for numbers and the C library's rand() for strings, both
// seeded from one 32-bit seed. The seed comes from ZUTEST_RANDSEED or the
// clock, chosen on the first setSeed() and printed on every call, so any run
// can be replayed.
//
// Process-wide and unsynchronised: callers on several threads serialise their
// calls themselves.
#pragma once

#include <cstdint>

#include "KelvoBase.h"

namespace Kelvo {

namespace Impl {

// MT19937-64: the same output as std::mt19937_64 for the same seed.
class KELVO_EXPORT Mt19937_64 {
  public:
    static constexpr unsigned stateSize = 312;
    static constexpr uint64_t defaultSeed = 5489;

    constexpr explicit Mt19937_64(uint64_t seed = defaultSeed) { seedIs(seed); }

    constexpr void seedIs(uint64_t seed) {
        state_[0] = seed;
        for (unsigned i = 1; i < stateSize; ++i) {
            state_[i] = 6364136223846793005ULL * (state_[i - 1] ^ (state_[i - 1] >> 62)) + i;
        }
        index_ = stateSize;
    }

    uint64_t operator()() {
        if (index_ >= stateSize) {
            twist();
        }
        uint64_t x = state_[index_++];
        x ^= (x >> 29) & 0x5555555555555555ULL;
        x ^= (x << 17) & 0x71d67fffeda60000ULL;
        x ^= (x << 37) & 0xfff7eee000000000ULL;
        x ^= x >> 43;
        return x;
    }

  private:
    void twist();

    uint64_t state_[stateSize] = {};
    unsigned index_ = stateSize;
};

}  // namespace Impl

class KELVO_EXPORT Random {
  public:
    // Chooses the seed on the first call (ZUTEST_RANDSEED as an unsigned
    // decimal, else the monotonic clock's nanoseconds; truncated to 32 bits)
    // and keeps it afterwards. Every call prints the seed to standard error and
    // restarts both generators from it.
    static void setSeed();
    // The seed; 0 before the first setSeed().
    static uint64_t getSeed();
    // Next engine output. Before any setSeed() the engine runs from its
    // standard default seed.
    static uint64_t rand64();
    // length characters drawn with rand() from digits and letters, and about
    // one in 63 a zero byte: the alphabet's terminating zero is a deliberate
    // 63rd symbol, which tests of binary-safe string handling rely on.
    static String randomString(unsigned length);
};

}  // namespace Kelvo
