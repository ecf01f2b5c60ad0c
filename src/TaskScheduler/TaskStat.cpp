// Task priorities, keys and the statistics records.
#include <Kelvo/TaskSchedulerCpp.h>

#include <cctype>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

const char* TaskPriority::toStrep() const {
    static constexpr const char* names[] = {"absolute", "high",     "normal",
                                            "low",      "scavenge", "oneBeyondLast"};
    KELVO_SCHED_ASSERTM(value_ <= oneBeyondLast, "unexpected priority value {}",
                        static_cast<int>(value_));
    return names[value_];
}

char TaskPriority::oneChar() const {
    KELVO_SCHED_ASSERTM(value_ <= oneBeyondLast, "unexpected priority {}",
                        static_cast<int>(value_));
    return "AHNLS-"[value_];
}

std::ostream& operator<<(std::ostream& out, TaskPriority priority) {
    return out << fmt::format("{}", priority);
}

String TaskKey::toStrep() const {
    return fmt::format("@{}", value);
}

TaskStat::TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, unsigned runCount,
                   TaskTimeDuration totalRunTime, unsigned long workCountTotal, float decayingAvg,
                   TaskMaybeU32 workCountHighWater, unsigned workPending,
                   TaskMaybeU32 workPendingHighWater, unsigned qv500, unsigned qv200,
                   TaskTimeDuration runTimeHighWaterMark, TaskTimeDuration lastSchedulingLatency,
                   TaskTimeDuration schedulingLatencyHighWaterMark, TaskStatus status)
    : name_(std::move(name)),
      key_(key),
      priority_(priority),
      status_(status),
      runCount_(runCount),
      totalRunTime_(totalRunTime),
      workCountTotal_(workCountTotal),
      workCountDecayingAvg_(decayingAvg),
      workCountHighWater_(workCountHighWater),
      workPending_(workPending),
      workPendingHighWater_(workPendingHighWater),
      quantumViolation500_(qv500),
      quantumViolation200_(qv200),
      runTimeHighWaterMark_(runTimeHighWaterMark),
      lastSchedulingLatency_(lastSchedulingLatency),
      schedulingLatencyHighWaterMark_(schedulingLatencyHighWaterMark) {}

String TaskStat::taskStatusString() const {
    char first = ' ';
    if (status_.taskCurrentlyRunning()) {
        first = '*';
    } else if (status_.taskSuspended()) {
        first = 'S';
    } else if (status_.taskTimer()) {
        first = status_.taskTimerRunning() ? 'T' : 't';
    }
    char second = priority_.oneChar();
    if (!status_.taskOnRunQueue()) {
        second = static_cast<char>(std::tolower(static_cast<unsigned char>(second)));
    }
    return String{first, second};
}

namespace {

// An unset high water counts as 0, so a set one of any value replaces it.
TaskMaybeU32 higherHighWater(TaskMaybeU32 mine, TaskMaybeU32 other) {
    return other.isSet() && other.valueOrZero() > mine.valueOrZero() ? other : mine;
}

}  // namespace

TaskStat& TaskStat::operator+=(const TaskStat& other) {
    KELVO_SCHED_ASSERTM(name_ == other.name_, "{} != {}", name_.str(), other.name_.str());
    runCount_ += other.runCount_;
    totalRunTime_ += other.totalRunTime_;
    workCountTotal_ += other.workCountTotal_;
    quantumViolation500_ += other.quantumViolation500_;
    quantumViolation200_ += other.quantumViolation200_;
    workCountDecayingAvg_ = other.workCountDecayingAvg_;
    workPending_ = other.workPending_;
    lastSchedulingLatency_ = other.lastSchedulingLatency_;
    status_ = other.status_;
    workCountHighWater_ = higherHighWater(workCountHighWater_, other.workCountHighWater_);
    workPendingHighWater_ = higherHighWater(workPendingHighWater_, other.workPendingHighWater_);
    runTimeHighWaterMark_ = std::max(runTimeHighWaterMark_, other.runTimeHighWaterMark_);
    schedulingLatencyHighWaterMark_ =
        std::max(schedulingLatencyHighWaterMark_, other.schedulingLatencyHighWaterMark_);
    completedCount_ += 1;
    return *this;
}

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(
    const TaskSchedulerPriorityStats& other) {
    KELVO_SCHED_ASSERTM(priority == other.priority, "{} != {}", priority, other.priority);
    runnableTasks += other.runnableTasks;
    idleTasks += other.idleTasks;
    completedTasks += other.completedTasks;
    totalRunCount += other.totalRunCount;
    return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(const TaskSchedulerQueueStats& other) {
    for (const auto& [priority, stats] : other) {
        auto [entry, inserted] = try_emplace(priority, stats);
        if (!inserted) {
            entry->second += stats;
        }
    }
    return *this;
}

}  // namespace Kelvo
