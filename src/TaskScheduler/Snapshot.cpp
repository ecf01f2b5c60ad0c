// Scheduler snapshots and their JSON rendering.
#include <Kelvo/TaskSchedulerCpp.h>
#include <Kelvo/ThreadCpp.h>

#include <rapidjson/writer.h>

#include <algorithm>
#include <climits>
#include <iostream>
#include <sstream>

#include <unistd.h>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {
namespace Impl {

// A RapidJSON output stream that gathers text and hands it to a std::ostream
// in large writes; RapidJSON's own adapter costs a virtual call per
// character. The writer reserves room before each token (PutReserve below),
// so characters are then stored without a bounds check, as into its string
// buffer.
class JsonOstreamBuffer {
  public:
    using Ch = char;
    static constexpr size_t initialCapacity = 16 * 1024;

    explicit JsonOstreamBuffer(std::ostream& out) : out_(out) { allocate(initialCapacity); }

    void reserve(size_t n) {
        if (static_cast<size_t>(end_ - pos_) < n) {
            drainAndReserve(n);
        }
    }
    void putUnsafe(char c) noexcept { *pos_++ = c; }
    void Put(char c) {
        reserve(1);
        putUnsafe(c);
    }
    // Called by the writer at the end of a document; the context also drains
    // after every call, so nothing stays here between calls.
    void Flush() { drain(); }
    void drain() {
        if (pos_ != buffer_.get()) {
            out_.write(buffer_.get(), pos_ - buffer_.get());
            pos_ = buffer_.get();
        }
    }

  private:
    void allocate(size_t capacity) {
        buffer_.reset(new char[capacity]);
        pos_ = buffer_.get();
        end_ = pos_ + capacity;
    }
    void drainAndReserve(size_t n) {
        drain();
        // Only a string longer than the buffer (reserved at 6 bytes a
        // character for escapes) needs more.
        if (static_cast<size_t>(end_ - pos_) < n) {
            allocate(n);
        }
    }

    std::ostream& out_;
    std::unique_ptr<char[]> buffer_;
    // The next free byte and the end of the buffer; one pointer per character
    // written keeps the writer's inner loops as short as into its own buffer.
    char* pos_;
    char* end_;
};

// Found by argument-dependent lookup from inside the writer.
inline void PutReserve(JsonOstreamBuffer& stream, size_t n) {
    stream.reserve(n);
}
inline void PutUnsafe(JsonOstreamBuffer& stream, char c) {
    stream.putUnsafe(c);
}

}  // namespace Impl

struct TaskSchedulerPrintContext::Json {
    explicit Json(std::ostream& out) : buffer(out), writer(buffer) {}

    Impl::JsonOstreamBuffer buffer;
    rapidjson::Writer<Impl::JsonOstreamBuffer> writer;
};

namespace {

using JsonWriter = rapidjson::Writer<Impl::JsonOstreamBuffer>;

double seconds(TaskTimeDuration d) {
    return static_cast<double>(d.count()) / 1e9;
}

void key(JsonWriter& w, const char* k) {
    w.Key(k);
}

void key(JsonWriter& w, const String& k) {
    w.Key(k.data(), static_cast<rapidjson::SizeType>(k.size()));
}

void string(JsonWriter& w, const String& s) {
    w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
}

// Whole milliseconds, truncated: the first cut makes the value whole, so the
// added half never rounds it up. Reports have always shown it this way.
uint32_t maxMs(TaskTimeDuration runTimeHighWaterMark) {
    const double ms = seconds(runTimeHighWaterMark) * 1000.0;
    const auto whole = static_cast<uint32_t>(static_cast<int64_t>(ms));
    return static_cast<uint32_t>(static_cast<double>(whole) + 0.5);
}

void renderTask(JsonWriter& w, const TaskStat& stat, bool completed) {
    const TaskStat::TaskStatus status = stat.taskStatus();
    w.StartObject();
    key(w, "name");
    string(w, stat.taskNameRef().str());
    if (!completed) {
        key(w, "address");
        string(w, stat.taskKey().toStrep());
    }
    key(w, "priority");
    w.String(stat.taskPriority().toStrep());
    if (status.taskIsTaskGroup()) {
        key(w, "subScheduler");
        string(w, subSchedulerKey(stat));
    }
    key(w, "onRunQueue");
    w.Bool(status.taskOnRunQueue());
    key(w, "currentlyRunning");
    w.Bool(status.taskCurrentlyRunning());
    key(w, "suspended");
    w.Bool(status.taskSuspended());
    key(w, "hasTimer");
    w.Bool(status.taskTimer());
    key(w, "timerRunning");
    w.Bool(status.taskTimerRunning());
    key(w, "runCount");
    w.Uint(stat.taskRunCount());
    key(w, "totalRunTime");
    w.Double(seconds(stat.taskTotalRunTime()));
    key(w, "lastSchedulingLatency");
    w.Double(seconds(stat.taskLastSchedulingLatency()));
    key(w, "schedulingLatencyHighWaterMark");
    w.Double(seconds(stat.taskSchedulingLatencyHighWaterMark()));
    key(w, "qv200");
    w.Uint(stat.taskQuantumViolation200());
    key(w, "qv500");
    w.Uint(stat.taskQuantumViolation500());
    key(w, "maxMs");
    w.Uint(maxMs(stat.taskRunTimeHighWaterMark()));
    if (completed) {
        key(w, "completedCount");
        w.Uint(stat.taskCompletedCount());
    }
    if (stat.taskWorkCountHighWater().isSet()) {
        key(w, "workCount");
        w.StartObject();
        key(w, "total");
        w.Uint64(stat.taskWorkCountTotal());
        key(w, "decayingAvg");
        w.Double(stat.taskWorkCountDecayingAvg());
        key(w, "highwater");
        w.Int(static_cast<int32_t>(stat.taskWorkCountHighWater().raw()));
        w.EndObject();
    }
    if (stat.taskWorkPendingHighWater().isSet()) {
        key(w, "workPending");
        w.StartObject();
        key(w, "pending");
        w.Uint(stat.taskWorkPending());
        key(w, "highwater");
        w.Uint(stat.taskWorkPendingHighWater().raw());
        w.EndObject();
    }
    w.EndObject();
}

// {"tasks":[...],"skipped":n}, heaviest first; ties keep the order taken.
void renderJsonTasks(JsonWriter& w, const std::vector<TaskStat>& stats, unsigned skipped,
                     bool completed) {
    std::vector<const TaskStat*> order;
    order.reserve(stats.size());
    for (const TaskStat& stat : stats) {
        order.push_back(&stat);
    }
    std::stable_sort(order.begin(), order.end(), [](const TaskStat* a, const TaskStat* b) {
        return a->taskTotalRunTime() > b->taskTotalRunTime();
    });
    w.StartObject();
    key(w, "tasks");
    w.StartArray();
    for (const TaskStat* stat : order) {
        renderTask(w, *stat, completed);
    }
    w.EndArray();
    key(w, "skipped");
    w.Uint(skipped);
    w.EndObject();
}

}  // namespace

// ---------------------------------------------------------------------------
// TaskSchedulerSnapshot

TaskSchedulerSnapshot::TaskSchedulerSnapshot(const TaskScheduler* scheduler, std::string name,
                                             bool includeNoRuns, bool includeCompleted,
                                             bool includeHistory, unsigned historyCount,
                                             bool threadSanityDisabled)
    : nameCache_(scheduler->history()),
      name_(name.empty() ? scheduler->name() : std::move(name)),
      queueStats_(scheduler->queueStats()),
      maxSchedulerSlip_(scheduler->maxSchedulerSlip()),
      isRootScheduler_(static_cast<const TaskScheduler*>(scheduler->root()) == scheduler),
      threadSanityDisabled_(threadSanityDisabled),
      builtBy_(std::this_thread::get_id()) {
    size_t registered = 0;
    for (const auto& [priority, stats] : queueStats_) {
        registered += stats.runnableTasks + stats.idleTasks;
    }
    tasks_.reserve(registered);
    // getTaskStats() and the search for task groups in one walk: the walk's
    // cache misses are most of a snapshot's cost.
    for (const TaskImpl& task : scheduler->registeredTasks()) {
        if (includeNoRuns || task.taskRunCount() != 0) {
            tasks_.push_back(task.getStats());
        } else {
            ++skipped_;
        }
        if (const TaskScheduler* sub = task.taskSubScheduler()) {
            subSchedulers_.emplace_back(
                subSchedulerKey(task.getStats()),
                TaskSchedulerSnapshot(sub, String(), includeNoRuns, includeCompleted,
                                      includeHistory, UINT_MAX, threadSanityDisabled));
        }
    }
    if (includeCompleted) {
        completedSkipped_ = scheduler->getCompletedTaskStats(&completedTasks_, includeNoRuns);
    }
    if (includeHistory && isRootScheduler_) {
        const TaskSchedulerHistory& ring = *scheduler->history();
        History& history = history_.emplace(History{});
        history.historyEntryCount = ring.capacity();
        const size_t count = std::min<size_t>(ring.size(), historyCount);
        history.entries.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            const TaskSchedulerHistory::Event& event = ring.events()[i];
            history.entries.push_back({static_cast<uint64_t>(event.time.time_since_epoch().count()),
                                       event.eventType, event.name.str()});
        }
    }
}

TaskSchedulerSnapshot::~TaskSchedulerSnapshot() {
    // The records' names are counted without atomics by the building thread.
    const std::thread::id self = std::this_thread::get_id();
    if (!threadSanityDisabled_ && self != builtBy_) {
        Impl::schedulerHardAssertFail(fmt::format("Allocated by thread {} freed by {}",
                                                  toThreadIdString(builtBy_),
                                                  toThreadIdString(self)));
    }
}

void TaskSchedulerSnapshot::renderJson(TaskSchedulerPrintContext& context) const {
    KELVO_SCHED_ASSERTM(!context.closed_, "JSON already closed");
    key(context.json_->writer, name_);
    renderJsonImpl(context);
    context.json_->buffer.drain();
}

void TaskSchedulerSnapshot::renderJsonImpl(TaskSchedulerPrintContext& context) const {
    JsonWriter& w = context.json_->writer;
    w.StartObject();
    key(w, "schedulerName");
    string(w, name_);
    if (displayOrder_.isSet()) {
        key(w, "displayOrder");
        w.Int(static_cast<int32_t>(displayOrder_.raw()));
    }
    key(w, "isRootScheduler");
    w.Bool(isRootScheduler_);
    key(w, "priorityStats");
    w.StartObject();
    for (unsigned p = 0; p < TaskPriority::oneBeyondLast; ++p) {
        const TaskPriority priority(p);
        const auto entry = queueStats_.find(priority);
        const TaskSchedulerPriorityStats stats =
            entry != queueStats_.end() ? entry->second : TaskSchedulerPriorityStats{priority};
        key(w, priority.toStrep());
        w.StartObject();
        key(w, "runnableTasks");
        w.Uint(stats.runnableTasks);
        key(w, "idleTasks");
        w.Uint(stats.idleTasks);
        key(w, "completedTasks");
        w.Uint(stats.completedTasks);
        key(w, "totalRunCount");
        w.Uint(stats.totalRunCount);
        w.EndObject();
    }
    w.EndObject();
    key(w, "maxSchedulerSlip");
    w.Double(seconds(maxSchedulerSlip_));
    key(w, "tasks");
    renderJsonTasks(w, tasks_, skipped_, false);
    if (!completedTasks_.empty()) {
        key(w, "completedTasks");
        renderJsonTasks(w, completedTasks_, completedSkipped_, true);
    }
    key(w, "subSchedulers");
    w.StartObject();
    for (const auto& [subKey, sub] : subSchedulers_) {
        key(w, subKey);
        sub.renderJsonImpl(context);
    }
    w.EndObject();
    if (history_) {
        key(w, "history");
        w.StartObject();
        key(w, "historyEntryCount");
        w.Uint(history_->historyEntryCount);
        key(w, "history");
        w.StartArray();
        for (const History::Entry& entry : history_->entries) {
            w.StartObject();
            key(w, "nsSinceBoot");
            w.Uint64(entry.nsSinceBoot);
            key(w, "eventType");
            w.String(taskSchedulerEventTypeDisplay(entry.eventType));
            if (!entry.eventId.empty()) {
                key(w, "eventId");
                string(w, entry.eventId);
            }
            w.EndObject();
        }
        w.EndArray();
        w.EndObject();
    }
    w.EndObject();
}

// ---------------------------------------------------------------------------
// TaskSchedulerPrintContext

TaskSchedulerPrintContext::TaskSchedulerPrintContext(std::ostream& out)
    : out_(&out), json_(std::make_unique<Json>(out)) {
    json_->writer.StartObject();
    key(json_->writer, "schedulers");
    json_->writer.StartObject();
    json_->buffer.drain();
}

TaskSchedulerPrintContext::TaskSchedulerPrintContext(std::unique_ptr<std::ostream> out)
    : TaskSchedulerPrintContext(*out) {
    ownedOut_ = std::move(out);
}

TaskSchedulerPrintContext::~TaskSchedulerPrintContext() {
    if (!closed_) {
        try {
            closeJson();
        } catch (...) {
            // The stream's own error; the document stays cut short.
        }
    }
}

void TaskSchedulerPrintContext::closeJson() {
    KELVO_SCHED_ASSERTM(!closed_, "JSON already closed");
    closed_ = true;
    json_->writer.EndObject();
    json_->writer.EndObject();  // completes the document, which flushes the buffer
    json_->buffer.drain();
    out_->flush();
}

// ---------------------------------------------------------------------------
// Entry points

String subSchedulerKey(const TaskStat& stat) {
    KELVO_SCHED_ASSERTM(stat.taskStatus().taskIsTaskGroup(), "Task: {} is not a task group",
                        stat.taskName());
    return fmt::format("{}-{}", stat.taskNameRef().str(), stat.taskKey().toStrep());
}

String makeJsonTaskName(int fd, const char* suffix) {
    return fmt::format("{}-fd:{}{}", "TaskSchedulerRenderJson", fd, suffix ? suffix : "");
}

std::shared_ptr<const TaskSchedulerSnapshot> TaskScheduler::snapshot(const String& name,
                                                                     bool includeNoRuns,
                                                                     bool includeCompleted,
                                                                     bool includeHistory,
                                                                     unsigned historyCount) const {
    sanityCheckCurrentRunningThread();
    return allocateShared<TaskSchedulerSnapshot>(this, name, includeNoRuns, includeCompleted,
                                                 includeHistory, historyCount,
                                                 root()->threadSanityDisabled());
}

void TaskScheduler::statsRenderJson(std::ostream& out, bool includeNoRuns, bool includeCompleted,
                                    bool includeHistory) const {
    const auto snap = snapshot(String(), includeNoRuns, includeCompleted, includeHistory, UINT_MAX);
    TaskSchedulerPrintContext context(out);
    snap->renderJson(context);
}

String TaskScheduler::statsRenderJsonToString(bool includeNoRuns, bool includeCompleted,
                                              bool includeHistory) const {
    std::ostringstream out;
    statsRenderJson(out, includeNoRuns, includeCompleted, includeHistory);
    return out.str();
}

void TaskScheduler::statsRenderJsonToBlockingFdForTest(int fd, bool includeNoRuns,
                                                       bool includeCompleted,
                                                       bool includeHistory) const {
    FdToStream out(fd, false);
    statsRenderJson(out, includeNoRuns, includeCompleted, includeHistory);
}

std::shared_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs(std::ostream& out) {
    return allocateShared<TaskSchedulerPrintContext>(out);
}

std::shared_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs(int fd, bool closeFd) {
    if (fd == STDOUT_FILENO) {
        return PrintContextIs(std::cout);
    }
    if (fd == STDERR_FILENO) {
        return PrintContextIs(std::cerr);
    }
    return allocateShared<TaskSchedulerPrintContext>(
        std::unique_ptr<std::ostream>(std::make_unique<FdToStream>(fd, closeFd)));
}

}  // namespace Kelvo
