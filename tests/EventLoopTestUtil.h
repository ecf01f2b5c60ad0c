// Helpers shared by the event-loop suites.
#pragma once

#include <Kelvo/DebugCpp.h>
#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/PlatformCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

namespace KelvoTest {

constexpr double inf = std::numeric_limits<double>::infinity();

// Assertions throw in these suites, so that their messages can be checked.
struct ThrowingAsserts : ::testing::Environment {
    void SetUp() override { Kelvo::throwOnAssertFailIs(true); }
};
inline const auto* const throwingAsserts = ::testing::AddGlobalTestEnvironment(new ThrowingAsserts);

// The message of the assertion that f raises.
inline std::string assertMessage(const std::function<void()>& f) {
    try {
        f();
    } catch (const Kelvo::AssertException& e) {
        return e.message();
    }
    return "no assertion";
}

// The trace lines written while f runs with the given TRACE setting.
inline std::string traced(const char* traceText, const std::function<void()>& f) {
    Kelvo::Platform::setupKelvoDebug(traceText);
    ::testing::internal::CaptureStderr();
    f();
    std::string text = ::testing::internal::GetCapturedStderr();
    Kelvo::Platform::clearKelvoDebug(traceText);
    return text;
}

// Tests that run with virtual time on (they run on the main thread).
class FastForward : public ::testing::Test {
  protected:
    void SetUp() override { Kelvo::Platform::setFastForward(true); }
    void TearDown() override { Kelvo::Platform::setFastForward(false); }
};

// Handler of all three kinds, counting its notifications and the timeouts
// that came before the time start() asked for; when told to, it throws from
// each and claims (or not) the exception in its hook. Its timer runs on the
// given wheel, else directly on the loop.
struct Probe : Kelvo::Platform::TimeoutHandler,
               Kelvo::Platform::CallbackHandler,
               Kelvo::Platform::FdEventHandler {
    std::shared_ptr<Kelvo::Platform::TimerControl> timer;
    std::shared_ptr<Kelvo::Platform::CallbackControl> call =
        Kelvo::Platform::getCallbackControl(this);
    std::shared_ptr<Kelvo::Platform::FdControl> fd = Kelvo::Platform::getFdControl(this);
    std::function<void()> onTimeout;
    double due = -inf;
    int fired = 0, early = 0, calls = 0, reads = 0, writes = 0;
    bool throws = false, claims = false;
    explicit Probe(std::shared_ptr<Kelvo::TimerWheel> wheel = nullptr)
        : timer(wheel ? Kelvo::Platform::getTimerControl(this, wheel)
                      : Kelvo::Platform::getTimerControl(this)) {}
    ~Probe() override { timer->delTimeout(); }  // a running wheel timer may not be destroyed
    void start(double seconds) {
        due = Kelvo::time() + seconds;
        timer->setTimeout(seconds);
    }
    void check() {
        if (throws)
            throw std::runtime_error("handler failed");
    }
    void timeout() override {
        ++fired, early += Kelvo::time() < due;
        if (onTimeout)
            onTimeout();
        check();
    }
    void callback() override { ++calls, check(); }
    void readFdEvent(int) override { ++reads, check(); }
    void writeFdEvent(int) override { ++writes; }
    bool handleTimeoutException() override { return claims; }
    bool handleCallbackException() override { return claims; }
    bool handleFdException(int) override { return claims; }
};

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(::pipe(fds), 0); }
    ~Pipe() { ::close(fds[0]), ::close(fds[1]); }
};

}  // namespace KelvoTest
