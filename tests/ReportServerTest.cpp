#include <Kelvo/ReportServerCpp.h>

#include <sys/socket.h>
#include <sys/un.h>

#include "TestSupport.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using KelvoTest::loopUntil;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using P = TaskPriority;

constexpr const char* served = "unit";
// The serving process, also as seen from the children that ask it.
const pid_t serverPid = ::getpid();

// Runs every millisecond, counting its runs.
class Tick final : public TimerTask {
  public:
    using TimerTask::TimerTask;
    void taskExecute() override {
        ++runs;
        scheduleTaskDelay(1ms);
    }
    unsigned runs = 0;
};

class Once final : public Task {
  public:
    using Task::Task;
    void taskExecute() override {}
};

// A non-blocking client, driven from the test's own loop so that the server
// on the same thread keeps running.
class Client {
  public:
    // beforeConnect runs between socket() and connect(): a socket made in the
    // default namespace keeps it after the caller drops the right to switch.
    explicit Client(const std::string& name = served, int receiveBuffer = 0,
                    const std::function<void()>& beforeConnect = {}) {
        fd_ = Util::socket(*handle(), AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (beforeConnect)
            beforeConnect();
        if (receiveBuffer > 0)
            ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_un address;
        const int length =
            Util::createSockaddr(*handle(), &address, reportServerSocketName(name, serverPid));
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0;
        connectErrno_ = connected_ ? 0 : errno;
    }
    ~Client() { ::close(fd_); }
    int fd() const { return fd_; }
    bool connected() const { return connected_; }
    int connectErrno() const { return connectErrno_; }
    void send(const std::string& bytes) {
        (void)::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void shutdownWrite() { ::shutdown(fd_, SHUT_WR); }
    // Reads what is there; true once the server has closed.
    bool drained() {
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
            if (n > 0) {
                got.append(buffer, static_cast<size_t>(n));
                continue;
            }
            if (n < 0 && errno == EAGAIN)
                return false;
            return true;
        }
    }
    std::string got;

  private:
    static const std::shared_ptr<Platform::DebugHandler>& handle() {
        static const auto h = Platform::getDebugHandler("ReportServerTest");
        return h;
    }
    int fd_;
    bool connected_;
    int connectErrno_;
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
        EXPECT_TRUE(client.connected()) << std::strerror(client.connectErrno());
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

TEST_F(ReportServerTest, EveryCommandAnswersInItsFormat) {
    const std::vector<std::pair<std::string, std::function<void(const std::string&)>>> cases = {
        {"json\n",
         [](const std::string& got) { EXPECT_EQ(KelvoTest::reportSchemaErrors(got), ""); }},
        {"text\n", [](const std::string& got) { EXPECT_THAT(got, HasSubstr("ReportTick")); }},
        {"history\n", [](const std::string& got) { EXPECT_THAT(got, HasSubstr("run start")); }},
        {"metrics\n",
         [](const std::string& got) {
             EXPECT_THAT(got, HasSubstr("kelvo_task_runs_total{"));
             EXPECT_THAT(got, EndsWith("# EOF\n"));
         }},
        {"timeline\n",
         [](const std::string& got) {
             rapidjson::Document document;
             document.Parse(got.c_str());
             ASSERT_FALSE(document.HasParseError()) << got;
             EXPECT_TRUE(document["traceEvents"].IsArray());
         }},
    };
    for (const auto& [request, check] : cases) {
        SCOPED_TRACE(request);
        const std::string got = ask(request);
        EXPECT_THAT(got, Not(StartsWith("error: ")));
        check(got);
    }
    EXPECT_TRUE(allClosed());
}

TEST_F(ReportServerTest, FlagsAddNeverRunAndCompletedTasks) {
    for (const std::string command : {"json", "text", "metrics"}) {
        for (const auto& [flags, neverRan, done] :
             {std::tuple{"", false, false}, std::tuple{" noruns", true, false},
              std::tuple{" completed", false, true}, std::tuple{" completed noruns", true, true}}) {
            SCOPED_TRACE(command + flags);
            const std::string got = ask(command + flags + "\n");
            EXPECT_EQ(got.find("ReportNeverRan") != std::string::npos, neverRan);
            EXPECT_EQ(got.find("ReportDone") != std::string::npos, done);
        }
    }
    // A flag the command does not use is accepted.
    EXPECT_THAT(ask("history noruns completed\n"), HasSubstr("run start"));
}

// The line may be 256 bytes with its newline: here 4 + 33 * 7 + 2 * 10 + 1.
TEST_F(ReportServerTest, BadRequestsGetOneErrorLine) {
    std::string longest = "json";
    for (int i = 0; i < 33; ++i)
        longest += " noruns";
    longest += " completed completed\n";
    ASSERT_EQ(longest.size(), 256u);
    const std::string tooLong = longest.substr(0, 255) + "s\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"bogus\n", "error: unknown request\n"},
        {"\n", "error: unknown request\n"},
        {"json  noruns\n", "error: unknown request\n"},
        {"json noruns \n", "error: unknown request\n"},
        {" json\n", "error: unknown request\n"},
        {"json nonsense\n", "error: unknown request\n"},
        {"JSON\n", "error: unknown request\n"},
        {"json\r\n", "error: unknown request\n"},
        {tooLong, "error: request too long\n"},
        {std::string(1000, 'x'), "error: request too long\n"},
    };
    for (const auto& [request, answer] : cases) {
        SCOPED_TRACE(request.substr(0, 40));
        EXPECT_EQ(ask(request), answer);
    }
    EXPECT_EQ(KelvoTest::reportSchemaErrors(ask(longest)), "");
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

// A few thousand tasks make answers far larger than a socket's buffers.
class ReportServerBigTest : public ReportServerTest {
  protected:
    void SetUp() override {
        ReportServerTest::SetUp();
        for (int i = 0; i < 3000; ++i)
            many.push_back(std::make_shared<Once>(schedulerRootKelvo(), P::low,
                                                  "ReportPadding-" + std::to_string(i)));
    }
    std::vector<std::shared_ptr<Once>> many;
};

TEST_F(ReportServerBigTest, ClientGoneMidAnswerEndsOnlyThatAnswer) {
    for (const std::string request : {"json noruns\n", "text noruns\n"}) {
        SCOPED_TRACE(request);
        {
            Client client(served, 4096);
            client.send(request);
            ASSERT_TRUE(loopUntil([&] {
                client.drained();
                return !client.got.empty();
            }));
        }
        EXPECT_TRUE(allClosed());
        EXPECT_THAT(ask("history\n"), HasSubstr("run start"));
    }
}

TEST_F(ReportServerBigTest, ReaderThatNeverReadsIsCutAfterThirtySeconds) {
    FastForwarding virtualTime;
    for (const std::string request : {"json noruns\n", "metrics noruns\n"}) {
        SCOPED_TRACE(request);
        Client client(served, 4096);
        client.send(request);
        loopUntil([] { return false; }, 0.2);
        ASSERT_EQ(reportServerConnectionCountForTest(), 1u);
        // The first check may still see the buffers filling; the second sees
        // no progress.
        for (int i = 0; i < 2 && reportServerConnectionCountForTest() == 1; ++i) {
            Platform::fastForwardBy(30.5);
            loopUntil([] { return reportServerConnectionCountForTest() == 0; }, 0.5);
        }
        EXPECT_EQ(reportServerConnectionCountForTest(), 0u);
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

// Forks a child that runs body while this thread serves; the child's exit
// code is the result.
int whileServing(const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(30);
        ::_exit(body());
    }
    int status = -1;
    loopUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 30);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST_F(ReportServerTest, PeerOfAnotherUserLearnsOnlyTheRefusal) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "switching to uid 65534 needs root";
    const int code = whileServing([] {
        Client client(served, 0, [] {
            if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
                std::_Exit(3);
        });
        client.send("json\n");
        pollfd readable{client.fd(), POLLIN, 0};
        while (!client.drained())
            ::poll(&readable, 1, 1000);
        if (client.got == "error: refused\n")
            return 0;
        std::fprintf(stderr, "refused peer got: %s\n", client.got.c_str());
        return 1;
    });
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(allClosed());
}

TEST_F(ReportServerTest, NamesAreCheckedAndATakenSocketLeavesTheServerAsItWas) {
    for (const std::string& bad : {std::string(65, 'a'), std::string("a b"), std::string("a/b"),
                                   std::string("caf\xc3\xa9")}) {
        EXPECT_THAT(KelvoTest::thrownMessage<RuntimeException>([&] { reportServerIs(bad); }),
                    HasSubstr("must be 1 to 64 characters"))
            << bad;
    }
    reportServerIs(std::string(64, 'a'));
    EXPECT_EQ(reportServer(), std::string(64, 'a'));
    reportServerIs(served);

    // Another process squats on the name this process would serve next.
    int bound[2], release[2];
    ASSERT_EQ(::pipe(bound), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t squatter = ::fork();
    if (squatter == 0) {
        // Only plain system calls: a lock held by another thread at the fork
        // would stay held in the child.
        ::alarm(30);
        ::close(release[1]);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const int length = std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1,
                                         "kelvo-report.taken.%d", ::getppid()) +
                           1 + static_cast<int>(offsetof(sockaddr_un, sun_path));
        const char ok = ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 ? 'y' : 'n';
        (void)::write(bound[1], &ok, 1);
        char sink;
        (void)::read(release[0], &sink, 1);
        ::_exit(0);
    }
    ::close(bound[1]);
    ::close(release[0]);
    char ok = 0;
    ASSERT_EQ(::read(bound[0], &ok, 1), 1);
    ASSERT_EQ(ok, 'y');
    EXPECT_THAT(KelvoTest::thrownMessage<RuntimeException>([] { reportServerIs("taken"); }),
                AllOf(HasSubstr("kelvo-report.taken."), HasSubstr("Address already in use")));
    ::close(release[1]);
    ::close(bound[0]);
    ::waitpid(squatter, nullptr, 0);
    EXPECT_EQ(reportServer(), served);
    EXPECT_THAT(ask("history\n"), HasSubstr("run start"));
}

TEST_F(ReportServerTest, StopMoveAndRestart) {
    reportServerIs("moved");
    EXPECT_EQ(reportServer(), "moved");
    EXPECT_EQ(Client(served).connectErrno(), ECONNREFUSED);
    EXPECT_THAT(ask("history\n", "moved"), HasSubstr("run start"));

    // A forked child that outlives the server must not keep its name alive.
    // The child's fork handlers have run once it is running its own code.
    int started[2], release[2];
    ASSERT_EQ(::pipe(started), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);
        ::close(release[1]);
        (void)::write(started[1], "s", 1);
        char sink;
        (void)::read(release[0], &sink, 1);
        ::_exit(0);
    }
    ::close(release[0]);
    ::close(started[1]);
    char sink;
    ASSERT_EQ(::read(started[0], &sink, 1), 1);
    ::close(started[0]);
    reportServerIs("");
    EXPECT_EQ(reportServer(), "");
    EXPECT_EQ(Client("moved").connectErrno(), ECONNREFUSED);
    ::close(release[1]);
    ::waitpid(child, nullptr, 0);

    reportServerIs(served);
    EXPECT_THAT(ask("history\n"), HasSubstr("run start"));
}

// Random bytes, over-long lines, half-open connections and clients that never
// read, in waves below the connection cap, while a 1 ms task keeps ticking.
TEST_F(ReportServerTest, TenThousandHostileRequestsLeaveNothingBehind) {
    // What the first answer opens once (trace handles, caches) is not a leak.
    ask("history\n");
    const std::set<int> fdsBefore = KelvoTest::openFds();
    std::mt19937 random(13);
    constexpr int total = 10000, wave = 40;
    unsigned ticksAtLastThousand = tick->runs;
    for (int sent = 0; sent < total; sent += wave) {
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < wave; ++i) {
            auto client = std::make_unique<Client>();
            switch ((sent + i) % 5) {
                case 0: {
                    std::string bytes(1 + random() % 400, '\0');
                    for (char& c : bytes)
                        c = static_cast<char>(random());
                    client->send(bytes);
                    break;
                }
                case 1:
                    client->send(std::string(300, 'j') + "\n");
                    break;
                case 2:
                    break;  // connects and closes at once
                case 3:
                    client->send("jso");
                    client->shutdownWrite();
                    break;
                case 4:
                    client->send("text\n");  // and never reads
                    break;
            }
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
    EXPECT_EQ(KelvoTest::openFds(), fdsBefore);
    EXPECT_THAT(ask("history\n"), HasSubstr("run start"));
}

}  // namespace
