// Finding the owner of an abstract socket among 2,000 and of a lock among
// 1,000, against one plain read of the listing each lookup starts from
// (/proc/net/unix, /proc/locks). The sockets and locks are held by a few
// child processes that each benchmark starts before it runs and stops after.
#include <Kelvo/FileLockCpp.h>
#include <Kelvo/ProcUtilCpp.h>
#include <Kelvo/UtilCpp.h>
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

constexpr int holders = 4;
constexpr int socketsPerHolder = 500;
constexpr int locksPerHolder = 250;

struct Holder {
    pid_t pid = -1;
    int releaseFd = -1;
};

std::vector<Holder> running;
std::string lockDir;
std::string tag;
std::string targetSocket;
std::string targetLock;
pid_t targetOwner = -1;

std::shared_ptr<Kelvo::Platform::DebugHandler> quietHandle() {
    auto handle = Kelvo::Platform::getDebugHandler("ProcBench");
    for (unsigned level = 0; level < 10; ++level) {
        handle->enabledIs(level, false);
    }
    return handle;
}

enum class Holding { sockets, locks };

// Forks a child that binds its sockets or takes its locks, says so on a
// pipe, and holds them until its release pipe closes (or ten minutes pass).
bool startHolder(Holding what, int index) {
    int ready[2], release[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(release, O_CLOEXEC) != 0) {
        return false;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(600);
        ::close(ready[0]);
        ::close(release[1]);
        // Holding another holder's release pipe would keep it from stopping.
        for (const Holder& other : running) {
            ::close(other.releaseFd);
        }
        rlimit files;
        ::getrlimit(RLIMIT_NOFILE, &files);
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
        auto handle = quietHandle();
        bool ok = true;
        const std::string prefix = tag + std::to_string(index) + "-";
        for (int i = 0; what == Holding::sockets && i < socketsPerHolder; ++i) {
            ok = ok && Kelvo::Util::createAndBindSocket(*handle, prefix + std::to_string(i)) >= 0;
        }
        for (int i = 0; what == Holding::locks && i < locksPerHolder; ++i) {
            auto* lock = new Kelvo::FileLock(*handle, lockDir, prefix + std::to_string(i));
            ok = ok && lock->lock(false);
        }
        const char verdict = ok ? '1' : '0';
        (void)!::write(ready[1], &verdict, 1);
        char byte;
        while (::read(release[0], &byte, 1) > 0) {
        }
        ::_exit(0);
    }
    ::close(ready[1]);
    ::close(release[0]);
    char verdict = '0';
    (void)!::read(ready[0], &verdict, 1);
    ::close(ready[0]);
    running.push_back({pid, release[1]});
    return verdict == '1';
}

void stopHolders(const benchmark::State&) {
    for (const Holder& holder : running) {
        ::close(holder.releaseFd);
        ::waitpid(holder.pid, nullptr, 0);
    }
    running.clear();
}

// Each benchmark runs with only its own population held. The target is the
// last holder's middle socket or lock, so a lookup cannot stop early.
void startHolders(Holding what) {
    bool ok = true;
    for (int i = 0; i < holders; ++i) {
        ok = startHolder(what, i) && ok;
    }
    if (!ok) {
        std::fputs("the holders could not take their sockets or locks\n", stderr);
        std::exit(1);
    }
    const std::string target = tag + std::to_string(holders - 1) + "-";
    targetSocket = target + std::to_string(socketsPerHolder / 2);
    targetLock = lockDir + "/" + target + std::to_string(locksPerHolder / 2);
    targetOwner = running.back().pid;
}

void holdSockets(const benchmark::State&) {
    startHolders(Holding::sockets);
}

void holdLocks(const benchmark::State&) {
    startHolders(Holding::locks);
}

// The baseline: the whole file with plain read() calls into one buffer.
size_t readWhole(const char* path) {
    static char buffer[1 << 16];
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    size_t total = 0;
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
        total += static_cast<size_t>(n);
    }
    ::close(fd);
    return total;
}

void BM_ReadProcNetUnix(benchmark::State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        bytes = readWhole("/proc/net/unix");
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ReadProcNetUnix)
    ->Setup(holdSockets)
    ->Teardown(stopHolders)
    ->Unit(benchmark::kMicrosecond);

void BM_AbstractSocketOwner(benchmark::State& state) {
    auto handle = quietHandle();
    for (auto _ : state) {
        const auto owners = Kelvo::Util::abstractSocketOwners(*handle, targetSocket);
        if (!owners || *owners != std::vector<pid_t>{targetOwner}) {
            state.SkipWithError("wrong owner");
            break;
        }
    }
}
BENCHMARK(BM_AbstractSocketOwner)
    ->Setup(holdSockets)
    ->Teardown(stopHolders)
    ->Unit(benchmark::kMicrosecond);

void BM_ReadProcLocks(benchmark::State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        bytes = readWhole("/proc/locks");
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ReadProcLocks)->Setup(holdLocks)->Teardown(stopHolders)->Unit(benchmark::kMicrosecond);

void BM_LockOwner(benchmark::State& state) {
    auto handle = quietHandle();
    for (auto _ : state) {
        const auto owners = Kelvo::Util::lockOwners(*handle, targetLock);
        if (!owners || *owners != std::vector<pid_t>{targetOwner}) {
            state.SkipWithError("wrong owner");
            break;
        }
    }
}
BENCHMARK(BM_LockOwner)->Setup(holdLocks)->Teardown(stopHolders)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    char dir[] = "/tmp/kelvo-proc-bench-XXXXXX";
    if (::mkdtemp(dir) == nullptr) {
        return 1;
    }
    lockDir = dir;
    tag = "kelvo-bench-" + std::to_string(::getpid()) + "-";
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ignored;
    std::filesystem::remove_all(lockDir, ignored);
    return 0;
}
