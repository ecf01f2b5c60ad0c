// The timer wheel against libevent's own timers (a binary heap) on the same
// kind of base, and virtual time. The timing-wheel component alone is
// measured by bench_Timeout.
#include <Kelvo/LibeventFactoryCpp.h>
#include <Kelvo/TimerWheelCpp.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

using namespace Kelvo;
using namespace Kelvo::Platform;

namespace {

constexpr size_t delayCount = 1 << 16;

// Random delays in [low, high) seconds, drawn once so that the measured loops
// do not pay for the generator.
std::vector<double> delays(double low, double high, size_t count = delayCount) {
    std::mt19937_64 random(42);
    std::uniform_real_distribution<double> uniform(low, high);
    std::vector<double> out(count);
    for (double& d : out)
        d = uniform(random);
    return out;
}

timeval toTimeval(double seconds) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(std::floor(seconds));
    tv.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(tv.tv_sec)) * 1e6);
    return tv;
}

struct WheelEvent : TimerWheelEvent {
    size_t* fired;
    void timeout() override { ++*fired; }
};

struct Wheel {
    std::shared_ptr<TimerWheel> wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
    std::vector<WheelEvent> events;
    size_t fired = 0;
    explicit Wheel(size_t n) : events(n) {
        for (WheelEvent& e : events)
            e.fired = &fired;
    }
    void startAll(const std::vector<double>& d) {
        for (size_t i = 0; i < events.size(); ++i)
            wheel->timerStart(&events[i], d[i % d.size()]);
    }
    ~Wheel() {
        for (WheelEvent& e : events)
            wheel->timerStop(&e);
    }
};

void noop(evutil_socket_t, short, void* arg) {
    ++*static_cast<size_t*>(arg);
}

struct Heap {
    event_base* base;
    std::vector<event> events;
    size_t fired = 0;
    explicit Heap(size_t n) : base((leInit(), leBase())), events(n) {
        for (event& e : events)
            event_assign(&e, base, -1, 0, noop, &fired);
    }
    void addAll(const std::vector<double>& d) {
        for (size_t i = 0; i < events.size(); ++i) {
            const timeval tv = toTimeval(d[i % d.size()]);
            event_add(&events[i], &tv);
        }
    }
    ~Heap() {
        for (event& e : events)
            event_del(&e);
    }
};

// Re-arming one of N pending timers to a new random expiry.
void BM_WheelRearm(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<double> d = delays(1, 100);
    Wheel w(n);
    w.startAll(delays(1, 100, n));
    size_t i = 0;
    for (auto _ : state) {
        w.wheel->timerStart(&w.events[i % n], d[i % delayCount]);
        ++i;
    }
}
BENCHMARK(BM_WheelRearm)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000);

// The delays of the wheel benchmarks, as libevent takes them.
std::vector<timeval> delayTimevals() {
    std::vector<timeval> tv;
    for (double s : delays(1, 100))
        tv.push_back(toTimeval(s));
    return tv;
}

void BM_LibeventRearm(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<timeval> tv = delayTimevals();
    Heap h(n);
    h.addAll(delays(1, 100, n));
    size_t i = 0;
    for (auto _ : state) {
        event_add(&h.events[i % n], &tv[i % delayCount]);
        ++i;
    }
}
BENCHMARK(BM_LibeventRearm)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000);

// Starting and stopping a fresh timer beside N pending ones.
void BM_WheelStartStop(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<double> d = delays(1, 100);
    Wheel w(n);
    w.startAll(delays(1, 100, n));
    WheelEvent fresh;
    fresh.fired = &w.fired;
    size_t i = 0;
    for (auto _ : state) {
        w.wheel->timerStart(&fresh, d[i++ % delayCount]);
        w.wheel->timerStop(&fresh);
    }
}
BENCHMARK(BM_WheelStartStop)->Arg(1000000);

void BM_LibeventAddDel(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<timeval> tv = delayTimevals();
    Heap h(n);
    h.addAll(delays(1, 100, n));
    event fresh;
    event_assign(&fresh, h.base, -1, 0, noop, &h.fired);
    size_t i = 0;
    for (auto _ : state) {
        event_add(&fresh, &tv[i++ % delayCount]);
        event_del(&fresh);
    }
}
BENCHMARK(BM_LibeventAddDel)->Arg(1000000);

// Firing N timers spread over ten seconds. The wheel's clock advances in
// tick-sized steps with one loop pass each, as a busy daemon's loop finds a
// batch due at every wake-up; libevent gets its most favourable case, every
// timer already due and popped in one loop pass.
void BM_WheelFire(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<double> d = delays(0, 10, n);
    const timeval tick = {0, 10000};
    setFastForward(true);
    for (auto _ : state) {
        state.PauseTiming();
        auto w = std::make_unique<Wheel>(n);
        w->startAll(d);
        state.ResumeTiming();
        for (int step = 0; step < 1002; ++step)
            eventLoopFastForward(&tick);
        state.PauseTiming();
        if (w->fired != n)
            state.SkipWithError("timers lost");
        w.reset();
        state.ResumeTiming();
    }
    setFastForward(false);
}
BENCHMARK(BM_WheelFire)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_LibeventFire(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    const std::vector<double> d = delays(-10, 0, n);
    for (auto _ : state) {
        state.PauseTiming();
        auto h = std::make_unique<Heap>(n);
        h->addAll(d);
        state.ResumeTiming();
        event_base_loop(h->base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
        state.PauseTiming();
        if (h->fired != n)
            state.SkipWithError("timers lost");
        h.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_LibeventFire)->Arg(1000000)->Iterations(3)->Unit(benchmark::kMillisecond);

// 10,000 timers, each re-arming itself with its own period, run under
// fast-forward. The baseline is one real second of the same loop, so the
// ratio is the real seconds that the virtual run takes.
struct Periodic : TimeoutHandler {
    std::shared_ptr<TimerControl> control;
    double period = 1;
    size_t* fired = nullptr;
    void timeout() override {
        ++*fired;
        control->setTimeout(period);
    }
};

void runPeriodic(benchmark::State& state, const std::vector<double>& periods,
                 const std::vector<double>& phases, double seconds) {
    size_t fired = 0;
    for (auto _ : state) {
        auto wheel = getTimerWheelForTaskScheduler(eventPriorityDefault);
        std::vector<Periodic> timers(periods.size());
        for (size_t i = 0; i < timers.size(); ++i) {
            timers[i].control = getTimerControl(&timers[i], wheel);
            timers[i].period = periods[i];
            timers[i].fired = &fired;
            timers[i].control->setTimeout(phases[i]);
        }
        setFastForward(true);
        const double start = Kelvo::time();
        doEventLoop(seconds);
        state.counters["virtual_s"] = Kelvo::time() - start;
        setFastForward(false);
        for (Periodic& t : timers)
            t.control->delTimeout();
    }
    state.counters["fired"] = static_cast<double>(fired) / static_cast<double>(state.iterations());
}

// A daemon's periodic timers: started together at start-up, whole-second
// periods of 1 to 60 s.
void BM_VirtualHour(benchmark::State& state) {
    std::mt19937_64 random(3);
    std::vector<double> periods(10000);
    for (double& p : periods)
        p = static_cast<double>(1 + random() % 60);
    runPeriodic(state, periods, periods, 3600);
}
BENCHMARK(BM_VirtualHour)->Iterations(1)->Unit(benchmark::kMillisecond);

// The worst case: random phases and periods of 1 to 10 s, so no two timers
// ever share an instant and every firing is a loop pass of its own.
void BM_VirtualMinuteScattered(benchmark::State& state) {
    runPeriodic(state, delays(1, 10, 10000), delays(0, 10, 10000), 60);
}
BENCHMARK(BM_VirtualMinuteScattered)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_RealSecond(benchmark::State& state) {
    leInit();
    for (auto _ : state) {
        doEventLoop(1.0);
    }
}
BENCHMARK(BM_RealSecond)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
