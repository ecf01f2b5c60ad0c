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

// A probe that also records the descriptor of each notification and hook
// call, and drains what it is notified of.
struct FdProbe : KelvoTest::Probe {
    std::vector<int> fds;
    void readFdEvent(int fd) override {
        fds.push_back(fd);
        char buffer[64];
        while (::read(fd, buffer, sizeof buffer) > 0) {
        }
        Probe::readFdEvent(fd);
    }
    void writeFdEvent(int fd) override { fds.push_back(fd), Probe::writeFdEvent(fd); }
    bool handleFdException(int fd) override { return fds.push_back(fd), claims; }
};

// The three controls on one handler, the descriptor control watching sv[0].
class TaskControl : public KelvoTest::FastForward {
  protected:
    TaskControl() {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
        fd->setFd(sv[0]);
    }
    ~TaskControl() override {
        fd.reset();
        ::close(sv[0]), ::close(sv[1]);
    }
    TaskFdControl& fdTask() { return static_cast<TaskFdControl&>(*fd); }

    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("controls");
    FdProbe probe;
    std::shared_ptr<TimerControl> timer = getTimerControl(&probe, root, P::normal, "timer");
    std::shared_ptr<CallbackControl> call = getCallbackControl(&probe, root, P::normal, "call");
    std::shared_ptr<FdControl> fd = getFdControl(&probe, root, P::high, "fd");
    int sv[2] = {-1, -1};
};

// Arming twice runs once, and a cancelled run never comes. Only the
// descriptor control consults the handler's hook: the other two let an
// exception leave the loop although the hook would claim it. A run that threw
// leaves each control usable.
TEST_F(TaskControl, ArmOnceCancelAndOnlyTheDescriptorControlConsultsItsHook) {
    const auto arm = [&] {
        probe.due = Kelvo::time() + 0.5;
        timer->setTimeout(0.5);
    };
    const auto timing = [&] { return timer->remainingTimeout() != inf; };
    const auto readable = [&] {
        fd->setFd(sv[0]);
        fdTask().readFdEvent(sv[0]);
    };
    const auto queued = [&] { return fdTask().taskScheduled(); };
    using Call = std::function<void()>;
    // Name, arm, cancel, pending, the probe's count of runs, consults the hook.
    const std::tuple<const char*, Call, Call, std::function<bool()>, const int&, bool> rows[] = {
        {"callback", [&] { call->requestCallback(); }, [&] { call->cancelCallback(); },
         [&] { return call->pendingCallback(); }, probe.calls, false},
        {"timer", arm, [&] { timer->delTimeout(); }, timing, probe.fired, false},
        {"timer to infinity", arm, [&] { timer->setTimeout(inf); }, timing, probe.fired, false},
        {"fd deleted", readable, [&] { fd->delFd(); }, queued, probe.reads, true},
        {"fd events cleared", readable, [&] { fd->clearEvents(); }, queued, probe.reads, true},
    };
    for (const auto& [name, arming, cancel, pending, count, hooked] : rows) {
        SCOPED_TRACE(name);
        const int before = count;
        arming();
        arming();
        EXPECT_TRUE(pending());
        doEventLoop(1.0);
        EXPECT_EQ(count, before + 1);
        EXPECT_FALSE(pending());
        arming();
        cancel();
        EXPECT_FALSE(pending());
        EXPECT_TRUE(!hooked || fd->getFd() == -1);  // the descriptor dropped
        doEventLoop(1.0);
        EXPECT_EQ(count, before + 1);
        probe.throws = true;
        for (bool claims : {true, false}) {
            probe.claims = claims;
            arming();
            if (claims && hooked)
                EXPECT_NO_THROW(doEventLoop(1.0));
            else
                EXPECT_THROW(doEventLoop(1.0), std::runtime_error);
        }
        probe.throws = false;
        arming();
        doEventLoop(1.0);
        EXPECT_EQ(count, before + 4);
    }
    EXPECT_EQ(probe.early, 0);
    EXPECT_THAT(probe.fds, ::testing::Each(sv[0]));
    timer->setTimeout(0.0);  // queued at once, with no timeout left to run
    EXPECT_FALSE(timing());
}

TEST_F(TaskControl, DescriptorEventsReachTheHandlerWithTheirDescriptor) {
    ASSERT_EQ(::write(sv[1], "x", 1), 1);
    fd->setWrites(true);
    ASSERT_TRUE(KelvoTest::loopUntil([&] { return probe.reads > 0 && probe.writes > 0; }));
    EXPECT_THAT(probe.fds, ::testing::Each(sv[0]));
}

// Each control is one allocation with its task, registered on its scheduler
// (the descriptor's read task at once); a control dropped with a run pending
// takes the run with it.
TEST_F(TaskControl, ControlsAreNamedTasksInOneBlockAndTakeTheirRunsAlong) {
    std::multiset<std::string> names;
    for (const TaskImpl& task : root->registeredTasks())
        names.insert(task.taskStatsName());
    EXPECT_EQ(names, (std::multiset<std::string>{"H fd:read", "N call", "N timer"}));
    const auto live = [] {
        size_t objects = 0;
        for (const std::type_info* type :
             {&typeid(TaskTimerControl), &typeid(TaskCallbackControl), &typeid(TaskFdControl)})
            objects += MemTrack::usage(typeName(*type)).liveObjects;
        return objects;
    };
    EXPECT_EQ(live(), 3u);
    call->requestCallback();
    call.reset();
    timer->setTimeout(1.0);
    timer.reset();
    fdTask().readFdEvent(sv[0]);
    fd.reset();
    EXPECT_EQ(live(), 0u);
    EXPECT_EQ(root->tasksPerPriority(P::normal) + root->tasksPerPriority(P::high), 0u);
    doEventLoop(2.0);
    EXPECT_EQ(probe.fired + probe.calls + probe.reads, 0);
}

}  // namespace
