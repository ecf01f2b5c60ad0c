#include "TestSupport.h"

#include <cmath>

using namespace KelvoTest;

using namespace Kelvo;
using namespace Kelvo::Platform;

TEST(TimerWheelEvent, StateChangesGoViaNotLinked) {
    struct : TimerWheelEvent {
        void timeout() override {}
    } e;
    e.stateIs(TimerWheelState::inTimerWheel);
    EXPECT_THAT(thrownMessage([&] { e.stateIs(TimerWheelState::inTimersExpiryingSoon); }),
                HasSubstr("State change inTimerWheel -> inTimersExpiryingSoon must go via "
                          "notLinked"));
    e.stateIs(TimerWheelState::notLinked);
    EXPECT_THAT(thrownMessage([&] { e.stateIs(static_cast<TimerWheelState>(3)); }),
                HasSubstr("invalid state 3"));
}

TEST(TimerWheelEventDeathTest, DestroyingARunningControlIsFatal) {
    EXPECT_DEATH(
        {
            Probe handler;
            getTimerControl(&handler, getTimerWheelForTaskScheduler(eventPriorityDefault))
                ->setTimeout(5);
        },
        "destroyed while inTimerWheel");
}

// -infinity and NaN are overdue like any negative delay: the timer reports
// 0 s left, can be stopped (the master timer then finds nothing), and
// otherwise fires once on the next pass.
TEST(TimerWheel, InfiniteOrNanDelayIsOverdueAndCancellable) {
    auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
    for (double delay : {-inf, std::nan("")}) {
        SCOPED_TRACE(delay);
        Probe t(wheel);
        t.timer->setTimeout(delay);
        EXPECT_EQ(t.timer->remainingTimeout(), 0.0);
        t.timer->delTimeout();
        EXPECT_EQ(t.timer->remainingTimeout(), inf);
        doEventLoop();
        EXPECT_EQ(t.fired, 0);
        t.timer->setTimeout(delay);
        doEventLoop();
        EXPECT_EQ(std::tuple(t.fired, t.timer->remainingTimeout()), std::tuple(1, inf));
    }
}

// Real time: loop and wheel timers armed before and at the end of a slow
// handler, with delays below and across the 10 ms wheel tick, all run at or
// after their expiry, so neither a stale loop-pass time nor a coarse tick
// shows through. Those still pending are restarted, not fired twice.
TEST(TimerWheel, TimersNeverRunBeforeTheirTimeInRealTime) {
    auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
    std::mt19937 random(5);
    std::vector<std::unique_ptr<Probe>> timers;
    for (int i = 0; i < 300; ++i) {
        timers.push_back(std::make_unique<Probe>(i % 3 ? nullptr : wheel));
        timers[i]->start((random() % 25000) / 1e6);
    }
    std::vector<int> expected(timers.size(), 1), fired, early;
    Probe slow;
    slow.onTimeout = [&] {
        for (const double until = Kelvo::time() + 0.03; Kelvo::time() < until;) {
        }
        for (size_t i = 0; i < timers.size(); ++i) {
            expected[i] = timers[i]->fired + 1;
            timers[i]->start((random() % 25000) / 1e6);
        }
    };
    slow.timer->setTimeout(0.005);
    doEventLoop();
    for (const auto& t : timers)
        fired.push_back(t->fired), early.push_back(t->early);
    EXPECT_EQ(fired, expected);
    EXPECT_EQ(early, std::vector<int>(timers.size(), 0));
}

// A handler's exception leaves the loop even though its hook would claim it;
// the wheel then stays stalled until setMasterTimer() is called.
TEST_F(FastForward, WheelHandlerExceptionLeavesLoopAndStallsTheWheel) {
    auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
    Probe thrower(wheel), sameTick(wheel), fresh(wheel);
    thrower.throws = thrower.claims = true;
    thrower.start(1);
    sameTick.start(1.001);
    EXPECT_THROW(doEventLoop(5), std::runtime_error);
    EXPECT_EQ(std::tuple(thrower.fired, sameTick.fired), std::tuple(1, 0));
    EXPECT_LT(wheel->masterTimerExpiry(), Kelvo::time());
    fresh.start(0.5);
    doEventLoop(5);
    EXPECT_EQ(sameTick.fired + fresh.fired, 0);
    wheel->setMasterTimer();
    doEventLoop(5);
    EXPECT_EQ(std::tuple(sameTick.fired, fresh.fired, sameTick.early + fresh.early),
              std::tuple(1, 1, 0));
}
