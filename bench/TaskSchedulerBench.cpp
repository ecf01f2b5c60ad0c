// The root scheduler's cost per task run: through the real event loop
// against a bare libevent loop pass, driven directly against an asio handler
// chain, with many registered tasks against few, and the incremental reset.
// Every run benchmark reports "allocs/run" (global operator new is counted).
#include <Kelvo/LibeventFactoryCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <memory>
#include <vector>

#include "CountingAllocator.h"

namespace {

using namespace Kelvo;

// Runs per benchmark iteration: every subject and baseline does this many.
constexpr int batch = 1000;

// Reschedules itself while its budget lasts.
struct Spinner : Task {
    int remaining = 0;
    Spinner(const std::shared_ptr<TaskScheduler>& s, TaskPriority p) : Task(s, p, "spin") {}
    void taskExecute() override {
        if (--remaining > 0)
            scheduleTask();
    }
};

void reportAllocs(benchmark::State& state, uint64_t before) {
    state.counters["allocs/run"] =
        double(allocations.load() - before) / double(state.iterations() * batch);
}

// A self-rescheduling task run by a root scheduler on the thread's loop,
// with statistics and history on; runsPerCallback is the argument.
void BM_RootLoopThroughput(benchmark::State& state) {
    auto root = schedulerRootKelvoNonShared("bench");
    root->runsPerCallbackIs(static_cast<unsigned>(state.range(0)));
    auto task = std::make_shared<Spinner>(root, TaskPriority::normal);
    const uint64_t before = allocations.load();
    for (auto _ : state) {
        task->remaining = batch;
        task->scheduleTask();
        Platform::doEventLoop();
    }
    reportAllocs(state, before);
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_RootLoopThroughput)->Arg(1)->Arg(16);

// The floor: one zero-second timer re-armed per callback on a bare base made
// as the library makes its bases.
void BM_LoopPassFloor(benchmark::State& state) {
    struct Chain {
        event ev;
        int remaining = 0;
    } chain;
    event_base* base = leCreateBase();
    static constexpr timeval zero = {0, 0};
    event_assign(
        &chain.ev, base, -1, 0,
        [](evutil_socket_t, short, void* arg) {
            auto* c = static_cast<Chain*>(arg);
            if (--c->remaining > 0)
                event_add(&c->ev, &zero);
        },
        &chain);
    for (auto _ : state) {
        chain.remaining = batch;
        event_add(&chain.ev, &zero);
        event_base_dispatch(base);
    }
    event_base_free(base);
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_LoopPassFloor);

// The root's callback entry called in a loop, one self-rescheduling task:
// the scheduler's own cost per run, without the loop pass. No loop serves the
// deferred callback, so every request after the first finds it pending and
// costs a flag test; the loop benchmarks above carry the real re-arm.
void BM_RootCallbackDirect(benchmark::State& state) {
    auto root = schedulerRootKelvoNonShared("bench");
    auto task = std::make_shared<Spinner>(root, TaskPriority::normal);
    task->remaining = 1 << 30;
    task->scheduleTask();
    const uint64_t before = allocations.load();
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i)
            root->callback();
    }
    reportAllocs(state, before);
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_RootCallbackDirect);

// A handler that posts itself again on io_context::run().
void BM_AsioSelfPost(benchmark::State& state) {
    boost::asio::io_context io;
    struct Handler {
        boost::asio::io_context* io;
        int* remaining;
        void operator()() const {
            if (--*remaining > 0)
                boost::asio::post(*io, *this);
        }
    };
    int remaining = 0;
    for (auto _ : state) {
        remaining = batch;
        boost::asio::post(io, Handler{&io, &remaining});
        io.run();
        io.restart();
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_AsioSelfPost);

// Per-run cost with range(0) registered tasks of which range(1) are runnable
// (each reschedules itself), driven through the callback entry.
void BM_RunWithRegistered(benchmark::State& state) {
    auto root = schedulerRootKelvoNonShared("bench");
    std::vector<std::shared_ptr<Spinner>> tasks;
    for (int64_t i = 0; i < state.range(0); ++i) {
        tasks.push_back(std::make_shared<Spinner>(root, TaskPriority::normal));
        if (i < state.range(1)) {
            tasks.back()->remaining = 1 << 30;
            tasks.back()->scheduleTask();
        }
    }
    const uint64_t before = allocations.load();
    for (auto _ : state) {
        for (int i = 0; i < batch; ++i)
            root->callback();
    }
    reportAllocs(state, before);
}
BENCHMARK(BM_RunWithRegistered)->Args({10, 10})->Args({100000, 1000});

// Recording one event on a full history ring.
void BM_HistoryInsertFullRing(benchmark::State& state) {
    TaskSchedulerHistory history(100);
    const ConstStringRef name = history.stringCache().intern("task");
    const TaskTimePoint when = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i)
        history.insert(when, TaskSchedulerEventType::runEnd, name);
    const uint64_t before = allocations.load();
    for (auto _ : state)
        history.insert(when, TaskSchedulerEventType::runStart, name);
    state.counters["allocs"] = double(allocations.load() - before);
}
BENCHMARK(BM_HistoryInsertFullRing);

// The incremental reset of 100,000 tasks: runs taken, and the longest run
// against the quantum ("longest/quantum" must stay below 1 apart from the
// one task a run always resets).
void BM_IncrementalReset100k(benchmark::State& state) {
    auto root = schedulerRootKelvoNonShared("bench");
    std::vector<std::shared_ptr<Spinner>> tasks;
    for (int i = 0; i < 100000; ++i)
        tasks.push_back(std::make_shared<Spinner>(root, TaskPriority::low));
    double runs = 0, longest = 0;
    for (auto _ : state) {
        root->resetStats();
        runs = 0;
        while (root->resetStatsInProgress()) {
            const auto start = std::chrono::steady_clock::now();
            root->callback();
            longest = std::max(longest, double((std::chrono::steady_clock::now() - start).count()));
            ++runs;
        }
    }
    state.counters["runs"] = runs;
    state.counters["longest/quantum"] = longest / double(root->defaultTaskQuantum().count());
}
BENCHMARK(BM_IncrementalReset100k)->Iterations(3);

// Bytes per registered Task (a Spinner, which adds one int), allocation and
// the shared count included.
void BM_BytesPerTask(benchmark::State& state) {
    auto root = schedulerRootKelvoNonShared("bench");
    double bytes = 0;
    for (auto _ : state) {
        std::vector<std::shared_ptr<Spinner>> tasks;
        tasks.reserve(10000);
        const size_t before = mallinfo2().uordblks;
        for (int i = 0; i < 10000; ++i)
            tasks.push_back(std::make_shared<Spinner>(root, TaskPriority::normal));
        bytes = double(mallinfo2().uordblks - before) / 10000;
    }
    state.counters["bytes/task"] = bytes;
    state.counters["sizeof(Task)"] = double(sizeof(Task));
}
BENCHMARK(BM_BytesPerTask)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
