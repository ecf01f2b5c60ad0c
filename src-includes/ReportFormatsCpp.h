// Report formats for tools outside the daemon: the scheduler statistics as
// OpenMetrics text, for scrapers, and the history ring as trace-event JSON,
// for timeline viewers. Both read the same figures as the JSON and text
// reports (queue statistics, task statistics, the history ring) and render
// synchronously into the given stream.
//
// Thread: the root scheduler's thread only (both read live scheduler state and
// check the thread). Ownership: nothing is kept; the caller owns the stream.
#pragma once

#include <ostream>

#include "KelvoBase.h"

namespace Kelvo {

class TaskSchedulerRoot;

// OpenMetrics text of the root and every task group under it, ending
// "# EOF\n". Families, all prefixed "kelvo_" (counters carry "_total" on the
// sample only):
//   kelvo_scheduler_tasks{scheduler,priority,state}  gauge; state "runnable",
//       "idle" or "completed", as the queue statistics count them
//   kelvo_scheduler_runs{scheduler,priority}         counter
//   kelvo_scheduler_slip_seconds{scheduler}          gauge, run-loop slip high water
//   kelvo_task_runs{<task labels>}                   counter
//   kelvo_task_run_seconds{<task labels>}            counter, total run time
//   kelvo_task_run_high_water_seconds{<task labels>} gauge, longest run
//   kelvo_task_latency_seconds{<task labels>}        gauge, last scheduling latency
//   kelvo_task_latency_high_water_seconds{<task labels>} gauge
//   kelvo_task_quantum_violations{<task labels>,over} counter; over "2x" counts
//       runs of at least twice the quantum but under five times, "5x" the rest
//   kelvo_task_completed{<task labels>}              counter, finished tasks
//       folded into a completed record (completed records only)
// <task labels> are scheduler, task (the record's name, as the JSON
// report shows it), priority, record ("live" or "completed") and index.
// Names are not unique, so index numbers the records that share scheduler,
// task and record, in report order from 0, which keeps every label set
// distinct (twins are not merged: their figures stay apart). The
// scheduler label is the scheduler's name; a second scheduler of the same
// name under the root is labelled "<name>#2", a third "<name>#3", and so on.
// includeNoRuns keeps tasks that never ran; includeCompleted adds the merged
// records of finished tasks. Label values escape backslash, double quote and
// newline. Fails on another thread than the root's.
KELVO_EXPORT void statsRenderOpenMetrics(TaskSchedulerRoot& root, std::ostream& out,
                                         bool includeNoRuns, bool includeCompleted);

// The same families and samples in the classic Prometheus text format
// (version 0.0.4), which the node exporter's textfile collector and
// `promtool check metrics` read: a counter family is named after its
// "_total" samples, there are no "# UNIT" lines and no "# EOF".
KELVO_EXPORT void statsRenderPrometheusText(TaskSchedulerRoot& root, std::ostream& out,
                                            bool includeNoRuns, bool includeCompleted);

// The root's history ring as one trace-event JSON object:
//   {"traceEvents":[...],"displayTimeUnit":"ms"}
// Times ("ts", "dur") are microseconds on the steady clock, "pid" is the
// process id, and every name in the ring gets one track ("tid" from 1, in
// order of first appearance from the oldest event) announced by a
// "thread_name" metadata event. A run start with the next run end of the
// same name becomes a complete event ("ph":"X") named after the task. Every
// other event is an instant ("ph":"i","s":"t") named by its display text on
// its name's track. Runs cut by the ring's window:
//  - a run end with no start in the window becomes an instant "run end";
//  - a run start with no end (the task is running: the ring holds the newest
//    events) is a complete event reaching the root's steady now, with
//    "args":{"open":true};
//  - a second run start of a name before its end closes the first run there,
//    also marked open.
// Events are written oldest first, after the process_name and thread_name
// metadata. Fails on another thread than the root's.
KELVO_EXPORT void historyRenderTraceEvents(const TaskSchedulerRoot& root, std::ostream& out);

}  // namespace Kelvo
