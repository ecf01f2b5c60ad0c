// The per-thread libevent loop: base management, the libevent-backed timer,
// callback and descriptor controls, the loop-running functions and virtual
// time (fast-forward).
//
// Every function acts on the calling thread's base. A control belongs to the
// thread that created it; it must be armed and served there, and is owned by
// the std::shared_ptr its factory returns.
//
// Lifetime. A thread's loop is created by its first leInit() (every factory and
// loop function calls it) and belongs to the thread: leFree() frees it, and so
// does the thread's exit. Each control holds a claim on the loop it was
// created on: leFree() under live claims is an assertion failure, and a loop
// whose thread exits under live claims is freed with the last of them (a
// control may outlive its thread, though nothing serves it then).
//
// Writing a per-thread singleton that holds controls (the timer wheel, the
// root scheduler): make it a thread_local whose initialiser obtains its
// controls, or calls leInit(), before it completes. The loop's owner is a
// thread_local completed by the thread's first leInit(), and thread_locals
// are destroyed in the reverse order of their completion, so the singleton is
// released before the loop and may still use it in its destructor.
//
// Shared across threads: the fast-forward switch (an atomic, written on the
// main thread, read by every loop), the change notifiers (under a mutex) and
// a loop's claim count (atomic: the last claim may go on another thread after
// the owner's exit). Everything else is per thread.
#pragma once

#include <sys/time.h>

#include <event2/event.h>
#include <event2/event_struct.h>

#include <memory>

#include "PlatformCpp.h"

namespace Kelvo {

namespace Impl {
struct EventLoop;

// A control's claim on the calling thread's loop (created by leInit() if
// needed); the loop is not freed while a claim remains.
class KELVO_EXPORT LoopClaim {
  public:
    LoopClaim();
    ~LoopClaim();
    LoopClaim(const LoopClaim&) = delete;
    LoopClaim& operator=(const LoopClaim&) = delete;

  private:
    EventLoop* loop_;
};
}  // namespace Impl

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

    // libevent's callback; arg is the control.
    static void handleTimeout(evutil_socket_t fd, short what, void* arg);

  protected:
    // setTimeout(0): a deferred callback's every request, mostly on a timer
    // that is idle, which then needs no delete, conversion or clock.
    void setTimeoutNow();

  private:
    void arm(const timeval& relative);

    Impl::LoopClaim claim_;  // first: the loop outlives the event below
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

    Impl::LoopClaim claim_;  // first: the loop outlives the events below
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
// Makes base the thread's base, which the thread then owns (see Lifetime).
KELVO_EXPORT void leRegisterBase(event_base* base);
KELVO_EXPORT void setMainThread();
// Frees the thread's base now; an assertion failure while controls remain.
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
// that its hook does not claim leaves these calls. A bound of +infinity is no
// bound (doLeEventLoop(inf) is doLeEventLoop(), doLeEventLoopInWaitfor(inf)
// waits for the next event and handles it); a negative or NaN bound is zero.
KELVO_EXPORT void doLeEventLoop();
KELVO_EXPORT void doLeEventLoop(double seconds);
KELVO_EXPORT void doLeEventLoopInWaitfor(double seconds);
KELVO_EXPORT void eventLoopTimeout(double seconds);

// The default bound of wait-for-condition loops: WAITFOR_DEFAULT seconds, or
// +infinity (also when it is not a number of seconds, or NaN, or negative,
// any of which would make every wait loop spin); read once per process.
KELVO_EXPORT double waitForDefaultTimeout();

// Fast-forward and virtual time.
KELVO_EXPORT void setLeFastForward(bool enabled);
KELVO_EXPORT bool leFastForward() noexcept;
KELVO_EXPORT void leRegisterFastForwardChangeNotifier(void (*notifier)());
// The calling thread's virtual time offset in seconds. It only grows, and its
// timeval form is normalised (microseconds 0 to 999999).
KELVO_EXPORT double leVirtualTimeOffset() noexcept;
KELVO_EXPORT timeval leVirtualTimeOffsetTimeval() noexcept;
// Advances virtual time by delta (normalised, not negative: an assertion
// otherwise) and pulls every pending timer earlier by it.
KELVO_EXPORT void applyFastForwardDelta(const timeval* delta);
// Distance from now to the first timer plus 100 µs, zero when a timer is due
// (also one due but not yet run); false when there is none.
KELVO_EXPORT bool fastForwardDelayToFirstTimer(timeval* delay);
KELVO_EXPORT void eventLoopFastForward(const timeval* delta);
// With no timer and an unbounded maximum, waits for the next event in real
// time and handles it.
KELVO_EXPORT void eventLoopFastForwardToFirstTimer(double maxTimeout);

namespace Impl {
// A duration in seconds as a normalised timeval, truncated to microseconds:
// NaN and negative durations are zero, longer ones are capped at 2^31 s.
KELVO_EXPORT timeval durationToTimeval(double seconds) noexcept;

// Base operations that libevent 2.1 lacks, emulated on its public interface.
// 0 and the absolute expiry (base clock) of the earliest timer, or -1; a timer
// that is due but has not run yet counts, with its past expiry.
KELVO_EXPORT int event_base_get_first_timeout(event_base* base, timeval* first);
// Moves every pending timer's expiry earlier by offset, keeping their order.
KELVO_EXPORT int event_base_timeout_subtract_offset(event_base* base, const timeval* offset);
// The base's current time, as it would stamp a timer added now.
KELVO_EXPORT void event_base_now(event_base* base, timeval* now);
}  // namespace Impl

}  // namespace Kelvo
