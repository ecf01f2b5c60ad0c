// Kelvo::Backtrace: a fixed-size record of the calling thread's return
// addresses. A plain value that never allocates while capturing, so every
// exception can afford one. Thread-confined; owned by whoever embeds it.
#pragma once

#include <cstdint>

#include "KelvoBase.h"

namespace Kelvo {

class KELVO_EXPORT Backtrace {
  public:
    static constexpr unsigned maxFrames = 100;

    // Inline so that the first frame kept is the constructing function's.
    [[gnu::always_inline]] explicit Backtrace(bool capture) : count_(0) {
        if (capture) {
            unwind();
        }
    }

    // Captures the current stack; returns the status of the last unwind step.
    int unwind() noexcept;
    // "Backtrace:" and one line a frame, or "No backtrace available".
    String pretty() const;
    // 1 unless KELVO_BACKTRACE_VERBOSITY is exactly "0"; read on every call.
    static int verbosity() noexcept;

    uint32_t count() const noexcept { return count_; }
    uint64_t frame(unsigned i) const noexcept { return frames_[i]; }

  private:
    uint64_t frames_[maxFrames];
    uint32_t count_;
};

}  // namespace Kelvo
