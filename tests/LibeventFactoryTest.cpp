#include <Kelvo/DebugCpp.h>
#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/LibeventFactoryCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Kelvo;
using namespace Kelvo::Platform;
using ::testing::HasSubstr;

namespace {

constexpr double inf = std::numeric_limits<double>::infinity();

struct ThrowingAsserts : ::testing::Environment {
    void SetUp() override { throwOnAssertFailIs(true); }
};
const auto* const environment = ::testing::AddGlobalTestEnvironment(new ThrowingAsserts);

template <typename F>
std::string assertMessage(F&& f) {
    try {
        f();
    } catch (const AssertException& e) {
        return e.message();
    }
    return "no assertion";
}

struct Timer : TimeoutHandler {
    std::shared_ptr<TimerControl> control;
    std::function<void()> onTimeout;
    int fired = 0;
    bool throws = false;
    bool claims = false;
    explicit Timer(EventPriority priority = eventPriorityDefault)
        : control(getTimerControl(this, priority)) {}
    void timeout() override {
        ++fired;
        if (onTimeout)
            onTimeout();
        if (throws)
            throw std::runtime_error("timer failed");
    }
    bool handleTimeoutException() override { return claims; }
};

struct Callback : CallbackHandler {
    std::shared_ptr<CallbackControl> control = getCallbackControl(this);
    int calls = 0;
    bool throws = false;
    bool claims = false;
    void callback() override {
        ++calls;
        if (throws)
            throw std::runtime_error("callback failed");
    }
    bool handleCallbackException() override { return claims; }
};

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(::pipe(fds), 0); }
    ~Pipe() {
        ::close(fds[0]);
        ::close(fds[1]);
    }
};

struct Watcher : FdEventHandler {
    std::shared_ptr<FdControl> control = getFdControl(this);
    int reads = 0;
    int writes = 0;
    bool throws = false;
    bool claims = false;
    void readFdEvent(int) override {
        ++reads;
        if (throws)
            throw std::runtime_error("read failed");
    }
    void writeFdEvent(int) override { ++writes; }
    bool handleFdException(int) override { return claims; }
};

// The trace lines written while f runs with the given TRACE setting.
template <typename F>
std::string traced(const char* spec, F&& f) {
    setupKelvoDebug(spec);
    ::testing::internal::CaptureStderr();
    f();
    std::string text = ::testing::internal::GetCapturedStderr();
    clearKelvoDebug(spec);
    return text;
}

class FastForward : public ::testing::Test {
  protected:
    void SetUp() override { setFastForward(true); }
    void TearDown() override { setFastForward(false); }
};

}  // namespace

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
    Timer t;
    EXPECT_EQ(t.control->remainingTimeout(), inf);
    t.control->setTimeout(1.5);
    EXPECT_NEAR(t.control->remainingTimeout(), 1.5, 0.1);
    t.control->setTimeout(0);  // replaces the 1.5 s timeout
    doEventLoop();
    EXPECT_EQ(t.fired, 1);
    EXPECT_EQ(t.control->remainingTimeout(), inf);
    t.control->setTimeout(0);
    t.control->delTimeout();
    t.control->delTimeout();
    doEventLoop();
    EXPECT_EQ(t.fired, 1);
    t.control->setTimeout(5);
    t.control->setTimeout(inf);  // never: cancels the pending one
    EXPECT_EQ(t.control->remainingTimeout(), inf);
    t.control->setTimeout(-1);  // overdue: runs at once
    doEventLoop();
    EXPECT_EQ(t.fired, 2);
}

TEST(LibeventTimer, StrictHighPriorityRunsFirstInAPass) {
    std::vector<int> order;
    Timer normal, high(eventPriorityStrictHigh);
    normal.onTimeout = [&] { order.push_back(1); };
    high.onTimeout = [&] { order.push_back(0); };
    normal.control->setTimeout(0);
    high.control->setTimeout(0);
    doEventLoop();
    EXPECT_EQ(order, (std::vector<int>{0, 1}));
}

TEST(LibeventCallback, RequestsCoalesceAndCancelWithdraws) {
    Callback c;
    EXPECT_FALSE(c.control->pendingCallback());
    c.control->requestCallback();
    c.control->requestCallback();
    EXPECT_TRUE(c.control->pendingCallback());
    doEventLoop();
    EXPECT_EQ(c.calls, 1);
    EXPECT_FALSE(c.control->pendingCallback());
    c.control->requestCallback();
    c.control->cancelCallback();
    doEventLoop();
    EXPECT_EQ(c.calls, 1);
}

TEST(LibeventFd, ReadsPersistWritesAreOneShot) {
    Pipe p;
    Watcher w;
    EXPECT_EQ(w.control->getFd(), -1);
    w.control->setReads(true);  // no descriptor yet: arms nothing
    w.control->setWrites(true);
    ASSERT_EQ(::write(p.fds[1], "x", 1), 1);
    eventLoopTimeout(0.01);
    EXPECT_EQ(w.reads, 0);

    w.control->setFd(p.fds[0]);
    EXPECT_TRUE(::fcntl(p.fds[0], F_GETFL) & O_NONBLOCK);
    for (int pass = 0; pass < 3; ++pass)
        eventLoopTimeout(0.005);
    EXPECT_GE(w.reads, 3);  // still readable: notified on every pass

    Watcher writer;
    writer.control->setReads(false);
    writer.control->setWrites(true);
    writer.control->setFd(p.fds[1]);
    for (int pass = 0; pass < 3; ++pass)
        eventLoopTimeout(0.005);
    EXPECT_EQ(writer.writes, 1);
    writer.control->setWrites(true);
    eventLoopTimeout(0.005);
    EXPECT_EQ(writer.writes, 2);

    w.control->clearEvents();
    const int before = w.reads;
    eventLoopTimeout(0.005);
    EXPECT_EQ(w.reads, before);
    EXPECT_EQ(w.control->getFd(), p.fds[0]);
    w.control->setFd(p.fds[0]);  // flags survived clearEvents: reads re-armed
    eventLoopTimeout(0.005);
    EXPECT_GT(w.reads, before);
    w.control->delFd();
    EXPECT_EQ(w.control->getFd(), -1);
    w.control->delFd();
    EXPECT_EQ(w.control->getFd(), -1);
}

// For each control kind: a claimed exception keeps the loop going, an
// unclaimed one leaves doEventLoop, and either way the loop's break event is
// gone afterwards and the loop runs again.
TEST(LibeventDispatch, HandlerExceptionFollowsItsHook) {
    enum Kind { timer, callback, fd };
    for (Kind kind : {timer, callback, fd}) {
        for (bool claims : {true, false}) {
            SCOPED_TRACE(::testing::Message() << "kind " << kind << " claims " << claims);
            Pipe p;
            Timer t;
            Callback c;
            Watcher w;
            t.throws = c.throws = w.throws = true;
            t.claims = c.claims = w.claims = claims;
            Timer later;
            later.control->setTimeout(0.02);
            if (kind == timer)
                t.control->setTimeout(0);
            if (kind == callback)
                c.control->requestCallback();
            if (kind == fd) {
                ASSERT_EQ(::write(p.fds[1], "x", 1), 1);
                w.control->setFd(p.fds[0]);
            }
            bool thrown = false;
            try {
                eventLoopTimeout(claims ? 0.1 : 5.0);
            } catch (const std::runtime_error&) {
                thrown = true;
            }
            EXPECT_EQ(thrown, !claims);
            EXPECT_EQ(later.fired, claims ? 1 : 0);
            w.control->delFd();
            later.control->delTimeout();
            timeval first;
            EXPECT_NE(Impl::event_base_get_first_timeout(leBase(), &first), 0);
            Timer again;
            again.control->setTimeout(0);
            doEventLoop();
            EXPECT_EQ(again.fired, 1);
        }
    }
}

// A timer stamped from a stale or coarse clock fires early; so would one
// armed after a slow handler if the loop-pass time were cached.
TEST(LibeventTimer, NeverRunsBeforeItsTime) {
    std::mt19937 random(7);
    std::vector<std::unique_ptr<Timer>> timers;
    int early = 0;
    auto armChecked = [&](Timer& t, double delay) {
        const double due = Kelvo::time() + delay;
        t.onTimeout = [&early, due] { early += Kelvo::time() < due; };
        t.control->setTimeout(delay);
    };
    Timer slow;
    slow.onTimeout = [&] {
        const double until = Kelvo::time() + 0.03;
        while (Kelvo::time() < until) {
        }
        for (auto& t : timers)
            armChecked(*t, (random() % 5000) / 1e6);
    };
    for (int i = 0; i < 200; ++i)
        timers.push_back(std::make_unique<Timer>());
    for (auto& t : timers)
        armChecked(*t, (random() % 20000) / 1e6);
    doEventLoop();
    slow.control->setTimeout(0);
    doEventLoop();
    Callback c;
    const double requested = Kelvo::time();
    c.control->requestCallback();
    doEventLoop();
    EXPECT_EQ(early, 0);
    EXPECT_EQ(slow.fired, 1);
    EXPECT_EQ(c.calls, 1);
    EXPECT_GE(Kelvo::time(), requested);
    for (auto& t : timers)
        EXPECT_EQ(t->fired, 2);
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

TEST_F(FastForward, UnboundedLoopSkipsToTheTimer) {
    Timer t;
    const double start = Kelvo::time();
    t.control->setTimeout(10);
    doEventLoop(60);
    EXPECT_EQ(t.fired, 1);
    EXPECT_GE(Kelvo::time() - start, 60.0);
    EXPECT_LT(Kelvo::time() - start, 70.0);
}

TEST_F(FastForward, FirstTimerStepIncludesExtraDelay) {
    Timer t;
    double at = 0;
    t.onTimeout = [&] { at = Kelvo::time(); };
    const double start = Kelvo::time();
    const double offset = leVirtualTimeOffset();
    t.control->setTimeout(10);
    eventLoopFastForwardToFirstTimer(100);
    EXPECT_EQ(t.fired, 1);
    const double advanced = leVirtualTimeOffset() - offset;
    EXPECT_GE(advanced, 10.0001 - 0.01);
    EXPECT_LE(advanced, 10.0001 + 1e-6);
    EXPECT_GE(at, start + 10);
}

TEST_F(FastForward, NoTimersAdvancesByTheMaximum) {
    const timeval before = leVirtualTimeOffsetTimeval();
    eventLoopFastForwardToFirstTimer(5);
    const timeval after = leVirtualTimeOffsetTimeval();
    EXPECT_EQ(after.tv_sec - before.tv_sec, 5);
    EXPECT_EQ(after.tv_usec, before.tv_usec);
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
    Timer a, b, c;
    a.onTimeout = [&] { order.push_back(0); };
    b.onTimeout = [&] { order.push_back(1); };
    c.onTimeout = [&] { order.push_back(2); };
    c.control->setTimeout(30);
    a.control->setTimeout(10);
    b.control->setTimeout(10.000002);
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

// The child gets its own epoll instance from leForkReinit and serves both
// timers and descriptors; the parent's loop keeps working beside it.
TEST(LibeventFork, ChildReinitialisesAndDispatches) {
    Pipe p;
    Watcher w;
    w.control->setFd(p.fds[0]);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        leForkReinit();
        Timer t;
        t.control->setTimeout(0.01);
        if (::write(p.fds[1], "c", 1) != 1)
            std::_Exit(3);
        eventLoopTimeout(0.05);
        std::_Exit(t.fired == 1 && w.reads >= 1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    char drained[8];
    while (::read(p.fds[0], drained, sizeof drained) > 0) {
    }
    ASSERT_EQ(::write(p.fds[1], "p", 1), 1);
    Timer t;
    t.control->setTimeout(0.01);
    eventLoopTimeout(0.05);
    EXPECT_EQ(t.fired, 1);
    EXPECT_GE(w.reads, 1);
}
