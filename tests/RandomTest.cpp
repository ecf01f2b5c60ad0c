#include "TestSupport.h"

using namespace KelvoTest;

using Kelvo::Random;

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
    const std::string alphabet =
        std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") + '\0';
    const std::string text = Random::randomString(63 * 1000);
    EXPECT_EQ(text.find_first_not_of(alphabet), std::string::npos);
    for (char c : alphabet) {
        const auto n = std::count(text.begin(), text.end(), c);
        EXPECT_TRUE(n > 700 && n < 1300) << int(c) << " drawn " << n << " times, not about 1000";
    }
}

TEST(RandomDeathTest, SeedIsChosenOncePrintedAndReplayable) {
    // The generators are process-wide and the seed is chosen once per process:
    // every case runs in a freshly started copy of this program.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        const char* env;   // null: unset, the seed comes from the clock
        const char* seed;  // as printed
    } cases[] = {
        {"42", "42"},
        {"4294967338", "42"},                       // 2^32 + 42: truncated to 32 bits
        {"99999999999999999999999", "4135583743"},  // wraps, does not saturate
        {"123abc", "123"},                          // stops at the first non-digit
        {nullptr, "[0-9]+"},
    };
    for (const auto& c : cases) {
        const std::string line =
            std::string("Kelvo::Random::setSeed\\(\\), setting seed to ") + c.seed + "\n";
        // The child prints: unseeded before setSeed, seed, engine seeded, and
        // a second setSeed restarting both sequences from the same seed.
        EXPECT_EXIT(
            {
                c.env ? setenv("ZUTEST_RANDSEED", c.env, 1) : unsetenv("ZUTEST_RANDSEED");
                const bool unseeded =
                    Random::getSeed() == 0 && Random::rand64() == std::mt19937_64()();
                Random::setSeed();
                const uint64_t seed = Random::getSeed();
                const uint64_t first = Random::rand64();
                const std::string text = Random::randomString(32);
                setenv("ZUTEST_RANDSEED", "7", 1);  // the environment is read once
                Random::setSeed();
                std::fprintf(stderr, "%d %s %d %d\n", unseeded, std::to_string(seed).c_str(),
                             first == std::mt19937_64(seed)(),
                             Random::getSeed() == seed && Random::rand64() == first &&
                                 Random::randomString(32) == text);
                _exit(0);
            },
            testing::ExitedWithCode(0), line + line + "1 " + c.seed + " 1 1\n")
            << (c.env ? c.env : "unset");
    }
}
