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

// The module's trace handle, "KelvoTaskScheduler". Inline: every run checks
// it a few times, and the check must cost a load, not a call.
[[gnu::always_inline]] inline const std::shared_ptr<Platform::DebugHandler>& schedulerTrace() {
    static const std::shared_ptr<Platform::DebugHandler> handle =
        Platform::getDebugHandler("KelvoTaskScheduler");
    return handle;
}

// Invariants whose failure must stop the process even when assertions
// throw: writes "TaskSchedulerCpp: <text>" to standard error and aborts.
[[noreturn]] void schedulerHardAssertFail(const String& text) noexcept;

}  // namespace Impl
}  // namespace Kelvo
