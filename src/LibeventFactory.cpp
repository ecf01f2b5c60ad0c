// The per-thread libevent loop, its controls, and virtual time.
#include <Kelvo/AllocatorCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/LibeventFactoryCpp.h>
#include <Kelvo/ThreadCpp.h>

#include "DebugImpl.h"

#include <event2/thread.h>
#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <iostream>
#include <limits>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/container/small_vector.hpp>

template <>
struct fmt::formatter<timeval> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(const timeval& tv, Context& context) const -> decltype(context.out()) {
        return fmt::format_to(context.out(), "{}.{:06}", static_cast<long>(tv.tv_sec),
                              static_cast<long>(tv.tv_usec));
    }
};

namespace Kelvo {

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// Made at load so that TRACE applies to it before any loop exists, and
// never released (code running at exit may still trace). A deferred
// callback's request and firing check it five times: a plain pointer costs
// a load there, with no initialisation guard and no cold start-up code.
const Platform::DebugHandler* const libeventTraceHandle =
    Impl::debugHandlerForLife("KelvoLibevent");
[[gnu::always_inline]] inline const Platform::DebugHandler* trace() {
    return libeventTraceHandle;
}

thread_local bool mainThread = false;
// This thread's base and the record that owns it; set and cleared together.
thread_local event_base* ev_base = nullptr;
thread_local Impl::EventLoop* loop = nullptr;
thread_local timeval virtualTimeOffset = {0, 0};
// A handler exception waiting to leave the loop function that dispatched it.
thread_local std::exception_ptr dispatchException;

// Switched on the main thread only, read by every thread's loop. Relaxed: it
// publishes no other data, and the notifiers run on the switching thread.
std::atomic<bool> fastForward{false};

constexpr timeval extraDelay = {0, 100};

// libevent only masks its common-timeout bits out of tv_usec internally.
constexpr long microsecondsMask = 0x000fffff;

// Within what libevent can add to its clock without overflow.
constexpr double longestDuration = 2147483648.0;

bool isFastForward() noexcept {
    return fastForward.load(std::memory_order_relaxed);
}

// +infinity is the one bound that means "no bound".
bool isUnbounded(double seconds) noexcept {
    return seconds == infinity;
}

timeval toTimevalRoundedUp(double seconds) {
    seconds = std::min(seconds, longestDuration);
    timeval tv;
    tv.tv_sec = static_cast<time_t>(seconds);
    tv.tv_usec =
        static_cast<suseconds_t>(std::ceil((seconds - static_cast<double>(tv.tv_sec)) * 1e6));
    if (tv.tv_usec > 999999) {
        tv.tv_sec += 1;
        tv.tv_usec -= 1000000;
    }
    return tv;
}

timeval add(const timeval& a, const timeval& b) {
    timeval sum;
    timeradd(&a, &b, &sum);
    return sum;
}

timeval sub(const timeval& a, const timeval& b) {
    timeval difference;
    timersub(&a, &b, &difference);
    return difference;
}

timeval expiryOf(const event* ev) {
    timeval tv = ev->ev_timeout;
    tv.tv_usec &= microsecondsMask;
    return tv;
}

// libevent calls our callbacks from C frames that were built without
// exception support, and a base whose dispatch was unwound stays marked as
// running and refuses every later dispatch. So a handler's unclaimed exception
// is parked here, the loop is broken after the current callback, and the loop
// function rethrows it once event_base_dispatch has returned normally.
void parkException(event_base* base) noexcept {
    if (!dispatchException) {
        dispatchException = std::current_exception();
    }
    event_base_loopbreak(base);
}

// Unchecked forms of fastForwardDelayToFirstTimer() and
// eventLoopFastForwardToFirstTimer(). A loop function reads the switch once:
// the main thread may flip it while the step runs.
bool delayToFirstTimer(timeval* delay);
void stepToFirstTimer(double maxTimeout);

// flags: 0 runs until no event is left or the loop is broken, EVLOOP_ONCE
// waits for the next event and handles it.
void dispatch(event_base* base, int flags = 0) {
    event_base_loop(base, flags);
    if (dispatchException) {
        std::exception_ptr failure = std::move(dispatchException);
        dispatchException = nullptr;
        std::rethrow_exception(failure);
    }
}

}  // namespace

namespace Impl {

timeval durationToTimeval(double seconds) noexcept {
    if (!(seconds > 0)) {
        return {0, 0};
    }
    seconds = std::min(seconds, longestDuration);
    timeval tv;
    tv.tv_sec = static_cast<time_t>(seconds);
    tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1e6);
    return tv;
}

// A thread's loop. It holds one reference for its thread and one per claim;
// whichever drops the last frees the base: leFree() or the thread's exit when
// no control is left, otherwise the last control, possibly on another thread.
struct EventLoop {
    explicit EventLoop(event_base* base) noexcept : base(base) {}

    void release() noexcept {
        // acq_rel: every holder's use of the base happens before the free.
        if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            event_base_free(base);
            delete this;
        }
    }

    event_base* const base;
    std::atomic<int> references{1};
};

LoopClaim::LoopClaim() {
    leInit();
    loop_ = loop;
    loop_->references.fetch_add(1, std::memory_order_relaxed);
}

LoopClaim::~LoopClaim() {
    loop_->release();
}

}  // namespace Impl

namespace {

void releaseThreadLoop() noexcept {
    Impl::EventLoop* const released = std::exchange(loop, nullptr);
    ev_base = nullptr;
    released->release();
}

// Releases the thread's loop at thread exit. Constructed by the thread's first
// leInit(), so it is destroyed after every thread_local whose initialiser
// reached the loop.
struct ThreadLoopOwner {
    ~ThreadLoopOwner() {
        if (loop == nullptr) {
            return;
        }
        const int controls = loop->references.load(std::memory_order_relaxed) - 1;
        if (controls > 0) {
            KELVO_TRACE(trace(), 2, "Thread exit: base {} stays for its {} live controls",
                        static_cast<void*>(ev_base), controls);
        }
        releaseThreadLoop();
    }
};

void ownThreadLoop() {
    thread_local ThreadLoopOwner owner;
    (void)owner;
}

}  // namespace

// ---------------------------------------------------------------------------
// Base management

void le_fatal_cb(int err) {
    const String text = fmt::format("libevent fatal error:{}", err);
    KELVO_ASSERT_FAIL("{}", text);
}

void le_debug_cb(int severity, const char* msg) {
    switch (severity) {
        case EVENT_LOG_DEBUG:
            KELVO_TRACE(trace(), 9, "libevent: {}", msg);
            break;
        case EVENT_LOG_MSG:
            KELVO_TRACE(trace(), 5, "libevent: {}", msg);
            break;
        case EVENT_LOG_WARN:
            KELVO_TRACE(trace(), 1, "libevent: {}", msg);
            break;
        case EVENT_LOG_ERR:
            KELVO_TRACE(trace(), 0, "libevent: {}", msg);
            break;
        default:
            KELVO_ASSERT_FAIL("invalid libevent severity:{} msg:{}", severity, msg);
    }
}

namespace {
extern "C" void leFatalTrampoline(int err) {
    le_fatal_cb(err);
}
extern "C" void leLogTrampoline(int severity, const char* msg) {
    le_debug_cb(severity, msg);
}
}  // namespace

void leInit() {
    if (ev_base != nullptr) {
        return;
    }
    event_set_fatal_callback(leFatalTrampoline);
    event_set_log_callback(leLogTrampoline);
    leRegisterBase(leCreateBase());
}

event_base* leCreateBase() {
    const int ret = evthread_use_pthreads();
    KELVO_ASSERT(ret == 0, "ret {}", ret);
    event_config* config = event_config_new();
    event_config_require_features(config, EV_FEATURE_ET);
    // The default monotonic clock on Linux is the coarse one (a few ms), and
    // a cached loop-pass time makes a timer armed late in a long callback
    // fire early by the callback's length: read the precise clock on every
    // arming instead.
    event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
    event_config_set_flag(config, EVENT_BASE_FLAG_NO_CACHE_TIME);
    event_base* base = event_base_new_with_config(config);
    event_config_free(config);
    KELVO_ASSERT(base != nullptr, "Failed to create event_base");
    event_base_priority_init(base, 2);
    return base;
}

void leRegisterBase(event_base* base) {
    KELVO_ASSERT(ev_base == nullptr || ev_base == base,
                 "Tried to register a base:{} but a thread_local  base already exists: {}",
                 static_cast<void*>(base), static_cast<void*>(ev_base));
    if (ev_base == nullptr && base != nullptr) {
        ownThreadLoop();
        loop = new Impl::EventLoop(base);
        ev_base = base;
    }
    setMainThread();
}

void setMainThread() {
    mainThread = isMainThread();
}

void leFree() {
    if (loop == nullptr) {
        return;
    }
    const int controls = loop->references.load(std::memory_order_relaxed) - 1;
    KELVO_ASSERT(controls == 0, "Freeing base {} with {} live controls",
                 static_cast<void*>(ev_base), controls);
    releaseThreadLoop();
}

bool leInitialized() noexcept {
    return ev_base != nullptr;
}

event_base* leBase() noexcept {
    return ev_base;
}

void leForkReinit() {
    if (ev_base == nullptr) {
        leInit();
        return;
    }
    const int rc = event_reinit(ev_base);
    KELVO_ASSERT(rc == 0, "event_reinit failed rc {}", rc);
    // The child runs on a new kernel thread id.
    setMainThread();
}

void eventPrioritySet(struct event* ev, Platform::EventPriority priority) {
    KELVO_TRACE(trace(), 9, "Setting priority of {} to {}", static_cast<void*>(ev), priority);
    const int rc = event_priority_set(ev, priority);
    KELVO_ASSERT(rc == 0, "Failed to set priority on {} to {} rc {}", static_cast<void*>(ev),
                 priority, rc);
}

// ---------------------------------------------------------------------------
// Timer control

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler,
                                           Platform::EventPriority priority)
    : handler_(handler), priority_(priority), expiry_(infinity) {
    event_assign(&event_, ev_base, -1, 0, nullptr, nullptr);
    eventPrioritySet(&event_, priority_);
}

LibeventTimerControl::~LibeventTimerControl() {
    try {
        delTimeout();
    } catch (...) {
        std::terminate();
    }
}

void LibeventTimerControl::arm(const timeval& relative) {
    // Assigned once: an expired or deleted timer is added again as it is.
    if (event_.ev_evcallback.evcb_cb_union.evcb_callback != handleTimeout) {
        event_assign(&event_, ev_base, -1, 0, handleTimeout, this);
        eventPrioritySet(&event_, priority_);
    }
    event_add(&event_, &relative);
}

void LibeventTimerControl::setTimeout(double seconds) {
    KELVO_TRACEM(trace(), 9, "Timer {} set timeout {}", static_cast<void*>(this), seconds);
    // +infinity means never; a negative or NaN delay means now.
    const bool now = !(seconds > 0);
    if (now && expiry_ == -infinity && (event_.ev_evcallback.evcb_flags & EVLIST_TIMEOUT)) {
        return;  // due now already: re-arming would change nothing
    }
    delTimeout();
    if (isUnbounded(seconds)) {
        return;
    }
    const timeval relative = Impl::durationToTimeval(seconds);
    // Kelvo::time() never goes back, so a timer due now is due whenever it is
    // looked at: it is stamped -infinity, and arming it (a deferred callback's
    // every request) reads no clock.
    expiry_ = now ? -infinity : Kelvo::time() + seconds;
    arm(relative);
}

void LibeventTimerControl::setTimeoutNow() {
    const short flags = event_.ev_evcallback.evcb_flags;
    if ((flags & EVLIST_TIMEOUT) && expiry_ == -infinity) {
        // Due now already, as setTimeout(0.0) would find it: a request
        // repeated before its callback ran changes nothing.
        KELVO_TRACEM(trace(), 9, "Timer {} set timeout {}", static_cast<void*>(this), 0.0);
        return;
    }
    if (flags & (EVLIST_TIMEOUT | EVLIST_ACTIVE | EVLIST_ACTIVE_LATER)) {
        setTimeout(0.0);
        return;
    }
    KELVO_TRACEM(trace(), 9, "Timer {} set timeout {}", static_cast<void*>(this), 0.0);
    static constexpr timeval zero = {0, 0};
    expiry_ = -infinity;
    arm(zero);
}

void LibeventTimerControl::delTimeout() {
    KELVO_TRACEM(trace(), 9, "Timer {} del timeout", static_cast<void*>(this));
    // The flags are the loop's own, of this thread: reading them needs no lock.
    if (event_.ev_evcallback.evcb_flags & (EVLIST_TIMEOUT | EVLIST_ACTIVE | EVLIST_ACTIVE_LATER)) {
        event_del(&event_);
    }
}

double LibeventTimerControl::remainingTimeout() const {
    if (!event_pending(&event_, EV_TIMEOUT, nullptr)) {
        return infinity;
    }
    if (expiry_ == -infinity) {
        return 0.0;
    }
    // Measured against the library's clock rather than the time of day, so
    // that neither a wall-clock step nor virtual time skews it.
    const double remaining = expiry_ - Kelvo::time();
    return remaining > 0.0 ? remaining : 0.0;
}

void LibeventTimerControl::handleTimeout(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<LibeventTimerControl*>(arg);
    // libevent splits the delay at microseconds and truncates its clock to
    // them, so it may run a timer up to two microseconds before the
    // Kelvo::time() it was armed for. Such a timer waits for the remainder:
    // no handler ever sees a time before its expiry.
    if (self->expiry_ != -infinity) {
        const double early = self->expiry_ - Kelvo::time();
        if (early > 0.0) {
            self->arm(toTimevalRoundedUp(early));
            return;
        }
    }
    try {
        KELVO_TRACE(trace(), 9, "Timer {} expired", static_cast<void*>(self));
        try {
            self->handler()->timeout();
        } catch (...) {
            if (self->handler()->handleTimeoutException()) {
                KELVO_TRACE(trace(), 9, "Timeout notification exception was handled");
                return;
            }
            throw;
        }
    } catch (...) {
        parkException(ev_base);
    }
}

// ---------------------------------------------------------------------------
// Callback control

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : LibeventTimerControl(static_cast<Platform::TimeoutHandler*>(this),
                           Platform::eventPriorityDefault),
      callbackHandler_(handler) {}

LibeventCallbackControl::~LibeventCallbackControl() {
    try {
        cancelCallback();
        LibeventTimerControl::delTimeout();
    } catch (...) {
        std::terminate();
    }
}

void LibeventCallbackControl::requestCallback() {
    KELVO_TRACEM(trace(), 9, "Callback {} request", static_cast<void*>(this));
    LibeventTimerControl::setTimeoutNow();
}

void LibeventCallbackControl::cancelCallback() {
    KELVO_TRACEM(trace(), 9, "Callback {} cancel", static_cast<void*>(this));
    LibeventTimerControl::delTimeout();
}

bool LibeventCallbackControl::pendingCallback() const {
    return LibeventTimerControl::remainingTimeout() <= std::numeric_limits<double>::max();
}

void LibeventCallbackControl::timeout() {
    KELVO_TRACEM(trace(), 9, "Callback {} execute", static_cast<void*>(this));
    try {
        callbackHandler_->callback();
    } catch (...) {
        if (callbackHandler_->handleCallbackException()) {
            KELVO_TRACEM(trace(), 9, "Callback notification exception was handled");
            return;
        }
        throw;
    }
}

// ---------------------------------------------------------------------------
// Descriptor control

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler) : handler_(handler) {
    event_assign(&readEvent_, ev_base, -1, 0, nullptr, nullptr);
    eventPrioritySet(&readEvent_, Platform::eventPriorityDefault);
    event_assign(&writeEvent_, ev_base, -1, 0, nullptr, nullptr);
    eventPrioritySet(&writeEvent_, Platform::eventPriorityDefault);
}

LibeventFdControl::~LibeventFdControl() {
    try {
        delFd();
    } catch (...) {
        std::terminate();
    }
}

void LibeventFdControl::arm(struct event* ev, short flags, event_callback_fn callback) {
    event_del(ev);
    event_assign(ev, ev_base, fd_, flags, callback, this);
    eventPrioritySet(ev, Platform::eventPriorityDefault);
    event_add(ev, nullptr);
}

void LibeventFdControl::disarm(struct event* ev) {
    event_del(ev);
    // Forget the descriptor so that a later close and reuse of its number
    // cannot be confused with this watch.
    event_assign(ev, ev_base, -1, 0, nullptr, nullptr);
}

void LibeventFdControl::setReads(bool enabled) {
    reads_ = enabled;
    if (fd_ < 0) {
        return;
    }
    if (enabled) {
        arm(&readEvent_, EV_READ | EV_PERSIST, handleFdRead);
    } else {
        disarm(&readEvent_);
    }
}

void LibeventFdControl::setWrites(bool enabled) {
    writes_ = enabled;
    if (fd_ < 0) {
        return;
    }
    if (enabled) {
        arm(&writeEvent_, EV_WRITE, handleFdWrite);
    } else {
        disarm(&writeEvent_);
    }
}

void LibeventFdControl::setFd(int fd) {
    fd_ = fd;
    const int flags = ::fcntl(fd, F_GETFL);
    KELVO_CHECK(flags >= 0);
    const int result = ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    KELVO_CHECK(result == 0);
    if (reads_) {
        arm(&readEvent_, EV_READ | EV_PERSIST, handleFdRead);
    }
    if (writes_) {
        arm(&writeEvent_, EV_WRITE, handleFdWrite);
    }
}

void LibeventFdControl::clearEvents() {
    disarm(&readEvent_);
    disarm(&writeEvent_);
}

void LibeventFdControl::delFd() {
    clearEvents();
    fd_ = -1;
}

namespace {
// One descriptor notification; an exception its handler's hook does not claim
// is parked for the loop function.
void notifyFd(Platform::FdEventHandler* handler, int fd,
              void (Platform::FdEventHandler::*notification)(int)) noexcept {
    try {
        try {
            (handler->*notification)(fd);
        } catch (...) {
            if (handler->handleFdException(fd)) {
                return;
            }
            throw;
        }
    } catch (...) {
        parkException(ev_base);
    }
}
}  // namespace

void LibeventFdControl::handleFdRead(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<LibeventFdControl*>(arg);
    notifyFd(self->handler_, self->getFd(), &Platform::FdEventHandler::readFdEvent);
}

void LibeventFdControl::handleFdWrite(evutil_socket_t, short, void* arg) {
    auto* self = static_cast<LibeventFdControl*>(arg);
    notifyFd(self->handler_, self->getFd(), &Platform::FdEventHandler::writeFdEvent);
}

// ---------------------------------------------------------------------------
// Factories

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
    return getLeTimerControl(handler, Platform::eventPriorityDefault);
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler,
                                                          Platform::EventPriority priority) {
    return allocateShared<LibeventTimerControl>(handler, priority);
}

std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler) {
    return allocateShared<LibeventCallbackControl>(handler);
}

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
    return allocateShared<LibeventFdControl>(handler);
}

// ---------------------------------------------------------------------------
// Running the loop

EvLoopBreak::EvLoopBreak(const timeval& timeout, Platform::EventPriority priority) {
    event_assign(&event_, ev_base, -1, 0, handleBaseLoopBreak, &event_);
    eventPrioritySet(&event_, priority);
    event_add(&event_, &timeout);
}

EvLoopBreak::~EvLoopBreak() {
    try {
        KELVO_TRACEM(trace(), 9, "{}", static_cast<void*>(&event_));
        event_del(&event_);
    } catch (...) {
        std::terminate();
    }
}

void EvLoopBreak::handleBaseLoopBreak(evutil_socket_t, short, void* arg) {
    auto* ev = static_cast<struct event*>(arg);
    try {
        KELVO_TRACE(trace(), 8, "{}", static_cast<void*>(ev));
    } catch (...) {
        std::terminate();
    }
    event_base_loopbreak(event_get_base(ev));
    event_del(ev);
}

void eventLoopTimeout(double seconds) {
    KELVO_TRACE(trace(), 5, "timeout {}", seconds);
    leInit();
    if (isUnbounded(seconds)) {
        dispatch(ev_base);
        return;
    }
    const timeval timeout = Impl::durationToTimeval(seconds);
    EvLoopBreak loopBreak(timeout, Platform::eventPriorityDefault);
    KELVO_TRACE(trace(), 8, "{} timeout {}", static_cast<void*>(loopBreak.breakEvent()), timeout);
    dispatch(ev_base);
}

void doLeEventLoop() {
    leInit();
    timeval delay;
    if (isFastForward() && delayToFirstTimer(&delay)) {
        applyFastForwardDelta(&delay);
    }
    dispatch(ev_base);
}

void doLeEventLoop(double seconds) {
    KELVO_TRACE(trace(), 5, "timeout {}", seconds);
    if (isUnbounded(seconds)) {
        doLeEventLoop();
        return;
    }
    leInit();
    seconds = seconds > 0 ? seconds : 0.0;
    if (!isFastForward()) {
        eventLoopTimeout(seconds);
        return;
    }
    const double end = Kelvo::time() + seconds;
    for (double now = Kelvo::time(); end > now; now = Kelvo::time()) {
        stepToFirstTimer(end - now);
    }
}

void doLeEventLoopInWaitfor(double seconds) {
    KELVO_TRACE(trace(), 5, "maxTimeout {}", seconds);
    leInit();
    if (isFastForward()) {
        stepToFirstTimer(seconds);
    } else if (isUnbounded(seconds)) {
        dispatch(ev_base, EVLOOP_ONCE);
    } else {
        eventLoopTimeout(seconds);
    }
}

double waitForDefaultTimeout() {
    static const double timeout = [] {
        const char* text = std::getenv("WAITFOR_DEFAULT");
        if (text == nullptr) {
            return infinity;
        }
        try {
            const double seconds = std::stod(text);
            if (seconds >= 0) {
                return seconds;
            }
        } catch (const std::exception&) {
        }
        std::cerr << "Parsing the WAITFOR_DEFAULT env. variable failed" << std::flush;
        return infinity;
    }();
    return timeout;
}

// ---------------------------------------------------------------------------
// Emulated base operations
//
// libevent 2.1 keeps its timers in a private heap and offers neither "first
// timeout" nor "shift all timeouts". Both are built from its public surface:
// event_base_foreach_event visits every added event, struct event exposes the
// absolute expiry in the base's clock, and re-adding a pending timer with a
// relative delay moves it. This needs no private libevent build, at the cost
// of a walk over the base's events per fast-forward step; the loops that
// fast-forward hold few libevent timers (the timer wheel multiplexes many
// timers onto one). A persistent event with a timeout would take its shifted
// delay as its new period; the library arms none.

namespace Impl {

namespace {

struct PendingTimer {
    event* ev;
    timeval expiry;
    // Expired and waiting on the active queue: it has no expiry left to move.
    // A loop pass broken after an earlier callback (by the pass's own break
    // event or a handler's exception) leaves such timers behind.
    bool due;
};

// Every fast-forward step collects the timers twice; a loop that
// fast-forwards holds a handful, so they fit without an allocation.
using PendingTimers = boost::container::small_vector<PendingTimer, 16>;

int collectTimer(const event_base*, const event* ev, void* arg) {
    const short flags = ev->ev_evcallback.evcb_flags;
    const bool pending = flags & EVLIST_TIMEOUT;
    const bool due = (flags & EVLIST_ACTIVE) && (ev->ev_res & EV_TIMEOUT);
    if (pending || due) {
        static_cast<PendingTimers*>(arg)->push_back(
            {const_cast<event*>(ev), expiryOf(ev), !pending});
    }
    return 0;
}

void collectTimers(event_base* base, PendingTimers& timers) {
    event_base_foreach_event(base, collectTimer, &timers);
}

}  // namespace

int event_base_get_first_timeout(event_base* base, timeval* first) {
    PendingTimers timers;
    collectTimers(base, timers);
    if (timers.empty()) {
        return -1;
    }
    const PendingTimer* earliest = &timers.front();
    for (const PendingTimer& timer : timers) {
        if (timercmp(&timer.expiry, &earliest->expiry, <)) {
            earliest = &timer;
        }
    }
    *first = earliest->expiry;
    return 0;
}

int event_base_timeout_subtract_offset(event_base* base, const timeval* offset) {
    PendingTimers timers;
    collectTimers(base, timers);
    timers.erase(std::remove_if(timers.begin(), timers.end(),
                                [](const PendingTimer& timer) { return timer.due; }),
                 timers.end());
    // Timers of equal expiry keep the order the walk found them in, without
    // the buffer a stable sort would allocate: an insertion sort for the few
    // timers a fast-forwarding loop holds, a merge sort past that.
    const auto earlier = [](const PendingTimer& a, const PendingTimer& b) {
        return timercmp(&a.expiry, &b.expiry, <);
    };
    if (timers.size() <= 16) {
        for (auto it = timers.begin(); it != timers.end(); ++it) {
            std::rotate(std::upper_bound(timers.begin(), it, *it, earlier), it, it + 1);
        }
    } else {
        std::stable_sort(timers.begin(), timers.end(), earlier);
    }
    // event_add() stamps each timer with the base's clock as it reads it then,
    // which only moves forward: re-adding in expiry order against one earlier
    // reading keeps the order, and a timer can only end up later, never
    // earlier, than the exact shifted expiry. A timer already due gets a
    // negative delay (timersub keeps tv_usec in range), so that due timers
    // keep their order too instead of collapsing onto one instant.
    timeval now;
    event_base_now(base, &now);
    for (const PendingTimer& timer : timers) {
        const timeval relative = sub(sub(timer.expiry, *offset), now);
        if (event_add(timer.ev, &relative) != 0) {
            return -1;
        }
    }
    return 0;
}

void event_base_now(event_base* base, timeval* now) {
    event probe;
    event_assign(&probe, base, -1, 0, nullptr, nullptr);
    eventPrioritySet(&probe, Platform::eventPriorityDefault);
    const timeval zero = {0, 0};
    event_add(&probe, &zero);
    *now = expiryOf(&probe);
    event_del(&probe);
}

}  // namespace Impl

// ---------------------------------------------------------------------------
// Fast-forward

namespace {
// Registered from any thread, called on the main thread: a copy taken under
// the mutex is called outside it, so a notifier may register another.
struct Notifiers {
    std::mutex mutex;
    std::set<void (*)()> set;
};
Notifiers& notifiers() {
    static auto* notifiers = new Notifiers();
    return *notifiers;
}
}  // namespace

void setLeFastForward(bool enabled) {
    leInit();
    KELVO_ASSERT(mainThread, "FastForward invoked from non-main thread");
    if (enabled == isFastForward()) {
        return;
    }
    fastForward.store(enabled, std::memory_order_relaxed);
    std::set<void (*)()> toNotify;
    {
        std::lock_guard<std::mutex> guard(notifiers().mutex);
        toNotify = notifiers().set;
    }
    for (void (*notifier)() : toNotify) {
        notifier();
    }
}

bool leFastForward() noexcept {
    return isFastForward();
}

void leRegisterFastForwardChangeNotifier(void (*notifier)()) {
    std::lock_guard<std::mutex> guard(notifiers().mutex);
    notifiers().set.insert(notifier);
}

double leVirtualTimeOffset() noexcept {
    return static_cast<double>(virtualTimeOffset.tv_sec) +
           static_cast<double>(virtualTimeOffset.tv_usec) / 1e6;
}

timeval leVirtualTimeOffsetTimeval() noexcept {
    return virtualTimeOffset;
}

void applyFastForwardDelta(const timeval* delta) {
    KELVO_ASSERT(delta->tv_sec >= 0 && delta->tv_usec >= 0 && delta->tv_usec <= 999999,
                 "Virtual time cannot move by {}", *delta);
    leInit();
    const int rc = Impl::event_base_timeout_subtract_offset(ev_base, delta);
    KELVO_ASSERT(rc == 0, "event_base_timeout_subtract_offset failed rc {}", rc);
    virtualTimeOffset.tv_usec += delta->tv_usec;
    if (virtualTimeOffset.tv_usec > 999999) {
        virtualTimeOffset.tv_sec += 1;
        virtualTimeOffset.tv_usec -= 1000000;
    }
    virtualTimeOffset.tv_sec += delta->tv_sec;
    KELVO_TRACE(trace(), 2, "Increasing virtual time offset by {} to {}", *delta,
                virtualTimeOffset);
}

namespace {

bool delayToFirstTimer(timeval* delay) {
    leInit();
    timeval first;
    if (Impl::event_base_get_first_timeout(ev_base, &first) != 0) {
        KELVO_TRACE(trace(), 9, "no timers");
        return false;
    }
    timeval now;
    Impl::event_base_now(ev_base, &now);
    if (!timercmp(&first, &now, >)) {
        KELVO_TRACE(trace(), 9, "first timer expired at {} now {} return zero delta", first, now);
        *delay = {0, 0};
        return true;
    }
    const timeval delta = sub(first, now);
    *delay = add(delta, extraDelay);
    KELVO_TRACE(trace(), 9, "first timer will at {} now {} delta {} extraDelay {} return delta {}",
                first, now, delta, extraDelay, *delay);
    return true;
}

void stepToFirstTimer(double maxTimeout) {
    KELVO_TRACE(trace(), 5, "maxTimeout {}", maxTimeout);
    const timeval maximum = Impl::durationToTimeval(maxTimeout);
    timeval first;
    const bool hasTimer = delayToFirstTimer(&first);
    if (hasTimer && (isUnbounded(maxTimeout) || timercmp(&first, &maximum, <))) {
        eventLoopFastForward(&first);
    } else if (!isUnbounded(maxTimeout)) {
        eventLoopFastForward(&maximum);
    } else {
        // Nothing to skip to: only an event from outside can come.
        dispatch(ev_base, EVLOOP_ONCE);
    }
}

}  // namespace

bool fastForwardDelayToFirstTimer(timeval* delay) {
    KELVO_ASSERT(isFastForward(), "Called without fast forward enabled");
    return delayToFirstTimer(delay);
}

void eventLoopFastForward(const timeval* delta) {
    applyFastForwardDelta(delta);
    EvLoopBreak loopBreak({0, 0}, Platform::eventPriorityDefault);
    KELVO_TRACE(trace(), 8, "{} timeout {}", static_cast<void*>(loopBreak.breakEvent()),
                timeval{0, 0});
    dispatch(ev_base);
}

void eventLoopFastForwardToFirstTimer(double maxTimeout) {
    KELVO_ASSERT(isFastForward(), "Called without fastForward enabled");
    stepToFirstTimer(maxTimeout);
}

}  // namespace Kelvo
