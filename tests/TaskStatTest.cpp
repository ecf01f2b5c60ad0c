#include <Kelvo/TaskSchedulerCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using P = TaskPriority;

// The stats records and reports print priorities through these forms; a
// streamed priority is a formatted one.
TEST(TaskPriority, NamesCodesAndInvalidForms) {
    std::string streamed, names, codes;
    for (unsigned value : {0, 1, 2, 3, 4, 5, 200}) {
        std::ostringstream out;
        out << P(value) << ' ';
        streamed += out.str();
        if (value <= 5) {
            names += P(value).toStrep() + std::string(" ");
            codes += P(value).oneChar();
        }
    }
    EXPECT_EQ(streamed, "absolute high normal low scavenge invalidPriority=5 invalidPriority=200 ");
    EXPECT_EQ(names, "absolute high normal low scavenge oneBeyondLast ");
    EXPECT_EQ(codes, "AHNLS-");
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

}  // namespace
