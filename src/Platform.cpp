// The event interfaces' defaults, the control factories and loop entry points.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/LibeventFactoryCpp.h>
#include <Kelvo/PlatformCpp.h>

#include <time.h>

#include <cmath>

namespace Kelvo {

double time() noexcept {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 +
           leVirtualTimeOffset();
}

namespace Platform {

const char* eventPriorityToString(EventPriority priority) noexcept {
    switch (priority) {
        case eventPriorityStrictHigh:
            return "eventPriorityStrictHigh";
        case eventPriorityDefault:
            return "eventPriorityDefault";
    }
    return "";
}

TimeoutHandler::~TimeoutHandler() = default;
bool TimeoutHandler::handleTimeoutException() {
    return false;
}

CallbackHandler::~CallbackHandler() = default;
bool CallbackHandler::handleCallbackException() {
    return false;
}

FdEventHandler::~FdEventHandler() = default;
bool FdEventHandler::handleFdException(int) {
    return false;
}

TimerControl::~TimerControl() = default;
CallbackControl::~CallbackControl() = default;
FdControl::~FdControl() = default;

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler) {
    return getLeTimerControl(handler);
}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority) {
    return getLeTimerControl(handler, priority);
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) {
    return getLeCallbackControl(handler);
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler) {
    return getLeFdControl(handler);
}

void doEventLoop() {
    doLeEventLoop();
}
void doEventLoop(double seconds) {
    doLeEventLoop(seconds);
}
void doEventLoopInWaitfor(double seconds) {
    doLeEventLoopInWaitfor(seconds);
}

void setFastForward(bool enabled) {
    setLeFastForward(enabled);
}
bool fastForward() noexcept {
    return leFastForward();
}

// Virtual time only grows: a negative or NaN advance moves nothing, and an
// infinite one would leave no finite time to run anything at.
void fastForwardBy(double seconds) {
    KELVO_ASSERT(leFastForward(), "fast-forwarding disabled");
    KELVO_ASSERT(std::isfinite(seconds) || !(seconds > 0),
                 "fastForwardBy({}): virtual time cannot become infinite", seconds);
    if (!(seconds > 0)) {
        return;
    }
    const timeval delta = Impl::durationToTimeval(seconds);
    applyFastForwardDelta(&delta);
}

void registerFastForwardChangeNotifier(void (*notifier)()) {
    leRegisterFastForwardChangeNotifier(notifier);
}

}  // namespace Platform
}  // namespace Kelvo
