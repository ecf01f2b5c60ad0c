#include <Kelvo/TaskSchedulerCpp.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using namespace KelvoTest;
using P = TaskPriority;

// A scheduler under the root besides the root itself, as a task group's is.
struct SubScheduler : TaskScheduler {
    explicit SubScheduler(TaskSchedulerRoot* root) : TaskScheduler("sub", root, root->history()) {
        root->registerScheduler(this);
    }
    ~SubScheduler() override { root()->unregisterScheduler(this); }
    void requestSchedulerRun() override {}
    void handleTaskForceYieldInTest() override {}
};

// Each run advances the root's clock by its length, then reports work.
struct Worker : Task {
    TaskTimePoint* clock;
    TaskTimeDuration length;
    std::optional<unsigned> work, pending;
    Worker(std::shared_ptr<TaskScheduler> s, P priority, const std::string& name,
           TaskTimePoint* now, TaskTimeDuration runLength)
        : Task(std::move(s), priority, name), clock(now), length(runLength) {}
    void taskExecute() override {
        *clock += length;
        if (work)
            taskWorkCountInc(*work);
        if (pending)
            taskWorkPendingIs(*pending);
    }
};

class RootReport : public OsTest {
  protected:
    TaskTimePoint now = TaskTimePoint(1s);
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("text");
    std::shared_ptr<SubScheduler> sub = std::make_shared<SubScheduler>(root.get());
    std::shared_ptr<Worker> heavy = worker(root, P::normal, "heavy", 50ms);
    std::shared_ptr<Worker> light = worker(root, P::high, "light", 1'999'900ns);  // MaxMs 1
    std::shared_ptr<Worker> never = worker(root, P::low, "never", 0ms);
    std::shared_ptr<Worker> subtask = worker(sub, P::scavenge, "subtask", 10ms);

    // On the root: light runs 3 ms late for 1.9999 ms, heavy 5 ms late for 50 ms
    // (a 200% violation), two tasks "gone" complete after 1 ms each and three
    // complete without a run. On sub: subtask, 10 ms. The slip is the 3 ms.
    RootReport() {
        root->steadyClockIsForTest([this] { return now; });
        heavy->work = 7;
        subtask->work = 0;  // sets the high water: its cells print
        subtask->pending = 4;
        heavy->scheduleTask();
        light->scheduleTask();
        now += 3ms;
        root->handleSchedulerRun();
        root->handleSchedulerRun();
        for (const char* name : {"gone", "gone", "idle1", "idle2", "idle3"}) {
            auto done = worker(root, P::normal, name, 1ms);
            if (name[0] == 'g') {
                done->scheduleTask();
                root->handleSchedulerRun();
            }
        }
        subtask->scheduleTask();
        sub->handleSchedulerRun();
    }
    std::shared_ptr<Worker> worker(std::shared_ptr<TaskScheduler> s, P priority,
                                   const std::string& name, TaskTimeDuration length) {
        return std::make_shared<Worker>(std::move(s), priority, name, &now, length);
    }
};

// The whole layout: zero rows for absent priorities, the legend word for
// word, the Completed legend line and table because a task completed; then
// the address column, the history and every output.
TEST_F(RootReport, MergesEverySchedulerHeaviestFirstIntoEveryOutput) {
    EXPECT_EQ(
        root->statsRenderTextForDebugToString(false, false, true, false),
        "Priority RunnableCount     IdleCount DoneCount   TotalRunCount\n"
        "absolute             0             0         0               0\n"
        "high                 0             1         0               1\n"
        "normal               0             1         5               3\n"
        "low                  0             1         0               0\n"
        "scavenge             0             1         0               1\n"
        "Maximum scheduler slip 0.003000 seconds\n"
        "SP                = Task status and priority % two characters:\n"
        "   first            T/t for active/idle timers, * for running task or blank\n"
        "   second           priority and runnable status, upper case for runnable\n"
        "RunCount          = Number of times task has run\n"
        "TotalSec          = Total run time in seconds\n"
        "LastDelay         = Scheduling delay last time task ran, in seconds\n"
        "MaxDelay          = Maximum scheduling delay encountered, in seconds\n"
        "200% 500%         = Number of times task used this percentage of quantum\n"
        "MaxMs             = Maximum single run time in milliseconds\n"
        "Completed         = Number of times a task with this name has completed\n"
        "TotalWorkCount    = Counter of total work units processed\n"
        "DecayAvgWorkCount =    exponential decaying average of work units processed\n"
        "MaxWorkCount      =    high watermark of work units processed in one run\n"
        "LastWorkPending   = Work units pending processing\n"
        "MaxWorkPending    =    high watermark of work units pending processing\n"
        "TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
        "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n"
        "heavy     n          1         0.050  0.005   0.005    1    0    50          7      7.0"
        "      7                     \n"
        "subtask   s          1         0.010  0.000   0.000    0    0    10          0      0.0"
        "      0         4          4\n"
        "light     h          1         0.002  0.003   0.003    0    0     1                   "
        "                             \n"
        "Skipped 1 task with no runs\n"
        "TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
        "Completed Total/DecayA/Max-WorkCount Last/Max-WorkPending\n"
        "N gone                n          2         0.002  0.000   0.000    0    0     1    2"
        "                                                \n"
        "Skipped 3 tasks with no runs\n");

    // Tasks that never ran are listed (last: no run time) instead of skipped;
    // completed tasks not asked for leave neither legend line nor table.
    const std::string all = root->statsRenderTextForDebugToString(true, false, false, false);
    EXPECT_THAT(all, EndsWith("\nnever     l          0         0.000  0.000   0.000    0    0"
                              "     0                                                \n"));
    EXPECT_THAT(all, Not(HasSubstr("Completed")));

    const std::string text = root->statsRenderTextForDebugToString(false, true, true, false);
    // The longest name with its address sets the column; the others pad to it.
    const std::string subtaskCell = "subtask" + TaskKey(subtask.get()).toStrep();
    const std::string heavyCell = "heavy" + TaskKey(heavy.get()).toStrep();
    EXPECT_THAT(text, HasSubstr("\n" + subtaskCell + "  s "));
    EXPECT_THAT(text, HasSubstr("\n" + heavyCell +
                                std::string(subtaskCell.size() - heavyCell.size(), ' ') + "  n "));
    EXPECT_THAT(text, HasSubstr("\nN gone                n "));  // completed: never an address

    EXPECT_EQ(root->statsRenderTextForDebugToString(false, false, false, true),
              root->statsRenderTextForDebugToString(false, false, false, false) +
                  root->historyRenderTextForDebugToString());

    // The descriptor form writes the same text and leaves the descriptor open.
    const std::string everything = root->statsRenderTextForDebugToString(true, true, true, true);
    const int fd = ::open(path("report").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    root->statsRenderTextForDebug(fd, true, true, true, true);
    EXPECT_EQ(::close(fd), 0);
    EXPECT_EQ(readFile(path("report")), everything);

    CaptureStderr();
    root->statsRenderTextForDebugStdErr();
    EXPECT_EQ(GetCapturedStderr(), everything);

    std::thread([&] {
        EXPECT_THAT(thrownMessage([&] { root->statsRenderTextForDebugStdErr(); }),
                    HasSubstr("Executing in wrong thread"));
    }).join();
}

}  // namespace
