#include "TestSupport.h"
#include "WriteFaults.h"

#include <future>

namespace KelvoTest {
namespace {

using Kelvo::TaskScheduler;
using Kelvo::TaskSchedulerRoot;
using SnapshotList = TaskScheduler::SnapshotList;

struct Busy : Kelvo::Task {
    using Task::Task;
    void taskExecute() override { taskWorkCountInc(3); }
};

// Schedulers of the given sizes, with names of many lengths and some tasks
// run, and one snapshot of each (declared last: released first).
struct Fleet {
    std::vector<std::shared_ptr<TaskSchedulerRoot>> roots;
    std::vector<std::shared_ptr<Busy>> tasks;
    SnapshotList snapshots;

    explicit Fleet(std::initializer_list<unsigned> sizes) {
        for (unsigned size : sizes) {
            roots.push_back(Kelvo::schedulerRootKelvoNonShared(fmt::format("fleet{}", size)));
            for (unsigned i = 0; i < size; ++i) {
                tasks.push_back(std::make_shared<Busy>(roots.back(), Kelvo::TaskPriority(i % 5),
                                                       fmt::format("t{}{:x>{}}", i, "", i % 37)));
                for (unsigned run = 0; run < i % 3; ++run)
                    tasks.back()->taskRunFromTest();
            }
            snapshots.push_back(roots.back()->snapshot("", true, false, false, 0));
        }
    }
};

// The context closes the document as the loop ends.
std::string renderSync(const SnapshotList& snapshots) {
    std::ostringstream out;
    for (auto context = TaskScheduler::PrintContextIs(out); const auto& snapshot : snapshots)
        snapshot->renderJson(*context);
    return out.str();
}

// Reads fd to its end, or until it holds limit bytes, then closes it.
std::future<std::string> readAll(int fd, size_t limit = SIZE_MAX) {
    return std::async(std::launch::async, [fd, limit] {
        std::string text;
        char buffer[65536];
        ssize_t n = 0;
        while (text.size() < limit &&
               (n = ::read(fd, buffer, std::min(sizeof buffer, limit - text.size()))) > 0)
            text.append(buffer, n);
        ::close(fd);
        return text;
    });
}

// Every case runs with SIGPIPE ignored, as a daemon answering reports must.
class AsyncWriter : public OsTest {
  protected:
    void SetUp() override {
        OsTest::SetUp();
        ::signal(SIGPIPE, SIG_IGN);
    }
    void TearDown() override {
        EXPECT_TRUE(root_->snapshotRenderTasks().empty());
        OsTest::TearDown();
    }

    // Writes the report to a pipe, faults armed on its write end, and returns
    // what a reader of at most readLimit bytes received.
    std::string writeReport(const SnapshotList& snapshots, WriteFaults::Rates rates,
                            size_t readLimit = SIZE_MAX) {
        int fds[2];
        EXPECT_EQ(::pipe(fds), 0);
        auto received = readAll(fds[0], readLimit);
        writeFaults.arm(fds[1], rates, ++seed_);
        int done = 0;
        root_->snapshotRenderJsonAsync(fds[1], snapshots, [&] { ++done; });
        EXPECT_TRUE(loopUntil([&] { return done > 0; }));
        writeFaults.disarm();
        Kelvo::Platform::doEventLoopInWaitfor(0);
        EXPECT_EQ(done, 1);
        return received.get();
    }

    const std::shared_ptr<TaskSchedulerRoot>& root_ = Kelvo::schedulerRootKelvo();
    uint32_t seed_ = 0;
};

// Whatever the faults, the reader receives the synchronous rendering, cut
// short only where it vanished; done is called once (counted by writeReport).
TEST_F(AsyncWriter, FaultsLoseNothingAndAVanishedReaderEndsTheReport) {
    const Fleet fleet({0, 1, 10, 100, 1500});
    const auto& s = fleet.snapshots;
    // Every write is cut short or fails, so the reports take many writes.
    const WriteFaults::Rates faulty{.eagain = 20, .eintr = 15, .shortWrite = 65};
    const SnapshotList large(20, s[3]);
    const struct {
        SnapshotList report;
        WriteFaults::Rates rates;
        size_t readLimit = SIZE_MAX;
    } cases[] = {
        {{}, faulty},
        {{s[0]}, faulty},
        {{s[1], s[2]}, faulty},
        {{s[3], s[0], s[3]}, faulty},
        {{s[4]}, faulty},
        {SnapshotList(12, s[3]), faulty},
        {{s[4], s[2], s[4], s[1], s[4]}, faulty},
        {large, {}, 100000},              // the reader closes mid-report: EPIPE
        {large, {}, 0},                   // the reader closes at once: EPIPE
        {large, {.failWith = EBADF}, 0},  // the descriptor is gone
    };
    const uint64_t before = writeFaults.injected();
    for (size_t row = 0; row < std::size(cases); ++row) {
        const std::string expected = renderSync(cases[row].report);
        const std::string received =
            writeReport(cases[row].report, cases[row].rates, cases[row].readLimit);
        EXPECT_TRUE(received == expected.substr(0, cases[row].readLimit))
            << "row " << row << ": " << received.size() << " of " << expected.size();
    }
    EXPECT_GE(writeFaults.injected() - before, 10000u);
}

// The writer leaves SIGPIPE alone: only a daemon that ignores it, as the
// fixture does, sees a vanished reader as EPIPE.
TEST(AsyncWriterProcess, VanishedReaderKillsUnlessSigpipeIsIgnored) {
    const ChildResult child = runInChild([] {
        ::signal(SIGPIPE, SIG_DFL);
        const Fleet fleet({10});
        int fds[2];
        childCheck(::pipe(fds) == 0);
        ::close(fds[0]);
        const auto& root = Kelvo::schedulerRootKelvo();
        root->snapshotRenderJsonAsync(fds[1], fleet.snapshots);
        loopUntil([&] { return root->snapshotRenderTasks().empty(); });
        return 0;
    });
    EXPECT_EQ(child.text(), "signal 13");
}

// Names, statistics, the descriptor switched to non-blocking, and the trace
// of a write that meets each fault.
TEST_F(AsyncWriter, NamesStatisticsAndTrace) {
    const Fleet fleet({10});
    const SnapshotList report(3, fleet.snapshots[0]);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const int fd = fds[1];
    root_->snapshotRenderJsonAsync(fd, report);
    EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_NONBLOCK);
    const auto render = *root_->snapshotRenderTasks().begin();
    EXPECT_EQ(render->taskName(), fmt::format("TaskSchedulerRenderJson-fd:{}", fd));
    EXPECT_EQ(render->taskStatsName(), "TaskSchedulerRenderJson");
    EXPECT_EQ(render->taskPriority(), Kelvo::TaskPriority::normal);
    EXPECT_EQ(render->writeTask()->taskName(),
              fmt::format("TaskSchedulerRenderJson-fd:{}:FdWrite", fd));
    EXPECT_EQ(render->writeTask()->taskStatsName(), "TaskSchedulerRenderJson:FdWrite");

    auto received = readAll(fds[0]);
    writeFaults.arm(fd, {.eagain = 30, .eintr = 30, .shortWrite = 30}, 7);
    const std::string lines = traced("KelvoTaskScheduler/3", [&] {
        EXPECT_TRUE(loopUntil([&] { return root_->snapshotRenderTasks().empty(); }));
    });
    writeFaults.disarm();
    EXPECT_EQ(received.get(), renderSync(report));
    for (const char* line : {"Request write to fd {} of ", "Writing to fd {} at offset 0 of ",
                             "got Resource temporarily unavailable", "got Interrupted system call",
                             " remaining\n", "Completed writing to fd {}\n"})
        EXPECT_THAT(lines, HasSubstr(fmt::format(fmt::runtime(line), fd)));
    // One unit of work per snapshot; pending counts the snapshots still to go.
    const Kelvo::TaskStat stat = render->getStats();
    EXPECT_EQ(stat.taskWorkCountTotal(), 3u);
    EXPECT_EQ(stat.taskWorkPending(), 0u);
    EXPECT_EQ(stat.taskWorkPendingHighWater(), Kelvo::TaskMaybeU32(2));
}

// Each misuse of the writer's steps fails with its own message.
TEST_F(AsyncWriter, MisuseFailsWithItsMessage) {
    const Fleet fleet({1});
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    int done = 0;
    root_->snapshotRenderJsonAsync(fds[1], fleet.snapshots, [&] { ++done; });
    const auto render = *root_->snapshotRenderTasks().begin();
    render->unscheduleTask();
    EXPECT_THAT(thrownMessage([&] { render->writeComplete(); }),
                EndsWith("Notified about an unexpected write complete"));
    render->taskRunFromTest();  // renders the first piece
    const size_t size = render->writeTask()->buffer().size();
    const struct {
        std::function<void()> misuse;
        std::string message;
    } cases[] = {
        {[&] { render->taskRunFromTest(); }, "Executing before previous write completed."},
        {[&] { render->writeTask()->assertWriteComplete(); },
         fmt::format("Previous write not complete, at offset 0 of {}", size)},
        {[&] { render->writeTask()->taskExecuteReadable(); },
         "We never register for readable events"},
        {[&] {
             writeFaults.arm(fds[1], {.failWith = ENOSPC});
             for (int pass = 0; pass < 100; ++pass)
                 Kelvo::Platform::doEventLoopInWaitfor(0.05);
         },
         fmt::format("Write to fd {} failed {}({})", fds[1], std::strerror(ENOSPC), ENOSPC)},
    };
    for (const auto& c : cases)
        EXPECT_THAT(thrownMessage(c.misuse), EndsWith(c.message));

    // The failed write left writable watching off: resume it into a closed pipe.
    writeFaults.disarm();
    ::close(fds[0]);
    render->writeTask()->taskWatchWritableIs(true);
    EXPECT_TRUE(loopUntil([&] { return done > 0; }));
}

}  // namespace
}  // namespace KelvoTest
