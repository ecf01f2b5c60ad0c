// The timing wheel alone, driven by its own ticks (no clock is read), against
// the floor of any list-based scheduler: linking and unlinking one node of an
// intrusive list. Every benchmark also reports the heap allocations it made
// per iteration, which must stay 0.
#include <Kelvo/Timeout.h>

#include <benchmark/benchmark.h>
#include <boost/intrusive/list.hpp>

#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <vector>

#include "CountingAllocator.h"

namespace {

constexpr timeout_t kNever = ~timeout_t(0);

// Delays spread log-uniformly over 1 .. 2^32 ticks (up to 16 months at
// 100 Hz), so entries occupy every level a daemon's timers reach.
std::vector<timeout_t> delays(size_t n, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::vector<timeout_t> out(n);
    for (auto& d : out) {
        d = 1 + (rng() >> (32 + rng() % 32));
    }
    return out;
}

void countAllocations(benchmark::State& state, size_t before) {
    state.counters["allocs/iter"] =
        benchmark::Counter(double(allocations - before), benchmark::Counter::kAvgIterations);
}

void BM_ListLinkUnlink(benchmark::State& state) {
    struct Node : boost::intrusive::list_base_hook<
                      boost::intrusive::link_mode<boost::intrusive::normal_link>> {};
    std::vector<Node> nodes(1000);
    boost::intrusive::list<Node> list(nodes.begin(), nodes.end());
    Node node;
    benchmark::DoNotOptimize(&list);
    size_t before = allocations;
    for (auto _ : state) {
        list.push_back(node);
        list.erase(list.iterator_to(node));
        benchmark::ClobberMemory();
    }
    countAllocations(state, before);
    list.clear();
}
BENCHMARK(BM_ListLinkUnlink);

// A wheel with n entries. Building 1e6 entries costs more than a short run
// measures, and the benchmark library calls each function several times while
// it sizes a run, so every wheel is built once and kept until exit.
struct Loaded {
    timeouts* T = timeouts_open(100, nullptr);
    std::vector<timeout> entries;
    explicit Loaded(size_t n) : entries(n) {}
    ~Loaded() { timeouts_close(T); }
};

Loaded& loaded(std::map<size_t, std::unique_ptr<Loaded>>& wheels, size_t n, void (*fill)(Loaded&)) {
    auto& w = wheels[n];
    if (!w) {
        w = std::make_unique<Loaded>(n);
        fill(*w);
    }
    return *w;
}

// Schedule and cancel one entry while range(0) others are pending.
void BM_TimeoutAddDel(benchmark::State& state) {
    static std::map<size_t, std::unique_ptr<Loaded>> wheels;
    Loaded& w = loaded(wheels, size_t(state.range(0)), [](Loaded& w) {
        std::vector<timeout_t> fill = delays(w.entries.size(), 1);
        for (size_t i = 0; i < fill.size(); ++i) {
            timeouts_add(w.T, timeout_init(&w.entries[i], 0), fill[i]);
        }
    });
    std::vector<timeout_t> probe = delays(4096, 2);
    timeout to;
    timeout_init(&to, 0);
    size_t i = 0, before = allocations;
    for (auto _ : state) {
        timeouts_add(w.T, &to, probe[i++ & 4095]);
        timeouts_del(w.T, &to);
        benchmark::ClobberMemory();
    }
    countAllocations(state, before);
}
BENCHMARK(BM_TimeoutAddDel)->Arg(1000)->Arg(1000000);

// n entries spread over n ticks.
void refill(Loaded& w) {
    static std::mt19937_64 rng(3);
    for (auto& e : w.entries) {
        timeouts_add(w.T, timeout_init(&e, 0), 1 + rng() % w.entries.size());
    }
}

// One iteration takes one expired entry, advancing the wheel as an event loop
// would (to the bound timeouts_timeout() gives) whenever none is waiting. The
// wheel holds range(0) entries spread over as many ticks and is refilled,
// untimed, when it has run dry.
void BM_TimeoutFire(benchmark::State& state) {
    static std::map<size_t, std::unique_ptr<Loaded>> wheels;
    Loaded& w = loaded(wheels, size_t(state.range(0)), refill);
    size_t before = allocations;
    for (auto _ : state) {
        timeout* to;
        while (!(to = timeouts_get(w.T))) {
            timeout_t ticks = timeouts_timeout(w.T);
            if (ticks == kNever) {
                state.PauseTiming();
                refill(w);
                state.ResumeTiming();
            } else {
                timeouts_update(w.T, timeouts_now(w.T) + ticks);
            }
        }
        benchmark::DoNotOptimize(to);
    }
    countAllocations(state, before);
}
BENCHMARK(BM_TimeoutFire)->Arg(1000)->Arg(1000000);

}  // namespace

BENCHMARK_MAIN();
