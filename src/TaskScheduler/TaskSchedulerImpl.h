// Private helpers of the task scheduler module.
#pragma once

#include <Kelvo/AllocatorCpp.h>
#include <Kelvo/FmtraceCpp.h>

#include <fmt/chrono.h>

#include <memory>
#include <utility>

// Assertions of this module name it as their source instead of the file path,
// so that a failure reads the same whichever of its files raised it.
#define KELVO_SCHED_ASSERTM(cond, ...)                                                             \
    do {                                                                                           \
        if (__builtin_expect(!(cond), 0)) {                                                        \
            ::Kelvo::Impl::assertFail("TaskSchedulerCpp", __LINE__, __func__, __PRETTY_FUNCTION__, \
                                      #cond __VA_OPT__(, ) __VA_ARGS__);                           \
        }                                                                                          \
    } while (0)
#define KELVO_SCHED_ASSERT(cond, ...)                                                  \
    do {                                                                               \
        if (__builtin_expect(!(cond), 0)) {                                            \
            ::Kelvo::Impl::assertFail("TaskSchedulerCpp", __LINE__, __func__, nullptr, \
                                      #cond __VA_OPT__(, ) __VA_ARGS__);               \
        }                                                                              \
    } while (0)

namespace Kelvo {
namespace Impl {

// The module's trace handle, "KelvoTaskScheduler", made at load and never
// released (code running at exit may still trace). Every run checks it a few
// times: a plain pointer costs a load there, with no initialisation guard to
// test and no cold start-up code to widen the caller's frame. Null, and so
// off, only for code that runs at load before it is made.
extern const Platform::DebugHandler* const schedulerTraceHandle;
[[gnu::always_inline]] inline const Platform::DebugHandler* schedulerTrace() {
    return schedulerTraceHandle;
}

// Invariants whose failure must stop the process even when assertions
// throw: writes "TaskSchedulerCpp: <text>" to standard error and aborts.
[[noreturn]] void schedulerHardAssertFail(const String& text) noexcept;

}  // namespace Impl
}  // namespace Kelvo
