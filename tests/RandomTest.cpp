#include "TestSupport.h"

using Kelvo::Random;

namespace {

TEST(Random, RandomStringDrawsEvenlyFromDigitsLettersAndTheZeroByte) {
    const std::string alphabet =
        std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") + '\0';
    const std::string text = Random::randomString(63 * 1000);
    EXPECT_EQ(text.find_first_not_of(alphabet), std::string::npos);
    for (char c : alphabet) {
        const auto n = std::count(text.begin(), text.end(), c);
        EXPECT_TRUE(n > 700 && n < 1300) << int(c) << " drawn " << n << " times, not about 1000";
    }
}

// In a fresh process, prints: whether the engine ran from the standard
// default seed before setSeed(), the seed chosen, whether the engine then
// draws what std::mt19937_64 draws from it, and whether a second setSeed()
// restarts both generators from the same seed.
void seedTwice(const char* env) {
    env ? setenv("ZUTEST_RANDSEED", env, 1) : unsetenv("ZUTEST_RANDSEED");
    const bool unseeded = Random::getSeed() == 0 && Random::rand64() == std::mt19937_64()();
    Random::setSeed();
    const uint64_t seed = Random::getSeed(), first = Random::rand64();
    std::mt19937_64 reference(seed);
    bool standard = first == reference();
    for (int i = 0; i < 2000; ++i)  // several refills of the state
        standard = Random::rand64() == reference() && standard;
    const std::string text = Random::randomString(32);
    setenv("ZUTEST_RANDSEED", "7", 1);  // the environment is read once
    Random::setSeed();
    const bool replayed =
        Random::getSeed() == seed && Random::rand64() == first && Random::randomString(32) == text;
    std::fprintf(stderr, "%d %s %d %d\n", unseeded, std::to_string(seed).c_str(), standard,
                 replayed);
    _exit(0);
}

TEST(RandomDeathTest, SeedIsChosenOncePrintedAndReplayable) {
    // The generators are process-wide and the seed is chosen once per process.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The environment's value (null: unset, the seed comes from the clock) and
    // the seed printed.
    const std::pair<const char*, const char*> cases[] = {
        {"42", "42"},
        {"4294967338", "42"},                       // 2^32 + 42: truncated to 32 bits
        {"99999999999999999999999", "4135583743"},  // wraps, does not saturate
        {"123abc", "123"},                          // stops at the first non-digit
        {"0", "0"},
        {nullptr, "[0-9]+"},
    };
    for (const auto& [env, seed] : cases) {
        const std::string line =
            std::string("Kelvo::Random::setSeed\\(\\), setting seed to ") + seed + "\n";
        EXPECT_EXIT(seedTwice(env), testing::ExitedWithCode(0),
                    line + line + "1 " + seed + " 1 1\n")
            << (env ? env : "unset");
    }
}

}  // namespace
