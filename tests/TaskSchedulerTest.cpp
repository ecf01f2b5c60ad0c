#include <Kelvo/TaskSchedulerCpp.h>

#include <deque>
#include <future>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using Type = TaskSchedulerEventType;
using KelvoTest::thrownMessage;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TaskTimePoint at(long ns) {
    return TaskTimePoint(TaskTimeDuration(ns));
}

// The dump's title, underlined to its length.
std::string dumpHeader(unsigned capacity) {
    const std::string title = "Last " + std::to_string(capacity) +
                              " scheduler events, absolute timestamp and relative to last event";
    return title + "\n" + std::string(title.size(), '-') + "\n";
}

// ---------------------------------------------------------------------------
// History

// Each row inserts one event per letter, oldest first, then changes the
// capacity. An event that overwrites the oldest may take over its name: the
// cache must still hold one reference per event kept, besides its own.
TEST(TaskSchedulerHistory, RingKeepsTheNewestAndOneNameReferencePerEvent) {
    struct Case {
        unsigned capacity;
        std::string inserted;
        unsigned newCapacity;
        std::string newestFirst;
    } cases[] = {
        {3, "abcd", 3, "dcb"},     // a full ring overwrites the oldest
        {3, "abcdefg", 3, "gfe"},  // and keeps wrapping
        {3, "aabbaab", 3, "baa"}, {3, "aaaaaaa", 3, "aaa"},
        {1, "ababab", 1, "b"},    {100, "abcde", 2, "ed"},  // shrinking keeps the newest
        {3, "abcab", 5, "bac"},                             // growing keeps all, in order
        {0, "abc", 0, ""},                                  // capacity 0 records nothing
        {2, "abc", 0, ""},
    };
    for (const Case& c : cases) {
        TaskSchedulerHistory history(c.capacity);
        for (size_t i = 0; i < c.inserted.size(); ++i)
            history.insert(at(long(i)), Type::runEnd,
                           history.stringCache().intern(c.inserted.substr(i, 1)));
        history.capacityIs(c.newCapacity);
        std::string newestFirst;
        std::map<std::string, uint64_t> held;
        for (const auto& event : history.events()) {
            newestFirst += event.name.str();
            ++held[event.name.str()];
        }
        const std::string row = c.inserted + "/" + std::to_string(c.capacity);
        EXPECT_EQ(newestFirst, c.newestFirst) << row;
        EXPECT_EQ(history.stringCache().size(), held.size()) << row;
        for (const auto& [name, count] : held)
            EXPECT_EQ(history.stringCache().find(name).refCount(), count + 1) << row << " " << name;
    }
}

// Event display texts and their padding are checked through the run-loop
// histories below; this covers the dump layout and the ends of the table.
TEST(TaskSchedulerHistory, TextDumpLayoutAndDisplayTextEnds) {
    TaskSchedulerHistory history(4);
    history.insert(at(1'000'000'000), Type::create, history.stringCache().intern("t"));
    for (Type type : {Type::runStart, Type::runEnd, Type::del})
        history.insert(at(1'000'123'999), type, history.stringCache().intern("t"));
    std::ostringstream out;
    history.renderText(out);
    EXPECT_EQ(out.str(),
              dumpHeader(4) +
                  "            1000123999 ns since boot          0 \u00b5s delete       t\n"
                  "            1000123999 ns since boot          0 \u00b5s run end      t\n"
                  "            1000123999 ns since boot          0 \u00b5s run start    t\n"
                  "            1000000000 ns since boot        123 \u00b5s create       t\n"
                  "\n");
    TaskSchedulerHistory none(0);
    std::ostringstream zero;
    none.insert(at(5), Type::busy, none.stringCache().intern("t"));
    none.renderText(zero);
    EXPECT_EQ(zero.str(), dumpHeader(0) + "\n");
    EXPECT_THAT(schedulerRootKelvoNonShared("r")->historyRenderTextForDebugToString(),
                StartsWith(dumpHeader(100)));

    EXPECT_STREQ(taskSchedulerEventTypeDisplay(Type(23)), "schedulerTestYieldRatioOff");
    EXPECT_THAT(thrownMessage([] { taskSchedulerEventTypeDisplay(Type(24)); }),
                EndsWith("unexpected eventType 24"));

    // Dumps to a descriptor block, closing it when asked; a non-blocking
    // one is refused.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    FdToStream(fds[1], true) << "x";
    EXPECT_EQ(::fcntl(fds[1], F_GETFD), -1);
    ::close(fds[0]);
    ASSERT_EQ(::pipe2(fds, O_NONBLOCK), 0);
    EXPECT_THAT(
        thrownMessage([&] { FdToStream stream(fds[1], false); }),
        EndsWith(fmt::format("FileDescriptor {} flags 0x{:x} is non-blocking, not supported",
                             fds[1], ::fcntl(fds[1], F_GETFL))));
    ::close(fds[0]);
    ::close(fds[1]);
}

// ---------------------------------------------------------------------------
// Tasks and the run loop

using P = TaskPriority;

// A task that counts its runs and does in each what its test asks.
struct Probe : Task {
    std::function<void(Probe&)> body;
    int runs = 0;
    Probe(const std::shared_ptr<TaskScheduler>& scheduler, P priority, const std::string& name,
          std::function<void(Probe&)> run = {})
        : Task(scheduler, priority, name), body(std::move(run)) {}
    void taskExecute() override {
        ++runs;
        if (body)
            body(*this);
    }
};

std::shared_ptr<Probe> probe(const std::shared_ptr<TaskSchedulerRoot>& root, P priority,
                             const std::string& name, std::function<void(Probe&)> run = {}) {
    return std::make_shared<Probe>(root, priority, name, std::move(run));
}

// The events of a history, newest first, as "display" texts.
std::vector<std::string> events(const TaskSchedulerRoot& root) {
    std::vector<std::string> out;
    for (const auto& event : root.history()->events())
        out.push_back(event.display());
    return out;
}

class Scheduler : public ::testing::Test {
  protected:
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("test");
    // The steady clock of the root's runs, when a test takes it over.
    TaskTimePoint now = at(1'000'000'000);
    void driveClock() {
        root->steadyClockIsForTest([this] { return now; });
    }
    void runOnce(Probe& task) {
        task.scheduleTask();
        root->handleSchedulerRun();
    }
};

TEST_F(Scheduler, ScheduleIsIdempotentAndSuspensionKeepsTasksOffTheQueue) {
    driveClock();
    std::string statusInRun;
    auto task = probe(root, P::normal, "t", [&](Probe& self) {
        self.scheduleTask();
        statusInRun = self.getStats().taskStatusString();
        self.unscheduleTask();  // stamps a latency of its own
        statusInRun += self.getStats().taskStatusString();
    });
    task->scheduleTask();
    const TaskTimePoint queuedAt = task->taskEnqueueTime();
    now += 5ms;
    task->scheduleTask();  // already queued: not even the enqueue time changes
    EXPECT_EQ(task->taskEnqueueTime(), queuedAt);
    task->taskSuspendedIs(true);
    EXPECT_EQ(task->getStats().taskLastSchedulingLatency(), 5ms);  // unlinking stamps latency
    task->scheduleTask();
    EXPECT_EQ(task->getStats().taskStatusString(), "Sn");
    task->taskSuspendedIs(false);  // a resumed task always runs once
    EXPECT_EQ(events(*root),
              (std::vector<std::string>{
                  "busy         t", "schedule     t", "suspendOff   t", "scheduleSus  t",
                  "idle         t", "unschedule   t", "suspendOn    t", "busy         t",
                  "schedulerRunnable test", "schedule     t", "create       t"}));
    now += 3ms;
    root->handleSchedulerRun();
    root->handleSchedulerRun();  // finds nothing: idle
    EXPECT_EQ(task->runs, 1);
    EXPECT_EQ(statusInRun, "*N*n");
    const TaskStat stat = task->getStats();
    EXPECT_EQ(stat.taskStatusString(), " n");
    EXPECT_EQ(stat.taskLastSchedulingLatency(), 0ms);
    EXPECT_EQ(stat.taskSchedulingLatencyHighWaterMark(), 5ms);
    EXPECT_EQ(events(*root)[0], "schedulerIdle test");
}

// High yields normal a turn after 9 picks in a row (9 x 8 > 64); scavenge
// waits until nothing above it is queued.
TEST_F(Scheduler, WeightedPickGivesNormalOneTurnInTenAndScavengeOnlyTheRest) {
    auto reschedule = [](Probe& self) { self.scheduleTask(); };
    auto high = probe(root, P::high, "h", reschedule),
         normal = probe(root, P::normal, "n", reschedule), scavenge = probe(root, P::scavenge, "s");
    for (auto* task : {high.get(), normal.get(), scavenge.get()})
        task->scheduleTask();
    std::string order;
    for (int i = 0; i < 10'000; ++i) {
        const int before = normal->runs;
        root->handleSchedulerRun();
        order += normal->runs != before ? 'N' : 'H';
    }
    for (size_t i = 0; i < order.size(); i += 10)
        ASSERT_EQ(order.substr(i, 10), "HHHHHHHHHN") << "at run " << i;
    EXPECT_EQ(scavenge->runs, 0);
    high->unscheduleTask();
    normal->unscheduleTask();
    root->handleSchedulerRun();
    EXPECT_EQ(scavenge->runs, 1);
}

TEST_F(Scheduler, QuantumViolationsCountAtExactlyTwoAndFiveTimes) {
    driveClock();
    struct Case {
        TaskTimeDuration used;
        uint32_t qv200, qv500;
    } cases[] = {
        {0ms, 0, 0},          {19'999'999ns, 0, 0}, {39'999'999ns, 0, 0}, {40ms, 1, 0},
        {99'999'999ns, 1, 0}, {100ms, 0, 1},        {5s, 0, 1},
    };
    for (const Case& c : cases) {
        auto task = probe(root, P::normal, "q", [&](Probe&) { now += c.used; });
        runOnce(*task);
        const TaskStat stat = task->getStats();
        EXPECT_EQ(stat.taskQuantumViolation200(), c.qv200) << c.used.count();
        EXPECT_EQ(stat.taskQuantumViolation500(), c.qv500) << c.used.count();
        EXPECT_EQ(stat.taskRunTimeHighWaterMark(), c.used);
    }
    // End to end on the real clock: busy runs of at least 2x and 5x a 1 ms
    // quantum, which load can only lengthen.
    auto real = schedulerRootKelvoNonShared("real");
    for (const TaskTimeDuration busy : {TaskTimeDuration(2200us), TaskTimeDuration(5500us)}) {
        auto task = probe(real, P::normal, "busy", [&](Probe&) {
            const auto end = std::chrono::steady_clock::now() + busy;
            while (std::chrono::steady_clock::now() < end) {
            }
        });
        task->taskQuantumIs(1ms);
        task->scheduleTask();
        real->handleSchedulerRun();
        const TaskStat stat = task->getStats();
        EXPECT_EQ(stat.taskQuantumViolation200() + stat.taskQuantumViolation500(), 1u);
        EXPECT_TRUE(busy < 5ms || stat.taskQuantumViolation500() == 1u);
    }
    auto task = probe(root, P::normal, "q");
    task->taskQuantumIs(1s);  // the bound itself is accepted
    EXPECT_THAT(thrownMessage([&] { task->taskQuantumIs(1'000'000'001ns); }),
                HasSubstr("Quantum: 1000000001ns"));
    EXPECT_THAT(thrownMessage([&] { task->taskQuantumNoCheckIs(0ns); }), HasSubstr("Quantum: 0ns"));
}

TEST_F(Scheduler, ShouldYieldInEachMode) {
    driveClock();
    // Six questions per run, the clock moving by step before each.
    struct Case {
        TaskTimeDuration step;
        uint8_t ratio, rootRatio;
        const char* answers;
    } cases[] = {
        {0ms, 0, 0, "------"}, {5ms, 0, 0, "---YYY"}, {-1ms, 0, 0, "YYYYYY"},
        {0ms, 3, 0, "--Y--Y"}, {0ms, 1, 0, "YYYYYY"}, {0ms, 0, 2, "-Y-Y-Y"},
    };
    std::string answers;
    TaskTimeDuration step;
    auto task = probe(root, P::normal, "y", [&](Probe& self) {
        for (int i = 0; i < 6; ++i) {
            now += step;
            answers += self.taskShouldYield() ? 'Y' : '-';
        }
    });
    for (const Case& c : cases) {
        step = c.step;
        answers.clear();
        task->taskTestYieldRatioIs(c.ratio);
        root->taskTestYieldRatioIs(c.rootRatio);
        EXPECT_EQ(root->forceYieldTaskCount(), c.ratio || c.rootRatio ? 1u : 0u);
        runOnce(*task);
        EXPECT_EQ(answers, c.answers) << c.step.count() << "/" << int(c.ratio);
    }
    EXPECT_THAT(thrownMessage([&] { task->taskShouldYield(); }),
                HasSubstr("taskCurrentlyRunning: false taskRunCount: 6"));
    task.reset();  // yielding by the root's ratio: leaves the set all the same
    EXPECT_EQ(root->forceYieldTaskCount(), 0u);
}

TEST_F(Scheduler, VirtualTimeIsAdoptedFromTheLoopAndMeasuresQuanta) {
    std::vector<bool> answers;
    auto task = probe(root, P::normal, "v", [&](Probe& self) {
        Platform::fastForwardBy(0.5);
        answers.push_back(self.taskShouldYield());
        answers.push_back(self.taskCurrentRunTime() >= 500ms);
        Platform::fastForwardBy(0.6);
        answers.push_back(self.taskShouldYield());
    });
    task->taskQuantumIs(1s);
    Platform::setFastForward(true);
    runOnce(*task);
    Platform::setFastForward(false);
    EXPECT_EQ(answers, (std::vector<bool>{false, true, true}));
    root->handleSchedulerRun();  // the next run adopts the switch back
    EXPECT_FALSE(root->virtualTime());
    EXPECT_EQ(task->taskShouldYieldMode(), TaskImpl::realTime);
}

TEST_F(Scheduler, SuspendedRootIgnoresAndRecordsRunsUntilResumed) {
    auto task = probe(root, P::normal, "t");
    root->suspendedIs(true);
    task->scheduleTask();  // queues, but requests no run
    Platform::doEventLoop(0.05);
    EXPECT_EQ(task->runs, 0);
    root->handleSchedulerRun();
    EXPECT_EQ(events(*root)[0], "schedulerRunIgnoredWhileSuspended test");
    root->suspendedIs(false);  // requests a run
    EXPECT_EQ(events(*root)[0], "schedulerUnsuspended test");
    Platform::doEventLoop(0.05);
    EXPECT_EQ(task->runs, 1);
}

// A turn works on the tasks queued before it; those it leaves go back ahead
// of the ones queued meanwhile.
TEST_F(Scheduler, TemporaryListHoldsOnlyTasksQueuedBeforeTheTurn) {
    std::string ran;
    auto record = [&](Probe& self) { ran += self.taskName(); };
    auto a = probe(root, P::normal, "a", record), b = probe(root, P::normal, "b", record),
         c = probe(root, P::normal, "c", record);
    a->scheduleTask();
    b->scheduleTask();
    root->taskRunQueuesMovePersistentToTemporary();
    c->scheduleTask();
    root->handleSchedulerRun();
    EXPECT_THAT(thrownMessage([&] { root->taskRunQueuesMovePersistentToTemporary(); }),
                HasSubstr("The temporary run queue should always be empty at this point"));
    root->taskRunQueuesMoveTemporaryToPersistent();
    root->handleSchedulerRun();
    root->handleSchedulerRun();
    EXPECT_EQ(ran, "abc");
}

TEST_F(Scheduler, MisuseFailsWithTheSubjectInTheMessage) {
    auto task = probe(root, P::low, "m");
    struct Case {
        std::function<void()> misuse;
        const char* message;
    } cases[] = {
        {[&] { root->taskRegister(task.get()); }, "Task: m already registered"},
        {[&] {
             task->scheduleTask();
             root->taskUnregister(task.get());
         },
         "Task: m scheduled on unregister"},
        {[&] {
             task->unscheduleTask();
             task->handleDestroy();
             root->taskUnregister(task.get());
         },
         "Task: m not registered"},
        {[&] { probe(root, P::oneBeyondLast, "bad"); }, "priority: invalidPriority=5"},
        {[&] { Probe orphan(nullptr, P::low, "o"); }, "Need a TaskScheduler"},
        {[&] { root->history()->insert(now, Type::schedulerIdle, task.get()); },
         "unexpected eventType=15"},
        {[&] { root->history()->insert(now, Type::busy, static_cast<TaskScheduler*>(root.get())); },
         "EventType: 12"},
    };
    for (const Case& c : cases) {
        const std::string text = thrownMessage(c.misuse);
        EXPECT_THAT(text, HasSubstr(c.message));
        EXPECT_THAT(text, StartsWith("TaskSchedulerCpp:"));
    }
    EXPECT_EQ(task->taskMagicNumber(), TaskImpl::taskMagicNumberDestroyed);
}

TEST(SchedulerDeathTest, TaskDestroyedInsideItsOwnRunIsCaught) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            throwOnAssertFailIs(false);
            auto root = schedulerRootKelvoNonShared("death");
            alignas(Probe) static unsigned char storage[sizeof(Probe)];
            auto* task =
                new (storage) Probe(root, P::normal, "doomed", [](Probe& self) { self.~Probe(); });
            task->scheduleTask();
            root->handleSchedulerRun();
        },
        "Kelvo::Assert aborting because: TaskSchedulerCpp:[0-9]+: TaskScheduler::taskDoRun\\(\\) "
        "Task: 0x[0-9a-f]+ taskMagicNumber: 3735936685 taskMagicNumberConstructed: 1119771390");
}

TEST_F(Scheduler, ExceptionFromATaskPassesThroughWithoutStallingTheLoop) {
    bool thrown = false;
    auto thrower = probe(root, P::high, "thrower", [&](Probe&) {
        if (!thrown) {
            thrown = true;
            throw std::runtime_error("task failed");
        }
    });
    auto other = probe(root, P::normal, "other");
    thrower->scheduleTask();
    other->scheduleTask();
    EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
    EXPECT_FALSE(thrower->taskCurrentlyRunning());
    EXPECT_EQ(root->currentTask(), nullptr);
    thrower->scheduleTask();
    Platform::doEventLoop();  // bounded: nothing reschedules itself
    EXPECT_EQ(other->runs, 1);
    EXPECT_EQ(thrower->runs, 2);
    EXPECT_FALSE(root->schedulerHasRunnableTasks());
}

// ---------------------------------------------------------------------------
// Statistics

// Work and pending figures are fed the same numbers: both keep a high water
// that a first 0 sets and that saturates below the unset sentinel.
TEST_F(Scheduler, WorkFiguresSaturateBelowTheUnsetSentinel) {
    struct Case {
        std::vector<unsigned long> counts;
        float average;
        uint32_t highWater;
    } cases[] = {
        {{0}, 0.0f, 0},
        {{0, 10}, 1.0f, 10},
        {{5, 3}, 4.8f, 5},
        {{1ul << 40}, float(1ul << 40), 0xFFFFFFFE},
    };
    for (const Case& c : cases) {
        auto task = probe(root, P::normal, "w");
        unsigned long total = 0;
        for (unsigned long n : c.counts) {
            task->taskWorkCountInc(n);
            task->taskWorkPendingIs(unsigned(std::min(n, 0xFFFFFFFFul)));
            total += n;
        }
        const TaskStat stat = task->getStats();
        EXPECT_EQ(stat.taskWorkCountTotal(), total) << c.counts.back();
        EXPECT_FLOAT_EQ(stat.taskWorkCountDecayingAvg(), c.average) << c.counts.back();
        EXPECT_EQ(stat.taskWorkCountHighWater().raw(), c.highWater) << c.counts.back();
        EXPECT_EQ(stat.taskWorkPending(), std::min(c.counts.back(), 0xFFFFFFFFul));
        EXPECT_EQ(stat.taskWorkPendingHighWater().raw(), c.highWater) << c.counts.back();
    }
}

// The reset walks the registry newest first, a bounded slice per run; tasks
// that come or go meanwhile neither break the walk nor lose figures they
// gathered behind it. Clearing does all of it at once.
TEST_F(Scheduler, StatsResetWalksWithABookmarkAndYieldsAndClearingDoesNot) {
    driveClock();
    std::vector<std::shared_ptr<Probe>> tasks;
    for (int i = 0; i < 100; ++i) {
        tasks.push_back(probe(root, P::low, "r"));
        runOnce(*tasks.back());
    }
    probe(root, P::low, "gone");     // leaves a completed-task record
    root->taskTestYieldRatioIs(10);  // the reset task yields at every 10th question
    root->resetStats();
    int runs = 0;
    while (root->resetStatsInProgress() && runs < 1000) {
        root->handleSchedulerRun();
        if (++runs == 3) {
            // tasks[5] is still ahead of the walk and simply vanishes from
            // it; "late" is linked at the front, behind the walk.
            tasks[5].reset();
            tasks.push_back(probe(root, P::low, "late"));
            tasks.back()->taskWorkCountInc(5);
        }
    }
    EXPECT_EQ(runs, 10);  // the reset task and 99 others, at 10 per run
    for (size_t i = 0; i < 100; ++i)
        EXPECT_TRUE(!tasks[i] || tasks[i]->taskRunCount() == 0) << i;
    EXPECT_EQ(tasks.back()->getStats().taskWorkCountTotal(), 5u);
    std::vector<TaskStat> completed;
    root->getCompletedTaskStats(&completed, true);
    EXPECT_TRUE(completed.empty());
    root->taskTestYieldRatioIs(0);

    tasks[0]->scheduleTask();
    now += 3ms;
    root->handleSchedulerRun();
    probe(root, P::low, "gone");
    ASSERT_EQ(root->maxSchedulerSlip(), 3ms);
    root->clearStats();
    EXPECT_EQ(tasks[0]->taskRunCount(), 0u);
    EXPECT_EQ(tasks.back()->getStats().taskWorkCountTotal(), 0u);
    EXPECT_EQ(root->maxSchedulerSlip(), 0ns);
    root->getCompletedTaskStats(&completed, true);
    EXPECT_TRUE(completed.empty());
    EXPECT_EQ(root->queueStats().at(P::low).totalRunCount, 0u);

    // A task left out of the completed records still leaves its count.
    auto excluded = probe(root, P::high, "x");
    excluded->includeInCompletedTaskIs(false);
    excluded.reset();
    EXPECT_EQ(root->queueStats().at(P::high).idleTasks, 0u);
    EXPECT_EQ(root->queueStats().at(P::high).completedTasks, 0u);

    auto empty = schedulerRootKelvoNonShared("empty");
    empty->resetStats();
    empty->handleSchedulerRun();
    EXPECT_FALSE(empty->resetStatsInProgress());
}

// ---------------------------------------------------------------------------
// Model check

// Random operations on up to 200 tasks against a reference model of queue
// membership and order, the weighted pick (scavenge only with nothing queued
// above), run counts and queueStats(), from which every task, excluded from the
// completed ones or not, leaves when it dies.
TEST_F(Scheduler, AgreesWithAReferenceModelOverRandomOperations) {
    constexpr int slots = 200, steps = 100'000;
    Platform::clearKelvoDebug("KelvoTaskScheduler/1");  // thousands of suspensions
    struct Model {
        bool live = false, queued = false, suspended = false, rescheduleSelf, included;
        unsigned priority;
        uint32_t runs = 0;
    };
    std::vector<Model> model(slots);
    std::vector<std::shared_ptr<Probe>> tasks(slots);
    std::array<std::deque<int>, 5> queues;
    std::array<uint32_t, 5> picks{}, consecutive{}, registered{}, completed{};
    std::mt19937 rng(20261123);
    auto below = [&](int n) { return int(rng() % unsigned(n)); };
    auto enqueue = [&](int i) {
        if (!model[i].queued && !model[i].suspended)
            queues[model[i].priority].push_back(i);
        model[i].queued = !model[i].suspended;
    };
    auto dequeue = [&](int i) {
        std::erase(queues[model[i].priority], i);
        model[i].queued = false;
    };
    // High and normal give the queues below a turn once their picks in a row
    // outweigh them (weights 64, 8, 1 per queued task).
    std::function<int(unsigned)> pick = [&](unsigned from) -> int {
        static constexpr uint64_t weight[] = {0, 64, 8, 1, 0};
        for (unsigned p = from; p < 5; ++p) {
            if (queues[p].empty()) {
                consecutive[p] = 0;
                continue;
            }
            uint64_t lower = 0;
            for (unsigned q = p + 1; q <= 3; ++q)
                lower += queues[q].size() * weight[q];
            if ((p == 1 || p == 2) && consecutive[p] * lower > queues[p].size() * weight[p]) {
                if (int i = pick(p + 1); i >= 0) {
                    consecutive[p] = 0;
                    return i;
                }
            }
            ++consecutive[p];
            ++picks[p];
            const int i = queues[p].front();
            queues[p].pop_front();
            model[i].queued = false;
            return i;
        }
        return -1;
    };
    int lastRan = -1;
    for (int step = 0; step < steps; ++step) {
        const int i = below(slots), op = below(7);
        Model& m = model[i];
        if (op >= 4) {  // run one
            lastRan = -1;
            const int expected = pick(0);
            root->handleSchedulerRun();
            ASSERT_EQ(lastRan, expected) << "step " << step;
            if (expected >= 0) {
                ++model[expected].runs;
                if (model[expected].rescheduleSelf)
                    enqueue(expected);
            }
        } else if (!m.live && op == 0) {  // create
            m = Model{true, false, false, below(3) == 0, below(4) != 0, unsigned(below(5))};
            tasks[i] =
                probe(root, P(m.priority), "task" + std::to_string(i % 7), [&, i](Probe& self) {
                    lastRan = i;
                    if (model[i].rescheduleSelf)
                        self.scheduleTask();
                });
            tasks[i]->includeInCompletedTaskIs(m.included);
            ++registered[m.priority];
        } else if (m.live && op == 0) {  // delete
            dequeue(i);
            tasks[i].reset();
            --registered[m.priority];
            completed[m.priority] += m.included;
            m.live = false;
        } else if (m.live && op == 1) {
            tasks[i]->scheduleTask();
            enqueue(i);
        } else if (m.live && op == 2) {
            tasks[i]->unscheduleTask();
            dequeue(i);
        } else if (m.live && op == 3) {  // suspend or resume: a resumed task is queued
            const bool resumed = m.suspended;
            m.suspended = !m.suspended;
            tasks[i]->taskSuspendedIs(m.suspended);
            resumed ? enqueue(i) : dequeue(i);
        }
        for (int t = 0; t < slots; ++t) {
            if (model[t].live) {
                ASSERT_EQ(tasks[t]->taskScheduled(), model[t].queued) << "step " << step;
                ASSERT_EQ(tasks[t]->taskRunCount(), model[t].runs) << "step " << step;
            }
        }
        const TaskSchedulerQueueStats stats = root->queueStats();
        for (unsigned p = 0; p < 5; ++p) {
            const TaskSchedulerPriorityStats& s = stats.at(P(p));
            ASSERT_EQ(s.runnableTasks, queues[p].size()) << "step " << step << " priority " << p;
            ASSERT_EQ(s.idleTasks, registered[p] - queues[p].size()) << "step " << step;
            ASSERT_EQ(s.completedTasks, completed[p]) << "step " << step;
            ASSERT_EQ(s.totalRunCount, picks[p]) << "step " << step;
        }
    }
}

// ---------------------------------------------------------------------------
// Threads

// The threads here free their loop when done: the base of a thread's loop
// is not released at thread exit, so these threads use roots of their own
// rather than the thread-local one, which would outlive the loop.
TEST(SchedulerThreads, FourRootsRunTheirOwnTasksConcurrently) {
    // Each thread's own root runs its tasks. At thread exit the root goes,
    // before the loop, even with a statistics reset still under way (its
    // task once kept the root alive), and the loop leaves no descriptor.
    constexpr int threads = 4, tasksPerThread = 1000, runsPerTask = 3;
    const auto& main = schedulerRootKelvo();
    const auto liveRoots = [] {
        return MemTrack::usage(typeName(typeid(TaskSchedulerRoot))).liveObjects;
    };
    const uint64_t rootsBefore = liveRoots();
    const std::set<int> fdsBefore = KelvoTest::openFds();
    struct Seen {
        int runs = 0;
        std::string name, expectedName;
        bool resetUnderWay = false;
    };
    std::vector<Seen> seen(threads);
    std::vector<std::thread> workers;
    for (Seen& mine : seen) {
        workers.emplace_back([&mine] {
            useThreadLocalSingletons();
            const auto& root = schedulerRootKelvo();
            mine.name = root->name();
            mine.expectedName = "thread:" + std::to_string(::gettid());
            {
                std::vector<std::shared_ptr<Probe>> tasks;
                for (int i = 0; i < tasksPerThread; ++i) {
                    tasks.push_back(probe(root, P(unsigned(i % 5)), "w", [&](Probe& self) {
                        ++mine.runs;
                        if (self.runs < runsPerTask)
                            self.scheduleTask();
                    }));
                    tasks.back()->scheduleTask();
                }
                Platform::doEventLoop();
            }
            root->resetStats();
            mine.resetUnderWay = root->resetStatsInProgress();
        });
    }
    for (auto& worker : workers)
        worker.join();
    for (const Seen& mine : seen) {
        EXPECT_EQ(mine.runs, tasksPerThread * runsPerTask);
        EXPECT_EQ(mine.name, mine.expectedName);
        EXPECT_TRUE(mine.resetUnderWay);
    }
    EXPECT_EQ(liveRoots(), rootsBefore);
    EXPECT_EQ(KelvoTest::openFds(), fdsBefore);
    EXPECT_EQ(main->name(), "main");
    EXPECT_EQ(&schedulerRootKelvo(), &main);
}

TEST(SchedulerThreads, WrongThreadFailsWithTheFullMessage) {
    std::promise<std::shared_ptr<Probe>> created;
    std::promise<void> tried;
    std::string ownerId, ownerPid = std::to_string(::getpid());
    std::thread owner([&] {
        threadNameIs("schedOwner");
        ownerId = std::to_string(static_cast<unsigned long>(pthread_self()));
        {
            auto task = probe(schedulerRootKelvoNonShared("owner"), P::normal, "foreign");
            created.set_value(task);
            tried.get_future().wait();
        }
        leFree();
    });
    auto task = created.get_future().get();
    const std::string text = thrownMessage([&] { task->scheduleTask(); });
    EXPECT_THAT(text, EndsWith(fmt::format(
                          "Executing in wrong thread {}({}) pid {} scheduler belongs to thread "
                          "{}(schedOwner) pid {}",
                          static_cast<unsigned long>(pthread_self()), threadName(), ownerPid,
                          ownerId, ownerPid)));
    EXPECT_FALSE(task->taskScheduled());
    auxiliaryThreadRegister();  // a registered helper may act for the owner
    EXPECT_NO_THROW(task->unscheduleTask());
    auxiliaryThreadUnregister();
    task.reset();  // the owner holds the last share: the task dies on its thread
    tried.set_value();
    owner.join();
}

// ---------------------------------------------------------------------------
// Run references

// One callback runs up to its batch of tasks, stopping early after a task
// that used its whole quantum or when nothing is left to run. The scheduler
// holds a task for the length of its run, so a task may drop its owner's last
// reference inside its run; in a batch, a task that others still hold may
// keep that reference from one run to the next, but one whose last outside
// reference went must go at the end of that run, as it would with one run
// per callback.
TEST_F(Scheduler, ABatchStopsAtAQuantumUserOrAnEmptyQueueAndHoldsEachRun) {
    driveClock();
    struct Case {
        unsigned batch;
        int dropAtRun;  // 0: the owner keeps it
        int busyAtRun;  // uses its quantum in that run; 0: never
        int runs;       // in one callback
    } cases[] = {{1, 1, 0, 1},  {1, 0, 0, 1},   {16, 3, 0, 3},
                 {16, 1, 0, 1}, {16, 0, 0, 16}, {16, 0, 4, 4}};
    for (const Case& c : cases) {
        root->runsPerCallbackIs(c.batch);
        int runs = 0;
        std::shared_ptr<Probe> owner;
        std::weak_ptr<Probe> weak;
        owner = probe(root, P::normal, "held", [&](Probe& self) {
            self.scheduleTask();
            if (++runs == c.busyAtRun)
                now += 20ms;
            if (runs == c.dropAtRun) {
                owner.reset();
                EXPECT_FALSE(weak.expired());  // the run's own reference
                EXPECT_EQ(root->currentTask(), &self);
            }
        });
        weak = owner;
        owner->scheduleTask();
        root->callback();
        const std::string row = std::to_string(c.batch) + "/" + std::to_string(c.dropAtRun) + "/" +
                                std::to_string(c.busyAtRun);
        EXPECT_EQ(runs, c.runs) << row;
        EXPECT_EQ(root->currentTask(), nullptr);
        // Nothing of the scheduler's is left on the task after the callback.
        EXPECT_EQ(weak.use_count(), c.dropAtRun ? 0 : 1) << row;
        EXPECT_EQ(root->runnableTaskCount(), c.dropAtRun ? 0u : 1u) << row;
        owner.reset();
    }
    EXPECT_THAT(thrownMessage([&] { root->runsPerCallbackIs(0); }),
                HasSubstr("runsPerCallback: 0"));
}

// A task queued inside a run is stamped at the call with one run per
// callback, and with that run's start in a batch (no clock read): its enqueue
// time, its "schedule" event and its latency show which. Once the callback is
// over, a task queued from outside is stamped at the call again.
TEST_F(Scheduler, ABatchStampsTasksQueuedInARunWithThatRunsStart) {
    driveClock();
    const struct Case {
        unsigned batch;
        TaskTimeDuration stampedAfter, latency;
    } cases[] = {{1, 2ms, 5ms}, {4, 0ms, 7ms}};
    for (const Case& c : cases) {
        root->runsPerCallbackIs(c.batch);
        auto second = probe(root, P::normal, "second");
        auto first = probe(root, P::high, "first", [&](Probe&) {
            now += 2ms;
            second->scheduleTask();
            now += 5ms;
        });
        const TaskTimePoint start = now;
        first->scheduleTask();
        root->callback();
        if (c.batch == 1)
            root->callback();
        EXPECT_EQ(second->runs, 1) << c.batch;
        EXPECT_EQ(second->taskEnqueueTime(), start + c.stampedAfter) << c.batch;
        EXPECT_EQ(second->getStats().taskLastSchedulingLatency(), c.latency) << c.batch;
        const auto& history = root->history()->events();
        const auto scheduled = std::find_if(history.begin(), history.end(), [](const auto& e) {
            return e.display() == "schedule     second";
        });
        ASSERT_NE(scheduled, history.end()) << c.batch;
        EXPECT_EQ(scheduled->time, start + c.stampedAfter) << c.batch;
        now += 1ms;
        second->scheduleTask();
        EXPECT_EQ(second->taskEnqueueTime(), now) << c.batch;
        second->unscheduleTask();
    }
}

// A task no std::shared_ptr owns any more but that lives on (its owner's
// deleter did not delete it) still runs, held by nothing.
TEST_F(Scheduler, ATaskItsOwnersLetGoRunsUnheld) {
    auto* raw = new Probe(root, P::normal, "unowned");
    {
        std::shared_ptr<Probe> owner(raw, [](Probe*) {});
        runOnce(*raw);
    }
    runOnce(*raw);
    root->runsPerCallbackIs(4);
    raw->body = [](Probe& task) { task.scheduleTask(); };
    raw->scheduleTask();
    root->callback();
    EXPECT_EQ(raw->runs, 6);
    delete raw;
}

}  // namespace
