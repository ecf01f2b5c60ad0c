// The cost of capturing a backtrace 20 frames deep, the price every library
// exception pays at construction, against glibc's backtrace() of the same
// stack. Heap allocations are counted by replacing the global allocator.
#include <Kelvo/BacktraceCpp.h>
#include <benchmark/benchmark.h>
#include <execinfo.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>

#include "CountingAllocator.h"

namespace {

// Runs body with about `frames` frames of this function below it.
[[gnu::noinline]] void atDepth(int frames, const std::function<void()>& body) {
    if (frames > 0) {
        atDepth(frames - 1, body);
        asm volatile("" ::: "memory");  // no tail call: every level keeps its frame
    } else {
        body();
    }
}

// The benchmark's own frames below the captures come to about 8.
constexpr int depth = 12;

void BM_KelvoBacktrace20(benchmark::State& state) {
    atDepth(depth, [&] {
        benchmark::DoNotOptimize(Kelvo::Backtrace(true).count());  // warm libunwind's caches
        const uint64_t start = allocations.load();
        uint32_t frames = 0;
        for (auto _ : state) {
            const Kelvo::Backtrace trace(true);
            frames = trace.count();
            benchmark::DoNotOptimize(&trace);
        }
        const double perIteration = double(allocations.load() - start) / double(state.iterations());
        state.counters["frames"] = frames;
        state.counters["allocs/iter"] = perIteration;
        if (perIteration != 0)
            state.SkipWithError("heap allocation while capturing");
    });
}
BENCHMARK(BM_KelvoBacktrace20);

void BM_GlibcBacktrace20(benchmark::State& state) {
    atDepth(depth, [&] {
        void* addresses[100];
        int frames = backtrace(addresses, 100);
        for (auto _ : state) {
            frames = backtrace(addresses, 100);
            benchmark::DoNotOptimize(addresses);
        }
        state.counters["frames"] = frames;
    });
}
BENCHMARK(BM_GlibcBacktrace20);

}  // namespace

BENCHMARK_MAIN();
