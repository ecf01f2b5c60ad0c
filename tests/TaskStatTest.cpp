#include <Kelvo/TaskSchedulerCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using P = TaskPriority;
using Status = TaskStat::TaskStatus;

struct Probe : Task {
    std::function<void(Probe&)> body;
    Probe(const std::shared_ptr<TaskScheduler>& scheduler, P priority, const std::string& name,
          std::function<void(Probe&)> run = {})
        : Task(scheduler, priority, name), body(std::move(run)) {}
    void taskExecute() override {
        if (body)
            body(*this);
    }
};

class Stats : public ::testing::Test {
  protected:
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("stats");
    TaskTimePoint now = TaskTimePoint(1s);
    void SetUp() override {
        root->steadyClockIsForTest([this] { return now; });
    }
    std::shared_ptr<Probe> task(P priority, const std::string& name,
                                std::function<void(Probe&)> run = {}) {
        return std::make_shared<Probe>(root, priority, name, std::move(run));
    }
    void runOnce(Probe& t) {
        t.scheduleTask();
        root->handleSchedulerRun();
    }
};

TEST(TaskPriority, NamesCodesAndInvalidForms) {
    struct Case {
        unsigned value;
        const char *name, *code, *streamed;
    } cases[] = {
        {0, "absolute", "A", "absolute"},
        {1, "high", "H", "high"},
        {2, "normal", "N", "normal"},
        {3, "low", "L", "low"},
        {4, "scavenge", "S", "scavenge"},
        {5, "oneBeyondLast", "-", "invalidPriority=5"},
        {200, nullptr, nullptr, "invalidPriority=200"},
    };
    for (const Case& c : cases) {
        const P p(c.value);
        std::ostringstream out;
        out << p;
        EXPECT_EQ(out.str(), c.streamed);
        EXPECT_EQ(fmt::format("{}", p), c.streamed);
        if (c.name) {
            EXPECT_STREQ(p.toStrep(), c.name);
            EXPECT_EQ(p.oneCharString(), c.code);
        } else {
            EXPECT_THAT(KelvoTest::thrownMessage([&] { p.toStrep(); }),
                        ::testing::EndsWith("unexpected priority value 200"));
            EXPECT_THAT(KelvoTest::thrownMessage([&] { p.oneChar(); }),
                        ::testing::EndsWith("unexpected priority 200"));
        }
    }
    EXPECT_EQ(TaskKey(uint64_t(42)).toStrep(), "@42");
}

TEST(TaskStat, MergingFoldsFinishedTasksOfOneName) {
    ConstStringCache names;
    auto record = [&](const char* name, unsigned runs, TaskMaybeU32 workHigh, float avg,
                      TaskTimeDuration runHigh) {
        return TaskStat(names.intern(name), TaskKey(), P::normal, runs, 10ns * runs, runs, avg,
                        workHigh, runs, TaskMaybeU32(runs), 1, 2, runHigh, 5ns, runHigh, Status());
    };
    TaskStat total = record("w", 3, TaskMaybeU32(7), 1.5f, 40ns);
    total += record("w", 2, TaskMaybeU32(), 2.5f, 30ns);  // unset high water: 7 stays
    EXPECT_EQ(total.taskWorkCountHighWater(), TaskMaybeU32(7));
    total += record("w", 4, TaskMaybeU32(9), 3.5f, 50ns);
    EXPECT_EQ(total.taskRunCount(), 9u);
    EXPECT_EQ(total.taskTotalRunTime(), 90ns);
    EXPECT_EQ(total.taskQuantumViolation500(), 3u);
    EXPECT_EQ(total.taskQuantumViolation200(), 6u);
    EXPECT_EQ(total.taskWorkCountHighWater(), TaskMaybeU32(9));
    EXPECT_EQ(total.taskWorkPendingHighWater(), TaskMaybeU32(4));
    EXPECT_EQ(total.taskWorkCountDecayingAvg(), 3.5f);  // the latest, not a sum
    EXPECT_EQ(total.taskWorkPending(), 4u);
    EXPECT_EQ(total.taskRunTimeHighWaterMark(), 50ns);
    EXPECT_EQ(total.taskCompletedCount(), 2u);
    TaskStat other = record("x", 1, TaskMaybeU32(), 0, 0ns);
    EXPECT_THAT(KelvoTest::thrownMessage([&] { total += other; }), ::testing::EndsWith("w != x"));

    TaskSchedulerPriorityStats high{P::high, 1, 2, 3, 4}, normal{P::normal, 1, 1, 1, 1};
    EXPECT_THAT(KelvoTest::thrownMessage([&] { high += normal; }),
                ::testing::EndsWith("high != normal"));
}

TEST_F(Stats, WorkCountsAndPendingWork) {
    struct Case {
        std::vector<unsigned long> counts;
        float average;
        uint32_t highWater;
    } cases[] = {
        {{0}, 0.0f, 0},
        {{0, 10}, 1.0f, 10},
        {{5, 3}, 4.8f, 5},
        {{0xFFFFFFFF}, 4294967295.0f, 0xFFFFFFFE},
        {{1ul << 40}, float(1ul << 40), 0xFFFFFFFE},
    };
    for (const Case& c : cases) {
        auto t = task(P::normal, "w");
        unsigned long total = 0;
        for (unsigned long n : c.counts) {
            t->taskWorkCountInc(n);
            total += n;
        }
        const TaskStat stat = t->getStats();
        EXPECT_EQ(stat.taskWorkCountTotal(), total);
        EXPECT_FLOAT_EQ(stat.taskWorkCountDecayingAvg(), c.average);
        EXPECT_EQ(stat.taskWorkCountHighWater().raw(), c.highWater);
    }
    struct Pending {
        std::vector<unsigned> figures;
        uint32_t last, highWater;
    } pendings[] = {
        {{0}, 0, 0},
        {{5, 2}, 2, 5},
        {{2, 0xFFFFFFFF}, 0xFFFFFFFF, 0xFFFFFFFE},
    };
    for (const Pending& c : pendings) {
        auto t = task(P::normal, "p");
        EXPECT_FALSE(t->getStats().taskWorkPendingHighWater().isSet());
        for (unsigned n : c.figures)
            t->taskWorkPendingIs(n);
        EXPECT_EQ(t->getStats().taskWorkPending(), c.last);
        EXPECT_EQ(t->getStats().taskWorkPendingHighWater().raw(), c.highWater);
    }
}

TEST_F(Stats, LiveRecordLatencyAndStatus) {
    std::string runningOnQueue, runningOffQueue;
    auto t = task(P::normal, "live", [&](Probe& self) {
        now += 7ms;
        self.scheduleTask();
        runningOnQueue = self.getStats().taskStatusString();
        self.unscheduleTask();
        runningOffQueue = self.getStats().taskStatusString();
    });
    t->scheduleTask();
    now += 3ms;
    root->handleSchedulerRun();
    EXPECT_EQ(runningOnQueue, "*N");
    EXPECT_EQ(runningOffQueue, "*n");
    TaskStat stat = t->getStats();
    EXPECT_EQ(stat.taskName(), "live");
    EXPECT_EQ(stat.taskKey(), TaskKey(t.get()));
    EXPECT_EQ(stat.taskRunCount(), 1u);
    EXPECT_EQ(stat.taskTotalRunTime(), 7ms);
    EXPECT_EQ(stat.taskLastSchedulingLatency(), 0ms);  // the unschedule inside the run
    EXPECT_EQ(stat.taskSchedulingLatencyHighWaterMark(), 3ms);
    EXPECT_EQ(stat.taskCompletedCount(), 0u);
    EXPECT_EQ(stat.taskStatusString(), " n");
    t->taskSuspendedIs(true);
    EXPECT_EQ(t->getStats().taskStatusString(), "Sn");
}

TEST_F(Stats, CompletedTasksMergeByNameAndExcludedOnesOnlyLeaveTheirCount) {
    for (int runs : {1, 2}) {
        auto t = task(P::low, "w");
        for (int i = 0; i < runs; ++i)
            runOnce(*t);
    }
    task(P::low, "hidden")->includeInCompletedTaskIs(false);  // dies at once
    std::vector<TaskStat> completed;
    EXPECT_EQ(root->getCompletedTaskStats(&completed, false), 0u);
    ASSERT_EQ(completed.size(), 1u);
    EXPECT_EQ(completed[0].taskName(), "L w");
    EXPECT_EQ(completed[0].taskCompletedCount(), 2u);
    EXPECT_EQ(completed[0].taskRunCount(), 3u);
    const TaskSchedulerPriorityStats low = root->queueStats().at(P::low);
    EXPECT_EQ(low.idleTasks, 0u);  // the excluded task left the count too
    EXPECT_EQ(low.completedTasks, 2u);
    EXPECT_EQ(low.totalRunCount, 3u);
    EXPECT_EQ(root->tasksPerPriority(P::low), 0u);

    auto ran = task(P::normal, "ran"), idle = task(P::normal, "idle");
    runOnce(*ran);
    std::vector<TaskStat> live;
    EXPECT_EQ(root->getTaskStats(&live, false), 1u);  // "idle" never ran: skipped
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].taskName(), "ran");

    root->clearStats();
    EXPECT_EQ(ran->getStats().taskRunCount(), 0u);
    EXPECT_FALSE(ran->getStats().taskWorkCountHighWater().isSet());
    live.clear();
    root->getCompletedTaskStats(&live, true);
    EXPECT_TRUE(live.empty());
    EXPECT_EQ(root->queueStats().at(P::low).totalRunCount, 0u);
    EXPECT_EQ(root->queueStats().at(P::low).completedTasks, 0u);
    EXPECT_EQ(root->maxSchedulerSlip(), 0ns);
}

TEST_F(Stats, IncrementalResetWalksWithABookmarkAndYields) {
    std::vector<std::shared_ptr<Probe>> tasks;
    for (int i = 0; i < 100; ++i) {
        tasks.push_back(task(P::low, "r"));
        runOnce(*tasks.back());
    }
    task(P::low, "gone");            // leaves a completed-task record
    root->taskTestYieldRatioIs(10);  // the reset task yields at every 10th question
    root->resetStats();
    EXPECT_TRUE(root->resetStatsInProgress());
    int runs = 0;
    while (root->resetStatsInProgress() && runs < 1000) {
        root->handleSchedulerRun();
        ++runs;
        if (runs == 3) {
            // The registry is newest first: tasks[5] is still ahead of the
            // walk and simply vanishes from it; "late" is linked at the front,
            // behind the walk, and keeps its figures.
            tasks[5].reset();
            tasks.push_back(task(P::low, "late"));
            tasks.back()->taskWorkCountInc(5);
        }
    }
    // The reset task and 99 others, at 10 per run.
    EXPECT_EQ(runs, 10);
    for (size_t i = 0; i < tasks.size(); ++i) {
        if (tasks[i] && i < 100) {
            EXPECT_EQ(tasks[i]->taskRunCount(), 0u) << i;
        }
    }
    EXPECT_EQ(tasks.back()->getStats().taskWorkCountTotal(), 5u);
    std::vector<TaskStat> completed;
    root->getCompletedTaskStats(&completed, true);
    EXPECT_TRUE(completed.empty());
    root->taskTestYieldRatioIs(0);

    auto empty = schedulerRootKelvoNonShared("empty");
    empty->resetStats();
    empty->handleSchedulerRun();
    EXPECT_FALSE(empty->resetStatsInProgress());
}

}  // namespace
