// Message formatting for trace lines, exceptions and assertions. Messages are
// fmt format strings with "{}" placeholders, built into a buffer with 500
// bytes of inline storage so that ordinary messages never touch the heap.
// Any thread; only writing a trace line takes the global lock.
#pragma once

#include <cstdint>
#include <cstdio>

#include <fmt/format.h>

#include "KelvoBase.h"

namespace Kelvo {
namespace Fmt {
namespace Impl {

using MessageBuffer = fmt::basic_memory_buffer<char, 500>;

// Appends "Class::func() " when isMember, then the formatted message.
KELVO_EXPORT void buildMessageBufferInternal(MessageBuffer& buffer, bool isMember,
                                             const char* funcName, const char* className,
                                             fmt::string_view format, fmt::format_args args);
// As buildMessageBufferInternal, into a cleared buffer.
KELVO_EXPORT void buildMessageBuffer(MessageBuffer& buffer, bool isMember, const char* funcName,
                                     const char* className, fmt::string_view format,
                                     fmt::format_args args);
// "file:line: " then as buildMessageBufferInternal, into a cleared buffer.
KELVO_EXPORT void buildDetailedMessageBuffer(MessageBuffer& buffer, const char* file, int line,
                                             bool isMember, const char* funcName,
                                             const char* className, fmt::string_view format,
                                             fmt::format_args args);

KELVO_EXPORT String vformatstr(bool isMember, const char* funcName, const char* className,
                               fmt::string_view format, fmt::format_args args);
KELVO_EXPORT String vformatstr(const char* file, int line, bool isMember, const char* funcName,
                               const char* className, fmt::string_view format,
                               fmt::format_args args);

// Formats the message straight into one trace line of handle at level and
// writes it.
KELVO_EXPORT void vfmtrace(const void* handle, uint32_t level, const char* file, bool isMember,
                           const char* funcName, const char* className, int line,
                           fmt::string_view format, fmt::format_args args);

// For callers outside the library; forwards to Platform::dumpDebugMsg.
KELVO_EXPORT void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handle,
                               const char* file, const char* func, int line);

}  // namespace Impl
}  // namespace Fmt

namespace Fmtrace {
namespace Impl {
// Formats into a formatting context, for formatters of types that nest a text
// (the library itself has none: this serves the daemons' formatters).
KELVO_EXPORT fmt::format_context::iterator vformat_to(fmt::format_context& context,
                                                      fmt::string_view format,
                                                      fmt::format_args args);
}  // namespace Impl
}  // namespace Fmtrace

}  // namespace Kelvo

namespace ZuFmt {
namespace Impl {
// fmt's own print, for daemons that print through the library; unused inside it.
KELVO_EXPORT void vprint(std::FILE* file, fmt::string_view format, fmt::format_args args);
KELVO_EXPORT void vprint(fmt::string_view format, fmt::format_args args);
}  // namespace Impl
}  // namespace ZuFmt
