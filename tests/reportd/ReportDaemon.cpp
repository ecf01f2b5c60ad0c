// A daemon with something to report, for the report server's and the kelvo
// tool's tests:
//
//   kelvo-test-reportd NAME [--tasks N]
//
// runs the thread's root with a 1 ms periodic timer task ("tick"), a few
// timer tasks at other priorities, a task group with two members, and N more
// timer tasks at 100 ms (default 0), serves reports as NAME, prints "ready"
// once serving and runs until SIGTERM or SIGINT, then exits 0. A bad command
// line exits 2; a name it cannot serve exits 1.
#include <Kelvo/Kelvo.h>

#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) {
    stopRequested = 1;
}

// Runs every period and does a little countable work.
class PeriodicTask final : public Kelvo::TimerTask {
  public:
    PeriodicTask(std::shared_ptr<Kelvo::TaskScheduler> scheduler, Kelvo::TaskPriority priority,
                 const std::string& name, std::chrono::microseconds period)
        : TimerTask(std::move(scheduler), priority, name), period_(period) {}

    void taskExecute() override {
        taskWorkCountInc(1);
        scheduleTaskDelay(period_);
    }

  private:
    std::chrono::microseconds period_;
};

int usage() {
    std::fprintf(stderr, "usage: kelvo-test-reportd NAME [--tasks N]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        return usage();
    }
    const std::string name = argv[1];
    int extra = 0;
    if (argc == 4) {
        char* end = nullptr;
        extra = static_cast<int>(std::strtol(argv[3], &end, 10));
        if (std::strcmp(argv[2], "--tasks") != 0 || *end != '\0' || extra < 0) {
            return usage();
        }
    }
    struct sigaction action {};
    action.sa_handler = requestStop;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);

    // Serving first: the set-up's time would otherwise count as the first
    // runs' scheduling latency.
    try {
        Kelvo::reportServerIs(name);
    } catch (const Kelvo::Exception& e) {
        std::fprintf(stderr, "kelvo-test-reportd: %s\n", e.what());
        return 1;
    }
    using namespace std::chrono_literals;
    using Kelvo::TaskPriority;
    std::shared_ptr<Kelvo::TaskScheduler> root = Kelvo::schedulerRootKelvo();
    std::vector<std::shared_ptr<PeriodicTask>> tasks;
    auto add = [&tasks](std::shared_ptr<Kelvo::TaskScheduler> scheduler, TaskPriority priority,
                        const std::string& taskName, std::chrono::microseconds period) {
        tasks.push_back(
            std::make_shared<PeriodicTask>(std::move(scheduler), priority, taskName, period));
        tasks.back()->scheduleTask();
    };
    add(root, TaskPriority::high, "tick", 1ms);
    add(root, TaskPriority::normal, "housekeeping", 50ms);
    add(root, TaskPriority::low, "flush \"spool\"", 200ms);
    add(root, TaskPriority::scavenge, "compact", 500ms);
    auto group = Kelvo::TaskGroup::TaskGroupIs("workers", TaskPriority::normal, false, root);
    add(group, TaskPriority::normal, "worker", 20ms);
    add(group, TaskPriority::normal, "worker", 30ms);
    for (int i = 0; i < extra; ++i) {
        add(root, TaskPriority(static_cast<unsigned>(i % 5)), "extra-" + std::to_string(i), 100ms);
    }

    std::printf("ready\n");
    std::fflush(stdout);
    while (!stopRequested) {
        Kelvo::Platform::doEventLoop(0.05);
    }
    Kelvo::reportServerIs("");
    return 0;
}
