#include "TestSupport.h"

#include <cmath>
#include <random>
#include <thread>
#include <tuple>

using namespace KelvoTest;

using namespace Kelvo;
using namespace Kelvo::Platform;

TEST(TimerWheelEvent, StateBitsAndLegalTransitions) {
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
    for (int bits : {4 | 16, 0}) {
        e.timeoutLink.flags = TIMEOUT_ABS | bits;
        EXPECT_THAT(thrownMessage([&] { e.state(); }),
                    HasSubstr(fmt::format("None or multiple of our flags set {}", bits)));
    }
    e.timeoutLink.flags = TIMEOUT_ABS | 4;
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

TEST(TimerWheel, SingletonIsPerThreadOnlyWhenAsked) {
    auto shared = getTimerWheel();
    std::shared_ptr<TimerWheel> plain, own;
    std::thread([&] { plain = getTimerWheel(); }).join();
    std::thread([&] {
        useThreadLocalSingletons();
        own = getTimerWheel();
    }).join();
    EXPECT_EQ(std::tuple(getTimerWheel(), plain), std::tuple(shared, shared));
    EXPECT_NE(own, shared);
}

TEST(TimerWheel, StoppingLeavesMasterTimerUntilItFindsNothing) {
    auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
    Probe t(wheel);
    t.start(0.02);
    const double master = wheel->masterTimerExpiry();
    EXPECT_LE(master, t.due);
    t.timer->delTimeout();
    t.timer->delTimeout();
    EXPECT_EQ(wheel->masterTimerExpiry(), master);
    const std::string lines = traced("KelvoTimerWheel/8", [] { doEventLoop(); });
    EXPECT_THAT(lines, HasSubstr("master timer expired"));
    EXPECT_THAT(lines, HasSubstr("has no timers, del master timer timeout"));
    EXPECT_EQ(std::tuple(t.fired, wheel->masterTimerExpiry()), std::tuple(0, inf));
}

// -infinity and NaN are overdue like any negative delay: the timer reports
// 0 s left, can be stopped, and otherwise fires once on the next pass.
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

// Random delays from 0 to minutes, with restarts and stops (also of timers due
// in the same pass) from handlers: every running timer fires exactly once per
// start and never before its expiry, and stopped ones never fire.
TEST_F(FastForward, RandomisedWheelTimersNeverFireEarlyNorGetLost) {
    auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
    std::mt19937_64 random(12345);
    auto delay = [&] {
        const double scale[] = {0, 1e-6 * (random() % 100000), 1e-3 * (random() % 10000),
                                1e-3 * (random() % 300000)};  // up to 5 minutes
        return scale[random() % 4];
    };
    constexpr int count = 3000;
    std::vector<std::unique_ptr<Probe>> timers;
    std::vector<int> starts(count, 1), stopped(count, 0);
    for (int i = 0; i < count; ++i)
        timers.push_back(std::make_unique<Probe>(wheel));
    for (int i = 0; i < count; ++i) {
        timers[i]->onTimeout = [&, i] {
            const int other = static_cast<int>(random() % count), op = random() % 8;
            if (op == 0 && timers[other]->timer->remainingTimeout() != inf) {
                timers[other]->timer->delTimeout();
                ++stopped[other];
            } else if (op <= 2 && starts[i] < 4) {
                ++starts[i];
                timers[i]->start(delay());
            }
        };
        timers[i]->start(delay());
    }
    doEventLoop(4 * 300 + 10);
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(std::tuple(timers[i]->early, timers[i]->fired + stopped[i],
                             timers[i]->timer->remainingTimeout()),
                  std::tuple(0, starts[i], inf))
            << i;
    }
    EXPECT_EQ(wheel->expiringSoonCountForTest(), 0u);
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
