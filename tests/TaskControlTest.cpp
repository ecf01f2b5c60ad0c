#include <Kelvo/TaskControlCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>
#include <Kelvo/TypeNameCpp.h>

#include <sys/socket.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace Kelvo::Platform;
using KelvoTest::inf;
using P = TaskPriority;

class TaskControl : public KelvoTest::FastForward {
  protected:
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("controls");
    KelvoTest::Probe probe;
    std::shared_ptr<TimerControl> timer = getTimerControl(&probe, root, P::normal, "timer");
    std::shared_ptr<CallbackControl> call = getCallbackControl(&probe, root, P::normal, "call");
};

// Arming twice runs once; unlike the descriptor control, these two never
// consult the handler's hook, so an exception leaves the loop although the
// hook would claim it.
TEST_F(TaskControl, TimerAndCallbackArmOnceCancelAndThrowUnclaimed) {
    struct Row {
        const char* name;
        std::function<void()> arm, cancel;
        std::function<bool()> pending;
        const int& count;
    };
    const auto arm = [&] {
        probe.due = Kelvo::time() + 0.5;
        timer->setTimeout(0.5);
    };
    const auto timing = [&] { return timer->remainingTimeout() != inf; };
    const Row rows[] = {
        {"callback", [&] { call->requestCallback(); }, [&] { call->cancelCallback(); },
         [&] { return call->pendingCallback(); }, probe.calls},
        {"timer", arm, [&] { timer->delTimeout(); }, timing, probe.fired},
        {"timer to infinity", arm, [&] { timer->setTimeout(inf); }, timing, probe.fired},
    };
    for (const Row& row : rows) {
        const int before = row.count;
        row.arm();
        row.arm();
        EXPECT_TRUE(row.pending()) << row.name;
        doEventLoop(1.0);
        EXPECT_EQ(row.count, before + 1) << row.name;
        EXPECT_FALSE(row.pending()) << row.name;
        row.arm();
        row.cancel();
        EXPECT_FALSE(row.pending()) << row.name;
        doEventLoop(1.0);
        EXPECT_EQ(row.count, before + 1) << row.name;
        probe.throws = probe.claims = true;
        row.arm();
        EXPECT_THROW(doEventLoop(1.0), std::runtime_error) << row.name;
        EXPECT_EQ(row.count, before + 2) << row.name;
        probe.throws = false;
    }
    EXPECT_EQ(probe.early, 0);
    timer->setTimeout(0.0);  // queued at once, with no timeout left to run
    EXPECT_FALSE(timing());
}

// Each control is one allocation with its task, registered on its scheduler;
// a control dropped with a run pending takes the run with it.
TEST_F(TaskControl, ControlsAreNamedTasksOfTheirSchedulerInOneBlock) {
    std::vector<std::string> names;
    for (const TaskImpl& task : root->registeredTasks())
        names.push_back(task.taskStatsName());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"N call", "N timer"}));
    const auto live = [] {
        return MemTrack::usage(typeName(typeid(TaskTimerControl))).liveObjects +
               MemTrack::usage(typeName(typeid(TaskCallbackControl))).liveObjects;
    };
    EXPECT_EQ(live(), 2u);
    call->requestCallback();
    call.reset();
    timer->setTimeout(1.0);
    timer.reset();
    EXPECT_EQ(live(), 0u);
    EXPECT_EQ(root->tasksPerPriority(P::normal), 0u);
    doEventLoop(2.0);
    EXPECT_EQ(probe.fired + probe.calls, 0);
}

// Records the descriptor of each notification and hook call; readFdEvent
// throws when told to, and the hook then claims the exception or not.
struct Handler : FdEventHandler {
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
    TaskFdControl& task() { return static_cast<TaskFdControl&>(*control); }

    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("ctl");
    Handler h;
    std::shared_ptr<FdControl> control = getFdControl(&h, root, P::high, "ctl");
    int sv[2] = {-1, -1};
};
TEST_F(TaskFdControlTest, ServesTheHandlerFromTasksOfItsSchedulerUntilStopped) {
    const String type = typeName(typeid(TaskFdControl));
    EXPECT_EQ(MemTrack::usage(type).liveObjects, 1u);
    EXPECT_EQ(root->tasksPerPriority(P::high), 1u);  // the read task, at once
    ASSERT_EQ(::write(sv[1], "x", 1), 1);
    control->setWrites(true);
    ASSERT_TRUE(KelvoTest::loopUntil([&] { return !h.reads.empty() && !h.writes.empty(); }));
    EXPECT_THAT(h.reads, ::testing::Each(sv[0]));
    EXPECT_EQ(h.writes, std::vector<int>{sv[0]});

    // Either stop drops the descriptor and a run already queued.
    h.reads.clear();
    for (auto stop : {&FdControl::delFd, &FdControl::clearEvents}) {
        control->setFd(sv[0]);
        ASSERT_EQ(::write(sv[1], "x", 1), 1);
        task().readFdEvent(sv[0]);
        ((*control).*stop)();
        EXPECT_EQ(control->getFd(), -1);
        EXPECT_FALSE(task().taskScheduled());
        doEventLoop(0.05);
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
