#include <Kelvo/TaskSchedulerCpp.h>

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using Type = TaskSchedulerEventType;

// Assertions throw in this suite, so that their messages can be checked.
struct ThrowingAsserts : ::testing::Environment {
    void SetUp() override { throwOnAssertFailIs(true); }
};
const auto* const throwingAsserts = ::testing::AddGlobalTestEnvironment(new ThrowingAsserts);

TaskTimePoint at(long ns) {
    return TaskTimePoint(TaskTimeDuration(ns));
}

std::vector<std::string> names(const TaskSchedulerHistory& history) {
    std::vector<std::string> out;
    for (const auto& event : history.events())
        out.push_back(event.name.str());
    return out;
}

// ---------------------------------------------------------------------------
// History

TEST(TaskSchedulerHistory, RingKeepsTheNewestAcrossOverwriteAndCapacityChange) {
    struct Case {
        unsigned capacity;
        int inserts;  // names "e0", "e1", ...
        unsigned newCapacity;
        std::vector<std::string> newestFirst;
    } cases[] = {
        {3, 4, 3, {"e3", "e2", "e1"}},  // full ring overwrites the oldest
        {3, 7, 3, {"e6", "e5", "e4"}},  // and keeps wrapping
        {100, 5, 2, {"e4", "e3"}},      // shrinking keeps the newest
        {3, 5, 5, {"e4", "e3", "e2"}},  // growing keeps all, in order
        {0, 3, 0, {}},                  // capacity 0 records nothing
        {2, 3, 0, {}},
    };
    for (const Case& c : cases) {
        TaskSchedulerHistory history(c.capacity);
        for (int i = 0; i < c.inserts; ++i)
            history.insert(at(i), Type::schedule,
                           history.stringCache().intern("e" + std::to_string(i)));
        history.capacityIs(c.newCapacity);
        EXPECT_EQ(history.capacity(), c.newCapacity);
        EXPECT_EQ(names(history), c.newestFirst) << c.capacity << "/" << c.inserts;
        // Overwritten and dropped events released their names.
        EXPECT_EQ(history.stringCache().size(), c.newestFirst.size());
    }
}

TEST(TaskSchedulerHistory, DisplayTextsAndPadding) {
    const char* expected[] = {"schedule",
                              "unschedule",
                              "run start",
                              "run end",
                              "timerStart",
                              "timerStop",
                              "suspendOn",
                              "suspendOff",
                              "scheduleSus",
                              "frcYieldOn",
                              "frcYieldOff",
                              "idle",
                              "busy",
                              "create",
                              "delete",
                              "schedulerIdle",
                              "schedulerRunnable",
                              "schedulerSuspended",
                              "schedulerUnsuspended",
                              "schedulerRunIgnoredWhileSuspended",
                              "schedulerVirtualTimeOn",
                              "schedulerVirtualTimeOff",
                              "schedulerTestYieldRatioOn",
                              "schedulerTestYieldRatioOff"};
    for (unsigned v = 0; v < std::size(expected); ++v)
        EXPECT_STREQ(taskSchedulerEventTypeDisplay(Type(v)), expected[v]);
    EXPECT_THAT(KelvoTest::assertionText([] { taskSchedulerEventTypeDisplay(Type(24)); }),
                ::testing::EndsWith("unexpected eventType 24"));

    TaskSchedulerHistory history(2);
    history.insert(at(0), Type::runEnd, history.stringCache().intern("x"));
    history.insert(at(0), Type::schedulerRunIgnoredWhileSuspended,
                   history.stringCache().intern("s"));
    EXPECT_EQ(history.events()[1].display(), "run end      x");
    EXPECT_EQ(history.events()[0].display(), "schedulerRunIgnoredWhileSuspended s");
}

TEST(TaskSchedulerHistory, TextDumpLayout) {
    const std::string header =
        "Last 3 scheduler events, absolute timestamp and relative to last event\n" +
        std::string(70, '-') + "\n";
    TaskSchedulerHistory history(3);
    std::ostringstream empty;
    history.renderText(empty);
    EXPECT_EQ(empty.str(), header + "\n");

    history.insert(at(1'000'000'000), Type::create, history.stringCache().intern("t"));
    history.insert(at(1'000'123'999), Type::runStart, history.stringCache().intern("t"));
    std::ostringstream out;
    history.renderText(out);
    EXPECT_EQ(out.str(),
              header +
                  "            1000123999 ns since boot          0 \u00b5s run start    t\n"
                  "            1000000000 ns since boot        123 \u00b5s create       t\n"
                  "\n");

    TaskSchedulerHistory none(0);
    std::ostringstream zero;
    none.insert(at(5), Type::busy, none.stringCache().intern("t"));
    none.renderText(zero);
    EXPECT_EQ(zero.str(),
              "Last 0 scheduler events, absolute timestamp and relative to last event\n" +
                  std::string(70, '-') + "\n\n");
}

TEST(FdToStream, WritesBlockingDescriptorsAndRefusesNonBlockingOnes) {
    for (bool closeFd : {false, true}) {
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        {
            FdToStream out(fds[1], closeFd);
            out << "hello " << 42;
        }
        EXPECT_EQ(::fcntl(fds[1], F_GETFD) != -1, !closeFd) << closeFd;
        if (!closeFd)
            ::close(fds[1]);
        char text[32] = {};
        EXPECT_EQ(::read(fds[0], text, sizeof text), 8);
        EXPECT_STREQ(text, "hello 42");
        ::close(fds[0]);
    }
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_NONBLOCK), 0);
    const int flags = ::fcntl(fds[1], F_GETFL);
    EXPECT_THAT(
        KelvoTest::assertionText([&] { FdToStream out(fds[1], false); }),
        ::testing::EndsWith(fmt::format(
            "FileDescriptor {} flags 0x{:x} is non-blocking, not supported", fds[1], flags)));
    ::close(fds[0]);
    ::close(fds[1]);
}

}  // namespace
