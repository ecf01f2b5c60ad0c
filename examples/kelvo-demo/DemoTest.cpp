// The demo daemon in-process, as a daemon's own tests would drive it: under
// fast-forward, so that minutes of its timers pass in milliseconds, with
// every wait bounded in virtual time.
#include "Demo.h"

#include <Kelvo/TestKit.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

using Kelvo::TestKit::runLoopUntil;
using KelvoDemo::Demo;

// No report server: a test must not depend on what else runs on the machine.
KelvoDemo::Config quietConfig() {
    KelvoDemo::Config config;
    config.reportServerName.clear();
    return config;
}

std::string describeTotals(const Demo& demo) {
    const KelvoDemo::Totals& t = demo.totals();
    return fmt::format("fed {} read {}, jobs {}/{}, batches {}", t.bytesFed, t.bytesRead,
                       t.jobsDone, t.jobsDispatched, t.crunchBatches);
}

class KelvoDemoTest : public Kelvo::TestKit::FastForwardTest {};

TEST_F(KelvoDemoTest, PipeReaderGetsExactlyWhatTheFeederWrote) {
    Demo demo(quietConfig());
    // Some 50 records; the feeder's runs and the reader's runs interleave, so
    // the bytes must be equal at some pass once the feeder has written enough.
    EXPECT_TRUE(runLoopUntil(
        [&] {
            return demo.totals().bytesFed > 20000 &&
                   demo.totals().bytesRead == demo.totals().bytesFed;
        },
        60.0, [&] { return describeTotals(demo); }));
    EXPECT_EQ(demo.totals().readChecksum, demo.totals().fedChecksum);
}

TEST_F(KelvoDemoTest, WorkersFinishEveryDispatchedJob) {
    Demo demo(quietConfig());
    EXPECT_TRUE(runLoopUntil(
        [&] {
            const KelvoDemo::Totals& t = demo.totals();
            return t.jobsDispatched >= 20 && t.jobsDone == t.jobsDispatched;
        },
        60.0, [&] { return describeTotals(demo); }));
}

// A test-yield ratio makes taskShouldYield() answer yes on every ratio-th
// call, so the runs a batch takes follow from the slices alone.
TEST_F(KelvoDemoTest, HeavyTaskYieldsOnItsQuantum) {
    struct Case {
        uint8_t ratio;
        uint32_t runs;  // of a 30-slice batch
    };
    for (const Case& c : {Case{1, 30}, Case{3, 10}, Case{7, 5}, Case{30, 1}}) {
        SCOPED_TRACE(fmt::format("ratio {}", c.ratio));
        KelvoDemo::Config config = quietConfig();
        config.crunchSlicesPerBatch = 30;
        Demo demo(config);
        Kelvo::TestKit::TestYieldRatioScope yield(demo.crunchTask(), c.ratio);
        demo.crunchNow();
        ASSERT_TRUE(runLoopUntil([&] { return demo.totals().crunchBatches == 1; }, 10.0,
                                 [&] { return describeTotals(demo); }));
        EXPECT_EQ(demo.totals().crunchRunsLastBatch, c.runs);
        // The scheduler's own count: each yield was a separate run.
        EXPECT_EQ(demo.crunchTask().taskRunCount(), c.runs);
    }
}

TEST_F(KelvoDemoTest, StatusLineIsTracedEveryTenSeconds) {
    const double start = Kelvo::time();
    Demo demo(quietConfig());
    Kelvo::TestKit::TraceCapture capture("Demo", "3");
    ASSERT_TRUE(runLoopUntil([&] { return capture.contains("status: "); }, 30.0));
    // The timer wheel turns 100 times a second: a timer may fire up to one
    // turn before its exact expiry.
    EXPECT_GE(Kelvo::time() - start, 10.0 - 0.01);
}

TEST_F(KelvoDemoTest, SigtermStopsTheLoop) {
    Demo demo(quietConfig());
    demo.stopOnSignals();
    ASSERT_EQ(::raise(SIGTERM), 0);
    EXPECT_TRUE(runLoopUntil([&] { return demo.stopRequested(); }, 5.0));
}

TEST(KelvoDemoLock, SecondInstanceIsRefusedNamingTheHolder) {
    char pattern[] = "/tmp/kelvo-demo-test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::string directory = pattern;
    Kelvo::Debuggable trace("Demo");
    {
        KelvoDemo::SingleInstance first(*trace.debugHandler(), directory);
        KelvoDemo::SingleInstance second(*trace.debugHandler(), directory);
        ASSERT_EQ(first.acquire(), "");
        const std::string refusal = second.acquire();
        EXPECT_NE(refusal.find(fmt::format("already running as pid {} ", ::getpid())),
                  std::string::npos)
            << refusal;
    }
    // Released with its holder: the next instance gets it.
    KelvoDemo::SingleInstance third(*trace.debugHandler(), directory);
    EXPECT_EQ(third.acquire(), "");
    std::filesystem::remove_all(directory);
}

}  // namespace
