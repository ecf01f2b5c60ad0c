// The test kit, linked as a daemon's tests link it: Kelvo::TestKit over the
// shared library.
#include <Kelvo/Kelvo.h>
#include <Kelvo/TestKit.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>

namespace {

using namespace Kelvo;
using namespace Kelvo::TestKit;
using namespace ::testing;
using Kelvo::Platform::fastForward;

// ---------------------------------------------------------------------------
// Fast-forward, the test-yield ratio and runLoopUntil

struct Idle : Task {
    using Task::Task;
    void taskExecute() override {}
};

// Each scope puts back what it found, not a default. The fixture turns
// fast-forward off in TearDown, which GoogleTest runs after a failed or
// throwing test as well.
TEST(TestKitScopes, FixtureAndYieldRatioScopesRestoreWhatTheyFound) {
    struct : FastForwardTest {
        void TestBody() override {
            SetUp();
            EXPECT_TRUE(fastForward());
            TearDown();
        }
    } fixture;
    fixture.TestBody();
    EXPECT_FALSE(fastForward());
    Idle task(schedulerRootKelvoNonShared("testkit"), TaskPriority::normal, "task");
    task.taskTestYieldRatioIs(7);
    {
        TestYieldRatioScope outer(task, 3);
        {
            TestYieldRatioScope inner(task, 0);
            EXPECT_EQ(task.taskTestYieldRatio(), 0);
        }
        EXPECT_EQ(task.taskTestYieldRatio(), 3);
    }
    EXPECT_EQ(task.taskTestYieldRatio(), 7);
}

// Re-arms itself every period seconds and counts its expiries.
struct Ticker : Platform::TimeoutHandler {
    std::shared_ptr<Platform::TimerControl> timer = Platform::getTimerControl(this);
    double period;
    int ticks = 0;
    explicit Ticker(double seconds) : period(seconds) { timer->setTimeout(period); }
    ~Ticker() override { timer->delTimeout(); }
    void timeout() override {
        ++ticks;
        timer->setTimeout(period);
    }
};

// Under fast-forward the runner steps from timer to timer and reaches its
// bound without waiting; in real time it slices the wait finely enough to
// see another thread's change at once. Fast-forward scopes nest, each
// putting back what it found.
TEST(TestKitRunLoopUntil, StepsTimerByTimerInVirtualTimeAndSlicesRealTime) {
    int calls = 0;
    for (const double bound : {-1.0, std::nan(""), HUGE_VAL}) {
        const AssertionResult result = runLoopUntil([&] { return ++calls > 0; }, bound);
        EXPECT_FALSE(result) << bound;
        EXPECT_THAT(result.message(), HasSubstr("is not a finite, non-negative time"));
    }
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(runLoopUntil([] { return true; }, 0));

    ASSERT_FALSE(fastForward());
    {
        FastForwardScope on;
        Ticker ticker(7);
        const auto realStart = std::chrono::steady_clock::now();
        const double start = Kelvo::time();
        // A runner that let several timers fire between two tests of done()
        // would step past ticks == 3.
        EXPECT_TRUE(runLoopUntil([&] { return ticker.ticks == 3; }, 1000));
        EXPECT_NEAR(Kelvo::time() - start, 21, 1);
        const AssertionResult result = runLoopUntil(
            [] { return false; }, 3600, [&] { return fmt::format("{} ticks", ticker.ticks); });
        EXPECT_THAT(result.message(),
                    MatchesRegex("not reached within 3600 s of loop time "
                                 "\\(spent 3600\\.0[0-9] s\\); last seen: 517 ticks"));
        EXPECT_NEAR(Kelvo::time() - start, 3621, 0.1);
        EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(60));
        {
            FastForwardScope off(false);
            EXPECT_FALSE(fastForward());
            // The flag is set only after the first test of done() found it
            // unset, so it is seen after a slice of loop time, which must be
            // short.
            std::atomic<int> checks = 0;
            std::atomic<bool> flag = false;
            std::thread setter([&] {
                const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
                while (checks == 0 && std::chrono::steady_clock::now() < deadline)
                    std::this_thread::yield();
                flag = true;
            });
            const auto realNow = std::chrono::steady_clock::now();
            EXPECT_TRUE(runLoopUntil([&] { return ++checks, flag.load(); }, 60));
            EXPECT_LT(std::chrono::steady_clock::now() - realNow, std::chrono::seconds(30));
            setter.join();

            const double now = Kelvo::time();
            const AssertionResult realResult = runLoopUntil([] { return false; }, 0.2);
            EXPECT_GE(Kelvo::time() - now, 0.2);
            EXPECT_THAT(
                realResult.message(),
                MatchesRegex("not reached within 0.2 s of loop time \\(spent 0\\.[2-9][0-9] s\\)"));
        }
        EXPECT_TRUE(fastForward());
    }
    EXPECT_FALSE(fastForward());
}

// ---------------------------------------------------------------------------
// TraceCapture

// Stands for the trace output while alive: the lines no capture withheld.
struct OutputScope {
    static inline std::vector<std::string> messages;
    static bool observe(void*, const Platform::ObservedTraceLine& line) {
        messages.emplace_back(line.message);
        return true;
    }
    OutputScope() {
        messages.clear();
        Platform::traceLineObserverIs({&observe, nullptr});
    }
    ~OutputScope() { Platform::traceLineObserverIs({}); }
};

// A capture collects its handle's lines at its levels and gives the rest to
// the observer it found: the trace output, or an earlier capture.
TEST(TestKitTraceCapture, CollectsOnlyItsHandlesLinesAtItsLevelsAndPassesTheRestOn) {
    OutputScope output;
    Platform::setupKelvoDebug("TestKitCapturedToo/3,TestKitCaptured/4");
    auto captured = Platform::getDebugHandler("TestKitCaptured");
    auto other = Platform::getDebugHandler("TestKitCapturedToo");
    {
        TraceCapture outer("TestKitCaptured", "2");
        {
            TraceCapture capture("TestKitCaptured", "37");
            KELVO_TRACE(captured, 3, "captured at {}", 3);
            KELVO_TRACE(captured, 2, "outer's");
            KELVO_TRACE(captured, 4, "not captured at {}", 4);
            KELVO_TRACE(other, 3, "other handle");
            KELVO_TRACE(captured, 7, "captured at {}", 7);
            EXPECT_THAT(capture.messages(), ElementsAre("captured at 3", "captured at 7"));
            EXPECT_TRUE(capture.contains("captured at 7"));
            EXPECT_FALSE(capture.contains("other"));
            EXPECT_THAT(capture.lines().front(), MatchesRegex(".*TestKitCaptured 3 captured at 3"));
        }
        EXPECT_THAT(outer.messages(), ElementsAre("outer's"));
    }
    // Lines at levels the handle had go on to the output; the captures' own
    // levels do not.
    EXPECT_THAT(OutputScope::messages, ElementsAre("not captured at 4", "other handle"));
    EXPECT_EQ(Platform::traceLineObserver().function, &OutputScope::observe);
    Platform::clearKelvoDebug("TestKitCapturedToo/*,TestKitCaptured/*");
}

TEST(TestKitTraceCapture, RestoresTheLevelsOfTheNameAndItsHandles) {
    // The name, a TRACE text applied first (or ""), the handles' levels then.
    const std::tuple<const char*, const char*, uint32_t> cases[] = {
        {"TestKitRestoreNone", "", 0},
        {"TestKitRestoreOwn", "TestKitRestoreOwn/25", 0x24},
        {"TestKitRestoreWild", "TestKitRestoreW*/6", 0x40},
        {"TestKitRestoreZero", "TestKitRestoreZero/", 0},
    };
    for (const auto& [name, before, levels] : cases) {
        SCOPED_TRACE(name);
        if (*before)
            Platform::setupKelvoDebug(before);
        // A handle made before the capture, with a level of its own.
        auto lowered = Platform::getDebugHandler(name);
        lowered->enabledIs(9, true);
        std::shared_ptr<Platform::DebugHandler> during;
        {
            TraceCapture capture(name, "13");
            during = Platform::getDebugHandler(name);
            for (const auto& handle : {lowered, during})
                EXPECT_EQ(handle->levels & 0xa, 0xa);
        }
        EXPECT_EQ(lowered->levels, levels | 0x200);
        EXPECT_EQ(during->levels, levels);
        EXPECT_EQ(Platform::getDebugHandler(name)->levels, levels);
        if (*before)
            Platform::clearKelvoDebug(fmt::format("{}*", before).c_str());
    }
}

TEST(TestKitTraceCapture, CollectsLinesTracedFromOtherThreads) {
    OutputScope output;
    auto handle = Platform::getDebugHandler("TestKitThreads");
    TraceCapture capture("TestKitThreads", "5");
    constexpr int threads = 4, perThread = 250;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                KELVO_TRACE(handle, 5, "line {}", t * perThread + i);
        });
    }
    // The collected lines are read while the workers still add to them.
    EXPECT_TRUE(runLoopUntil([&] { return capture.messages().size() == threads * perThread; }, 60,
                             [&] { return fmt::format("{} lines", capture.messages().size()); }));
    for (auto& worker : workers)
        worker.join();
    // None collected twice.
    const std::vector<std::string> messages = capture.messages();
    EXPECT_EQ(std::set<std::string>(messages.begin(), messages.end()).size(), messages.size());
    EXPECT_TRUE(OutputScope::messages.empty());
}

}  // namespace
