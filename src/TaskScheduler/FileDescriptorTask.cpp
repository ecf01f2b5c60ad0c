// Descriptor tasks: readiness of a descriptor scheduled as runs of an inner
// read or write task.
//
// Invariants:
//  1. executing_ is set only between the start and the end of one inner
//     taskExecute(), and then names that inner task.
//  2. An inner task's owner_ is null once its owner's destructor has begun;
//     an inner run that finds it null does nothing.
//  3. The owner is busy exactly when one of its inner tasks is queued.
#include <Kelvo/TaskSchedulerCpp.h>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

class FileDescriptorTask::ReadWriteTaskBase : public Task {
  public:
    ReadWriteTaskBase(FileDescriptorTask& owner, const char* suffix)
        : Task(owner.schedulerPtr(), owner.taskPriority(), owner.taskName() + suffix),
          owner_(&owner) {}

    void ownerClear() noexcept { owner_ = nullptr; }

    // Invariant 3: forwarded so the owner's busy state follows its inner tasks.
    void handleTaskBusy() override {
        if (owner_ == nullptr) {
            return;
        }
        const bool busy = owner_->taskScheduled();
        if (busy != owner_->taskBusy()) {
            owner_->taskBusyIs(busy, scheduler()->steadyNow());
        }
    }

  protected:
    // A share of the owner for the length of one run, so that a run which
    // drops the owner's last outside reference does not run on a dead object;
    // null when the owner is gone or going (invariant 2).
    std::shared_ptr<_TaskBase> ownerShare() const {
        return owner_ ? owner_->weak_from_this().lock() : nullptr;
    }

    FileDescriptorTask* owner_;
};

class FileDescriptorTask::ReadTask : public ReadWriteTaskBase {
  public:
    explicit ReadTask(FileDescriptorTask& owner) : ReadWriteTaskBase(owner, ":read") {}

    void taskExecute() override {
        const std::shared_ptr<_TaskBase> keep = ownerShare();
        if (!keep) {
            return;
        }
        KELVO_SCHED_ASSERTM(owner_->watchReadable_,
                            "ReadTask should only run if taskWatchReadable");
        owner_->executeAs(this, &FileDescriptorTask::taskExecuteReadable);
    }
};

class FileDescriptorTask::WriteTask : public ReadWriteTaskBase {
  public:
    explicit WriteTask(FileDescriptorTask& owner) : ReadWriteTaskBase(owner, ":write") {}

    void taskExecute() override {
        const std::shared_ptr<_TaskBase> keep = ownerShare();
        if (!keep) {
            return;
        }
        // One-shot: the control disarmed the write event when it fired.
        owner_->taskWatchWritableIs(false);
        owner_->executeAs(this, &FileDescriptorTask::taskExecuteWritable);
    }
};

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, const String& name)
    : _TaskBase(std::move(scheduler), priority, name) {
    construct();
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority,
                                       const String& name)
    : _TaskBase(scheduler, priority, name) {
    construct();
}

void FileDescriptorTask::construct() {
    control_ = Platform::getFdControl(this);
    readTask_ = allocateShared<ReadTask>(*this);
    watchReadable_ = true;
    watchWritable_ = false;
    control_->setReads(true);
    control_->setWrites(false);
}

FileDescriptorTask::~FileDescriptorTask() {
    // Invariant 2 first: the inner tasks may outlive this object (the run
    // loop may hold a share of one), and must not reach it then.
    readTask_->ownerClear();
    if (writeTask_) {
        writeTask_->ownerClear();
    }
    // Members go in reverse order: the write task, the read task (each
    // unscheduled and unregistered by its destructor), then the control,
    // whose destruction ends the watch.
}

TaskImpl* FileDescriptorTask::readTask() const noexcept {
    return readTask_.get();
}

TaskImpl* FileDescriptorTask::writeTask() const noexcept {
    return writeTask_.get();
}

void FileDescriptorTask::checkCreateWriteTask() {
    if (writeTask_) {
        return;
    }
    writeTask_ = allocateShared<WriteTask>(*this);
    // A test-yield ratio of 1 makes every yield question answer yes, so the
    // quantum is meaningless there and is left at the default.
    if (readTask_->taskTestYieldRatio() != 1) {
        writeTask_->taskQuantumNoCheckIs(readTask_->taskQuantum());
    }
    writeTask_->taskSuspendedIs(readTask_->taskSuspended());
    writeTask_->taskTestYieldRatioIs(readTask_->taskTestYieldRatio());
    writeTask_->taskStatsNameIs(taskStatsName() + ":write");
}

// ---------------------------------------------------------------------------
// Watching

int FileDescriptorTask::taskWatchFd() const {
    return control_->getFd();
}

void FileDescriptorTask::taskWatchFdIs(int fd) {
    if (fd == control_->getFd()) {
        return;
    }
    // Runs queued for the old descriptor must not read or write the new one.
    readTask_->unscheduleTask();
    if (writeTask_) {
        writeTask_->unscheduleTask();
    }
    KELVO_TRACEM(Impl::schedulerTrace(), 8, "{} watch fd {}", *this, fd);
    control_->setFd(fd);
}

void FileDescriptorTask::taskWatchFdDel() {
    readTask_->unscheduleTask();
    if (writeTask_) {
        writeTask_->unscheduleTask();
    }
    KELVO_TRACEM(Impl::schedulerTrace(), 8, "{} watch fd del", *this);
    control_->delFd();
}

void FileDescriptorTask::taskWatchReadableIs(bool watch) {
    if (watch == watchReadable_) {
        return;
    }
    watchReadable_ = watch;
    control_->setReads(watch);
    if (!watch) {
        readTask_->unscheduleTask();
    }
}

void FileDescriptorTask::taskWatchWritableIs(bool watch) {
    if (watch == watchWritable_) {
        return;
    }
    checkCreateWriteTask();
    watchWritable_ = watch;
    control_->setWrites(watch);
    if (!watch) {
        writeTask_->unscheduleTask();
    }
}

void FileDescriptorTask::readFdEvent(int fd) {
    KELVO_SCHED_ASSERTM(watchReadable_, "readFdEvent() called with taskWatchReadable off");
    KELVO_SCHED_ASSERTM(fd == taskWatchFd(), "Notified about {} watching {}", fd, taskWatchFd());
    scheduleTaskReadable();
}

void FileDescriptorTask::writeFdEvent(int fd) {
    KELVO_SCHED_ASSERTM(watchWritable_, "writeFdEvent() called with taskWatchWritable off");
    KELVO_SCHED_ASSERTM(fd == taskWatchFd(), "Notified about {} watching {}", fd, taskWatchFd());
    scheduleTaskWritable();
}

void FileDescriptorTask::scheduleTaskReadable() {
    readTask_->scheduleTask();
}

void FileDescriptorTask::scheduleTaskWritable() {
    checkCreateWriteTask();
    writeTask_->scheduleTask();
}

// ---------------------------------------------------------------------------
// Running

void FileDescriptorTask::executeAs(TaskImpl* task, void (FileDescriptorTask::*operation)()) {
    KELVO_SCHED_ASSERTM(executing_ == nullptr, "Executing task already set");
    // Invariant 1 holds when the user's operation throws, too.
    struct Clear {
        TaskImpl*& executing;
        ~Clear() { executing = nullptr; }
    } clear{executing_};
    executing_ = task;
    (this->*operation)();
}

TaskImpl& FileDescriptorTask::executing() const {
    KELVO_SCHED_ASSERTM(executing_ != nullptr, "{} has no inner task running", *this);
    return *executing_;
}

bool FileDescriptorTask::taskScheduled() const {
    return readTask_->taskScheduled() || (writeTask_ && writeTask_->taskScheduled());
}

bool FileDescriptorTask::taskShouldYield() const {
    return executing().taskShouldYield();
}

void FileDescriptorTask::taskWorkCountInc(unsigned long n) {
    executing().taskWorkCountInc(n);
}

void FileDescriptorTask::taskWorkPendingIs(unsigned n) {
    executing().taskWorkPendingIs(n);
}

// ---------------------------------------------------------------------------
// Settings and statistics

void FileDescriptorTask::taskStatsNameIs(const String& name) {
    statsNameIs(name);
    readTask_->taskStatsNameIs(name + ":read");
    if (writeTask_) {
        writeTask_->taskStatsNameIs(name + ":write");
    }
}

void FileDescriptorTask::taskQuantumIs(TaskTimeDuration quantum) {
    readTask_->taskQuantumIs(quantum);
    if (writeTask_) {
        writeTask_->taskQuantumIs(quantum);
    }
}

TaskTimeDuration FileDescriptorTask::taskQuantum() const {
    return readTask_->taskQuantum();
}

void FileDescriptorTask::taskSuspendedIs(bool suspended) {
    readTask_->taskSuspendedIs(suspended);
    if (writeTask_) {
        writeTask_->taskSuspendedIs(suspended);
    }
}

bool FileDescriptorTask::taskSuspended() const {
    return readTask_->taskSuspended();
}

void FileDescriptorTask::taskTestYieldRatioIs(uint8_t ratio) {
    readTask_->taskTestYieldRatioIs(ratio);
    if (writeTask_) {
        writeTask_->taskTestYieldRatioIs(ratio);
    }
}

uint8_t FileDescriptorTask::taskTestYieldRatio() const {
    return readTask_->taskTestYieldRatio();
}

uint64_t FileDescriptorTask::taskWorkCountReadableTotal() const {
    return readTask_->getStats().taskWorkCountTotal();
}
float FileDescriptorTask::taskWorkCountReadableDecayAvg() const {
    return readTask_->getStats().taskWorkCountDecayingAvg();
}
uint32_t FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
    return readTask_->getStats().taskWorkCountHighWater().raw();
}
uint32_t FileDescriptorTask::taskWorkPendingReadable() const {
    return readTask_->getStats().taskWorkPending();
}
uint32_t FileDescriptorTask::taskWorkPendingReadableHighWaterMark() const {
    return readTask_->getStats().taskWorkPendingHighWater().raw();
}
uint32_t FileDescriptorTask::taskRunCountReadable() const {
    return readTask_->taskRunCount();
}

// Without a write task every figure reads 0, the high-water marks included.
uint64_t FileDescriptorTask::taskWorkCountWritableTotal() const {
    return writeTask_ ? writeTask_->getStats().taskWorkCountTotal() : 0;
}
float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
    return writeTask_ ? writeTask_->getStats().taskWorkCountDecayingAvg() : 0.0f;
}
uint32_t FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
    return writeTask_ ? writeTask_->getStats().taskWorkCountHighWater().raw() : 0;
}
uint32_t FileDescriptorTask::taskWorkPendingWritable() const {
    return writeTask_ ? writeTask_->getStats().taskWorkPending() : 0;
}
uint32_t FileDescriptorTask::taskWorkPendingWritableHighWaterMark() const {
    return writeTask_ ? writeTask_->getStats().taskWorkPendingHighWater().raw() : 0;
}
uint32_t FileDescriptorTask::taskRunCountWritable() const {
    return writeTask_ ? writeTask_->taskRunCount() : 0;
}

void FileDescriptorTask::taskWorkCountReadableInc(unsigned long n) {
    readTask_->taskWorkCountInc(n);
}

void FileDescriptorTask::taskWorkPendingReadableIs(unsigned n) {
    readTask_->taskWorkPendingIs(n);
}

void FileDescriptorTask::taskWorkCountWritableInc(unsigned long n) {
    KELVO_SCHED_ASSERTM(writeTask_ != nullptr,
                        "WriteTask not created by taskWatchWritableIs( true )");
    writeTask_->taskWorkCountInc(n);
}

void FileDescriptorTask::taskWorkPendingWritableIs(unsigned n) {
    KELVO_SCHED_ASSERTM(writeTask_ != nullptr,
                        "WriteTask not created by taskWatchWritableIs( true )");
    writeTask_->taskWorkPendingIs(n);
}

}  // namespace Kelvo
