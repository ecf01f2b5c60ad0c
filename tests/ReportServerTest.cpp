#include <Kelvo/ReportServerCpp.h>

#include <sys/socket.h>
#include <sys/un.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using namespace KelvoTest;
using P = TaskPriority;

constexpr const char* served = "unit";

// Runs every millisecond, counting its runs.
struct Tick final : TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {
        ++runs;
        scheduleTaskDelay(1ms);
    }
    unsigned runs = 0;
};

struct Once final : Task {
    using Task::Task;
    void taskExecute() override {}
};

// A non-blocking client, driven from the test's own loop so that the server
// on the same thread keeps running.
struct Client {
    explicit Client(const std::string& name = served, int receiveBuffer = 0,
                    pid_t server = ::getpid()) {
        static const auto trace = Platform::getDebugHandler("ReportServerTest");
        fd = Util::socket(*trace, AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (receiveBuffer > 0)
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_un address;
        const int length =
            Util::createSockaddr(*trace, &address, reportServerSocketName(name, server));
        connectErrno =
            ::connect(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 ? 0 : errno;
    }
    ~Client() { ::close(fd); }
    void send(const std::string& bytes) {
        (void)::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    // Reads what is there; true once the server has closed.
    bool drained() {
        char buffer[65536];
        ssize_t n;
        while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0)
            got.append(buffer, static_cast<size_t>(n));
        return n == 0 || errno != EAGAIN;
    }
    int fd, connectErrno;
    std::string got;
};

// Serves "unit" with a ticking task, a task that never runs and a finished
// task, so that both flags change what the reports show.
class ReportServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tick = std::make_shared<Tick>(schedulerRootKelvo(), P::high, "ReportTick");
        tick->scheduleTask();
        idle = std::make_shared<Once>(schedulerRootKelvo(), P::normal, "ReportNeverRan");
        {
            auto finished = std::make_shared<Once>(schedulerRootKelvo(), P::normal, "ReportDone");
            finished->scheduleTask();
            ASSERT_TRUE(loopUntil([&] { return finished->taskRunCount() == 1; }));
        }
        reportServerIs(served);
    }
    void TearDown() override {
        reportServerIs("");
        tick.reset();
    }

    static std::string ask(const std::string& request, const std::string& name = served) {
        Client client(name);
        EXPECT_EQ(client.connectErrno, 0) << std::strerror(client.connectErrno);
        client.send(request);
        EXPECT_TRUE(loopUntil([&] { return client.drained(); })) << request;
        return client.got;
    }
    static bool allClosed() {
        return loopUntil([] { return reportServerConnectionCountForTest() == 0; });
    }

    std::shared_ptr<Tick> tick;
    std::shared_ptr<Once> idle;
};

// Every command answers; the flags add what json, text and metrics show.
TEST_F(ReportServerTest, EveryCommandAnswersAndFlagsAddNeverRunAndCompletedTasks) {
    const std::vector<std::pair<std::string, std::string>> commands = {
        {"json", "ReportTick"},   {"text", "ReportTick"},          {"metrics", "\n# EOF\n"},
        {"history", "run start"}, {"timeline", "\"traceEvents\""},
    };
    for (const auto& [command, mark] : commands) {
        for (const auto& [flags, neverRan, done] :
             {std::tuple{"", false, false}, std::tuple{" noruns", true, false},
              std::tuple{" completed", false, true}, std::tuple{" completed noruns", true, true}}) {
            SCOPED_TRACE(command + flags);
            const std::string got = ask(command + flags + "\n");
            EXPECT_THAT(got, HasSubstr(mark));
            if (command == "history" || command == "timeline")
                continue;  // a flag the command does not use is accepted
            EXPECT_EQ(got.find("ReportNeverRan") != std::string::npos, neverRan);
            EXPECT_EQ(got.find("ReportDone") != std::string::npos, done);
        }
    }
    // The classic metrics form ends without the OpenMetrics terminator.
    EXPECT_THAT(ask("metrics prometheus\n"),
                AllOf(HasSubstr("kelvo_task_runs_total{"), Not(HasSubstr("# EOF"))));
    EXPECT_TRUE(allClosed());
}

// The line may be 256 bytes with its newline: here 4 + 33 * 7 + 2 * 10 + 1.
TEST_F(ReportServerTest, BadRequestsGetOneErrorLine) {
    std::string longest = "json";
    for (int i = 0; i < 33; ++i)
        longest += " noruns";
    longest += " completed completed\n";
    ASSERT_EQ(longest.size(), 256u);
    EXPECT_EQ(reportSchemaErrors(ask(longest)), "");
    for (const std::string request : {"bogus\n", "\n", "json  noruns\n", "json noruns \n",
                                      " json\n", "json nonsense\n", "JSON\n", "json\r\n"})
        EXPECT_EQ(ask(request), "error: unknown request\n") << request;
    for (const std::string& request : {longest.substr(0, 255) + "s\n", std::string(1000, 'x')})
        EXPECT_EQ(ask(request), "error: request too long\n") << request.size();
    EXPECT_TRUE(allClosed());
}

// A peer of another user learns nothing but the refusal. The server answers
// from this thread's loop, so the peer is a child.
TEST_F(ReportServerTest, PeerOfAnotherUserLearnsOnlyTheRefusal) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "switching to uid 65534 needs root";
    std::fflush(nullptr);
    const pid_t server = ::getpid(), pid = ::fork();
    if (pid == 0) {
        ::alarm(30);
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
            ::_exit(3);
        Client client(served, 0, server);
        client.send("json\n");
        pollfd readable{client.fd, POLLIN, 0};
        while (!client.drained())
            ::poll(&readable, 1, 1000);
        ::_exit(client.got == "error: refused\n" ? 0 : 1);
    }
    int status = -1;
    ASSERT_TRUE(loopUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 30));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(allClosed());
}

// Virtual time for one case.
struct FastForwarding {
    FastForwarding() { Platform::setFastForward(true); }
    ~FastForwarding() { Platform::setFastForward(false); }
};

TEST_F(ReportServerTest, SilentOrUnfinishedRequestTimesOutAfterFiveSeconds) {
    FastForwarding virtualTime;
    for (const std::string sent : {"", "json"}) {
        SCOPED_TRACE(sent);
        Client client;
        client.send(sent);
        ASSERT_TRUE(loopUntil([] { return reportServerConnectionCountForTest() == 1; }));
        Platform::fastForwardBy(4.5);
        loopUntil([] { return false; }, 0.05);
        EXPECT_FALSE(client.drained());
        Platform::fastForwardBy(1.0);
        ASSERT_TRUE(loopUntil([&] { return client.drained(); }));
        EXPECT_EQ(client.got, "error: request timed out\n");
    }
    EXPECT_TRUE(allClosed());
}

// One client leaves mid-answer, one never reads: each ends only its answer,
// the second after two stall checks (the first may still see buffers fill).
// A few thousand tasks make answers far larger than a socket's buffers.
TEST_F(ReportServerTest, ClientsThatLeaveOrNeverReadEndOnlyTheirAnswers) {
    FastForwarding virtualTime;
    std::vector<std::shared_ptr<Once>> padding;
    for (int i = 0; i < 3000; ++i)
        padding.push_back(std::make_shared<Once>(schedulerRootKelvo(), P::low,
                                                 "ReportPadding-" + std::to_string(i)));
    for (const std::string request : {"json noruns\n", "metrics noruns\n"}) {
        SCOPED_TRACE(request);
        Client stalled(served, 4096);
        stalled.send(request);
        {
            Client leaving(served, 4096);
            leaving.send(request);
            ASSERT_TRUE(loopUntil([&] { return !leaving.drained() && !leaving.got.empty(); }));
        }
        ASSERT_TRUE(loopUntil([] { return reportServerConnectionCountForTest() == 1; }));
        for (int i = 0; i < 2 && reportServerConnectionCountForTest() == 1; ++i) {
            Platform::fastForwardBy(30.5);
            loopUntil([] { return reportServerConnectionCountForTest() == 0; }, 0.5);
        }
        EXPECT_EQ(reportServerConnectionCountForTest(), 0u);
        EXPECT_THAT(ask("history\n"), HasSubstr("run start"));
    }
}

TEST_F(ReportServerTest, SixtyFifthConnectionIsBusy) {
    std::vector<std::unique_ptr<Client>> held;
    for (int i = 0; i < 64; ++i)
        held.push_back(std::make_unique<Client>());
    ASSERT_TRUE(loopUntil([] { return reportServerConnectionCountForTest() == 64; }));
    EXPECT_EQ(ask("json\n"), "error: busy\n");
    held.clear();
    EXPECT_TRUE(allClosed());
    EXPECT_THAT(ask("history\n"), HasSubstr("run start"));
}

// Names are checked, a name another process holds leaves the server as it
// was, and a forked child that outlives a stopped server keeps no name alive.
TEST_F(ReportServerTest, NamesMovesAndStopsLeaveTheServerConsistent) {
    for (const std::string& bad : {std::string(65, 'a'), std::string("a b"), std::string("a/b"),
                                   std::string("caf\xc3\xa9")}) {
        EXPECT_THAT(thrownMessage<RuntimeException>([&] { reportServerIs(bad); }),
                    HasSubstr("must be 1 to 64 characters"))
            << bad;
    }
    reportServerIs(std::string(64, 'a'));
    EXPECT_EQ(reportServer(), std::string(64, 'a'));
    reportServerIs(served);
    {
        // Only plain system calls in the child: a lock held by another thread
        // at the fork would stay held there.
        HeldChild squatter([] {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const int length = std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1,
                                             "kelvo-report.taken.%d", ::getppid()) +
                               1 + static_cast<int>(offsetof(sockaddr_un, sun_path));
            return ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 ? "y" : "n";
        });
        ASSERT_EQ(squatter.report(), "y");
        EXPECT_THAT(thrownMessage<RuntimeException>([] { reportServerIs("taken"); }),
                    AllOf(HasSubstr("kelvo-report.taken."), HasSubstr("Address already in use")));
    }
    EXPECT_EQ(reportServer(), served);
    EXPECT_THAT(ask("history\n"), HasSubstr("run start"));

    reportServerIs("moved");
    EXPECT_EQ(Client(served).connectErrno, ECONNREFUSED);
    EXPECT_THAT(ask("history\n", "moved"), HasSubstr("run start"));
    {
        // The child's fork handlers have run once it reports.
        HeldChild child([] { return "s"; });
        ASSERT_EQ(child.report(), "s");
        reportServerIs("");
        EXPECT_EQ(reportServer(), "");
        EXPECT_EQ(Client("moved").connectErrno, ECONNREFUSED);
    }
    reportServerIs(served);
    EXPECT_THAT(ask("history\n"), HasSubstr("run start"));
}

// Random bytes, over-long lines, half-open connections and clients that never
// read, in waves below the connection cap, while a 1 ms task keeps ticking.
TEST_F(ReportServerTest, TenThousandHostileRequestsLeaveNothingBehind) {
    // What the first answer opens once (trace handles, caches) is not a leak.
    ask("history\n");
    const std::set<int> fdsBefore = openFds();
    std::mt19937 random(13);
    constexpr int total = 10000, wave = 40;
    unsigned ticksAtLastThousand = tick->runs;
    const std::string kinds[] = {"", std::string(300, 'j') + "\n", "", "jso", "text\n"};
    for (int sent = 0; sent < total; sent += wave) {
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < wave; ++i) {
            // Random bytes, an over-long line, nothing, half a request and a
            // half-open connection, a request whose answer is never read.
            const int kind = (sent + i) % 5;
            std::string bytes = kinds[kind];
            if (kind == 0) {
                bytes.resize(1 + random() % 400);
                for (char& c : bytes)
                    c = static_cast<char>(random());
            }
            auto client = std::make_unique<Client>();
            client->send(bytes);
            if (kind == 3)
                ::shutdown(client->fd, SHUT_WR);
            clients.push_back(std::move(client));
        }
        // Closing while answers are under way: the server sees every kind of
        // disappearance.
        loopUntil([] { return false; }, 0.01);
        clients.clear();
        ASSERT_TRUE(allClosed()) << "after " << sent;
        if ((sent + wave) % 1000 == 0) {
            EXPECT_GT(tick->runs, ticksAtLastThousand) << "after " << sent;
            ticksAtLastThousand = tick->runs;
        }
    }
    EXPECT_EQ(openFds(), fdsBefore);
    EXPECT_THAT(ask("history\n"), HasSubstr("run start"));
}

}  // namespace
