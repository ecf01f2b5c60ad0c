#include <Kelvo/LibeventFactoryCpp.h>
#include <Kelvo/ThreadCpp.h>
#include <Kelvo/TimerWheelCpp.h>

#include "EventLoopTestUtil.h"

#include <cmath>
#include <functional>
#include <random>
#include <stdexcept>
#include <thread>

using namespace Kelvo;
using namespace Kelvo::Platform;
using namespace KelvoTest;
using ::testing::HasSubstr;

namespace {

struct Event : TimerWheelEvent {
    void timeout() override {}
};

// A wheel-backed control whose handler checks that it never runs early.
struct Timer : TimeoutHandler {
    std::shared_ptr<TimerControl> control;
    std::function<void()> onTimeout;
    double due = inf;
    int fired = 0;
    int early = 0;
    explicit Timer(const std::shared_ptr<TimerWheel>& wheel)
        : control(getTimerControl(this, wheel)) {}
    ~Timer() override { control->delTimeout(); }
    void start(double seconds) {
        due = Kelvo::time() + seconds;
        control->setTimeout(seconds);
    }
    void timeout() override {
        ++fired;
        early += Kelvo::time() < due;
        if (onTimeout)
            onTimeout();
    }
    bool handleTimeoutException() override { return true; }  // never consulted
};

class FastForwardWheel : public FastForward {
  protected:
    std::shared_ptr<TimerWheel> wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
};

}  // namespace

TEST(TimerWheelEvent, StateBitsAndLegalTransitions) {
    const char* names[] = {"notLinked", "inTimerWheel", "inTimersExpiryingSoon", "unknownState"};
    for (int state : {0, 1, 2, 7}) {
        EXPECT_STREQ(timerWheelStateToString(static_cast<TimerWheelState>(state)),
                     names[std::min(state, 3)]);
    }
    Event e;
    EXPECT_EQ(e.timeoutLink.flags, TIMEOUT_ABS | 4);
    e.stateIs(TimerWheelState::inTimerWheel);
    EXPECT_EQ(e.timeoutLink.flags, TIMEOUT_ABS | 8);
    EXPECT_THAT(assertMessage([&] { e.stateIs(TimerWheelState::inTimersExpiryingSoon); }),
                HasSubstr("State change inTimerWheel -> inTimersExpiryingSoon must go via "
                          "notLinked"));
    e.stateIs(TimerWheelState::notLinked);
    EXPECT_THAT(assertMessage([&] { e.stateIs(static_cast<TimerWheelState>(3)); }),
                HasSubstr("invalid state 3"));
    for (int bits : {4 | 16, 0}) {
        e.timeoutLink.flags = TIMEOUT_ABS | bits;
        EXPECT_THAT(assertMessage([&] { e.state(); }),
                    HasSubstr(fmt::format("None or multiple of our flags set {}", bits)));
    }
    e.timeoutLink.flags = TIMEOUT_ABS | 4;
}

TEST(TimerWheelEventDeathTest, DestroyingARunningControlIsFatal) {
    EXPECT_DEATH(
        {
            auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
            struct : TimeoutHandler {
                void timeout() override {}
            } handler;
            auto control = getTimerControl(&handler, wheel);
            control->setTimeout(5);
            control.reset();
        },
        "destroyed while inTimerWheel");
}

TEST(TimerWheel, SingletonIsPerThreadOnlyWhenAsked) {
    auto shared = getTimerWheel();
    EXPECT_EQ(getTimerWheel(), shared);
    std::shared_ptr<TimerWheel> plain, own;
    std::thread([&] { plain = getTimerWheel(); }).join();
    std::thread([&] {
        useThreadLocalSingletons();
        own = getTimerWheel();
        EXPECT_EQ(getTimerWheel(), own);
        leFree();
    }).join();
    EXPECT_EQ(plain, shared);
    EXPECT_NE(own, shared);
}

TEST(TimerWheel, StoppingLeavesMasterTimerUntilItFindsNothing) {
    auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
    Timer t(wheel);
    t.start(0.02);
    const double master = wheel->masterTimerExpiry();
    EXPECT_LE(master, t.due);
    t.control->delTimeout();
    t.control->delTimeout();
    EXPECT_EQ(wheel->masterTimerExpiry(), master);
    const std::string lines = traced("KelvoTimerWheel/8", [] { doEventLoop(); });
    EXPECT_THAT(lines, HasSubstr("master timer expired"));
    EXPECT_THAT(lines, HasSubstr("has no timers, del master timer timeout"));
    EXPECT_EQ(t.fired, 0);
    EXPECT_EQ(wheel->masterTimerExpiry(), inf);
}

// Real time: wheel timers armed before and at the end of a slow handler, with
// delays below and across the 10 ms tick, all run at or after their expiry.
TEST(TimerWheel, NeverRunsBeforeItsTimeInRealTime) {
    auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
    std::mt19937 random(5);
    std::vector<std::unique_ptr<Timer>> timers;
    for (int i = 0; i < 100; ++i)
        timers.push_back(std::make_unique<Timer>(wheel));
    std::vector<int> expected(timers.size(), 1);
    Probe slow;
    slow.onTimeout = [&] {
        for (const double until = Kelvo::time() + 0.03; Kelvo::time() < until;) {
        }
        // Timers still pending are restarted, not fired twice.
        for (size_t i = 0; i < timers.size(); ++i) {
            expected[i] = timers[i]->fired + 1;
            timers[i]->start((random() % 25000) / 1e6);
        }
    };
    for (auto& t : timers)
        t->start((random() % 25000) / 1e6);
    slow.timer->setTimeout(0.005);
    doEventLoop();
    for (size_t i = 0; i < timers.size(); ++i) {
        EXPECT_EQ(timers[i]->fired, expected[i]);
        EXPECT_EQ(timers[i]->early, 0);
    }
}

// A handler that restarts itself and stops a sibling due in the same pass.
TEST_F(FastForwardWheel, HandlersMayRestartAndStopTimersDuringTheWalk) {
    Timer self(wheel), sibling(wheel), bystander(wheel);
    self.onTimeout = [&] {
        if (self.fired < 5)
            self.start(0.5);
        sibling.control->delTimeout();
    };
    self.start(1);
    sibling.start(1);
    bystander.start(3);
    doEventLoop(10);
    EXPECT_EQ(self.fired, 5);
    EXPECT_EQ(sibling.fired, 0);
    EXPECT_EQ(bystander.fired, 1);
    EXPECT_EQ(self.early + bystander.early, 0);
}

// Random delays from 0 to minutes, with restarts and stops from handlers:
// every running timer fires exactly once per start and never before its
// expiry, and stopped ones never fire.
TEST_F(FastForwardWheel, RandomisedTimersNeverFireEarlyNorGetLost) {
    std::mt19937_64 random(12345);
    auto delay = [&] {
        switch (random() % 4) {
            case 0:
                return 0.0;
            case 1:
                return (random() % 100000) / 1e6;  // below 0.1 s: within a few ticks
            case 2:
                return (random() % 10000) / 1e3;
            default:
                return (random() % 300000) / 1e3;  // up to 5 minutes
        }
    };
    constexpr int count = 3000;
    std::vector<std::unique_ptr<Timer>> timers;
    std::vector<int> starts(count, 0), stopped(count, 0);
    for (int i = 0; i < count; ++i)
        timers.push_back(std::make_unique<Timer>(wheel));
    for (int i = 0; i < count; ++i) {
        timers[i]->onTimeout = [&, i] {
            const int other = static_cast<int>(random() % count);
            switch (random() % 8) {
                case 0:
                    if (timers[other]->control->remainingTimeout() != inf) {
                        timers[other]->control->delTimeout();
                        ++stopped[other];
                    }
                    break;
                case 1:
                case 2:
                    if (starts[i] < 4) {
                        ++starts[i];
                        timers[i]->start(delay());
                    }
                    break;
            }
        };
        ++starts[i];
        timers[i]->start(delay());
    }
    doEventLoop(4 * 300 + 10);
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(timers[i]->early, 0) << i;
        ASSERT_EQ(timers[i]->fired + stopped[i], starts[i]) << i;
        ASSERT_EQ(timers[i]->control->remainingTimeout(), inf) << i;
    }
    EXPECT_EQ(wheel->expiringSoonCountForTest(), 0u);
}

// A handler's exception leaves the loop even though its hook would claim it;
// the wheel then stays stalled until setMasterTimer() is called.
TEST_F(FastForwardWheel, ExceptionLeavesLoopAndStallsTheWheel) {
    Timer thrower(wheel), sameTick(wheel), fresh(wheel);
    thrower.onTimeout = [] { throw std::runtime_error("handler failed"); };
    thrower.start(1);
    sameTick.start(1.001);
    EXPECT_THROW(doEventLoop(5), std::runtime_error);
    EXPECT_EQ(thrower.fired, 1);
    EXPECT_EQ(sameTick.fired, 0);
    EXPECT_LT(wheel->masterTimerExpiry(), Kelvo::time());
    fresh.start(0.5);
    doEventLoop(5);
    EXPECT_EQ(sameTick.fired + fresh.fired, 0);
    wheel->setMasterTimer();
    doEventLoop(5);
    EXPECT_EQ(sameTick.fired, 1);
    EXPECT_EQ(fresh.fired, 1);
    EXPECT_EQ(sameTick.early + fresh.early, 0);
}
