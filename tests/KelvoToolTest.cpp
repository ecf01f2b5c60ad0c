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

// Makes names no other run of this suite uses at the same time.
const std::string unique = "-" + std::to_string(::getpid());

// A running kelvo-test-reportd, killed when the guard goes.
struct Daemon {
    pid_t pid = -1;
    explicit Daemon(const std::string& name) {
        int out[2];
        EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
        if ((pid = ::fork()) == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::execl(daemonPath, daemonPath, name.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(out[1]);
        // "ready\n" arrives in one write once it serves, or the daemon ends
        // without it.
        char said[8] = {};
        pollfd ready{out[0], POLLIN, 0};
        EXPECT_TRUE(::poll(&ready, 1, 10000) == 1 && ::read(out[0], said, 7) > 0);
        EXPECT_STREQ(said, "ready\n") << name;
        ::close(out[0]);
    }
    ~Daemon() {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    Daemon(const Daemon&) = delete;
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

// Every command line, each row asked by name and by pid where it names
// TARGET: exit status, the patterns standard output must contain (none: it
// must be empty) and standard error exactly. Off a terminal there are no
// escape sequences and top's frames are plain, the first counted from the
// tasks' start and the next over the interval.
TEST(KelvoTool, EveryCommandLineGetsItsAnswerOrOneErrorLine) {
    const std::string name = "report" + unique, twin = "twin" + unique;
    auto solo = std::make_unique<Daemon>(name);
    Daemon first(twin), second(twin);
    const std::string pid = std::to_string(solo->pid);
    const auto [low, high] = std::minmax({first.pid, second.pid});
    const std::string twins = fmt::format(
        "kelvo: {0}: several daemons match: {0} (pid {1}), {0} (pid {2})\n", twin, low, high);
    const std::string top = "kelvo top - " + name + " \\(pid " + pid + "\\)  [0-9:]+  ";
    struct Case {
        std::vector<std::string> args;
        int exit;
        std::vector<std::string> out;
        std::string err{};
    };
    std::vector<Case> cases = {
        {{"list"},
         0,
         {"^PID ", "\n" + pid + " +" + name + " +[0-9-]+ [0-9:]+ +0:00:[0-9]+ " + daemonPath + " " +
                       name + "\n"}},
        // One object per daemon, keys in this order.
        {{"list", "--json"},
         0,
         {"^\\[\\{\"pid\":", "\\{\"pid\":" + pid + ",\"name\":\"" + name +
                                 "\",\"socket\":\"kelvo-report\\." + name + "\\." + pid +
                                 "\",\"title\":\"[^\"]*\",\"commandLine\":\\[\"[^\"]+\",\"" + name +
                                 "\"\\],\"started\":\"[0-9-]+T[0-9:]+Z\","
                                 "\"uptimeSeconds\":[0-9.e+-]+\\}"}},
        {{"report", "TARGET"}, 0, {"^\\{\"schedulers\":\\{", "\"name\":\"tick\"", "\\}\n?$"}},
        {{"report", "TARGET", "--text", "--noruns"}, 0, {"^Priority ", "\nhousekeeping "}},
        // The requests' own events fill the ring, pushing the tick out: look
        // for those in the history and the timeline.
        {{"report", "--history", "TARGET"},
         0,
         {"^Last 100 scheduler events", "run start    ReportServer:request"}},
        {{"metrics", "TARGET", "--completed"},
         0,
         {"kelvo_task_runs_total\\{[^}]*task=\"tick\"", "task=\"flush \\\\\"spool\\\\\"\"",
          "# EOF\n$"}},
        {{"timeline", "TARGET", "-o", "-"}, 0, {"\"name\":\"ReportServer:[a-z:]+\",\"ph\":\"X\""}},
        {{"timeline", "--html", "TARGET", "-o", "-"},
         0,
         {"^<!DOCTYPE html>", "<title>kelvo timeline: " + name + " \\(pid " + pid + "\\)"}},
        {{"top", "TARGET", "-n", "2", "-d", "0.2"},
         0,
         {"^" + top + "since start", "\n" + top + "interval 0\\.[0-9]+ s.*\ntick +main +high "}},
        {{"--help"}, 0, {"\n  list ", "\n  report ", "\n  top ", "\n  timeline ", "\n  metrics "}},
        // 1 for a failed request, 2 for a bad command line.
        {{"report", "no-such-daemon"}, 1, {}, "kelvo: no-such-daemon: no such daemon\n"},
        {{"metrics", "1"}, 1, {}, "kelvo: 1: no such daemon\n"},
        {{"top", twin}, 1, {}, twins},
        {{"report"}, 2, {}, "kelvo: report: which daemon? (kelvo report <name|pid>)\n"},
        {{"report", pid, "--xml"}, 2, {}, "kelvo: report: unknown option '--xml'\n"},
        {{"report", pid, "1"}, 2, {}, "kelvo: report: one daemon at a time ('1')\n"},
        {{"timeline", pid}, 2, {}, "kelvo: timeline: where to? (-o FILE)\n"},
        {{"timeline", pid, "-o"}, 2, {}, "kelvo: timeline: -o needs a file name\n"},
        {{"top", pid, "-n", "0"}, 2, {}, "kelvo: top: -n needs a positive number, not '0'\n"},
        {{"list", "extra"}, 2, {}, "kelvo: list: unknown argument 'extra'\n"},
        {{"stats"}, 2, {}, "kelvo: unknown command 'stats' (see kelvo --help)\n"},
    };
    for (const std::string command : {"list", "report", "top", "timeline", "metrics"})
        cases.push_back({{command, "--help"}, 0, {"^usage: kelvo " + command}, ""});
    for (const Case& c : cases) {
        const bool targeted = std::count(c.args.begin(), c.args.end(), "TARGET") > 0;
        for (const std::string& target : targeted ? std::vector{name, pid} : std::vector{name}) {
            std::vector<std::string> args = c.args;
            std::replace(args.begin(), args.end(), std::string("TARGET"), target);
            SCOPED_TRACE(::testing::PrintToString(args));
            const ChildResult result = kelvo(args);
            EXPECT_THAT(result.text(), EndsWith("exit " + std::to_string(c.exit)));
            EXPECT_EQ(result.err, c.err);
            EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
            EXPECT_EQ(result.out.empty(), c.out.empty()) << result.out;
            for (const std::string& pattern : c.out)
                EXPECT_THAT(result.out, ContainsRegex(pattern));
        }
    }
    // No command at all is a bad command line: the usage, on standard error.
    const ChildResult bare = kelvo({});
    EXPECT_THAT(bare.text(), EndsWith("exit 2"));
    EXPECT_THAT(bare.err, StartsWith("usage: kelvo <command>"));
    // -o FILE writes there, not to standard output.
    const std::string file = ::testing::TempDir() + "/" + name + ".json";
    EXPECT_EQ(kelvo({"timeline", name, "-o", file}).text(), "exit 0");
    EXPECT_THAT(readFile(file), StartsWith("{\"traceEvents\":["));
    std::filesystem::remove(file);
    // A stopped daemon is no longer listed; the others still are.
    solo.reset();
    EXPECT_THAT(kelvo({"list"}).out,
                AllOf(HasSubstr(" " + twin + " "), Not(HasSubstr(" " + name + " "))));
}

// Answers one report request as a scripted server, for answers a real daemon
// gives rarely or never: reads the request, sends the pieces apart and hangs
// up, or, when silent, holds the connection until the client lets it go.
// Returns the request and how kelvo, run meanwhile, ended.
std::pair<std::string, ChildResult> askFake(const std::string& name,
                                            const std::vector<std::string>& pieces, bool silent) {
    const auto handle = Kelvo::Platform::getDebugHandler("KelvoToolTest");
    const int listener = Kelvo::Util::socket(*handle, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    const int length = Kelvo::Util::createSockaddr(*handle, &address,
                                                   Kelvo::reportServerSocketName(name, ::getpid()));
    EXPECT_TRUE(::bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                ::listen(listener, 4) == 0);
    ChildResult result;
    std::thread tool([&] { result = kelvo({"report", name, "--text", "--completed"}); });
    std::string request;
    pollfd ready{listener, POLLIN, 0};
    if (::poll(&ready, 1, 30000) == 1) {
        ready.fd = ::accept(listener, nullptr, nullptr);
        char buffer[300];
        if (::poll(&ready, 1, 10000) == 1)
            request.assign(buffer, std::max<ssize_t>(0, ::read(ready.fd, buffer, sizeof buffer)));
        for (const std::string& piece : pieces) {
            ::send(ready.fd, piece.data(), piece.size(), MSG_NOSIGNAL);
            ::poll(nullptr, 0, 20);
        }
        if (silent)
            ::poll(&ready, 1, 30000);
        ::close(ready.fd);
    }
    tool.join();
    ::close(listener);
    return {request, result};
}

// The tool holds an answer back until its first line is known not to be an
// error, however the line is cut into pieces; a server that never answers
// costs it its no-progress limit (10 seconds), not forever.
TEST(KelvoTool, ErrorLinesAreToldFromReportsAcrossPieces) {
    struct Case {
        std::vector<std::string> pieces;
        std::string out, err;  // exit status 1 when err is set
        bool silent = false;
    };
    const std::string name = "fake" + unique;
    const std::vector<Case> cases = {
        {{"error: busy\n"}, "", "kelvo: " + name + ": busy\n"},
        {{"err", "or: re", "fused\n"}, "", "kelvo: " + name + ": refused\n"},
        {{"error: request timed out"}, "", "kelvo: " + name + ": request timed out\n"},
        {{"err", "ata\nmore\n"}, "errata\nmore\n", ""},
        {{"e"}, "e", ""},
        {{"{\"schedulers\"", ":{}}\n"}, "{\"schedulers\":{}}\n", ""},
        {{}, "", "kelvo: " + name + ": closed without an answer\n"},
        {{}, "", "kelvo: " + name + ": timed out\n", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.pieces) + c.err);
        const auto start = std::chrono::steady_clock::now();
        const auto [request, result] = askFake(name, c.pieces, c.silent);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(c.silent ? 9 : 0));
        EXPECT_EQ(request, "text completed\n");
        EXPECT_EQ(result.out, c.out);
        EXPECT_EQ(result.text(), c.out + c.err + (c.err.empty() ? "exit 0" : "exit 1"));
    }
}

// tmux's output, or "" when tmux fails.
std::string tmux(const std::string& socket, const std::string& args) {
    const std::string command = "tmux -L " + socket + " -f /dev/null " + args;
    return runInChild([&] { return std::system(command.c_str()) == 0 ? 0 : 1; }).out;
}

// top on a real terminal: a full-screen frame with the daemon's tasks, and
// after q or Ctrl-C the shell's screen back as it was, echoing again.
TEST(KelvoTool, TopOnATerminalQuitsAndRestoresTheScreen) {
    if (std::system("command -v tmux >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tmux is not installed";
    const std::string name = "screen" + unique;
    Daemon daemon(name);
    for (const std::string quit : {"q", "C-c"}) {
        SCOPED_TRACE(quit);
        // A server of its own per case: the last one may still be exiting.
        const std::string socket = "kelvo-top-" + quit + unique;
        tmux(socket, "new-session -d -x 120 -y 40 sh");
        struct Session {
            std::string socket;
            ~Session() { tmux(socket, "kill-server"); }
        } session{socket};
        const auto pane = [&] { return tmux(socket, "capture-pane -p"); };
        const auto waitFor = [&](const std::string& text) {
            return loopUntil([&] { return pane().find(text) != std::string::npos; }, 15);
        };
        tmux(socket, "send-keys 'echo before-top' Enter");
        ASSERT_TRUE(waitFor("before-top\n")) << pane();
        tmux(socket, "send-keys '" + std::string(toolPath) + " top " + name + "' Enter");
        ASSERT_TRUE(waitFor("interval")) << pane();
        // On the alternate screen: the shell's lines are not there.
        EXPECT_THAT(pane(), AllOf(StartsWith("kelvo top - " + name), HasSubstr("housekeeping"),
                                  Not(HasSubstr("before-top"))));

        tmux(socket, "send-keys " + quit);
        ASSERT_TRUE(waitFor("before-top\n")) << pane();
        // Typed text shows again only if echo is back on.
        tmux(socket, "send-keys 'echo top-exit=$?' Enter");
        ASSERT_TRUE(waitFor(quit == "q" ? "top-exit=0\n" : "top-exit=130\n")) << pane();
        EXPECT_THAT(pane(), AllOf(HasSubstr("echo top-exit=$?\n"), Not(HasSubstr("housekeeping"))));
    }
}

#else
TEST(KelvoTool, NeedsTheToolAndTheTestDaemon) {
    GTEST_SKIP() << "the kelvo tool or the test daemon is not built";
}
#endif

}  // namespace
