// The cost of tracing: a disabled trace, an enabled trace line written to a
// TRACEFILE, and the message builders, each against its floor. Heap
// allocations are counted by replacing the global allocator.
#include <Kelvo/Kelvo.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "CountingAllocator.h"

namespace {

using Kelvo::Platform::DebugHandler;

// Reports allocations per iteration, and fails the run when there are any.
class AllocationCheck {
  public:
    explicit AllocationCheck(benchmark::State& state) : state_(state), start_(allocations.load()) {}
    ~AllocationCheck() {
        const double perIteration =
            double(allocations.load() - start_) / double(std::max<int64_t>(state_.iterations(), 1));
        state_.counters["allocs/iter"] = perIteration;
        if (perIteration != 0)
            state_.SkipWithError("heap allocation in the measured loop");
    }

  private:
    benchmark::State& state_;
    uint64_t start_;
};

// Trace lines go to a fresh file in a private directory; the floor writes to
// a sibling file.
struct TraceDir {
    TraceDir() {
        char pattern[] = "/tmp/kelvo-bench-XXXXXX";
        dir = ::mkdtemp(pattern);
        ::setenv("TRACEFILE", (dir + "/trace").c_str(), 1);
        Kelvo::Platform::setupKelvoDebug("BenchOn/3");
        on = Kelvo::Platform::getDebugHandler("BenchOn");
        off = Kelvo::Platform::getDebugHandler("BenchOff");
    }
    ~TraceDir() { std::system(("rm -rf " + dir).c_str()); }
    std::string dir;
    std::shared_ptr<DebugHandler> on, off;
};
TraceDir& traceDir() {
    static TraceDir instance;
    return instance;
}

// About 100 bytes once formatted.
#define BENCH_MESSAGE \
    "request {} from {} finished with status {} after {} us; queue depth {}, retries {}"
#define BENCH_ARGS i, "client-7.example.internal", 200, 1234, 17, 0

void BM_InlineMaskTest(benchmark::State& state) {
    uint32_t mask = 0x3;
    const uint32_t* maskPtr = &mask;
    benchmark::DoNotOptimize(maskPtr);
    int64_t i = 0;
    for (auto _ : state) {
        benchmark::ClobberMemory();  // the mask is read again on every pass
        if (*maskPtr & (1u << 9))
            benchmark::DoNotOptimize(++i);
    }
}
BENCHMARK(BM_InlineMaskTest);

void BM_TraceDisabled(benchmark::State& state) {
    const DebugHandler* handle = traceDir().off.get();
    benchmark::DoNotOptimize(handle);
    int64_t i = 0;
    AllocationCheck check(state);
    for (auto _ : state) {
        benchmark::ClobberMemory();
        KELVO_TRACE(handle, 9, BENCH_MESSAGE, BENCH_ARGS);
    }
}
BENCHMARK(BM_TraceDisabled);

void BM_TraceToFile(benchmark::State& state) {
    const auto& handle = traceDir().on;
    int64_t i = 0;
    AllocationCheck check(state);
    for (auto _ : state) {
        ++i;
        KELVO_TRACE(handle, 3, BENCH_MESSAGE, BENCH_ARGS);
    }
}
BENCHMARK(BM_TraceToFile);

// The floor: one write(2) per pre-formatted line as long as a trace line.
void BM_WriteLine(benchmark::State& state) {
    const std::string path = traceDir().dir + "/floor";
    const int64_t i = 1000000;
    const std::string line = fmt::format(
        "2026-11-22 09:09:14.123456 {} BenchOn 3 " BENCH_MESSAGE "\n", Kelvo::gettid(), BENCH_ARGS);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    for (auto _ : state) {
        benchmark::DoNotOptimize(::write(fd, line.data(), line.size()));
    }
    ::close(fd);
    state.counters["line bytes"] = double(line.size());
}
BENCHMARK(BM_WriteLine);

void BM_FmtFormatTo(benchmark::State& state) {
    int64_t i = 0;
    for (auto _ : state) {
        fmt::basic_memory_buffer<char, 500> buffer;
        ++i;
        fmt::format_to(fmt::appender(buffer), BENCH_MESSAGE, BENCH_ARGS);
        benchmark::DoNotOptimize(buffer.data());
    }
}
BENCHMARK(BM_FmtFormatTo);

void BM_BuildMessage(benchmark::State& state) {
    int64_t i = 0;
    AllocationCheck check(state);
    for (auto _ : state) {
        Kelvo::Fmt::Impl::MessageBuffer buffer;
        ++i;
        Kelvo::Fmt::Impl::buildMessageBuffer(buffer, false, nullptr, nullptr, BENCH_MESSAGE,
                                             fmt::make_format_args(BENCH_ARGS));
        benchmark::DoNotOptimize(buffer.data());
    }
}
BENCHMARK(BM_BuildMessage);

// A 500-byte message: built without the heap; only the returned string allocates.
void BM_Vformatstr500(benchmark::State& state) {
    const std::string filler(470, 'f');
    const uint64_t start = allocations.load();
    int64_t i = 0;
    for (auto _ : state) {
        ++i;
        benchmark::DoNotOptimize(Kelvo::Fmt::Impl::vformatstr(false, nullptr, nullptr, "{} {}",
                                                              fmt::make_format_args(i, filler)));
    }
    state.counters["allocs/iter"] =
        double(allocations.load() - start) / double(std::max<int64_t>(state.iterations(), 1));
}
BENCHMARK(BM_Vformatstr500);

}  // namespace

BENCHMARK_MAIN();
