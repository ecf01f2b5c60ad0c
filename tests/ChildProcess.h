// Runs the load-time probe program in a child with its own environment and
// captures what it writes, for behaviour that happens at library load or ends
// the process.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace KelvoTest {

struct ChildResult {
    int status = -1;  // as from waitpid
    std::string out;
    std::string err;
    bool aborted() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }
    bool exitedOk() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::string probePath() {
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind('/')) + "/probe/kelvo_probe";
}

// Starts the probe with args and exactly env (no inherited variables), and
// waits for it at most 60 s.
inline ChildResult runProbe(const std::vector<std::string>& args,
                            const std::vector<std::string>& env) {
    char dir[] = "/tmp/kelvo-probe-XXXXXX";
    const std::string base = ::mkdtemp(dir);
    const std::string outPath = base + "/out", errPath = base + "/err";
    const std::string exe = probePath();
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (const auto& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& e : env)
        envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);

    ChildResult result;
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    // The child's pidfd becomes readable when it exits; a hung child is killed.
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    struct pollfd ready = {pidfd, POLLIN, 0};
    if (pidfd >= 0 && ::poll(&ready, 1, 60000) != 1) {
        ::kill(pid, SIGKILL);
    }
    ::waitpid(pid, &result.status, 0);
    if (pidfd >= 0)
        ::close(pidfd);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    std::system(("rm -rf " + base).c_str());
    return result;
}

}  // namespace KelvoTest
