#include <Kelvo/TaskControlCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>
#include <Kelvo/TypeNameCpp.h>

#include <sys/socket.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using KelvoTest::loopUntil;
using P = TaskPriority;

// Records each notification's descriptor; throws from readFdEvent when told
// to, and then claims (or not) the exception in its hook.
struct Handler : Platform::FdEventHandler {
    std::function<void(int)> onRead, onWrite;
    std::vector<int> readFds, writeFds, hookFds;
    bool throws = false, claims = false;
    void readFdEvent(int fd) override {
        readFds.push_back(fd);
        if (onRead)
            onRead(fd);
        if (throws)
            throw std::runtime_error("handler failed");
    }
    void writeFdEvent(int fd) override {
        writeFds.push_back(fd);
        if (onWrite)
            onWrite(fd);
    }
    bool handleFdException(int fd) override {
        hookFds.push_back(fd);
        return claims;
    }
};

class TaskFdControlTest : public KelvoTest::OsTest {
  protected:
    void SetUp() override {
        OsTest::SetUp();
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        control = Platform::getFdControl(&handler, root, P::high, "ctl");
        control->setFd(sv[0]);
    }
    void TearDown() override {
        control.reset();
        ::close(sv[0]);
        ::close(sv[1]);
        OsTest::TearDown();
    }
    Platform::TaskFdControl& task() { return static_cast<Platform::TaskFdControl&>(*control); }
    void send() { ASSERT_EQ(::write(sv[1], "x", 1), 1); }
    void drain() {
        char buffer[64];
        while (::read(sv[0], buffer, sizeof buffer) > 0) {
        }
    }

    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("ctl");
    Handler handler;
    std::shared_ptr<Platform::FdControl> control;
    int sv[2] = {-1, -1};
};

TEST_F(TaskFdControlTest, ServesTheHandlerFromNamedTasksOfItsScheduler) {
    const String type = typeName(typeid(Platform::TaskFdControl));
    EXPECT_EQ(MemTrack::usage(type).liveObjects, 1u);
    EXPECT_EQ(root->tasksPerPriority(P::high), 1u);  // the read task, at once
    EXPECT_EQ(control->getFd(), sv[0]);

    handler.onRead = [&](int) { drain(); };
    send();
    ASSERT_TRUE(loopUntil([&] { return !handler.readFds.empty(); }));
    EXPECT_EQ(handler.readFds, std::vector<int>{sv[0]});

    // One write event per arming; the handler re-arms once from inside.
    handler.onWrite = [&](int) {
        if (handler.writeFds.size() == 1)
            control->setWrites(true);
    };
    control->setWrites(true);
    ASSERT_TRUE(loopUntil([&] { return handler.writeFds.size() == 2; }));
    Platform::doEventLoop(0.05);
    EXPECT_EQ(handler.writeFds, (std::vector<int>{sv[0], sv[0]}));

    std::vector<TaskStat> stats;
    root->getTaskStats(&stats, false);
    std::set<std::string> names;
    for (const TaskStat& s : stats)
        names.insert(s.taskName());
    EXPECT_EQ(names, (std::set<std::string>{"ctl:read", "ctl:write"}));

    control.reset();
    EXPECT_EQ(MemTrack::usage(type).liveObjects, 0u);
    EXPECT_EQ(root->tasksPerPriority(P::high), 0u);
}

TEST_F(TaskFdControlTest, ExceptionHookTrueSwallowsFalseRethrowsOutOfTheSchedulerRun) {
    handler.throws = true;
    for (bool claims : {true, false}) {
        handler.claims = claims;
        task().readFdEvent(sv[0]);
        if (claims)
            EXPECT_NO_THROW(root->handleSchedulerRun());
        else
            EXPECT_THROW(root->handleSchedulerRun(), std::runtime_error);
    }
    EXPECT_EQ(handler.hookFds, (std::vector<int>{sv[0], sv[0]}));
    // A run that threw leaves the control usable.
    handler.throws = false;
    task().readFdEvent(sv[0]);
    root->handleSchedulerRun();
    EXPECT_EQ(handler.readFds.size(), 3u);
}

TEST_F(TaskFdControlTest, ClearEventsIsDelFd) {
    for (auto stop : {&Platform::FdControl::delFd, &Platform::FdControl::clearEvents}) {
        control->setFd(sv[0]);
        control->setWrites(true);
        send();
        task().readFdEvent(sv[0]);
        ((*control).*stop)();
        EXPECT_EQ(control->getFd(), -1);
        EXPECT_FALSE(task().taskScheduled());
        Platform::doEventLoop(0.05);
        EXPECT_TRUE(handler.readFds.empty());
        EXPECT_TRUE(handler.writeFds.empty());
        drain();
        control->setWrites(false);
    }
}

}  // namespace
