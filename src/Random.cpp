#include <Kelvo/RandomCpp.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace Kelvo {

namespace Impl {

void Mt19937_64::twist() {
    constexpr unsigned middle = 156;
    constexpr uint64_t matrix = 0xb5026f5aa96619e9ULL;
    constexpr uint64_t upperMask = ~0ULL << 31;
    constexpr uint64_t lowerMask = ~upperMask;
    for (unsigned i = 0; i < stateSize; ++i) {
        const uint64_t y = (state_[i] & upperMask) | (state_[(i + 1) % stateSize] & lowerMask);
        state_[i] = state_[(i + middle) % stateSize] ^ (y >> 1) ^ ((y & 1) ? matrix : 0);
    }
    index_ = 0;
}

}  // namespace Impl

namespace {

uint32_t seed_ = 0;
bool firstCall_ = true;
// Constant-initialised, so draws made during other modules' static
// initialisation already see the default sequence.
constinit Impl::Mt19937_64 engine_{Impl::Mt19937_64::defaultSeed};

// Digits up to the first non-digit, wrapping modulo 2^32.
uint32_t parseSeed(const char* text) {
    uint32_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10u + static_cast<uint32_t>(*text - '0');
    }
    return value;
}

}  // namespace

void Random::setSeed() {
    if (firstCall_) {
        firstCall_ = false;
        if (const char* env = std::getenv("ZUTEST_RANDSEED")) {
            seed_ = parseSeed(env);
        } else {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            seed_ = static_cast<uint32_t>(now.tv_nsec);
        }
    }
    std::fprintf(stderr, "Kelvo::Random::setSeed(), setting seed to %u\n", seed_);
    std::fflush(stderr);
    std::srand(seed_);
    engine_.seedIs(seed_);
}

uint64_t Random::getSeed() {
    return seed_;
}

uint64_t Random::rand64() {
    return engine_();
}

String Random::randomString(unsigned length) {
    // 62 symbols plus the terminating zero: the modulus is 63 on purpose.
    static constexpr char alphabet[] =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    static_assert(sizeof alphabet == 63);
    String text(length, '\0');
    for (unsigned i = 0; i < length; ++i) {
        text[i] = alphabet[std::rand() % 63];
    }
    return text;
}

}  // namespace Kelvo
