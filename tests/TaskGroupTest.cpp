#include <Kelvo/TaskSchedulerCpp.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using namespace KelvoTest;
using P = TaskPriority;

// A task that counts its runs and does in each what its test asks.
struct Member : Task {
    std::function<void(Member&)> body;
    int runs = 0;
    Member(std::shared_ptr<TaskScheduler> scheduler, P priority, std::function<void(Member&)> run)
        : Task(std::move(scheduler), priority, "m"), body(std::move(run)) {}
    void taskExecute() override {
        ++runs;
        if (body)
            body(*this);
    }
};

void reschedule(Member& self) {
    self.scheduleTask();
}

class Group : public ::testing::Test {
  protected:
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("test");
    std::shared_ptr<TaskGroup> group = TaskGroup::TaskGroupIs("g", P::normal, false, root);

    std::shared_ptr<Member> member(std::function<void(Member&)> run = {},
                                   std::shared_ptr<TaskScheduler> in = nullptr,
                                   P priority = P::normal) {
        return std::make_shared<Member>(in ? in : group, priority, std::move(run));
    }
};

TEST_F(Group, NestedEnforcingGroupRunsInOneRootRunAndRefusesOtherPriorities) {
    // Nested and enforcing: one root run drives both turns down to the member.
    root->defaultTaskQuantumIs(5ms);
    auto high = TaskGroup::TaskGroupIs("high", P::high, true, group);
    EXPECT_EQ(high->taskGroupQuantum(), 20ms);  // the enclosing group's default
    EXPECT_THAT(thrownMessage([&] { member({}, high, P::normal); }),
                EndsWith("taskPriority( normal ) != taskGroupPriority( high )"));
    auto a = member({}, high, P::high);
    a->scheduleTask();
    root->handleSchedulerRun();
    EXPECT_EQ(a->runs, 1);
    // The inner parent's run is the outer one's work.
    EXPECT_EQ(group->parentTask()->getStats().taskWorkCountTotal(), 1u);

    // The enclosing scheduler's statistics reset reaches the members, without
    // a reset task of a priority the enforcing group would refuse.
    root->resetStats();
    for (int runs = 0; root->resetStatsInProgress() && runs < 100; ++runs)
        root->handleSchedulerRun();
    EXPECT_EQ(a->taskRunCount(), 0u);
    EXPECT_EQ(high->parentTaskRunCount(), 0u);
}

TEST_F(Group, IdleGroupLeavesItsParentUnscheduled) {
    auto a = member(), s = member();
    s->taskSuspendedIs(true);  // resuming would queue it
    s->scheduleTask();
    EXPECT_FALSE(group->parentTaskScheduled());
    a->scheduleTask();
    a->unscheduleTask();  // the group still counts as runnable: its turn finds out
    EXPECT_TRUE(group->parentTaskScheduled());
    root->handleSchedulerRun();
    EXPECT_EQ(group->parentTaskRunCount(), 1u);
    EXPECT_FALSE(group->parentTaskScheduled());
}

// Random workloads whose member runs move the clock, reschedule themselves or
// others, take others off the queue and now and then throw (the group must run
// on), next to a task outside the group. The clock is the virtual one or the
// root's steady clock driven by the test. Its readings bracket the parent's: a
// turn starts after `before` and no later than its first member, and each
// yield decision falls between one member's end and the next one's start.
class GroupTurns : public KelvoTest::FastForward {};

TEST_F(GroupTurns, MembersRunOncePerTurnOrUntilTheParentsQuantumIsUsed) {
    constexpr int slots = 8, turnsWanted = 1500;
    constexpr double quantum = 0.1, slack = 1e-9;  // slack: rounding of the readings
    for (int mode = 0; mode < 4; ++mode) {
        const bool multipleRuns = mode & 1, virtualClock = mode & 2;
        SCOPED_TRACE(::testing::Message() << multipleRuns << virtualClock);
        Platform::setFastForward(virtualClock);
        TaskTimePoint steady{1s};  // outlives the root that reads it
        auto root = schedulerRootKelvoNonShared("turns");
        if (!virtualClock)
            root->steadyClockIsForTest([&] { return steady; });
        const auto now = [&] {
            return virtualClock ? Kelvo::time()
                                : std::chrono::duration<double>(steady.time_since_epoch()).count();
        };
        auto group = TaskGroup::TaskGroupIs("g", P::normal, false, root);
        group->tasksPermittedMultipleRunsIs(multipleRuns);
        group->taskGroupQuantumIs(100ms);
        std::mt19937 rng(20261124);
        const auto below = [&](unsigned n) { return int(rng() % n); };
        std::vector<std::tuple<int, double, double>> turn;  // member, start, end
        std::set<int> takenOff;
        bool threw = false;
        std::vector<std::shared_ptr<Member>> m;
        for (int i = 0; i < slots; ++i) {
            m.push_back(
                std::make_shared<Member>(group, P(unsigned(below(5))), [&, i](Member& self) {
                    const double start = now();
                    const int ms = below(40);
                    virtualClock ? Platform::fastForwardBy(ms / 1000.0) : void(steady += ms * 1ms);
                    if (below(2))
                        self.scheduleTask();
                    if (below(4) == 0)
                        m[below(slots)]->scheduleTask();
                    if (const int other = below(slots); below(10) == 0) {
                        takenOff.insert(other);
                        m[other]->unscheduleTask();
                    }
                    turn.emplace_back(i, start, now());
                    if ((threw = below(50) == 0))
                        throw std::runtime_error("member failed");
                }));
        }
        auto outside = std::make_shared<Member>(root, P::normal, reschedule);
        outside->scheduleTask();
        for (int step = 0, turns = 0; turns < turnsWanted; ++step) {
            ASSERT_LT(step, 20 * turnsWanted) << "the group stopped getting turns";
            if (below(3) == 0)
                m[below(slots)]->scheduleTask();
            std::set<int> queued, ran;
            for (int i = 0; i < slots; ++i)
                if (m[i]->taskScheduled())
                    queued.insert(i);
            turn.clear(), takenOff.clear(), threw = false;
            const uint32_t parentRuns = group->parentTaskRunCount();
            const double before = now();
            try {
                root->handleSchedulerRun();
            } catch (const std::runtime_error&) {
                ASSERT_TRUE(threw);
            }
            const double used = now() - before;
            if (group->parentTaskRunCount() == parentRuns)
                continue;  // the outside task's run
            ++turns;
            for (size_t k = 0; k + 1 < turn.size(); ++k)
                ASSERT_LT(std::get<2>(turn[k]) - std::get<1>(turn[0]), quantum + slack)
                    << "turn " << turns << ": a member started after the quantum was used";
            for (const auto& [i, start, end] : turn)
                ASSERT_TRUE(multipleRuns || (ran.insert(i).second && queued.count(i)))
                    << "turn " << turns << ": m" << i << " ran twice or was not queued";
            if (threw)
                continue;  // ended early; the next turn must cope
            const uint32_t pending = group->runnableTaskCount();
            ASSERT_TRUE(!multipleRuns || pending == 0 || used >= quantum - slack)
                << "turn " << turns << ": ended early";
            for (int i : queued)
                ASSERT_TRUE(multipleRuns || used >= quantum - slack || ran.count(i) ||
                            takenOff.count(i))
                    << "turn " << turns << ": m" << i << " left behind";
            ASSERT_EQ(group->parentTaskScheduled(), pending > 0) << "turn " << turns;
            ASSERT_EQ(group->schedulerHasRunnableTasks(), pending > 0) << "turn " << turns;
        }
    }
}

TEST_F(Group, ForceYieldOfAMemberOrOfTheGroupMakesTheParentYield) {
    // Unforced, a turn runs each of three once: the clock stands still.
    root->steadyClockIsForTest([] { return TaskTimePoint(1s); });
    group->tasksPermittedMultipleRunsIs(false);
    std::vector<std::shared_ptr<Member>> m = {member(reschedule), member(reschedule),
                                              member(reschedule)};
    for (auto& task : m)
        task->scheduleTask();
    // Member forced, group forced, runs per turn.
    const std::tuple<bool, bool, int> steps[] = {
        {false, false, 3}, {true, false, 1}, {true, true, 1}, {false, true, 1}, {false, false, 3}};
    for (const auto& [memberForced, groupForced, perTurn] : steps) {
        m[1]->taskForceYieldInTestIs(memberForced);
        group->taskGroupForceYieldInTestIs(groupForced);
        EXPECT_EQ(root->forceYieldTaskCount(), perTurn == 1 ? 1u : 0u);  // the parent
        const int before = m[0]->runs + m[1]->runs + m[2]->runs;
        root->handleSchedulerRun();
        EXPECT_EQ(m[0]->runs + m[1]->runs + m[2]->runs - before, perTurn);
    }
    m[0]->taskForceYieldInTestIs(true);
    m[0].reset();  // leaves the set as it goes
    EXPECT_EQ(group->parentTask()->taskTestYieldRatio(), 0);
}

// Members hold a share of their group: dropping the last outside reference
// leaves them served, and the group goes with the last of them.
TEST_F(Group, MembersKeepTheirGroupAndAParentLeftBehindDoesNothing) {
    std::shared_ptr<Member> last = member([&](Member&) { last.reset(); });
    std::weak_ptr<TaskGroup> weakGroup = group;
    std::weak_ptr<TaskGroup::ParentTask> weakParent = group->parentTask();
    group.reset();
    last->scheduleTask();  // drops its last reference in its run
    root->handleSchedulerRun();
    EXPECT_EQ(last, nullptr);
    EXPECT_TRUE(weakGroup.expired());
    EXPECT_TRUE(weakParent.expired());
    EXPECT_EQ(root->taskGroupCount(), 0u);
    EXPECT_EQ(root->tasksPerPriority(P::normal), 0u);

    const auto parent = TaskGroup::TaskGroupIs("gone", P::low, true, root)->parentTask();
    EXPECT_EQ(parent->isTaskGroup(), nullptr);
    parent->scheduleTask();
    root->handleSchedulerRun();
    EXPECT_EQ(parent->taskRunCount(), 1u);
}

}  // namespace
