#include "TestSupport.h"

#include <atomic>
#include <cmath>

using namespace KelvoTest;

using namespace Kelvo;
using namespace Kelvo::Platform;

// A thread's loop takes one base only and is not freed under live controls,
// whose events would point into freed memory. It is freed, its timer wheel's
// included, when its thread exits or, if a control outlives the thread, when
// that control goes.
TEST(LibeventBase, OneBasePerThreadFreedOnlyOnceNoControlUsesIt) {
    std::thread([&] {
        leInit();
        event_base *own = leBase(), *other = leCreateBase();
        leRegisterBase(own);
        EXPECT_THAT(thrownMessage([&] { leRegisterBase(other); }),
                    HasSubstr("but a thread_local  base already exists: "));
        event_base_free(other);
        {
            Probe p;  // a timer, a callback and a descriptor control
            EXPECT_THAT(thrownMessage(leFree), HasSubstr("3 live controls"));
        }
        EXPECT_EQ(leBase(), own);
        leFree();
        EXPECT_FALSE(leInitialized());
    }).join();
    const std::set<int> before = openFds();
    std::unique_ptr<Probe> outlivesItsThread;
    std::thread([&] { outlivesItsThread = std::make_unique<Probe>(); }).join();
    EXPECT_GT(openFds().size(), before.size());
    outlivesItsThread.reset();
    for (int i = 0; i < 100; ++i) {
        std::thread([] {
            useThreadLocalSingletons();
            Probe onWheel(getTimerWheel()), onLoop;
            onWheel.start(0);
            onLoop.start(0);
            doEventLoop();
            EXPECT_EQ(onWheel.fired + onLoop.fired, 2);
        }).join();
    }
    EXPECT_EQ(openFds(), before);
}

TEST(LibeventBase, PrioritiesAndDiagnosticsAreTraced) {
    const auto odd = static_cast<EventPriority>(2);
    EXPECT_EQ(fmt::format("{} [{}]", odd, eventPriorityToString(odd)),
              "Invalid EventPriority=2 []");
    setTraceFormat("level");
    const std::string lines = traced("KelvoLibevent/*", [] {
        for (int s : {EVENT_LOG_DEBUG, EVENT_LOG_MSG, EVENT_LOG_WARN, EVENT_LOG_ERR})
            le_debug_cb(s, "note");
    });
    setTraceFormat("date,time,tid,handle,level");
    EXPECT_EQ(lines, "9 libevent: note\n5 libevent: note\n1 libevent: note\n0 libevent: note\n");
    EXPECT_THAT(thrownMessage([] { le_debug_cb(4, "odd"); }),
                HasSubstr("invalid libevent severity:4 msg:odd"));
    EXPECT_THAT(thrownMessage([] { le_fatal_cb(3); }), HasSubstr("libevent fatal error:3"));
}

// A new timeout replaces the pending one, inf cancels, a negative one is
// overdue; callback requests coalesce and a cancel withdraws them.
TEST(LibeventControls, TimersRearmAndCancelCallbacksCoalesce) {
    Probe p;
    p.timer->setTimeout(1.5);
    p.timer->setTimeout(0);
    p.call->requestCallback();
    p.call->requestCallback();
    doEventLoop();
    EXPECT_EQ(std::tuple(p.fired, p.calls, p.timer->remainingTimeout(), p.call->pendingCallback()),
              std::tuple(1, 1, inf, false));
    p.timer->delTimeout();
    p.timer->setTimeout(5);
    p.timer->setTimeout(inf);
    EXPECT_EQ(p.timer->remainingTimeout(), inf);
    p.call->requestCallback();
    p.call->cancelCallback();
    p.timer->setTimeout(-1);
    doEventLoop();
    EXPECT_EQ(std::tuple(p.fired, p.calls), std::tuple(2, 1));
}

// +infinity is no bound: doEventLoop runs until no event is left and
// doEventLoopInWaitfor waits for the next one. A negative or NaN bound is
// zero: one pass that runs what is already due.
TEST(LibeventLoop, InfiniteBoundWaitsNegativeOrNanBoundIsZero) {
    for (const double bound : {inf, std::nan(""), -1.0, -inf}) {
        for (const bool waitfor : {false, true}) {
            SCOPED_TRACE(::testing::Message() << bound << (waitfor ? " InWaitfor" : ""));
            const bool unbounded = bound == inf;
            Probe due, later;
            if (!unbounded)
                due.start(0);
            later.start(unbounded ? 0.05 : 5);
            waitfor ? doEventLoopInWaitfor(bound) : doEventLoop(bound);
            EXPECT_EQ(std::tuple(due.fired, later.fired), std::tuple(!unbounded, unbounded));
        }
    }
}

TEST(LibeventFd, ReadsPersistWritesAreOneShot) {
    Pipe p;
    Probe r, w;
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
    EXPECT_EQ(std::tuple(w.writes, r.reads), std::tuple(2, reads));
    r.fd->setFd(p.fds[0]);  // the flags survived clearEvents: reads re-armed
    eventLoopTimeout(0.005);
    EXPECT_GT(r.reads, reads);
}

// For each control kind: a claimed exception keeps the loop going, an
// unclaimed one leaves the loop call, and either way the loop's break event is
// gone afterwards and the loop runs again.
TEST(LibeventDispatch, HandlerExceptionFollowsItsHook) {
    Pipe p;
    ASSERT_EQ(::write(p.fds[1], "x", 1), 1);  // never read: stays readable
    const std::function<void(Probe&)> arms[] = {[](Probe& f) { f.timer->setTimeout(0); },
                                                [](Probe& f) { f.call->requestCallback(); },
                                                [&](Probe& f) { f.fd->setFd(p.fds[0]); }};
    for (int kind : {0, 1, 2}) {  // timer, callback, descriptor
        for (bool claims : {true, false}) {
            SCOPED_TRACE(::testing::Message() << "kind " << kind << " claims " << claims);
            Probe failing, later, again;
            failing.throws = true;
            failing.claims = claims;
            later.timer->setTimeout(0.02);
            arms[kind](failing);
            if (claims)
                EXPECT_NO_THROW(doEventLoop(0.1));
            else
                EXPECT_THROW(doEventLoop(5.0), std::runtime_error);
            EXPECT_EQ(later.fired, claims ? 1 : 0);
            failing.fd->delFd();
            later.timer->delTimeout();
            timeval first;
            EXPECT_NE(Impl::event_base_get_first_timeout(leBase(), &first), 0);
            again.timer->setTimeout(0);
            doEventLoop();
            EXPECT_EQ(again.fired, 1);
        }
    }
}

// NaN and negative defaults would make every wait loop spin.
TEST(WaitForDefault, ParsedFromEnvironment) {
    for (const std::string value : {"2.5", "abc", "nan", "-1"}) {
        const ChildResult r = runInChild([&] {
            ::setenv("WAITFOR_DEFAULT", value.c_str(), 1);
            std::printf("%g", waitForDefaultTimeout());
            return 0;
        });
        EXPECT_EQ(r.out,
                  value == "2.5" ? "2.5" : "Parsing the WAITFOR_DEFAULT env. variable failedinf");
    }
}

// One timer 10 s ahead: every unbounded step jumps to it plus the 100 us extra
// delay; a bounded loop steps to its end, and a bounded jump to the bound.
TEST_F(FastForward, StepsToFirstTimerThenToTheEnd) {
    Probe t;
    for (auto step : {+[] { eventLoopFastForwardToFirstTimer(100); },
                      +[] { doEventLoopInWaitfor(inf); }, +[] { doEventLoop(inf); }}) {
        const double start = Kelvo::time(), offset = leVirtualTimeOffset();
        t.start(10);
        step();
        // Less the real time that passed before the jump (much of it under valgrind).
        const double jump = leVirtualTimeOffset() - offset, real = Kelvo::time() - start - jump;
        EXPECT_EQ(std::tuple(t.fired, t.early), std::tuple(1, 0));
        EXPECT_LE(jump, 10.0001 + 1e-6);
        EXPECT_GE(jump, 10.0001 - real - 1e-6);
        t.fired = 0;
    }
    const double start = Kelvo::time();
    t.timer->setTimeout(10);
    doEventLoop(60);
    const double spent = Kelvo::time() - start;
    EXPECT_TRUE(t.fired == 1 && spent >= 60.0 && spent < 70.0) << t.fired << " " << spent;
    const timeval before = leVirtualTimeOffsetTimeval();
    eventLoopFastForwardToFirstTimer(5);
    const timeval after = leVirtualTimeOffsetTimeval();
    EXPECT_EQ(std::tuple(after.tv_sec - before.tv_sec, after.tv_usec),
              std::tuple(5, before.tv_usec));
}

TEST_F(FastForward, SwitchNotifiesOnChangeOnlyIsMainThreadOnlyAndMayFlipUnderALoop) {
    static int notified = 0;
    void (*notifier)() = [] { ++notified; };
    registerFastForwardChangeNotifier(notifier);
    registerFastForwardChangeNotifier(notifier);  // already registered
    notified = 0;
    setFastForward(true);
    setFastForward(false);
    setFastForward(false);
    std::thread([] {
        EXPECT_THAT(thrownMessage([] { setFastForward(true); }),
                    HasSubstr("FastForward invoked from non-main thread"));
        leFree();
    }).join();
    timeval delay;
    const std::pair<std::function<void()>, const char*> misuses[] = {
        {[] { fastForwardBy(2); }, "fast-forwarding disabled"},
        {[&] { fastForwardDelayToFirstTimer(&delay); }, "Called without fast forward enabled"},
        {[] { eventLoopFastForwardToFirstTimer(1); }, "Called without fastForward enabled"}};
    for (const auto& [misuse, message] : misuses)
        EXPECT_THAT(thrownMessage(misuse), HasSubstr(message));
    setFastForward(true);
    EXPECT_EQ(notified, 2);
    // Flipped while another thread's loop reads it: a loop call keeps the
    // mode it started in, or throws there and ends the program.
    std::atomic<bool> stop = false;
    std::atomic<int> passes = 0;
    std::thread loop([&] {
        for (; !stop; ++passes)
            doEventLoopInWaitfor(0);
    });
    for (int flips = 0; flips < 1000000 && (flips < 5000 || passes < 500); ++flips)
        setFastForward(flips % 2 == 0);
    setFastForward(false);
    stop = true;
    loop.join();
    EXPECT_GE(passes, 500);
}

// Two timers 0 to 400 us apart: when a pass ends, the second may already be
// due but still queued behind the pass's break event. The next step must see
// it as due (zero delta) instead of jumping to the end of the run.
TEST_F(FastForward, DueButUnrunTimerIsNeverJumpedOver) {
    Probe first, second;
    int late = 0;
    for (Probe* p : {&first, &second})
        p->onTimeout = [p, &late] { late += Kelvo::time() - p->due > 0.5; };
    for (int quarters = 0; quarters <= 1600; ++quarters) {
        first.start(1.0);
        second.start(1.0 + quarters * 0.25e-6);
        doEventLoop(5);
    }
    EXPECT_EQ(std::tuple(first.fired, second.fired, first.early + second.early, late),
              std::tuple(1601, 1601, 0, 0));
}

// Advances that are negative or NaN move nothing, an infinite one is refused;
// the offset stays normalised, its microseconds carrying into its seconds.
// Timers 2 us apart keep their order across a shift that makes both overdue.
TEST_F(FastForward, VirtualTimeOnlyGrowsAndKeepsTimerOrder) {
    const timeval now = leVirtualTimeOffsetTimeval(),
                  toEdge = {0, 999950 - now.tv_usec + (now.tv_usec > 999950 ? 1000000 : 0)};
    applyFastForwardDelta(&toEdge);
    ASSERT_EQ(leVirtualTimeOffsetTimeval().tv_usec, 999950);
    for (double seconds : {-2.0, -0.5, std::nan(""), -inf, 0.00005, 0.75}) {
        const timeval before = leVirtualTimeOffsetTimeval();
        fastForwardBy(seconds);
        const timeval after = leVirtualTimeOffsetTimeval();
        const long grown =
            (after.tv_sec - before.tv_sec) * 1000000 + after.tv_usec - before.tv_usec;
        EXPECT_EQ(grown, seconds > 0 ? std::lround(seconds * 1e6) : 0) << seconds;
        EXPECT_TRUE(after.tv_usec >= 0 && after.tv_usec < 1000000) << after.tv_usec;
    }
    EXPECT_THAT(thrownMessage([] { fastForwardBy(inf); }), HasSubstr("fastForwardBy(inf)"));
    std::vector<int> order;
    Probe timers[3];
    const double delays[] = {10, 10.000002, 30};
    for (int i : {2, 0, 1}) {
        timers[i].onTimeout = [&order, i] { order.push_back(i); };
        timers[i].timer->setTimeout(delays[i]);
    }
    const timeval shift = {40, 0};
    applyFastForwardDelta(&shift);
    timeval delay;
    ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
    EXPECT_EQ(std::tuple(delay.tv_sec, delay.tv_usec), std::tuple(0, 0));
    doEventLoop();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}
