// kelvo_proc_probe PID LOCK_FILE SOCKET_NAME ADDRESS: prints what the /proc
// readers answer about process PID and about a lock the probe takes itself,
// one "question: answer" line each.
#include <Kelvo/Kelvo.h>

#include <unistd.h>

namespace {

std::string show(const std::optional<std::vector<pid_t>>& pids) {
    if (!pids) {
        return "unknown";
    }
    if (*pids == std::vector<pid_t>{::getpid()}) {
        return "self";
    }
    return pids->empty() ? "none" : fmt::format("{}", fmt::join(*pids, ","));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fputs("usage: kelvo_proc_probe PID LOCK_FILE SOCKET_NAME ADDRESS\n", stderr);
        return 2;
    }
    // Answers only: the suite compares the whole output.
    auto handle = Kelvo::Platform::getDebugHandler("ProcProbe");
    for (unsigned level = 0; level < 10; ++level) {
        handle->enabledIs(level, false);
    }
    auto& h = *handle;
    const pid_t pid = std::atoi(argv[1]);
    const auto title = Kelvo::Util::processTitle(h, pid);
    const auto type = Kelvo::Util::remoteTypeName(h, pid, std::strtoull(argv[4], nullptr, 16));
    fmt::print("title: {}\n", title.value_or("unknown"));
    fmt::print("lockOwners: {}\n", show(Kelvo::Util::lockOwners(h, argv[2])));
    fmt::print("socketOwners: {}\n", show(Kelvo::Util::abstractSocketOwners(h, argv[3])));
    fmt::print("mappings: {}\n", Kelvo::readMappings(h, pid) ? "read" : "unknown");
    fmt::print("type: {}\n", type.value_or("unknown"));
    // /tmp is where every user may create a file.
    Kelvo::FileLock own(h, "/tmp", fmt::format("kelvo-proc-probe-{}.lock", ::getpid()));
    fmt::print("ownLock: {}\n",
               own.lock(false) ? show(Kelvo::Util::lockOwners(h, own.file())) : "not taken");
    ::unlink(own.file().c_str());
    return 0;
}
