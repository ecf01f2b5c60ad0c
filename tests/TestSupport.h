// Helpers shared by the foundation suites: the text of a failed assertion, and
// the probe program run in a child with its own environment, for behaviour that
// happens at library load or ends the process.
#pragma once

#include <Kelvo/Kelvo.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace KelvoTest {

// The message of the assertion that body fails (assertions must throw).
template <typename F>
std::string assertionText(F body) {
    try {
        body();
    } catch (const Kelvo::AssertException& e) {
        return e.message();
    }
    return "no assertion";
}

inline std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

struct ChildResult {
    int status = -1;  // as from waitpid
    std::string out, err;
    bool aborted() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }
    bool exitedOk() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

// Runs the probe with args and exactly env (nothing inherited); a child still
// running after 60 s is killed.
inline ChildResult runProbe(std::vector<std::string> args, const std::vector<std::string>& env) {
    char dir[] = "/tmp/kelvo-probe-XXXXXX";
    const std::filesystem::path base = ::mkdtemp(dir);
    args.insert(args.begin(), std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                                  "probe/kelvo_probe");
    std::vector<char*> argv, envp;
    for (auto& a : args)
        argv.push_back(a.data());
    for (const auto& e : env)
        envp.push_back(const_cast<char*>(e.c_str()));
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t redirect;
    posix_spawn_file_actions_init(&redirect);
    posix_spawn_file_actions_addopen(&redirect, 1, (base / "out").c_str(), O_WRONLY | O_CREAT,
                                     0600);
    posix_spawn_file_actions_addopen(&redirect, 2, (base / "err").c_str(), O_WRONLY | O_CREAT,
                                     0600);
    ChildResult result;
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &redirect, nullptr, argv.data(), envp.data()) == 0) {
        // The pidfd becomes readable when the child exits.
        const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
        struct pollfd exited = {pidfd, POLLIN, 0};
        if (pidfd >= 0 && ::poll(&exited, 1, 60000) != 1)
            ::kill(pid, SIGKILL);
        ::waitpid(pid, &result.status, 0);
        ::close(pidfd);
    }
    posix_spawn_file_actions_destroy(&redirect);
    result.out = readFile(base / "out");
    result.err = readFile(base / "err");
    std::filesystem::remove_all(base);
    return result;
}

}  // namespace KelvoTest
