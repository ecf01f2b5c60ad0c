// Task groups: a nested scheduler run in turns by a parent task of the
// enclosing scheduler. The numbered invariants are those of TaskGroup in
// TaskSchedulerCpp.h.
#include <Kelvo/TaskSchedulerCpp.h>

#include <typeinfo>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

namespace {

String parentTaskName(const TaskGroup* group) {
    KELVO_SCHED_ASSERTM(group != nullptr, "TaskGroup is non-null");
    return "TaskGroup;" + group->name();
}

}  // namespace

// A type test rather than a virtual: the task's virtual table is fixed, and
// only statistics ask.
TaskGroup* TaskImpl::isTaskGroup() const noexcept {
    if (typeid(*this) != typeid(TaskGroup::ParentTask)) {
        return nullptr;
    }
    return static_cast<const TaskGroup::ParentTask*>(this)->group();
}

// ---------------------------------------------------------------------------
// ParentTask

TaskGroup::ParentTask::ParentTask(const std::shared_ptr<TaskScheduler>& enclosing,
                                  TaskPriority priority, TaskGroup* group)
    : Task(enclosing, priority, parentTaskName(group)), group_(group) {}

void TaskGroup::ParentTask::taskExecute() {
    if (group_ == nullptr) {
        return;
    }
    // The last member may go during the turn and take the group with it.
    const std::shared_ptr<TaskGroup> group =
        std::static_pointer_cast<TaskGroup>(group_->shared_from_this());
    group->runTurn(*this);
}

void TaskGroup::ParentTask::handleResetStats() {
    // At once rather than by the group's incremental reset task, whose
    // priority an enforcing group would refuse.
    if (group_ != nullptr) {
        group_->clearStats();
    }
}

// ---------------------------------------------------------------------------
// TaskGroup

std::shared_ptr<TaskGroup> TaskGroup::TaskGroupIs(const String& name, TaskPriority priority,
                                                  bool enforcePriority,
                                                  const std::shared_ptr<TaskScheduler>& enclosing) {
    return allocateShared<TaskGroup>(name, priority, enforcePriority, enclosing);
}

TaskGroup::TaskGroup(const String& name, TaskPriority priority, bool enforcePriority,
                     const std::shared_ptr<TaskScheduler>& enclosing)
    : TaskScheduler(name, enclosing->root(), enclosing->history()),
      enclosing_(enclosing),
      priority_(priority),
      enforcePriority_(enforcePriority) {
    defaultTaskQuantumIs(enclosing->defaultTaskQuantum());
    // The parent first: its registration checks the thread, and a failure
    // leaves nothing registered behind.
    parentTask_ = allocateShared<ParentTask>(enclosing, priority, this);
    root()->registerScheduler(this);
}

TaskGroup::~TaskGroup() {
    // The reset task's destruction notifies handleTaskForceYieldInTest,
    // which must still be this class's.
    dropResetTask();
    taskGroupForceYieldInTestIs(false);
    root()->unregisterScheduler(this);
    // A parent still running (this went during its turn) or held elsewhere
    // outlives this; it finds no group and does nothing.
    parentTask_->group_ = nullptr;
    parentTask_.reset();
    enclosing_.reset();
}

void TaskGroup::requestSchedulerRun() {
    if (parentTask_) {
        parentTask_->scheduleTask();
    }
}

void TaskGroup::handleTaskForceYieldInTest() {
    // The set holds the forcing members and, for the group's own switch, the
    // parent task.
    if (parentTask_) {
        parentTask_->taskForceYieldInTestIs(forceYieldTaskCount() != 0);
    }
}

void TaskGroup::taskGroupForceYieldInTestIs(bool on) {
    if (on == forceYieldInTest_) {
        return;
    }
    forceYieldInTest_ = on;
    taskForceYieldInTestNotify(parentTask_.get(), on);
}

void TaskGroup::taskRegister(TaskImpl* task) {
    if (enforcePriority_) {
        KELVO_SCHED_ASSERTM(task->taskPriority() == priority_,
                            "taskPriority( {} ) != taskGroupPriority( {} )", task->taskPriority(),
                            priority_);
    }
    TaskScheduler::taskRegister(task);
}

void TaskGroup::runTurn(ParentTask& parent) {
    const bool once = !tasksPermittedMultipleRuns_;
    TaskSchedulerRoot& root = *this->root();
    // Each member run restarts the root's virtual run start (invariant 3).
    const double turnStart = root.virtualRunStart();
    // Invariant 2: the turn picks from the temporary lists only.
    if (once) {
        taskRunQueuesMovePersistentToTemporary();
    }
    // Whether a member is left to pick in this turn: with the temporary lists
    // active, members queued during the turn do not count.
    const auto pickable = [this] {
        for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
            if (!runQueue(TaskPriority(p)).active->empty()) {
                return true;
            }
        }
        return false;
    };
    unsigned long count = 0;
    try {
        while (pickable() && !root.suspended()) {
            ++count;
            handleSchedulerRun();
            root.virtualRunStartIs(turnStart);
            if (parent.taskShouldYield()) {
                break;
            }
        }
    } catch (...) {
        // The member's run requested the next one, so the parent is queued
        // again; with the lists back the next turn can start.
        root.virtualRunStartIs(turnStart);
        if (once) {
            taskRunQueuesMoveTemporaryToPersistent();
        }
        throw;
    }
    if (once) {
        taskRunQueuesMoveTemporaryToPersistent();
    }
    const uint32_t pending = runnableTaskCount();
    parent.taskWorkCountInc(count);
    parent.taskWorkPendingIs(pending);
    const TaskTimePoint now = steadyNow();
    if (pending == 0) {
        // Invariant 1: the turn's member runs queued the parent.
        schedulerHasRunnableTasksIs(false, now);
        parent.unscheduleTask();
    } else if (!once) {
        // A suspended parent is never queued; its resumption queues it.
        KELVO_SCHED_ASSERTM(parent.taskScheduled() || parent.taskSuspended(),
                            "TaskGroup parentTask should be scheduled.");
        KELVO_SCHED_ASSERTM(schedulerHasRunnableTasks(),
                            "The TaskGroup should have runnable tasks");
    } else {
        parent.scheduleTask();
        schedulerHasRunnableTasksIs(true, now);
    }
}

}  // namespace Kelvo
