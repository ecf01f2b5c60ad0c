// Cooperative tasks and their statistics record.
//
// A task belongs to one scheduler (TaskSchedulerCpp.h) and to that
// scheduler's thread: every operation below is called on that thread, and
// scheduleTask, unscheduleTask and registration check it. A task is put on
// its scheduler's run queue (scheduleTask), later picked and run to the end
// of its taskExecute() without pre-emption; it should return once
// taskShouldYield() says its quantum is used up.
//
// Ownership: the user owns a task, normally through std::shared_ptr (the
// scheduler then holds a share of it for the length of each run, so a task
// that drops its last outside reference during its run survives the run). A
// task holds a share of its scheduler. Constructing a task registers it with
// the scheduler; destroying it unschedules and unregisters it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>

#include <fmt/format.h>

#include "ConstStringCache.h"
#include "IntrusiveBookmarkLinkedList.h"
#include "IntrusiveLinkedListBase.h"
#include "KelvoBase.h"
#include "TimerWheelCpp.h"
#include "PlatformCpp.h"

namespace Kelvo {

class TaskScheduler;
class TaskGroup;
enum class TaskSchedulerEventType : uint8_t;

using TaskTimePoint = std::chrono::steady_clock::time_point;
using TaskTimeDuration = std::chrono::nanoseconds;

// One byte; smaller is more urgent. 0 to 4 index a scheduler's run queues;
// oneBeyondLast is the end marker and never a task's priority.
class KELVO_EXPORT TaskPriority {
  public:
    enum Value : uint8_t {
        absolute = 0,
        high = 1,
        normal = 2,
        low = 3,
        scavenge = 4,
        oneBeyondLast = 5,
    };

    constexpr TaskPriority() noexcept = default;
    constexpr TaskPriority(Value value) noexcept : value_(value) {}
    explicit constexpr TaskPriority(unsigned value) noexcept
        : value_(static_cast<uint8_t>(value)) {}

    constexpr uint8_t value() const noexcept { return value_; }
    constexpr bool valid() const noexcept { return value_ < oneBeyondLast; }
    // "absolute" ... "oneBeyondLast"; asserts on anything else.
    const char* toStrep() const;
    // A character of "AHNLS-"; asserts on anything else.
    char oneChar() const;
    String oneCharString() const { return String(1, oneChar()); }

    friend constexpr auto operator<=>(TaskPriority, TaskPriority) = default;

  private:
    uint8_t value_ = normal;
};

// Values 0 to 4 print as their name, anything else as "invalidPriority=<n>".
KELVO_EXPORT std::ostream& operator<<(std::ostream& out, TaskPriority priority);

// A task's identity in statistics: its address.
struct KELVO_EXPORT TaskKey {
    uint64_t value = 0;

    TaskKey() = default;
    explicit TaskKey(uint64_t v) : value(v) {}
    explicit TaskKey(const void* task) : value(reinterpret_cast<uintptr_t>(task)) {}
    // "@<value>"
    String toStrep() const;
    friend bool operator==(TaskKey, TaskKey) = default;
};

// An unsigned 32-bit value in which 0xFFFFFFFF means "not set"; a real value
// of 0xFFFFFFFF is kept as 0xFFFFFFFE, so the sentinel is never a value.
class KELVO_EXPORT TaskMaybeU32 {
  public:
    static constexpr uint32_t unset = 0xFFFFFFFF;

    constexpr TaskMaybeU32() noexcept = default;
    explicit constexpr TaskMaybeU32(uint32_t value) noexcept
        : value_(value == unset ? unset - 1 : value) {}

    constexpr bool isSet() const noexcept { return value_ != unset; }
    // The value, or 0 when unset.
    constexpr uint32_t valueOrZero() const noexcept { return isSet() ? value_ : 0; }
    // The stored word, unset included.
    constexpr uint32_t raw() const noexcept { return value_; }
    friend constexpr bool operator==(TaskMaybeU32, TaskMaybeU32) = default;

  private:
    uint32_t value_ = unset;
};

// A copy of one task's counters (or the merged counters of finished tasks of
// one name). A value; copying it copies the name reference, so it must not
// outlive the cache of its root scheduler.
class KELVO_EXPORT TaskStat {
  public:
    // One byte of status bits; each task class computes its own.
    class KELVO_EXPORT TaskStatus {
      public:
        static constexpr uint8_t timer = 1u << 0;
        static constexpr uint8_t timerRunning = 1u << 1;
        static constexpr uint8_t onRunQueue = 1u << 2;
        static constexpr uint8_t currentlyRunning = 1u << 3;
        static constexpr uint8_t suspended = 1u << 4;
        static constexpr uint8_t isTaskGroup = 1u << 5;

        constexpr TaskStatus() noexcept = default;
        explicit constexpr TaskStatus(uint8_t bits) noexcept : bits_(bits) {}

        constexpr bool bitmaskHasBitSet(uint8_t mask) const noexcept { return (bits_ & mask) != 0; }
        constexpr void bitmaskSetBit(uint8_t mask, bool on) noexcept {
            bits_ = on ? uint8_t(bits_ | mask) : uint8_t(bits_ & ~mask);
        }
        constexpr uint8_t bits() const noexcept { return bits_; }

        bool taskTimer() const noexcept { return bitmaskHasBitSet(timer); }
        void taskTimerIs(bool on) noexcept { bitmaskSetBit(timer, on); }
        bool taskTimerRunning() const noexcept { return bitmaskHasBitSet(timerRunning); }
        void taskTimerRunningIs(bool on) noexcept { bitmaskSetBit(timerRunning, on); }
        bool taskOnRunQueue() const noexcept { return bitmaskHasBitSet(onRunQueue); }
        void taskOnRunQueueIs(bool on) noexcept { bitmaskSetBit(onRunQueue, on); }
        bool taskCurrentlyRunning() const noexcept { return bitmaskHasBitSet(currentlyRunning); }
        void taskCurrentlyRunningIs(bool on) noexcept { bitmaskSetBit(currentlyRunning, on); }
        bool taskSuspended() const noexcept { return bitmaskHasBitSet(suspended); }
        void taskSuspendedIs(bool on) noexcept { bitmaskSetBit(suspended, on); }
        bool taskIsTaskGroup() const noexcept { return bitmaskHasBitSet(isTaskGroup); }
        void taskIsTaskGroupIs(bool on) noexcept { bitmaskSetBit(isTaskGroup, on); }

        friend constexpr bool operator==(TaskStatus, TaskStatus) = default;

      private:
        uint8_t bits_ = 0;
    };

    TaskStat() = default;
    TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, unsigned runCount,
             TaskTimeDuration totalRunTime, unsigned long workCountTotal, float decayingAvg,
             TaskMaybeU32 workCountHighWater, unsigned workPending,
             TaskMaybeU32 workPendingHighWater, unsigned qv500, unsigned qv200,
             TaskTimeDuration runTimeHighWaterMark, TaskTimeDuration lastSchedulingLatency,
             TaskTimeDuration schedulingLatencyHighWaterMark, TaskStatus status);

    // A copy of the name; empty when there is none.
    String taskName() const { return name_.str(); }
    const ConstStringRef& taskNameRef() const noexcept { return name_; }
    void taskNameIs(const ConstStringRef& name) { name_ = name; }
    TaskKey taskKey() const noexcept { return key_; }
    TaskPriority taskPriority() const noexcept { return priority_; }
    TaskStatus taskStatus() const noexcept { return status_; }
    void taskStatusIs(TaskStatus status) noexcept { status_ = status; }
    // Two characters: '*' running, 'S' suspended, 'T'/'t' timer armed or not,
    // else a blank; then the priority code, lower case when not queued.
    String taskStatusString() const;

    uint32_t taskRunCount() const noexcept { return runCount_; }
    void taskRunInc(uint32_t n) noexcept { runCount_ += n; }
    TaskTimeDuration taskTotalRunTime() const noexcept { return totalRunTime_; }
    void taskTotalRunTimeInc(TaskTimeDuration d) noexcept { totalRunTime_ += d; }
    uint64_t taskWorkCountTotal() const noexcept { return workCountTotal_; }
    void taskWorkCountTotalInc(uint64_t n) noexcept { workCountTotal_ += n; }
    float taskWorkCountDecayingAvg() const noexcept { return workCountDecayingAvg_; }
    TaskMaybeU32 taskWorkCountHighWater() const noexcept { return workCountHighWater_; }
    uint32_t taskWorkPending() const noexcept { return workPending_; }
    TaskMaybeU32 taskWorkPendingHighWater() const noexcept { return workPendingHighWater_; }
    uint32_t taskQuantumViolation500() const noexcept { return quantumViolation500_; }
    void taskQuantumViolation500Inc(uint32_t n) noexcept { quantumViolation500_ += n; }
    uint32_t taskQuantumViolation200() const noexcept { return quantumViolation200_; }
    void taskQuantumViolation200Inc(uint32_t n) noexcept { quantumViolation200_ += n; }
    TaskTimeDuration taskRunTimeHighWaterMark() const noexcept { return runTimeHighWaterMark_; }
    void taskRunTimeHighWaterMarkIs(TaskTimeDuration d) noexcept { runTimeHighWaterMark_ = d; }
    TaskTimeDuration taskLastSchedulingLatency() const noexcept { return lastSchedulingLatency_; }
    void taskLastSchedulingLatencyIs(TaskTimeDuration d) noexcept { lastSchedulingLatency_ = d; }
    TaskTimeDuration taskSchedulingLatencyHighWaterMark() const noexcept {
        return schedulingLatencyHighWaterMark_;
    }
    void taskSchedulingLatencyHighWaterMarkIs(TaskTimeDuration d) noexcept {
        schedulingLatencyHighWaterMark_ = d;
    }
    uint32_t taskCompletedCount() const noexcept { return completedCount_; }
    void taskCompletedCountInc(uint32_t n) noexcept { completedCount_ += n; }
    void taskCompletedCountIs(uint32_t n) noexcept { completedCount_ = n; }

    // Folds a finished task of the same name into this record: sums the
    // counts, takes other's latest values, keeps the larger high-water marks
    // and counts one more completed task.
    TaskStat& operator+=(const TaskStat& other);

  private:
    ConstStringRef name_;
    TaskKey key_;
    TaskPriority priority_ = TaskPriority::absolute;
    TaskStatus status_;
    uint32_t runCount_ = 0;
    TaskTimeDuration totalRunTime_{0};
    uint64_t workCountTotal_ = 0;
    float workCountDecayingAvg_ = 0.0f;
    TaskMaybeU32 workCountHighWater_;
    uint32_t workPending_ = 0;
    TaskMaybeU32 workPendingHighWater_;
    uint32_t quantumViolation500_ = 0;
    uint32_t quantumViolation200_ = 0;
    TaskTimeDuration runTimeHighWaterMark_{0};
    TaskTimeDuration lastSchedulingLatency_{0};
    TaskTimeDuration schedulingLatencyHighWaterMark_{0};
    uint32_t completedCount_ = 0;
};

// The root of every task kind: its scheduler, names, priority and busy state.
class KELVO_EXPORT _TaskBase : public std::enable_shared_from_this<_TaskBase> {
  public:
    _TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
    _TaskBase(TaskScheduler* scheduler, TaskPriority priority, const String& name);
    _TaskBase(const _TaskBase&) = delete;
    _TaskBase& operator=(const _TaskBase&) = delete;

    // Replaces the statistics name (by default "<priority code> <name>").
    virtual void taskStatsNameIs(const String& name) = 0;
    // True while the task is on a run queue.
    virtual bool taskScheduled() const = 0;
    virtual bool taskShouldYield() const = 0;
    virtual void taskWorkCountInc(unsigned long n) = 0;
    virtual void taskWorkPendingIs(unsigned n) = 0;
    // Called when the busy state changes (busy = queued or waiting).
    virtual void handleTaskBusy() {}
    // Called at the end of resetStats(), for counters of a derived kind.
    virtual void handleResetStats() {}
    virtual ~_TaskBase();

    const String& taskName() const noexcept { return taskName_.str(); }
    const ConstStringRef& taskNameRef() const noexcept { return taskName_; }
    const String& taskStatsName() const noexcept { return taskStatsName_.str(); }
    const ConstStringRef& taskStatsNameRef() const noexcept { return taskStatsName_; }
    const ConstStringRef& taskHistoryName() const noexcept { return historyName_; }
    TaskPriority taskPriority() const noexcept { return priority_; }
    bool taskBusy() const noexcept { return busy_; }
    TaskScheduler* scheduler() const noexcept { return scheduler_.get(); }
    const std::shared_ptr<TaskScheduler>& schedulerPtr() const noexcept { return scheduler_; }

    // Records an event about this task in its root's history.
    void taskHistoryInsert(const TaskTimePoint& when, TaskSchedulerEventType type) const;
    // Unchanged: nothing; else records "busy" or "idle" and calls handleTaskBusy().
    void taskBusyIs(bool busy, const TaskTimePoint& when);

  protected:
    void statsNameIs(const String& name);

  private:
    std::shared_ptr<TaskScheduler> scheduler_;
    ConstStringRef taskName_;
    ConstStringRef taskStatsName_;
    ConstStringRef historyName_;
    TaskPriority priority_;
    bool busy_ = false;
};

// The base of every runnable task: run-queue membership, suspension, quantum,
// yield decisions and the live statistics counters.
class KELVO_EXPORT TaskImpl : public _TaskBase {
  public:
    static constexpr uint32_t taskMagicNumberConstructed = 0x42BE5AFE;
    static constexpr uint32_t taskMagicNumberDestroyed = 0xDEADDEAD;
    static constexpr TaskTimeDuration maxTaskQuantum = std::chrono::seconds(1);

    // How taskShouldYield() decides.
    enum TaskShouldYieldMode : uint8_t {
        realTime = 0,
        virtualTime = 1,
        testYieldRatio = 2,
    };

    TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
    TaskImpl(TaskScheduler* scheduler, TaskPriority priority, const String& name);
    ~TaskImpl() override;

    void taskStatsNameIs(const String& name) override;
    bool taskScheduled() const override { return taskOnRunQueue(); }
    // Run-queue membership alone, whatever taskScheduled() of a derived kind
    // adds (a timer task is also scheduled while its timer runs).
    bool taskOnRunQueue() const noexcept { return taskRunQueueLink_.isLinked(); }
    // Asks whether the quantum of the current run is used up.
    bool taskShouldYield() const override;
    void taskWorkCountInc(unsigned long n) override;
    void taskWorkPendingIs(unsigned n) override;

    // Puts the task at the back of its priority's run queue; a queued task is
    // left as it is, a suspended one only records "scheduleSus".
    virtual void scheduleTask();
    // Runs the task now, outside the run loop; it must not be queued.
    virtual void taskRunFromTest();
    virtual TaskStat::TaskStatus taskStatus() const;
    virtual void taskExecute() = 0;

    void unscheduleTask();
    bool taskSuspended() const noexcept { return flags_ & suspendedFlag; }
    // Suspending unschedules; resuming schedules again, so the task runs once.
    void taskSuspendedIs(bool suspended);

    TaskTimeDuration taskQuantum() const noexcept { return quantum_; }
    // At most one second.
    void taskQuantumIs(TaskTimeDuration quantum);
    // At least one nanosecond, no upper bound.
    void taskQuantumNoCheckIs(TaskTimeDuration quantum);
    // The length of the current run so far (virtual in virtual-time mode).
    TaskTimeDuration taskCurrentRunTime() const;
    bool taskCurrentlyRunning() const noexcept { return currentlyRunning_; }
    uint32_t taskRunCount() const noexcept { return runCount_; }

    // Makes taskShouldYield() answer yes every ratio-th call (0: off).
    void taskTestYieldRatioIs(uint8_t ratio);
    uint8_t taskTestYieldRatio() const noexcept { return testYieldRatio_; }
    uint8_t taskEffectiveTestYieldRatio() const noexcept { return effectiveTestYieldRatio_; }
    void taskForceYieldInTestIs(bool on) { taskTestYieldRatioIs(on ? 1 : 0); }
    // Recomputes the effective ratio and the mode from the task and its root.
    void taskShouldYieldModeReevaluate();
    TaskShouldYieldMode taskShouldYieldMode() const noexcept {
        return static_cast<TaskShouldYieldMode>(yieldMode_);
    }

    // Whether the task's counters are folded into its scheduler's
    // completed-task statistics when it goes.
    void includeInCompletedTaskIs(bool include) noexcept;
    bool includeInCompletedTask() const noexcept { return flags_ & includeInCompletedFlag; }

    TaskStat getStats() const;
    void resetStats();
    // Stores now minus the enqueue time as the last scheduling latency.
    void doUpdateSchedulingLatency(const TaskTimePoint& now) noexcept {
        lastSchedulingLatency_ = now - enqueueTime_;
        if (lastSchedulingLatency_ > schedulingLatencyHighWaterMark_) {
            schedulingLatencyHighWaterMark_ = lastSchedulingLatency_;
        }
    }

    // Unschedules, unregisters and marks the task destroyed, for owners that
    // must tear it down before its destructor runs.
    void handleDestroy();

    // The group a group's parent task runs, or null for any other task.
    TaskGroup* isTaskGroup() const noexcept;
    uint32_t taskMagicNumber() const noexcept { return magic_; }
    TaskTimePoint taskEnqueueTime() const noexcept { return enqueueTime_; }
    TaskTimePoint taskRunStart() const noexcept { return runStart_; }

    // Run-queue and registry membership; the scheduler's lists link here.
    ListLinkNode taskRunQueueLink_;
    BookmarkListLinkNode taskRegisteredLink_;

  private:
    friend class TaskScheduler;

    static constexpr uint8_t suspendedFlag = 1u << 0;
    static constexpr uint8_t includeInCompletedFlag = 1u << 1;
    // Set once a run has found the task owned by std::shared_ptr.
    static constexpr uint8_t sharedOwnedFlag = 1u << 2;

    void construct();
    // A strong reference for the length of one run; null for a task that no
    // std::shared_ptr owns.
    std::shared_ptr<_TaskBase> runReference();
    void effectiveTestYieldRatioIs(uint8_t ratio);

    uint8_t flags_ = 0;
    uint8_t testYieldRatio_ = 0;
    uint8_t effectiveTestYieldRatio_ = 0;
    mutable uint8_t yieldCounter_ = 0;
    uint8_t yieldMode_ = realTime;
    bool currentlyRunning_ = false;
    TaskTimeDuration quantum_{0};
    TaskTimePoint enqueueTime_;
    TaskTimePoint runStart_;
    TaskTimeDuration lastSchedulingLatency_{0};
    TaskTimeDuration schedulingLatencyHighWaterMark_{0};
    TaskTimeDuration totalRunTime_{0};
    TaskTimeDuration runTimeHighWaterMark_{0};
    uint32_t quantumViolation200_ = 0;
    uint32_t quantumViolation500_ = 0;
    uint32_t runCount_ = 0;
    uint32_t magic_ = 0;
    uint32_t workPending_ = 0;
    TaskMaybeU32 workCountHighWater_;
    TaskMaybeU32 workPendingHighWater_;
    float workCountDecayingAvg_ = 0.0f;
    uint64_t workCountTotal_ = 0;
};

// A plain task: derive from it and implement taskExecute().
class KELVO_EXPORT Task : public TaskImpl {
  public:
    using TaskImpl::TaskImpl;
};

// ---------------------------------------------------------------------------
// Timer tasks

// A task queued after a delay instead of at once. The delay is one event of
// the root scheduler's timer wheel; when it fires the task is queued and then
// competes with the other tasks of its priority. Delays are durations or
// seconds as a double; TimerTask::never (the largest duration) and +infinity
// mean never, which stops the timer.
//
// States: idle -> timer running -> queued (fired, or scheduled directly) ->
// running -> idle. The task is never queued and timing at once: starting the
// timer with force takes the task off its queue, and queueing stops the timer.
//
// Thread and ownership as for every task: the root's thread, which every
// public operation checks; owned by its user, normally through std::shared_ptr.
// Destroying it stops its timer.
class KELVO_EXPORT TimerTask : public TaskImpl, public TimerWheelEvent {
  public:
    static constexpr TaskTimeDuration never = TaskTimeDuration::max();

    TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const String& name);
    TimerTask(TaskScheduler* scheduler, TaskPriority priority, const String& name);
    ~TimerTask() override;

    // Queued, or waiting for its timer.
    bool taskScheduled() const override { return taskOnRunQueue() || timerRunning_; }
    // Stops a running timer and queues the task now.
    void scheduleTask() override;
    // Stops a running timer and runs the task now.
    void taskRunFromTest() override;
    // TaskImpl's bits plus timer (always) and timerRunning.
    TaskStat::TaskStatus taskStatus() const override;

    // Replaces any running timer; zero queues now, never stops.
    void scheduleTaskDelay(TaskTimeDuration delay);
    void scheduleTaskDelay(double seconds);
    // Only ever brings the run forward: a queued task, or a timer due no
    // later than the delay, is left alone. Never as a duration is an
    // assertion.
    void scheduleTaskLowestDelay(TaskTimeDuration delay);
    void scheduleTaskLowestDelay(double seconds);
    // As scheduleTaskDelay at delay plus or minus a random offset of up to
    // maxJitterPercentage (at most 100) percent of it, drawn from the root.
    void scheduleTaskJitterUp(TaskTimeDuration delay, uint8_t maxJitterPercentage);
    void scheduleTaskJitterUp(double seconds, uint8_t maxJitterPercentage);
    void scheduleTaskJitterDown(TaskTimeDuration delay, uint8_t maxJitterPercentage);
    void scheduleTaskJitterDown(double seconds, uint8_t maxJitterPercentage);
    // Stops the timer and takes the task off its queue.
    void stopTimerTask();

    bool timerRunning() const noexcept { return timerRunning_; }
    // Seconds until the timer fires; 0.0 once due, +infinity when not running.
    double timerRemaining() const { return remainingTimeout(); }
    // Kelvo::time() now when queued, +infinity when no timer runs, else the
    // timer's expiry.
    double currentExpirationTime() const;

  private:
    // The wheel event fired: queue now.
    void timeout() override;
    void scheduleAfter(double seconds, bool force);
    void scheduleJitter(TaskTimeDuration delay, uint8_t percentage, bool up);
    void scheduleJitter(double seconds, uint8_t percentage, bool up);
    // The offset, in delay's unit, for a jitter of up to percentage percent.
    double jitterOffset(double delay, uint8_t percentage);
    // Stops a running timer, recording it; false when none ran.
    bool timerStop();
    TimerWheel& wheel() const;

    bool timerRunning_ = false;
};

// ---------------------------------------------------------------------------
// Descriptor tasks

// Readiness of one descriptor turned into scheduled work. The task watches its
// descriptor through an event-loop FdControl; readability schedules an inner
// read task and writability an inner write task, which run the user's
// taskExecuteReadable() / taskExecuteWritable() at the task's priority, each
// with its own statistics (named "<name>:read", "<name>:write"). Readability
// is watched continuously; writability is one-shot: a writer with more to
// write calls taskWatchWritableIs(true) again from inside its run.
//
// Thread: the scheduler's thread only. Ownership: hold it by std::shared_ptr
// (an inner run takes a share of it, so it survives a run that drops its last
// outside reference; an unshared one never runs). It owns its control and its
// inner tasks; the inner tasks point back to it without a share, and its
// destructor cuts that link before it releases them.
class KELVO_EXPORT FileDescriptorTask : public _TaskBase, public Platform::FdEventHandler {
  public:
    class ReadWriteTaskBase;
    class ReadTask;
    class WriteTask;

    FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                       const String& name);
    FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, const String& name);
    ~FileDescriptorTask() override;

    // The owner's stats name; the inner tasks get name + ":read" / ":write".
    void taskStatsNameIs(const String& name) override;
    // Either inner task is queued.
    bool taskScheduled() const override;
    // These three act on the inner task that is running: call them only from
    // inside taskExecuteReadable() or taskExecuteWritable().
    bool taskShouldYield() const override;
    void taskWorkCountInc(unsigned long n) override;
    void taskWorkPendingIs(unsigned n) override;

    virtual void taskExecuteReadable() = 0;
    virtual void taskExecuteWritable() = 0;

    // Notifications from the control: schedule the matching inner task. A
    // notification for a direction not watched, or for another descriptor,
    // fails an assertion.
    void readFdEvent(int fd) override;
    void writeFdEvent(int fd) override;

    int taskWatchFd() const;
    // Another descriptor unschedules both inner tasks, then watches fd.
    void taskWatchFdIs(int fd);
    // Unschedules both inner tasks and stops watching (the fd stays open).
    void taskWatchFdDel();
    bool taskWatchReadable() const noexcept { return watchReadable_; }
    // Turning it off unschedules the read task.
    void taskWatchReadableIs(bool watch);
    bool taskWatchWritable() const noexcept { return watchWritable_; }
    // Creates the write task on first use; turning it off unschedules it.
    void taskWatchWritableIs(bool watch);
    void scheduleTaskReadable();
    void scheduleTaskWritable();

    // Per-direction figures; the Writable ones read 0 while there is no
    // write task. The high-water marks are 0xFFFFFFFF until first counted.
    uint64_t taskWorkCountReadableTotal() const;
    float taskWorkCountReadableDecayAvg() const;
    uint32_t taskWorkCountReadableHighWaterMark() const;
    uint32_t taskWorkPendingReadable() const;
    uint32_t taskWorkPendingReadableHighWaterMark() const;
    uint32_t taskRunCountReadable() const;
    uint64_t taskWorkCountWritableTotal() const;
    float taskWorkCountWritableDecayAvg() const;
    uint32_t taskWorkCountWritableHighWaterMark() const;
    uint32_t taskWorkPendingWritable() const;
    uint32_t taskWorkPendingWritableHighWaterMark() const;
    uint32_t taskRunCountWritable() const;
    // Both directions.
    uint32_t taskRunCount() const { return taskRunCountReadable() + taskRunCountWritable(); }
    void taskWorkCountReadableInc(unsigned long n);
    void taskWorkPendingReadableIs(unsigned n);
    // These two fail an assertion while there is no write task.
    void taskWorkCountWritableInc(unsigned long n);
    void taskWorkPendingWritableIs(unsigned n);

    // Applied to both inner tasks (and copied to a write task created later);
    // read back from the read task.
    void taskQuantumIs(TaskTimeDuration quantum);
    TaskTimeDuration taskQuantum() const;
    void taskSuspendedIs(bool suspended);
    bool taskSuspended() const;
    void taskTestYieldRatioIs(uint8_t ratio);
    uint8_t taskTestYieldRatio() const;
    void taskForceYieldInTestIs(bool on) { taskTestYieldRatioIs(on ? 1 : 0); }
    bool taskForceYieldInTest() const { return taskTestYieldRatio() == 1; }

    // The inner tasks (the write task is null until first needed), for
    // statistics and tests.
    TaskImpl* readTask() const noexcept;
    TaskImpl* writeTask() const noexcept;

  private:
    void construct();
    void checkCreateWriteTask();
    // Runs one user operation with task as the executing task.
    void executeAs(TaskImpl* task, void (FileDescriptorTask::*operation)());
    TaskImpl& executing() const;

    bool watchReadable_ = false;
    bool watchWritable_ = false;
    std::shared_ptr<Platform::FdControl> control_;
    std::shared_ptr<ReadTask> readTask_;
    std::shared_ptr<WriteTask> writeTask_;
    // The inner task inside its taskExecute(), else null.
    TaskImpl* executing_ = nullptr;
};

}  // namespace Kelvo

template <>
struct fmt::formatter<Kelvo::TaskPriority> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(Kelvo::TaskPriority priority, Context& context) const -> decltype(context.out()) {
        if (!priority.valid()) {
            return fmt::format_to(context.out(), "invalidPriority={}",
                                  static_cast<int>(priority.value()));
        }
        return fmt::formatter<fmt::string_view>::format(priority.toStrep(), context);
    }
};

// A task prints as its name.
template <typename T>
requires std::is_base_of_v<Kelvo::_TaskBase, T>
struct fmt::formatter<T> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(const T& task, Context& context) const -> decltype(context.out()) {
        return fmt::formatter<fmt::string_view>::format(task.taskName(), context);
    }
};
