// The JSON report's two halves, per task record: rendering a snapshot through
// a print context into a std::ostream against RapidJSON's writer filling its
// own string buffer with the same text, and taking a snapshot against copying
// the same number of TaskStat records into a reserved vector.
#include <Kelvo/TaskSchedulerCpp.h>

#include <benchmark/benchmark.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

namespace {

using namespace Kelvo;

struct Counted : Task {
    unsigned work;
    Counted(const std::shared_ptr<TaskScheduler>& s, unsigned i)
        : Task(s, TaskPriority(i % 5), "task-" + std::to_string(i)), work(i) {}
    void taskExecute() override {
        taskWorkCountInc(work);
        if (work % 3 == 0)
            taskWorkPendingIs(work / 3);
    }
};

// A root with n tasks that each ran once, for a different (test-clock) time,
// so that records differ and sorting has work to do.
struct Scheduler {
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("bench");
    std::vector<std::shared_ptr<Counted>> tasks;
    TaskTimePoint now{std::chrono::seconds(1)};

    explicit Scheduler(unsigned n) {
        root->steadyClockIsForTest([this] { return now; });
        for (unsigned i = 0; i < n; ++i) {
            tasks.push_back(std::make_shared<Counted>(root, i));
            now += std::chrono::nanoseconds((i * 7919u) % 50'000'000u);
            tasks.back()->taskQuantumNoCheckIs(std::chrono::seconds(10));
            tasks.back()->taskRunFromTest();
        }
    }
};

Scheduler& scheduler(unsigned n) {
    static std::map<unsigned, std::unique_ptr<Scheduler>> made;
    auto& s = made[n];
    if (!s)
        s = std::make_unique<Scheduler>(n);
    return *s;
}

// The baseline writes the document the print context writes, key for key, with
// RapidJSON's writer into its string buffer. Only what the benchmark's
// snapshot holds is covered (no completed tasks, groups or history).
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

double sec(TaskTimeDuration d) {
    return double(d.count()) / 1e9;
}

void writeTask(Writer& w, const TaskStat& t) {
    const TaskStat::TaskStatus s = t.taskStatus();
    const uint32_t ms =
        uint32_t(double(uint32_t(int64_t(sec(t.taskRunTimeHighWaterMark()) * 1000.0))) + 0.5);
    w.StartObject();
    w.Key("name");
    w.String(t.taskNameRef().str().c_str(), rapidjson::SizeType(t.taskNameRef().str().size()));
    w.Key("address");
    const std::string address = t.taskKey().toStrep();
    w.String(address.c_str(), rapidjson::SizeType(address.size()));
    w.Key("priority");
    w.String(t.taskPriority().toStrep());
    w.Key("onRunQueue");
    w.Bool(s.taskOnRunQueue());
    w.Key("currentlyRunning");
    w.Bool(s.taskCurrentlyRunning());
    w.Key("suspended");
    w.Bool(s.taskSuspended());
    w.Key("hasTimer");
    w.Bool(s.taskTimer());
    w.Key("timerRunning");
    w.Bool(s.taskTimerRunning());
    w.Key("runCount");
    w.Uint(t.taskRunCount());
    w.Key("totalRunTime");
    w.Double(sec(t.taskTotalRunTime()));
    w.Key("lastSchedulingLatency");
    w.Double(sec(t.taskLastSchedulingLatency()));
    w.Key("schedulingLatencyHighWaterMark");
    w.Double(sec(t.taskSchedulingLatencyHighWaterMark()));
    w.Key("qv200");
    w.Uint(t.taskQuantumViolation200());
    w.Key("qv500");
    w.Uint(t.taskQuantumViolation500());
    w.Key("maxMs");
    w.Uint(ms);
    if (t.taskWorkCountHighWater().isSet()) {
        w.Key("workCount");
        w.StartObject();
        w.Key("total");
        w.Uint64(t.taskWorkCountTotal());
        w.Key("decayingAvg");
        w.Double(t.taskWorkCountDecayingAvg());
        w.Key("highwater");
        w.Int(int32_t(t.taskWorkCountHighWater().raw()));
        w.EndObject();
    }
    if (t.taskWorkPendingHighWater().isSet()) {
        w.Key("workPending");
        w.StartObject();
        w.Key("pending");
        w.Uint(t.taskWorkPending());
        w.Key("highwater");
        w.Uint(t.taskWorkPendingHighWater().raw());
        w.EndObject();
    }
    w.EndObject();
}

void writeDocument(Writer& w, const TaskSchedulerSnapshot& snap) {
    w.StartObject();
    w.Key("schedulers");
    w.StartObject();
    w.Key(snap.name().c_str());
    w.StartObject();
    w.Key("schedulerName");
    w.String(snap.name().c_str());
    w.Key("isRootScheduler");
    w.Bool(snap.isRootScheduler());
    w.Key("priorityStats");
    w.StartObject();
    for (const auto& entry : snap.queueStats()) {
        const TaskSchedulerPriorityStats& p = entry.second;
        w.Key(entry.first.toStrep());
        w.StartObject();
        w.Key("runnableTasks");
        w.Uint(p.runnableTasks);
        w.Key("idleTasks");
        w.Uint(p.idleTasks);
        w.Key("completedTasks");
        w.Uint(p.completedTasks);
        w.Key("totalRunCount");
        w.Uint(p.totalRunCount);
        w.EndObject();
    }
    w.EndObject();
    w.Key("maxSchedulerSlip");
    w.Double(sec(snap.maxSchedulerSlip()));
    w.Key("tasks");
    std::vector<const TaskStat*> order;
    order.reserve(snap.tasks().size());
    for (const TaskStat& t : snap.tasks())
        order.push_back(&t);
    std::stable_sort(order.begin(), order.end(), [](const TaskStat* a, const TaskStat* b) {
        return a->taskTotalRunTime() > b->taskTotalRunTime();
    });
    w.StartObject();
    w.Key("tasks");
    w.StartArray();
    for (const TaskStat* t : order)
        writeTask(w, *t);
    w.EndArray();
    w.Key("skipped");
    w.Uint(snap.skipped());
    w.EndObject();
    w.Key("subSchedulers");
    w.StartObject();
    w.EndObject();
    w.EndObject();
    w.EndObject();
    w.EndObject();
}

std::string rendered(const TaskSchedulerSnapshot& snap) {
    std::ostringstream out;
    TaskSchedulerPrintContext context(out);
    snap.renderJson(context);
    context.closeJson();
    return out.str();
}

// items_per_second is tasks per second: 1e9 / items_per_second is ns per task.
void perTask(benchmark::State& state, unsigned n) {
    state.SetItemsProcessed(int64_t(state.iterations()) * n);
}

// Subject: the snapshot rendered into a std::ostringstream through a print
// context, as the synchronous and asynchronous reports do.
void BM_RenderSnapshot(benchmark::State& state) {
    const unsigned n = unsigned(state.range(0));
    const auto snap = scheduler(n).root->snapshot("", true, false, false, 0);
    {
        rapidjson::StringBuffer buffer;
        Writer w(buffer);
        writeDocument(w, *snap);
        if (rendered(*snap) != buffer.GetString()) {
            state.SkipWithError("baseline and subject write different documents");
            return;
        }
    }
    // Reused as the asynchronous writer reuses its stream between snapshots.
    std::ostringstream out;
    size_t bytes = 0;
    for (auto _ : state) {
        out.str("");
        {
            TaskSchedulerPrintContext context(out);
            snap->renderJson(context);
        }
        bytes = size_t(out.tellp());
        benchmark::DoNotOptimize(bytes);
    }
    state.SetBytesProcessed(int64_t(state.iterations() * bytes));
    perTask(state, n);
}
BENCHMARK(BM_RenderSnapshot)->Arg(10000);

// Baseline: the same document from the same records through
// rapidjson::Writer<StringBuffer>.
void BM_StringBufferWriter(benchmark::State& state) {
    const unsigned n = unsigned(state.range(0));
    const auto snap = scheduler(n).root->snapshot("", true, false, false, 0);
    size_t bytes = 0;
    rapidjson::StringBuffer buffer;
    for (auto _ : state) {
        buffer.Clear();  // keeps its capacity, as the subject's stream does
        Writer w(buffer);
        writeDocument(w, *snap);
        bytes = buffer.GetSize();
        benchmark::DoNotOptimize(bytes);
    }
    state.SetBytesProcessed(int64_t(state.iterations() * bytes));
    perTask(state, n);
}
BENCHMARK(BM_StringBufferWriter)->Arg(10000);

// Subject: a snapshot of every task (taken and released).
void BM_Snapshot(benchmark::State& state) {
    const unsigned n = unsigned(state.range(0));
    Scheduler& s = scheduler(n);
    for (auto _ : state) {
        auto snap = s.root->snapshot("", true, false, false, 0);
        benchmark::DoNotOptimize(snap.get());
    }
    perTask(state, n);
}
BENCHMARK(BM_Snapshot)->Arg(10000);

// Baseline: copying as many TaskStat records into a reserved vector (and
// releasing it).
void BM_TaskStatCopy(benchmark::State& state) {
    const unsigned n = unsigned(state.range(0));
    std::vector<TaskStat> source;
    scheduler(n).root->getTaskStats(&source, true);
    for (auto _ : state) {
        std::vector<TaskStat> copy;
        copy.reserve(source.size());
        for (const TaskStat& stat : source)
            copy.push_back(stat);
        benchmark::DoNotOptimize(copy.data());
    }
    perTask(state, n);
}
BENCHMARK(BM_TaskStatCopy)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
