// Timer tasks: a task queued by one event of its root's timer wheel.
//
// Invariant: a timer task is never on a run queue while its timer runs.
// Every path that queues it stops the timer first, and every path that
// starts the timer with force takes it off the queue first; without force
// (lowest delay) a queued task is left as it is.
#include <Kelvo/TaskSchedulerCpp.h>
#include <Kelvo/TimerWheelCpp.h>

#include <cmath>
#include <limits>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

namespace {

using Type = TaskSchedulerEventType;

constexpr double infinity = std::numeric_limits<double>::infinity();

double seconds(TaskTimeDuration delay) {
    return static_cast<double>(delay.count()) / 1e9;
}

// Nanoseconds as a duration, saturating at never (a jittered delay near
// never can pass it).
TaskTimeDuration durationOf(double ns) {
    return ns >= 9.2e18 ? TimerTask::never : TaskTimeDuration(static_cast<int64_t>(ns));
}

}  // namespace

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const String& name)
    : TaskImpl(std::move(scheduler), priority, name) {}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, const String& name)
    : TaskImpl(scheduler, priority, name) {}

TimerTask::~TimerTask() {
    // The wheel must not keep an event that is about to go; TaskImpl's
    // destructor takes care of the run queue.
    if (timerRunning_) {
        wheel().timerStop(this);
        timerRunning_ = false;
    }
}

TimerWheel& TimerTask::wheel() const {
    return *scheduler()->root()->timerWheel();
}

bool TimerTask::timerStop() {
    if (!timerRunning_) {
        return false;
    }
    KELVO_TRACEM(Impl::schedulerTrace(), 9, "Timer stopped {}, was running", *this);
    taskHistoryInsert(scheduler()->steadyNow(), Type::timerStop);
    wheel().timerStop(this);
    timerRunning_ = false;
    return true;
}

void TimerTask::timeout() {
    timerRunning_ = false;
    TaskImpl::scheduleTask();
    // Suspended, so not queued: with the timer gone it is idle.
    if (!taskOnRunQueue()) {
        taskBusyIs(false, scheduler()->steadyNow());
    }
}

void TimerTask::scheduleTask() {
    scheduler()->sanityCheckCurrentRunningThread();
    const bool stopped = timerStop();
    TaskImpl::scheduleTask();
    // A suspended task is not queued: with its timer gone it is idle.
    if (stopped && !taskOnRunQueue()) {
        taskBusyIs(false, scheduler()->steadyNow());
    }
}

void TimerTask::taskRunFromTest() {
    scheduler()->sanityCheckCurrentRunningThread();
    timerStop();
    TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
    TaskStat::TaskStatus status = TaskImpl::taskStatus();
    status.taskTimerIs(true);
    status.taskTimerRunningIs(timerRunning_);
    return status;
}

void TimerTask::stopTimerTask() {
    scheduler()->sanityCheckCurrentRunningThread();
    if (!timerStop()) {
        KELVO_TRACEM(Impl::schedulerTrace(), 9, "Timer stopped {}, was not running", *this);
    }
    // Takes the task off its queue and records the busy state.
    unscheduleTask();
}

double TimerTask::currentExpirationTime() const {
    if (taskOnRunQueue()) {
        return Kelvo::time();
    }
    return timerRunning_ ? expirationTime : infinity;
}

// ---------------------------------------------------------------------------
// Delays

void TimerTask::scheduleTaskDelay(TaskTimeDuration delay) {
    scheduler()->sanityCheckCurrentRunningThread();
    if (delay == never) {
        stopTimerTask();
        return;
    }
    scheduleAfter(seconds(delay), true);
}

void TimerTask::scheduleTaskDelay(double delay) {
    scheduler()->sanityCheckCurrentRunningThread();
    if (delay == infinity) {
        stopTimerTask();
        return;
    }
    scheduleAfter(delay, true);
}

void TimerTask::scheduleTaskLowestDelay(TaskTimeDuration delay) {
    scheduler()->sanityCheckCurrentRunningThread();
    KELVO_SCHED_ASSERTM(delay != never, "delayIntoFuture: {}", delay);
    scheduleAfter(seconds(delay), false);
}

void TimerTask::scheduleTaskLowestDelay(double delay) {
    scheduler()->sanityCheckCurrentRunningThread();
    scheduleAfter(delay, false);
}

void TimerTask::scheduleAfter(double delay, bool force) {
    if (delay == 0.0) {
        scheduleTask();
        return;
    }
    const TaskTimePoint now = scheduler()->steadyNow();
    if (taskOnRunQueue()) {
        if (!force) {
            KELVO_TRACEM(Impl::schedulerTrace(), 8, "Already on runQueue {}", *this);
            return;
        }
        unscheduleTask();
    }
    // remainingTimeout() is +infinity while no timer runs, so without force
    // an idle timer always starts (unless the delay is never).
    if (force || delay < remainingTimeout()) {
        wheel().timerStart(this, delay);
        timerRunning_ = true;
        KELVO_TRACEM(Impl::schedulerTrace(), 8, "Timer started {} delay {}", *this, delay);
        taskHistoryInsert(now, Type::timerStart);
        taskBusyIs(true, now);
        return;
    }
    KELVO_TRACEM(Impl::schedulerTrace(), 8, "Timer already running {} expire {}", *this,
                 expirationTime);
    KELVO_SCHED_ASSERTM(timerRunning_, "Task: {}", *this);
}

// ---------------------------------------------------------------------------
// Jitter

double TimerTask::jitterOffset(double delay, uint8_t percentage) {
    // The percentage is written as the raw byte, not its digits.
    KELVO_SCHED_ASSERTM(percentage <= 100, "maxJitterPercentage: {} > 100",
                        static_cast<char>(percentage));
    const unsigned r = scheduler()->root()->randomPercent();
    const double offset = r * (percentage * delay) / 10000.0;
    KELVO_SCHED_ASSERTM(offset <= delay, "offset( {} ) > delayIntoFuture( {} )", offset, delay);
    return offset;
}

void TimerTask::scheduleJitter(TaskTimeDuration delay, uint8_t percentage, bool up) {
    scheduler()->sanityCheckCurrentRunningThread();
    if (delay == never) {
        stopTimerTask();
        return;
    }
    // In doubles, like the seconds form: the same bounds, and no overflow
    // for delays near never.
    const double ns = static_cast<double>(delay.count());
    const double offset = jitterOffset(ns, percentage);
    const double result = up ? ns + offset : ns - offset;
    if (up) {
        KELVO_TRACEM(Impl::schedulerTrace(), 9, "Timer jitterUp {} delay {} + {} = {}", *this,
                     delay, durationOf(offset), durationOf(result));
    } else {
        KELVO_TRACEM(Impl::schedulerTrace(), 9, "Timer jitterDown {} delay {} - {} = {}", *this,
                     delay, durationOf(offset), durationOf(result));
    }
    scheduleAfter(result / 1e9, true);
}

void TimerTask::scheduleJitter(double delay, uint8_t percentage, bool up) {
    scheduler()->sanityCheckCurrentRunningThread();
    if (delay == infinity) {
        stopTimerTask();
        return;
    }
    const double offset = jitterOffset(delay, percentage);
    const double result = up ? delay + offset : delay - offset;
    if (up) {
        KELVO_TRACEM(Impl::schedulerTrace(), 9, "Timer jitterUp {} delay {} + {} = {}", *this,
                     delay, offset, result);
    } else {
        KELVO_TRACEM(Impl::schedulerTrace(), 9, "Timer jitterDown {} delay {} - {} = {}", *this,
                     delay, offset, result);
    }
    scheduleAfter(result, true);
}

void TimerTask::scheduleTaskJitterUp(TaskTimeDuration delay, uint8_t maxJitterPercentage) {
    scheduleJitter(delay, maxJitterPercentage, true);
}

void TimerTask::scheduleTaskJitterUp(double delay, uint8_t maxJitterPercentage) {
    scheduleJitter(delay, maxJitterPercentage, true);
}

void TimerTask::scheduleTaskJitterDown(TaskTimeDuration delay, uint8_t maxJitterPercentage) {
    scheduleJitter(delay, maxJitterPercentage, false);
}

void TimerTask::scheduleTaskJitterDown(double delay, uint8_t maxJitterPercentage) {
    scheduleJitter(delay, maxJitterPercentage, false);
}

}  // namespace Kelvo
