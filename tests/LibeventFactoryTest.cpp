#include <Kelvo/LibeventFactoryCpp.h>

#include "EventLoopTestUtil.h"

#include <fcntl.h>
#include <unistd.h>

#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Kelvo;
using namespace Kelvo::Platform;
using namespace KelvoTest;
using ::testing::HasSubstr;

TEST(EventPriority, NamesValidityAndTraceForm) {
    struct Case {
        int value;
        const char* name;
        bool valid;
        const char* traced;
    } cases[] = {{0, "eventPriorityStrictHigh", true, "eventPriorityStrictHigh"},
                 {1, "eventPriorityDefault", true, "eventPriorityDefault"},
                 {2, "", false, "Invalid EventPriority=2"},
                 {7, "", false, "Invalid EventPriority=7"},
                 {255, "", false, "Invalid EventPriority=255"}};
    for (const Case& c : cases) {
        const auto priority = static_cast<EventPriority>(c.value);
        EXPECT_STREQ(eventPriorityToString(priority), c.name) << c.value;
        EXPECT_EQ(isEventPriorityValid(priority), c.valid) << c.value;
        EXPECT_EQ(fmt::format("{}", priority), c.traced);
    }
}

TEST(LibeventBase, SecondDifferentBaseIsRefusedSameBaseAccepted) {
    std::thread([] {
        EXPECT_FALSE(leInitialized());
        leInit();
        event_base* own = leBase();
        leRegisterBase(own);
        event_base* other = leCreateBase();
        EXPECT_THAT(assertMessage([&] { leRegisterBase(other); }),
                    HasSubstr("but a thread_local  base already exists: "));
        EXPECT_EQ(leBase(), own);
        event_base_free(other);
        leFree();
        EXPECT_FALSE(leInitialized());
    }).join();
}

TEST(LibeventBase, DiagnosticsAreTracedAtMappedLevels) {
    setTraceFormat("level");
    struct Case {
        int severity;
        const char* line;
    } cases[] = {{EVENT_LOG_DEBUG, "9 libevent: note"},
                 {EVENT_LOG_MSG, "5 libevent: note"},
                 {EVENT_LOG_WARN, "1 libevent: note"},
                 {EVENT_LOG_ERR, "0 libevent: note"}};
    for (const Case& c : cases) {
        EXPECT_EQ(traced("KelvoLibevent/*", [&] { le_debug_cb(c.severity, "note"); }),
                  std::string(c.line) + "\n");
    }
    setTraceFormat("date,time,tid,handle,level");
    EXPECT_THAT(assertMessage([] { le_debug_cb(4, "odd"); }),
                HasSubstr("invalid libevent severity:4 msg:odd"));
    EXPECT_THAT(assertMessage([] { le_fatal_cb(3); }), HasSubstr("libevent fatal error:3"));
}

TEST(LibeventTimer, ArmsCancelsReportsRemaining) {
    Probe t;
    EXPECT_EQ(t.timer->remainingTimeout(), inf);
    t.timer->setTimeout(1.5);
    EXPECT_NEAR(t.timer->remainingTimeout(), 1.5, 0.1);
    t.timer->setTimeout(0);  // replaces the 1.5 s timeout
    doEventLoop();
    EXPECT_EQ(t.fired, 1);
    EXPECT_EQ(t.timer->remainingTimeout(), inf);
    t.timer->setTimeout(0);
    t.timer->delTimeout();
    t.timer->delTimeout();
    doEventLoop();
    EXPECT_EQ(t.fired, 1);
    t.timer->setTimeout(5);
    t.timer->setTimeout(inf);  // never: cancels the pending one
    EXPECT_EQ(t.timer->remainingTimeout(), inf);
    t.timer->setTimeout(-1);  // overdue: runs at once
    doEventLoop();
    EXPECT_EQ(t.fired, 2);
}

TEST(LibeventCallback, RequestsCoalesceAndCancelWithdraws) {
    Probe c;
    EXPECT_FALSE(c.call->pendingCallback());
    c.call->requestCallback();
    c.call->requestCallback();
    EXPECT_TRUE(c.call->pendingCallback());
    doEventLoop();
    EXPECT_EQ(c.calls, 1);
    EXPECT_FALSE(c.call->pendingCallback());
    c.call->requestCallback();
    c.call->cancelCallback();
    doEventLoop();
    EXPECT_EQ(c.calls, 1);
}

TEST(LibeventFd, ReadsPersistWritesAreOneShot) {
    Pipe p;
    Probe r, w;
    EXPECT_EQ(r.fd->getFd(), -1);
    r.fd->setReads(true);  // no descriptor yet: arms nothing
    ASSERT_EQ(::write(p.fds[1], "x", 1), 1);
    eventLoopTimeout(0.01);
    EXPECT_EQ(r.reads, 0);
    r.fd->setFd(p.fds[0]);
    EXPECT_TRUE(::fcntl(p.fds[0], F_GETFL) & O_NONBLOCK);
    w.fd->setReads(false);
    w.fd->setWrites(true);
    w.fd->setFd(p.fds[1]);
    for (int pass = 0; pass < 3; ++pass)
        eventLoopTimeout(0.005);
    EXPECT_GE(r.reads, 3);  // still readable: notified on every pass
    EXPECT_EQ(w.writes, 1);
    w.fd->setWrites(true);
    r.fd->clearEvents();
    const int reads = r.reads;
    eventLoopTimeout(0.005);
    EXPECT_EQ(w.writes, 2);
    EXPECT_EQ(r.reads, reads);
    r.fd->setFd(p.fds[0]);  // the flags survived clearEvents: reads re-armed
    eventLoopTimeout(0.005);
    EXPECT_GT(r.reads, reads);
    r.fd->delFd();
    EXPECT_EQ(r.fd->getFd(), -1);
}

// For each control kind: a claimed exception keeps the loop going, an
// unclaimed one leaves the loop call, and either way the loop's break event is
// gone afterwards and the loop runs again.
TEST(LibeventDispatch, HandlerExceptionFollowsItsHook) {
    enum Kind { timer, callback, fd };
    for (Kind kind : {timer, callback, fd}) {
        for (bool claims : {true, false}) {
            SCOPED_TRACE(::testing::Message() << "kind " << kind << " claims " << claims);
            Pipe p;
            Probe failing, later;
            failing.throws = true;
            failing.claims = claims;
            later.timer->setTimeout(0.02);
            if (kind == timer)
                failing.timer->setTimeout(0);
            if (kind == callback)
                failing.call->requestCallback();
            if (kind == fd) {
                ASSERT_EQ(::write(p.fds[1], "x", 1), 1);
                failing.fd->setFd(p.fds[0]);
            }
            if (claims) {
                EXPECT_NO_THROW(doEventLoop(0.1));
            } else {
                EXPECT_THROW(doEventLoop(5.0), std::runtime_error);
            }
            EXPECT_EQ(later.fired, claims ? 1 : 0);
            failing.fd->delFd();
            later.timer->delTimeout();
            timeval first;
            EXPECT_NE(Impl::event_base_get_first_timeout(leBase(), &first), 0);
            Probe again;
            again.timer->setTimeout(0);
            doEventLoop();
            EXPECT_EQ(again.fired, 1);
        }
    }
}

// A timer stamped from a stale or coarse clock fires early; so would one
// armed after a slow handler if the loop-pass time were cached.
TEST(LibeventTimer, NeverRunsBeforeItsTime) {
    std::mt19937 random(7);
    std::vector<Probe> timers(200);
    int early = 0;
    auto armAll = [&](unsigned maxMicros) {
        for (Probe& t : timers) {
            const double delay = (random() % maxMicros) / 1e6, due = Kelvo::time() + delay;
            t.onTimeout = [&early, due] { early += Kelvo::time() < due; };
            t.timer->setTimeout(delay);
        }
    };
    Probe slow;
    slow.onTimeout = [&] {
        for (const double until = Kelvo::time() + 0.03; Kelvo::time() < until;) {
        }
        armAll(5000);
    };
    armAll(20000);
    doEventLoop();
    slow.timer->setTimeout(0);
    doEventLoop();
    EXPECT_EQ(early, 0);
    for (const Probe& t : timers)
        EXPECT_EQ(t.fired, 2);
}

TEST(WaitForDefault, ParsedOnceFromEnvironment) {
    EXPECT_EXIT(
        {
            ::setenv("WAITFOR_DEFAULT", "2.5", 1);
            std::_Exit(waitForDefaultTimeout() == 2.5 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            ::setenv("WAITFOR_DEFAULT", "abc", 1);
            std::_Exit(waitForDefaultTimeout() == inf ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "Parsing the WAITFOR_DEFAULT env. variable failed");
}

// One timer 10 s ahead: the loop jumps to it plus the 100 us extra delay,
// then to the end; with no timer the step is the whole maximum.
TEST_F(FastForward, StepsToFirstTimerThenToTheEnd) {
    Probe t;
    double at = 0;
    t.onTimeout = [&] { at = Kelvo::time(); };
    const double start = Kelvo::time();
    const double offset = leVirtualTimeOffset();
    t.timer->setTimeout(10);
    eventLoopFastForwardToFirstTimer(100);
    EXPECT_EQ(t.fired, 1);
    EXPECT_GE(at, start + 10);
    EXPECT_NEAR(leVirtualTimeOffset() - offset, 10.0001, 0.01);
    EXPECT_LE(leVirtualTimeOffset() - offset, 10.0001 + 1e-6);
    t.timer->setTimeout(10);
    doEventLoop(60);
    EXPECT_EQ(t.fired, 2);
    EXPECT_GE(Kelvo::time() - start, 70.0);
    EXPECT_LT(Kelvo::time() - start, 80.0);
    const timeval before = leVirtualTimeOffsetTimeval();
    eventLoopFastForwardToFirstTimer(5);
    EXPECT_EQ(leVirtualTimeOffsetTimeval().tv_sec - before.tv_sec, 5);
    EXPECT_EQ(leVirtualTimeOffsetTimeval().tv_usec, before.tv_usec);
}

TEST_F(FastForward, OffsetMicrosecondsCarry) {
    const timeval before = leVirtualTimeOffsetTimeval();
    const timeval toEdge = {0, 999950 - before.tv_usec + (before.tv_usec > 999950 ? 1000000 : 0)};
    applyFastForwardDelta(&toEdge);
    const timeval atEdge = leVirtualTimeOffsetTimeval();
    ASSERT_EQ(atEdge.tv_usec, 999950);
    const timeval step = {0, 100};
    applyFastForwardDelta(&step);
    EXPECT_EQ(leVirtualTimeOffsetTimeval().tv_sec, atEdge.tv_sec + 1);
    EXPECT_EQ(leVirtualTimeOffsetTimeval().tv_usec, 50);
}

TEST_F(FastForward, ShiftKeepsTimerOrderAndDueTimerGivesZeroDelta) {
    std::vector<int> order;
    Probe a, b, c;
    a.onTimeout = [&] { order.push_back(0); };
    b.onTimeout = [&] { order.push_back(1); };
    c.onTimeout = [&] { order.push_back(2); };
    c.timer->setTimeout(30);
    a.timer->setTimeout(10);
    b.timer->setTimeout(10.000002);
    const timeval shift = {40, 0};
    applyFastForwardDelta(&shift);
    timeval delay;
    const std::string lines =
        traced("KelvoLibevent/9", [&] { ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay)); });
    EXPECT_THAT(lines, HasSubstr("return zero delta"));
    EXPECT_EQ(delay.tv_sec, 0);
    EXPECT_EQ(delay.tv_usec, 0);
    doEventLoop();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST_F(FastForward, SwitchNotifiesOnChangeOnlyAndOnlyOnMainThread) {
    static int notified = 0;
    void (*notifier)() = [] { ++notified; };
    registerFastForwardChangeNotifier(notifier);
    registerFastForwardChangeNotifier(notifier);  // already registered
    notified = 0;
    setFastForward(true);
    EXPECT_EQ(notified, 0);
    setFastForward(false);
    setFastForward(false);
    EXPECT_EQ(notified, 1);
    std::thread([] {
        EXPECT_THAT(assertMessage([] { setFastForward(false); }),
                    HasSubstr("FastForward invoked from non-main thread"));
        leFree();
    }).join();
    EXPECT_THAT(assertMessage([] { fastForwardBy(2); }), HasSubstr("fast-forwarding disabled"));
    timeval delay;
    EXPECT_THAT(assertMessage([&] { fastForwardDelayToFirstTimer(&delay); }),
                HasSubstr("Called without fast forward enabled"));
    EXPECT_THAT(assertMessage([] { eventLoopFastForwardToFirstTimer(1); }),
                HasSubstr("Called without fastForward enabled"));
    setFastForward(true);
    EXPECT_EQ(notified, 2);
    const double before = Kelvo::time();
    fastForwardBy(2);
    EXPECT_GE(Kelvo::time() - before, 2.0);
}
