// kelvo_proc_probe PID LOCK_FILE SOCKET_NAME ADDRESS: prints what the /proc
// readers answer about process PID and about a lock the probe takes itself,
// one "question: answer" line each.
#include <Kelvo/FileLockCpp.h>
#include <Kelvo/MappingsCpp.h>
#include <Kelvo/ProcUtilCpp.h>
#include <fmt/format.h>

#include <stdlib.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

namespace {

std::string show(const std::optional<std::vector<pid_t>>& pids) {
    if (!pids) {
        return "unknown";
    }
    std::string text;
    for (pid_t pid : *pids) {
        text += (text.empty() ? "" : ",") + (pid == ::getpid() ? "self" : std::to_string(pid));
    }
    return text.empty() ? "none" : text;
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
    const uintptr_t address = std::strtoull(argv[4], nullptr, 16);
    const auto title = Kelvo::Util::processTitle(h, pid);
    const auto mappings = Kelvo::readMappings(h, pid);
    const auto type = Kelvo::Util::remoteTypeName(h, pid, address);
    fmt::print("title: {}\n", title.value_or("unknown"));
    fmt::print("lockOwners: {}\n", show(Kelvo::Util::lockOwners(h, argv[2])));
    fmt::print("socketOwners: {}\n", show(Kelvo::Util::abstractSocketOwners(h, argv[3])));
    fmt::print("mappings: {}\n", mappings ? "read" : "unknown");
    fmt::print("type: {}\n", type.value_or("unknown"));

    char dir[] = "/tmp/kelvo-proc-probe-XXXXXX";
    if (::mkdtemp(dir) == nullptr) {
        return 1;
    }
    {
        Kelvo::FileLock own(h, dir, "own.lock");
        fmt::print("ownLock: {}\n",
                   own.lock(false) ? show(Kelvo::Util::lockOwners(h, own.file())) : "not taken");
        ::unlink(own.file().c_str());
    }
    ::rmdir(dir);
    return 0;
}
