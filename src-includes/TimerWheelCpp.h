// A timer wheel: any number of timers multiplexed onto one event-loop timer
// (the master timer). Timers sit in a hierarchical timing wheel of 10 ms ticks;
// when their tick comes they wait in a small map ordered by exact expiry and
// fire only once Kelvo::time() has reached it, so the coarse tick never makes a
// timer fire early.
//
// A wheel and its timers are used by one thread: the thread whose loop serves
// the master timer. Wheels are shared through std::shared_ptr; every control
// backed by a wheel holds a share of it. Nothing of a wheel is shared across
// threads: even the process-wide singleton serves one thread only.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "PlatformCpp.h"
#include "Timeout.h"

namespace Kelvo {

class TimerWheel;

enum class TimerWheelState : uint8_t {
    notLinked = 0,
    inTimerWheel = 1,
    inTimersExpiryingSoon = 2,
};

// "notLinked", "inTimerWheel", "inTimersExpiryingSoon" or "unknownState".
KELVO_EXPORT const char* timerWheelStateToString(TimerWheelState state) noexcept;

// One timer of a wheel. Owned by whoever derives from it; it must be stopped
// (state notLinked) before it is destroyed. Thread: the wheel's thread.
class KELVO_EXPORT TimerWheelEvent {
  public:
    // Flag bits of the wheel entry that hold the state; the timing wheel owns
    // bits 1 and 2.
    static constexpr int stateFlagShift = 2;
    static constexpr int stateFlagMask = 4 | 8 | 16;

    TimerWheelEvent();
    TimerWheelEvent(const TimerWheelEvent&) = delete;
    TimerWheelEvent& operator=(const TimerWheelEvent&) = delete;
    // The timer expired.
    virtual void timeout() = 0;
    // Fatal unless the state is notLinked.
    virtual ~TimerWheelEvent();

    TimerWheelState state() const;
    // Only notLinked to and from each other state.
    void stateIs(TimerWheelState state);

    // For events that are not controls (timer tasks) to start and stop themselves.
    void setTimeout(const std::shared_ptr<TimerWheel>& wheel, double seconds);
    void delTimeout(const std::shared_ptr<TimerWheel>& wheel);
    // Seconds left, 0.0 once due, +infinity when not running.
    double remainingTimeout() const;

    static TimerWheelEvent* timeoutLink2TimerWheelEvent(struct timeout* link) noexcept;

    // The wheel entry; while the event waits in the expiring-soon map, its
    // list links and pending pointer chain it into that map's entry instead.
    struct timeout timeoutLink;
    // Absolute Kelvo::time() of expiry; +infinity when not running.
    double expirationTime;
};

class KELVO_EXPORT TimerWheel : private Platform::TimeoutHandler {
  public:
    // Events sharing one exact expiry time, in hand-over order.
    struct TimersAtTimeout {
        TimersAtTimeout();
        ~TimersAtTimeout();
        TimersAtTimeout(const TimersAtTimeout&) = delete;
        TimersAtTimeout& operator=(const TimersAtTimeout&) = delete;
        bool empty() const noexcept { return TAILQ_EMPTY(&list); }
        timeout_list list;
    };

    // Prefer getTimerWheel() or getTimerWheelForTaskScheduler().
    explicit TimerWheel(Platform::EventPriority priority);
    ~TimerWheel() override;
    TimerWheel(const TimerWheel&) = delete;
    TimerWheel& operator=(const TimerWheel&) = delete;

    // Schedules the event `seconds` from now (+infinity stops it; NaN is 0, and
    // a negative delay, -infinity too, is overdue); restarting it for the
    // identical instant is a no-op.
    void timerStart(TimerWheelEvent* event, double seconds);
    void timerStop(TimerWheelEvent* event);
    void timerExpired(TimerWheelEvent* event) const;
    // Sets the master timer to the earliest moment a timer can be due.
    void setMasterTimer();

    // +infinity when the master timer is not set, 0 when set to fire at once.
    double masterTimerExpiry() const noexcept { return masterTimerExpiry_; }
    size_t expiringSoonCountForTest() const noexcept { return timersExpiryingSoon_.size(); }

  private:
    void timeout() override;
    // Advances the timing wheel to the current tick; returns Kelvo::time().
    double setCurrentTime();

    int error_;
    double masterTimerExpiry_;
    std::shared_ptr<Platform::TimerControl> masterTimer_;
    struct timeouts* wheel_;
    using ExpiryingSoon = std::map<double, TimersAtTimeout>;
    ExpiryingSoon timersExpiryingSoon_;
    // Nodes of groups whose time has passed, kept for the next groups: a busy
    // wheel makes and ends a group for almost every expiry (one tick of 100k
    // timers a second hands about a thousand over at once), and would
    // otherwise allocate and free a map node each time. The pool grows to the
    // largest hand-over seen, up to spareNodesMax nodes.
    static constexpr size_t spareNodesMax = 1024;
    std::vector<ExpiryingSoon::node_type> spareNodes_;
};

// The thread's wheel when it uses thread-local singletons, else the process's
// one. Created on first use; lives until thread or process exit.
KELVO_EXPORT std::shared_ptr<TimerWheel> getTimerWheel();
// A new, unshared wheel whose master timer has the given priority.
KELVO_EXPORT std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(
    Platform::EventPriority priority);

}  // namespace Kelvo

template <>
struct fmt::formatter<Kelvo::TimerWheelState> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(Kelvo::TimerWheelState state, Context& context) const -> decltype(context.out()) {
        return fmt::formatter<fmt::string_view>::format(Kelvo::timerWheelStateToString(state),
                                                        context);
    }
};
