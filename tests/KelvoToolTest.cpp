// The kelvo tool, run as a program against test daemons (and a scripted fake
// server for answers no real daemon gives): what the operator sees on
// standard output and error, and the exit status.
#include <sys/socket.h>
#include <sys/un.h>

#include "TestSupport.h"

namespace {

using namespace KelvoTest;

#if defined(KELVO_TOOL) && defined(KELVO_TEST_REPORTD)
constexpr const char *toolPath = KELVO_TOOL, *daemonPath = KELVO_TEST_REPORTD;
#else
constexpr const char *toolPath = nullptr, *daemonPath = nullptr;
#endif

// A name no other run of this suite uses at the same time.
std::string uniqueName(const std::string& stem) {
    return stem + "-" + std::to_string(::getpid());
}

// A running kelvo-test-reportd, serving once constructed and killed when the
// guard goes, whatever the test's outcome.
class Daemon {
  public:
    explicit Daemon(const std::string& name) {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        if ((pid_ = ::fork()) == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::execl(daemonPath, daemonPath, name.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(out[1]);
        // "ready\n" arrives in one write, or the daemon ends without it.
        char said[8] = {};
        pollfd ready{out[0], POLLIN, 0};
        const bool started = ::poll(&ready, 1, 10000) == 1 && ::read(out[0], said, 7) == 6 &&
                             std::string(said) == "ready\n";
        ::close(out[0]);
        if (!started) {
            stop();
            throw std::runtime_error("daemon " + name + " did not start: '" + said + "'");
        }
    }
    ~Daemon() { stop(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    pid_t pid() const { return pid_; }

  private:
    void stop() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    pid_t pid_ = -1;
};

ChildResult kelvo(std::vector<std::string> args) {
    args.insert(args.begin(), toolPath);
    return runInChild(
        [&] {
            std::vector<char*> argv;
            for (auto& arg : args)
                argv.push_back(arg.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            return 127;
        },
        true);
}

int exitCode(const ChildResult& result) {
    return WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
}

class KelvoTool : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!toolPath)
            GTEST_SKIP() << "the kelvo tool or the test daemon is not built";
    }
};

TEST_F(KelvoTool, ListShowsServingDaemonsAndForgetsStoppedOnes) {
    const std::string name = uniqueName("list");
    auto daemon = std::make_unique<Daemon>(name);
    const std::string pid = std::to_string(daemon->pid());

    const ChildResult table = kelvo({"list"});
    ASSERT_EQ(exitCode(table), 0) << table.text();
    EXPECT_THAT(table.out, StartsWith("PID "));
    EXPECT_THAT(table.out,
                ContainsRegex("\n" + pid + " +" + name + " +[0-9-]+ [0-9:]+ +0:00:[0-9]+ " +
                              daemonPath + " " + name + "\n"));

    // One object per daemon, keys in this order.
    const ChildResult json = kelvo({"list", "--json"});
    EXPECT_THAT(json.out, StartsWith("[{\"pid\":"));
    EXPECT_THAT(json.out,
                ContainsRegex("\\{\"pid\":" + pid + ",\"name\":\"" + name +
                              "\",\"socket\":\"kelvo-report\\." + name + "\\." + pid +
                              "\",\"title\":\"[^\"]*\",\"commandLine\":\\[\"[^\"]+\",\"" + name +
                              "\"\\],\"started\":\"[0-9-]+T[0-9:]+Z\","
                              "\"uptimeSeconds\":[0-9.e+-]+\\}"));

    daemon.reset();
    const ChildResult after = kelvo({"list"});
    EXPECT_EQ(exitCode(after), 0);
    EXPECT_THAT(after.out, Not(HasSubstr(" " + name + " ")));
}

// Every kind of answer, asked for by name and by pid, off a terminal: no
// escape sequences, top's frames plain, the first counted from the tasks'
// start and the next over the interval.
TEST_F(KelvoTool, ReportsEveryKindByNameAndByPid) {
    const std::string name = uniqueName("report");
    Daemon daemon(name);
    const std::string pid = std::to_string(daemon.pid());
    const std::string top = "kelvo top - " + name + " \\(pid " + pid + "\\)  [0-9:]+  ";
    using Patterns = std::vector<std::string>;
    const std::vector<std::pair<std::vector<std::string>, Patterns>> cases = {
        {{"report", "TARGET"}, {"^\\{\"schedulers\":\\{", "\"name\":\"tick\"", "\\}\n?$"}},
        {{"report", "TARGET", "--text", "--noruns"}, {"^Priority ", "\nhousekeeping "}},
        // The request's own events can fill the ring, so look for those.
        {{"report", "--history", "TARGET"},
         {"^Last 100 scheduler events", "run start    ReportServer:request"}},
        {{"metrics", "TARGET", "--completed"},
         {"kelvo_task_runs_total\\{[^}]*task=\"tick\"", "task=\"flush \\\\\"spool\\\\\"\"",
          "# EOF\n$"}},
        {{"timeline", "TARGET", "-o", "-"},
         {"^\\{\"traceEvents\":\\[", "\"name\":\"tick\",\"ph\":\"X\""}},
        {{"timeline", "--html", "TARGET", "-o", "-"},
         {"^<!DOCTYPE html>", "<title>kelvo timeline: " + name + " \\(pid " + pid + "\\)"}},
        {{"top", "TARGET", "-n", "2", "-d", "0.2"},
         {"^" + top + "since start", "\n" + top + "interval 0\\.[0-9]+ s.*\ntick +main +high "}},
    };
    for (const auto& [command, patterns] : cases) {
        for (const std::string& target : {name, pid}) {
            std::vector<std::string> args = command;
            std::replace(args.begin(), args.end(), std::string("TARGET"), target);
            SCOPED_TRACE(::testing::PrintToString(args));
            const ChildResult result = kelvo(args);
            ASSERT_EQ(exitCode(result), 0) << result.text();
            EXPECT_EQ(result.err, "");
            EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
            for (const std::string& pattern : patterns)
                EXPECT_THAT(result.out, ContainsRegex(pattern));
        }
    }
    // -o FILE writes there, not to standard output.
    const std::string file = ::testing::TempDir() + "/" + name + ".json";
    EXPECT_EQ(kelvo({"timeline", name, "-o", file}).text(), "exit 0");
    EXPECT_THAT(readFile(file), StartsWith("{\"traceEvents\":["));
    std::filesystem::remove(file);
}

// Every way a request fails is one line on stderr, nothing on stdout, and a
// non-zero exit: 1 for a failed request, 2 for a bad command line.
TEST_F(KelvoTool, FailuresAreOneLineAndAnExitStatus) {
    const std::string twin = uniqueName("twin");
    Daemon first(twin), second(twin);
    const std::string firstPid = std::to_string(first.pid()),
                      secondPid = std::to_string(second.pid());
    const auto low = std::min(first.pid(), second.pid()),
               high = std::max(first.pid(), second.pid());
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
        {{"report", "no-such-daemon"}, 1, "kelvo: no-such-daemon: no such daemon\n"},
        {{"metrics", "1"}, 1, "kelvo: 1: no such daemon\n"},
        {{"top", twin},
         1,
         fmt::format("kelvo: {0}: several daemons match: {0} (pid {1}), {0} (pid {2})\n", twin, low,
                     high)},
        {{"report"}, 2, "kelvo: report: which daemon? (kelvo report <name|pid>)\n"},
        {{"report", firstPid, "--xml"}, 2, "kelvo: report: unknown option '--xml'\n"},
        {{"report", firstPid, secondPid},
         2,
         "kelvo: report: one daemon at a time ('" + secondPid + "')\n"},
        {{"timeline", firstPid}, 2, "kelvo: timeline: where to? (-o FILE)\n"},
        {{"timeline", firstPid, "-o"}, 2, "kelvo: timeline: -o needs a file name\n"},
        {{"top", firstPid, "-n", "0"}, 2, "kelvo: top: -n needs a positive number, not '0'\n"},
        {{"list", "extra"}, 2, "kelvo: list: unknown argument 'extra'\n"},
        {{"stats"}, 2, "kelvo: unknown command 'stats' (see kelvo --help)\n"},
    };
    for (const auto& [args, exit, err] : cases) {
        const ChildResult result = kelvo(args);
        EXPECT_EQ(exitCode(result), exit) << err;
        EXPECT_EQ(result.err, err);
        EXPECT_EQ(result.out, "") << err;
    }
}

TEST_F(KelvoTool, EveryCommandHasHelp) {
    const ChildResult all = kelvo({"--help"});
    EXPECT_EQ(exitCode(all), 0);
    for (const std::string command : {"list", "report", "top", "timeline", "metrics"}) {
        const ChildResult result = kelvo({command, "--help"});
        EXPECT_EQ(exitCode(result), 0) << command;
        EXPECT_THAT(result.out, StartsWith("usage: kelvo " + command)) << command;
        EXPECT_THAT(all.out, HasSubstr("\n  " + command + " ")) << command;
    }
}

// A scripted server, for answers a real daemon gives rarely or never: it
// takes one connection, reads the request, sends the pieces apart and hangs
// up; a silent one holds the connection until the client lets it go.
class FakeServer {
  public:
    FakeServer(const std::string& name, std::vector<std::string> pieces, bool silent) {
        auto& h = *Kelvo::Platform::getDebugHandler("KelvoToolTest");
        listener_ = Kelvo::Util::socket(h, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        const int length = Kelvo::Util::createSockaddr(
            h, &address, Kelvo::reportServerSocketName(name, ::getpid()));
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, 4) != 0)
            throw std::runtime_error("fake server: " + std::string(std::strerror(errno)));
        thread_ = std::thread([this, pieces = std::move(pieces), silent] {
            pollfd ready{listener_, POLLIN, 0};
            if (::poll(&ready, 1, 30000) != 1)
                return;
            ready.fd = ::accept(listener_, nullptr, nullptr);
            char request[300];
            if (::poll(&ready, 1, 10000) == 1)
                request_.assign(request,
                                std::max<ssize_t>(0, ::read(ready.fd, request, sizeof request)));
            for (const std::string& piece : pieces) {
                ::send(ready.fd, piece.data(), piece.size(), MSG_NOSIGNAL);
                ::poll(nullptr, 0, 20);
            }
            if (silent)
                ::poll(&ready, 1, 30000);
            ::close(ready.fd);
        });
    }
    ~FakeServer() {
        if (thread_.joinable())
            thread_.join();
        ::close(listener_);
    }
    std::string request() {
        thread_.join();
        return request_;
    }

  private:
    int listener_ = -1;
    std::thread thread_;
    std::string request_;
};

// The tool holds an answer back until its first line is known not to be an
// error, however the line is cut into pieces; a server that never answers
// costs it its no-progress limit (10 seconds), not forever.
TEST_F(KelvoTool, ErrorLinesAreToldFromReportsAcrossPieces) {
    struct Case {
        std::vector<std::string> pieces;
        int exit;
        std::string out, err;
        bool silent = false;
    };
    const std::string name = uniqueName("fake");
    const std::vector<Case> cases = {
        {{"error: busy\n"}, 1, "", "kelvo: " + name + ": busy\n"},
        {{"err", "or: re", "fused\n"}, 1, "", "kelvo: " + name + ": refused\n"},
        {{"error: request timed out"}, 1, "", "kelvo: " + name + ": request timed out\n"},
        {{"err", "ata\nmore\n"}, 0, "errata\nmore\n", ""},
        {{"e"}, 0, "e", ""},
        {{"{\"schedulers\"", ":{}}\n"}, 0, "{\"schedulers\":{}}\n", ""},
        {{}, 1, "", "kelvo: " + name + ": closed without an answer\n"},
        {{}, 1, "", "kelvo: " + name + ": timed out\n", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.pieces) + c.err);
        FakeServer server(name, c.pieces, c.silent);
        const auto start = std::chrono::steady_clock::now();
        const ChildResult result = kelvo({"report", name, "--text", "--completed"});
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(c.silent ? 9 : 0));
        EXPECT_EQ(server.request(), "text completed\n");
        EXPECT_EQ(exitCode(result), c.exit);
        EXPECT_EQ(result.out, c.out);
        EXPECT_EQ(result.err, c.err);
    }
}

// tmux's output, or "" when tmux fails.
std::string tmux(const std::string& socket, const std::string& args) {
    const std::string command = "tmux -L " + socket + " -f /dev/null " + args;
    return runInChild([&] { return std::system(command.c_str()) == 0 ? 0 : 1; }).out;
}

// top on a real terminal: a full-screen frame with the daemon's tasks, and
// after q or Ctrl-C the shell's screen back as it was, echoing again.
TEST_F(KelvoTool, TopOnATerminalQuitsAndRestoresTheScreen) {
    if (std::system("command -v tmux >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tmux is not installed";
    const std::string name = uniqueName("screen");
    Daemon daemon(name);
    for (const std::string quit : {"q", "C-c"}) {
        SCOPED_TRACE(quit);
        // A server of its own per case: the last one may still be exiting.
        const std::string socket = uniqueName("kelvo-top-" + quit);
        tmux(socket, "new-session -d -x 120 -y 40 sh");
        struct Session {
            std::string socket;
            ~Session() { tmux(socket, "kill-server"); }
        } session{socket};
        const auto pane = [&] { return tmux(socket, "capture-pane -p"); };
        const auto waitFor = [&](const std::string& text) {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
            while (pane().find(text) == std::string::npos) {
                if (std::chrono::steady_clock::now() > deadline)
                    return false;
                ::poll(nullptr, 0, 50);
            }
            return true;
        };
        tmux(socket, "send-keys 'echo before-top' Enter");
        ASSERT_TRUE(waitFor("before-top\n")) << pane();
        tmux(socket, "send-keys '" + std::string(toolPath) + " top " + name + "' Enter");
        ASSERT_TRUE(waitFor("interval")) << pane();
        const std::string frame = pane();
        EXPECT_THAT(frame, StartsWith("kelvo top - " + name));
        EXPECT_THAT(frame, HasSubstr("housekeeping"));
        EXPECT_THAT(frame, Not(HasSubstr("before-top")));  // the alternate screen

        tmux(socket, "send-keys " + quit);
        ASSERT_TRUE(waitFor("before-top\n")) << pane();
        // Typed text shows again only if echo is back on.
        tmux(socket, "send-keys 'echo top-exit=$?' Enter");
        ASSERT_TRUE(waitFor(quit == "q" ? "top-exit=0\n" : "top-exit=130\n")) << pane();
        const std::string after = pane();
        EXPECT_THAT(after, HasSubstr("echo top-exit=$?\n"));
        EXPECT_THAT(after, Not(HasSubstr("housekeeping")));
    }
}

}  // namespace
