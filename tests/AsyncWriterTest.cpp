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

// Snapshots of schedulers of the given sizes, with names of many lengths and
// some tasks run.
SnapshotList fleet(std::initializer_list<unsigned> sizes) {
    SnapshotList snapshots;
    for (unsigned size : sizes) {
        auto root = Kelvo::schedulerRootKelvoNonShared(fmt::format("fleet{}", size));
        std::vector<std::shared_ptr<Busy>> tasks;
        for (unsigned i = 0; i < size; ++i) {
            tasks.push_back(std::make_shared<Busy>(root, Kelvo::TaskPriority(i % 5),
                                                   fmt::format("t{}{:x>{}}", i, "", i % 37)));
            for (unsigned run = 0; run < i % 3; ++run)
                tasks.back()->taskRunFromTest();
        }
        snapshots.push_back(root->snapshot("", true, false, false, 0));
    }
    return snapshots;
}

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

    const std::shared_ptr<TaskSchedulerRoot>& root_ = Kelvo::schedulerRootKelvo();
};

// Whatever the faults, the reader receives the synchronous rendering, cut
// short only where it vanished, and done is called once.
TEST_F(AsyncWriter, FaultsLoseNothingAndAVanishedReaderEndsTheReport) {
    const SnapshotList s = fleet({0, 1, 10, 100, 1500}), large(20, s[3]);
    const struct {
        SnapshotList report;
        // Every write is cut short or fails, so the reports take many writes.
        WriteFaults::Rates rates = {.eagain = 20, .eintr = 15, .shortWrite = 65};
        size_t readLimit = SIZE_MAX;
    } cases[] = {
        {{}},
        {{s[0]}},
        {{s[1], s[2]}},
        {SnapshotList(12, s[3])},
        {{s[4], s[2], s[4], s[1], s[4]}},
        {large, {}, 100000},              // the reader closes mid-report: EPIPE
        {large, {}, 0},                   // the reader closes at once: EPIPE
        {large, {.failWith = EBADF}, 0},  // the descriptor is gone
    };
    const uint64_t before = writeFaults.injected();
    for (uint32_t row = 0; row < std::size(cases); ++row) {
        const std::string expected = renderSync(cases[row].report);
        int fds[2], done = 0;
        ASSERT_EQ(::pipe(fds), 0);
        auto received = readAll(fds[0], cases[row].readLimit);
        writeFaults.arm(fds[1], cases[row].rates, row + 1);
        root_->snapshotRenderJsonAsync(fds[1], cases[row].report, [&] { ++done; });
        EXPECT_TRUE(loopUntil([&] { return done > 0; })) << "row " << row;
        writeFaults.disarm();
        Kelvo::Platform::doEventLoopInWaitfor(0);
        EXPECT_EQ(done, 1) << "row " << row;
        EXPECT_TRUE(received.get() == expected.substr(0, cases[row].readLimit)) << "row " << row;
    }
    EXPECT_GE(writeFaults.injected() - before, 10000u);
}

// The writer leaves SIGPIPE alone: only a daemon that ignores it, as the
// fixture does, sees a vanished reader as EPIPE.
TEST(AsyncWriterProcess, VanishedReaderKillsUnlessSigpipeIsIgnored) {
    const ChildResult child = runInChild([] {
        ::signal(SIGPIPE, SIG_DFL);
        int fds[2];
        childCheck(::pipe(fds) == 0);
        ::close(fds[0]);
        const auto& root = Kelvo::schedulerRootKelvo();
        root->snapshotRenderJsonAsync(fds[1], fleet({10}));
        loopUntil([&] { return root->snapshotRenderTasks().empty(); });
        return 0;
    });
    EXPECT_EQ(child.text(), "signal 13");
}

// One report walked through its steps: names, the descriptor switched to
// non-blocking, each step taken out of turn, then the rest written through
// every fault with its trace and statistics; last, a write that fails.
TEST_F(AsyncWriter, StepsNamesMisuseTraceAndStatistics) {
    const SnapshotList report(3, fleet({10})[0]);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const int fd = fds[1];
    int done = 0;
    root_->snapshotRenderJsonAsync(fd, report, [&] { ++done; });
    EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_NONBLOCK);
    const auto render = *root_->snapshotRenderTasks().begin();
    const std::string name = fmt::format("TaskSchedulerRenderJson-fd:{}", fd);
    EXPECT_EQ(render->taskName(), name);
    EXPECT_EQ(render->taskStatsName(), "TaskSchedulerRenderJson");
    EXPECT_EQ(render->taskPriority(), Kelvo::TaskPriority::normal);
    EXPECT_EQ(render->writeTask()->taskName(), name + ":FdWrite");
    EXPECT_EQ(render->writeTask()->taskStatsName(), "TaskSchedulerRenderJson:FdWrite");

    render->unscheduleTask();
    EXPECT_THAT(thrownMessage([&] { render->writeComplete(); }),
                EndsWith("Notified about an unexpected write complete"));
    render->taskRunFromTest();  // renders the first piece
    const std::string pending = fmt::format("Previous write not complete, at offset 0 of {}",
                                            render->writeTask()->buffer().size());
    EXPECT_THAT(thrownMessage([&] { render->taskRunFromTest(); }),
                EndsWith("Executing before previous write completed."));
    EXPECT_THAT(thrownMessage([&] { render->writeTask()->assertWriteComplete(); }),
                EndsWith(pending));
    EXPECT_THAT(thrownMessage([&] { render->writeTask()->taskExecuteReadable(); }),
                EndsWith("We never register for readable events"));

    auto received = readAll(fds[0]);
    writeFaults.arm(fd, {.eagain = 30, .eintr = 30, .shortWrite = 30}, 7);
    const std::string lines =
        traced("KelvoTaskScheduler/3", [&] { EXPECT_TRUE(loopUntil([&] { return done > 0; })); });
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

    ASSERT_EQ(::pipe(fds), 0);
    root_->snapshotRenderJsonAsync(fds[1], report, [&] { ++done; });
    writeFaults.arm(fds[1], {.failWith = ENOSPC});
    EXPECT_THAT(thrownMessage([&] { loopUntil([] { return false; }, 1.0); }),
                EndsWith(fmt::format("Write to fd {} failed {}({})", fds[1], std::strerror(ENOSPC),
                                     ENOSPC)));
    // The failed write left writable watching off: resume it into a closed pipe.
    writeFaults.disarm();
    ::close(fds[0]);
    (*root_->snapshotRenderTasks().begin())->writeTask()->taskWatchWritableIs(true);
    EXPECT_TRUE(loopUntil([&] { return done == 2; }));
}

}  // namespace
}  // namespace KelvoTest
