// The OpenMetrics and trace-event renderings of a root scheduler.
#include <Kelvo/ReportFormatsCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <map>
#include <tuple>
#include <unordered_map>
#include <vector>

#include <unistd.h>

namespace Kelvo {

namespace {

// ---------------------------------------------------------------------------
// OpenMetrics

double seconds(TaskTimeDuration d) {
    return static_cast<double>(d.count()) / 1e9;
}

// Label values escape exactly backslash, double quote and newline; every
// other byte, UTF-8 included, stands for itself.
void appendEscaped(String& out, const String& value) {
    for (const char c : value) {
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '"':
                out += "\\\"";
                break;
            case '\n':
                out += "\\n";
                break;
            default:
                out += c;
        }
    }
}

void appendLabel(String& out, const char* name, const String& value) {
    if (!out.empty()) {
        out += ',';
    }
    out += name;
    out += "=\"";
    appendEscaped(out, value);
    out += '"';
}

struct Scheduler {
    String label;
    const TaskSchedulerSnapshot* snapshot;
};

struct Record {
    // scheduler, task, priority, record and index, ready to print.
    String labels;
    const TaskStat* stat;
    bool completed;
};

// The snapshot and its task groups, depth first; a repeated name gets "#n".
void flatten(const TaskSchedulerSnapshot& snapshot, std::map<String, unsigned>& seen,
             std::vector<Scheduler>& out) {
    const unsigned n = ++seen[snapshot.name()];
    out.push_back({n == 1 ? snapshot.name() : fmt::format("{}#{}", snapshot.name(), n), &snapshot});
    for (const auto& sub : snapshot.subSchedulers()) {
        flatten(sub.second, seen, out);
    }
}

class MetricsWriter {
  public:
    MetricsWriter(std::ostream& out, bool classic) : out_(out), classic_(classic) {}

    // The family's descriptors; unit, when given, is the name's last word.
    // The classic text format names a counter family after its samples and
    // has no unit descriptor.
    void family(const char* name, const char* type, const char* unit, const char* help) {
        const char* suffix = classic_ && type[0] == 'c' ? "_total" : "";
        out_ << "# TYPE " << name << suffix << ' ' << type << '\n';
        if (unit && !classic_) {
            out_ << "# UNIT " << name << ' ' << unit << '\n';
        }
        out_ << "# HELP " << name << suffix << ' ' << help << '\n';
    }
    // suffix is "_total" for a counter's sample, else empty.
    template <typename V>
    void sample(const char* name, const char* suffix, const String& labels, V value) {
        out_ << name << suffix << '{' << labels << "} " << fmt::format("{}", value) << '\n';
    }

  private:
    std::ostream& out_;
    const bool classic_;
};

void renderMetrics(TaskSchedulerRoot& root, std::ostream& out, bool includeNoRuns,
                   bool includeCompleted, bool classic) {
    // The same figures as the JSON report, taken in one pass on this thread.
    const auto snapshot = root.snapshot(String(), includeNoRuns, includeCompleted, false, 0);
    std::vector<Scheduler> schedulers;
    std::map<String, unsigned> seenSchedulers;
    flatten(*snapshot, seenSchedulers, schedulers);

    std::vector<Record> records;
    std::map<std::tuple<String, String, bool>, unsigned> seenRecords;
    auto addRecord = [&](const String& scheduler, const TaskStat& stat, bool completed) {
        const String& task = stat.taskNameRef().str();
        const unsigned index = seenRecords[{scheduler, task, completed}]++;
        Record& record = records.emplace_back(Record{String(), &stat, completed});
        appendLabel(record.labels, "scheduler", scheduler);
        appendLabel(record.labels, "task", task);
        appendLabel(record.labels, "priority", stat.taskPriority().toStrep());
        appendLabel(record.labels, "record", completed ? "completed" : "live");
        appendLabel(record.labels, "index", std::to_string(index));
    };
    for (const Scheduler& s : schedulers) {
        for (const TaskStat& stat : s.snapshot->tasks()) {
            addRecord(s.label, stat, false);
        }
        for (const TaskStat& stat : s.snapshot->completedTasks()) {
            addRecord(s.label, stat, true);
        }
    }

    MetricsWriter w(out, classic);
    w.family("kelvo_scheduler_tasks", "gauge", nullptr,
             "Tasks by priority and state: runnable, idle, or completed.");
    for (const Scheduler& s : schedulers) {
        for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
            const TaskPriority priority(p);
            const auto entry = s.snapshot->queueStats().find(priority);
            const TaskSchedulerPriorityStats stats = entry != s.snapshot->queueStats().end()
                                                         ? entry->second
                                                         : TaskSchedulerPriorityStats{priority};
            const std::pair<const char*, uint32_t> states[] = {
                {"runnable", stats.runnableTasks},
                {"idle", stats.idleTasks},
                {"completed", stats.completedTasks},
            };
            for (const auto& [state, count] : states) {
                String labels;
                appendLabel(labels, "scheduler", s.label);
                appendLabel(labels, "priority", priority.toStrep());
                appendLabel(labels, "state", state);
                w.sample("kelvo_scheduler_tasks", "", labels, count);
            }
        }
    }
    w.family("kelvo_scheduler_runs", "counter", nullptr, "Task runs by priority.");
    for (const Scheduler& s : schedulers) {
        for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
            const TaskPriority priority(p);
            const auto entry = s.snapshot->queueStats().find(priority);
            String labels;
            appendLabel(labels, "scheduler", s.label);
            appendLabel(labels, "priority", priority.toStrep());
            w.sample("kelvo_scheduler_runs", "_total", labels,
                     entry != s.snapshot->queueStats().end() ? entry->second.totalRunCount : 0u);
        }
    }
    w.family("kelvo_scheduler_slip_seconds", "gauge", "seconds",
             "Longest delay of the scheduler's run after it was requested.");
    for (const Scheduler& s : schedulers) {
        String labels;
        appendLabel(labels, "scheduler", s.label);
        w.sample("kelvo_scheduler_slip_seconds", "", labels,
                 seconds(s.snapshot->maxSchedulerSlip()));
    }

    struct TaskFamily {
        const char* name;
        const char* type;
        const char* unit;
        const char* help;
        double (*value)(const TaskStat&);
    };
    static constexpr TaskFamily taskFamilies[] = {
        {"kelvo_task_runs", "counter", nullptr, "Runs of the task.",
         [](const TaskStat& t) { return double(t.taskRunCount()); }},
        {"kelvo_task_run_seconds", "counter", "seconds", "Total run time of the task.",
         [](const TaskStat& t) { return seconds(t.taskTotalRunTime()); }},
        {"kelvo_task_run_high_water_seconds", "gauge", "seconds", "Longest single run.",
         [](const TaskStat& t) { return seconds(t.taskRunTimeHighWaterMark()); }},
        {"kelvo_task_latency_seconds", "gauge", "seconds",
         "Scheduling latency of the last run: from queued to run.",
         [](const TaskStat& t) { return seconds(t.taskLastSchedulingLatency()); }},
        {"kelvo_task_latency_high_water_seconds", "gauge", "seconds",
         "Longest scheduling latency: from queued to run.",
         [](const TaskStat& t) { return seconds(t.taskSchedulingLatencyHighWaterMark()); }},
    };
    for (const TaskFamily& f : taskFamilies) {
        w.family(f.name, f.type, f.unit, f.help);
        const char* suffix = f.type[0] == 'c' ? "_total" : "";
        for (const Record& r : records) {
            w.sample(f.name, suffix, r.labels, f.value(*r.stat));
        }
    }
    w.family("kelvo_task_quantum_violations", "counter", nullptr,
             "Runs of at least 2x (under 5x) or at least 5x the task's quantum.");
    for (const Record& r : records) {
        w.sample("kelvo_task_quantum_violations", "_total", r.labels + ",over=\"2x\"",
                 r.stat->taskQuantumViolation200());
        w.sample("kelvo_task_quantum_violations", "_total", r.labels + ",over=\"5x\"",
                 r.stat->taskQuantumViolation500());
    }
    if (includeCompleted) {
        w.family("kelvo_task_completed", "counter", nullptr,
                 "Finished tasks of this name folded into the completed record.");
        for (const Record& r : records) {
            if (r.completed) {
                w.sample("kelvo_task_completed", "_total", r.labels, r.stat->taskCompletedCount());
            }
        }
    }
    if (!classic) {
        out << "# EOF\n";
    }
    out.flush();
}

}  // namespace

void statsRenderOpenMetrics(TaskSchedulerRoot& root, std::ostream& out, bool includeNoRuns,
                            bool includeCompleted) {
    renderMetrics(root, out, includeNoRuns, includeCompleted, false);
}

void statsRenderPrometheusText(TaskSchedulerRoot& root, std::ostream& out, bool includeNoRuns,
                               bool includeCompleted) {
    renderMetrics(root, out, includeNoRuns, includeCompleted, true);
}

// ---------------------------------------------------------------------------
// Trace events

namespace {

using TraceWriter = rapidjson::Writer<rapidjson::StringBuffer>;

double micros(const TaskTimePoint& t) {
    return static_cast<double>(t.time_since_epoch().count()) / 1e3;
}

struct TraceEvent {
    TaskTimePoint start;
    TaskTimePoint end;  // complete events only
    const String* name;
    unsigned tid;
    // Null for a complete event, else the instant's display text.
    const char* instant;
    bool open;
};

void writeString(TraceWriter& w, const String& s) {
    w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
}

}  // namespace

void historyRenderTraceEvents(const TaskSchedulerRoot& root, std::ostream& out) {
    root.sanityCheckCurrentRunningThread();
    using Type = TaskSchedulerEventType;
    const TaskSchedulerHistory::Ring& ring = root.history()->events();
    const TaskTimePoint now = root.steadyNow();

    // Tracks by name, numbered in order of first appearance from the oldest.
    std::unordered_map<const void*, unsigned> tids;
    std::vector<const String*> trackNames;
    // The pending run start of each track, by tid; absent when none.
    std::unordered_map<unsigned, TaskTimePoint> openRuns;
    std::vector<TraceEvent> events;
    events.reserve(ring.size());
    for (size_t i = ring.size(); i-- > 0;) {
        const TaskSchedulerHistory::Event& e = ring[i];
        const String& name = e.name.str();
        // Equal names share one interned element, so its address identifies
        // the name; the null element (no name) is a track of its own too.
        const auto [it, added] =
            tids.try_emplace(e.name.elem(), static_cast<unsigned>(trackNames.size() + 1));
        if (added) {
            trackNames.push_back(&name);
        }
        const unsigned tid = it->second;
        if (e.eventType == Type::runStart) {
            // A second start before an end (ends lost in between) closes the
            // first run where the second begins.
            if (const auto open = openRuns.find(tid); open != openRuns.end()) {
                events.push_back({open->second, e.time, &name, tid, nullptr, true});
            }
            openRuns[tid] = e.time;
        } else if (e.eventType == Type::runEnd && openRuns.count(tid)) {
            events.push_back({openRuns[tid], e.time, &name, tid, nullptr, false});
            openRuns.erase(tid);
        } else {
            events.push_back({e.time, e.time, &name, tid, e.eventTypeDisplay(), false});
        }
    }
    for (const auto& [tid, start] : openRuns) {
        events.push_back({start, std::max(start, now), trackNames[tid - 1], tid, nullptr, true});
    }
    // Oldest first; at one time, the longer run first so that it encloses.
    std::stable_sort(events.begin(), events.end(), [](const TraceEvent& a, const TraceEvent& b) {
        return a.start != b.start ? a.start < b.start : a.end > b.end;
    });

    const int pid = static_cast<int>(::getpid());
    rapidjson::StringBuffer buffer;
    TraceWriter w(buffer);
    w.StartObject();
    w.Key("traceEvents");
    w.StartArray();
    w.StartObject();
    w.Key("name");
    w.String("process_name");
    w.Key("ph");
    w.String("M");
    w.Key("pid");
    w.Int(pid);
    w.Key("args");
    w.StartObject();
    w.Key("name");
    writeString(w, root.name());
    w.EndObject();
    w.EndObject();
    for (size_t i = 0; i < trackNames.size(); ++i) {
        w.StartObject();
        w.Key("name");
        w.String("thread_name");
        w.Key("ph");
        w.String("M");
        w.Key("pid");
        w.Int(pid);
        w.Key("tid");
        w.Uint(static_cast<unsigned>(i + 1));
        w.Key("args");
        w.StartObject();
        w.Key("name");
        writeString(w, *trackNames[i]);
        w.EndObject();
        w.EndObject();
    }
    for (const TraceEvent& e : events) {
        w.StartObject();
        w.Key("name");
        if (e.instant) {
            w.String(e.instant);
        } else {
            writeString(w, *e.name);
        }
        w.Key("ph");
        w.String(e.instant ? "i" : "X");
        w.Key("ts");
        w.Double(micros(e.start));
        if (e.instant) {
            w.Key("s");
            w.String("t");
        } else {
            w.Key("dur");
            w.Double(static_cast<double>((e.end - e.start).count()) / 1e3);
        }
        w.Key("pid");
        w.Int(pid);
        w.Key("tid");
        w.Uint(e.tid);
        if (e.open) {
            w.Key("args");
            w.StartObject();
            w.Key("open");
            w.Bool(true);
            w.EndObject();
        }
        w.EndObject();
    }
    w.EndArray();
    w.Key("displayTimeUnit");
    w.String("ms");
    w.EndObject();
    out.write(buffer.GetString(), static_cast<std::streamsize>(buffer.GetSize()));
    out.flush();
}

}  // namespace Kelvo
