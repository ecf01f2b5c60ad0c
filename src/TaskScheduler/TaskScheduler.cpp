// The run queues, the run of one task, registration and the scheduler-wide
// statistics. The numbered invariants are those of TaskSchedulerCpp.h.
#include <Kelvo/TaskSchedulerCpp.h>

#include <cstdio>
#include <cstdlib>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

namespace {

using Type = TaskSchedulerEventType;

// Anti-starvation weights of the queues that may be given a turn.
constexpr uint64_t bumpWeight[TaskPriority::oneBeyondLast] = {0, 64, 8, 1, 0};

// attemptLowerPriorityBump() for queue p (valid) picked n times in a row; here
// for the pick, which runs it on every run, inline.
[[gnu::always_inline]] inline bool lowerPriorityBumpDue(const TaskRunQueues& queues, unsigned p,
                                                        uint64_t n) {
    if (p != TaskPriority::high && p != TaskPriority::normal) {
        return false;
    }
    // Queue lengths read directly: the counts of valid priorities need none
    // of runnableTaskCount()'s checks.
    const auto queued = [&queues](unsigned q) { return queues[q].enqueued - queues[q].dequeued; };
    uint64_t lowerWeight = 0;
    for (unsigned q = p + 1; q <= TaskPriority::low; ++q) {
        lowerWeight += queued(q) * bumpWeight[q];
    }
    return lowerWeight != 0 && n * lowerWeight > queued(p) * bumpWeight[p];
}

}  // namespace

namespace Impl {

void schedulerHardAssertFail(const String& text) noexcept {
    std::fprintf(stderr, "TaskSchedulerCpp: %s\n", text.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace Impl

// Resets the statistics of a scheduler's tasks a few per run (see resetStats).
// Unlike other tasks it does not own a share of its scheduler: the scheduler
// owns it (resetTask_), and an owning share back would keep a scheduler whose
// reset is still under way alive for ever. The scheduler outlives it because
// it drops the task in its destructor, and runs it only from its own run loop.
class TaskScheduler::ResetStatsTask : public Task {
  public:
    explicit ResetStatsTask(TaskScheduler* scheduler)
        : Task(std::shared_ptr<TaskScheduler>(std::shared_ptr<TaskScheduler>(), scheduler),
               TaskPriority::normal, scheduler->name() + ";ResetStats") {
        includeInCompletedTaskIs(false);
    }
    void taskExecute() override { scheduler()->handleResetStatsTaskRun(*this); }
};

TaskScheduler::TaskScheduler(const String& name, TaskSchedulerRoot* root,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : root_(root), history_(std::move(history)) {
    name_ = history_->stringCache().intern(name);
}

TaskScheduler::~TaskScheduler() {
    dropResetTask();
    // The name lives in the history's cache, which may go with history_.
    completedTaskStats_.clear();
    name_.release();
}

void TaskScheduler::dropResetTask() {
    if (resetTask_) {
        resetTask_.reset();  // unschedules and unregisters it
        resetBookmark_.unlink();
    }
}

bool TaskScheduler::resetStatsInProgress() const {
    return resetTask_ && resetTask_->taskScheduled();
}

TaskRunQueue& TaskScheduler::queueOf(TaskPriority priority) {
    KELVO_SCHED_ASSERTM(priority.valid(), "Priority: {} out of range", priority);
    return runQueues_[priority.value()];
}

const TaskRunQueue& TaskScheduler::runQueue(TaskPriority priority) const {
    return const_cast<TaskScheduler*>(this)->queueOf(priority);
}

// ---------------------------------------------------------------------------
// Registration

void TaskScheduler::taskRegister(TaskImpl* task) {
    sanityCheckCurrentRunningThread();
    KELVO_SCHED_ASSERTM(task->taskPriority().valid(), "Task: {} priority: {}", *task,
                        task->taskPriority());
    KELVO_TRACEM(Impl::schedulerTrace(), 4, "{} Register {}", *this, *task);
    KELVO_SCHED_ASSERTM(!task->taskRegisteredLink_.isLinked(), "Task: {} already registered",
                        *task);
    registry_.pushFront(*task);
    ++tasksPerPriority_[task->taskPriority().value()];
    task->taskHistoryInsert(steadyNow(), Type::create);
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
    sanityCheckCurrentRunningThread();
    KELVO_TRACEM(Impl::schedulerTrace(), 4, "{} Unregister {}", *this, *task);
    KELVO_SCHED_ASSERTM(!task->taskScheduled(), "Task: {} scheduled on unregister", *task);
    KELVO_SCHED_ASSERTM(task->taskRegisteredLink_.isLinked(), "Task: {} not registered", *task);
    updateCompletedTaskStats(task);
    TaskRegistry::remove(*task);
    task->taskHistoryInsert(steadyNow(), Type::del);
}

// ---------------------------------------------------------------------------
// Run queues

void TaskScheduler::runQueueUnlink(TaskImpl& task, const TaskTimePoint& now) {
    KELVO_SCHED_ASSERTM(task.taskScheduled(), "Task: {} not on run queue", task);
    TaskRunQueue& queue = queueOf(task.taskPriority());
    task.doUpdateSchedulingLatency(now);
    TaskRunQueueList::remove(task);
    --queue.enqueued;
}

uint32_t TaskScheduler::runnableTaskCount(TaskPriority priority) const {
    if (!priority.valid()) {
        Impl::schedulerHardAssertFail(fmt::format("{}", priority));
    }
    const TaskRunQueue& queue = runQueues_[priority.value()];
    const int64_t runnable = static_cast<int64_t>(queue.enqueued - queue.dequeued);
    KELVO_SCHED_ASSERTM(runnable >= 0, "Priority: {} runnableTasks: {}", priority, runnable);
    return static_cast<uint32_t>(runnable);
}

uint32_t TaskScheduler::runnableTaskCount() const {
    uint32_t count = 0;
    for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
        count += runnableTaskCount(TaskPriority(p));
    }
    return count;
}

uint32_t TaskScheduler::runTaskCount(TaskPriority priority) const {
    if (!priority.valid()) {
        Impl::schedulerHardAssertFail(fmt::format("{}", priority));
    }
    return static_cast<uint32_t>(runQueues_[priority.value()].dequeued -
                                 runCountAtClear_[priority.value()]);
}

uint32_t TaskScheduler::tasksPerPriority(TaskPriority priority) const {
    KELVO_SCHED_ASSERTM(priority.valid(), "Priority: {} out of range", priority);
    return tasksPerPriority_[priority.value()];
}

uint32_t TaskScheduler::completedTasksPerPriority(TaskPriority priority) const {
    KELVO_SCHED_ASSERTM(priority.valid(), "Priority: {} out of range", priority);
    return completedTasksPerPriority_[priority.value()];
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
    TaskSchedulerQueueStats stats;
    for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
        const TaskPriority priority(p);
        TaskSchedulerPriorityStats entry;
        entry.priority = priority;
        entry.runnableTasks = runnableTaskCount(priority);
        entry.idleTasks = tasksPerPriority(priority) - entry.runnableTasks;
        entry.completedTasks = completedTasksPerPriority(priority);
        entry.totalRunCount = runTaskCount(priority);
        if (!stats.emplace(priority, entry).second) {
            Impl::schedulerHardAssertFail(fmt::format("Priority: {} insert failed", priority));
        }
    }
    return stats;
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority p, uint32_t n) const {
    return lowerPriorityBumpDue(runQueues_, p.value(), n);
}

TaskImpl* TaskScheduler::pickOneTask(const TaskTimePoint& now, TaskPriority priority) {
    return pick(now, priority.value());
}

// Inline in the run path: a call's register saves cost a fifth of the pick.
[[gnu::always_inline]] inline TaskImpl* TaskScheduler::pick(const TaskTimePoint& now,
                                                            unsigned first) {
    // The weighted rule without recursion: a queue whose turn goes to the
    // queues below it is noted, and the search goes on below. The queue
    // that gives the task resets the counters of those that gave way to it;
    // when nothing below can be picked, the lowest of them takes its turn.
    TaskRunQueue* gaveWay[TaskPriority::oneBeyondLast];
    unsigned gaveWayCount = 0;
    TaskRunQueue* picked = nullptr;
    for (unsigned p = first; p <= TaskPriority::scavenge; ++p) {
        TaskRunQueue& queue = runQueues_[p];
        if (queue.active->empty()) {
            queue.consecutivePicks = 0;
        } else if (lowerPriorityBumpDue(runQueues_, p, queue.consecutivePicks)) {
            gaveWay[gaveWayCount++] = &queue;
        } else {
            picked = &queue;
            break;
        }
    }
    if (picked == nullptr) {
        if (gaveWayCount == 0) {
            return nullptr;
        }
        picked = gaveWay[--gaveWayCount];
    }
    for (unsigned i = 0; i < gaveWayCount; ++i) {
        gaveWay[i]->consecutivePicks = 0;
    }
    ++picked->consecutivePicks;
    TaskImpl& task = picked->active->front();
    task.doUpdateSchedulingLatency(now);
    TaskRunQueueList::remove(task);
    ++picked->dequeued;
    return &task;
}

void TaskScheduler::taskRunQueuesMovePersistentToTemporary() {
    for (TaskRunQueue& queue : runQueues_) {
        KELVO_SCHED_ASSERTM(queue.temporary.empty(),
                            "The temporary run queue should always be empty at this point");
        while (!queue.persistent.empty()) {
            queue.temporary.pushBack(queue.persistent.popFront());
        }
        queue.active = &queue.temporary;
    }
}

void TaskScheduler::taskRunQueuesMoveTemporaryToPersistent() {
    for (TaskRunQueue& queue : runQueues_) {
        // Ahead of the tasks queued meanwhile, in their old order.
        const TaskRunQueueList::ConstIterator first = queue.persistent.begin();
        while (!queue.temporary.empty()) {
            queue.persistent.insertBefore(first, queue.temporary.popFront());
        }
        KELVO_SCHED_ASSERTM(queue.temporary.empty(),
                            "The temporary run queue should always be empty at this point");
        queue.active = &queue.persistent;
    }
}

// ---------------------------------------------------------------------------
// Running

void TaskScheduler::schedulerHasRunnableTasksIs(bool runnable, const TaskTimePoint& now) {
    if (runnable == hasRunnableTasks_) {
        return;
    }
    hasRunnableTasks_ = runnable;
    if (runnable) {
        KELVO_TRACEM(Impl::schedulerTrace(), 8, "{} Scheduler has runnable tasks, request run",
                     *this);
        history_->insert(now, Type::schedulerRunnable, this);
        lastRequestTime_ = now;
        requestSchedulerRun();
    } else {
        history_->insert(now, Type::schedulerIdle, this);
        KELVO_TRACEM(Impl::schedulerTrace(), 8, "{} Scheduler idle", *this);
    }
}

void TaskScheduler::checkSchedulerLatency(const TaskTimePoint& now) {
    runStart_ = now;
    maxSchedulerSlip_ = std::max(maxSchedulerSlip_, now - lastRequestTime_);
}

void TaskScheduler::requestRunAfter(const TaskTimePoint& end) {
    KELVO_TRACEM(Impl::schedulerTrace(), 9, "{} Scheduler completed task, request run", *this);
    lastRequestTime_ = end;
    requestSchedulerRun();
}

[[gnu::always_inline]] inline TaskScheduler::RunOutcome TaskScheduler::runOneInline(
    bool requestFollowUp, TaskTimePoint* start) {
    const TaskTimePoint now = start ? *start : steadyNow();
    checkSchedulerLatency(now);
    if (root_->suspended()) {
        currentTaskRef_.reset();
        KELVO_TRACEM(Impl::schedulerTrace(), 8, "{} Suspended", *this);
        history_->insert(now, Type::schedulerRunIgnoredWhileSuspended, this);
        return RunOutcome::suspended;
    }
    TaskImpl* task = pick(now, TaskPriority::absolute);
    if (task == nullptr) {
        currentTaskRef_.reset();
        schedulerHasRunnableTasksIs(false, now);
        return RunOutcome::idle;
    }
    currentTask_ = task;
    if (currentTaskRef_.get() != task) {
        currentTaskRef_ = task->runReference();
    }
    TaskTimePoint end;
    try {
        end = taskDoRun(*task, now);
    } catch (...) {
        // Invariant 4: the scheduler still believes it has runnable tasks,
        // so no later scheduleTask() would request a run; request it here.
        requestRunAfter(steadyNow());
        currentTask_ = nullptr;
        currentTaskRef_.reset();
        throw;
    }
    // Read before the reference goes: the task may not outlive it.
    const RunOutcome outcome =
        end - now >= task->taskQuantum() ? RunOutcome::usedQuantum : RunOutcome::ran;
    if (requestFollowUp) {
        requestRunAfter(end);
    } else {
        // The next run of the batch follows at once: its slip counts from here.
        lastRequestTime_ = end;
    }
    if (start) {
        *start = end;
    }
    currentTask_ = nullptr;
    // Between two runs of a batch no other code runs, so a task picked again
    // may find its reference still held: one fewer pair of atomic count
    // changes per run. Only a reference that others share is kept; the last
    // one goes now, and the task with it, as after any run.
    if (requestFollowUp || outcome != RunOutcome::ran || currentTaskRef_.use_count() == 1) {
        currentTaskRef_.reset();
    }
    return outcome;
}

void TaskScheduler::handleSchedulerRun() {
    runOneInline(true, nullptr);
}

TaskScheduler::RunOutcome TaskScheduler::runOne(bool requestFollowUp, TaskTimePoint* start) {
    return runOneInline(requestFollowUp, start);
}

void TaskScheduler::runBatch(unsigned runs) {
    // Each run starts at the previous one's end.
    TaskTimePoint clock = steadyNow();
    for (unsigned run = 1;; ++run) {
        const bool last = run >= runs;
        const RunOutcome outcome = runOneInline(last, &clock);
        if (outcome == RunOutcome::usedQuantum && !last) {
            // A long task has delayed the loop enough: let it serve events.
            requestRunAfter(clock);
        }
        if (outcome != RunOutcome::ran || last) {
            return;
        }
    }
}

TaskTimePoint TaskScheduler::taskDoRun(TaskImpl& task, const TaskTimePoint& now) {
    // The history is this scheduler's, and the event types are task events:
    // recorded straight into the ring, past the kind checks.
    history_->insert(now, Type::runStart, task.taskHistoryName());
    KELVO_SCHED_ASSERTM(!task.taskRunQueueLink_.isLinked(), "Task: {} still on run queue", task);
    KELVO_TRACEM(Impl::schedulerTrace(), 8, "Running {}", task);
    task.runStart_ = now;
    if (root_->virtualTime()) {
        root_->virtualRunStartIs(Kelvo::time());
    }
    ++task.runCount_;
    // The task may be destroyed inside its run, and then it is no object any
    // more: after the call only these two words are touched, through plain
    // pointers, until the magic number has shown that it is still alive.
    bool* const running = &task.currentlyRunning_;
    const uint32_t* const magic = &task.magic_;
    *running = true;
    try {
        task.taskExecute();
    } catch (...) {
        *running = false;
        if (*magic == TaskImpl::taskMagicNumberConstructed) {
            task.taskBusyIs(task.taskScheduled(), steadyNow());
        }
        throw;
    }
    *running = false;
    KELVO_SCHED_ASSERTM(*magic == TaskImpl::taskMagicNumberConstructed,
                        "Task: {} taskMagicNumber: {} taskMagicNumberConstructed: {}",
                        static_cast<const void*>(&task), *magic,
                        TaskImpl::taskMagicNumberConstructed);
    const TaskTimePoint end = steadyNow();
    const TaskTimeDuration used = end - now;
    const TaskTimeDuration quantum = task.quantum_;
    if (quantum.count() != 0 && used >= 2 * quantum) {
        KELVO_TRACEM(Impl::schedulerTrace(), 5, "Ran {} used {} {}% violation", task, used,
                     static_cast<int64_t>(static_cast<double>(used.count()) /
                                          static_cast<double>(quantum.count()) * 100));
        if (used < 5 * quantum) {
            ++task.quantumViolation200_;
        } else {
            ++task.quantumViolation500_;
        }
    } else {
        KELVO_TRACEM(Impl::schedulerTrace(), 7, "Ran {} used {}", task, used);
    }
    task.runTimeHighWaterMark_ = std::max(task.runTimeHighWaterMark_, used);
    task.totalRunTime_ += used;
    history_->insert(end, Type::runEnd, task.taskHistoryName());
    const bool busy = task.taskScheduled();
    if (busy != task.taskBusy()) {
        task.taskBusyIs(busy, end);
    }
    return end;
}

// ---------------------------------------------------------------------------
// Yield modes and test yields

void TaskScheduler::taskShouldYieldModeReevaluateAll() {
    for (TaskImpl& task : registry_) {
        task.taskShouldYieldModeReevaluate();
    }
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool on) {
    const bool changed = on ? forceYieldTasks_.insert(task).second : forceYieldTasks_.erase(task);
    if (changed) {
        handleTaskForceYieldInTest();
    }
}

// ---------------------------------------------------------------------------
// Statistics

unsigned TaskScheduler::getTaskStats(std::vector<TaskStat>* stats, bool includeNoRuns) const {
    unsigned skipped = 0;
    for (const TaskImpl& task : registry_) {
        if (!includeNoRuns && task.taskRunCount() == 0) {
            ++skipped;
            continue;
        }
        stats->push_back(task.getStats());
    }
    return skipped;
}

unsigned TaskScheduler::getCompletedTaskStats(std::vector<TaskStat>* stats,
                                              bool includeNoRuns) const {
    unsigned skipped = 0;
    for (const auto& [name, stat] : completedTaskStats_) {
        if (!includeNoRuns && stat.taskRunCount() == 0) {
            ++skipped;
            continue;
        }
        stats->push_back(stat);
    }
    return skipped;
}

void TaskScheduler::completedTaskStatsInc(const ConstStringRef& name, TaskStat stat) {
    auto entry = completedTaskStats_.find(name);
    if (entry != completedTaskStats_.end()) {
        entry->second += stat;
    } else {
        completedTaskStats_.emplace(name, std::move(stat));
    }
}

void TaskScheduler::updateCompletedTaskStats(TaskImpl* task) {
    const TaskPriority priority = task->taskPriority();
    KELVO_SCHED_ASSERTM(priority.valid(), "Task: {} priority: {}", *task, priority);
    if (task->includeInCompletedTask()) {
        TaskStat stat = task->getStats();
        stat.taskNameIs(task->taskStatsNameRef());
        KELVO_SCHED_ASSERTM(stat.taskCompletedCount() == 0, "Task: {} completedCount: {}", *task,
                            stat.taskCompletedCount());
        stat.taskCompletedCountIs(1);
        const ConstStringRef name = stat.taskNameRef();
        completedTaskStatsInc(name, std::move(stat));
        ++completedTasksPerPriority_[priority.value()];
    }
    // Every task leaves the count of its priority, included or not
    // (invariant 5); otherwise excluded tasks would stay "idle" forever.
    uint32_t& registered = tasksPerPriority_[priority.value()];
    KELVO_SCHED_ASSERTM(registered != 0, "Task: {} tasksPerPriority: {}", *task, registered);
    --registered;
}

void TaskScheduler::clearStatsCommon() {
    maxSchedulerSlip_ = TaskTimeDuration(0);
    for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
        runCountAtClear_[p] = runQueues_[p].dequeued;
    }
    completedTaskStats_.clear();
    completedTasksPerPriority_ = {};
}

void TaskScheduler::clearStats() {
    clearStatsCommon();
    for (TaskImpl& task : registry_) {
        task.resetStats();
    }
}

void TaskScheduler::resetStats() {
    if (!resetTask_) {
        resetTask_ = allocateShared<ResetStatsTask>(this);
    }
    // A reset asked for during another starts the walk again.
    resetBookmark_.unlink();
    registry_.pushFront(resetBookmark_);
    resetTask_->scheduleTask();
}

void TaskScheduler::handleResetStatsTaskRun(TaskImpl& resetTask) {
    TaskRegistry::Iterator task(registry_, resetBookmark_);
    resetBookmark_.unlink();
    unsigned reset = 0;
    for (; task != registry_.end(); ++task) {
        if (reset > 0 && resetTask.taskShouldYield()) {
            break;
        }
        task->resetStats();
        ++reset;
    }
    resetTask.taskWorkCountInc(reset);
    if (task != registry_.end()) {
        resetBookmark_.insertBefore(task);
        resetTask.scheduleTask();
        return;
    }
    clearStatsCommon();
    // Done: the run loop's reference keeps it alive to the end of this run.
    resetTask_.reset();
}

}  // namespace Kelvo
