// Finding report servers and talking to them.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "Tool.h"

namespace KelvoTool {

volatile sig_atomic_t stopRequested = 0;

namespace {

// The report server's line limit bounds an error line too; anything longer
// that starts "error: " is still treated as a report.
constexpr size_t maxErrorLine = 256;
constexpr int noProgressSeconds = 10;

// Owns one descriptor.
class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

[[noreturn]] void fail(const String& target, const String& what) {
    throw Failure(target + ": " + what);
}

[[noreturn]] void failErrno(const String& target, const char* call, int error) {
    if (error == EAGAIN || error == EWOULDBLOCK || error == ETIMEDOUT)
        fail(target, "timed out");
    if (error == ECONNREFUSED || error == ENOENT)
        fail(target, "no such daemon");
    if (error == ECONNRESET || error == EPIPE)
        fail(target, "connection lost");
    fail(target, String(call) + ": " + std::strerror(error));
}

bool isDecimal(std::string_view text) {
    return !text.empty() && text.size() <= 10 &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace

Kelvo::Platform::DebugHandler& handle() {
    static const std::shared_ptr<Kelvo::Platform::DebugHandler> kelvo =
        Kelvo::Platform::getDebugHandler("kelvo");
    return *kelvo;
}

std::vector<Server> servers() {
    const std::string_view prefix = Kelvo::reportServerSocketPrefix;
    std::vector<Server> found;
    for (const String& socketName : Kelvo::Util::abstractSocketNames(handle(), String(prefix))) {
        const std::string_view rest = std::string_view(socketName).substr(prefix.size());
        const size_t dot = rest.rfind('.');
        if (dot == std::string_view::npos || dot == 0 || !isDecimal(rest.substr(dot + 1))) {
            KELVO_TRACE(handle(), 3, "ignoring socket {}: no <name>.<pid>", socketName);
            continue;
        }
        Server server{String(rest.substr(0, dot)), 0, socketName};
        const std::string_view pid = rest.substr(dot + 1);
        std::from_chars(pid.data(), pid.data() + pid.size(), server.pid);
        found.push_back(std::move(server));
    }
    return found;
}

Server findServer(const String& target) {
    const std::vector<Server> all = servers();
    std::vector<Server> matches;
    // A pid names one process; a daemon whose name is all digits is still
    // found by name when no process has that pid.
    if (isDecimal(target)) {
        for (const Server& server : all)
            if (std::to_string(server.pid) == target)
                matches.push_back(server);
    }
    if (matches.empty()) {
        for (const Server& server : all)
            if (server.name == target)
                matches.push_back(server);
    }
    if (matches.empty())
        fail(target, "no such daemon");
    if (matches.size() > 1) {
        String names;
        for (const Server& server : matches)
            names += (names.empty() ? "" : ", ") + server.name + " (pid " +
                     std::to_string(server.pid) + ")";
        fail(target, "several daemons match: " + names);
    }
    return matches.front();
}

void fetch(const Server& server, const String& target, const String& request,
           const std::function<void(std::string_view)>& sink) {
    Fd fd(Kelvo::Util::socket(handle(), AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0)
        failErrno(target, "socket", errno);
    // A connect to a full backlog and every read and write give up after the
    // same interval without progress.
    const timeval limit{noProgressSeconds, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);

    sockaddr_un address{};
    const int length = Kelvo::Util::createSockaddr(handle(), &address, server.socketName);
    while (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), length) != 0) {
        if (errno != EINTR || stopRequested)
            failErrno(target, "connect", errno);
    }
    const String line = request + "\n";
    for (size_t sent = 0; sent < line.size();) {
        const ssize_t n = ::send(fd.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        // A server that refuses at accept answers and closes before reading:
        // its answer is still ours to read.
        if (n < 0 && (errno == EPIPE || errno == ECONNRESET))
            break;
        if (n < 0 && (errno != EINTR || stopRequested))
            failErrno(target, "send", errno);
        sent += n > 0 ? size_t(n) : 0;
    }
    KELVO_TRACE(handle(), 5, "{}: sent '{}' to {}", target, request, server.socketName);

    // Until the first line is known not to be an error, the answer is held
    // back: an error must reach stderr, never the report's destination.
    String head;
    bool passing = false;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::recv(fd.get(), buffer, sizeof buffer, 0);
        if (n < 0) {
            if (errno == EINTR && !stopRequested)
                continue;
            failErrno(target, "recv", errno);
        }
        const std::string_view got(buffer, size_t(n));
        if (passing) {
            if (n == 0)
                return;
            sink(got);
            continue;
        }
        head.append(got);
        constexpr std::string_view errorPrefix = "error: ";
        const bool maybeError =
            head.compare(0, errorPrefix.size(), errorPrefix.substr(0, head.size())) == 0;
        const size_t newline = head.find('\n');
        if (maybeError && head.size() >= errorPrefix.size() && (newline != String::npos || n == 0))
            fail(target,
                 head.substr(errorPrefix.size(),
                             std::min({newline, head.size(), maxErrorLine}) - errorPrefix.size()));
        if (n == 0) {
            if (head.empty())
                fail(target, "closed without an answer");
            sink(head);
            return;
        }
        if (!maybeError || head.size() > maxErrorLine) {
            passing = true;
            sink(head);
            head.clear();
        }
    }
}

String fetchAll(const Server& server, const String& target, const String& request) {
    String answer;
    fetch(server, target, request, [&answer](std::string_view got) { answer.append(got); });
    return answer;
}

void takeTarget(const char* command, const String& arg, String& target) {
    if (arg.starts_with("-"))
        throw UsageError(String(command) + ": unknown option '" + arg + "'");
    if (!target.empty())
        throw UsageError(String(command) + ": one daemon at a time ('" + arg + "')");
    target = arg;
}

bool isHelp(std::string_view arg) {
    return arg == "--help" || arg == "-h";
}

void writeOut(std::string_view data) {
    if (std::fwrite(data.data(), 1, data.size(), stdout) != data.size() || std::fflush(stdout) != 0)
        throw Failure(String("standard output: ") + std::strerror(errno));
}

}  // namespace KelvoTool
