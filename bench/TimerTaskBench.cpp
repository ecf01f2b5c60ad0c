// Timer tasks at scale: 100,000 timer tasks re-arming themselves every
// second, run for a virtual minute under fast-forward, against a plain task
// that reschedules itself, run by a root on the same loop in the same mode.
// Both report the thread's CPU time per 1,000 task runs (manual time), so
// the ratio is the cost of a fired-and-run timer task over that of a plain
// run. CPU time, because under fast-forward the loop never waits: what a
// wall clock adds is other processes' turns on a shared machine.
#include <Kelvo/LibeventFactoryCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>

#include <benchmark/benchmark.h>

#include <time.h>

#include <chrono>
#include <memory>
#include <vector>

#include "CountingAllocator.h"

namespace {

using namespace Kelvo;

constexpr int timerTaskCount = 100000;
constexpr double virtualMinute = 60;
constexpr int plainBatch = 1000;

double threadCpuSeconds() {
    timespec now;
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

double realSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Re-arms itself one second ahead, jittered up by jitter percent.
struct Ticker : TimerTask {
    uint8_t jitter = 0;
    uint64_t* runs = nullptr;
    Ticker(const std::shared_ptr<TaskScheduler>& s) : TimerTask(s, TaskPriority::normal, "tick") {}
    void taskExecute() override {
        ++*runs;
        if (jitter)
            scheduleTaskJitterUp(1.0, jitter);
        else
            scheduleTaskDelay(1.0);
    }
};

// range(0): the jitter percentage. Without jitter the tasks, started
// together, stay bunched on few ticks; with it every expiry is its own.
void BM_TimerTasksVirtualMinute(benchmark::State& state) {
    auto root = schedulerRootKelvoNonShared("bench");
    uint64_t runs = 0, allocs = 0;
    double cpu = 0, real = 0, virtualSeconds = 0;
    for (auto _ : state) {
        std::vector<std::shared_ptr<Ticker>> tasks;
        tasks.reserve(timerTaskCount);
        runs = 0;
        for (int i = 0; i < timerTaskCount; ++i) {
            tasks.push_back(std::make_shared<Ticker>(root));
            tasks.back()->jitter = static_cast<uint8_t>(state.range(0));
            tasks.back()->runs = &runs;
            tasks.back()->scheduleTaskDelay(1.0);
        }
        Platform::setFastForward(true);
        const double virtualStart = Kelvo::time();
        const uint64_t allocsBefore = allocations.load();
        const double cpuStart = threadCpuSeconds(), realStart = realSeconds();
        Platform::doEventLoop(virtualMinute);
        cpu = threadCpuSeconds() - cpuStart;
        real = realSeconds() - realStart;
        allocs = allocations.load() - allocsBefore;
        virtualSeconds = Kelvo::time() - virtualStart;
        Platform::setFastForward(false);
        if (runs < uint64_t(timerTaskCount) * 10)
            state.SkipWithError("timer tasks lost");
        state.SetIterationTime(cpu / double(runs) * plainBatch);
    }
    state.counters["runs"] = double(runs);
    state.counters["runs/task"] = double(runs) / timerTaskCount;
    state.counters["allocs/run"] = double(allocs) / double(runs);
    state.counters["virtual/real"] = virtualSeconds / real;
    state.counters["real_us/run"] = real / double(runs) * 1e6;
}
// One repetition: a virtual minute is millions of runs, noise averaged in.
BENCHMARK(BM_TimerTasksVirtualMinute)
    ->Arg(0)
    ->Arg(10)
    ->Iterations(1)
    ->Repetitions(1)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// The baseline: one task rescheduling itself, plainBatch runs per iteration,
// through the same fast-forward loop call.
void BM_PlainTaskVirtual(benchmark::State& state) {
    struct Spinner : Task {
        int remaining = 0;
        Spinner(const std::shared_ptr<TaskScheduler>& s) : Task(s, TaskPriority::normal, "spin") {}
        void taskExecute() override {
            if (--remaining > 0)
                scheduleTask();
        }
    };
    auto root = schedulerRootKelvoNonShared("bench");
    auto task = std::make_shared<Spinner>(root);
    Platform::setFastForward(true);
    for (auto _ : state) {
        task->remaining = plainBatch;
        const double start = threadCpuSeconds();
        task->scheduleTask();
        // Runs the batch, then skips the rest of the (virtual) second.
        Platform::doEventLoop(1.0);
        state.SetIterationTime(threadCpuSeconds() - start);
    }
    Platform::setFastForward(false);
}
BENCHMARK(BM_PlainTaskVirtual)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
