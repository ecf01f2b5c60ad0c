// The library's exception hierarchy. Every exception records the stack of the
// point where it was built and prints itself as its class name, its message
// and that stack. Exceptions are thread-confined values.
#pragma once

#include <exception>

#include "BacktraceCpp.h"
#include "KelvoBase.h"

namespace Kelvo {

class KELVO_EXPORT Exception : public std::exception {
  public:
    Exception(const String& message, bool captureBacktrace);
    ~Exception() override;

    // Class name, message and backtrace; built on first use and cached.
    const char* what() const noexcept override;
    virtual const char* name() const noexcept;

    // name() followed by ("message").
    String msg() const;
    const String& message() const noexcept { return message_; }
    const Backtrace& backtrace() const noexcept { return backtrace_; }

  private:
    Backtrace backtrace_;
    String message_;
    mutable String what_;
};

#define KELVO_DECLARE_EXCEPTION(Class, Base)                                   \
    class KELVO_EXPORT Class : public Base {                                   \
      public:                                                                  \
        explicit Class(const String& message) : Base(message, true) {}         \
        const char* name() const noexcept override;                            \
        [[noreturn]] static void throwException(const String& message);        \
                                                                               \
      protected:                                                               \
        Class(const String& message, bool capture) : Base(message, capture) {} \
    }

KELVO_DECLARE_EXCEPTION(MemoryResourceException, Exception);
KELVO_DECLARE_EXCEPTION(NoPermissionException, Exception);
KELVO_DECLARE_EXCEPTION(UnimplementedException, Exception);
KELVO_DECLARE_EXCEPTION(InvalidInitializeException, Exception);
KELVO_DECLARE_EXCEPTION(RuntimeException, Exception);
KELVO_DECLARE_EXCEPTION(OutOfRangeException, Exception);
KELVO_DECLARE_EXCEPTION(CorruptionDetectedException, Exception);
// A bad length is a kind of corruption: handlers of the base catch it too.
KELVO_DECLARE_EXCEPTION(InvalidSizeException, CorruptionDetectedException);

#undef KELVO_DECLARE_EXCEPTION

class KELVO_EXPORT AssertException : public Exception {
  public:
    explicit AssertException(const String& message) : Exception(message, true) {}
    const char* name() const noexcept override;
    // Throws when throwOnAssertFailIs(true) was called; otherwise prints
    // "Kelvo::Assert aborting because: <message>" and terminates.
    [[noreturn]] static void throwException(const String& message);
};

// Process-wide switch, false at load: assertions throw instead of terminating.
// Any thread may set it and any failing assertion reads it, without a lock (a
// relaxed atomic: it guards no other data).
KELVO_EXPORT void throwOnAssertFailIs(bool throwOnAssertFail);
KELVO_EXPORT bool throwOnAssertFail();

namespace Platform {
// Reference counting of shared objects is not offered by this build.
KELVO_EXPORT void refCountingEnabledIs(bool enabled);
KELVO_EXPORT bool refCountingEnabled();
// This library is never built as a release variant.
KELVO_EXPORT bool releaseMode();
}  // namespace Platform

}  // namespace Kelvo
