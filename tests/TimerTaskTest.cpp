#include <Kelvo/TaskSchedulerCpp.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using KelvoTest::inf;
using KelvoTest::thrownMessage;
using ::testing::EndsWith;
using ::testing::HasSubstr;

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

TEST_F(TimerTaskTest, DelayFormsStartReplaceOrStopTheTimer) {
    using Op = void (*)(Timed&);
    const Op timer2 = [](Timed& t) { t.scheduleTaskDelay(2.0); };
    const Op queue = [](Timed& t) { t.scheduleTask(); };
    const struct {
        Op setup, op;
        double due;  // seconds from the call to the expiry: 0 queued, inf idle
    } cases[] = {
        {timer2, [](Timed& t) { t.scheduleTaskLowestDelay(5s); }, 2.0},
        {timer2, [](Timed& t) { t.scheduleTaskLowestDelay(0.5); }, 0.5},
        {queue, [](Timed& t) { t.scheduleTaskLowestDelay(1.0); }, 0},
        {timer2, [](Timed& t) { t.scheduleTaskLowestDelay(0ns); }, 0},
        {timer2, [](Timed& t) { t.scheduleTaskDelay(0ns); }, 0},
        {timer2, [](Timed& t) { t.scheduleTaskDelay(0.0); }, 0},
        {timer2, [](Timed& t) { t.scheduleTaskDelay(TimerTask::never); }, inf},
        {timer2, [](Timed& t) { t.scheduleTaskJitterUp(TimerTask::never, 10); }, inf},
        {timer2, [](Timed& t) { t.scheduleTaskJitterDown(inf, 10); }, inf},
    };
    for (size_t row = 0; row < std::size(cases); ++row) {
        const auto& c = cases[row];
        auto t = std::make_shared<Timed>(root);
        c.setup(*t);
        const double before = Kelvo::time();
        c.op(*t);
        const bool timing = c.due != 0 && c.due != inf;
        EXPECT_EQ(t->taskScheduled(), c.due != inf) << "row " << row;
        EXPECT_EQ(t->taskStatus().taskOnRunQueue(), c.due == 0) << "row " << row;
        EXPECT_EQ(t->taskStatus().taskTimerRunning(), timing) << "row " << row;
        if (c.due == inf)
            EXPECT_EQ(t->currentExpirationTime(), inf) << "row " << row;
        else
            EXPECT_NEAR(t->currentExpirationTime() - before, c.due, 1e-3) << "row " << row;
    }
    EXPECT_THAT(thrownMessage([&] { task->scheduleTaskLowestDelay(TimerTask::never); }),
                HasSubstr("delayIntoFuture: 9223372036854775807ns"));
    EXPECT_THAT(thrownMessage([&] { task->scheduleTaskLowestDelay(inf); }),
                EndsWith("Task: timed"));
}

TEST_F(TimerTaskTest, JitterStaysWithinItsPercentage) {
    // Down by the seconds and the duration overloads, then up by both.
    const std::function<void(uint8_t)> forms[] = {
        [&](uint8_t p) { task->scheduleTaskJitterDown(2.0, p); },
        [&](uint8_t p) { task->scheduleTaskJitterDown(2s, p); },
        [&](uint8_t p) { task->scheduleTaskJitterUp(2.0, p); },
        [&](uint8_t p) { task->scheduleTaskJitterUp(2s, p); },
    };
    for (const uint8_t percentage : {0, 10, 100}) {
        for (int form = 0; form < 4; ++form) {
            // Down spans [2 - jitter, 2], up [2, 2 + jitter].
            const double jitter = 2.0 * percentage / 100, low = form < 2 ? 2.0 - jitter : 2.0;
            std::set<double> delays;
            for (int draw = 0; draw < 40; ++draw) {
                const double before = Kelvo::time();
                forms[form](percentage);
                const double slack = Kelvo::time() - before + 1e-9;  // time moves in the call
                // Jitter down by 100% may come to no delay: queued at once.
                const double delay =
                    (task->taskOnRunQueue() ? before : task->expirationTime) - before;
                EXPECT_NEAR(delay, low + jitter / 2, jitter / 2 + slack)
                    << int(percentage) << " form " << form;
                delays.insert(std::round(delay * 1e3));
            }
            // Random, unless there is no room to be.
            EXPECT_EQ(delays.size() > 1, percentage != 0) << int(percentage) << " form " << form;
        }
    }
    // The percentage is shown as its raw byte: 101 is 'e'.
    EXPECT_THAT(thrownMessage([&] { task->scheduleTaskJitterUp(1.0, 101); }),
                EndsWith("maxJitterPercentage: e > 100"));
}

TEST_F(TimerTaskTest, HistoryTracesAndRunFromTest) {
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
// whether a run is owed and the earliest Kelvo::time() it may come at.
TEST_F(TimerTaskTest, RandomOperationsAgainstAReferenceModel) {
    Random::setSeed();
    SCOPED_TRACE("seed " + std::to_string(Random::getSeed()));
    std::mt19937 random(static_cast<uint32_t>(Random::getSeed()));
    constexpr int taskCount = 24, operations = 12000;
    struct Model {
        bool owed = false;
        double earliest = 0;
    };
    std::vector<std::shared_ptr<Timed>> tasks(taskCount);
    std::vector<Model> model(taskCount);
    int done = 0, runs = 0;
    std::function<void(int)> operate;  // one random operation on a task

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
        const auto ns =
            std::chrono::duration_cast<TaskTimeDuration>(std::chrono::duration<double>(seconds));
        const uint8_t percentage = random() % 101;
        const bool asDuration = random() % 2;
        switch (random() % 8) {
            case 0:
                asDuration ? t.scheduleTaskDelay(ns) : t.scheduleTaskDelay(seconds);
                m = {true, now + seconds};
                break;
            case 1:
                asDuration ? t.scheduleTaskLowestDelay(ns) : t.scheduleTaskLowestDelay(seconds);
                m = {true, m.owed ? std::min(m.earliest, now + seconds) : now + seconds};
                break;
            case 2:
                asDuration ? t.scheduleTaskJitterUp(ns, percentage)
                           : t.scheduleTaskJitterUp(seconds, percentage);
                m = {true, now + seconds};
                break;
            case 3:
                asDuration ? t.scheduleTaskJitterDown(ns, percentage)
                           : t.scheduleTaskJitterDown(seconds, percentage);
                m = {true, now + seconds * (1 - percentage / 100.0)};
                break;
            case 4:
                asDuration ? t.stopTimerTask() : t.scheduleTaskDelay(inf);
                m.owed = false;
                break;
            case 5:
                t.scheduleTask();
                m = {true, now};
                break;
            case 6:
                // Deleted: inside its own run the run's reference keeps it to
                // the end of the run, and nothing may run it after.
                fresh(i);
                break;
            default:
                t.unscheduleTask();
                // Only the queue: a running timer still owes its run.
                m.owed = m.owed && t.timerRunning();
                break;
        }
    };

    while (done < operations) {
        operate(int(random() % taskCount));
        if (random() % 4 == 0)
            Platform::doEventLoop((random() % 400) / 1000.0);
        ASSERT_FALSE(HasFailure());
    }
    // Long enough for every owed run: none is lost.
    Platform::doEventLoop(4.0);
    for (int i = 0; i < taskCount; ++i) {
        EXPECT_FALSE(model[i].owed) << "task " << i << " lost its run";
        EXPECT_FALSE(tasks[i]->taskBusy()) << i;
    }
    EXPECT_GT(runs, operations / 4);
    for (auto& t : tasks)
        t->onRun = nullptr;  // its captures go before the tasks
}

}  // namespace
