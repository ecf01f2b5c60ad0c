#define UNW_LOCAL_ONLY
#include <Kelvo/BacktraceCpp.h>

#include <dlfcn.h>
#include <libunwind.h>

#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

namespace Kelvo {

// Not inlined, so that the first frame kept is always the caller's.
[[gnu::noinline]] int Backtrace::unwind() noexcept {
    count_ = 0;
    // libunwind's fast trace walks cached frame descriptions and makes no system
    // call; the step-by-step walk below blocks all signals around each frame's
    // lookup (two system calls a frame, some 50 us for 20 frames). The fast
    // trace also records this function's own frames: the walk proper starts at
    // the address this call returns to.
    void* ips[maxFrames + 2];
    const int n = unw_backtrace(ips, maxFrames + 2);
    const void* caller = __builtin_return_address(0);
    for (int first = 0; first < n && first < 2; ++first) {
        if (ips[first] == caller) {
            for (int i = first; i < n && count_ < maxFrames; ++i) {
                frames_[count_++] = reinterpret_cast<uintptr_t>(ips[i]);
            }
            // Like unw_step: 0 at the end of the stack, positive when frames remain.
            return n - first > static_cast<int>(maxFrames) ? 1 : 0;
        }
    }

    unw_context_t context;
    unw_cursor_t cursor;
    if (unw_getcontext(&context) != 0) {
        return -UNW_EUNSPEC;
    }
    int status = unw_init_local(&cursor, &context);
    if (status != 0) {
        return status;
    }
    while ((status = unw_step(&cursor)) > 0) {
        unw_word_t ip;
        if (unw_get_reg(&cursor, UNW_REG_IP, &ip) != 0) {
            break;
        }
        frames_[count_++] = ip;
        if (count_ >= maxFrames) {
            break;
        }
    }
    return status;
}

String Backtrace::pretty() const {
    if (count_ == 0) {
        return "No backtrace available\n";
    }
    fmt::memory_buffer out;
    fmt::format_to(fmt::appender(out), "Backtrace:\n");
    for (uint32_t i = 0; i < count_; ++i) {
        const auto address = reinterpret_cast<const void*>(frames_[i]);
        Dl_info info;
        if (dladdr(address, &info) != 0 && info.dli_fname != nullptr) {
            const auto base =
                reinterpret_cast<uintptr_t>(info.dli_saddr ? info.dli_saddr : info.dli_fbase);
            fmt::format_to(fmt::appender(out), "{}({}+0x{:x})", info.dli_fname,
                           info.dli_sname ? info.dli_sname : "", frames_[i] - base);
        }
        fmt::format_to(fmt::appender(out), "[{}]\n", address);
    }
    return fmt::to_string(out);
}

int Backtrace::verbosity() noexcept {
    const char* value = std::getenv("KELVO_BACKTRACE_VERBOSITY");
    return value && std::strcmp(value, "0") == 0 ? 0 : 1;
}

}  // namespace Kelvo
