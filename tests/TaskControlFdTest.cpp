#include <Kelvo/TaskControlCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>
#include <Kelvo/TypeNameCpp.h>

#include <sys/socket.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using P = TaskPriority;

// Records the descriptor of each notification and hook call; readFdEvent
// throws when told to, and the hook then claims the exception or not.
struct Handler : Platform::FdEventHandler {
    std::vector<int> reads, writes, hooks;
    bool throws = false, claims = false;
    void readFdEvent(int fd) override {
        reads.push_back(fd);
        char buffer[64];
        while (::read(fd, buffer, sizeof buffer) > 0) {
        }
        if (throws)
            throw std::runtime_error("handler failed");
    }
    void writeFdEvent(int fd) override { writes.push_back(fd); }
    bool handleFdException(int fd) override { return hooks.push_back(fd), claims; }
};

class TaskFdControlTest : public KelvoTest::OsTest {
  protected:
    void SetUp() override {
        OsTest::SetUp();
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        control->setFd(sv[0]);
    }
    void TearDown() override {
        control.reset();
        ::close(sv[0]), ::close(sv[1]);
        OsTest::TearDown();
    }
    Platform::TaskFdControl& task() { return static_cast<Platform::TaskFdControl&>(*control); }

    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("ctl");
    Handler h;
    std::shared_ptr<Platform::FdControl> control = Platform::getFdControl(&h, root, P::high, "ctl");
    int sv[2] = {-1, -1};
};

TEST_F(TaskFdControlTest, ServesTheHandlerFromTasksOfItsSchedulerUntilStopped) {
    const String type = typeName(typeid(Platform::TaskFdControl));
    EXPECT_EQ(MemTrack::usage(type).liveObjects, 1u);
    EXPECT_EQ(root->tasksPerPriority(P::high), 1u);  // the read task, at once
    ASSERT_EQ(::write(sv[1], "x", 1), 1);
    control->setWrites(true);
    ASSERT_TRUE(KelvoTest::loopUntil([&] { return !h.reads.empty() && !h.writes.empty(); }));
    EXPECT_THAT(h.reads, ::testing::Each(sv[0]));
    EXPECT_EQ(h.writes, std::vector<int>{sv[0]});

    // Either stop drops the descriptor and a run already queued.
    h.reads.clear();
    for (auto stop : {&Platform::FdControl::delFd, &Platform::FdControl::clearEvents}) {
        control->setFd(sv[0]);
        ASSERT_EQ(::write(sv[1], "x", 1), 1);
        task().readFdEvent(sv[0]);
        ((*control).*stop)();
        EXPECT_EQ(control->getFd(), -1);
        EXPECT_FALSE(task().taskScheduled());
        Platform::doEventLoop(0.05);
        EXPECT_TRUE(h.reads.empty());
        char byte;
        ASSERT_EQ(::read(sv[0], &byte, 1), 1);
    }
    control.reset();
    EXPECT_EQ(MemTrack::usage(type).liveObjects, 0u);
    EXPECT_EQ(root->tasksPerPriority(P::high), 0u);
}

TEST_F(TaskFdControlTest, ExceptionHookTrueSwallowsFalseRethrowsOutOfTheSchedulerRun) {
    h.throws = true;
    for (bool claims : {true, false}) {
        h.claims = claims;
        task().readFdEvent(sv[0]);
        if (claims)
            EXPECT_NO_THROW(root->handleSchedulerRun());
        else
            EXPECT_THROW(root->handleSchedulerRun(), std::runtime_error);
    }
    EXPECT_EQ(h.hooks, (std::vector<int>{sv[0], sv[0]}));
    h.throws = false;  // a run that threw leaves the control usable
    task().readFdEvent(sv[0]);
    root->handleSchedulerRun();
    EXPECT_EQ(h.reads.size(), 3u);
}

}  // namespace
