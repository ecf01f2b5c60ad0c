// Message builders shared by trace lines, exceptions and assertions.
#include <Kelvo/DebugCpp.h>
#include <Kelvo/FmtUtilCpp.h>
#include <Kelvo/FmtraceCpp.h>

namespace Kelvo {

namespace Platform {
// Weak, so that a build without the platform writer fails cleanly.
extern void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handle,
                         const char* file, const char* func, int line) __attribute__((weak));
}  // namespace Platform

namespace Fmt {
namespace Impl {

void buildMessageBufferInternal(MessageBuffer& buffer, bool isMember, const char* funcName,
                                const char* className, fmt::string_view format,
                                fmt::format_args args) {
    if (isMember) {
        KELVO_ASSERT(funcName && className);
        buffer.append(fmt::string_view(className));
        buffer.append(fmt::string_view("::"));
        buffer.append(fmt::string_view(funcName));
        buffer.append(fmt::string_view("() "));
    }
    fmt::vformat_to(fmt::appender(buffer), format, args);
}

void buildMessageBuffer(MessageBuffer& buffer, bool isMember, const char* funcName,
                        const char* className, fmt::string_view format, fmt::format_args args) {
    buffer.clear();
    buildMessageBufferInternal(buffer, isMember, funcName, className, format, args);
}

void buildDetailedMessageBuffer(MessageBuffer& buffer, const char* file, int line, bool isMember,
                                const char* funcName, const char* className,
                                fmt::string_view format, fmt::format_args args) {
    buffer.clear();
    buffer.reserve(128);
    buffer.append(fmt::string_view(file ? file : ""));
    buffer.push_back(':');
    const fmt::format_int number(line);
    buffer.append(number.data(), number.data() + number.size());
    buffer.append(fmt::string_view(": "));
    buildMessageBufferInternal(buffer, isMember, funcName, className, format, args);
}

String vformatstr(bool isMember, const char* funcName, const char* className,
                  fmt::string_view format, fmt::format_args args) {
    MessageBuffer buffer;
    buildMessageBuffer(buffer, isMember, funcName, className, format, args);
    return String(buffer.data(), buffer.size());
}

String vformatstr(const char* file, int line, bool isMember, const char* funcName,
                  const char* className, fmt::string_view format, fmt::format_args args) {
    MessageBuffer buffer;
    buildDetailedMessageBuffer(buffer, file, line, isMember, funcName, className, format, args);
    return String(buffer.data(), buffer.size());
}

void vfmtrace(const void* handle, uint32_t level, const char* file, bool isMember,
              const char* funcName, const char* className, int line, fmt::string_view format,
              fmt::format_args args) {
    MessageBuffer buffer;
    buildMessageBuffer(buffer, isMember, funcName, className, format, args);
    dumpDebugMsg(buffer.data(), buffer.size(), level, handle, file, funcName, line);
}

void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handle, const char* file,
                  const char* func, int line) {
    if (&Platform::dumpDebugMsg == nullptr) {
        KELVO_ASSERT_FAIL("No debug handler found for platform");
    }
    Platform::dumpDebugMsg(msg, len, level, handle, file, func, line);
}

}  // namespace Impl
}  // namespace Fmt

namespace Fmtrace {
namespace Impl {

fmt::format_context::iterator vformat_to(fmt::format_context& context, fmt::string_view format,
                                         fmt::format_args args) {
    return fmt::vformat_to(context.out(), format, args);
}

}  // namespace Impl
}  // namespace Fmtrace

}  // namespace Kelvo

namespace ZuFmt {
namespace Impl {

void vprint(std::FILE* file, fmt::string_view format, fmt::format_args args) {
    fmt::vprint(file, format, args);
}

void vprint(fmt::string_view format, fmt::format_args args) {
    fmt::vprint(format, args);
}

}  // namespace Impl
}  // namespace ZuFmt
