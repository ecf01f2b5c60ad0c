#include <Kelvo/TaskControlCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace Kelvo::Platform;
using KelvoTest::inf;

class TaskControl : public KelvoTest::FastForward {
  protected:
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("controls");
    KelvoTest::Probe probe;
    std::shared_ptr<TimerControl> timer =
        getTimerControl(&probe, root, TaskPriority::normal, "timer");
    std::shared_ptr<CallbackControl> call =
        getCallbackControl(&probe, root, TaskPriority::normal, "call");
};

TEST_F(TaskControl, CallbackRequestsCoalesceAndCancelDropsThem) {
    call->requestCallback();
    call->requestCallback();
    EXPECT_TRUE(call->pendingCallback());
    doEventLoop();
    EXPECT_EQ(probe.calls, 1);
    EXPECT_FALSE(call->pendingCallback());
    call->requestCallback();
    call->cancelCallback();
    EXPECT_FALSE(call->pendingCallback());
    doEventLoop();
    EXPECT_EQ(probe.calls, 1);
}

TEST_F(TaskControl, TimerControlRunsTimeoutsAsTheTask) {
    timer->setTimeout(0.0);  // queued at once, with no timeout left to run
    EXPECT_EQ(timer->remainingTimeout(), inf);
    doEventLoop();
    EXPECT_EQ(probe.fired, 1);
    probe.due = Kelvo::time() + 1.5;
    timer->setTimeout(1.5);
    EXPECT_NEAR(timer->remainingTimeout(), 1.5, 0.1);
    doEventLoop(1.6);
    EXPECT_EQ(probe.fired, 2);
    EXPECT_EQ(probe.early, 0);
    for (const auto& cancel : std::vector<std::function<void()>>{[&] { timer->delTimeout(); },
                                                                 [&] { timer->setTimeout(inf); }}) {
        timer->setTimeout(1.0);
        cancel();
        EXPECT_EQ(timer->remainingTimeout(), inf);
        doEventLoop(2.0);
        EXPECT_EQ(probe.fired, 2);
    }
}

// Only the descriptor control consults its handler's hook: these two let
// the exception leave the loop although the hook would claim it.
TEST_F(TaskControl, TimerAndCallbackExceptionsLeaveTheLoopUnclaimed) {
    const std::vector<std::pair<const char*, std::function<void()>>> arms = {
        {"timer", [&] { timer->setTimeout(0.5); }},
        {"callback", [&] { call->requestCallback(); }},
    };
    probe.throws = probe.claims = true;
    for (const auto& [name, arm] : arms) {
        const int before = probe.fired + probe.calls;
        arm();
        EXPECT_THROW(doEventLoop(1.0), std::runtime_error) << name;
        EXPECT_EQ(probe.fired + probe.calls, before + 1) << name;
    }
}

// Each control is one allocation with its task, registered on its scheduler;
// a control dropped with a run pending takes the run with it.
TEST_F(TaskControl, ControlsAreNamedTasksOfTheirSchedulerInOneBlock) {
    std::vector<std::string> names;
    for (const TaskImpl& task : root->registeredTasks())
        names.push_back(task.taskStatsName());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"N call", "N timer"}));
    const auto live = [](const std::type_info& type) {
        return MemTrack::usage(Kelvo::typeName(type)).liveObjects;
    };
    EXPECT_EQ(live(typeid(TaskTimerControl)) + live(typeid(TaskCallbackControl)), 2u);
    call->requestCallback();
    call.reset();
    timer->setTimeout(1.0);
    timer.reset();
    EXPECT_EQ(live(typeid(TaskTimerControl)) + live(typeid(TaskCallbackControl)), 0u);
    EXPECT_EQ(root->tasksPerPriority(TaskPriority::normal), 0u);
    doEventLoop(2.0);
    EXPECT_EQ(probe.fired + probe.calls, 0);
}

}  // namespace
