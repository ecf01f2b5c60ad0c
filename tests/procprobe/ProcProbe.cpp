// kelvo_proc_probe PID LOCK_FILE SOCKET_NAME ADDRESS: prints what the /proc
// readers answer about process PID and about a lock the probe takes itself,
// one "question: answer" line each.
#include <Kelvo/Kelvo.h>

#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fputs("usage: kelvo_proc_probe PID LOCK_FILE SOCKET_NAME ADDRESS\n", stderr);
        return 2;
    }
    // Answers only: the suite compares the whole output.
    auto handle = Kelvo::Platform::getDebugHandler("ProcProbe");
    for (unsigned level = 0; level < 10; ++level)
        handle->enabledIs(level, false);
    auto& h = *handle;
    const pid_t pid = std::atoi(argv[1]);
    const auto known = [](bool answered) { return answered ? "known" : "unknown"; };
    fmt::print("title: {}\n", Kelvo::Util::processTitle(h, pid).value_or("unknown"));
    fmt::print("lockOwners: {}\n", known(Kelvo::Util::lockOwners(h, argv[2]).has_value()));
    fmt::print("socketOwners: {}\n",
               known(Kelvo::Util::abstractSocketOwners(h, argv[3]).has_value()));
    fmt::print("mappings: {}\n", known(Kelvo::readMappings(h, pid).has_value()));
    const auto type = Kelvo::Util::remoteTypeName(h, pid, std::strtoull(argv[4], nullptr, 16));
    fmt::print("type: {}\n", type.value_or("unknown"));
    // /tmp is where every user may create a file.
    Kelvo::FileLock own(h, "/tmp", fmt::format("kelvo-proc-probe-{}.lock", ::getpid()));
    const bool ownLockSeen =
        own.lock(false) && Kelvo::Util::lockOwners(h, own.file()) == std::vector{::getpid()};
    fmt::print("ownLock: {}\n", ownLockSeen ? "self" : "not seen");
    ::unlink(own.file().c_str());
    return 0;
}
