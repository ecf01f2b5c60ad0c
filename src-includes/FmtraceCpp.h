// The library's trace and assertion macros.
//
// Trace:   KELVO_TRACE(handle, level, "format {}", args...)   in free functions
//          KELVO_TRACEM(handle, level, "format {}", args...)  in member functions
// The handle is a Platform::DebugHandler (reference, pointer or shared
// pointer) or a Debuggable. When the level is off the macro costs one relaxed
// load of the mask and one bit test, and evaluates none of its arguments.
//
// Assert:  KELVO_ASSERT(cond [, "format {}", args...])  / KELVO_ASSERTM(...)
//          KELVO_ASSERT_FAIL("format {}", args...)       / KELVO_ASSERT_FAILM(...)
// A failed assertion builds "file:line: [Class::func() ]message" and calls
// AssertException::throwException, which terminates unless the process asked
// for exceptions. Without a message the condition's text is the message.
//
// Check:   KELVO_CHECK(cond)  for invariants that must stop the process even in a
// test harness: the standard assertion report, always compiled in, then abort.
#pragma once

#include <cstring>
#include <memory>

#include "DebugCpp.h"
#include "ExceptionCpp.h"
#include "FmtUtilCpp.h"

namespace Kelvo {
namespace Impl {

inline const Platform::DebugHandler* traceHandle(const Platform::DebugHandler& h) noexcept {
    return &h;
}
inline const Platform::DebugHandler* traceHandle(const Platform::DebugHandler* h) noexcept {
    return h;
}
template <typename H>
inline const Platform::DebugHandler* traceHandle(const std::shared_ptr<H>& h) noexcept {
    return h.get();
}
inline const Platform::DebugHandler* traceHandle(const Debuggable& d) noexcept {
    return d.debugHandler();
}

inline bool traceEnabled(const Platform::DebugHandler* h, unsigned level) noexcept {
    return h && ((h->levelsPtr->load(std::memory_order_relaxed) >> level) & 1u);
}

// Copies the class of the member function named func out of the compiler's
// pretty function name ("R Ns::Class<T>::func(args)") into out, without its
// namespaces and template arguments; "" when it cannot be found.
KELVO_EXPORT const char* memberClassName(const char* prettyFunction, const char* func, char* out,
                                         size_t size) noexcept;

template <typename... Args>
[[gnu::cold, gnu::noinline]] void trace(const Platform::DebugHandler* h, unsigned level,
                                        const char* file, int line, const char* func,
                                        const char* prettyFunction, fmt::format_string<Args...> f,
                                        Args&&... args) {
    char cls[128];
    const bool isMember = prettyFunction != nullptr;
    Fmt::Impl::vfmtrace(h, level, file, isMember, func,
                        isMember ? memberClassName(prettyFunction, func, cls, sizeof cls) : nullptr,
                        line, f, fmt::make_format_args(args...));
}

[[noreturn, gnu::cold]] KELVO_EXPORT void assertFail(const char* file, int line, const char* func,
                                                     const char* prettyFunction,
                                                     const char* condition);

// The standard assertion report ("file:line: func: Assertion `cond' failed."),
// then abort; independent of NDEBUG.
[[noreturn, gnu::cold]] KELVO_EXPORT void checkFail(const char* condition, const char* file,
                                                    int line, const char* func) noexcept;

template <typename... Args>
[[noreturn, gnu::cold, gnu::noinline]] void assertFail(const char* file, int line, const char* func,
                                                       const char* prettyFunction,
                                                       const char* /*condition*/,
                                                       fmt::format_string<Args...> f,
                                                       Args&&... args) {
    char cls[128];
    const bool isMember = prettyFunction != nullptr;
    AssertException::throwException(Fmt::Impl::vformatstr(
        file, line, isMember, func,
        isMember ? memberClassName(prettyFunction, func, cls, sizeof cls) : nullptr, f,
        fmt::make_format_args(args...)));
}

}  // namespace Impl
}  // namespace Kelvo

#define KELVO_TRACE_ENABLED(handle, level) \
    ::Kelvo::Impl::traceEnabled(::Kelvo::Impl::traceHandle(handle), (level))

#define KELVO_TRACE_IMPL_(pretty, handle, level, ...)                                              \
    do {                                                                                           \
        const ::Kelvo::Platform::DebugHandler* kelvoTraceHandle_ =                                 \
            ::Kelvo::Impl::traceHandle(handle);                                                    \
        if (__builtin_expect(::Kelvo::Impl::traceEnabled(kelvoTraceHandle_, (level)), 0)) {        \
            ::Kelvo::Impl::trace(kelvoTraceHandle_, (level), __FILE__, __LINE__, __func__, pretty, \
                                 __VA_ARGS__);                                                     \
        }                                                                                          \
    } while (0)

#define KELVO_TRACE(handle, level, ...) KELVO_TRACE_IMPL_(nullptr, handle, level, __VA_ARGS__)
#define KELVO_TRACEM(handle, level, ...) \
    KELVO_TRACE_IMPL_(__PRETTY_FUNCTION__, handle, level, __VA_ARGS__)

#define KELVO_ASSERT_IMPL_(pretty, cond, ...)                               \
    do {                                                                    \
        if (__builtin_expect(!(cond), 0)) {                                 \
            ::Kelvo::Impl::assertFail(__FILE__, __LINE__, __func__, pretty, \
                                      #cond __VA_OPT__(, ) __VA_ARGS__);    \
        }                                                                   \
    } while (0)

#define KELVO_ASSERT(cond, ...) KELVO_ASSERT_IMPL_(nullptr, cond __VA_OPT__(, ) __VA_ARGS__)
#define KELVO_ASSERTM(cond, ...) \
    KELVO_ASSERT_IMPL_(__PRETTY_FUNCTION__, cond __VA_OPT__(, ) __VA_ARGS__)
#define KELVO_ASSERT_FAIL(...) \
    ::Kelvo::Impl::assertFail(__FILE__, __LINE__, __func__, nullptr, "false", __VA_ARGS__)
#define KELVO_ASSERT_FAILM(...)                                                           \
    ::Kelvo::Impl::assertFail(__FILE__, __LINE__, __func__, __PRETTY_FUNCTION__, "false", \
                              __VA_ARGS__)

#define KELVO_CHECK(cond)                         \
    (__builtin_expect(static_cast<bool>(cond), 1) \
         ? void(0)                                \
         : ::Kelvo::Impl::checkFail(#cond, __FILE__, __LINE__, __PRETTY_FUNCTION__))
