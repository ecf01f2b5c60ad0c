// Timers multiplexed onto one event-loop timer through a hierarchical wheel.
#include <Kelvo/AllocatorCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/ThreadCpp.h>
#include <Kelvo/TimerWheelCpp.h>

#include "DebugImpl.h"

#include <cmath>
#include <cstddef>
#include <limits>

namespace Kelvo {

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double ticksPerSecond = 100;

// Made at load so that TRACE applies to it before any wheel exists, and
// never released (code running at exit may still trace). Every timer's start,
// stop and expiry checks it: a plain pointer costs a load there.
const Platform::DebugHandler* const wheelTraceHandle = Impl::debugHandlerForLife("KelvoTimerWheel");
[[gnu::always_inline]] inline const Platform::DebugHandler* trace() {
    return wheelTraceHandle;
}

// The group of `expiry` in `groups`, made from a spare node when there is one.
TimerWheel::TimersAtTimeout& expiryGroup(
    std::map<double, TimerWheel::TimersAtTimeout>& groups,
    std::vector<std::map<double, TimerWheel::TimersAtTimeout>::node_type>& spareNodes,
    double expiry) {
    const auto at = groups.lower_bound(expiry);
    if (at != groups.end() && at->first == expiry) {
        return at->second;
    }
    if (spareNodes.empty()) {
        return groups
            .emplace_hint(at, std::piecewise_construct, std::forward_as_tuple(expiry),
                          std::forward_as_tuple())
            ->second;
    }
    auto node = std::move(spareNodes.back());
    spareNodes.pop_back();
    node.key() = expiry;
    return groups.insert(at, std::move(node))->second;
}

// Ticks past the wheel's range saturate, as the wheel's own sums do.
timeout_t tickOf(double ticks) {
    constexpr double lastTick = 18446744073709551615.0;  // rounds to 2^64
    return ticks >= lastTick ? ~timeout_t(0) : static_cast<timeout_t>(ticks);
}

int stateBit(TimerWheelState state) {
    return 1 << (static_cast<int>(state) + TimerWheelEvent::stateFlagShift);
}

// Timers served by a wheel behind the TimerControl interface. The wheel does
// not stop them on destruction: the owner calls delTimeout() first.
class TimerWheelTimerControl : public Platform::TimerControl, public TimerWheelEvent {
  public:
    TimerWheelTimerControl(Platform::TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel)
        : handler_(handler), wheel_(std::move(wheel)) {}

    void setTimeout(double seconds) override { wheel_->timerStart(this, seconds); }
    void delTimeout() override { wheel_->timerStop(this); }
    double remainingTimeout() const override { return TimerWheelEvent::remainingTimeout(); }
    // Unclaimed by any hook here: an exception travels up through the wheel's
    // master timer.
    void timeout() override { handler_->timeout(); }

  private:
    Platform::TimeoutHandler* handler_;
    std::shared_ptr<TimerWheel> wheel_;
};

}  // namespace

const char* timerWheelStateToString(TimerWheelState state) noexcept {
    switch (state) {
        case TimerWheelState::notLinked:
            return "notLinked";
        case TimerWheelState::inTimerWheel:
            return "inTimerWheel";
        case TimerWheelState::inTimersExpiryingSoon:
            return "inTimersExpiryingSoon";
    }
    return "unknownState";
}

// ---------------------------------------------------------------------------
// TimerWheelEvent

TimerWheelEvent::TimerWheelEvent() : expirationTime(infinity) {
    timeout_init(&timeoutLink, TIMEOUT_ABS | stateBit(TimerWheelState::notLinked));
}

TimerWheelEvent::~TimerWheelEvent() {
    const TimerWheelState current = state();
    KELVO_ASSERTM(current == TimerWheelState::notLinked, "TimerWheelEvent {} destroyed while {}",
                  static_cast<void*>(this), current);
}

TimerWheelState TimerWheelEvent::state() const {
    const int bits = timeoutLink.flags & stateFlagMask;
    // Exactly one bit set.
    KELVO_ASSERTM(bits != 0 && (bits & (bits - 1)) == 0, "None or multiple of our flags set {}",
                  bits);
    return static_cast<TimerWheelState>(__builtin_ctz(static_cast<unsigned>(bits)) -
                                        stateFlagShift);
}

void TimerWheelEvent::stateIs(TimerWheelState next) {
    const TimerWheelState current = state();
    if (current == next) {
        return;
    }
    KELVO_ASSERTM(current == TimerWheelState::notLinked || next == TimerWheelState::notLinked,
                  "State change {} -> {} must go via {}", current, next,
                  TimerWheelState::notLinked);
    KELVO_ASSERTM(static_cast<int>(next) < 3, "invalid state {}", static_cast<int>(next));
    timeoutLink.flags = (timeoutLink.flags & ~stateFlagMask) | stateBit(next);
}

void TimerWheelEvent::setTimeout(const std::shared_ptr<TimerWheel>& wheel, double seconds) {
    wheel->timerStart(this, seconds);
}

void TimerWheelEvent::delTimeout(const std::shared_ptr<TimerWheel>& wheel) {
    wheel->timerStop(this);
}

double TimerWheelEvent::remainingTimeout() const {
    if (std::isinf(expirationTime)) {
        return infinity;
    }
    const double remaining = expirationTime - Kelvo::time();
    return remaining > 0.0 ? remaining : 0.0;
}

// The class has a vtable but no virtual base, so the member's offset is fixed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
TimerWheelEvent* TimerWheelEvent::timeoutLink2TimerWheelEvent(struct timeout* link) noexcept {
    return reinterpret_cast<TimerWheelEvent*>(reinterpret_cast<char*>(link) -
                                              offsetof(TimerWheelEvent, timeoutLink));
}
#pragma GCC diagnostic pop

// ---------------------------------------------------------------------------
// TimerWheel

TimerWheel::TimersAtTimeout::TimersAtTimeout() {
    TAILQ_INIT(&list);
}

TimerWheel::TimersAtTimeout::~TimersAtTimeout() {
    KELVO_ASSERTM(empty(), "Destroyed while non-empty");
}

TimerWheel::TimerWheel(Platform::EventPriority priority)
    : error_(0),
      masterTimerExpiry_(infinity),
      masterTimer_(
          Platform::getTimerControl(static_cast<Platform::TimeoutHandler*>(this), priority)),
      wheel_(timeouts_open(static_cast<timeout_t>(ticksPerSecond), &error_)) {
    KELVO_ASSERTM(error_ == 0, "Error code {}", error_);
    setCurrentTime();
}

TimerWheel::~TimerWheel() {
    timeouts_close(wheel_);
    timersExpiryingSoon_.clear();
    masterTimer_.reset();
}

double TimerWheel::setCurrentTime() {
    const double now = Kelvo::time();
    const timeout_t tick = tickOf(std::ceil(now * ticksPerSecond));
    KELVO_TRACEM(trace(), 8, "advance time to {} tick {}", now, tick);
    timeouts_update(wheel_, tick);
    return now;
}

void TimerWheel::timerStart(TimerWheelEvent* event, double seconds) {
    // A NaN delay is no delay, and any negative one (-infinity too) an expiry
    // at the latest at the clock's origin: overdue, finite, so stoppable.
    const double expiry = std::max(Kelvo::time() + (std::isnan(seconds) ? 0.0 : seconds), 0.0);
    if (expiry == event->expirationTime) {
        return;
    }
    if (!std::isinf(event->expirationTime)) {
        timerStop(event);
    }
    // A timer that never expires is simply not scheduled.
    if (std::isinf(expiry) && expiry > 0) {
        return;
    }
    event->expirationTime = expiry;
    const timeout_t tick = tickOf(std::floor(expiry * ticksPerSecond));
    KELVO_TRACEM(trace(), 9, "timer {} set timeout {} expire at {} tick {}",
                 static_cast<void*>(event), seconds, expiry, tick);
    timeouts_add(wheel_, &event->timeoutLink, tick);
    event->stateIs(TimerWheelState::inTimerWheel);
    if (masterTimerExpiry_ > expiry) {
        setMasterTimer();
    }
}

void TimerWheel::timerStop(TimerWheelEvent* event) {
    if (std::isinf(event->expirationTime)) {
        KELVO_TRACEM(trace(), 9, "timer {} del timeout, not running", static_cast<void*>(event));
        return;
    }
    KELVO_TRACEM(trace(), 9, "timer {} del timeout", static_cast<void*>(event));
    switch (event->state()) {
        case TimerWheelState::inTimerWheel:
            timeouts_del(wheel_, &event->timeoutLink);
            event->stateIs(TimerWheelState::notLinked);
            break;
        case TimerWheelState::inTimersExpiryingSoon: {
            timeout_list* list = event->timeoutLink.pending;
            KELVO_ASSERTM(list != nullptr, "No timersAtTimeout");
            TAILQ_REMOVE(list, &event->timeoutLink, tqe);
            event->timeoutLink.pending = nullptr;
            event->stateIs(TimerWheelState::notLinked);
            break;
        }
        case TimerWheelState::notLinked:
            KELVO_ASSERT_FAILM("Not linked but expirationTime={}", event->expirationTime);
    }
    // The master timer is left as it is: if it fires with nothing due,
    // timeout() recomputes it, which is cheaper than recomputing on every stop.
    event->expirationTime = infinity;
}

void TimerWheel::timerExpired(TimerWheelEvent* event) const {
    KELVO_TRACEM(trace(), 9, "timer {} expired", static_cast<void*>(event));
    event->expirationTime = infinity;
    event->timeout();
}

void TimerWheel::setMasterTimer() {
    const double now = setCurrentTime();
    for (auto& [time, timers] : timersExpiryingSoon_) {
        if (timers.empty()) {
            continue;
        }
        if (std::isinf(time)) {
            break;
        }
        if (time <= now) {
            KELVO_TRACEM(trace(), 8,
                         "has expired timers, firstExpiryTime={} now={}, set master timer "
                         "timeout 0",
                         time, now);
            masterTimer_->setTimeout(0);
        } else {
            KELVO_TRACEM(trace(), 8,
                         "has scheduled timers, firstExpiryTime={} now={}, set master timer "
                         "timeout {}",
                         time, now, time - now);
            masterTimer_->setTimeout(time - now);
        }
        masterTimerExpiry_ = time;
        return;
    }
    if (timeouts_expired(wheel_)) {
        KELVO_TRACEM(trace(), 8, "has expired timers, set master timer timeout 0");
        masterTimer_->setTimeout(0);
        masterTimerExpiry_ = 0;
        return;
    }
    if (!timeouts_pending(wheel_)) {
        KELVO_TRACEM(trace(), 8, "has no timers, del master timer timeout");
        masterTimer_->delTimeout();
        masterTimerExpiry_ = infinity;
        return;
    }
    const timeout_t ticks = timeouts_timeout(wheel_);
    const double seconds = static_cast<double>(ticks) / ticksPerSecond;
    KELVO_TRACEM(trace(), 8,
                 "has scheduled timers, first timer expiry in {} ticks, set master timer "
                 "timeout {}",
                 ticks, seconds);
    masterTimer_->setTimeout(seconds);
    masterTimerExpiry_ = now + seconds;
}

// If an event's timeout() throws, the exception leaves here: the events fired
// so far are unlinked, the rest stay in the map, and masterTimerExpiry_ keeps
// its past value, so the wheel stays stalled until setMasterTimer() is called.
void TimerWheel::timeout() {
    KELVO_TRACEM(trace(), 8, "master timer expired");
    const double now = setCurrentTime();
    while (struct timeout* link = timeouts_get(wheel_)) {
        TimerWheelEvent* event = TimerWheelEvent::timeoutLink2TimerWheelEvent(link);
        event->stateIs(TimerWheelState::notLinked);
        TimersAtTimeout& timers =
            expiryGroup(timersExpiryingSoon_, spareNodes_, event->expirationTime);
        KELVO_ASSERTM(link->pending == nullptr, "pending set to {}",
                      static_cast<void*>(link->pending));
        TAILQ_INSERT_TAIL(&timers.list, link, tqe);
        link->pending = &timers.list;
        event->stateIs(TimerWheelState::inTimersExpiryingSoon);
    }
    for (auto it = timersExpiryingSoon_.begin(); it != timersExpiryingSoon_.end();) {
        if (it->first > now) {
            KELVO_TRACEM(trace(), 9, "Defer processing timers with expiry time {} > now {}",
                         it->first, now);
            break;
        }
        timeout_list* list = &it->second.list;
        // Re-read the head after every call: a handler may start or stop timers.
        while (struct timeout* link = TAILQ_FIRST(list)) {
            TimerWheelEvent* event = TimerWheelEvent::timeoutLink2TimerWheelEvent(link);
            KELVO_ASSERTM(link->pending == list, "Event {} linked to {}", static_cast<void*>(event),
                          static_cast<void*>(link->pending));
            TAILQ_REMOVE(list, link, tqe);
            link->pending = nullptr;
            event->stateIs(TimerWheelState::notLinked);
            timerExpired(event);
        }
        // Its list is empty again: the node can serve a later group as it is.
        if (spareNodes_.size() < spareNodesMax) {
            spareNodes_.push_back(timersExpiryingSoon_.extract(it++));
        } else {
            it = timersExpiryingSoon_.erase(it);
        }
    }
    setMasterTimer();
}

// ---------------------------------------------------------------------------
// Singletons and factories

std::shared_ptr<TimerWheel> getTimerWheel() {
    if (hasThreadLocalSingletons()) {
        // Its initialiser creates the master timer, so the thread's loop is
        // released after it (see LibeventFactoryCpp.h).
        thread_local std::shared_ptr<TimerWheel> wheel =
            allocateShared<TimerWheel>(Platform::eventPriorityDefault);
        return wheel;
    }
    // Never destroyed: timers may still be stopped from static destructors.
    static auto* wheel =
        new std::shared_ptr<TimerWheel>(allocateShared<TimerWheel>(Platform::eventPriorityDefault));
    return *wheel;
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority) {
    return allocateShared<TimerWheel>(priority);
}

namespace Platform {

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TimerWheel> wheel) {
    return allocateShared<TimerWheelTimerControl>(handler, std::move(wheel));
}

}  // namespace Platform

}  // namespace Kelvo
