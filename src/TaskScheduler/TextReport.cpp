// The text report of a root scheduler: fixed-width tables through Boost.Format.
#include <Kelvo/TaskSchedulerCpp.h>

#include <algorithm>
#include <iostream>
#include <sstream>

#include <boost/format.hpp>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

namespace {

using boost::format;

double seconds(TaskTimeDuration d) {
    return static_cast<double>(d.count()) / 1e9;
}

// Whole milliseconds, truncated: the cut to an integer comes before the 0.5
// is added, so the addition never rounds up. The JSON report's "maxMs" is
// the same figure.
uint32_t truncatedMs(TaskTimeDuration d) {
    const auto ms = static_cast<uint32_t>(static_cast<uint64_t>(seconds(d) * 1000.0));
    return static_cast<uint32_t>(ms + 0.5);
}

// Label and text of each legend line; Completed only with the completed table.
constexpr const char* legendHead[][2] = {
    {"SP", "= Task status and priority % two characters:"},
    {"   first", "  T/t for active/idle timers, * for running task or blank"},
    {"   second", "  priority and runnable status, upper case for runnable"},
    {"RunCount", "= Number of times task has run"},
    {"TotalSec", "= Total run time in seconds"},
    {"LastDelay", "= Scheduling delay last time task ran, in seconds"},
    {"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
    {"200% 500%", "= Number of times task used this percentage of quantum"},
    {"MaxMs", "= Maximum single run time in milliseconds"},
};
constexpr const char* legendCompleted[2] = {
    "Completed", "= Number of times a task with this name has completed"};
constexpr const char* legendWork[][2] = {
    {"TotalWorkCount", "= Counter of total work units processed"},
    {"DecayAvgWorkCount", "=    exponential decaying average of work units processed"},
    {"MaxWorkCount", "=    high watermark of work units processed in one run"},
    {"LastWorkPending", "= Work units pending processing"},
    {"MaxWorkPending", "=    high watermark of work units pending processing"},
};

void legendLine(std::ostream& out, const char* const (&entry)[2]) {
    out << format("%-17s %s\n") % entry[0] % entry[1];
}

String nameCell(const TaskStat& stat, bool showAddress) {
    return showAddress ? stat.taskName() + stat.taskKey().toStrep() : stat.taskName();
}

}  // namespace

void statsRenderTextImpl(std::ostream& out, const TaskSchedulerQueueStats& queueStats,
                         TaskTimeDuration slip, std::vector<TaskStat>* tasks, unsigned skipped,
                         std::vector<TaskStat>* completed, unsigned completedSkipped,
                         bool showAddress) {
    out << format("%-8s %13s %13s %9s %15s\n") % "Priority" % "RunnableCount" % "IdleCount" %
               "DoneCount" % "TotalRunCount";
    for (unsigned p = TaskPriority::absolute; p < TaskPriority::oneBeyondLast; ++p) {
        const TaskPriority priority(p);
        const auto entry = queueStats.find(priority);
        const TaskSchedulerPriorityStats stats =
            entry != queueStats.end() ? entry->second : TaskSchedulerPriorityStats{priority};
        out << format("%-8s %13u %13u %9u %15lu\n") % priority.toStrep() % stats.runnableTasks %
                   stats.idleTasks % stats.completedTasks %
                   static_cast<uint64_t>(stats.totalRunCount);
    }
    out << format("Maximum scheduler slip %.6f seconds\n") % seconds(slip);
    for (const auto& entry : legendHead) {
        legendLine(out, entry);
    }
    if (completed) {
        legendLine(out, legendCompleted);
    }
    for (const auto& entry : legendWork) {
        legendLine(out, entry);
    }
    statsRenderTextTasks(out, *tasks, "TaskName", skipped, false, showAddress);
    if (completed) {
        statsRenderTextTasks(out, *completed, "TaskName (completed)", completedSkipped, true,
                             false);
    }
}

void statsRenderTextTasks(std::ostream& out, std::vector<TaskStat>& tasks, std::string title,
                          unsigned skipped, bool completed, bool showAddress) {
    std::vector<const TaskStat*> order;
    order.reserve(tasks.size());
    size_t width = title.size();
    for (const TaskStat& stat : tasks) {
        order.push_back(&stat);
        width = std::max(width, nameCell(stat, showAddress).size());
    }
    // Stable, so that equal run times keep the order the records came in.
    std::stable_sort(order.begin(), order.end(), [](const TaskStat* a, const TaskStat* b) {
        return a->taskTotalRunTime() > b->taskTotalRunTime();
    });

    if (completed) {
        out << format("%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s") % title %
                   String(width - title.size(), ' ') % "SP" % "RunCount" % "TotalSec" %
                   "Last/Max-Delay" % "200%" % "500%" % "MaxMs" % "Completed" %
                   "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending"
            << '\n';
    } else {
        out << format("%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s") % title %
                   String(width - title.size(), ' ') % "SP" % "RunCount" % "TotalSec" %
                   "Last/Max-Delay" % "200%" % "500%" % "MaxMs" % "Total/DecayA/Max-WorkCount" %
                   "Last/Max-WorkPending"
            << '\n';
    }

    format row(completed ? "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s %9s %10s"
                         : "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s");
    for (const TaskStat* stat : order) {
        const String name = nameCell(*stat, showAddress);
        row % name % String(width - name.size(), ' ') % stat->taskStatusString() %
            stat->taskRunCount() % seconds(stat->taskTotalRunTime()) %
            seconds(stat->taskLastSchedulingLatency()) %
            seconds(stat->taskSchedulingLatencyHighWaterMark()) % stat->taskQuantumViolation200() %
            stat->taskQuantumViolation500() % truncatedMs(stat->taskRunTimeHighWaterMark());
        if (completed) {
            row % stat->taskCompletedCount();
        }
        // An unset high water means the figure was never reported: its whole
        // group stays blank (a set one, even 0, prints every cell).
        const bool work = stat->taskWorkCountHighWater().isSet();
        const bool pending = stat->taskWorkPendingHighWater().isSet();
        row % (work ? (format("%lu") % stat->taskWorkCountTotal()).str() : String()) %
            (work ? (format("%6.1f") % stat->taskWorkCountDecayingAvg()).str() : String()) %
            (work ? (format("%u") % stat->taskWorkCountHighWater().valueOrZero()).str()
                  : String()) %
            (pending ? (format("%u") % stat->taskWorkPending()).str() : String()) %
            (pending ? (format("%u") % stat->taskWorkPendingHighWater().valueOrZero()).str()
                     : String());
        out << row << '\n';
    }
    if (skipped > 0) {
        out << format("Skipped %u task%s with no runs\n") % skipped % (skipped >= 2 ? "s" : "");
    }
}

// ---------------------------------------------------------------------------
// The root's entry points

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
    TaskSchedulerQueueStats merged;
    for (const TaskScheduler* scheduler : schedulers()) {
        merged += scheduler->queueStats();
    }
    return merged;
}

void TaskSchedulerRoot::statsRenderTextForDebug(std::ostream& out, bool includeNoRuns,
                                                bool showAddress, bool includeCompleted,
                                                bool includeHistory) const {
    sanityCheckCurrentRunningThread();
    std::vector<TaskStat> tasks;
    std::vector<TaskStat> completed;
    unsigned skipped = 0;
    unsigned completedSkipped = 0;
    for (const TaskScheduler* scheduler : schedulers()) {
        skipped += scheduler->getTaskStats(&tasks, includeNoRuns);
        if (includeCompleted) {
            completedSkipped += scheduler->getCompletedTaskStats(&completed, includeNoRuns);
        }
    }
    statsRenderTextImpl(out, queueStatsRoot(), maxSchedulerSlip(), &tasks, skipped,
                        includeCompleted ? &completed : nullptr, completedSkipped, showAddress);
    if (includeHistory) {
        historyRenderTextForDebug(out);
    }
}

void TaskSchedulerRoot::statsRenderTextForDebug(int fd, bool includeNoRuns, bool showAddress,
                                                bool includeCompleted, bool includeHistory) const {
    FdToStream out(fd, false);
    statsRenderTextForDebug(out, includeNoRuns, showAddress, includeCompleted, includeHistory);
}

String TaskSchedulerRoot::statsRenderTextForDebugToString(bool includeNoRuns, bool showAddress,
                                                          bool includeCompleted,
                                                          bool includeHistory) const {
    std::ostringstream out;
    statsRenderTextForDebug(out, includeNoRuns, showAddress, includeCompleted, includeHistory);
    return out.str();
}

void TaskSchedulerRoot::statsRenderTextForDebugStdErr() const {
    statsRenderTextForDebug(std::cerr, true, true, true, true);
}

}  // namespace Kelvo
