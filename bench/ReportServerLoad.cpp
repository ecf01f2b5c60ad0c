// The report server under load: 50 clients ask the test daemon for its JSON
// report at once, while its 1 ms periodic task ("tick") must keep its
// scheduling-latency high-water mark below one quantum (20 ms).
//
//   kelvo_report_server_load [clients]
//
// Prints the tick's high-water mark before and after the burst (read from the
// daemon's own JSON report), the time to serve every client and the bytes
// served. A figure to read, not a test: it exits 0 whenever the run worked.
#include <Kelvo/Kelvo.h>

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <rapidjson/document.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const auto handle = Kelvo::Platform::getDebugHandler("ReportServerLoad");

int connectTo(const std::string& socketName) {
    const int fd = Kelvo::Util::socket(*handle, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    const int length = Kelvo::Util::createSockaddr(*handle, &address, socketName);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        std::perror("connect");
        std::exit(1);
    }
    return fd;
}

// The largest schedulingLatencyHighWaterMark of a task named like "tick".
double tickHighWater(const rapidjson::Value& value) {
    double worst = -1;
    if (value.IsObject()) {
        if (value.HasMember("name") && value["name"].IsString() &&
            std::strstr(value["name"].GetString(), "tick") != nullptr &&
            value.HasMember("schedulingLatencyHighWaterMark")) {
            worst = value["schedulingLatencyHighWaterMark"].GetDouble();
        }
        for (const auto& member : value.GetObject()) {
            worst = std::max(worst, tickHighWater(member.value));
        }
    } else if (value.IsArray()) {
        for (const auto& element : value.GetArray()) {
            worst = std::max(worst, tickHighWater(element));
        }
    }
    return worst;
}

std::string askJson(const std::string& socketName) {
    const int fd = connectTo(socketName);
    (void)::write(fd, "json\n", 5);
    std::string got;
    char buffer[65536];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
        got.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return got;
}

double highWaterOf(const std::string& json) {
    rapidjson::Document document;
    document.Parse(json.c_str());
    return document.HasParseError() ? -1 : tickHighWater(document);
}

}  // namespace

int main(int argc, char** argv) {
    const int clients = argc > 1 ? std::atoi(argv[1]) : 50;
    int ready[2];
    if (::pipe(ready) != 0) {
        return 1;
    }
    const pid_t daemon = ::fork();
    if (daemon == 0) {
        ::dup2(ready[1], STDOUT_FILENO);
        ::execl(KELVO_TEST_REPORTD, KELVO_TEST_REPORTD, "load", static_cast<char*>(nullptr));
        std::perror("exec");
        ::_exit(127);
    }
    ::close(ready[1]);
    char line[16] = {};
    if (::read(ready[0], line, sizeof line - 1) <= 0 || std::strncmp(line, "ready", 5) != 0) {
        std::fprintf(stderr, "the daemon did not start\n");
        return 1;
    }
    const std::string socketName = Kelvo::reportServerSocketName("load", daemon);
    // Let the tick settle, then note its high-water mark before the burst.
    ::poll(nullptr, 0, 500);
    const double before = highWaterOf(askJson(socketName));

    std::vector<pollfd> fds;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < clients; ++i) {
        const int fd = connectTo(socketName);
        (void)::write(fd, "json\n", 5);
        fds.push_back({fd, POLLIN, 0});
    }
    size_t bytes = 0;
    int open = clients;
    std::vector<std::string> answers(clients);
    while (open > 0) {
        ::poll(fds.data(), fds.size(), 10000);
        for (int i = 0; i < clients; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
                continue;
            }
            char buffer[65536];
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                bytes += static_cast<size_t>(n);
                answers[i].append(buffer, static_cast<size_t>(n));
                continue;
            }
            ::close(fds[i].fd);
            fds[i].fd = -1;
            --open;
        }
    }
    const double served =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    int complete = 0;
    for (const auto& answer : answers) {
        complete += highWaterOf(answer) >= 0 ? 1 : 0;
    }
    const double after = highWaterOf(askJson(socketName));
    ::kill(daemon, SIGTERM);
    int status = 0;
    ::waitpid(daemon, &status, 0);

    std::printf("clients %d, complete JSON answers %d, bytes served %zu\n", clients, complete,
                bytes);
    std::printf("time to serve all %.1f ms\n", served * 1e3);
    std::printf(
        "tick latency high-water mark: %.2f ms before the burst, %.2f ms after "
        "(quantum 20 ms)\n",
        before * 1e3, after * 1e3);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && complete == clients ? 0 : 1;
}
