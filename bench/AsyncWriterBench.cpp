// Fair writing: the asynchronous JSON writer delivers a 50 MB report (many
// snapshots of one scheduler of 1,000 tasks) to a reader that reads 64 KiB
// every millisecond, while a 1 ms periodic task of the same scheduler keeps
// running. The baseline writes the same bytes, rendered beforehand, with
// blocking writes to the same reader: it runs at the reader's pace, so the
// ratio is what the writer costs over that pace.
//
// Counters of the subject:
//   latency_ms   the periodic task's scheduling-latency high-water mark
//                (queued to run), which must stay below 20 ms (one quantum);
//   late_ms      the largest delay of a run after its timer was due;
//   MB/s         throughput of the whole report;
//   peak_MB      growth of the process's peak resident set during the write;
//   snapshot_MB  the size of one rendered snapshot; peak_MB must stay within
//                a few of these, never near the whole report.
#include <Kelvo/Kelvo.h>
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Kelvo::TaskScheduler;
using Clock = std::chrono::steady_clock;

constexpr size_t reportBytes = 50u << 20;
constexpr size_t readBytes = 64u << 10;
constexpr unsigned fleetTasks = 1000;
constexpr double inf = std::numeric_limits<double>::infinity();

struct Busy : Kelvo::Task {
    using Task::Task;
    void taskExecute() override { taskWorkCountInc(1); }
};

// One scheduler of fleetTasks tasks that have run, and its snapshot.
struct Fleet {
    std::shared_ptr<Kelvo::TaskSchedulerRoot> root = Kelvo::schedulerRootKelvoNonShared("fleet");
    std::vector<std::shared_ptr<Busy>> tasks;
    std::shared_ptr<const Kelvo::TaskSchedulerSnapshot> snapshot;
    size_t renderedBytes = 0;

    Fleet() {
        for (unsigned i = 0; i < fleetTasks; ++i) {
            tasks.push_back(std::make_shared<Busy>(root, Kelvo::TaskPriority(i % 5),
                                                   "worker-" + std::to_string(i)));
            for (unsigned run = 0; run <= i % 4; ++run)
                tasks.back()->taskRunFromTest();
        }
        snapshot = root->snapshot("", true, false, false, 0);
        std::ostringstream out;
        snapshot->renderJson(*TaskScheduler::PrintContextIs(out));
        renderedBytes = out.str().size();
    }
    TaskScheduler::SnapshotList report() const {
        return TaskScheduler::SnapshotList(reportBytes / renderedBytes + 1, snapshot);
    }
};

Fleet& fleet() {
    static Fleet f;
    return f;
}

// Reads up to 64 KiB every millisecond (absolute deadlines) until the end.
class PacedReader {
  public:
    explicit PacedReader(int fd)
        : thread_([this, fd] {
              std::vector<char> buffer(readBytes);
              timespec next;
              ::clock_gettime(CLOCK_MONOTONIC, &next);
              for (;;) {
                  const ssize_t n = ::read(fd, buffer.data(), buffer.size());
                  if (n <= 0)
                      break;
                  received_ += static_cast<size_t>(n);
                  next.tv_nsec += 1000000;
                  if (next.tv_nsec >= 1000000000) {
                      next.tv_nsec -= 1000000000, ++next.tv_sec;
                  }
                  ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
              }
              ::close(fd);
          }) {}
    size_t join() {
        thread_.join();
        return received_;
    }

  private:
    size_t received_ = 0;
    std::thread thread_;
};

// A 1 ms periodic task: a loop timer queues it, each run re-arms the timer.
class Ticker : public Kelvo::Task, public Kelvo::Platform::TimeoutHandler {
  public:
    explicit Ticker(std::shared_ptr<TaskScheduler> scheduler)
        : Task(std::move(scheduler), Kelvo::TaskPriority::normal, "ticker"),
          timer_(Kelvo::Platform::getTimerControl(this)) {
        arm();
    }
    ~Ticker() override { timer_->delTimeout(); }
    void timeout() override { scheduleTask(); }
    void taskExecute() override {
        late_ = std::max(late_, Clock::now() - due_);
        arm();
    }
    Clock::duration late() const { return late_; }

  private:
    void arm() {
        due_ = Clock::now() + std::chrono::milliseconds(1);
        timer_->setTimeout(0.001);
    }

    std::shared_ptr<Kelvo::Platform::TimerControl> timer_;
    Clock::time_point due_;
    Clock::duration late_{0};
};

long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field, 0) == 0)
            return std::stol(line.substr(std::string(field).size()));
    }
    return 0;
}

double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

void BM_AsyncWriterPacedReader(benchmark::State& state) {
    Fleet& f = fleet();
    const auto& root = Kelvo::schedulerRootKelvo();
    for (auto _ : state) {
        state.PauseTiming();
        const TaskScheduler::SnapshotList report = f.report();
        int fds[2];
        if (::pipe(fds) != 0) {
            state.SkipWithError("pipe");
            return;
        }
        // Resets the peak resident set to the current one.
        std::ofstream("/proc/self/clear_refs") << "5";
        const long rssBefore = statusKiB("VmRSS:");
        auto ticker = std::make_shared<Ticker>(root);
        bool done = false;
        state.ResumeTiming();

        const Clock::time_point start = Clock::now();
        PacedReader reader(fds[0]);
        root->snapshotRenderJsonAsync(fds[1], report, [&] { done = true; });
        while (!done)
            Kelvo::Platform::doEventLoopInWaitfor(inf);  // one loop pass
        const size_t received = reader.join();
        const Clock::duration took = Clock::now() - start;

        state.PauseTiming();
        const double peakGrowthMB = (statusKiB("VmHWM:") - rssBefore) / 1024.0;
        const double snapshotMB = static_cast<double>(f.renderedBytes) / (1 << 20);
        state.counters["latency_ms"] = ms(ticker->getStats().taskSchedulingLatencyHighWaterMark());
        state.counters["late_ms"] = ms(ticker->late());
        state.counters["ticks"] = ticker->taskRunCount();
        state.counters["MB/s"] = static_cast<double>(received) / (1 << 20) / (ms(took) / 1000);
        state.counters["report_MB"] = static_cast<double>(received) / (1 << 20);
        state.counters["snapshot_MB"] = snapshotMB;
        state.counters["peak_MB"] = peakGrowthMB;
        state.counters["peak_snapshots"] = peakGrowthMB / snapshotMB;
        ticker.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_AsyncWriterPacedReader)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_BlockingWriterPacedReader(benchmark::State& state) {
    Fleet& f = fleet();
    std::ostringstream out;
    {
        auto context = TaskScheduler::PrintContextIs(out);
        for (const auto& snapshot : f.report())
            snapshot->renderJson(*context);
    }
    const std::string text = out.str();
    for (auto _ : state) {
        int fds[2];
        if (::pipe(fds) != 0) {
            state.SkipWithError("pipe");
            return;
        }
        PacedReader reader(fds[0]);
        for (size_t offset = 0; offset < text.size();) {
            const ssize_t n = ::write(fds[1], text.data() + offset, text.size() - offset);
            if (n <= 0)
                break;
            offset += static_cast<size_t>(n);
        }
        ::close(fds[1]);
        benchmark::DoNotOptimize(reader.join());
    }
}
BENCHMARK(BM_BlockingWriterPacedReader)->Iterations(1)->Unit(benchmark::kMillisecond);

// The periodic task alone for one second: what the machine's load alone does
// to its latency.
void BM_TickerAlone(benchmark::State& state) {
    for (auto _ : state) {
        auto ticker = std::make_shared<Ticker>(Kelvo::schedulerRootKelvo());
        const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
        while (Clock::now() < end)
            Kelvo::Platform::doEventLoopInWaitfor(inf);
        state.counters["latency_ms"] = ms(ticker->getStats().taskSchedulingLatencyHighWaterMark());
        state.counters["late_ms"] = ms(ticker->late());
        state.counters["ticks"] = ticker->taskRunCount();
    }
}
BENCHMARK(BM_TickerAlone)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
