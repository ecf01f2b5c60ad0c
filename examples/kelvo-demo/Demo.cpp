#include "Demo.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>

namespace KelvoDemo {

using namespace std::chrono_literals;
using Kelvo::TaskPriority;

namespace {

// Byte-wise, so that the sum does not depend on how writes and reads split
// the stream.
uint64_t fnv1a(uint64_t sum, const char* data, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        sum = (sum ^ static_cast<unsigned char>(data[i])) * 0x100000001b3ull;
    }
    return sum;
}
constexpr uint64_t fnvOffsetBasis = 0xcbf29ce484222325ull;

// The write end of the signal pipe for the handler; -1 when no Demo watches
// signals. The dispositions it replaced are put back when it goes.
volatile sig_atomic_t signalWriteFd = -1;
struct sigaction previousSigint;
struct sigaction previousSigterm;

void onStopSignal(int signal) {
    const int savedErrno = errno;
    const char byte = static_cast<char>(signal);
    // write() is async-signal-safe; a full pipe already holds a stop request.
    [[maybe_unused]] const ssize_t written = ::write(signalWriteFd, &byte, 1);
    errno = savedErrno;
}

}  // namespace

std::string defaultLockDirectory() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime && *runtime ? runtime : "/tmp";
}

SingleInstance::SingleInstance(Kelvo::Platform::DebugHandler& handle, const std::string& directory)
    : handle_(handle), lock_(handle, directory, std::string(daemonName) + ".lock") {}

std::string SingleInstance::acquire() {
    if (lock_.lock(false)) {
        return {};
    }
    // The lowest pid is the holder itself when forked children share its lock.
    const auto holders = Kelvo::Util::lockOwners(handle_, lock_.file());
    if (!holders || holders->empty()) {
        return fmt::format("{}: cannot take the lock file {} (TRACE=Demo/1 says why)", daemonName,
                           lock_.file());
    }
    return fmt::format("{}: already running as pid {} (lock file {})", daemonName, holders->front(),
                       lock_.file());
}

Pipe::Pipe() {
    if (::pipe2(fds_, O_NONBLOCK | O_CLOEXEC) != 0) {
        Kelvo::RuntimeException::throwException(
            fmt::format("cannot create a pipe: {}", std::strerror(errno)));
    }
}

Pipe::~Pipe() {
    ::close(fds_[0]);
    ::close(fds_[1]);
}

class Demo::Tick final : public Kelvo::TimerTask {
  public:
    explicit Tick(Demo& demo) : TimerTask(demo.root_, TaskPriority::high, "tick"), demo_(demo) {}

    void taskExecute() override {
        ++demo_.totals_.ticks;
        taskWorkCountInc(1);
        scheduleTaskJitterUp(100ms, 10);
    }

  private:
    Demo& demo_;
};

// Writes one record per run; what a full pipe refuses waits for the next run,
// so the loop never blocks on the pipe.
class Demo::Feeder final : public Kelvo::TimerTask {
  public:
    Feeder(Demo& demo, int fd)
        : TimerTask(demo.root_, TaskPriority::normal, "feeder"), demo_(demo), fd_(fd) {}

    void taskExecute() override {
        if (pending_.empty()) {
            // Random bytes, zero bytes included, of a random length.
            pending_ = fmt::format("record {}:", ++records_) +
                       Kelvo::Random::randomString(16 + Kelvo::Random::rand64() % 1009);
        }
        const ssize_t written = ::write(fd_, pending_.data(), pending_.size());
        if (written > 0) {
            Totals& totals = demo_.totals_;
            totals.fedChecksum = fnv1a(totals.fedChecksum, pending_.data(), written);
            totals.bytesFed += written;
            taskWorkCountInc(written);
            pending_.erase(0, written);
        } else if (written < 0 && errno != EAGAIN && errno != EINTR) {
            KELVO_TRACEM(demo_, 1, "feeder: write failed: {}", std::strerror(errno));
        }
        taskWorkPendingIs(pending_.size());
        scheduleTaskJitterDown(250ms, 20);
    }

  private:
    Demo& demo_;
    int fd_;
    uint64_t records_ = 0;
    std::string pending_;
};

class Demo::PipeReader final : public Kelvo::FileDescriptorTask {
  public:
    PipeReader(Demo& demo, int fd)
        : FileDescriptorTask(demo.root_, TaskPriority::normal, "pipe"), demo_(demo) {
        taskWatchFdIs(fd);
    }

    // Reads until the pipe is empty or the quantum is used; readability is
    // level-triggered, so what is left brings the task back.
    void taskExecuteReadable() override {
        char buffer[4096];
        do {
            const ssize_t n = ::read(taskWatchFd(), buffer, sizeof buffer);
            if (n > 0) {
                Totals& totals = demo_.totals_;
                totals.readChecksum = fnv1a(totals.readChecksum, buffer, n);
                totals.bytesRead += n;
                taskWorkCountInc(n);
                continue;
            }
            if (n == 0) {
                KELVO_TRACEM(demo_, 1, "pipe: the feeder's end closed");
                taskWatchFdDel();
            } else if (errno != EAGAIN && errno != EINTR) {
                KELVO_TRACEM(demo_, 1, "pipe: read failed: {}", std::strerror(errno));
                taskWatchFdDel();
            }
            return;
        } while (!taskShouldYield());
    }
    void taskExecuteWritable() override {}

  private:
    Demo& demo_;
};

// A member of the workers group: hashes the items of its queued jobs.
class Demo::Worker final : public Kelvo::Task {
  public:
    Worker(Demo& demo, const std::shared_ptr<Kelvo::TaskGroup>& group, unsigned index)
        : Task(group, TaskPriority::normal, fmt::format("worker-{}", index)), demo_(demo) {
        std::fill(std::begin(item_), std::end(item_), index);
    }

    void add(unsigned items) {
        jobs_.push_back(items);
        taskWorkPendingIs(jobs_.size());
        scheduleTask();
    }
    size_t queued() const noexcept { return jobs_.size(); }

    void taskExecute() override {
        unsigned items = 0;
        while (!jobs_.empty()) {
            item_[0] = Kelvo::Util::hash64(item_, sizeof item_);
            ++items;
            if (--jobs_.front() == 0) {
                jobs_.pop_front();
                ++demo_.totals_.jobsDone;
            }
            if (taskShouldYield()) {
                break;
            }
        }
        taskWorkCountInc(items);
        taskWorkPendingIs(jobs_.size());
        if (!jobs_.empty()) {
            scheduleTask();
        }
    }

  private:
    Demo& demo_;
    std::deque<unsigned> jobs_;
    uint64_t item_[512];
};

class Demo::Dispatcher final : public Kelvo::TimerTask {
  public:
    explicit Dispatcher(Demo& demo)
        : TimerTask(demo.root_, TaskPriority::low, "dispatch"), demo_(demo) {}

    void taskExecute() override {
        const unsigned jobs = 1 + Kelvo::Random::rand64() % 6;
        auto& workers = demo_.workerTasks_;
        for (unsigned i = 0; i < jobs; ++i) {
            auto idlest = std::min_element(
                workers.begin(), workers.end(),
                [](const auto& a, const auto& b) { return a->queued() < b->queued(); });
            (*idlest)->add(50 + Kelvo::Random::rand64() % 450);
        }
        demo_.totals_.jobsDispatched += jobs;
        taskWorkCountInc(jobs);
        scheduleTaskJitterUp(1s, 25);
    }

  private:
    Demo& demo_;
};

// The heavy one: a batch of slices far longer than its quantum, run a few
// slices at a time.
class Demo::Crunch final : public Kelvo::TimerTask {
  public:
    explicit Crunch(Demo& demo)
        : TimerTask(demo.root_, TaskPriority::scavenge, "crunch"), demo_(demo), block_(8192) {
        taskQuantumIs(5ms);
    }

    void taskExecute() override {
        if (remaining_ == 0) {
            remaining_ = demo_.config_.crunchSlicesPerBatch;
            runsThisBatch_ = 0;
        }
        ++runsThisBatch_;
        unsigned slices = 0;
        do {
            block_[slices % block_.size()] =
                Kelvo::Util::hash64(block_.data(), block_.size() * sizeof(uint64_t));
            ++slices;
        } while (--remaining_ > 0 && !taskShouldYield());
        taskWorkCountInc(slices);
        taskWorkPendingIs(remaining_);
        if (remaining_ > 0) {
            scheduleTask();
            return;
        }
        Totals& totals = demo_.totals_;
        ++totals.crunchBatches;
        totals.crunchRunsLastBatch = runsThisBatch_;
        KELVO_TRACEM(demo_, 5, "crunch: batch {} took {} runs", totals.crunchBatches,
                     runsThisBatch_);
        scheduleTaskJitterUp(15s, 10);
    }

  private:
    Demo& demo_;
    std::vector<uint64_t> block_;
    unsigned remaining_ = 0;
    uint32_t runsThisBatch_ = 0;
};

// A plain TimeoutHandler, as written for the event loop's timers, run as a
// task of the root through a task-backed control.
class Demo::Status final : public Kelvo::Platform::TimeoutHandler {
  public:
    static constexpr double period = 10.0;

    explicit Status(Demo& demo)
        : demo_(demo),
          control_(
              Kelvo::Platform::getTimerControl(this, demo.root_, TaskPriority::low, "status")) {
        control_->setTimeout(period);
    }

    void timeout() override {
        const Totals& t = demo_.totals_;
        KELVO_TRACEM(
            demo_, 3, "status: {} ticks, fed {} bytes, read {}, jobs {}/{} done, {} crunch batches",
            t.ticks, t.bytesFed, t.bytesRead, t.jobsDone, t.jobsDispatched, t.crunchBatches);
        control_->setTimeout(period);
    }

  private:
    Demo& demo_;
    std::shared_ptr<Kelvo::Platform::TimerControl> control_;
};

class Demo::SignalReader final : public Kelvo::FileDescriptorTask {
  public:
    SignalReader(Demo& demo, int fd)
        : FileDescriptorTask(demo.root_, TaskPriority::high, "signals"), demo_(demo) {
        taskWatchFdIs(fd);
    }

    void taskExecuteReadable() override {
        char signals[16];
        const ssize_t n = ::read(taskWatchFd(), signals, sizeof signals);
        for (ssize_t i = 0; i < n; ++i) {
            KELVO_TRACEM(demo_, 3, "stopping on signal {}", static_cast<int>(signals[i]));
        }
        demo_.stop();
    }
    void taskExecuteWritable() override {}

  private:
    Demo& demo_;
};

Demo::Demo(const Config& config)
    : Debuggable("Demo"), config_(config), root_(Kelvo::schedulerRootKelvo()) {
    // Serving first: it is the one step that may refuse (a name taken), and
    // the set-up's time would otherwise count as the first runs' latency.
    if (!config_.reportServerName.empty()) {
        Kelvo::reportServerIs(config_.reportServerName);
        serving_ = true;
    }
    tick_ = std::make_shared<Tick>(*this);
    reader_ = std::make_shared<PipeReader>(*this, feed_.readFd());
    feeder_ = std::make_shared<Feeder>(*this, feed_.writeFd());
    workers_ = Kelvo::TaskGroup::TaskGroupIs("workers", TaskPriority::normal, true, root_);
    workers_->taskGroupQuantumIs(10ms);
    for (unsigned i = 0; i < 3; ++i) {
        workerTasks_.push_back(std::make_shared<Worker>(*this, workers_, i));
    }
    dispatcher_ = std::make_shared<Dispatcher>(*this);
    crunch_ = std::make_shared<Crunch>(*this);
    status_ = std::make_unique<Status>(*this);
    totals_.fedChecksum = totals_.readChecksum = fnvOffsetBasis;

    tick_->scheduleTask();
    feeder_->scheduleTaskDelay(0.1);
    dispatcher_->scheduleTaskDelay(0.5);
    crunch_->scheduleTaskDelay(2.0);
    KELVO_TRACEM(*this, 4, "started{}", serving_ ? " serving as " + config_.reportServerName : "");
}

Demo::~Demo() {
    if (signalReader_) {
        ::sigaction(SIGINT, &previousSigint, nullptr);
        ::sigaction(SIGTERM, &previousSigterm, nullptr);
        signalWriteFd = -1;
    }
    if (serving_) {
        Kelvo::reportServerIs("");
    }
}

void Demo::run(double seconds) {
    // Slices, so that a stop request is seen within a quarter second.
    const double end = Kelvo::time() + seconds;
    for (double now = Kelvo::time(); !stopRequested_ && now < end; now = Kelvo::time()) {
        Kelvo::Platform::doEventLoop(std::min(0.25, end - now));
    }
}

void Demo::stopOnSignals() {
    KELVO_ASSERTM(signalWriteFd == -1, "another Demo watches signals");
    signalPipe_ = std::make_unique<Pipe>();
    signalReader_ = std::make_shared<SignalReader>(*this, signalPipe_->readFd());
    signalWriteFd = signalPipe_->writeFd();
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, &previousSigint);
    ::sigaction(SIGTERM, &action, &previousSigterm);
}

void Demo::printReport(std::ostream& out, unsigned historyEvents) {
    root_->statsRenderTextForDebug(out, false, false, false, false);
    out << '\n';
    root_->historyEntryCountIs(historyEvents);
    root_->historyRenderTextForDebug(out);
}

void Demo::crunchNow() {
    crunch_->scheduleTask();
}

Kelvo::TaskImpl& Demo::crunchTask() const {
    return *crunch_;
}

}  // namespace KelvoDemo
