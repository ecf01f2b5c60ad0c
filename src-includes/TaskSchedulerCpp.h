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
#include <cstdint>
#include <memory>
#include <ostream>
#include <utility>

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
class TaskSchedulerRoot;
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

        explicit Ring(unsigned capacity) : slots_(capacity) {}

        size_t size() const noexcept { return size_; }
        size_t capacity() const noexcept { return slots_.size(); }
        bool empty() const noexcept { return size_ == 0; }
        bool full() const noexcept { return size_ == slots_.size(); }
        // The i-th newest event, i < size().
        const Event& operator[](size_t i) const noexcept {
            const size_t slot = front_ + i;
            return slots_[slot < slots_.size() ? slot : slot - slots_.size()];
        }
        const Event& front() const noexcept { return (*this)[0]; }
        const Event& back() const noexcept { return (*this)[size_ - 1]; }
        const_iterator begin() const noexcept { return {this, 0}; }
        const_iterator end() const noexcept { return {this, size_}; }

      private:
        friend class TaskSchedulerHistory;

        std::vector<Event> slots_;
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
        const size_t capacity = events_.slots_.size();
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

    // Fails unless called on the root's thread (see TaskSchedulerRoot).
    void sanityCheckCurrentRunningThread() const;
    // The root's steady clock.
    TaskTimePoint steadyNow() const;

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
    TaskImpl* pickFrom(TaskRunQueue& queue, const TaskTimePoint& now);
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
    void sanityCheckCurrentRunningThread() const;
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
    void runsPerCallbackIs(unsigned n);
    unsigned runsPerCallback() const noexcept { return runsPerCallback_; }

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

  private:
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
    std::function<TaskTimePoint()> steadyClockForTest_;
};

inline TaskTimePoint TaskScheduler::steadyNow() const {
    return root_->steadyNow();
}

// The calling thread's root, created on first use ("main" on the main
// thread, else "thread:<tid>") and released at thread exit, before the
// thread's loop (whose base the root's construction created first).
KELVO_EXPORT const std::shared_ptr<TaskSchedulerRoot>& schedulerRootKelvo();
// A separate root on the calling thread.
KELVO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootKelvoNonShared(const String& name);

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
