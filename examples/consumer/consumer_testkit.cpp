// A daemon author's test, built against the installed test kit only.
#include <Kelvo/Kelvo.h>
#include <Kelvo/TestKit.h>
#include <gtest/gtest.h>

namespace {

struct Heartbeat : Kelvo::Platform::TimeoutHandler {
    std::shared_ptr<Kelvo::Platform::TimerControl> timer = Kelvo::Platform::getTimerControl(this);
    std::shared_ptr<Kelvo::Platform::DebugHandler> trace =
        Kelvo::Platform::getDebugHandler("KelvoConsumer::Heartbeat");
    int beats = 0;
    Heartbeat() { timer->setTimeout(60); }
    ~Heartbeat() override { timer->delTimeout(); }
    void timeout() override {
        KELVO_TRACE(trace, 4, "beat {}", ++beats);
        timer->setTimeout(60);
    }
};

class HeartbeatTest : public Kelvo::TestKit::FastForwardTest {};

TEST_F(HeartbeatTest, BeatsOnceAMinuteOfVirtualTime) {
    Kelvo::TestKit::TraceCapture capture("KelvoConsumer::Heartbeat", "4");
    Heartbeat heartbeat;
    EXPECT_TRUE(
        Kelvo::TestKit::runLoopUntil([&] { return heartbeat.beats == 60; }, 3700,
                                     [&] { return fmt::format("{} beats", heartbeat.beats); }));
    EXPECT_TRUE(capture.contains("beat 60"));
    EXPECT_FALSE(Kelvo::TestKit::runLoopUntil([&] { return heartbeat.beats == 0; }, 10));
}

}  // namespace
