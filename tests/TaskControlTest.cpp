#include <Kelvo/TaskControlCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace Kelvo::Platform;
using KelvoTest::inf;
using KelvoTest::Probe;

class TaskControl : public KelvoTest::FastForward {
  protected:
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("controls");
    Probe probe;
    std::shared_ptr<TimerControl> timer =
        getTimerControl(&probe, root, TaskPriority::normal, "timer");
    std::shared_ptr<CallbackControl> call =
        getCallbackControl(&probe, root, TaskPriority::normal, "call");
    TimerTask& timerTask = dynamic_cast<TimerTask&>(*timer);
};

TEST_F(TaskControl, CallbackRequestsCoalesceAndPendingEndsWhenPicked) {
    struct Handler : CallbackHandler {
        std::shared_ptr<CallbackControl> control;
        int calls = 0;
        bool pendingInside = true;
        void callback() override { ++calls, pendingInside = control->pendingCallback(); }
    } handler;
    handler.control = getCallbackControl(&handler, root, TaskPriority::high, "handler");
    handler.control->requestCallback();
    handler.control->requestCallback();
    EXPECT_TRUE(handler.control->pendingCallback());
    doEventLoop();
    EXPECT_EQ(handler.calls, 1);
    EXPECT_FALSE(handler.pendingInside);

    handler.control->requestCallback();
    handler.control->cancelCallback();
    EXPECT_FALSE(handler.control->pendingCallback());
    doEventLoop();
    EXPECT_EQ(handler.calls, 1);
}

TEST_F(TaskControl, TimerControlRunsTimeoutsAsTheTask) {
    // Zero queues the task at once, with no timeout left to run.
    timer->setTimeout(0.0);
    EXPECT_TRUE(timerTask.taskOnRunQueue());
    EXPECT_EQ(timer->remainingTimeout(), inf);
    doEventLoop();
    EXPECT_EQ(probe.fired, 1);

    const double due = Kelvo::time() + 1.5;
    timer->setTimeout(1.5);
    EXPECT_NEAR(timer->remainingTimeout(), 1.5, 0.1);
    probe.onTimeout = [&] { EXPECT_GE(Kelvo::time(), due); };
    doEventLoop(1.6);
    EXPECT_EQ(probe.fired, 2);

    for (const auto& cancel : std::vector<std::function<void()>>{[&] { timer->delTimeout(); },
                                                                 [&] { timer->setTimeout(inf); }}) {
        timer->setTimeout(1.0);
        cancel();
        EXPECT_EQ(timer->remainingTimeout(), inf);
        EXPECT_FALSE(timerTask.taskBusy());
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
    for (const auto& [name, arm] : arms) {
        const int before = probe.fired + probe.calls;
        probe.throws = probe.claims = true;
        arm();
        EXPECT_THROW(doEventLoop(1.0), std::runtime_error) << name;
        EXPECT_EQ(probe.fired + probe.calls, before + 1) << name;
        // The scheduler goes on serving.
        probe.throws = false;
        arm();
        doEventLoop(1.0);
        EXPECT_EQ(probe.fired + probe.calls, before + 2) << name;
    }
}

TEST_F(TaskControl, ControlsAreNamedTasksOfTheirSchedulerInOneBlock) {
    std::vector<std::string> names;
    for (const TaskImpl& task : root->registeredTasks())
        names.push_back(task.taskStatsName());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"N call", "N timer"}));

    const auto live = [](const std::type_info& type) {
        return MemTrack::usage(Kelvo::typeName(type)).liveObjects;
    };
    EXPECT_EQ(live(typeid(TaskTimerControl)), 1u);
    EXPECT_EQ(live(typeid(TaskCallbackControl)), 1u);
    call->requestCallback();
    call.reset();
    timer->setTimeout(1.0);
    timer.reset();
    EXPECT_EQ(live(typeid(TaskTimerControl)), 0u);
    EXPECT_EQ(live(typeid(TaskCallbackControl)), 0u);
    EXPECT_EQ(root->tasksPerPriority(TaskPriority::normal), 0u);
    doEventLoop(2.0);
    EXPECT_EQ(probe.fired + probe.calls, 0);
}

}  // namespace
