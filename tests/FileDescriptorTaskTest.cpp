#include <Kelvo/TaskSchedulerCpp.h>

#include <sys/socket.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using namespace KelvoTest;
using P = TaskPriority;

// Counts its runs per direction and does in each what its test asks.
struct Watcher : FileDescriptorTask {
    std::function<void(Watcher&)> onRead = [](Watcher&) {}, onWrite = onRead;
    int reads = 0, writes = 0;
    Watcher(const std::shared_ptr<TaskScheduler>& scheduler, int fd)
        : FileDescriptorTask(scheduler, P::normal, "w") {
        taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override { ++reads, onRead(*this); }
    void taskExecuteWritable() override { ++writes, onWrite(*this); }
};

// A root and a socketpair (sv[0] watched, sv[1] the peer); no descriptor may
// leak.
class FdTask : public KelvoTest::OsTest {
  protected:
    void SetUp() override {
        OsTest::SetUp();
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    }
    void TearDown() override {
        ::close(sv[0]), ::close(sv[1]);
        OsTest::TearDown();
    }
    std::shared_ptr<Watcher> watcher() { return std::make_shared<Watcher>(root, sv[0]); }

    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("fd");
    int sv[2] = {-1, -1};
};

TEST_F(FdTask, WriteTaskCreatedOnFirstNeedCopiesTheReadTasksSettings) {
    // Yield ratio, suspended, the write task's quantum: a ratio of 1 leaves
    // the default.
    const std::tuple<uint8_t, bool, TaskTimeDuration> cases[] = {
        {3, true, 5ms}, {1, false, TaskScheduler::defaultQuantum}};
    for (const auto& [ratio, suspended, writeQuantum] : cases) {
        auto w = watcher();
        ASSERT_EQ(w->writeTask(), nullptr);
        w->taskQuantumIs(5ms);
        w->taskTestYieldRatioIs(ratio);
        w->taskSuspendedIs(suspended);
        w->taskStatsNameIs("renamed");
        w->taskWatchWritableIs(true);
        EXPECT_EQ(w->writeTask()->taskName(), "w:write");
        EXPECT_EQ(w->writeTask()->taskStatsName(), "renamed:write");
        EXPECT_EQ(w->readTask()->taskStatsName(), "renamed:read");
        EXPECT_EQ(w->writeTask()->taskQuantum(), writeQuantum) << int(ratio);
        EXPECT_EQ(w->writeTask()->taskTestYieldRatio(), ratio);
        EXPECT_EQ(w->writeTask()->taskSuspended(), suspended);
    }
    EXPECT_EQ(root->tasksPerPriority(P::normal), 0u);
}

TEST_F(FdTask, WritableOncePerArmingReadableUntilThePeerCloses) {
    auto w = watcher();
    w->onWrite = [](Watcher& self) {
        if (self.writes < 3)
            self.taskWatchWritableIs(true);  // re-armed from inside the run
    };
    w->taskWatchWritableIs(true);
    ASSERT_TRUE(loopUntil([&] { return w->writes == 3; }));
    Platform::doEventLoop(0.05);  // the socket stays writable
    EXPECT_EQ(w->writes, 3);
    EXPECT_THAT(thrownMessage([&] { w->writeFdEvent(sv[0]); }),
                EndsWith("writeFdEvent() called with taskWatchWritable off"));

    int ends = 0;
    w->onRead = [&](Watcher& self) {
        char buffer[256];
        ssize_t n;
        while ((n = ::read(sv[0], buffer, sizeof buffer)) > 0)
            self.taskWorkCountInc(size_t(n));
        if (n == 0)
            ++ends, self.taskWatchFdDel();
    };
    ASSERT_EQ(::write(sv[1], std::string(1000, 'x').data(), 1000), 1000);
    ::close(std::exchange(sv[1], -1));
    ASSERT_TRUE(loopUntil([&] { return ends == 1; }));
    const int reads = w->reads;
    Platform::doEventLoop(0.05);
    EXPECT_EQ(std::tuple(w->reads, w->taskWatchFd(), w->taskWorkCountReadableTotal()),
              std::tuple(reads, -1, 1000u));
    EXPECT_EQ(w->taskRunCount(), unsigned(reads + 3));
}

TEST_F(FdTask, MisuseFailsWithItsText) {
    const std::string otherFd = fmt::format("Notified about {} watching {}", sv[1], sv[0]);
    const std::string noWriteTask = "WriteTask not created by taskWatchWritableIs( true )";
    const std::pair<std::function<void(Watcher&)>, std::string> cases[] = {
        {[](Watcher& w) { w.taskWatchReadableIs(false), w.readFdEvent(w.taskWatchFd()); },
         "readFdEvent() called with taskWatchReadable off"},
        {[&](Watcher& w) { w.readFdEvent(sv[1]); }, otherFd},
        {[&](Watcher& w) { w.taskWatchWritableIs(true), w.writeFdEvent(sv[1]); }, otherFd},
        {[](Watcher& w) { w.taskWatchReadableIs(false), w.readTask()->taskRunFromTest(); },
         "ReadTask should only run if taskWatchReadable"},
        {[](Watcher& w) { w.taskWorkCountWritableInc(1); }, noWriteTask},
        {[](Watcher& w) { w.taskWorkPendingWritableIs(1); }, noWriteTask},
        {[](Watcher& w) {
             w.taskWatchWritableIs(true);
             w.onRead = [](Watcher& self) { self.writeTask()->taskRunFromTest(); };
             w.readTask()->taskRunFromTest();
         },
         "Executing task already set"},
        {[](Watcher& w) { (void)w.taskShouldYield(); }, "w has no inner task running"},
    };
    for (const auto& c : cases) {
        auto w = watcher();
        EXPECT_THAT(thrownMessage([&] { c.first(*w); }), EndsWith(c.second));
    }
}

TEST_F(FdTask, WatchChangesUnscheduleQueuedRuns) {
    // The change, and which runs stay queued: read, write.
    const std::tuple<const char*, std::function<void(Watcher&)>, bool, bool> cases[] = {
        {"same fd", [&](Watcher& w) { w.taskWatchFdIs(sv[0]); }, true, true},
        {"other fd", [&](Watcher& w) { w.taskWatchFdIs(sv[1]); }, false, false},
        {"fd deleted", [](Watcher& w) { w.taskWatchFdDel(); }, false, false},
        {"readable off", [](Watcher& w) { w.taskWatchReadableIs(false); }, false, true},
        {"writable off", [](Watcher& w) { w.taskWatchWritableIs(false); }, true, false},
    };
    for (const auto& [change, apply, readQueued, writeQueued] : cases) {
        auto w = watcher();
        w->taskWatchWritableIs(true);
        w->readFdEvent(sv[0]);
        w->writeFdEvent(sv[0]);
        apply(*w);
        EXPECT_EQ(w->taskBusy(), readQueued || writeQueued) << change;
        for (int i = 0; i < 3; ++i)
            root->handleSchedulerRun();
        EXPECT_EQ(std::tuple(w->reads, w->writes, w->taskBusy()),
                  std::tuple(int(readQueued), int(writeQueued), false))
            << change;
    }
}

TEST_F(FdTask, AnOwnerGoneMidRunOrBeforeAQueuedRunIsNeverReached) {
    // Dropped inside its own run: the run ends on a live object (the address
    // sanitizer would see it otherwise), then owner and inner tasks go.
    auto w = watcher();
    std::weak_ptr<_TaskBase> gone = w;
    w->onRead = [&](Watcher& self) { w.reset(), self.writes = 1; };
    w->readFdEvent(sv[0]);
    root->handleSchedulerRun();
    EXPECT_TRUE(gone.expired());
    EXPECT_EQ(root->tasksPerPriority(P::normal), 0u);

    // An inner task that outlives its owner runs without reaching it.
    w = watcher();
    w->onRead = [](Watcher&) { ADD_FAILURE() << "owner reached"; };
    const std::shared_ptr<_TaskBase> inner = w->readTask()->shared_from_this();
    w->readFdEvent(sv[0]);
    w.reset();
    ASSERT_TRUE(inner->taskScheduled());
    root->handleSchedulerRun();
}

}  // namespace
