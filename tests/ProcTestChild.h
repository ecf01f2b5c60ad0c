// A child process that takes something (a lock, a socket, a mapping), reports
// on it to the parent in one line, and holds it until the parent lets it go:
// the subject that the /proc readers are tested against.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <set>
#include <string>

namespace KelvoTest {

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
            for (int fd : holdFds()) {
                ::close(fd);
            }
            std::string line;
            try {
                line = setup();
            } catch (const std::exception& e) {
                line = std::string("error: ") + e.what();
            }
            line += '\n';
            (void)!::write(ready[1], line.data(), line.size());
            char byte;
            while (::read(hold[0], &byte, 1) != 0) {
            }
            ::_exit(0);
        }
        ::close(ready[1]);
        ::close(hold[0]);
        holdFd_ = hold[1];
        holdFds().insert(holdFd_);
        // The child's line, or what arrived of it within 30 s.
        struct pollfd wait = {ready[0], POLLIN, 0};
        char byte;
        while (::poll(&wait, 1, 30000) == 1 && ::read(ready[0], &byte, 1) == 1 && byte != '\n') {
            report_ += byte;
        }
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
            ::close(holdFd_);
            holdFd_ = -1;
        }
        if (pid_ > 0) {
            ::waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
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

}  // namespace KelvoTest
