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

// What a task looks like after an operation.
struct Expect {
    enum Kind { idle, queued, unchanged, timerIn } kind;
    double delay = 0;  // timerIn: the expiry is this long after the call
};

TEST_F(TimerTaskTest, DelayFormsStartReplaceOrStopTheTimer) {
    using Op = std::function<void(Timed&)>;
    const Op timer2 = [](Timed& t) { t.scheduleTaskDelay(2.0); };
    const Op queue = [](Timed& t) { t.scheduleTask(); };
    const Op none = [](Timed&) {};
    struct Case {
        const char* name;
        Op setup, op;
        Expect expect;
    } cases[] = {
        {"lowest longer leaves the timer",
         timer2,
         [](Timed& t) { t.scheduleTaskLowestDelay(5s); },
         {Expect::unchanged}},
        {"lowest shorter moves it forward",
         timer2,
         [](Timed& t) { t.scheduleTaskLowestDelay(0.5); },
         {Expect::timerIn, 0.5}},
        {"lowest on an idle task starts it",
         none,
         [](Timed& t) { t.scheduleTaskLowestDelay(3.0); },
         {Expect::timerIn, 3.0}},
        {"lowest on a queued task does nothing",
         queue,
         [](Timed& t) { t.scheduleTaskLowestDelay(1.0); },
         {Expect::queued}},
        {"lowest zero queues",
         timer2,
         [](Timed& t) { t.scheduleTaskLowestDelay(0ns); },
         {Expect::queued}},
        {"delay replaces a later timer",
         timer2,
         [](Timed& t) { t.scheduleTaskDelay(4s); },
         {Expect::timerIn, 4.0}},
        {"delay takes a queued task off",
         queue,
         [](Timed& t) { t.scheduleTaskDelay(1.0); },
         {Expect::timerIn, 1.0}},
        {"zero duration queues, stops timer",
         timer2,
         [](Timed& t) { t.scheduleTaskDelay(0ns); },
         {Expect::queued}},
        {"zero seconds queues, stops timer",
         timer2,
         [](Timed& t) { t.scheduleTaskDelay(0.0); },
         {Expect::queued}},
        {"never duration stops",
         timer2,
         [](Timed& t) { t.scheduleTaskDelay(TimerTask::never); },
         {Expect::idle}},
        {"infinity stops", timer2, [](Timed& t) { t.scheduleTaskDelay(inf); }, {Expect::idle}},
        {"never jitter up stops",
         timer2,
         [](Timed& t) { t.scheduleTaskJitterUp(TimerTask::never, 10); },
         {Expect::idle}},
        {"infinite jitter down stops",
         timer2,
         [](Timed& t) { t.scheduleTaskJitterDown(inf, 10); },
         {Expect::idle}},
        {"stop unqueues too", queue, [](Timed& t) { t.stopTimerTask(); }, {Expect::idle}},
        {"schedule now stops the timer", timer2, queue, {Expect::queued}},
    };
    for (const Case& c : cases) {
        auto t = std::make_shared<Timed>(root);
        c.setup(*t);
        const double oldExpiry = t->currentExpirationTime();
        const double before = Kelvo::time();
        c.op(*t);
        const double after = Kelvo::time();
        const TaskStat::TaskStatus status = t->taskStatus();
        EXPECT_TRUE(status.taskTimer()) << c.name;
        EXPECT_EQ(t->taskBusy(), c.expect.kind != Expect::idle) << c.name;
        EXPECT_EQ(t->taskScheduled(), c.expect.kind != Expect::idle) << c.name;
        EXPECT_EQ(status.taskOnRunQueue(), c.expect.kind == Expect::queued) << c.name;
        const bool timing = c.expect.kind == Expect::unchanged || c.expect.kind == Expect::timerIn;
        EXPECT_EQ(status.taskTimerRunning(), timing) << c.name;
        EXPECT_EQ(t->timerRunning(), timing) << c.name;
        const double expiry = t->currentExpirationTime();
        switch (c.expect.kind) {
            case Expect::idle:
                EXPECT_EQ(expiry, inf) << c.name;
                EXPECT_EQ(t->timerRemaining(), inf) << c.name;
                break;
            case Expect::queued:
                EXPECT_GE(expiry, after) << c.name;  // "now"
                EXPECT_EQ(t->timerRemaining(), inf) << c.name;
                break;
            case Expect::unchanged:
                EXPECT_EQ(expiry, oldExpiry) << c.name;
                break;
            case Expect::timerIn:
                EXPECT_GE(expiry, before + c.expect.delay) << c.name;
                EXPECT_LE(expiry, after + c.expect.delay) << c.name;
                EXPECT_LE(t->timerRemaining(), c.expect.delay) << c.name;
                break;
        }
    }
    EXPECT_THAT(thrownMessage([&] { task->scheduleTaskLowestDelay(TimerTask::never); }),
                HasSubstr("delayIntoFuture: 9223372036854775807ns"));
    EXPECT_THAT(thrownMessage([&] { task->scheduleTaskLowestDelay(inf); }),
                EndsWith("Task: timed"));
}

TEST_F(TimerTaskTest, JitterStaysWithinItsPercentage) {
    for (const uint8_t percentage : {0, 10, 100}) {
        for (const bool up : {true, false}) {
            for (const bool asDuration : {true, false}) {
                std::set<double> delays;
                for (int draw = 0; draw < 40; ++draw) {
                    const double before = Kelvo::time();
                    if (asDuration) {
                        up ? task->scheduleTaskJitterUp(2s, percentage)
                           : task->scheduleTaskJitterDown(2s, percentage);
                    } else {
                        up ? task->scheduleTaskJitterUp(2.0, percentage)
                           : task->scheduleTaskJitterDown(2.0, percentage);
                    }
                    const double after = Kelvo::time();
                    // Jitter down by 100% may come to no delay: queued at once.
                    const double expiry = task->taskOnRunQueue() ? before : task->expirationTime;
                    const double most = up ? 2.0 * (1 + percentage / 100.0) : 2.0;
                    const double least = up ? 2.0 : 2.0 * (1 - percentage / 100.0);
                    EXPECT_GE(expiry - before, least - 1e-9) << int(percentage) << up;
                    EXPECT_LE(expiry - after, most + 1e-9) << int(percentage) << up;
                    delays.insert(std::round((expiry - before) * 1e3));
                }
                // Random, unless there is no room to be.
                EXPECT_EQ(delays.size() > 1, percentage != 0) << int(percentage) << up;
            }
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
    EXPECT_THAT(text, HasSubstr("Timer jitterUp timed delay 1 + 0 = 1"));
    EXPECT_THAT(text, HasSubstr("Timer started timed delay 1"));
    EXPECT_THAT(text, HasSubstr("Timer already running timed expire"));
    EXPECT_THAT(text, HasSubstr("Timer stopped timed, was running"));
    EXPECT_THAT(text, HasSubstr("Timer stopped timed, was not running"));
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
    std::mt19937 random(static_cast<uint32_t>(Random::getSeed()));
    constexpr int taskCount = 24, operations = 12000;
    struct Model {
        bool owed = false;
        double earliest = 0;
    };
    std::vector<std::shared_ptr<Timed>> tasks(taskCount);
    std::vector<Model> model(taskCount);
    int done = 0, runs = 0, failures = 0;
    std::function<void(int)> operate;  // one random operation on a task

    const auto fresh = [&](int i) {
        tasks[i] = std::make_shared<Timed>(root, "t" + std::to_string(i));
        model[i] = Model{};
        tasks[i]->onRun = [&, i](Timed&) {
            ++runs;
            if (!model[i].owed || Kelvo::time() < model[i].earliest - 1e-6) {
                ADD_FAILURE() << "task " << i << (model[i].owed ? " early" : " not owed a run");
                ++failures;
            }
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
        const auto owe = [&](double earliest) { m = Model{true, earliest}; };
        switch (random() % 9) {
            case 0:
                asDuration ? t.scheduleTaskDelay(ns) : t.scheduleTaskDelay(seconds);
                owe(now + seconds);
                break;
            case 1:
                asDuration ? t.scheduleTaskLowestDelay(ns) : t.scheduleTaskLowestDelay(seconds);
                owe(m.owed ? std::min(m.earliest, now + seconds) : now + seconds);
                break;
            case 2:
                asDuration ? t.scheduleTaskJitterUp(ns, percentage)
                           : t.scheduleTaskJitterUp(seconds, percentage);
                owe(now + seconds);
                break;
            case 3:
                asDuration ? t.scheduleTaskJitterDown(ns, percentage)
                           : t.scheduleTaskJitterDown(seconds, percentage);
                owe(now + seconds * (1 - percentage / 100.0));
                break;
            case 4:
                t.stopTimerTask();
                m.owed = false;
                break;
            case 5:
                t.scheduleTask();
                owe(now);
                break;
            case 6:
                t.scheduleTaskDelay(inf);
                m.owed = false;
                break;
            case 7:
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
        ASSERT_EQ(failures, 0) << "seed " << Random::getSeed();
    }
    // Long enough for every owed run: none is lost.
    Platform::doEventLoop(4.0);
    for (int i = 0; i < taskCount; ++i) {
        EXPECT_FALSE(model[i].owed) << "task " << i << " lost its run";
        EXPECT_FALSE(tasks[i]->taskBusy()) << i;
    }
    EXPECT_EQ(failures, 0) << "seed " << Random::getSeed();
    EXPECT_GT(runs, operations / 4);
    for (auto& t : tasks)
        t->onRun = nullptr;  // its captures go before the tasks
}

}  // namespace
