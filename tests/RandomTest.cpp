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

class RandomDeathTest : public testing::Test {
  protected:
    // The generators are process-wide and the seed is chosen once per process:
    // every case runs in a freshly started copy of this program.
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

TEST(Random, EngineMatchesTheStandardMt19937_64) {
    for (uint64_t seed : {0ull, 1ull, 42ull, 5489ull, 0xffffffffull, 0x8000000000000001ull}) {
        Kelvo::Impl::Mt19937_64 ours(seed);
        std::mt19937_64 reference(seed);
        // Several refills of the 312-word state.
        for (int i = 0; i < 2000; ++i) {
            ASSERT_EQ(ours(), reference()) << "seed " << seed << " draw " << i;
        }
    }
    Kelvo::Impl::Mt19937_64 reseeded(7);
    reseeded();
    reseeded.seedIs(42);
    EXPECT_EQ(reseeded(), std::mt19937_64(42)());
}

TEST(Random, RandomStringUsesDigitsLettersAndTheZeroByte) {
    EXPECT_EQ(Random::randomString(0), "");
    const std::string text = Random::randomString(63 * 1000);
    ASSERT_EQ(text.size(), 63u * 1000u);
    int counts[256] = {};
    for (unsigned char c : text) {
        ++counts[c];
    }
    const std::string alphabet =
        std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") + '\0';
    int inAlphabet = 0;
    for (unsigned char c : alphabet) {
        // Each of the 63 symbols is drawn about 1000 times.
        EXPECT_GT(counts[c], 700) << "symbol " << int(c);
        EXPECT_LT(counts[c], 1300) << "symbol " << int(c);
        inAlphabet += counts[c];
    }
    EXPECT_EQ(inAlphabet, 63 * 1000) << "characters outside the alphabet";
}

TEST_F(RandomDeathTest, SeedFromEnvironmentIsPrintedFixedAndReplayable) {
    EXPECT_EXIT(
        {
            setenv("ZUTEST_RANDSEED", "42", 1);
            require(Random::getSeed() == 0, "seed is 0 before setSeed");
            std::mt19937_64 standard;
            require(Random::rand64() == standard(), "default sequence before setSeed");
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

TEST_F(RandomDeathTest, SeedTextIsReadAsDecimalTruncatedTo32Bits) {
    const struct {
        const char* env;
        uint64_t seed;
    } cases[] = {
        {"4294967338", 42},           // 2^32 + 42
        {"4294967295", 4294967295u},  // largest 32-bit value
        {"123abc", 123},              // stops at the first non-digit
        {"abc", 0},
        {"", 0},
        {"99999999999999999999999", 4135583743u},  // wraps, does not saturate
    };
    for (const auto& c : cases) {
        EXPECT_EXIT(
            {
                setenv("ZUTEST_RANDSEED", c.env, 1);
                Random::setSeed();
                require(Random::getSeed() == c.seed, c.env);
                require(Random::rand64() == std::mt19937_64(c.seed)(), "engine seeded");
                _exit(0);
            },
            testing::ExitedWithCode(0), "setting seed to " + std::to_string(c.seed) + "\n")
            << "ZUTEST_RANDSEED=" << c.env;
    }
}

TEST_F(RandomDeathTest, SeedWithoutEnvironmentComesFromTheClockAndIsPrinted) {
    EXPECT_EXIT(
        {
            unsetenv("ZUTEST_RANDSEED");
            // Capture our own standard error to compare the printed seed.
            int fds[2];
            require(pipe(fds) == 0, "pipe");
            const int saved = dup(2);
            dup2(fds[1], 2);
            Random::setSeed();
            dup2(saved, 2);
            close(fds[1]);
            char buffer[128] = {};
            require(read(fds[0], buffer, sizeof buffer - 1) > 0, "seed printed");
            const std::string expected = "Kelvo::Random::setSeed(), setting seed to " +
                                         std::to_string(Random::getSeed()) + "\n";
            require(buffer == expected, buffer);
            require(Random::getSeed() <= 999999999u, "nanoseconds part of a clock reading");
            require(Random::rand64() == std::mt19937_64(Random::getSeed())(), "engine seeded");
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}
