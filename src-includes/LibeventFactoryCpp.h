// The per-thread libevent loop: base management, the libevent-backed timer,
// callback and descriptor controls, the loop-running functions and virtual
// time (fast-forward).
//
// Every function acts on the calling thread's base. A control belongs to the
// thread that created it; it must be armed and served there, and is owned by
// the std::shared_ptr its factory returns.
#pragma once

#include <sys/time.h>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <memory>

#include "PlatformCpp.h"

namespace Kelvo {

// libevent timer with one handler. Thread: the creating thread only.
class KELVO_EXPORT LibeventTimerControl : public Platform::TimerControl {
  public:
    LibeventTimerControl(Platform::TimeoutHandler* handler, Platform::EventPriority priority);
    ~LibeventTimerControl() override;
    LibeventTimerControl(const LibeventTimerControl&) = delete;
    LibeventTimerControl& operator=(const LibeventTimerControl&) = delete;

    void setTimeout(double seconds) override;
    void delTimeout() override;
    double remainingTimeout() const override;

    Platform::TimeoutHandler* handler() const noexcept { return handler_; }
    Platform::EventPriority priority() const noexcept { return priority_; }

    // libevent's callback; arg is the control.
    static void handleTimeout(evutil_socket_t fd, short what, void* arg);

  private:
    void arm(const timeval& relative);

    Platform::TimeoutHandler* handler_;
    Platform::EventPriority priority_;
    struct event event_;
    // The Kelvo::time() the pending timeout was armed for.
    double expiry_;
};

// A deferred callback: a zero-second timeout of a private timer. Thread: the
// creating thread only.
class KELVO_EXPORT LibeventCallbackControl : public Platform::CallbackControl,
                                             private Platform::TimeoutHandler,
                                             private LibeventTimerControl {
  public:
    explicit LibeventCallbackControl(Platform::CallbackHandler* handler);
    ~LibeventCallbackControl() override;

    void requestCallback() override;
    void cancelCallback() override;
    bool pendingCallback() const override;

  private:
    void timeout() override;

    Platform::CallbackHandler* callbackHandler_;
};

// Read (persistent) and write (one-shot) notifications on one descriptor.
// Thread: the creating thread only.
class KELVO_EXPORT LibeventFdControl : public Platform::FdControl {
  public:
    explicit LibeventFdControl(Platform::FdEventHandler* handler);
    ~LibeventFdControl() override;
    LibeventFdControl(const LibeventFdControl&) = delete;
    LibeventFdControl& operator=(const LibeventFdControl&) = delete;

    void setReads(bool enabled) override;
    void setWrites(bool enabled) override;
    void setFd(int fd) override;
    void delFd() override;
    int getFd() const override { return fd_; }
    void clearEvents() override;

    static void handleFdRead(evutil_socket_t fd, short what, void* arg);
    static void handleFdWrite(evutil_socket_t fd, short what, void* arg);

  private:
    void arm(struct event* ev, short flags, event_callback_fn callback);
    void disarm(struct event* ev);

    Platform::FdEventHandler* handler_;
    int fd_ = -1;
    bool reads_ = true;
    bool writes_ = false;
    struct event readEvent_;
    struct event writeEvent_;
};

// Scope object: a timer on the calling thread's base that breaks the loop
// when it fires; deleted when the scope ends, also on an exception.
class KELVO_EXPORT EvLoopBreak {
  public:
    EvLoopBreak(const timeval& timeout, Platform::EventPriority priority);
    ~EvLoopBreak();
    EvLoopBreak(const EvLoopBreak&) = delete;
    EvLoopBreak& operator=(const EvLoopBreak&) = delete;

    struct event* breakEvent() noexcept {
        return &event_;
    }
    // libevent's callback; arg is the break event.
    static void handleBaseLoopBreak(evutil_socket_t fd, short what, void* arg);

  private:
    struct event event_;
};

// Base management.
KELVO_EXPORT void leInit();
KELVO_EXPORT event_base* leCreateBase();
KELVO_EXPORT void leRegisterBase(event_base* base);
KELVO_EXPORT void setMainThread();
KELVO_EXPORT void leFree();
KELVO_EXPORT bool leInitialized() noexcept;
// The calling thread's base, null before leInit().
KELVO_EXPORT event_base* leBase() noexcept;
// In a forked child: makes the thread's loop usable again (or creates it).
KELVO_EXPORT void leForkReinit();
KELVO_EXPORT void eventPrioritySet(struct event* ev, Platform::EventPriority priority);

// libevent's diagnostics, routed into the "KelvoLibevent" trace handle.
KELVO_EXPORT void le_fatal_cb(int err);
KELVO_EXPORT void le_debug_cb(int severity, const char* msg);

// Control factories behind Platform::getTimerControl and friends.
KELVO_EXPORT std::shared_ptr<Platform::TimerControl> getLeTimerControl(
    Platform::TimeoutHandler* handler);
KELVO_EXPORT std::shared_ptr<Platform::TimerControl> getLeTimerControl(
    Platform::TimeoutHandler* handler, Platform::EventPriority priority);
KELVO_EXPORT std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler);
KELVO_EXPORT std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);

// Loop functions behind Platform::doEventLoop and friends. A handler exception
// that its hook does not claim leaves these calls.
KELVO_EXPORT void doLeEventLoop();
KELVO_EXPORT void doLeEventLoop(double seconds);
KELVO_EXPORT void doLeEventLoopInWaitfor(double seconds);
KELVO_EXPORT void eventLoopTimeout(double seconds);

// The default bound of wait-for-condition loops: WAITFOR_DEFAULT seconds, or
// +infinity; read once per process.
KELVO_EXPORT double waitForDefaultTimeout();

// Fast-forward and virtual time.
KELVO_EXPORT void setLeFastForward(bool enabled);
KELVO_EXPORT bool leFastForward() noexcept;
KELVO_EXPORT void leRegisterFastForwardChangeNotifier(void (*notifier)());
// The calling thread's virtual time offset in seconds.
KELVO_EXPORT double leVirtualTimeOffset() noexcept;
KELVO_EXPORT timeval leVirtualTimeOffsetTimeval() noexcept;
// Advances virtual time by delta and pulls every pending timer earlier by it.
KELVO_EXPORT void applyFastForwardDelta(const timeval* delta);
// Distance from now to the first pending timer plus 100 µs; false when none.
KELVO_EXPORT bool fastForwardDelayToFirstTimer(timeval* delay);
KELVO_EXPORT void eventLoopFastForward(const timeval* delta);
KELVO_EXPORT void eventLoopFastForwardToFirstTimer(double maxTimeout);

namespace Impl {
// Base operations that libevent 2.1 lacks, emulated on its public interface.
// 0 and the absolute expiry (base clock) of the earliest pending timer, or -1.
KELVO_EXPORT int event_base_get_first_timeout(event_base* base, timeval* first);
// Moves every pending timer's expiry earlier by offset, keeping their order.
KELVO_EXPORT int event_base_timeout_subtract_offset(event_base* base, const timeval* offset);
// The base's current time, as it would stamp a timer added now.
KELVO_EXPORT void event_base_now(event_base* base, timeval* now);
}  // namespace Impl

}  // namespace Kelvo
