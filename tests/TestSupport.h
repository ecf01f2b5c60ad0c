// The toolkit every suite starts from. Assertions throw in every test program,
// so that their messages can be checked; a case that needs the aborting form
// switches back inside its child process.
#pragma once

#include <Kelvo/Kelvo.h>
#include <gmock/gmock.h>
#include <rapidjson/error/en.h>
#include <rapidjson/schema.h>
#include <rapidjson/stringbuffer.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

// <Kelvo/Kelvo.h> and GoogleTest bring the containers, <chrono>, <thread>,
// <functional>, <sstream> and <algorithm>; <random> is for the suites' own
// generators.
#include <filesystem>
#include <fstream>
#include <random>

namespace KelvoTest {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

constexpr double inf = std::numeric_limits<double>::infinity();

inline const bool assertionsThrow = (Kelvo::throwOnAssertFailIs(true), true);

// The message of the E that call throws, or a text saying there was none.
template <typename E = Kelvo::AssertException>
std::string thrownMessage(const std::function<void()>& call) {
    try {
        call();
    } catch (const E& e) {
        return e.message();
    }
    return "nothing thrown";
}

// Matches a call that fails an assertion whose message contains text.
inline auto failsWith(const std::string& text) {
    return ::testing::ThrowsMessage<Kelvo::AssertException>(HasSubstr(text));
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The trace lines written to standard error while f runs with the given TRACE.
inline std::string traced(const char* traceText, const std::function<void()>& f) {
    Kelvo::Platform::setupKelvoDebug(traceText);
    CaptureStderr();
    f();
    std::string text = GetCapturedStderr();
    Kelvo::Platform::clearKelvoDebug(traceText);
    return text;
}

// The listing's own descriptor takes the lowest free number, so equal tables
// list equal sets.
inline std::set<int> openFds() {
    std::set<int> fds;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        fds.insert(std::stoi(entry.path().filename()));
    return fds;
}

struct ChildResult {
    int status = -1;  // as from waitpid
    std::string out, err;
    bool aborted() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }
    bool exitedOk() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    // Output, then how the child ended: "exit N" or "signal N".
    std::string text() const {
        return out + err +
               (WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                  : "signal " + std::to_string(WTERMSIG(status)));
    }
};

// Exit code of a child that cannot run its case on this machine.
constexpr int childSkipped = 77;

// Runs body in a forked child whose result is the exit code; an exception
// from body is printed and exits 1. Standard output and error land in out, or
// in out and err apart. A child still running after a minute dies of
// SIGALRM, which also bounds a program it executes.
inline ChildResult runInChild(const std::function<int()>& body, bool apart = false) {
    char scratch[] = "/tmp/kelvo-child-XXXXXX";
    const std::filesystem::path dir = ::mkdtemp(scratch);
    const std::string out = dir / "out", err = apart ? (dir / "err").string() : out;
    std::fflush(nullptr);
    ChildResult result;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(60);
        ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDOUT_FILENO);
        ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
        int code = 1;
        try {
            code = body();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "child: %s\n", e.what());
        }
        std::fflush(nullptr);
        ::_exit(code);
    }
    ::waitpid(pid, &result.status, 0);
    result.out = readFile(out);
    result.err = apart ? readFile(err) : "";
    std::filesystem::remove_all(dir);
    return result;
}

// Runs the probe program with args and exactly env (nothing inherited), for
// behaviour that happens at library load or ends the process.
inline ChildResult runProbe(std::vector<std::string> args, const std::vector<std::string>& env) {
    args.insert(args.begin(), std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                                  "probe/kelvo_probe");
    return runInChild(
        [&] {
            std::vector<char*> argv, envp;
            for (auto& a : args)
                argv.push_back(a.data());
            for (const auto& e : env)
                envp.push_back(const_cast<char*>(e.c_str()));
            argv.push_back(nullptr);
            envp.push_back(nullptr);
            ::execve(argv[0], argv.data(), envp.data());
            std::perror("execve");
            return 127;
        },
        true);
}

// Inside a child: a failed check ends the body with exit code 1.
inline void childCheck(bool ok, int line = __builtin_LINE()) {
    if (!ok)
        throw std::runtime_error("check failed on line " + std::to_string(line));
}

// A fresh "OsTest" handle tracing exactly the given levels.
inline std::shared_ptr<Kelvo::Platform::DebugHandler> handleWithLevels(
    std::initializer_list<unsigned> levels) {
    auto handle = Kelvo::Platform::getDebugHandler("OsTest");
    for (unsigned level = 0; level < 10; ++level)
        handle->enabledIs(level, std::find(levels.begin(), levels.end(), level) != levels.end());
    return handle;
}

// A case with a scratch directory and a handle tracing levels 0, 1, 2 and 5.
// It must leave the descriptor table as it found it.
class OsTest : public ::testing::Test {
  protected:
    OsTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "kelvo-test-XXXXXX";
        dir_ = ::mkdtemp(pattern.data()) ? pattern : "/nonexistent-scratch";
    }
    ~OsTest() override {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    void SetUp() override {
        // The unwinder behind every exception may open descriptors on first
        // use and keep them: use it before the first snapshot.
        [[maybe_unused]] static const bool unwinderReady = Kelvo::Backtrace(true).count() > 0;
        fdsBefore_ = openFds();
    }
    void TearDown() override { EXPECT_EQ(openFds(), fdsBefore_) << "descriptors leaked"; }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    std::string dir_;
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ = handleWithLevels({0, 1, 2, 5});
    Kelvo::Platform::DebugHandler& h_ = *handle_;

  private:
    std::set<int> fdsBefore_;
};

// Tests that run with virtual time on (they run on the main thread).
class FastForward : public ::testing::Test {
  protected:
    void SetUp() override { Kelvo::Platform::setFastForward(true); }
    void TearDown() override { Kelvo::Platform::setFastForward(false); }
};

// Handler of all three kinds, counting its notifications and the timeouts
// that came before the time start() asked for; when told to, it throws from
// each and claims (or not) the exception in its hook. Its timer runs on the
// given wheel, else directly on the loop.
struct Probe : Kelvo::Platform::TimeoutHandler,
               Kelvo::Platform::CallbackHandler,
               Kelvo::Platform::FdEventHandler {
    std::shared_ptr<Kelvo::Platform::TimerControl> timer;
    std::shared_ptr<Kelvo::Platform::CallbackControl> call =
        Kelvo::Platform::getCallbackControl(this);
    std::shared_ptr<Kelvo::Platform::FdControl> fd = Kelvo::Platform::getFdControl(this);
    std::function<void()> onTimeout;
    double due = -inf;
    int fired = 0, early = 0, calls = 0, reads = 0, writes = 0;
    bool throws = false, claims = false;
    explicit Probe(std::shared_ptr<Kelvo::TimerWheel> wheel = nullptr)
        : timer(wheel ? Kelvo::Platform::getTimerControl(this, wheel)
                      : Kelvo::Platform::getTimerControl(this)) {}
    ~Probe() override { timer->delTimeout(); }  // a running wheel timer may not be destroyed
    void start(double seconds) {
        due = Kelvo::time() + seconds;
        timer->setTimeout(seconds);
    }
    void check() {
        if (throws)
            throw std::runtime_error("handler failed");
    }
    void timeout() override {
        ++fired, early += Kelvo::time() < due;
        if (onTimeout)
            onTimeout();
        check();
    }
    void callback() override { ++calls, check(); }
    void readFdEvent(int) override { ++reads, check(); }
    void writeFdEvent(int) override { ++writes; }
    bool handleTimeoutException() override { return claims; }
    bool handleCallbackException() override { return claims; }
    bool handleFdException(int) override { return claims; }
};

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(::pipe(fds), 0); }
    ~Pipe() { ::close(fds[0]), ::close(fds[1]); }
};

// A child process that takes something (a lock, a socket, a mapping), reports
// on it to the parent in one line, and holds it until the parent lets it go:
// the subject that the /proc readers are tested against.
class HeldChild {
  public:
    // Forks a child that runs setup and sends the parent its result. The
    // child and any process it forks see the end of the hold pipe when
    // release() closes it (or die after 60 s), and then exit.
    explicit HeldChild(const std::function<std::string()>& setup) {
        int ready[2], hold[2];
        if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(hold, O_CLOEXEC) != 0) {
            report_ = "error: pipe2";
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::alarm(60);
            ::close(ready[0]);
            ::close(hold[1]);
            // Another child's hold pipe kept open here would outlive its release.
            for (int fd : holdFds())
                ::close(fd);
            std::string line;
            try {
                line = setup();
            } catch (const std::exception& e) {
                line = std::string("error: ") + e.what();
            }
            line += '\n';
            (void)!::write(ready[1], line.data(), line.size());
            for (char byte; ::read(hold[0], &byte, 1) != 0;)
                continue;
            ::_exit(0);
        }
        ::close(ready[1]);
        ::close(hold[0]);
        holdFds().insert(holdFd_ = hold[1]);
        // The child's line, or what arrived of it within 30 s.
        struct pollfd wait = {ready[0], POLLIN, 0};
        for (char byte;
             ::poll(&wait, 1, 30000) == 1 && ::read(ready[0], &byte, 1) == 1 && byte != '\n';)
            report_ += byte;
        ::close(ready[0]);
    }
    ~HeldChild() { release(); }
    HeldChild(const HeldChild&) = delete;
    HeldChild& operator=(const HeldChild&) = delete;

    pid_t pid() const { return pid_; }
    const std::string& report() const { return report_; }
    // Lets the child go and reaps it.
    void release() {
        if (holdFd_ >= 0) {
            holdFds().erase(holdFd_);
            ::close(std::exchange(holdFd_, -1));
        }
        if (pid_ > 0)
            ::waitpid(std::exchange(pid_, -1), nullptr, 0);
    }

  private:
    // The write ends of the hold pipes of the children alive, which each new
    // child closes.
    static std::set<int>& holdFds() {
        static std::set<int> fds;
        return fds;
    }

    pid_t pid_ = -1;
    int holdFd_ = -1;
    std::string report_;
};

// Runs the calling thread's loop in 10 ms slices until done() holds or the
// limit (seconds of loop time) is spent; returns done().
inline bool loopUntil(const std::function<bool()>& done, double limit = 10.0) {
    // done() is asked once per pass and never again after it held, so it may
    // consume what it sees (reap a child, say).
    for (double spent = 0; spent < limit; spent += 0.01) {
        if (done())
            return true;
        Kelvo::Platform::doEventLoop(0.01);
    }
    return done();
}

// Empty when json is a report that docs/report.schema.json accepts, else why
// not.
inline std::string reportSchemaErrors(const std::string& json) {
    static const rapidjson::SchemaDocument schema = [] {
        rapidjson::Document document;
        document.Parse(
            readFile(std::filesystem::path(__FILE__).parent_path() / "../docs/report.schema.json")
                .c_str());
        EXPECT_FALSE(document.HasParseError());
        return rapidjson::SchemaDocument(document);
    }();
    rapidjson::Document document;
    document.Parse(json.c_str());
    if (document.HasParseError())
        return rapidjson::GetParseError_En(document.GetParseError());
    rapidjson::SchemaValidator validator(schema);
    if (document.Accept(validator))
        return "";
    rapidjson::StringBuffer where;
    validator.GetInvalidDocumentPointer().StringifyUriFragment(where);
    return std::string("schema: ") + validator.GetInvalidSchemaKeyword() + " at " +
           where.GetString();
}

}  // namespace KelvoTest
