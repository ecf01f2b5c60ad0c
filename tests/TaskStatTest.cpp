#include <Kelvo/TaskSchedulerCpp.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using P = TaskPriority;

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
    EXPECT_THAT(KelvoTest::thrownMessage([] { P(200).toStrep(); }),
                ::testing::EndsWith("unexpected priority value 200"));
    EXPECT_THAT(KelvoTest::thrownMessage([] { P(200).oneChar(); }),
                ::testing::EndsWith("unexpected priority 200"));
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

}  // namespace
