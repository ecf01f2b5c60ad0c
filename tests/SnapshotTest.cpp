#include <Kelvo/TaskSchedulerCpp.h>
#include <Kelvo/ThreadCpp.h>

#include <rapidjson/document.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using namespace KelvoTest;
using P = TaskPriority;

// Every document a case produces passes through here.
std::string valid(std::string json) {
    EXPECT_EQ(reportSchemaErrors(json), "") << json;
    return json;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

// "priorityStats" with {runnable, idle, completed, total runs} of the
// priorities named, zeros for the others.
using Counts = std::array<unsigned, 4>;
std::string priorityStats(std::map<std::string, Counts> counts = {}) {
    std::string out = R"("priorityStats":{)";
    for (const char* p : {"absolute", "high", "normal", "low", "scavenge"}) {
        const Counts c = counts[p];
        out += fmt::format(R"("{}":{{"runnableTasks":{},"idleTasks":{},"completedTasks":{},)"
                           R"("totalRunCount":{}}},)",
                           p, c[0], c[1], c[2], c[3]);
    }
    out.back() = '}';
    return out;
}

// The scheduler object of a scheduler without tasks.
std::string emptyScheduler(const std::string& name) {
    return R"({"schedulerName":")" + name + R"(","isRootScheduler":true,)" + priorityStats() +
           R"(,"maxSchedulerSlip":0.0,"tasks":{"tasks":[],"skipped":0},"subSchedulers":{}})";
}

struct Work : Task {
    std::function<void(Work&)> body;
    Work(std::shared_ptr<TaskScheduler> s, P p, const std::string& name,
         std::function<void(Work&)> run = {})
        : Task(std::move(s), p, name), body(std::move(run)) {}
    void taskExecute() override { body(*this); }
};

// A root on a clock of the case's own; no descriptor may leak.
class Snapshot : public OsTest {
  protected:
    Snapshot() {
        root->steadyClockIsForTest([this] { return now; });
    }
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("r");
    TaskTimePoint now{1s};
    std::shared_ptr<Work> work(P p, const std::string& name, std::function<void(Work&)> run = {}) {
        return std::make_shared<Work>(root, p, name, std::move(run));
    }
};

// The flags and run count of a task that ran once and waits for nothing.
const std::string ranOnce =
    R"("onRunQueue":false,"currentlyRunning":false,"suspended":false,"hasTimer":false,)"
    R"("timerRunning":false,"runCount":1,)";

// Heaviest task first, the never-run task only counted, a finished task in
// "completedTasks", each optional member exactly where its condition holds.
TEST_F(Snapshot, WholeDocumentWithEveryKindOfMember) {
    auto a = work(P::normal, "a", [&](Work& w) { now += 1'999'900ns, w.taskWorkCountInc(5); });
    auto b = work(P::high, "b", [&](Work& w) { now += 3ms, w.taskWorkPendingIs(7); });
    auto idle = work(P::low, "idle");
    auto done = work(P::low, "done", [&](Work&) { now += 500us; });
    for (auto* task : {a.get(), b.get(), done.get()})
        task->scheduleTask();
    now += 1ms;  // the scheduler's slip
    for (int i = 0; i < 4; ++i)
        root->handleSchedulerRun();  // b, a, done, then idle
    done.reset();
    root->clearHistory();
    root->historyEntryCountIs(3);
    root->history()->insert(now, TaskSchedulerEventType::create, idle.get());
    root->history()->insert(now, TaskSchedulerEventType::schedulerIdle, ConstStringRef());

    EXPECT_EQ(valid(root->statsRenderJsonToString(false, true, true)),
              R"({"schedulers":{"r":{"schedulerName":"r","isRootScheduler":true,)" +
                  priorityStats(
                      {{"high", {0, 1, 0, 1}}, {"normal", {0, 1, 0, 1}}, {"low", {0, 1, 1, 1}}}) +
                  R"(,"maxSchedulerSlip":0.001,"tasks":{"tasks":[)"
                  R"({"name":"b","address":")" +
                  TaskKey(b.get()).toStrep() + R"(","priority":"high",)" + ranOnce +
                  R"("totalRunTime":0.003,"lastSchedulingLatency":0.001,)"
                  R"("schedulingLatencyHighWaterMark":0.001,"qv200":0,"qv500":0,"maxMs":3,)"
                  R"("workPending":{"pending":7,"highwater":7}},)"
                  R"({"name":"a","address":")" +
                  TaskKey(a.get()).toStrep() + R"(","priority":"normal",)" + ranOnce +
                  R"("totalRunTime":0.0019999,"lastSchedulingLatency":0.004,)"
                  R"("schedulingLatencyHighWaterMark":0.004,"qv200":0,"qv500":0,"maxMs":1,)"
                  R"("workCount":{"total":5,"decayingAvg":5.0,"highwater":5}}],"skipped":1},)"
                  R"("completedTasks":{"tasks":[{"name":"L done","priority":"low",)" +
                  ranOnce +
                  R"("totalRunTime":0.0005,"lastSchedulingLatency":0.0059999,)"
                  R"("schedulingLatencyHighWaterMark":0.0059999,"qv200":0,"qv500":0,"maxMs":0,)"
                  R"("completedCount":1}],"skipped":0},"subSchedulers":{},)"
                  R"("history":{"historyEntryCount":3,"history":[)"
                  R"({"nsSinceBoot":1006499900,"eventType":"schedulerIdle"},)"
                  R"({"nsSinceBoot":1006499900,"eventType":"create","eventId":"idle"}]}}}})");
}

// A run time, work count or name at the edge of its encoding: {run time,
// work count, maxMs, work high water as written}. Run times truncate, never
// round up; 0xFFFFFFFF is kept as 0xFFFFFFFE; the high water is written signed.
TEST_F(Snapshot, ValuesAtTheirEdges) {
    const std::vector<std::tuple<TaskTimeDuration, unsigned, unsigned, int>> cases = {
        {0ns, 0, 0, 0},
        {999'999ns, 1, 0, 1},
        {1'000'000ns, 0x7FFFFFFF, 1, 0x7FFFFFFF},
        {1'999'900ns, 0x80000000, 1, INT32_MIN},
        {5s, 0xFFFFFFFF, 5000, -2},
    };
    // Each task is named by its row, then more than the render buffer holds
    // even before escaping.
    const std::string tail = std::string(20000, 'x') + "\"\\\x01\u00b5";
    std::vector<std::shared_ptr<Work>> tasks;
    for (size_t row = 0; row < cases.size(); ++row) {
        tasks.push_back(work(P::normal, std::to_string(row) + tail, [&, row](Work& w) {
            now += std::get<0>(cases[row]);
            w.taskWorkCountInc(std::get<1>(cases[row]));
        }));
        tasks.back()->taskQuantumNoCheckIs(10s);
        tasks.back()->taskRunFromTest();
    }
    rapidjson::Document document;
    document.Parse(valid(root->statsRenderJsonToString(true, false, false)).c_str());
    const auto& list = document["schedulers"]["r"]["tasks"]["tasks"];
    ASSERT_EQ(list.Size(), cases.size());
    for (const auto& task : list.GetArray()) {
        const size_t row = std::stoul(task["name"].GetString());
        ASSERT_EQ(task["name"].GetString(), std::to_string(row) + tail);
        const auto& [runTime, workCount, maxMs, highwater] = cases.at(row);
        EXPECT_EQ(task["maxMs"].GetUint(), maxMs) << row;
        EXPECT_EQ(task["workCount"]["highwater"].GetInt(), highwater) << row;
        EXPECT_EQ(task["workCount"]["total"].GetUint64(), workCount) << row;
    }
}

TEST_F(Snapshot, TaskGroupsNestUnderTheTaskThatDrivesThem) {
    auto group = TaskGroup::TaskGroupIs("g", P::normal, false, root);
    auto member = std::make_shared<Work>(group, P::low, "m", [&](Work&) { now += 2ms; });
    member->scheduleTask();
    // The member's run without a turn of the parent; unscheduling the parent
    // records its 2 ms on the queue.
    group->handleSchedulerRun();
    group->parentTask()->unscheduleTask();
    const std::string key = "TaskGroup;g-" + TaskKey(group->parentTask().get()).toStrep();
    // The driving task names its group's scheduler, which nests under that
    // name with the flags of its parent and without a history of its own.
    const std::string json = valid(root->statsRenderJsonToString(true, true, true));
    EXPECT_THAT(json, HasSubstr(R"("priority":"normal","subScheduler":")" + key +
                                R"(","onRunQueue":false,)"));
    EXPECT_THAT(json,
                HasSubstr(R"("runCount":0,"totalRunTime":0.0,"lastSchedulingLatency":0.002,)"));
    EXPECT_THAT(json, HasSubstr(R"(,"subSchedulers":{")" + key +
                                R"(":{"schedulerName":"g","isRootScheduler":false,)" +
                                priorityStats({{"low", {0, 1, 0, 1}}}) +
                                R"(,"maxSchedulerSlip":0.0,"tasks":{"tasks":[{"name":"m",)"));
    EXPECT_THAT(json, HasSubstr(R"("maxMs":2}],"skipped":0},"subSchedulers":{}}},"history":)"));
    // The count limits the history entries copied.
    const auto history = root->snapshot("", true, true, true, 1)->history();
    ASSERT_TRUE(history);
    EXPECT_EQ(history->entries.size(), 1u);

    EXPECT_THAT(thrownMessage([&] { subSchedulerKey(member->getStats()); }),
                HasSubstr("subSchedulerKey"));
}

TEST_F(Snapshot, PrintContextsCollectSnapshotsIntoOneDocument) {
    TaskSchedulerSnapshot one(root.get(), "one", false, false, false, 0, false);
    one.displayOrderIs(TaskMaybeU32(0x80000000));
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    {
        const auto context = TaskScheduler::PrintContextIs(fds[1], true);
        one.renderJson(*context);
        // No tasks: no "completedTasks" even when asked for.
        root->snapshot("", false, true, false, 0)->renderJson(*context);
        context->closeJson();
        EXPECT_THAT(thrownMessage([&] { context->closeJson(); }), HasSubstr("JSON already closed"));
        EXPECT_THAT(thrownMessage([&] { one.renderJson(*context); }),
                    HasSubstr("JSON already closed"));
    }
    EXPECT_EQ(::fcntl(fds[1], F_GETFD), -1);
    std::string text(4096, '\0');  // more than was written, all of it waiting
    text.resize(::read(fds[0], text.data(), text.size()));
    ::close(fds[0]);
    EXPECT_EQ(valid(text), R"({"schedulers":{"one":)" +
                               replaced(emptyScheduler("one"), R"("isRootScheduler")",
                                        R"("displayOrder":-2147483648,"isRootScheduler")") +
                               R"(,"r":)" + emptyScheduler("r") + "}}");

    CaptureStderr();
    TaskScheduler::PrintContextIs(STDERR_FILENO, false);
    EXPECT_EQ(valid(GetCapturedStderr()), R"({"schedulers":{}})");
}

TEST_F(Snapshot, RendersOnAnyThreadButIsReleasedOnlyOnItsOwn) {
    auto task = work(P::normal, "t", [&](Work&) { now += 1ms; });
    task->taskRunFromTest();
    const auto snap = root->snapshot("", true, true, false, 0);
    std::ostringstream there, here;
    std::string wrongThread;
    std::thread([&] {
        snap->renderJson(*TaskScheduler::PrintContextIs(there));
        wrongThread = thrownMessage([&] { root->snapshot("", true, true, false, 0); });
    }).join();
    snap->renderJson(*TaskScheduler::PrintContextIs(here));
    EXPECT_EQ(valid(there.str()), here.str());
    EXPECT_THAT(wrongThread, HasSubstr("Executing in wrong thread"));

    for (bool sanityDisabled : {false, true}) {
        const ChildResult child = runInChild(
            [&] {
                auto r = schedulerRootKelvoNonShared("c");
                r->threadSanityDisabledIs(sanityDisabled);
                auto s = r->snapshot("", true, false, false, 0);
                const std::string builder = toThreadIdString(std::this_thread::get_id());
                std::thread([&] {
                    std::printf("TaskSchedulerCpp: Allocated by thread %s freed by %s\n",
                                builder.c_str(),
                                toThreadIdString(std::this_thread::get_id()).c_str());
                    std::fflush(stdout);
                    s.reset();
                }).join();
                return 0;
            },
            true);
        EXPECT_TRUE(sanityDisabled ? child.exitedOk() : child.aborted()) << child.text();
        EXPECT_EQ(child.err, sanityDisabled ? "" : child.out);
    }
}

TEST(ReportSchema, RejectsWhatTheReportNeverWrites) {
    const std::string good = valid(R"({"schedulers":{"r":)" + emptyScheduler("r") + "}}");
    const std::pair<std::string, std::string> breaks[] = {
        {R"("isRootScheduler":true)", R"("isRootScheduler":1)"},
        {R"(,"subSchedulers":{})", ""},
        {R"("skipped":0)", R"("skipped":0,"extra":1)"},
        {R"("tasks":[])", R"("tasks":[{"name":"t"}])"},
        {R"("totalRunCount":0})", R"("totalRunCount":-1})"},
    };
    for (const auto& [from, to] : breaks)
        EXPECT_NE(reportSchemaErrors(replaced(good, from, to)), "") << to;
}

}  // namespace
