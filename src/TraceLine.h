// One trace line: the fields chosen by TRACEFORMAT, the message, a newline.
// Composed on the caller's stack without a lock; messages are formatted
// straight into it. Only its write takes the global lock, so lines from
// different threads never interleave.
#pragma once

#include <cstdint>
#include <cstring>

#include <fmt/format.h>

namespace Kelvo {
namespace Impl {

// Inline room for a 500-byte message after an ordinary prefix: such lines
// never touch the heap.
using TraceLine = fmt::basic_memory_buffer<char, 1024>;

// Copies n bytes without a call for the short pieces lines are made of
// (numbers, names, words of text), where memcpy's dispatch would cost more
// than the copy.
inline void copyBytes(char* to, const char* from, size_t n) {
    if (n >= 8 && n <= 16) {
        std::memcpy(to, from, 8);
        std::memcpy(to + n - 8, from + n - 8, 8);
    } else if (n >= 4 && n < 8) {
        std::memcpy(to, from, 4);
        std::memcpy(to + n - 4, from + n - 4, 4);
    } else if (n < 4) {
        for (size_t i = 0; i < n; ++i) {
            to[i] = from[i];
        }
    } else {
        std::memcpy(to, from, n);
    }
}

// Appends the prefix fields of a line of handle (a Platform::DebugHandler) at
// level, traced at file:line in func.
void traceLineStart(TraceLine& out, uint32_t level, const void* handle, const char* file,
                    const char* func, int line);
// Ends the line and writes it to the trace file, or to standard error, unless
// the trace-line observer takes it; the first prefixLength bytes of out are
// the prefix fields, the rest the message.
void traceLineWrite(TraceLine& out, const void* handle, uint32_t level, size_t prefixLength);

}  // namespace Impl
}  // namespace Kelvo
