// Descriptor tasks against plain libevent read callbacks on the same loop:
// streaming 64 KiB reads from a socketpair that another thread keeps full,
// and the round trip of a 64-byte message between two watchers on one
// thread. Each benchmark reports "allocs/op" (global operator new counted).
#include <Kelvo/LibeventFactoryCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "CountingAllocator.h"

namespace {

using namespace Kelvo;

constexpr size_t chunk = 64 * 1024;
// Bytes received per iteration, exactly: 64 chunks.
constexpr size_t streamed = 64 * chunk;
constexpr int roundTrips = 1000;
constexpr size_t message = 64;

void nonBlocking(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

// A socketpair whose write end a thread of its own keeps full with 64 KiB
// sends until the feeder goes.
class Feeder {
  public:
    Feeder() {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0)
            std::abort();
        thread_ = std::thread([this] {
            while (!stop_.load(std::memory_order_relaxed) &&
                   ::send(fds_[1], data_.data(), data_.size(), MSG_NOSIGNAL) > 0) {
            }
        });
    }
    ~Feeder() {
        stop_ = true;
        // Shutting the read end wakes a sender blocked on a full buffer.
        ::shutdown(fds_[0], SHUT_RDWR);
        thread_.join();
        ::close(fds_[0]);
        ::close(fds_[1]);
    }
    int readFd() const { return fds_[0]; }

  private:
    int fds_[2];
    const std::vector<char> data_ = std::vector<char>(chunk, 'x');
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// One read of at most 64 KiB, never past the iteration's total; true when
// the total is reached.
bool readChunk(int fd, std::vector<char>& buffer, size_t& received) {
    const ssize_t n = ::read(fd, buffer.data(), std::min(chunk, streamed - received));
    if (n > 0)
        received += size_t(n);
    return received == streamed;
}

struct StreamTask : FileDescriptorTask {
    std::vector<char> buffer = std::vector<char>(chunk);
    size_t received = 0;
    uint64_t reads = 0;
    StreamTask(const std::shared_ptr<TaskScheduler>& s, int fd)
        : FileDescriptorTask(s, TaskPriority::normal, "stream") {
        taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override {
        ++reads;
        if (readChunk(taskWatchFd(), buffer, received))
            taskWatchReadableIs(false);
    }
    void taskExecuteWritable() override {}
};

void BM_StreamDescriptorTask(benchmark::State& state) {
    Feeder feeder;
    auto root = schedulerRootKelvoNonShared("bench");
    auto task = std::make_shared<StreamTask>(root, feeder.readFd());
    const uint64_t before = allocations.load();
    for (auto _ : state) {
        task->received = 0;
        task->taskWatchReadableIs(true);
        Platform::doEventLoop();  // returns once the watch is off
    }
    state.counters["allocs/op"] = double(allocations.load() - before) / double(task->reads);
    state.counters["bytes/read"] = double(state.iterations() * streamed) / double(task->reads);
    state.SetBytesProcessed(int64_t(state.iterations() * streamed));
}
BENCHMARK(BM_StreamDescriptorTask);

void BM_StreamLibeventCallback(benchmark::State& state) {
    Feeder feeder;
    nonBlocking(feeder.readFd());
    struct Reader {
        event ev;
        std::vector<char> buffer = std::vector<char>(chunk);
        size_t received = 0;
        uint64_t reads = 0;
    } reader;
    leInit();
    event_assign(
        &reader.ev, leBase(), feeder.readFd(), EV_READ | EV_PERSIST,
        [](evutil_socket_t fd, short, void* arg) {
            auto* r = static_cast<Reader*>(arg);
            ++r->reads;
            if (readChunk(fd, r->buffer, r->received))
                event_del(&r->ev);
        },
        &reader);
    const uint64_t before = allocations.load();
    for (auto _ : state) {
        reader.received = 0;
        event_add(&reader.ev, nullptr);
        Platform::doEventLoop();
    }
    state.counters["allocs/op"] = double(allocations.load() - before) / double(reader.reads);
    state.counters["bytes/read"] = double(state.iterations() * streamed) / double(reader.reads);
    state.SetBytesProcessed(int64_t(state.iterations() * streamed));
}
BENCHMARK(BM_StreamLibeventCallback);

// Reads one message and answers it; the initiator counts the round trips and
// ends the iteration by turning both watches off.
struct PingTask : FileDescriptorTask {
    char text[message] = {};
    PingTask* peer = nullptr;
    int* remaining = nullptr;  // set on the initiator only
    PingTask(const std::shared_ptr<TaskScheduler>& s, int fd)
        : FileDescriptorTask(s, TaskPriority::normal, "ping") {
        taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override {
        const int fd = taskWatchFd();
        if (::read(fd, text, message) != ssize_t(message))
            std::abort();
        if (remaining && --*remaining == 0) {
            taskWatchReadableIs(false);
            peer->taskWatchReadableIs(false);
            return;
        }
        if (::write(fd, text, message) != ssize_t(message))
            std::abort();
    }
    void taskExecuteWritable() override {}
};

void BM_PingPongDescriptorTasks(benchmark::State& state) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        std::abort();
    auto root = schedulerRootKelvoNonShared("bench");
    auto a = std::make_shared<PingTask>(root, fds[0]);
    auto b = std::make_shared<PingTask>(root, fds[1]);
    int remaining = 0;
    a->peer = b.get(), b->peer = a.get(), a->remaining = &remaining;
    const uint64_t before = allocations.load();
    for (auto _ : state) {
        remaining = roundTrips;
        a->taskWatchReadableIs(true);
        b->taskWatchReadableIs(true);
        if (::write(fds[0], a->text, message) != ssize_t(message))
            std::abort();
        Platform::doEventLoop();
    }
    state.counters["allocs/op"] =
        double(allocations.load() - before) / double(state.iterations() * roundTrips);
    state.SetItemsProcessed(state.iterations() * roundTrips);
    a.reset(), b.reset();
    ::close(fds[0]), ::close(fds[1]);
}
BENCHMARK(BM_PingPongDescriptorTasks);

void BM_PingPongLibeventCallbacks(benchmark::State& state) {
    struct Ping {
        event ev;
        char text[message] = {};
        Ping* peer = nullptr;
        int* remaining = nullptr;
    } a, b;
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        std::abort();
    nonBlocking(fds[0]), nonBlocking(fds[1]);
    leInit();
    const auto onRead = [](evutil_socket_t fd, short, void* arg) {
        auto* p = static_cast<Ping*>(arg);
        if (::read(fd, p->text, message) != ssize_t(message))
            std::abort();
        if (p->remaining && --*p->remaining == 0) {
            event_del(&p->ev);
            event_del(&p->peer->ev);
            return;
        }
        if (::write(fd, p->text, message) != ssize_t(message))
            std::abort();
    };
    event_assign(&a.ev, leBase(), fds[0], EV_READ | EV_PERSIST, onRead, &a);
    event_assign(&b.ev, leBase(), fds[1], EV_READ | EV_PERSIST, onRead, &b);
    int remaining = 0;
    a.peer = &b, b.peer = &a, a.remaining = &remaining;
    const uint64_t before = allocations.load();
    for (auto _ : state) {
        remaining = roundTrips;
        event_add(&a.ev, nullptr);
        event_add(&b.ev, nullptr);
        if (::write(fds[0], a.text, message) != ssize_t(message))
            std::abort();
        Platform::doEventLoop();
    }
    state.counters["allocs/op"] =
        double(allocations.load() - before) / double(state.iterations() * roundTrips);
    state.SetItemsProcessed(state.iterations() * roundTrips);
    ::close(fds[0]), ::close(fds[1]);
}
BENCHMARK(BM_PingPongLibeventCallbacks);

}  // namespace

BENCHMARK_MAIN();
