// A daemon with something to report, for the kelvo tool's tests and the
// report server's load program:
//
//   kelvo-test-reportd NAME
//
// runs the thread's root with a 1 ms periodic timer task ("tick"), timer
// tasks at the other priorities and a task group with two members, serves
// reports as NAME, prints "ready" once serving and runs until SIGTERM, then
// exits 0. A bad command line exits 2; a name it cannot serve
// exits 1.
#include <Kelvo/Kelvo.h>

#include <signal.h>

#include <cstdio>

namespace {

volatile sig_atomic_t stopRequested = 0;

// Runs every period and does a little countable work.
struct PeriodicTask final : Kelvo::TimerTask {
    PeriodicTask(std::shared_ptr<Kelvo::TaskScheduler> scheduler, Kelvo::TaskPriority priority,
                 const std::string& name, std::chrono::microseconds every)
        : TimerTask(std::move(scheduler), priority, name), period(every) {}
    void taskExecute() override {
        taskWorkCountInc(1);
        scheduleTaskDelay(period);
    }
    std::chrono::microseconds period;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: kelvo-test-reportd NAME\n");
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = [](int) { stopRequested = 1; };
    ::sigaction(SIGTERM, &action, nullptr);

    // Serving first: the set-up's time would otherwise count as the first
    // runs' scheduling latency.
    try {
        Kelvo::reportServerIs(argv[1]);
    } catch (const Kelvo::Exception& e) {
        std::fprintf(stderr, "kelvo-test-reportd: %s\n", e.what());
        return 1;
    }
    using namespace std::chrono_literals;
    using Kelvo::TaskPriority;
    auto root = Kelvo::schedulerRootKelvo();
    auto group = Kelvo::TaskGroup::TaskGroupIs("workers", TaskPriority::normal, false, root);
    const std::shared_ptr<PeriodicTask> tasks[] = {
        std::make_shared<PeriodicTask>(root, TaskPriority::high, "tick", 1ms),
        std::make_shared<PeriodicTask>(root, TaskPriority::normal, "housekeeping", 50ms),
        std::make_shared<PeriodicTask>(root, TaskPriority::low, "flush \"spool\"", 200ms),
        std::make_shared<PeriodicTask>(root, TaskPriority::scavenge, "compact", 500ms),
        std::make_shared<PeriodicTask>(group, TaskPriority::normal, "worker", 20ms),
        std::make_shared<PeriodicTask>(group, TaskPriority::normal, "worker", 30ms),
    };
    for (const auto& task : tasks)
        task->scheduleTask();

    std::printf("ready\n");
    std::fflush(stdout);
    while (!stopRequested)
        Kelvo::Platform::doEventLoop(0.05);
    Kelvo::reportServerIs("");
    return 0;
}
