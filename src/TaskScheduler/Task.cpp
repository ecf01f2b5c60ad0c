// Tasks: registration, run-queue membership, suspension, quanta, yield
// decisions and the live statistics counters.
#include <Kelvo/TaskSchedulerCpp.h>

#include <algorithm>
#include <exception>
#include <limits>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

namespace {

using Type = TaskSchedulerEventType;

std::shared_ptr<TaskScheduler> shareOf(TaskScheduler* scheduler) {
    return scheduler ? scheduler->shared_from_this() : nullptr;
}

TaskTimeDuration time2Duration(double t) {
    KELVO_SCHED_ASSERT(t >= 0 && "time2Duration() negative Time input");
    return TaskTimeDuration(static_cast<int64_t>(t * 1e9));
}

// Work counts are kept in 32 bits; anything larger is "as large as can be".
TaskMaybeU32 clampedU32(unsigned long n) {
    return TaskMaybeU32(
        static_cast<uint32_t>(std::min<unsigned long>(n, std::numeric_limits<uint32_t>::max())));
}

}  // namespace

// ---------------------------------------------------------------------------
// _TaskBase

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const String& name)
    : scheduler_(std::move(scheduler)), priority_(priority) {
    KELVO_SCHED_ASSERTM(scheduler_ != nullptr, "Need a TaskScheduler");
    ConstStringCache& names = scheduler_->history()->stringCache();
    taskName_ = names.intern(name);
    taskStatsName_ = names.intern(fmt::format("{} {}", priority.oneChar(), name));
    historyName_ = taskName_;
}

_TaskBase::_TaskBase(TaskScheduler* scheduler, TaskPriority priority, const String& name)
    : _TaskBase(shareOf(scheduler), priority, name) {}

_TaskBase::~_TaskBase() = default;

void _TaskBase::statsNameIs(const String& name) {
    taskStatsName_ = scheduler_->history()->stringCache().intern(name);
}

void _TaskBase::taskHistoryInsert(const TaskTimePoint& when, TaskSchedulerEventType type) const {
    scheduler_->history()->insert(when, type, this);
}

void _TaskBase::taskBusyIs(bool busy, const TaskTimePoint& when) {
    if (busy == busy_) {
        return;
    }
    busy_ = busy;
    taskHistoryInsert(when, busy ? Type::busy : Type::idle);
    handleTaskBusy();
}

// ---------------------------------------------------------------------------
// TaskImpl

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                   const String& name)
    : _TaskBase(std::move(scheduler), priority, name) {
    construct();
}

TaskImpl::TaskImpl(TaskScheduler* scheduler, TaskPriority priority, const String& name)
    : _TaskBase(scheduler, priority, name) {
    construct();
}

void TaskImpl::construct() {
    quantum_ = scheduler()->defaultTaskQuantum();
    magic_ = taskMagicNumberConstructed;
    includeInCompletedTaskIs(true);
    taskShouldYieldModeReevaluate();
    scheduler()->taskRegister(this);
}

TaskImpl::~TaskImpl() {
    taskForceYieldInTestIs(false);
    // A ratio inherited from the root leaves the scheduler's set here too.
    if (effectiveTestYieldRatio_ != 0) {
        effectiveTestYieldRatioIs(0);
    }
    unscheduleTask();
    // handleDestroy() may have unregistered the task already.
    if (taskRegisteredLink_.isLinked()) {
        scheduler()->taskUnregister(this);
    }
    magic_ = taskMagicNumberDestroyed;
}

void TaskImpl::handleDestroy() {
    unscheduleTask();
    scheduler()->taskUnregister(this);
    magic_ = taskMagicNumberDestroyed;
}

void TaskImpl::taskStatsNameIs(const String& name) {
    statsNameIs(name);
}

void TaskImpl::scheduleTask() {
    TaskScheduler& s = *scheduler();
    s.root()->sanityCheckCurrentRunningThread();
    if (taskOnRunQueue()) {
        return;
    }
    const TaskTimePoint now = s.root()->scheduleStamp();
    if (taskSuspended()) {
        taskHistoryInsert(now, Type::scheduleSus);
        return;
    }
    // Recorded straight into the ring (a task event needs no kind check),
    // and the unchanged states tested here: this runs once per task run.
    s.history_->insert(now, Type::schedule, taskHistoryName());
    s.runQueueAppend(*this, now);
    if (!s.schedulerHasRunnableTasks()) {
        s.schedulerHasRunnableTasksIs(true, now);
    }
    if (!taskBusy()) {
        taskBusyIs(true, now);
    }
}

void TaskImpl::unscheduleTask() {
    TaskScheduler& s = *scheduler();
    s.sanityCheckCurrentRunningThread();
    const TaskTimePoint now = s.steadyNow();
    if (taskOnRunQueue()) {
        s.runQueueUnlink(*this, now);
        taskHistoryInsert(now, Type::unschedule);
        KELVO_TRACEM(Impl::schedulerTrace(), 8, "Unscheduled {}", *this);
    }
    taskBusyIs(taskScheduled(), now);
}

void TaskImpl::taskRunFromTest() {
    TaskScheduler& s = *scheduler();
    s.sanityCheckCurrentRunningThread();
    KELVO_SCHED_ASSERTM(!taskOnRunQueue(), "Task: {} is on a run queue", *this);
    // Held like the run loop holds a task, so a task may drop its owner's
    // reference inside its run.
    const std::shared_ptr<_TaskBase> self = runReference();
    s.taskDoRun(*this, s.steadyNow());
}

TaskStat::TaskStatus TaskImpl::taskStatus() const {
    TaskStat::TaskStatus status;
    status.taskOnRunQueueIs(taskOnRunQueue());
    status.taskCurrentlyRunningIs(currentlyRunning_);
    status.taskSuspendedIs(taskSuspended());
    status.taskIsTaskGroupIs(isTaskGroup() != nullptr);
    return status;
}

void TaskImpl::taskSuspendedIs(bool suspended) {
    if (suspended == taskSuspended()) {
        return;
    }
    const TaskTimePoint now = scheduler()->steadyNow();
    if (suspended) {
        flags_ |= suspendedFlag;
        KELVO_TRACEM(Impl::schedulerTrace(), 1, "Suspend {}", *this);
        taskHistoryInsert(now, Type::suspendOn);
        unscheduleTask();
    } else {
        flags_ &= ~suspendedFlag;
        KELVO_TRACEM(Impl::schedulerTrace(), 1, "Unsuspend {}", *this);
        taskHistoryInsert(now, Type::suspendOff);
        if (!taskScheduled()) {
            scheduleTask();
        }
    }
}

void TaskImpl::taskQuantumIs(TaskTimeDuration quantum) {
    KELVO_SCHED_ASSERTM(quantum <= maxTaskQuantum, "Quantum: {}", quantum);
    taskQuantumNoCheckIs(quantum);
}

void TaskImpl::taskQuantumNoCheckIs(TaskTimeDuration quantum) {
    KELVO_SCHED_ASSERTM(quantum >= TaskTimeDuration(1), "Quantum: {}", quantum);
    quantum_ = quantum;
    KELVO_TRACEM(Impl::schedulerTrace(), quantum == scheduler()->defaultTaskQuantum() ? 9 : 4,
                 "Set quantum {} to {}", *this, quantum);
}

TaskTimeDuration TaskImpl::taskCurrentRunTime() const {
    KELVO_SCHED_ASSERTM(currentlyRunning_, "Task: {} is not running", *this);
    if (yieldMode_ == virtualTime) {
        return time2Duration(Kelvo::time() - scheduler()->root()->virtualRunStart());
    }
    return scheduler()->steadyNow() - runStart_;
}

bool TaskImpl::taskShouldYield() const {
    KELVO_SCHED_ASSERTM(currentlyRunning_ || runCount_ == 0,
                        "taskCurrentlyRunning: {} taskRunCount: {}", currentlyRunning_, runCount_);
    switch (yieldMode_) {
        case realTime: {
            const TaskTimePoint now = scheduler()->steadyNow();
            // A clock read before the run began can only be a clock problem:
            // yielding is the safe answer.
            return now < runStart_ || now - runStart_ >= quantum_;
        }
        case virtualTime:
            return Kelvo::time() - scheduler()->root()->virtualRunStart() >=
                   static_cast<double>(quantum_.count()) / 1e9;
        case testYieldRatio:
            ++yieldCounter_;
            return yieldCounter_ % effectiveTestYieldRatio_ == 0;
        default:
            KELVO_SCHED_ASSERTM(false, "Unexpected value {}", static_cast<int>(yieldMode_));
            return true;
    }
}

void TaskImpl::taskTestYieldRatioIs(uint8_t ratio) {
    if (ratio == testYieldRatio_) {
        return;
    }
    testYieldRatio_ = ratio;
    taskHistoryInsert(scheduler()->steadyNow(), ratio ? Type::frcYieldOn : Type::frcYieldOff);
    taskShouldYieldModeReevaluate();
}

void TaskImpl::effectiveTestYieldRatioIs(uint8_t ratio) {
    yieldCounter_ = 0;
    const bool wasOn = effectiveTestYieldRatio_ != 0;
    effectiveTestYieldRatio_ = ratio;
    if (wasOn != (ratio != 0)) {
        scheduler()->taskForceYieldInTestNotify(this, ratio != 0);
    }
}

void TaskImpl::taskShouldYieldModeReevaluate() {
    const TaskSchedulerRoot& root = *scheduler()->root();
    const uint8_t ratio = testYieldRatio_ ? testYieldRatio_ : root.taskTestYieldRatio();
    effectiveTestYieldRatioIs(ratio);
    const uint8_t mode = ratio ? testYieldRatio : root.virtualTime() ? virtualTime : realTime;
    if (mode == virtualTime && yieldMode_ != virtualTime && currentlyRunning_) {
        scheduler()->root()->virtualRunStartIs(Kelvo::time());
    }
    yieldMode_ = mode;
}

std::shared_ptr<_TaskBase> TaskImpl::runReference() {
    if (flags_ & sharedOwnedFlag) {
        try {
            // One atomic step where a weak reference's lock() takes three.
            return shared_from_this();
        } catch (const std::bad_weak_ptr&) {
            // Its owners let it go but it lives on (a deleter that does not
            // delete): it is no longer held by anyone to hold it for.
            flags_ &= ~sharedOwnedFlag;
            return nullptr;
        }
    }
    std::shared_ptr<_TaskBase> self = weak_from_this().lock();
    if (self) {
        // A shared object stays shared for as long as it lives.
        flags_ |= sharedOwnedFlag;
    }
    return self;
}

void TaskImpl::includeInCompletedTaskIs(bool include) noexcept {
    flags_ = include ? uint8_t(flags_ | includeInCompletedFlag)
                     : uint8_t(flags_ & ~includeInCompletedFlag);
}

// ---------------------------------------------------------------------------
// Statistics

void TaskImpl::taskWorkCountInc(unsigned long n) {
    workCountTotal_ += n;
    if (!workCountHighWater_.isSet()) {
        workCountDecayingAvg_ = static_cast<float>(n);
        workCountHighWater_ = clampedU32(n);
        return;
    }
    workCountDecayingAvg_ = (9.0f * workCountDecayingAvg_ + static_cast<float>(n)) / 10.0f;
    if (n > workCountHighWater_.valueOrZero()) {
        workCountHighWater_ = clampedU32(n);
    }
}

void TaskImpl::taskWorkPendingIs(unsigned n) {
    workPending_ = n;
    if (!workPendingHighWater_.isSet() || n > workPendingHighWater_.valueOrZero()) {
        workPendingHighWater_ = TaskMaybeU32(n);
    }
}

TaskStat TaskImpl::getStats() const {
    return TaskStat(taskNameRef(), TaskKey(this), taskPriority(), runCount_, totalRunTime_,
                    workCountTotal_, workCountDecayingAvg_, workCountHighWater_, workPending_,
                    workPendingHighWater_, quantumViolation500_, quantumViolation200_,
                    runTimeHighWaterMark_, lastSchedulingLatency_, schedulingLatencyHighWaterMark_,
                    taskStatus());
}

void TaskImpl::resetStats() {
    lastSchedulingLatency_ = schedulingLatencyHighWaterMark_ = TaskTimeDuration(0);
    totalRunTime_ = runTimeHighWaterMark_ = TaskTimeDuration(0);
    workCountTotal_ = 0;
    quantumViolation500_ = quantumViolation200_ = 0;
    runCount_ = 0;
    workPending_ = 0;
    workCountDecayingAvg_ = 0.0f;
    workCountHighWater_ = TaskMaybeU32();
    workPendingHighWater_ = TaskMaybeU32();
    handleResetStats();
}

}  // namespace Kelvo
