#include <Kelvo/TaskSchedulerCpp.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using P = TaskPriority;
using KelvoTest::thrownMessage;
using ::testing::EndsWith;

// The reports show every valid name and most codes; these are the ends.
TEST(TaskPriority, CodesAndInvalidForms) {
    std::string codes;
    for (unsigned value = 0; value <= 5; ++value)
        codes += P(value).oneChar();
    EXPECT_EQ(codes, "AHNLS-");
    EXPECT_STREQ(P(P::oneBeyondLast).toStrep(), "oneBeyondLast");
    std::ostringstream streamed;
    streamed << P(4u) << ' ' << P(200);
    EXPECT_EQ(streamed.str(), "scavenge invalidPriority=200");
    EXPECT_THAT(thrownMessage([] { P(200).toStrep(); }), EndsWith("unexpected priority value 200"));
    EXPECT_THAT(thrownMessage([] { P(200).oneChar(); }), EndsWith("unexpected priority 200"));
    EXPECT_EQ(TaskKey(uint64_t(42)).toStrep(), "@42");
}

TEST(TaskStat, MergingFoldsFinishedTasksOfOneName) {
    ConstStringCache names;
    auto record = [&](const char* name, unsigned runs, TaskMaybeU32 workHigh, float avg,
                      TaskTimeDuration runHigh) {
        return TaskStat(names.intern(name), TaskKey(), P::normal, runs, 10ns * runs, runs, avg,
                        workHigh, runs, TaskMaybeU32(runs), 1, 2, runHigh, 5ns, runHigh,
                        TaskStat::TaskStatus());
    };
    TaskStat total = record("w", 3, TaskMaybeU32(7), 1.5f, 40ns);
    total += record("w", 2, TaskMaybeU32(), 2.5f, 30ns);  // unset: no bigger than 7
    total += record("w", 4, TaskMaybeU32(9), 3.5f, 50ns);
    // Counts add up; high waters take the largest; the average is the latest.
    EXPECT_EQ(
        std::tuple(total.taskRunCount(), total.taskTotalRunTime(), total.taskQuantumViolation500(),
                   total.taskQuantumViolation200(), total.taskCompletedCount()),
        std::tuple(9u, 90ns, 3u, 6u, 2u));
    EXPECT_EQ(std::tuple(total.taskWorkCountHighWater(), total.taskWorkPendingHighWater(),
                         total.taskWorkCountDecayingAvg(), total.taskWorkPending(),
                         total.taskRunTimeHighWaterMark()),
              std::tuple(TaskMaybeU32(9), TaskMaybeU32(4), 3.5f, 4u, 50ns));
    TaskStat other = record("x", 1, TaskMaybeU32(), 0, 0ns);
    EXPECT_THAT(thrownMessage([&] { total += other; }), EndsWith("w != x"));
    TaskSchedulerPriorityStats high{P::high, 1, 2, 3, 4}, normal{P::normal, 1, 1, 1, 1};
    EXPECT_THAT(thrownMessage([&] { high += normal; }), EndsWith("high != normal"));
}

}  // namespace
