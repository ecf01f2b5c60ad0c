// Fault injection for write(2): the program that includes this header (in
// exactly one source file) replaces write() for itself and the library
// objects linked into it. Writes to the one armed descriptor fail with EAGAIN
// or EINTR, or write only a prefix, at the armed rates; every other write
// goes straight to the kernel.
//
// Thread: arm and disarm on the writing thread, while nothing else writes to
// the armed descriptor; writes to other descriptors may come from any thread.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>

namespace KelvoTest {

class WriteFaults {
  public:
    // Percentages of the writes to fd that fail with EAGAIN, with EINTR, or
    // write a prefix of at most 512 bytes; failWith, when not 0, fails every
    // write with that errno instead.
    struct Rates {
        unsigned eagain = 0, eintr = 0, shortWrite = 0;
        int failWith = 0;
    };

    void arm(int fd, Rates rates, uint32_t seed = 1) {
        rates_ = rates;
        state_ = seed;
        fd_.store(fd, std::memory_order_release);
    }
    void disarm() { fd_.store(-1, std::memory_order_release); }
    // Faults injected since the program started.
    uint64_t injected() const { return injected_; }

    ssize_t write(int fd, const void* data, size_t size) {
        if (fd < 0 || fd != fd_.load(std::memory_order_acquire) || size == 0)
            return ::syscall(SYS_write, fd, data, size);
        const unsigned roll = next() % 100, failing = rates_.eagain + rates_.eintr;
        if (rates_.failWith || roll < failing) {
            ++injected_;
            errno = rates_.failWith ? rates_.failWith : roll < rates_.eagain ? EAGAIN : EINTR;
            return -1;
        }
        if (roll < failing + rates_.shortWrite && size > 1) {
            ++injected_;
            size = 1 + next() % std::min<size_t>(size - 1, 512);
        }
        return ::syscall(SYS_write, fd, data, size);
    }

  private:
    // A linear congruential generator: the object must be constant-initialised,
    // since write() may be called before any dynamic initialisation has run.
    uint32_t next() { return uint32_t((state_ = state_ * 6364136223846793005u + 1) >> 33); }

    std::atomic<int> fd_{-1};
    Rates rates_;
    uint64_t state_ = 1;
    uint64_t injected_ = 0;
};

constinit inline WriteFaults writeFaults;

}  // namespace KelvoTest

extern "C" ssize_t write(int fd, const void* data, size_t size) {
    return KelvoTest::writeFaults.write(fd, data, size);
}
