#include <Kelvo/TaskSchedulerCpp.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace KelvoTest;

// A timer task that counts its runs and does in each what its test asks.
struct Timed : TimerTask {
    int runs = 0;
    std::function<void(Timed&)> onRun;
    explicit Timed(const std::shared_ptr<TaskScheduler>& s, const String& name = "timed")
        : TimerTask(s, TaskPriority::normal, name) {}
    void taskExecute() override {
        ++runs;
        if (onRun)
            onRun(*this);
    }
};

class TimerTaskTest : public KelvoTest::FastForward {
  protected:
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("timers");
    std::shared_ptr<Timed> task = std::make_shared<Timed>(root);
};

TEST_F(TimerTaskTest, TracesHistoryMisuseAndRunFromTest) {
    const std::string text = KelvoTest::traced("KelvoTaskScheduler/*", [&] {
        task->scheduleTaskJitterUp(1.0, 0);
        task->scheduleTaskLowestDelay(5.0);
        task->stopTimerTask();
        task->stopTimerTask();
    });
    for (const char* line :
         {"Timer jitterUp timed delay 1 + 0 = 1", "Timer started timed delay 1",
          "Timer already running timed expire", "Timer stopped timed, was running",
          "Timer stopped timed, was not running"})
        EXPECT_THAT(text, HasSubstr(line));
    std::vector<std::string> events;
    for (const auto& event : root->history()->events())
        if (event.name.str() == "timed")
            events.push_back(event.eventTypeDisplay());
    EXPECT_THAT(events,
                ::testing::ElementsAre("idle", "timerStop", "busy", "timerStart", "create"));

    EXPECT_THAT(thrownMessage([&] { task->scheduleTaskLowestDelay(TimerTask::never); }),
                HasSubstr("delayIntoFuture: 9223372036854775807ns"));
    EXPECT_THAT(thrownMessage([&] { task->scheduleTaskLowestDelay(inf); }),
                EndsWith("Task: timed"));
    // The percentage is shown as its raw byte: 101 is 'e'.
    EXPECT_THAT(thrownMessage([&] { task->scheduleTaskJitterUp(1.0, 101); }),
                EndsWith("maxJitterPercentage: e > 100"));

    // Run from a test: the timer is stopped and the run is not repeated.
    task->scheduleTaskDelay(0.5);
    task->onRun = [](Timed& t) { EXPECT_FALSE(t.timerRunning()); };
    task->taskRunFromTest();
    EXPECT_FALSE(task->taskBusy());
    Platform::doEventLoop(1.0);
    EXPECT_EQ(task->runs, 1);
}

// Random operations on a set of timer tasks, from the test and from inside
// their own runs, checked against a model that knows for each task only
// whether a run is owed and the window of Kelvo::time() it must come in.
// Jittered delays must also spread: each jitter form draws its offset.
TEST_F(TimerTaskTest, RandomOperationsAgainstAReferenceModel) {
    Random::setSeed();
    SCOPED_TRACE("seed " + std::to_string(Random::getSeed()));
    std::mt19937 random(static_cast<uint32_t>(Random::getSeed()));
    constexpr int taskCount = 24, operations = 12000;
    constexpr double late = 0.05;  // a run due in a loop slice comes in it
    struct Model {
        bool owed = false;
        double earliest = 0, latest = 0;
    };
    std::vector<std::shared_ptr<Timed>> tasks(taskCount);
    std::vector<Model> model(taskCount);
    int done = 0, runs = 0;
    std::set<long> spread[2][2];       // jitter offsets per direction and form
    std::function<void(int)> operate;  // one random operation on a task
    // Each stops the timer; the last three by a sentinel delay.
    const std::function<void(Timed&)> stops[] = {
        [](Timed& t) { t.stopTimerTask(); },
        [](Timed& t) { t.scheduleTaskDelay(inf); },
        [](Timed& t) { t.scheduleTaskDelay(TimerTask::never); },
        [](Timed& t) { t.scheduleTaskJitterUp(TimerTask::never, 10); },
        [](Timed& t) { t.scheduleTaskJitterDown(inf, 10); },
    };

    const auto fresh = [&](int i) {
        tasks[i] = std::make_shared<Timed>(root, "t" + std::to_string(i));
        model[i] = Model{};
        tasks[i]->onRun = [&, i](Timed&) {
            ++runs;
            if (!model[i].owed || Kelvo::time() < model[i].earliest - 1e-6)
                ADD_FAILURE() << "task " << i << (model[i].owed ? " early" : " not owed a run");
            model[i].owed = false;
            // Inside its own run: act on itself or on another task.
            if (done < operations && random() % 2)
                operate(random() % 3 ? i : int(random() % taskCount));
        };
    };
    for (int i = 0; i < taskCount; ++i)
        fresh(i);

    operate = [&](int i) {
        ++done;
        Timed& t = *tasks[i];
        Model& m = model[i];
        const double now = Kelvo::time();
        const double seconds = random() % 8 == 0 ? 0.0 : (random() % 1500) / 1000.0;
        const double at = now + seconds;
        const auto ns =
            std::chrono::duration_cast<TaskTimeDuration>(std::chrono::duration<double>(seconds));
        const uint8_t percentage = random() % 101;
        const double jitter = seconds * percentage / 100.0;
        const bool asDuration = random() % 2;
        // A scheduling call with the delay in seconds or as a duration.
        const auto inForm = [&](auto schedule) { asDuration ? schedule(ns) : schedule(seconds); };
        const unsigned op = random() % 8;
        switch (op) {
            case 0:
                inForm([&](auto delay) { t.scheduleTaskDelay(delay); });
                m = {true, at, at};
                break;
            case 1:
                inForm([&](auto delay) { t.scheduleTaskLowestDelay(delay); });
                m = {true, std::min(m.owed ? m.earliest : at, at),
                     std::min(m.owed ? m.latest : at, at)};
                break;
            case 2:
                inForm([&](auto delay) { t.scheduleTaskJitterUp(delay, percentage); });
                m = {true, at, at + jitter};
                break;
            case 3:
                inForm([&](auto delay) { t.scheduleTaskJitterDown(delay, percentage); });
                m = {true, at - jitter, at};
                break;
            case 4:
                stops[random() % std::size(stops)](t);
                m.owed = false;
                break;
            case 5:
                t.scheduleTask();
                m = {true, now, now};
                break;
            case 6:
                // Deleted: inside its own run the run's reference keeps it to
                // the end of the run, and nothing may run it after.
                fresh(i);
                return;
            default:
                t.unscheduleTask();
                // Only the queue: a running timer still owes its run.
                m.owed = m.owed && t.timerRunning();
                break;
        }
        ASSERT_EQ(t.taskScheduled(), m.owed) << "task " << i << " op " << op;
        // No delay queues the task at once, even in place of a running timer.
        if (seconds == 0 && op < 2) {
            ASSERT_TRUE(t.taskOnRunQueue() && !t.timerRunning()) << "task " << i << " op " << op;
        }
        if ((op == 2 || op == 3) && jitter > 0.01 && t.timerRunning())
            spread[op - 2][asDuration].insert(std::lround((t.expirationTime - at) * 1e3));
    };

    while (done < operations) {
        operate(int(random() % taskCount));
        if (random() % 4 == 0) {
            Platform::doEventLoop((random() % 400) / 1000.0);
            for (int i = 0; i < taskCount; ++i)
                ASSERT_FALSE(model[i].owed && Kelvo::time() > model[i].latest + late)
                    << "task " << i << " late";
        }
        ASSERT_FALSE(HasFailure());
    }
    // Past the latest owed window (a 1.5 s delay jittered up by 100% ends
    // 3 s out): none is lost.
    double last = Kelvo::time();
    for (const Model& m : model)
        if (m.owed)
            last = std::max(last, m.latest);
    Platform::doEventLoop(last - Kelvo::time() + late);
    for (int i = 0; i < taskCount; ++i)
        EXPECT_FALSE(model[i].owed || tasks[i]->taskBusy()) << "task " << i << " lost its run";
    for (const auto& direction : spread)
        for (const auto& form : direction)
            EXPECT_GT(form.size(), 20u);
    EXPECT_GT(runs, operations / 4);
    for (auto& t : tasks)
        t->onRun = nullptr;  // its captures go before the tasks
}

}  // namespace
