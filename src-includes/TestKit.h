// GoogleTest helpers for testing a daemon built on the library: fast-forward
// for a test or a scope, a task's test-yield ratio for a scope, running the
// loop until a condition holds within a bound of loop time, and capturing
// the lines one trace handle writes.
//
// Link Kelvo::TestKit (a static library over libKelvo and GoogleTest). Not
// part of <Kelvo/Kelvo.h>, which must not need GoogleTest.
//
// Threads: everything here is called from the test's thread, which must be
// the main thread for the fast-forward helpers (only the main thread may
// switch fast-forward). While a TraceCapture is alive any thread may trace:
// its lines are collected under the global lock, which every trace write
// takes anyway.
//
// Ownership: each object owns only the setting it changed and puts it back
// in its destructor; scopes of one kind nest in stack order.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KelvoBase.h"

namespace Kelvo {
namespace TestKit {

// Fixture: fast-forward on in SetUp, off again in TearDown, which GoogleTest
// runs after a failed assertion or an exception as well, so no test leaves
// virtual time on for the next one.
class FastForwardTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

// Sets fast-forward for its lifetime, then restores the previous setting.
class FastForwardScope {
  public:
    explicit FastForwardScope(bool enabled = true);
    ~FastForwardScope();
    FastForwardScope(const FastForwardScope&) = delete;
    FastForwardScope& operator=(const FastForwardScope&) = delete;

  private:
    bool previous_;
};

// Sets a task's test-yield ratio (taskShouldYield() answers yes every
// ratio-th call; 0 is off) for its lifetime, then restores the previous one.
// T is any task type with taskTestYieldRatio() and taskTestYieldRatioIs():
// TaskImpl, Task, FileDescriptorTask. The task must outlive the scope; it is
// used on its scheduler's thread.
template <class T>
class TestYieldRatioScope {
  public:
    TestYieldRatioScope(T& task, uint8_t ratio)
        : task_(task), previous_(task.taskTestYieldRatio()) {
        task_.taskTestYieldRatioIs(ratio);
    }
    ~TestYieldRatioScope() { task_.taskTestYieldRatioIs(previous_); }
    TestYieldRatioScope(const TestYieldRatioScope&) = delete;
    TestYieldRatioScope& operator=(const TestYieldRatioScope&) = delete;

  private:
    T& task_;
    uint8_t previous_;
};

// Runs the calling thread's loop until done() holds or boundSeconds of loop
// time have passed: virtual time under fast-forward, where the loop skips
// from timer to timer and reaching the bound takes no real waiting; real
// time otherwise, in slices of at most 10 ms so that a condition another
// thread makes true is seen promptly. done() is tested before the first
// slice and after every one, the last time after the bound is reached. On
// failure the message names the bound, the loop time spent and what
// describe(), if given, returns at that moment:
//   not reached within 5 s of loop time (spent 5.00 s); last seen: 3 runs
// A negative, infinite or NaN bound fails at once. Exceptions from done(),
// describe() or the loop's handlers propagate.
//   EXPECT_TRUE(Kelvo::TestKit::runLoopUntil([&] { return runs == 4; }, 5));
::testing::AssertionResult runLoopUntil(const std::function<bool()>& done, double boundSeconds,
                                        const std::function<std::string()>& describe = nullptr);

// While alive, enables levels (digits, as in TRACE) on the trace handles
// named handleName, those alive now and those made meanwhile, and collects
// the lines they write at those levels; lines of other handles, and the rest
// of standard error, are not collected. A line at a level the handle had
// before the capture is still written to the trace output; one the capture
// alone enabled is only collected. The destructor restores the previous
// levels of the name's control and of every handle of that name (handles
// with fixed levels are never changed, so never captured beyond their own
// levels). The name is exact, without a trailing '*'.
//
// It installs the process's trace-line observer while any capture is alive,
// and gives lines it does not take to the observer it found installed.
class TraceCapture {
  public:
    explicit TraceCapture(const std::string& handleName, const std::string& levels = "0123456789");
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    // The collected lines in the order written, as written (the prefix
    // fields TRACEFORMAT chose, then the message) without the newline.
    std::vector<std::string> lines() const;
    // The same lines without their prefix fields.
    std::vector<std::string> messages() const;
    // Whether any collected line contains text.
    bool contains(std::string_view text) const;

  private:
    friend class TraceCaptureRegistry;
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace TestKit
}  // namespace Kelvo
