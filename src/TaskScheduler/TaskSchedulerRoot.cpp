// The root scheduler: its event-loop callback, thread check, switches,
// history access, and the per-thread root.
#include <Kelvo/TaskSchedulerCpp.h>
#include <Kelvo/ThreadCpp.h>
#include <Kelvo/TimerWheelCpp.h>

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

namespace {
using Type = TaskSchedulerEventType;
}  // namespace

std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRoot::TaskSchedulerRootIs(const String& name) {
    return allocateShared<TaskSchedulerRoot>(name);
}

TaskSchedulerRoot::TaskSchedulerRoot(const String& name)
    : TaskScheduler(name, this, allocateShared<TaskSchedulerHistory>(defaultHistoryEntryCount)),
      callbackControl_(Platform::getCallbackControl(this)),
      timerWheel_(getTimerWheelForTaskScheduler(Platform::eventPriorityDefault)),
      ownerThread_(static_cast<unsigned long>(pthread_self())),
      ownerPid_(::getpid()),
      isMainThread_(Kelvo::isMainThread()) {
    if (pthread_getname_np(pthread_self(), ownerThreadName_, sizeof ownerThreadName_) != 0) {
        ownerThreadName_[0] = '\0';
    }
    registerScheduler(this);
    if (isMainThread_ && Platform::fastForward() != virtualTime_) {
        virtualTimeIs(Platform::fastForward());
    }
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
    // The reset task's unschedule and unregister use the root's own members.
    dropResetTask();
    unregisterScheduler(this);
}

bool TaskSchedulerRoot::resetStatsInProgress() const {
    for (const TaskScheduler* scheduler : schedulers_) {
        if (scheduler->TaskScheduler::resetStatsInProgress()) {
            return true;
        }
    }
    return false;
}

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
    schedulers_.insert(scheduler);
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
    schedulers_.erase(scheduler);
}

// ---------------------------------------------------------------------------
// Running

void TaskSchedulerRoot::requestSchedulerRun() {
    if (suspended_) {
        KELVO_TRACEM(Impl::schedulerTrace(), 8,
                     "{} ignore requestSchedulerRun, scheduler is suspended", *this);
        return;
    }
    callbackControl_->requestCallback();
}

void TaskSchedulerRoot::handleSchedulerRun() {
    if (isMainThread_) {
        const bool fastForward = Platform::fastForward();
        if (fastForward != virtualTime_) {
            virtualTimeIs(fastForward);
        }
    }
    TaskScheduler::handleSchedulerRun();
}

void TaskSchedulerRoot::callback() {
    if (runsPerCallback_ == 1) {
        handleSchedulerRun();
        return;
    }
    if (isMainThread_ && Platform::fastForward() != virtualTime_) {
        virtualTimeIs(Platform::fastForward());
    }
    // Each run of the batch starts at the previous one's end, and tasks
    // queued during a run are stamped with its start: one clock read a run.
    struct BatchScope {
        bool& inBatch;
        explicit BatchScope(bool& flag) : inBatch(flag) { inBatch = true; }
        ~BatchScope() { inBatch = false; }
    } scope(inBatch_);
    runBatch(runsPerCallback_);
}

void TaskSchedulerRoot::runsPerCallbackIs(unsigned n) {
    KELVO_SCHED_ASSERTM(n >= 1, "runsPerCallback: {}", n);
    runsPerCallback_ = n;
}

// ---------------------------------------------------------------------------
// Switches

void TaskSchedulerRoot::suspendedIs(bool suspended) {
    if (suspended == suspended_) {
        return;
    }
    suspended_ = suspended;
    const TaskTimePoint now = steadyNow();
    if (suspended) {
        history()->insert(now, Type::schedulerSuspended, this);
        return;
    }
    history()->insert(now, Type::schedulerUnsuspended, this);
    requestRunAfter(now);
}

void TaskSchedulerRoot::virtualTimeIs(bool virtualTime) {
    virtualTime_ = virtualTime;
    history()->insert(steadyNow(),
                      virtualTime ? Type::schedulerVirtualTimeOn : Type::schedulerVirtualTimeOff,
                      this);
    for (TaskScheduler* scheduler : schedulers_) {
        scheduler->taskShouldYieldModeReevaluateAll();
    }
}

void TaskSchedulerRoot::taskTestYieldRatioIs(uint8_t ratio) {
    if (ratio == testYieldRatio_) {
        return;
    }
    testYieldRatio_ = ratio;
    history()->insert(steadyNow(),
                      ratio ? Type::schedulerTestYieldRatioOn : Type::schedulerTestYieldRatioOff,
                      this);
    for (TaskScheduler* scheduler : schedulers_) {
        scheduler->taskShouldYieldModeReevaluateAll();
    }
}

unsigned TaskSchedulerRoot::randomPercent() {
    return static_cast<unsigned>(rand_r(&seed_) / 21474836);
}

void TaskSchedulerRoot::sanityCheckOtherThread() const {
    const unsigned long self = static_cast<unsigned long>(pthread_self());
    if (threadSanityDisabled_ || auxiliaryThreadsRegistered()) {
        return;
    }
    // A forked child runs on a copy of the owner thread's state: it passes.
    const pid_t pid = ::getpid();
    KELVO_SCHED_ASSERTM(pid != ownerPid_,
                        "Executing in wrong thread {}({}) pid {} scheduler belongs to thread "
                        "{}({}) pid {}",
                        self, threadName(), pid, ownerThread_, ownerThreadName_, ownerPid_);
}

// ---------------------------------------------------------------------------
// History

unsigned TaskSchedulerRoot::historyEntryCount() const noexcept {
    return history()->capacity();
}

void TaskSchedulerRoot::historyEntryCountIs(unsigned n) {
    history()->capacityIs(n);
}

void TaskSchedulerRoot::clearHistory() {
    history()->clear();
    KELVO_TRACEM(Impl::schedulerTrace(), 4, "{} history cleared", *this);
}

void TaskSchedulerRoot::historyRenderTextForDebug(std::ostream& out) const {
    history()->renderText(out);
}

void TaskSchedulerRoot::historyRenderTextForDebug(int fd) const {
    FdToStream out(fd, false);
    history()->renderText(out);
}

String TaskSchedulerRoot::historyRenderTextForDebugToString() const {
    std::ostringstream out;
    history()->renderText(out);
    return out.str();
}

void TaskSchedulerRoot::historyRenderTextForDebugStdErr() const {
    history()->renderText(std::cerr);
}

// ---------------------------------------------------------------------------
// Per-thread roots

const std::shared_ptr<TaskSchedulerRoot>& schedulerRootKelvo() {
    // Constructing the root creates the thread's loop base first, so the
    // base's own thread-local holder is destroyed after this one.
    thread_local const std::shared_ptr<TaskSchedulerRoot> root =
        TaskSchedulerRoot::TaskSchedulerRootIs(isMainThread() ? String("main")
                                                              : fmt::format("thread:{}", gettid()));
    return root;
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootKelvoNonShared(const String& name) {
    return TaskSchedulerRoot::TaskSchedulerRootIs(name);
}

}  // namespace Kelvo
