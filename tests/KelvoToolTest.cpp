// The kelvo tool, run as a program against test daemons (and a scripted fake
// server for answers no real daemon gives): what the operator sees on
// standard output and error, and the exit status.
#include <rapidjson/document.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "TestSupport.h"

namespace {

using namespace KelvoTest;

#if defined(KELVO_TOOL) && defined(KELVO_TEST_REPORTD)
constexpr const char* toolPath = KELVO_TOOL;
constexpr const char* daemonPath = KELVO_TEST_REPORTD;
#else
constexpr const char* toolPath = nullptr;
constexpr const char* daemonPath = nullptr;
#endif

// A name no other run of this suite uses at the same time.
std::string uniqueName(const std::string& stem) {
    return stem + "-" + std::to_string(::getpid());
}

// A running kelvo-test-reportd, stopped (SIGTERM, then SIGKILL after 5
// seconds) when the guard goes, whatever the test's outcome.
class Daemon {
  public:
    explicit Daemon(const std::string& name) {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::execl(daemonPath, daemonPath, name.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(out[1]);
        std::string said;
        char buffer[64];
        pollfd ready{out[0], POLLIN, 0};
        while (said.find('\n') == std::string::npos && ::poll(&ready, 1, 10000) == 1) {
            const ssize_t n = ::read(out[0], buffer, sizeof buffer);
            if (n <= 0)
                break;
            said.append(buffer, size_t(n));
        }
        out_ = out[0];
        if (said != "ready\n") {
            stop();
            throw std::runtime_error("daemon " + name + " did not start: '" + said + "'");
        }
    }
    ~Daemon() { stop(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    pid_t pid() const { return pid_; }

    void stop() {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGTERM);
        int status = 0;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status, 0);
                break;
            }
            ::poll(nullptr, 0, 10);
        }
        pid_ = -1;
        ::close(out_);
        out_ = -1;
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1;  // the daemon's stdout, open while it runs
};

// Runs kelvo with args; beforeExec runs in the child first (to drop
// privileges, say).
ChildResult kelvo(std::vector<std::string> args, const std::function<void()>& beforeExec = {}) {
    args.insert(args.begin(), toolPath);
    return runInChild(
        [&] {
            if (beforeExec)
                beforeExec();
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

bool hasProgram(const char* name) {
    return std::system(("command -v " + std::string(name) + " >/dev/null 2>&1").c_str()) == 0;
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

    const ChildResult json = kelvo({"list", "--json"});
    ASSERT_EQ(exitCode(json), 0) << json.text();
    rapidjson::Document document;
    document.Parse(json.out.c_str());
    ASSERT_TRUE(!document.HasParseError() && document.IsArray()) << json.out;
    const rapidjson::Value* entry = nullptr;
    for (const auto& each : document.GetArray())
        if (each["pid"].GetInt() == daemon->pid())
            entry = &each;
    ASSERT_NE(entry, nullptr) << json.out;
    EXPECT_EQ(std::string((*entry)["name"].GetString()), name);
    EXPECT_EQ(std::string((*entry)["socket"].GetString()), "kelvo-report." + name + "." + pid);
    EXPECT_EQ(std::string((*entry)["commandLine"][1].GetString()), name);
    EXPECT_THAT((*entry)["started"].GetString(), MatchesRegex("[0-9-]+T[0-9:]+Z"));
    EXPECT_GE((*entry)["uptimeSeconds"].GetDouble(), 0);

    daemon.reset();
    const ChildResult after = kelvo({"list"});
    EXPECT_EQ(exitCode(after), 0);
    EXPECT_THAT(after.out, Not(HasSubstr(" " + name + " ")));
}

// Every kind of answer, asked for by name and by pid.
TEST_F(KelvoTool, ReportsEveryKindByNameAndByPid) {
    const std::string name = uniqueName("report");
    Daemon daemon(name);
    const std::string pid = std::to_string(daemon.pid());
    struct Case {
        std::vector<std::string> args;
        std::function<void(const std::string&)> check;
    };
    const std::vector<Case> cases = {
        {{"report", "TARGET"},
         [](const std::string& out) {
             rapidjson::Document document;
             document.Parse(out.c_str());
             ASSERT_FALSE(document.HasParseError()) << out;
             EXPECT_TRUE(document["schedulers"].IsObject());
             EXPECT_THAT(out, HasSubstr("\"name\":\"tick\""));
         }},
        {{"report", "TARGET", "--text", "--noruns"},
         [](const std::string& out) {
             EXPECT_THAT(out, StartsWith("Priority"));
             EXPECT_THAT(out, HasSubstr("housekeeping"));
         }},
        // The request's own events can fill the ring, so look for those.
        {{"report", "--history", "TARGET"},
         [](const std::string& out) {
             EXPECT_THAT(out, StartsWith("Last 100 scheduler events"));
             EXPECT_THAT(out, HasSubstr("run start    ReportServer:request"));
         }},
        {{"metrics", "TARGET", "--completed"},
         [](const std::string& out) {
             EXPECT_THAT(out, ContainsRegex("kelvo_task_runs_total\\{[^}]*task=\"tick\""));
             EXPECT_THAT(out, HasSubstr("task=\"flush \\\"spool\\\"\""));
             EXPECT_THAT(out, EndsWith("# EOF\n"));
         }},
    };
    for (const Case& c : cases) {
        for (const std::string& target : {name, pid}) {
            std::vector<std::string> args = c.args;
            std::replace(args.begin(), args.end(), std::string("TARGET"), target);
            SCOPED_TRACE(::testing::PrintToString(args));
            const ChildResult result = kelvo(args);
            ASSERT_EQ(exitCode(result), 0) << result.text();
            EXPECT_EQ(result.err, "");
            c.check(result.out);
        }
    }
}

TEST_F(KelvoTool, TimelineWritesTraceEventsOrAPage) {
    const std::string name = uniqueName("timeline");
    Daemon daemon(name);
    const std::string dir = ::testing::TempDir();
    const std::string json = dir + "/" + name + ".json", html = dir + "/" + name + ".html";

    const ChildResult events = kelvo({"timeline", name, "-o", json});
    ASSERT_EQ(exitCode(events), 0) << events.text();
    rapidjson::Document document;
    document.Parse(readFile(json).c_str());
    ASSERT_FALSE(document.HasParseError());
    bool tickRan = false;
    for (const auto& event : document["traceEvents"].GetArray())
        tickRan |= event["ph"] == "X" && event["name"] == "tick";
    EXPECT_TRUE(tickRan);

    const ChildResult page = kelvo({"timeline", "--html", name, "-o", html});
    ASSERT_EQ(exitCode(page), 0) << page.text();
    const std::string text = readFile(html);
    EXPECT_THAT(text, StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(text, HasSubstr("<title>kelvo timeline: " + name));
    EXPECT_THAT(text, HasSubstr("<svg"));
    EXPECT_THAT(text, Not(HasSubstr("<script")));
    std::filesystem::remove(json);
    std::filesystem::remove(html);
}

// Off a terminal, top prints plain frames: the first counted from the
// tasks' start, the next over the interval.
TEST_F(KelvoTool, TopOffATerminalPrintsPlainFrames) {
    const std::string name = uniqueName("frames");
    Daemon daemon(name);
    const ChildResult result = kelvo({"top", name, "-n", "2", "-d", "0.2"});
    ASSERT_EQ(exitCode(result), 0) << result.text();
    EXPECT_THAT(result.out, Not(HasSubstr("\x1b")));
    const size_t second = result.out.find("kelvo top - " + name, 1);
    ASSERT_NE(second, std::string::npos) << result.out;
    EXPECT_THAT(result.out.substr(0, second), HasSubstr("since start"));
    EXPECT_THAT(result.out.substr(second), ContainsRegex("interval 0\\.[0-9]+ s"));
    EXPECT_THAT(result.out.substr(second), ContainsRegex("\ntick +main +high "));
}

// Every way a request fails is one line on stderr, nothing on stdout, and a
// non-zero exit: 1 for a failed request, 2 for a bad command line.
TEST_F(KelvoTool, FailuresAreOneLineAndAnExitStatus) {
    const std::string twin = uniqueName("twin");
    Daemon first(twin), second(twin);
    const std::string firstPid = std::to_string(first.pid()),
                      secondPid = std::to_string(second.pid());
    const pid_t low = std::min(first.pid(), second.pid()),
                high = std::max(first.pid(), second.pid());
    struct Case {
        std::vector<std::string> args;
        int exit;
        std::string err;
    };
    const std::vector<Case> cases = {
        {{"report", "no-such-daemon"}, 1, "kelvo: no-such-daemon: no such daemon\n"},
        {{"metrics", "1"}, 1, "kelvo: 1: no such daemon\n"},
        {{"top", twin},
         1,
         "kelvo: " + twin + ": several daemons match: " + twin + " (pid " + std::to_string(low) +
             "), " + twin + " (pid " + std::to_string(high) + ")\n"},
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
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.args));
        const ChildResult result = kelvo(c.args);
        EXPECT_EQ(exitCode(result), c.exit);
        EXPECT_EQ(result.err, c.err);
        EXPECT_EQ(result.out, "");
    }
}

TEST_F(KelvoTool, EveryCommandHasHelp) {
    for (const std::string command : {"list", "report", "top", "timeline", "metrics"}) {
        const ChildResult result = kelvo({command, "--help"});
        EXPECT_EQ(exitCode(result), 0) << command;
        EXPECT_THAT(result.out, StartsWith("usage: kelvo " + command)) << command;
    }
    const ChildResult top = kelvo({"--help"});
    EXPECT_EQ(exitCode(top), 0);
    for (const std::string command : {"list", "report", "top", "timeline", "metrics"})
        EXPECT_THAT(top.out, HasSubstr("\n  " + command + " ")) << command;
}

TEST_F(KelvoTool, AnotherUsersRequestIsRefused) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to run the tool as another user";
    const std::string name = uniqueName("guarded");
    Daemon daemon(name);
    const ChildResult result = kelvo({"report", name}, [] {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(childSkipped);
    });
    EXPECT_EQ(exitCode(result), 1);
    EXPECT_EQ(result.err, "kelvo: " + name + ": refused\n");
    EXPECT_EQ(result.out, "");
}

// A scripted server, for answers a real daemon gives rarely or never: it
// takes one connection, reads the request and sends the given pieces apart.
class FakeServer {
  public:
    FakeServer(const std::string& name, std::vector<std::string> pieces, bool answer = true)
        : name_(name) {
        const auto handle = Kelvo::Platform::getDebugHandler("KelvoToolTest");
        auto& h = *handle;
        listener_ = Kelvo::Util::socket(h, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        const int length = Kelvo::Util::createSockaddr(
            h, &address, Kelvo::reportServerSocketName(name, ::getpid()));
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, 4) != 0)
            throw std::runtime_error("fake server: " + std::string(std::strerror(errno)));
        if (!answer)
            return;  // connections wait in the backlog, never accepted
        thread_ = std::thread([this, pieces = std::move(pieces)] {
            const int client = ::accept(listener_, nullptr, nullptr);
            char request[300];
            pollfd readable{client, POLLIN, 0};
            if (::poll(&readable, 1, 10000) == 1)
                request_.assign(request,
                                std::max<ssize_t>(0, ::read(client, request, sizeof request)));
            for (const std::string& piece : pieces) {
                ::send(client, piece.data(), piece.size(), MSG_NOSIGNAL);
                ::poll(nullptr, 0, 20);
            }
            ::close(client);
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
    std::string name_;
    int listener_ = -1;
    std::thread thread_;
    std::string request_;
};

// The tool holds an answer back until its first line is known not to be an
// error, however the line is cut into pieces.
TEST_F(KelvoTool, ErrorLinesAreToldFromReportsAcrossPieces) {
    struct Case {
        std::vector<std::string> pieces;
        int exit;
        std::string out, err;
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
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.pieces));
        FakeServer server(name, c.pieces);
        const ChildResult result = kelvo({"report", name, "--text", "--completed"});
        EXPECT_EQ(server.request(), "text completed\n");
        EXPECT_EQ(exitCode(result), c.exit);
        EXPECT_EQ(result.out, c.out);
        EXPECT_EQ(result.err, c.err);
    }
}

// A server that never answers costs the tool its no-progress limit (10
// seconds), not forever.
TEST_F(KelvoTool, ASilentServerTimesOut) {
    const std::string name = uniqueName("silent");
    FakeServer server(name, {}, false);
    const auto start = std::chrono::steady_clock::now();
    const ChildResult result = kelvo({"metrics", name});
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(exitCode(result), 1);
    EXPECT_EQ(result.err, "kelvo: " + name + ": timed out\n");
    EXPECT_GE(took, 9.5);
}

// tmux's pane as text, or "" when tmux fails.
std::string tmux(const std::string& socket, const std::string& args) {
    const std::string command = "tmux -L " + socket + " -f /dev/null " + args;
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
            out.append(buffer, n);
        ::pclose(pipe);
    }
    return out;
}

// top on a real terminal: a full-screen frame with the daemon's tasks, and
// after q or Ctrl-C the shell's screen back as it was, echoing again.
TEST_F(KelvoTool, TopOnATerminalQuitsAndRestoresTheScreen) {
    if (!hasProgram("tmux"))
        GTEST_SKIP() << "tmux is not installed";
    const std::string name = uniqueName("screen");
    Daemon daemon(name);
    for (const std::string quit : {"q", "C-c"}) {
        SCOPED_TRACE(quit);
        // A server of its own per case: the last one may still be exiting.
        const std::string socket = uniqueName(quit == "q" ? "kelvo-top-q" : "kelvo-top-c");
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
        const std::string status = quit == "q" ? "top-exit=0\n" : "top-exit=130\n";
        ASSERT_TRUE(waitFor(status)) << pane();
        const std::string after = pane();
        EXPECT_THAT(after, HasSubstr("echo top-exit=$?\n"));
        EXPECT_THAT(after, Not(HasSubstr("housekeeping")));
    }
}

}  // namespace
