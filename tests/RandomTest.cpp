#include <Kelvo/RandomCpp.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unistd.h>

using Kelvo::Random;

namespace {

// Inside a death-test child: report the failed check and exit non-zero.
void require(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "check failed: %s\n", what);
        _exit(1);
    }
}

// The generators are process-wide and the seed is chosen once per process:
// every case runs in a freshly started copy of this program.
class RandomDeathTest : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

TEST(Random, EngineMatchesTheStandardMt19937_64) {
    for (uint64_t seed : {0ull, 42ull, 5489ull, 0xffffffffull, 0x8000000000000001ull}) {
        Kelvo::Impl::Mt19937_64 ours(seed);
        std::mt19937_64 reference(seed);
        for (int i = 0; i < 2000; ++i) {  // several refills of the state
            ASSERT_EQ(ours(), reference()) << "seed " << seed << " draw " << i;
        }
    }
}

TEST(Random, RandomStringDrawsEvenlyFromDigitsLettersAndTheZeroByte) {
    EXPECT_EQ(Random::randomString(0), "");
    const std::string text = Random::randomString(63 * 1000);
    ASSERT_EQ(text.size(), 63u * 1000u);
    int counts[256] = {};
    for (unsigned char c : text) {
        ++counts[c];
    }
    int inAlphabet = 0;
    for (unsigned char c :
         std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") + '\0') {
        EXPECT_TRUE(counts[c] > 700 && counts[c] < 1300)
            << "symbol " << int(c) << ": " << counts[c];
        inAlphabet += counts[c];
    }
    EXPECT_EQ(inAlphabet, 63 * 1000) << "characters outside the alphabet";
}

TEST_F(RandomDeathTest, SeedFromEnvironmentIsPrintedFixedAndReplayable) {
    EXPECT_EXIT(
        {
            setenv("ZUTEST_RANDSEED", "42", 1);
            require(Random::getSeed() == 0, "seed is 0 before setSeed");
            require(Random::rand64() == std::mt19937_64()(), "default sequence before setSeed");
            Random::setSeed();
            require(Random::getSeed() == 42, "getSeed");
            const uint64_t first = Random::rand64();
            require(first == std::mt19937_64(42)(), "first draw of seed 42");
            const std::string text = Random::randomString(32);
            // The environment is read once; every call restarts both sequences.
            setenv("ZUTEST_RANDSEED", "7", 1);
            Random::setSeed();
            require(Random::getSeed() == 42, "seed kept after the first call");
            require(Random::rand64() == first, "engine restarted");
            require(Random::randomString(32) == text, "rand() restarted");
            _exit(0);
        },
        testing::ExitedWithCode(0),
        "Kelvo::Random::setSeed\\(\\), setting seed to 42\n"
        "Kelvo::Random::setSeed\\(\\), setting seed to 42\n");
}

TEST_F(RandomDeathTest, SeedIsDecimalTruncatedTo32BitsOrTheClock) {
    const struct {
        const char* env;  // null: unset, the seed comes from the clock
        uint64_t seed;
    } cases[] = {
        {"4294967338", 42},                        // 2^32 + 42
        {"99999999999999999999999", 4135583743u},  // wraps, does not saturate
        {"123abc", 123},                           // stops at the first non-digit
        {nullptr, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EXIT(
            {
                c.env ? setenv("ZUTEST_RANDSEED", c.env, 1) : unsetenv("ZUTEST_RANDSEED");
                Random::setSeed();
                require(!c.env || Random::getSeed() == c.seed, "seed");
                require(Random::rand64() == std::mt19937_64(Random::getSeed())(), "engine seeded");
                _exit(0);
            },
            testing::ExitedWithCode(0),
            "setting seed to " + (c.env ? std::to_string(c.seed) : "[0-9]+") + "\n")
            << (c.env ? c.env : "unset");
    }
}
