// Private helpers of the task scheduler module.
#pragma once

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

// The one place where the module allocates the shared objects it creates
// itself (roots, histories, reset tasks), so that the allocation strategy can
// change for all of them at once.
template <typename T, typename... Args>
std::shared_ptr<T> makeSchedulerShared(Args&&... args) {
    return std::make_shared<T>(std::forward<Args>(args)...);
}

// The module's trace handle, "KelvoTaskScheduler".
const std::shared_ptr<Platform::DebugHandler>& schedulerTrace();

// Invariants whose failure must stop the process even when assertions
// throw: writes "TaskSchedulerCpp: <text>" to standard error and aborts.
[[noreturn]] void schedulerHardAssertFail(const String& text) noexcept;

}  // namespace Impl
}  // namespace Kelvo
