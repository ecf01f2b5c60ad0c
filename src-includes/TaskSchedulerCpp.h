// Task schedulers: the per-thread root scheduler that runs one task per
// event-loop callback, its run queues and statistics, the history ring of
// scheduler events, and the blocking descriptor stream used by the dumps.
//
// Run queues (TaskScheduler): five, one per priority. Invariants:
//  1. A task is on a run queue exactly when its taskRunQueueLink_ is linked,
//     and then on the queue of its own priority.
//  2. enqueued - dequeued of a queue is the number of tasks on it: scheduling
//     adds one to enqueued, picking one to dequeued, unscheduling takes one
//     from enqueued.
//  3. Scheduling appends to the persistent list; picking reads the active
//     list, which is the persistent one except inside a
//     MovePersistentToTemporary / MoveTemporaryToPersistent bracket.
//  4. The scheduler "has runnable tasks" from the first schedule after idle
//     until a run finds every queue empty; while it has, a run is requested.
//  5. Every registered task is counted once in tasksPerPriority of its
//     priority, from taskRegister until taskUnregister.
//
// History: TaskSchedulerHistory is a fixed-capacity ring of the newest scheduler events
// (front = newest, back = oldest). Recording on a full ring overwrites the
// oldest event in place and allocates nothing. The history also owns the
// ConstStringCache in which every name under one root scheduler is interned;
// the cache is declared before the ring, so events (which hold names) go
// first. Thread: the root scheduler's thread only. Owned through the
// std::shared_ptr its root creates; every scheduler under the root shares it.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <iterator>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <vector>
#include <set>
#include <sstream>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <thread>
#include <utility>

#include <pthread.h>
#include <sys/types.h>
#include <time.h>

#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include "ConstStringCache.h"
#include "KelvoBase.h"
#include "PlatformCpp.h"
#include "Task.h"

namespace Kelvo {

class TaskScheduler;
class TaskSchedulerPrintContext;
class TaskSchedulerRoot;
class TaskSchedulerSnapshot;
class TimerWheel;

// Values 0 to 14 are about one task, 15 to 23 about a scheduler.
enum class TaskSchedulerEventType : uint8_t {
    schedule = 0,
    unschedule = 1,
    runStart = 2,
    runEnd = 3,
    timerStart = 4,
    timerStop = 5,
    suspendOn = 6,
    suspendOff = 7,
    scheduleSus = 8,
    frcYieldOn = 9,
    frcYieldOff = 10,
    idle = 11,
    busy = 12,
    create = 13,
    del = 14,
    schedulerIdle = 15,
    schedulerRunnable = 16,
    schedulerSuspended = 17,
    schedulerUnsuspended = 18,
    schedulerRunIgnoredWhileSuspended = 19,
    schedulerVirtualTimeOn = 20,
    schedulerVirtualTimeOff = 21,
    schedulerTestYieldRatioOn = 22,
    schedulerTestYieldRatioOff = 23,
};

// The display text ("schedule", "run start", ...); asserts on a value above 23.
KELVO_EXPORT const char* taskSchedulerEventTypeDisplay(TaskSchedulerEventType type);

class KELVO_EXPORT TaskSchedulerHistory {
  public:
    struct KELVO_EXPORT Event {
        TaskSchedulerEventType eventType{};
        TaskTimePoint time;
        // The task's history name or the scheduler's name.
        ConstStringRef name;

        const char* eventTypeDisplay() const { return taskSchedulerEventTypeDisplay(eventType); }
        // The display text padded to 12 characters, a blank, the name.
        String display() const;
    };

    // The events held, newest first: [0] and front() are the newest, back()
    // the oldest. A fixed row of capacity() slots in which the newest event's
    // slot steps back one place (wrapping) per event; slots not in use hold
    // no name.
    class KELVO_EXPORT Ring {
      public:
        class const_iterator {
          public:
            using iterator_category = std::random_access_iterator_tag;
            using value_type = Event;
            using difference_type = std::ptrdiff_t;
            using pointer = const Event*;
            using reference = const Event&;

            const_iterator() = default;
            const_iterator(const Ring* ring, size_t index) : ring_(ring), index_(index) {}

            reference operator*() const { return (*ring_)[index_]; }
            pointer operator->() const { return &(*ring_)[index_]; }
            reference operator[](difference_type n) const { return (*ring_)[index_ + n]; }
            const_iterator& operator++() { return *this += 1; }
            const_iterator operator++(int) { return std::exchange(*this, *this + 1); }
            const_iterator& operator--() { return *this -= 1; }
            const_iterator operator--(int) { return std::exchange(*this, *this - 1); }
            const_iterator& operator+=(difference_type n) {
                index_ += n;
                return *this;
            }
            const_iterator& operator-=(difference_type n) { return *this += -n; }
            friend const_iterator operator+(const_iterator it, difference_type n) {
                return it += n;
            }
            friend const_iterator operator+(difference_type n, const_iterator it) {
                return it += n;
            }
            friend const_iterator operator-(const_iterator it, difference_type n) {
                return it -= n;
            }
            friend difference_type operator-(const const_iterator& a, const const_iterator& b) {
                return difference_type(a.index_) - difference_type(b.index_);
            }
            friend bool operator==(const const_iterator& a, const const_iterator& b) {
                return a.index_ == b.index_;
            }
            friend auto operator<=>(const const_iterator& a, const const_iterator& b) {
                return a.index_ <=> b.index_;
            }

          private:
            const Ring* ring_ = nullptr;
            size_t index_ = 0;
        };
        using iterator = const_iterator;
        using value_type = Event;
        using size_type = size_t;

        explicit Ring(unsigned capacity) : slots_(capacity), capacity_(capacity) {}

        size_t size() const noexcept { return size_; }
        size_t capacity() const noexcept { return capacity_; }
        bool empty() const noexcept { return size_ == 0; }
        bool full() const noexcept { return size_ == capacity_; }
        // The i-th newest event, i < size().
        const Event& operator[](size_t i) const noexcept {
            const size_t slot = front_ + i;
            return slots_[slot < capacity_ ? slot : slot - capacity_];
        }
        const Event& front() const noexcept { return (*this)[0]; }
        const Event& back() const noexcept { return (*this)[size_ - 1]; }
        const_iterator begin() const noexcept { return {this, 0}; }
        const_iterator end() const noexcept { return {this, size_}; }

      private:
        friend class TaskSchedulerHistory;

        std::vector<Event> slots_;
        // slots_.size(), kept apart: recording reads it twice an event, and
        // the vector's size costs a division by the slot size.
        size_t capacity_;
        size_t front_ = 0;  // the newest event's slot
        size_t size_ = 0;
    };

    // Capacity 0 records nothing.
    explicit TaskSchedulerHistory(unsigned capacity);
    TaskSchedulerHistory(const TaskSchedulerHistory&) = delete;
    TaskSchedulerHistory& operator=(const TaskSchedulerHistory&) = delete;

    // Records an event about a task (types 0 to 14) or a scheduler (15 to 23).
    void insert(const TaskTimePoint& when, TaskSchedulerEventType type, const _TaskBase* task);
    void insert(const TaskTimePoint& when, TaskSchedulerEventType type,
                const TaskScheduler* scheduler);
    // Records an event about whatever name names; the kind checks are the
    // caller's. On a full ring the new event takes the oldest one's slot.
    void insert(const TaskTimePoint& when, TaskSchedulerEventType type,
                const ConstStringRef& name) {
        const size_t capacity = events_.capacity_;
        if (capacity == 0) {
            return;
        }
        size_t& front = events_.front_;
        front = (front == 0 ? capacity : front) - 1;
        Event& slot = events_.slots_[front];
        slot.eventType = type;
        slot.time = when;
        // A busy task's events follow one another, so the slot often names
        // the same string already: its reference then stays as it is.
        if (slot.name.elem() != name.elem()) {
            slot.name = name;
        }
        if (events_.size_ < capacity) {
            ++events_.size_;
        }
    }

    unsigned capacity() const noexcept { return static_cast<unsigned>(events_.capacity()); }
    size_t size() const noexcept { return events_.size(); }
    // A new ring of capacity n keeps the min(size, n) newest events.
    void capacityIs(unsigned n);
    void clear() noexcept;
    // Newest first.
    const Ring& events() const noexcept { return events_; }

    // The text dump: a header, a rule, one line per event from the newest,
    // each flushed, and an empty line.
    void renderText(std::ostream& out) const;

    ConstStringCache& stringCache() noexcept { return stringCache_; }

  private:
    ConstStringCache stringCache_;
    Ring events_;
};

// A std::ostream writing to a descriptor through a 4096-byte buffer. The
// descriptor must be blocking (a non-blocking one fails an assertion); it is
// closed with the stream only when closeFd is true. Thread: its user's.
class KELVO_EXPORT FdToStream : public std::ostream {
  public:
    static constexpr size_t bufferSize = 4096;

    FdToStream(int fd, bool closeFd);
    ~FdToStream() override;

  private:
    boost::iostreams::stream_buffer<boost::iostreams::file_descriptor_sink> buffer_;
};

using TaskRunQueueList = List<TaskImpl, ListLinkNode, &TaskImpl::taskRunQueueLink_>;
using TaskRegistry = BookmarkList<TaskImpl, BookmarkListLinkNode, &TaskImpl::taskRegisteredLink_>;

// The run queue of one priority (invariants 2 and 3 above).
struct KELVO_EXPORT TaskRunQueue {
    TaskRunQueue() = default;
    TaskRunQueue(const TaskRunQueue&) = delete;
    TaskRunQueue& operator=(const TaskRunQueue&) = delete;

    TaskRunQueueList persistent;
    TaskRunQueueList temporary;
    TaskRunQueueList* active = &persistent;
    // Picks from this queue since a lower priority last had a turn.
    uint32_t consecutivePicks = 0;
    uint64_t enqueued = 0;
    uint64_t dequeued = 0;
};
using TaskRunQueues = std::array<TaskRunQueue, TaskPriority::oneBeyondLast>;

// The queue figures of one priority.
struct KELVO_EXPORT TaskSchedulerPriorityStats {
    TaskPriority priority;
    uint32_t runnableTasks = 0;
    uint32_t idleTasks = 0;
    uint32_t completedTasks = 0;
    // Runs since the last clear of statistics, truncated to 32 bits.
    uint32_t totalRunCount = 0;

    // Priorities must match.
    TaskSchedulerPriorityStats& operator+=(const TaskSchedulerPriorityStats& other);
};

// Per-priority figures, ascending priority.
struct KELVO_EXPORT TaskSchedulerQueueStats : std::map<TaskPriority, TaskSchedulerPriorityStats> {
    // Adds into entries of the same priority, copies the others in.
    TaskSchedulerQueueStats& operator+=(const TaskSchedulerQueueStats& other);
};

// The tasks of one thread in five run queues, run one at a time when the
// scheduler is driven; also their registry, the completed-task statistics
// and the scheduler's own counters. The root scheduler drives itself from
// its event loop; task groups (nested schedulers) are driven by a parent
// task. Thread: the root's thread only (checked on schedule, unschedule and
// registration). Owned by std::shared_ptr: every task holds a share of its
// scheduler.
class KELVO_EXPORT TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
  public:
    static constexpr TaskTimeDuration defaultQuantum = std::chrono::milliseconds(20);

    TaskScheduler(const TaskScheduler&) = delete;
    TaskScheduler& operator=(const TaskScheduler&) = delete;

    // True while an incremental statistics reset is under way.
    virtual bool resetStatsInProgress() const;
    // Arranges for handleSchedulerRun() to be called soon.
    virtual void requestSchedulerRun() = 0;
    // The set of tasks forcing yields in tests changed.
    virtual void handleTaskForceYieldInTest() = 0;
    // Links the task into the registry and counts it (invariant 5).
    virtual void taskRegister(TaskImpl* task);
    virtual ~TaskScheduler();

    const String& name() const noexcept { return name_.str(); }
    const ConstStringRef& nameRef() const noexcept { return name_; }
    TaskSchedulerRoot* root() const noexcept { return root_; }
    const std::shared_ptr<TaskSchedulerHistory>& history() const noexcept { return history_; }
    const TaskRegistry& registeredTasks() const noexcept { return registry_; }
    // The task being run, or null.
    TaskImpl* currentTask() const noexcept { return currentTask_; }

    // Folds the task's statistics into the completed ones and unlinks it.
    void taskUnregister(TaskImpl* task);

    // Runs at most one task: picks the most urgent by the weighted rule, runs
    // it, requests the next run; goes idle when nothing is queued.
    void handleSchedulerRun();
    // The next task from priority down to scavenge, unlinked; null when none.
    TaskImpl* pickOneTask(const TaskTimePoint& now, TaskPriority priority);
    // Whether a queue of priority p picked n times in a row yields a turn to
    // the lower ones: only high and normal do, when n times the weighted
    // count queued below exceeds their own weighted count.
    bool attemptLowerPriorityBump(TaskPriority p, uint32_t n) const;
    // Runs the picked task; returns the steady time at its end.
    TaskTimePoint taskDoRun(TaskImpl& task, const TaskTimePoint& now);

    void schedulerHasRunnableTasksIs(bool runnable, const TaskTimePoint& now);
    bool schedulerHasRunnableTasks() const noexcept { return hasRunnableTasks_; }
    uint32_t runnableTaskCount(TaskPriority priority) const;
    uint32_t runnableTaskCount() const;
    uint32_t runTaskCount(TaskPriority priority) const;
    uint32_t tasksPerPriority(TaskPriority priority) const;
    uint32_t completedTasksPerPriority(TaskPriority priority) const;
    TaskSchedulerQueueStats queueStats() const;
    const TaskRunQueue& runQueue(TaskPriority priority) const;

    // Only tasks queued before the first call can be picked until the second.
    void taskRunQueuesMovePersistentToTemporary();
    void taskRunQueuesMoveTemporaryToPersistent();

    TaskTimeDuration defaultTaskQuantum() const noexcept { return defaultQuantum_; }
    void defaultTaskQuantumIs(TaskTimeDuration quantum) noexcept { defaultQuantum_ = quantum; }
    TaskTimeDuration maxSchedulerSlip() const noexcept { return maxSchedulerSlip_; }
    TaskTimePoint lastRequestTime() const noexcept { return lastRequestTime_; }
    TaskTimePoint runStart() const noexcept { return runStart_; }

    // Appends one record per registered task (or completed-task entry); with
    // includeNoRuns false, tasks that never ran are left out and counted.
    unsigned getTaskStats(std::vector<TaskStat>* stats, bool includeNoRuns) const;
    unsigned getCompletedTaskStats(std::vector<TaskStat>* stats, bool includeNoRuns) const;
    void completedTaskStatsInc(const ConstStringRef& name, TaskStat stat);
    void updateCompletedTaskStats(TaskImpl* task);
    // Clears the scheduler-wide statistics and every task's at once.
    void clearStats();
    // The same, a few tasks per run of a reset task, yielding between them.
    void resetStats();
    void checkSchedulerLatency(const TaskTimePoint& now);

    // After a change of the root's virtual time or test-yield ratio.
    void taskShouldYieldModeReevaluateAll();
    // Keeps the set of tasks with a non-zero effective test-yield ratio.
    void taskForceYieldInTestNotify(TaskImpl* task, bool on);
    size_t forceYieldTaskCount() const noexcept { return forceYieldTasks_.size(); }

    // The asynchronous JSON report (SnapshotRenderJsonTask, at the end of this
    // header): writes the snapshots as one document to fd, which it makes
    // non-blocking and closes when done, then calls done. The shorter forms
    // call nothing. The scheduler keeps each writer alive until it finishes.
    class SnapshotRenderJsonTask;
    class SnapshotWriteJsonTask;
    using SnapshotList = std::vector<std::shared_ptr<const TaskSchedulerSnapshot>>;
    void snapshotRenderJsonAsync(int fd, SnapshotList snapshots, std::function<void()> done);
    void snapshotRenderJsonAsync(int fd, SnapshotList snapshots);
    void snapshotRenderJsonAsync(int fd, std::shared_ptr<const TaskSchedulerSnapshot> snapshot);
    // The writers under way.
    const std::unordered_set<std::shared_ptr<SnapshotRenderJsonTask>>& snapshotRenderTasks()
        const noexcept {
        return snapshotRenderTasks_;
    }

    // Fails unless called on the root's thread (see TaskSchedulerRoot).
    void sanityCheckCurrentRunningThread() const;
    // The root's steady clock.
    TaskTimePoint steadyNow() const;

    // Reports (see TaskSchedulerSnapshot). snapshot() runs on the root's
    // thread only; name empty means the scheduler's own name; historyCount
    // limits the history entries copied (UINT_MAX: all).
    std::shared_ptr<const TaskSchedulerSnapshot> snapshot(const String& name, bool includeNoRuns,
                                                          bool includeCompleted,
                                                          bool includeHistory,
                                                          unsigned historyCount) const;
    // A whole JSON document of this scheduler (and its task groups).
    void statsRenderJson(std::ostream& out, bool includeNoRuns, bool includeCompleted,
                         bool includeHistory) const;
    String statsRenderJsonToString(bool includeNoRuns, bool includeCompleted,
                                   bool includeHistory) const;
    // The descriptor must be blocking; it is left open.
    void statsRenderJsonToBlockingFdForTest(int fd, bool includeNoRuns, bool includeCompleted,
                                            bool includeHistory) const;
    // A print context over out, which must outlive it.
    static std::shared_ptr<TaskSchedulerPrintContext> PrintContextIs(std::ostream& out);
    // 1 is standard output, 2 standard error, any other a blocking descriptor
    // that the context closes when it goes only if closeFd is set.
    static std::shared_ptr<TaskSchedulerPrintContext> PrintContextIs(int fd, bool closeFd);

  protected:
    TaskScheduler(const String& name, TaskSchedulerRoot* root,
                  std::shared_ptr<TaskSchedulerHistory> history);

    // How one run ended, for drivers that run several per turn.
    enum class RunOutcome : uint8_t { idle, suspended, ran, usedQuantum };
    // One run; the follow-up run request is made only when asked for (and
    // always when the task throws). start, when given, is a steady time read
    // just before (the end of the previous run of a batch) and saves a clock
    // read; the run's end time is stored back into it. A run without the
    // follow-up request that returns ran is the middle of a batch: the next
    // runOne must follow at once, and may reuse the task's run reference. A
    // batch ends with a run that requests its follow-up or does not return ran.
    RunOutcome runOne(bool requestFollowUp, TaskTimePoint* start = nullptr);
    // Up to runs runs in a row, as one loop callback: stops after a run that
    // used its quantum (requesting the next callback) or found nothing to run.
    void runBatch(unsigned runs);
    // Requests the next run, stamping its request time.
    void requestRunAfter(const TaskTimePoint& end);
    // Ends a reset under way (the reset task goes); called by destructors
    // while the whole scheduler is still there for the task's unregister.
    void dropResetTask();

  private:
    friend class TaskImpl;
    class ResetStatsTask;

    void runQueueAppend(TaskImpl& task, const TaskTimePoint& now);
    void runQueueUnlink(TaskImpl& task, const TaskTimePoint& now);
    // The bodies of pickOneTask and runOne, defined where the run path uses them.
    inline TaskImpl* pick(const TaskTimePoint& now, unsigned first);
    inline RunOutcome runOneInline(bool requestFollowUp, TaskTimePoint* start);
    void clearStatsCommon();
    void handleResetStatsTaskRun(TaskImpl& resetTask);
    TaskRunQueue& queueOf(TaskPriority priority);

    ConstStringRef name_;
    TaskSchedulerRoot* root_;
    std::shared_ptr<TaskSchedulerHistory> history_;
    TaskRegistry registry_;
    TaskRunQueues runQueues_;
    TaskTimePoint lastRequestTime_;
    TaskTimePoint runStart_;
    TaskTimeDuration defaultQuantum_ = defaultQuantum;
    TaskTimeDuration maxSchedulerSlip_{0};
    std::array<uint32_t, TaskPriority::oneBeyondLast> tasksPerPriority_{};
    std::array<uint32_t, TaskPriority::oneBeyondLast> completedTasksPerPriority_{};
    bool hasRunnableTasks_ = false;
    // Held for the length of one run only; currentTaskRef_ keeps a shared
    // task alive through it (and, within a batch, between its runs).
    TaskImpl* currentTask_ = nullptr;
    std::shared_ptr<_TaskBase> currentTaskRef_;
    std::unordered_map<ConstStringRef, TaskStat> completedTaskStats_;
    std::array<uint64_t, TaskPriority::oneBeyondLast> runCountAtClear_{};
    std::shared_ptr<ResetStatsTask> resetTask_;
    TaskRegistry::Bookmark resetBookmark_;
    std::unordered_set<TaskImpl*> forceYieldTasks_;
    // Each writer holds a share of this scheduler, so the set is empty when
    // the scheduler goes.
    std::unordered_set<std::shared_ptr<SnapshotRenderJsonTask>> snapshotRenderTasks_;
};

// The scheduler that owns a thread: a CallbackHandler of that thread's event
// loop that requests a deferred callback whenever it has runnable tasks and
// runs one task per callback (or up to runsPerCallback(), see below). It
// holds the thread's history ring (100 events) and a timer wheel for timer
// tasks.
//
// Thread: the constructing thread only; public task operations called on
// another thread fail with "Executing in wrong thread ..." (unless thread
// sanity is disabled or auxiliary threads are registered). The owner fields
// read by that check are written once, at construction.
//
// Ownership: std::shared_ptr; every task and nested scheduler holds a share.
// The callback control and timer wheel are obtained from the thread's loop in
// the constructor, so the loop's base exists before any root of the thread
// and outlives the thread-local root of schedulerRootKelvo().
class KELVO_EXPORT TaskSchedulerRoot : public TaskScheduler, private Platform::CallbackHandler {
  public:
    static constexpr unsigned defaultHistoryEntryCount = 100;

    // A new root on the calling thread.
    static std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs(const String& name);
    // Use TaskSchedulerRootIs; public only for shared allocation.
    explicit TaskSchedulerRoot(const String& name);
    ~TaskSchedulerRoot() override;

    bool resetStatsInProgress() const override;
    // Requests the loop's deferred callback, unless suspended.
    void requestSchedulerRun() override;
    void handleTaskForceYieldInTest() override {}
    // The loop's entry: handleSchedulerRun(), up to runsPerCallback() times.
    void callback() override;
    // Adopts the loop's fast-forward setting (main thread), then runs once.
    void handleSchedulerRun();

    void registerScheduler(TaskScheduler* scheduler);
    void unregisterScheduler(TaskScheduler* scheduler);
    const std::set<TaskScheduler*>& schedulers() const noexcept { return schedulers_; }
    // The registered schedulers other than the root: its task groups.
    size_t taskGroupCount() const noexcept { return schedulers_.size() - 1; }

    // A suspended root ignores (and records) runs but still queues tasks.
    void suspendedIs(bool suspended);
    bool suspended() const noexcept { return suspended_; }
    // Tasks measure their quantum on Kelvo::time() instead of the steady clock.
    void virtualTimeIs(bool virtualTime);
    bool virtualTime() const noexcept { return virtualTime_; }
    void threadSanityDisabledIs(bool disabled) noexcept { threadSanityDisabled_ = disabled; }
    bool threadSanityDisabled() const noexcept { return threadSanityDisabled_; }
    // The test-yield ratio of tasks that have none of their own.
    void taskTestYieldRatioIs(uint8_t ratio);
    uint8_t taskTestYieldRatio() const noexcept { return testYieldRatio_; }
    // 0 to 100, from rand_r on the root's seed.
    unsigned randomPercent();
    void sanityCheckCurrentRunningThread() const {
        // The owner test inline: it is the common case, on every schedule.
        if (__builtin_expect(static_cast<unsigned long>(pthread_self()) != ownerThread_, 0)) {
            sanityCheckOtherThread();
        }
    }
    bool isMainThread() const noexcept { return isMainThread_; }
    double virtualRunStart() const noexcept { return virtualRunStart_; }
    void virtualRunStartIs(double start) noexcept { virtualRunStart_ = start; }
    const std::shared_ptr<TimerWheel>& timerWheel() const noexcept { return timerWheel_; }

    // Batched runs. Each callback runs up to n tasks, stopping early at the
    // first task that used its whole quantum or when nothing is runnable, and
    // requests the next callback once at the end. n = 1 (the default) is one
    // task per loop pass. A larger n saves a loop pass (an epoll_wait and a
    // timer re-arm) per task, which dominates the cost of tiny tasks, at the
    // price of delaying descriptor and timer events by up to n tasks' run
    // time (at most n quanta).
    //
    // With n > 1 some figures are defined to save clock reads, each of which
    // costs about a fifth of a tiny task's run:
    //  - a run starts at the previous run's end within a callback;
    //  - a task queued while a run of the callback is in progress (by that
    //    run, or by a task group's member runs inside it) is stamped with
    //    that run's start, not with the time of the call: its "schedule"
    //    history event carries that time, and its scheduling latency counts
    //    from it, so it includes the rest of the run that queued it.
    // With n = 1 every time is read when its event happens.
    void runsPerCallbackIs(unsigned n);
    unsigned runsPerCallback() const noexcept { return runsPerCallback_; }
    // The time stamped on a task queued now (see runsPerCallbackIs).
    TaskTimePoint scheduleStamp() const { return inBatch_ ? runStart() : steadyNow(); }

    unsigned historyEntryCount() const noexcept;
    void historyEntryCountIs(unsigned n);
    void clearHistory();
    void historyRenderTextForDebug(std::ostream& out) const;
    // The descriptor must be blocking; it is left open.
    void historyRenderTextForDebug(int fd) const;
    String historyRenderTextForDebugToString() const;
    void historyRenderTextForDebugStdErr() const;

    // Replaces the steady clock of this root's runs and tasks (null: the
    // real one), so tests can place run lengths exactly.
    void steadyClockIsForTest(std::function<TaskTimePoint()> clock) {
        steadyClockForTest_ = std::move(clock);
    }
    TaskTimePoint steadyNow() const {
        if (__builtin_expect(static_cast<bool>(steadyClockForTest_), 0)) {
            return steadyClockForTest_();
        }
        // The steady clock read as std::chrono::steady_clock::now() reads it,
        // without the call into the C++ runtime: every run reads it twice.
        timespec ts;
        ::clock_gettime(CLOCK_MONOTONIC, &ts);
        return TaskTimePoint(std::chrono::seconds(ts.tv_sec) +
                             std::chrono::nanoseconds(ts.tv_nsec));
    }

    // The text report of every scheduler of this root, merged: per-priority
    // counts, the run-loop slip, a legend and a table of tasks, heaviest
    // first. includeNoRuns keeps tasks that never ran (otherwise counted as
    // skipped), showAddress appends each live task's TaskKey to its name,
    // includeCompleted adds the table of finished tasks, includeHistory
    // appends the history dump. Checks the calling thread. When a task's
    // work-count high water is unset (it never reported work), its three
    // work-count cells (total, average, high water) are blank; likewise its
    // two pending cells when the pending high water is unset. A reported 0
    // thus reads apart from "never reported".
    void statsRenderTextForDebug(std::ostream& out, bool includeNoRuns, bool showAddress,
                                 bool includeCompleted, bool includeHistory) const;
    // The descriptor must be blocking; it is left open.
    void statsRenderTextForDebug(int fd, bool includeNoRuns, bool showAddress,
                                 bool includeCompleted, bool includeHistory) const;
    String statsRenderTextForDebugToString(bool includeNoRuns, bool showAddress,
                                           bool includeCompleted, bool includeHistory) const;
    // Everything the report can show, for a debugger's call: every task with
    // its address, the completed tasks and the history.
    void statsRenderTextForDebugStdErr() const;
    // queueStats() of every scheduler of this root, summed.
    TaskSchedulerQueueStats queueStatsRoot() const;

  private:
    // Passes on a thread other than the owner only when thread sanity is
    // disabled, auxiliary threads are registered, or in a forked child.
    void sanityCheckOtherThread() const;

    std::set<TaskScheduler*> schedulers_;
    std::shared_ptr<Platform::CallbackControl> callbackControl_;
    std::shared_ptr<TimerWheel> timerWheel_;
    unsigned long ownerThread_;
    pid_t ownerPid_;
    char ownerThreadName_[16] = {};
    bool threadSanityDisabled_ = false;
    bool suspended_ = false;
    bool virtualTime_ = false;
    bool isMainThread_ = false;
    uint8_t testYieldRatio_ = 0;
    unsigned seed_ = 0;
    double virtualRunStart_ = 0.0;
    unsigned runsPerCallback_ = 1;
    // True inside a batched callback: runStart() is the run in progress's.
    bool inBatch_ = false;
    std::function<TaskTimePoint()> steadyClockForTest_;
};

inline TaskTimePoint TaskScheduler::steadyNow() const {
    return root_->steadyNow();
}

inline void TaskScheduler::sanityCheckCurrentRunningThread() const {
    root_->sanityCheckCurrentRunningThread();
}

inline void TaskScheduler::runQueueAppend(TaskImpl& task, const TaskTimePoint& now) {
    // Registration has checked the priority, and it never changes.
    TaskRunQueue& queue = runQueues_[task.taskPriority().value()];
    task.enqueueTime_ = now;
    queue.persistent.pushBack(task);
    ++queue.enqueued;
}

// A task group: tasks that behave towards the enclosing scheduler as one task,
// so that a family of tasks takes at most one task's share of the thread and
// shows in statistics as one. The group is a scheduler of its own (members
// keep their priorities and the weighted pick among themselves), driven by a
// parent task "TaskGroup;<name>" queued in the enclosing scheduler at the
// group priority. One run of the parent, a turn, runs members until the
// parent's quantum (the group quantum) is used or none is left to pick.
//
// Invariants, between turns:
//  1. The parent task is queued exactly when the group has runnable members
//     (unless the parent is suspended).
//  2. With multiple runs not permitted, a turn picks only members queued when
//     it began, so each runs at most once per turn; one queued during a turn
//     waits for the next, behind those the turn left over.
//  3. The root's virtual run start is the parent's during a turn between
//     member runs, so the parent's quantum counts from the turn's start.
//
// Statistics: a reset of the enclosing scheduler's clears the group's at once
// (clearStats). The group's own resetStats() runs a reset task at normal
// priority, which a group enforcing another priority refuses.
//
// Thread: the root's thread only, as every scheduler.
//
// Ownership: shared (TaskGroupIs). Members hold a share of their group, as
// every task does of its scheduler: a group whose last outside reference is
// dropped keeps running its members and goes with the last of them. The group
// owns its parent task and a share of the enclosing scheduler; the parent
// points back without owning, so a parent task kept beyond its group by
// someone else does nothing when run.
class KELVO_EXPORT TaskGroup : public TaskScheduler {
  public:
    class KELVO_EXPORT ParentTask final : public Task {
      public:
        // Made by the group; public only for shared allocation.
        ParentTask(const std::shared_ptr<TaskScheduler>& enclosing, TaskPriority priority,
                   TaskGroup* group);
        // One turn of the group.
        void taskExecute() override;
        // Clears the group's statistics with the parent's.
        void handleResetStats() override;
        // Null once the group is gone.
        TaskGroup* group() const noexcept { return group_; }

      private:
        friend class TaskGroup;
        TaskGroup* group_;
    };

    static std::shared_ptr<TaskGroup> TaskGroupIs(const String& name, TaskPriority priority,
                                                  bool enforcePriority,
                                                  const std::shared_ptr<TaskScheduler>& enclosing);
    // Use TaskGroupIs; public only for shared allocation.
    TaskGroup(const String& name, TaskPriority priority, bool enforcePriority,
              const std::shared_ptr<TaskScheduler>& enclosing);
    ~TaskGroup() override;

    // Queues the parent task.
    void requestSchedulerRun() override;
    // The parent forces yields while a member or the group itself does.
    void handleTaskForceYieldInTest() override;
    // With enforcement on, members must have the group priority.
    void taskRegister(TaskImpl* task) override;

    const std::shared_ptr<ParentTask>& parentTask() const noexcept { return parentTask_; }
    const std::shared_ptr<TaskScheduler>& enclosingScheduler() const noexcept { return enclosing_; }
    TaskPriority taskGroupPriority() const noexcept { return priority_; }
    bool enforceGroupPriority() const noexcept { return enforcePriority_; }

    // The parent task's quantum, with the bounds of taskQuantumIs and
    // taskQuantumNoCheckIs.
    TaskTimeDuration taskGroupQuantum() const noexcept { return parentTask_->taskQuantum(); }
    void taskGroupQuantumIs(TaskTimeDuration quantum) { parentTask_->taskQuantumIs(quantum); }
    void taskGroupQuantumNoCheckIs(TaskTimeDuration quantum) {
        parentTask_->taskQuantumNoCheckIs(quantum);
    }

    // Whether a member may run more than once in a turn (invariant 2); read
    // at the start of each turn.
    bool tasksPermittedMultipleRuns() const noexcept { return tasksPermittedMultipleRuns_; }
    void tasksPermittedMultipleRunsIs(bool permitted) noexcept {
        tasksPermittedMultipleRuns_ = permitted;
    }
    uint32_t parentTaskRunCount() const noexcept { return parentTask_->taskRunCount(); }
    bool parentTaskScheduled() const noexcept { return parentTask_->taskScheduled(); }

    // Makes the parent task yield after every member run.
    bool taskGroupForceYieldInTest() const noexcept { return forceYieldInTest_; }
    void taskGroupForceYieldInTestIs(bool on);

  private:
    void runTurn(ParentTask& parent);

    std::shared_ptr<ParentTask> parentTask_;
    std::shared_ptr<TaskScheduler> enclosing_;
    TaskPriority priority_;
    bool enforcePriority_;
    bool forceYieldInTest_ = false;
    bool tasksPermittedMultipleRuns_ = true;
};

// The calling thread's root, created on first use ("main" on the main
// thread, else "thread:<tid>") and released at thread exit, before the
// thread's loop (whose base the root's construction created first).
KELVO_EXPORT const std::shared_ptr<TaskSchedulerRoot>& schedulerRootKelvo();
// A separate root on the calling thread.
KELVO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootKelvoNonShared(const String& name);

// ---------------------------------------------------------------------------
// Snapshots and the JSON report
//
// Reporting is split so that the expensive half can leave the scheduler's
// thread: TaskScheduler::snapshot() copies every figure on that thread into
// an immutable TaskSchedulerSnapshot, which any thread may then render into
// a TaskSchedulerPrintContext. The document is
//   {"schedulers":{<name>:<scheduler>,...}}
// with one member per rendered snapshot; docs/report.schema.json describes
// <scheduler>.

// One scheduler's figures and those of the task groups it drives.
//
// Thread: built on the scheduler's thread; afterwards immutable, so any
// thread may read and render it. Its task records share interned names with
// the root's string cache, whose counts are plain integers: unless the
// root's thread sanity is disabled, releasing a snapshot on another thread
// than the one that built it aborts with "Allocated by thread <id> freed by
// <id>". Ownership: handed out as std::shared_ptr<const>; it keeps the
// root's string cache alive.
class KELVO_EXPORT TaskSchedulerSnapshot {
  public:
    struct History {
        struct Entry {
            uint64_t nsSinceBoot;
            TaskSchedulerEventType eventType;
            // The task's or scheduler's name; may be empty.
            String eventId;
        };
        // The ring's capacity, not the number of entries copied.
        unsigned historyEntryCount;
        // Newest first.
        std::vector<Entry> entries;
    };
    using SubScheduler = std::pair<String, TaskSchedulerSnapshot>;

    // Use TaskScheduler::snapshot(), which checks the thread. The history is
    // taken only from a root; task groups are snapshot with the same flags.
    TaskSchedulerSnapshot(const TaskScheduler* scheduler, std::string name, bool includeNoRuns,
                          bool includeCompleted, bool includeHistory, unsigned historyCount,
                          bool threadSanityDisabled);
    TaskSchedulerSnapshot(TaskSchedulerSnapshot&&) = default;
    TaskSchedulerSnapshot& operator=(TaskSchedulerSnapshot&&) = delete;
    ~TaskSchedulerSnapshot();

    // Adds this scheduler to the context's document under name().
    void renderJson(TaskSchedulerPrintContext& context) const;

    const String& name() const noexcept { return name_; }
    const TaskSchedulerQueueStats& queueStats() const noexcept { return queueStats_; }
    TaskTimeDuration maxSchedulerSlip() const noexcept { return maxSchedulerSlip_; }
    bool isRootScheduler() const noexcept { return isRootScheduler_; }
    // Written only when set; for the snapshot's maker to set before sharing it.
    TaskMaybeU32 displayOrder() const noexcept { return displayOrder_; }
    void displayOrderIs(TaskMaybeU32 order) noexcept { displayOrder_ = order; }
    // Tasks left out because they never ran.
    unsigned skipped() const noexcept { return skipped_; }
    unsigned completedSkipped() const noexcept { return completedSkipped_; }
    const std::vector<TaskStat>& tasks() const noexcept { return tasks_; }
    const std::vector<TaskStat>& completedTasks() const noexcept { return completedTasks_; }
    // Keyed by subSchedulerKey() of the driving task, in registration order.
    const std::vector<SubScheduler>& subSchedulers() const noexcept { return subSchedulers_; }
    const std::optional<History>& history() const noexcept { return history_; }

  private:
    friend class TaskSchedulerPrintContext;

    void renderJsonImpl(TaskSchedulerPrintContext& context) const;

    // Declared first so that the names below go before their cache.
    std::shared_ptr<const TaskSchedulerHistory> nameCache_;
    String name_;
    TaskSchedulerQueueStats queueStats_;
    TaskTimeDuration maxSchedulerSlip_{0};
    bool isRootScheduler_ = false;
    bool threadSanityDisabled_ = false;
    TaskMaybeU32 displayOrder_;
    unsigned skipped_ = 0;
    unsigned completedSkipped_ = 0;
    std::vector<TaskStat> tasks_;
    std::vector<TaskStat> completedTasks_;
    std::vector<SubScheduler> subSchedulers_;
    std::optional<History> history_;
    std::thread::id builtBy_;
};

// One JSON document under construction: creating it writes the opening
// ({"schedulers":{), each TaskSchedulerSnapshot::renderJson adds a member,
// closeJson() (or the destructor) writes the closing. Text reaches the
// stream through a buffer of our own; every call leaves that buffer empty,
// so after each call the stream holds the whole document so far.
//
// Thread: one at a time. Ownership: by its creator, usually through
// TaskScheduler::PrintContextIs; it never owns a stream handed in by
// reference, and owns the descriptor stream it makes.
class KELVO_EXPORT TaskSchedulerPrintContext {
  public:
    explicit TaskSchedulerPrintContext(std::ostream& out);
    // Writes through a stream of its own, which it keeps.
    explicit TaskSchedulerPrintContext(std::unique_ptr<std::ostream> out);
    TaskSchedulerPrintContext(const TaskSchedulerPrintContext&) = delete;
    TaskSchedulerPrintContext& operator=(const TaskSchedulerPrintContext&) = delete;
    ~TaskSchedulerPrintContext();

    // Closes both objects and flushes the stream; a second call fails
    // "JSON already closed".
    void closeJson();
    bool closed() const noexcept { return closed_; }
    std::ostream& stream() const noexcept { return *out_; }

  private:
    friend class TaskSchedulerSnapshot;
    struct Json;

    std::unique_ptr<std::ostream> ownedOut_;
    std::ostream* out_;
    std::unique_ptr<Json> json_;
    bool closed_ = false;
};

// "<task name>-@<key>", the key of a task group's scheduler under its
// driving task; a record without the isTaskGroup bit fails an assertion.
KELVO_EXPORT String subSchedulerKey(const TaskStat& stat);
// "TaskSchedulerRenderJson-fd:<fd>" followed by suffix when there is one:
// the names of the tasks that write a report to fd.
KELVO_EXPORT String makeJsonTaskName(int fd, const char* suffix);

// ---------------------------------------------------------------------------
// The text report

// The text report's body (see TaskSchedulerRoot::statsRenderTextForDebug):
// completed is null when finished tasks are not reported. The tables order
// pointers to the records; the records themselves are not moved.
KELVO_EXPORT void statsRenderTextImpl(std::ostream& out, const TaskSchedulerQueueStats& queueStats,
                                      TaskTimeDuration slip, std::vector<TaskStat>* tasks,
                                      unsigned skipped, std::vector<TaskStat>* completed,
                                      unsigned completedSkipped, bool showAddress);
// One task table with its header row and, when skipped is above 0, the
// "Skipped" line; completed adds the Completed column.
KELVO_EXPORT void statsRenderTextTasks(std::ostream& out, std::vector<TaskStat>& tasks,
                                       std::string title, unsigned skipped, bool completed,
                                       bool showAddress);

// ---------------------------------------------------------------------------
// The asynchronous report writer

// The asynchronous JSON report writer, started by snapshotRenderJsonAsync().
// The render task renders one snapshot per run into its string stream and
// hands the text to its write task, which writes it with non-blocking writes
// (resuming at the exact offset after EAGAIN or EINTR, yielding when its
// quantum is used) and then schedules the render task again. So at most two
// rendered pieces are held: the one being written and the next one.
// A reader that goes away (EPIPE, ECONNRESET, EBADF) cuts the report short; the rest is
// rendered and dropped, and the writer ends as usual: it closes the
// descriptor, calls done, then removes itself from its scheduler's set, which
// owns it until then.
// Thread: the scheduler's only.
class KELVO_EXPORT TaskScheduler::SnapshotRenderJsonTask : public Task {
  public:
    // Use snapshotRenderJsonAsync(); public only for shared allocation.
    SnapshotRenderJsonTask(std::shared_ptr<TaskScheduler> scheduler, int fd,
                           SnapshotList snapshots);
    ~SnapshotRenderJsonTask() override;

    // One step: render the next snapshot, or close the document, or end.
    void taskExecute() override;
    // Moves the rendered text to the write task and starts its write.
    void writeOstrToFileDescriptor();
    // The write task has written its whole buffer.
    void writeComplete();

    int fd() const noexcept { return fd_; }
    bool finished() const noexcept { return finished_; }
    bool writeInProgress() const noexcept { return writeInProgress_; }
    const std::shared_ptr<SnapshotWriteJsonTask>& writeTask() const noexcept { return writeTask_; }

  private:
    friend class TaskScheduler;

    int fd_;
    // The closing text has been handed over.
    bool finished_ = false;
    // The write task holds a piece not yet fully written.
    bool writeInProgress_ = false;
    size_t nextIndex_ = 0;
    SnapshotList snapshots_;
    std::ostringstream ostr_;
    // Over ostr_, so the document's opening is part of the first piece.
    std::shared_ptr<TaskSchedulerPrintContext> printContext_;
    std::shared_ptr<SnapshotWriteJsonTask> writeTask_;
    std::function<void()> done_;
    std::function<void(SnapshotRenderJsonTask*)> cleanup_;
};

// Writes the pieces of its render task to the descriptor, or one buffer of
// its own user's (writeBufferIs, renderTask null); never watches readability.
// A socket is written with send(MSG_NOSIGNAL), so a reader that has gone
// raises no SIGPIPE; other descriptors with write(). Thread: the scheduler's
// only. Owned by its render task or its user.
class KELVO_EXPORT TaskScheduler::SnapshotWriteJsonTask : public FileDescriptorTask {
  public:
    SnapshotWriteJsonTask(std::shared_ptr<TaskScheduler> scheduler, int fd,
                          SnapshotRenderJsonTask* renderTask,
                          TaskPriority priority = TaskPriority::normal);

    // Starts writing buffer (not empty), then calls complete once it is
    // written or the reader has gone. The previous write must be complete.
    void writeBufferIs(String buffer, std::function<void()> complete);

    void taskExecuteReadable() override;
    // Writes until the buffer is written, the descriptor is full (writable
    // watching resumes it), a signal interrupts (rescheduled) or the quantum
    // is used (rescheduled); the last case calls the completion callback.
    void taskExecuteWritable() override;
    // Fails unless the whole buffer has been written.
    void assertWriteComplete() const;

    const String& buffer() const noexcept { return buffer_; }
    uint32_t offset() const noexcept { return offset_; }

  private:
    friend class SnapshotRenderJsonTask;

    SnapshotRenderJsonTask* renderTask_;
    bool socket_;
    String buffer_;
    uint32_t offset_ = 0;
    std::function<void()> writeComplete_;
};

}  // namespace Kelvo

// A scheduler prints as its name.
template <typename T>
requires std::is_base_of_v<Kelvo::TaskScheduler, T>
struct fmt::formatter<T> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(const T& scheduler, Context& context) const -> decltype(context.out()) {
        return fmt::formatter<fmt::string_view>::format(scheduler.name(), context);
    }
};
