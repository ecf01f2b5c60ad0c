// The event loop's vocabulary: the handler interfaces a user implements, the
// control interfaces the library hands back, event priorities, the factories
// that create controls on the calling thread's loop, and the loop entry points.
//
// Handlers are owned by the user and must outlive their control; the library
// keeps only a plain pointer. Controls are owned by the std::shared_ptr the
// factory returns. A control is created, armed and served on one thread: the
// thread whose loop the factory initialised.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <fmt/format.h>

#include "KelvoBase.h"

namespace Kelvo {

class TimerWheel;

// The library's clock in seconds: CLOCK_MONOTONIC plus the calling thread's
// virtual time offset. Every scheduling decision of the library reads it.
KELVO_EXPORT double time() noexcept;

namespace Platform {

// The numeric value is the libevent priority; lower is served first.
enum EventPriority : uint8_t {
    eventPriorityStrictHigh = 0,
    eventPriorityDefault = 1,
};

inline bool isEventPriorityValid(EventPriority priority) noexcept {
    return priority < 2;
}
// The enumerator's name, or "" for an invalid value.
KELVO_EXPORT const char* eventPriorityToString(EventPriority priority) noexcept;

// Implemented by the user: a one-shot timeout expired.
class KELVO_EXPORT TimeoutHandler {
  public:
    virtual ~TimeoutHandler();
    virtual void timeout() = 0;
    // Called inside the catch block when timeout() threw: true swallows the
    // exception, false lets it leave the event-loop call.
    virtual bool handleTimeoutException();
};

// Implemented by the user: one call per requestCallback().
class KELVO_EXPORT CallbackHandler {
  public:
    virtual ~CallbackHandler();
    virtual void callback() = 0;
    virtual bool handleCallbackException();
};

// Implemented by the user: readiness of the watched descriptor.
class KELVO_EXPORT FdEventHandler {
  public:
    virtual ~FdEventHandler();
    virtual void readFdEvent(int fd) = 0;
    virtual void writeFdEvent(int fd) = 0;
    virtual bool handleFdException(int fd);
};

class KELVO_EXPORT TimerControl {
  public:
    virtual ~TimerControl();
    // (Re)arms a one-shot timeout; a pending one is cancelled first.
    virtual void setTimeout(double seconds) = 0;
    virtual void delTimeout() = 0;
    // Seconds until expiry; 0.0 when due but not yet run; +infinity when idle.
    virtual double remainingTimeout() const = 0;
};

class KELVO_EXPORT CallbackControl {
  public:
    virtual ~CallbackControl();
    // Requests made before the callback runs coalesce into one call.
    virtual void requestCallback() = 0;
    virtual void cancelCallback() = 0;
    virtual bool pendingCallback() const = 0;
};

// Fresh: descriptor -1, reads enabled, writes disabled, nothing armed.
class KELVO_EXPORT FdControl {
  public:
    virtual ~FdControl();
    virtual void setReads(bool enabled) = 0;
    // Write notification is one-shot: re-enable after each writeFdEvent().
    virtual void setWrites(bool enabled) = 0;
    // Switches fd to non-blocking and re-arms the enabled notifications on it.
    virtual void setFd(int fd) = 0;
    // Stops watching; the descriptor is not closed.
    virtual void delFd() = 0;
    virtual int getFd() const = 0;
    // Disarms both notifications, keeping the descriptor and enabled flags.
    virtual void clearEvents() = 0;
};

// Renders values of a named type for introspection: the function registered
// for the type in the process-wide introspection map, else a hex dump of the
// value's bytes. Any thread; owned by the shared_ptr from getValuePrinter().
class KELVO_EXPORT ValuePrinter {
  public:
    ValuePrinter(const String& typeName, int size);
    virtual String toString(const void* value);
    virtual ~ValuePrinter();

    // The registered rendering, or "" when the type has no entry.
    String customToString(const void* value) const;

    const String typeName;
    const int size;
};

using IntrospectionFunction = std::function<String(const void*)>;
// Registers (or, with an empty function, removes) the renderer of a type.
// Guarded by the global lock; any thread.
KELVO_EXPORT void introspectionFunctionIs(const String& typeName, IntrospectionFunction function);
KELVO_EXPORT std::shared_ptr<ValuePrinter> getValuePrinter(const String& typeName, int size);

// Controls on the calling thread's libevent loop (created on first use).
KELVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
KELVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           EventPriority priority);
KELVO_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);
KELVO_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);
// A timer served by a timer wheel; stop it with delTimeout() before dropping it.
KELVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TimerWheel> wheel);

// Runs the calling thread's loop until it has no events left.
KELVO_EXPORT void doEventLoop();
// Runs the loop for that many seconds of real time, or of virtual time under
// fast-forward. +infinity is no bound (as doEventLoop()); a negative or NaN
// bound is zero.
KELVO_EXPORT void doEventLoop(double seconds);
// One bounded step, for a loop that waits for a condition; with +infinity it
// waits for the next event and handles it.
KELVO_EXPORT void doEventLoopInWaitfor(double seconds);

// Virtual time. The switch is process-wide (an atomic that only the main
// thread may write); each thread's virtual offset is its own and only grows.
KELVO_EXPORT void setFastForward(bool enabled);
KELVO_EXPORT bool fastForward() noexcept;
// Advances the calling thread's virtual time without running the loop; a
// negative or NaN advance does nothing, an infinite one is an assertion.
KELVO_EXPORT void fastForwardBy(double seconds);
// Called on the switching thread whenever the switch changes.
KELVO_EXPORT void registerFastForwardChangeNotifier(void (*notifier)());

}  // namespace Platform
}  // namespace Kelvo

template <>
struct fmt::formatter<Kelvo::Platform::EventPriority> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(Kelvo::Platform::EventPriority priority, Context& context) const
        -> decltype(context.out()) {
        if (!Kelvo::Platform::isEventPriorityValid(priority)) {
            return fmt::format_to(context.out(), "Invalid EventPriority={}",
                                  static_cast<int>(priority));
        }
        return fmt::formatter<fmt::string_view>::format(
            Kelvo::Platform::eventPriorityToString(priority), context);
    }
};
