// kelvo-demo [--serve] [--lock-dir DIR]
//
// By default runs one virtual minute under fast-forward, then prints the
// text report and the newest scheduler events. --serve runs in real time,
// serving reports to `kelvo`, until SIGINT or SIGTERM. Exit status: 0 done,
// 1 another instance holds the lock (or the daemon cannot start), 2 a bad
// command line.
#include "Demo.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <limits>
#include <string>

namespace {

constexpr double demoSeconds = 60.0;
constexpr unsigned historyShown = 24;

const char usage[] =
    "usage: kelvo-demo [--serve] [--lock-dir DIR]\n"
    "\n"
    "A small daemon on libKelvo: timer tasks with jitter, a descriptor task\n"
    "reading a pipe that a timer task feeds, a task group of workers, a heavy\n"
    "task that yields on its quantum and a task-backed timer control, at\n"
    "several priorities, with the report server on as \"kelvo-demo\".\n"
    "\n"
    "  (default)       fast-forward one virtual minute, then print the text\n"
    "                  report and the newest scheduler events\n"
    "  --serve         run in real time until SIGINT or SIGTERM; look inside\n"
    "                  with `kelvo top kelvo-demo`\n"
    "  --lock-dir DIR  directory of kelvo-demo.lock, which keeps one instance\n"
    "                  running (default $XDG_RUNTIME_DIR, else /tmp)\n"
    "  --help          this text\n"
    "\n"
    "TRACE=Demo/3 shows the daemon's status every 10 s; ZUTEST_RANDSEED=N\n"
    "replays a run's random choices.\n";

int badUsage(const std::string& message) {
    std::fprintf(stderr, "kelvo-demo: %s (try --help)\n", message.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    bool serve = false;
    std::string lockDirectory = KelvoDemo::defaultLockDirectory();
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help") {
            std::fputs(usage, stdout);
            return 0;
        } else if (arg == "--serve") {
            serve = true;
        } else if (arg == "--lock-dir") {
            if (++i == argc || *argv[i] == '\0') {
                return badUsage("--lock-dir needs a directory");
            }
            lockDirectory = argv[i];
        } else {
            return badUsage("unknown argument '" + arg + "'");
        }
    }

    Kelvo::Debuggable trace("Demo");
    KelvoDemo::SingleInstance instance(*trace.debugHandler(), lockDirectory);
    if (const std::string refusal = instance.acquire(); !refusal.empty()) {
        std::fprintf(stderr, "%s\n", refusal.c_str());
        return 1;
    }
    // Prints the seed, with which ZUTEST_RANDSEED replays the run.
    Kelvo::Random::setSeed();

    try {
        KelvoDemo::Demo demo;
        if (serve) {
            demo.stopOnSignals();
            std::printf(
                "kelvo-demo: pid %d serving as \"%s\"; `kelvo top %s` looks inside, "
                "Ctrl-C stops\n",
                static_cast<int>(::getpid()), KelvoDemo::daemonName, KelvoDemo::daemonName);
            std::fflush(stdout);
            demo.run(std::numeric_limits<double>::infinity());
            std::printf("kelvo-demo: stopped after %lu ticks\n",
                        static_cast<unsigned long>(demo.totals().ticks));
            return 0;
        }

        const auto start = std::chrono::steady_clock::now();
        Kelvo::Platform::setFastForward(true);
        demo.run(demoSeconds);
        Kelvo::Platform::setFastForward(false);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;

        const KelvoDemo::Totals& t = demo.totals();
        std::cout << fmt::format(
            "kelvo-demo: one virtual minute in {:.2f} s: {} ticks; fed {} bytes into the pipe, "
            "read {}{}; {} of {} jobs done by 3 workers; {} crunch batches, the last in {} "
            "runs\n\n",
            took.count(), t.ticks, t.bytesFed, t.bytesRead,
            t.fedChecksum == t.readChecksum ? " (same checksum)" : " (CHECKSUMS DIFFER)",
            t.jobsDone, t.jobsDispatched, t.crunchBatches, t.crunchRunsLastBatch);
        demo.printReport(std::cout, historyShown);
        return 0;
    } catch (const Kelvo::Exception& e) {
        std::fprintf(stderr, "kelvo-demo: %s\n", e.what());
        return 1;
    }
}
