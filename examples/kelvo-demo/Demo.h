// kelvo-demo: a small daemon that keeps one thread's scheduler busy with work
// of every kind, built on the library's public headers only.
//
// Demo owns the daemon's tasks, all on the calling thread's root scheduler:
//   tick      high      timer task, every 100 ms plus up to 10% jitter
//   feeder    normal    timer task, every 250 ms less up to 20% jitter; writes
//                       one record of random length and bytes into a pipe
//   pipe      normal    descriptor task reading that pipe ("pipe:read")
//   workers   normal    task group of three workers that hash queued jobs
//   dispatch  low       timer task, about once a second; hands the workers jobs
//   status    low       task-backed timer control; traces a status line at
//                       level 3 on the "Demo" handle every 10 s
//   crunch    scavenge  timer task, a heavy batch every 15 s; yields on its
//                       5 ms quantum and continues on a later pass
//   signals   high      descriptor task on a self-pipe, after stopOnSignals()
//
// SingleInstance keeps the daemon to one instance per lock directory.
//
// Thread: everything runs on the thread that constructs the Demo and must be
// called there. Ownership: a Demo owns its tasks, pipes and report server;
// destroying it stops them. Only one Demo may watch signals at a time.
#pragma once

#include <Kelvo/Kelvo.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace KelvoDemo {

// The name served to the kelvo tool and used for the lock file.
constexpr const char* daemonName = "kelvo-demo";

// $XDG_RUNTIME_DIR when set and not empty, else /tmp.
std::string defaultLockDirectory();

// An advisory lock on <directory>/kelvo-demo.lock.
class SingleInstance {
  public:
    SingleInstance(Kelvo::Platform::DebugHandler& handle, const std::string& directory);

    // Empty once this process holds the lock; otherwise the one line that
    // says why not, naming the holder's pid when /proc shows it.
    std::string acquire();
    const std::string& file() const noexcept { return lock_.file(); }

  private:
    Kelvo::Platform::DebugHandler& handle_;
    Kelvo::FileLock lock_;
};

struct Config {
    // Served through Kelvo::reportServerIs; empty serves nothing.
    std::string reportServerName = daemonName;
    // Slices of the heavy task's batch; each slice hashes 64 KiB.
    unsigned crunchSlicesPerBatch = 2000;
};

// What the daemon has done so far.
struct Totals {
    uint64_t ticks = 0;
    uint64_t bytesFed = 0;
    uint64_t bytesRead = 0;
    // FNV-1a over every byte written and every byte read, in order: equal
    // when the reader got exactly what the feeder wrote.
    uint64_t fedChecksum = 0;
    uint64_t readChecksum = 0;
    uint64_t jobsDispatched = 0;
    uint64_t jobsDone = 0;
    uint64_t crunchBatches = 0;
    // Runs the last finished batch took.
    uint32_t crunchRunsLastBatch = 0;
};

// Both ends of a non-blocking, close-on-exec pipe, closed together.
class Pipe {
  public:
    // Throws Kelvo::RuntimeException when the system refuses.
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int readFd() const noexcept { return fds_[0]; }
    int writeFd() const noexcept { return fds_[1]; }

  private:
    int fds_[2];
};

class Demo : public Kelvo::Debuggable {
  public:
    explicit Demo(const Config& config = Config());
    ~Demo();
    Demo(const Demo&) = delete;
    Demo& operator=(const Demo&) = delete;

    // Runs the thread's loop for that many seconds (virtual ones under
    // fast-forward), or until stop() when seconds is +infinity.
    void run(double seconds);
    // Makes run() return after its current slice; safe inside a task.
    void stop() noexcept { stopRequested_ = true; }
    bool stopRequested() const noexcept { return stopRequested_; }
    // SIGINT and SIGTERM call stop() through a self-pipe read by a task.
    void stopOnSignals();

    const Totals& totals() const noexcept { return totals_; }
    // The text report of the thread's root, then its newest historyEvents
    // events; the history keeps only that many from then on.
    void printReport(std::ostream& out, unsigned historyEvents);

    // For tests: start a heavy batch now, and the task to watch.
    void crunchNow();
    Kelvo::TaskImpl& crunchTask() const;

    class Tick;
    class Feeder;
    class PipeReader;
    class Worker;
    class Dispatcher;
    class Crunch;
    class Status;
    class SignalReader;

  private:
    Config config_;
    std::shared_ptr<Kelvo::TaskSchedulerRoot> root_;
    Totals totals_;
    bool stopRequested_ = false;
    bool serving_ = false;
    // Before the tasks, so that the tasks watching them go first.
    Pipe feed_;
    std::unique_ptr<Pipe> signalPipe_;
    std::shared_ptr<Tick> tick_;
    std::shared_ptr<PipeReader> reader_;
    std::shared_ptr<Feeder> feeder_;
    std::shared_ptr<Kelvo::TaskGroup> workers_;
    std::vector<std::shared_ptr<Worker>> workerTasks_;
    std::shared_ptr<Dispatcher> dispatcher_;
    std::shared_ptr<Crunch> crunch_;
    std::unique_ptr<Status> status_;
    std::shared_ptr<SignalReader> signalReader_;
};

}  // namespace KelvoDemo
