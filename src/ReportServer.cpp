// The report server (ReportServerCpp.h).
//
// Invariants:
//  1. A connection is in its server's table from its accept until it ends;
//     ending it (finish) is the last thing any of its handlers does, since it
//     may destroy the connection. Its tasks outlive the run that ends it by
//     the run loop's own share.
//  2. A connection owns its descriptor until it hands it to the JSON writer
//     (fdOwned_ false), which closes it; it never closes a descriptor it has
//     handed over.
//  3. Every descriptor the server owns is in the fork table while it is open,
//     so that a forked child never holds a live copy.
//  4. The table holds at most maxConnections entries; the accept that would
//     pass the cap answers "error: busy\n" instead.
#include <Kelvo/ReportServerCpp.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <sstream>
#include <unordered_map>

#include <Kelvo/AllocatorCpp.h>
#include <Kelvo/DebugCpp.h>
#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/ReportFormatsCpp.h>
#include <Kelvo/Task.h>
#include <Kelvo/TaskSchedulerCpp.h>
#include <Kelvo/UtilCpp.h>

namespace Kelvo {

namespace {

constexpr size_t maxRequestBytes = 256;
constexpr size_t maxNameLength = 64;
constexpr size_t maxConnections = 64;
constexpr auto requestTimeout = std::chrono::seconds(5);
constexpr auto stallTimeout = std::chrono::seconds(30);

constexpr const char* refusedLine = "error: refused\n";
constexpr const char* busyLine = "error: busy\n";
constexpr const char* unknownLine = "error: unknown request\n";
constexpr const char* tooLongLine = "error: request too long\n";
constexpr const char* timedOutLine = "error: request timed out\n";

const std::shared_ptr<Platform::DebugHandler>& trace() {
    static const std::shared_ptr<Platform::DebugHandler> handle =
        Platform::getDebugHandler("ReportServer");
    return handle;
}

String errnoText(int error) {
    return fmt::format("{} ({})", std::strerror(error), error);
}

bool validName(const String& name) {
    if (name.empty() || name.size() > maxNameLength) {
        return false;
    }
    for (const char c : name) {
        const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                        (c >= '0' && c <= '9') || c == '_' || c == '.' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

// A short line on a fresh socket: its send buffer is empty, so the line goes
// at once or the peer has gone; either way nothing is left to retry.
void sendLine(int fd, const char* line) {
    const ssize_t sent = ::send(fd, line, std::strlen(line), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
        KELVO_TRACE(trace(), 3, "fd {}: sending the error line failed: {}", fd, errnoText(errno));
    }
}

// ---------------------------------------------------------------------------
// The fork table (invariant 3). Slots are claimed and freed by the serving
// threads and read by the child handler of fork(), which runs alone in the
// child and may only make async-signal-safe calls.

constexpr size_t forkTableSize = 1024;
// A slot holds fd + 1, so that the zero-initialised table is empty.
std::atomic<int> forkTable[forkTableSize];

void forkChildDropDescriptors() {
    const int placeholder = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (placeholder < 0) {
        return;
    }
    for (auto& slot : forkTable) {
        const int fd = slot.load(std::memory_order_relaxed) - 1;
        // The number stays taken, so the child's copy of the server closes
        // the placeholder instead of a descriptor opened meanwhile.
        if (fd >= 0) {
            ::dup3(placeholder, fd, O_CLOEXEC);
        }
    }
    ::close(placeholder);
}

void forkTableAdd(int fd) {
    static std::once_flag registered;
    std::call_once(registered,
                   [] { ::pthread_atfork(nullptr, nullptr, forkChildDropDescriptors); });
    for (auto& slot : forkTable) {
        int empty = 0;
        if (slot.compare_exchange_strong(empty, fd + 1, std::memory_order_relaxed)) {
            return;
        }
    }
    KELVO_TRACE(trace(), 1, "fd {}: fork table full, a forked child keeps a copy", fd);
}

void forkTableRemove(int fd) {
    for (auto& slot : forkTable) {
        int expected = fd + 1;
        if (slot.compare_exchange_strong(expected, 0, std::memory_order_relaxed)) {
            return;
        }
    }
}

// Reads what the client sent beyond its request (bounded) before closing:
// closing a Unix socket with unread data resets the peer, which may then lose
// the tail of its answer.
void drainAndClose(int fd) {
    char sink[4096];
    for (int i = 0; i < 16 && ::recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0; ++i) {
    }
    ::close(fd);
}

void closeOwned(int fd) {
    forkTableRemove(fd);
    drainAndClose(fd);
}

// ---------------------------------------------------------------------------

class Server;

// One client: reads its request, then answers it. See invariants 1 and 2.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(Server* server, int fd, pid_t peerPid);
    ~Connection();
    // Starts reading the request and its time-out.
    void start();

  private:
    class Reader;
    class Timer;
    friend class Reader;
    friend class Timer;

    void readable();
    void timeout();
    void request(const String& line);
    // Starts the answer through the JSON writer.
    void answerJson(bool includeNoRuns, bool includeCompleted);
    void answerBuffer(String text);
    // Bytes of the answer written so far, to tell progress from a stall.
    uint64_t answerProgress() const;
    void failWith(const char* line, const char* why);
    // Removes this connection from its server; may destroy it (invariant 1).
    void finish();

    Server* server_;
    int fd_;
    bool fdOwned_ = true;
    pid_t peerPid_;
    String received_;
    std::shared_ptr<Reader> reader_;
    std::shared_ptr<Timer> timer_;
    std::shared_ptr<TaskScheduler::SnapshotWriteJsonTask> writer_;
    bool answering_ = false;
    uint64_t progressAtCheck_ = 0;
};

// Accepts connections; owns the listener and the connections.
class Server {
  public:
    Server(const String& name, int listenFd);
    ~Server();
    const String& name() const noexcept { return name_; }
    size_t connectionCount() const noexcept { return connections_.size(); }
    void acceptAll();
    void connectionDone(Connection* connection);

  private:
    class Listener;

    String name_;
    int listenFd_;
    std::shared_ptr<Listener> listener_;
    std::unordered_map<Connection*, std::shared_ptr<Connection>> connections_;
};

class Server::Listener final : public FileDescriptorTask {
  public:
    Listener(Server* server, int fd)
        : FileDescriptorTask(schedulerRootKelvo(), TaskPriority::low, "ReportServer:accept"),
          server_(server) {
        taskWatchFdIs(fd);
        taskWatchReadableIs(true);
    }
    void taskExecuteReadable() override { server_->acceptAll(); }
    void taskExecuteWritable() override {}

  private:
    Server* server_;
};

class Connection::Reader final : public FileDescriptorTask {
  public:
    explicit Reader(Connection* connection)
        : FileDescriptorTask(schedulerRootKelvo(), TaskPriority::low, "ReportServer:request"),
          connection_(connection) {}
    void taskExecuteReadable() override { connection_->readable(); }
    void taskExecuteWritable() override {}

  private:
    Connection* connection_;
};

class Connection::Timer final : public TimerTask {
  public:
    explicit Timer(Connection* connection)
        : TimerTask(schedulerRootKelvo(), TaskPriority::low, "ReportServer:timeout"),
          connection_(connection) {}
    void taskExecute() override { connection_->timeout(); }

  private:
    Connection* connection_;
};

// ---------------------------------------------------------------------------
// Server

Server::Server(const String& name, int listenFd) : name_(name), listenFd_(listenFd) {
    listener_ = allocateShared<Listener>(this, listenFd);
}

Server::~Server() {
    listener_->taskWatchFdDel();
    listener_.reset();
    // Connections point at this server; they go first.
    connections_.clear();
    closeOwned(listenFd_);
    KELVO_TRACE(trace(), 5, "stopped serving {}", name_);
}

void Server::acceptAll() {
    for (;;) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            const int error = errno;
            if (error == EINTR || error == ECONNABORTED) {
                continue;
            }
            if (error != EAGAIN) {
                // EMFILE and the like: the next readiness tries again.
                KELVO_TRACE(trace(), 1, "{}: accept failed: {}", name_, errnoText(error));
            }
            return;
        }
        ucred peer{};
        socklen_t length = sizeof peer;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
            KELVO_TRACE(trace(), 1, "fd {}: SO_PEERCRED failed: {}", fd, errnoText(errno));
            sendLine(fd, refusedLine);
            drainAndClose(fd);
        } else if (peer.uid != ::geteuid() && peer.uid != 0) {
            KELVO_TRACE(trace(), 1, "fd {}: refused pid {} uid {}", fd, peer.pid, peer.uid);
            sendLine(fd, refusedLine);
            drainAndClose(fd);
        } else if (connections_.size() >= maxConnections) {
            KELVO_TRACE(trace(), 1, "fd {}: busy, refused pid {} beyond {} connections", fd,
                        peer.pid, maxConnections);
            sendLine(fd, busyLine);
            drainAndClose(fd);
        } else {
            KELVO_TRACE(trace(), 5, "fd {}: accepted pid {} uid {}", fd, peer.pid, peer.uid);
            forkTableAdd(fd);
            auto connection = allocateShared<Connection>(this, fd, peer.pid);
            connections_.emplace(connection.get(), connection);
            connection->start();
        }
        if (listener_->taskShouldYield()) {
            listener_->scheduleTaskReadable();
            return;
        }
    }
}

void Server::connectionDone(Connection* connection) {
    connections_.erase(connection);
}

// ---------------------------------------------------------------------------
// Connection

Connection::Connection(Server* server, int fd, pid_t peerPid)
    : server_(server), fd_(fd), peerPid_(peerPid) {}

Connection::~Connection() {
    if (reader_) {
        reader_->taskWatchFdDel();
    }
    timer_->stopTimerTask();
    if (writer_) {
        writer_->taskWatchFdDel();
    }
    if (fdOwned_) {
        closeOwned(fd_);
    }
}

void Connection::start() {
    reader_ = allocateShared<Reader>(this);
    reader_->taskWatchFdIs(fd_);
    reader_->taskWatchReadableIs(true);
    timer_ = allocateShared<Timer>(this);
    timer_->scheduleTaskDelay(requestTimeout);
}

void Connection::readable() {
    char buffer[maxRequestBytes];
    const size_t room = maxRequestBytes - received_.size();
    const ssize_t n = ::recv(fd_, buffer, room, 0);
    if (n < 0) {
        const int error = errno;
        if (error == EAGAIN || error == EINTR) {
            return;
        }
        KELVO_TRACE(trace(), 3, "fd {}: pid {} gone before its request: {}", fd_, peerPid_,
                    errnoText(error));
        finish();
        return;
    }
    if (n == 0) {
        KELVO_TRACE(trace(), 3, "fd {}: pid {} closed before its request ended", fd_, peerPid_);
        finish();
        return;
    }
    const size_t before = received_.size();
    received_.append(buffer, static_cast<size_t>(n));
    const size_t newline = received_.find('\n', before);
    if (newline != String::npos) {
        // Bytes after the line are ignored: one request per connection.
        request(received_.substr(0, newline));
        return;
    }
    if (received_.size() >= maxRequestBytes) {
        failWith(tooLongLine, "request too long");
    }
}

void Connection::timeout() {
    if (!answering_) {
        failWith(timedOutLine, "request timed out");
        return;
    }
    const uint64_t progress = answerProgress();
    if (progress == progressAtCheck_) {
        KELVO_TRACE(trace(), 3, "fd {}: pid {} read nothing for {} s; answer cut", fd_, peerPid_,
                    stallTimeout.count());
        if (!fdOwned_) {
            // The JSON writer owns the descriptor: a shut-down socket fails
            // its writes at once, so it drops the rest and ends as usual.
            ::shutdown(fd_, SHUT_RDWR);
            return;
        }
        finish();
        return;
    }
    progressAtCheck_ = progress;
    timer_->scheduleTaskDelay(stallTimeout);
}

void Connection::request(const String& line) {
    String command;
    bool includeNoRuns = false, includeCompleted = false, classicMetrics = false;
    // Single blanks only: an empty word is a malformed request.
    size_t start = 0;
    bool bad = false;
    for (;;) {
        const size_t end = line.find(' ', start);
        const String word = line.substr(start, end == String::npos ? String::npos : end - start);
        if (word.empty()) {
            bad = true;
        } else if (command.empty()) {
            command = word;
        } else if (word == "noruns") {
            includeNoRuns = true;
        } else if (word == "completed") {
            includeCompleted = true;
        } else if (word == "prometheus") {
            classicMetrics = true;
        } else {
            bad = true;
        }
        if (bad || end == String::npos) {
            break;
        }
        start = end + 1;
    }
    TaskSchedulerRoot& root = *schedulerRootKelvo();
    std::ostringstream out;
    if (bad) {
    } else if (command == "json") {
        KELVO_TRACE(trace(), 5, "fd {}: pid {} asks: {}", fd_, peerPid_, line);
        answerJson(includeNoRuns, includeCompleted);
        return;
    } else if (command == "text") {
        root.statsRenderTextForDebug(out, includeNoRuns, false, includeCompleted, false);
    } else if (command == "history") {
        root.historyRenderTextForDebug(out);
    } else if (command == "metrics") {
        if (classicMetrics) {
            statsRenderPrometheusText(root, out, includeNoRuns, includeCompleted);
        } else {
            statsRenderOpenMetrics(root, out, includeNoRuns, includeCompleted);
        }
    } else if (command == "timeline") {
        historyRenderTraceEvents(root, out);
    } else {
        bad = true;
    }
    if (bad) {
        KELVO_TRACE(trace(), 3, "fd {}: pid {} sent an unknown request of {} bytes", fd_, peerPid_,
                    line.size());
        failWith(unknownLine, "unknown request");
        return;
    }
    KELVO_TRACE(trace(), 5, "fd {}: pid {} asks: {}", fd_, peerPid_, line);
    answerBuffer(std::move(out).str());
}

void Connection::answerJson(bool includeNoRuns, bool includeCompleted) {
    reader_->taskWatchFdDel();
    reader_.reset();
    answering_ = true;
    fdOwned_ = false;
    TaskSchedulerRoot& root = *schedulerRootKelvo();
    auto snapshot = root.snapshot(String(), includeNoRuns, includeCompleted, false, 0);
    std::weak_ptr<Connection> self = weak_from_this();
    const int fd = fd_;
    root.snapshotRenderJsonAsync(fd_, TaskScheduler::SnapshotList{std::move(snapshot)}, [self, fd] {
        // The writer has closed the descriptor (invariant 2).
        forkTableRemove(fd);
        if (auto connection = self.lock()) {
            KELVO_TRACE(trace(), 8, "fd {}: JSON answer done", fd);
            connection->finish();
        }
    });
    timer_->scheduleTaskDelay(stallTimeout);
}

void Connection::answerBuffer(String text) {
    reader_->taskWatchFdDel();
    reader_.reset();
    if (text.empty()) {
        finish();
        return;
    }
    answering_ = true;
    writer_ = allocateShared<TaskScheduler::SnapshotWriteJsonTask>(schedulerRootKelvo(), fd_,
                                                                   nullptr, TaskPriority::low);
    writer_->taskStatsNameIs("ReportServer:write");
    writer_->writeBufferIs(std::move(text), [this] {
        KELVO_TRACE(trace(), 8, "fd {}: answer done", fd_);
        finish();
    });
    timer_->scheduleTaskDelay(stallTimeout);
}

uint64_t Connection::answerProgress() const {
    if (writer_) {
        return writer_->taskWorkCountWritableTotal();
    }
    for (const auto& task : schedulerRootKelvo()->snapshotRenderTasks()) {
        if (task->fd() == fd_ && task->writeTask()) {
            return task->writeTask()->taskWorkCountWritableTotal();
        }
    }
    return progressAtCheck_;
}

void Connection::failWith(const char* line, const char* why) {
    KELVO_TRACE(trace(), 3, "fd {}: pid {}: {}", fd_, peerPid_, why);
    sendLine(fd_, line);
    finish();
}

void Connection::finish() {
    server_->connectionDone(this);
}

// The calling thread's server. Declared after the root's first use, so the
// thread destroys it before the root.
std::unique_ptr<Server>& threadServer() {
    schedulerRootKelvo();
    thread_local std::unique_ptr<Server> server;
    return server;
}

int listenOn(const String& socketName) {
    const int fd = Util::socket(*trace(), AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        RuntimeException::throwException(
            fmt::format("report server: socket() failed: {}", errnoText(errno)));
    }
    sockaddr_un address;
    const int length = Util::createSockaddr(*trace(), &address, socketName);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length)) !=
            0 ||
        ::listen(fd, SOMAXCONN) != 0) {
        const int error = errno;
        ::close(fd);
        RuntimeException::throwException(
            fmt::format("report server: cannot listen on {}: {}", socketName, errnoText(error)));
    }
    forkTableAdd(fd);
    return fd;
}

}  // namespace

String reportServerSocketName(const String& name, pid_t pid) {
    return fmt::format("{}{}.{}", reportServerSocketPrefix, name, pid);
}

void reportServerIs(const String& name) {
    schedulerRootKelvo()->sanityCheckCurrentRunningThread();
    auto& server = threadServer();
    if (name.empty()) {
        server.reset();
        return;
    }
    if (!validName(name)) {
        RuntimeException::throwException(
            fmt::format("report server name \"{}\" must be 1 to {} characters of [A-Za-z0-9_.-]",
                        name, maxNameLength));
    }
    if (server && server->name() == name) {
        return;
    }
    const String socketName = reportServerSocketName(name, ::getpid());
    const int fd = listenOn(socketName);
    // The new socket is bound before the old one closes, so a failure above
    // leaves the old server serving.
    server.reset();
    server = std::make_unique<Server>(name, fd);
    KELVO_TRACE(trace(), 5, "serving reports on {}", socketName);
}

String reportServer() {
    const auto& server = threadServer();
    return server ? server->name() : String();
}

size_t reportServerConnectionCountForTest() {
    const auto& server = threadServer();
    return server ? server->connectionCount() : 0;
}

}  // namespace Kelvo
