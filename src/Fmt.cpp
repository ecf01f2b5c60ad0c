// Message builders shared by trace lines, exceptions and assertions.
#include <Kelvo/DebugCpp.h>
#include <Kelvo/FmtUtilCpp.h>
#include <Kelvo/FmtraceCpp.h>

#include <cstring>

#include "TraceLine.h"

namespace Kelvo {
namespace Fmt {
namespace Impl {

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "copyLiteral reads words little-endian");

// Writes into a fmt buffer's spare room through a raw pointer: room is made
// once per piece instead of being checked at every byte; done() sets the size.
template <typename Buffer>
class RawWriter {
  public:
    explicit RawWriter(Buffer& buffer) : buffer_(buffer), to_(buffer.data() + buffer.size()) {}

    // Makes room for n more bytes at to().
    [[gnu::always_inline]] char* room(size_t n) {
        const size_t used = static_cast<size_t>(to_ - buffer_.data());
        if (buffer_.capacity() - used < n) {
            buffer_.resize(used);  // growing keeps only what the size covers
            buffer_.reserve(used + n);
            to_ = buffer_.data() + used;
        }
        return to_;
    }
    void advance(size_t n) { to_ += n; }
    [[gnu::always_inline]] void append(const char* text, size_t n) {
        Kelvo::Impl::copyBytes(room(n), text, n);
        to_ += n;
    }
    void done() { buffer_.resize(static_cast<size_t>(to_ - buffer_.data())); }

  private:
    Buffer& buffer_;
    char* to_;
};

// Copies text from `from` up to its first brace (or to end), to `to`, which
// has room for end - from + 8 bytes; returns where it stopped. Eight bytes at
// a time: with bits 1 and 2 cleared, a byte reads 0x79 only if it is '{',
// '}', 'y' or DEL, so zero bytes of v mark candidates, checked one by one.
[[gnu::always_inline]] inline const char* copyLiteral(char* to, const char* from, const char* end) {
    constexpr uint64_t ones = 0x0101010101010101, highs = ones * 0x80;
    const auto isBrace = [](char c) { return c == '{' || c == '}'; };
    while (end - from >= 8) {
        uint64_t word;
        std::memcpy(&word, from, 8);
        std::memcpy(to, &word, 8);
        const uint64_t v = (word & ~(ones * 6)) ^ (ones * 0x79);
        // The lowest set bit marks the first zero byte exactly.
        const uint64_t candidates = (v - ones) & ~v & highs;
        const size_t skip = candidates ? __builtin_ctzll(candidates) / 8 : 8;
        from += skip;
        to += skip;
        if (skip < 8) {
            if (isBrace(*from)) {
                return from;
            }
            *to++ = *from++;
        }
    }
    while (from != end && !isBrace(*from)) {
        *to++ = *from++;
    }
    return from;
}

// Appends one argument of a "{}" field as fmt would: integers, booleans,
// characters and strings. Returns false for any other type (and for a null
// string or a missing argument, which fmt reports).
template <typename Buffer>
struct PlainField {
    RawWriter<Buffer>& out;

    template <typename Integer>
    bool appendInteger(Integer value) {
        const fmt::format_int digits(value);
        out.append(digits.data(), digits.size());
        return true;
    }
    bool operator()(int value) { return appendInteger(value); }
    bool operator()(unsigned value) { return appendInteger(value); }
    bool operator()(long long value) { return appendInteger(value); }
    bool operator()(unsigned long long value) { return appendInteger(value); }
    bool operator()(bool value) {
        value ? out.append("true", 4) : out.append("false", 5);
        return true;
    }
    bool operator()(char value) {
        out.append(&value, 1);
        return true;
    }
    bool operator()(const char* value) {
        if (value == nullptr) {
            return false;
        }
        out.append(value, std::strlen(value));
        return true;
    }
    bool operator()(fmt::string_view value) {
        out.append(value.data(), value.size());
        return true;
    }
    template <typename Other>
    bool operator()(Other) {
        return false;
    }
};

// Almost every message is literal text and bare "{}" fields of integers and
// strings. Those are written here with plain copies, at about half the
// cost of fmt's general parser; anything else (a width or precision, an argument id,
// an escaped brace, another type) is left to fmt, which then formats the whole
// message. Returns false, with buffer as it was, in that case.
template <typename Buffer>
bool appendPlainFields(Buffer& buffer, fmt::string_view format, fmt::format_args args) {
    const size_t start = buffer.size();
    RawWriter<Buffer> out(buffer);
    const char* text = format.data();
    const char* const end = text + format.size();
    int next = 0;
    while (true) {
        const char* brace = copyLiteral(out.room(static_cast<size_t>(end - text) + 8), text, end);
        out.advance(static_cast<size_t>(brace - text));
        if (brace == end) {
            out.done();
            return true;
        }
        if (*brace == '}' || end - brace < 2 || brace[1] != '}' ||
            !fmt::visit_format_arg(PlainField<Buffer>{out}, args.get(next++))) {
            buffer.resize(start);
            return false;
        }
        text = brace + 2;
    }
}

// "Class::func() " when isMember, then the formatted message, appended to a
// message buffer or straight to a trace line.
template <typename Buffer>
void appendMessage(Buffer& buffer, bool isMember, const char* funcName, const char* className,
                   fmt::string_view format, fmt::format_args args) {
    if (isMember) {
        KELVO_ASSERT(funcName && className);
        buffer.append(fmt::string_view(className));
        buffer.append(fmt::string_view("::"));
        buffer.append(fmt::string_view(funcName));
        buffer.append(fmt::string_view("() "));
    }
    if (!appendPlainFields(buffer, format, args)) {
        fmt::vformat_to(fmt::appender(buffer), format, args);
    }
}

}  // namespace

void buildMessageBufferInternal(MessageBuffer& buffer, bool isMember, const char* funcName,
                                const char* className, fmt::string_view format,
                                fmt::format_args args) {
    appendMessage(buffer, isMember, funcName, className, format, args);
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
    Kelvo::Impl::TraceLine out;
    Kelvo::Impl::traceLineStart(out, level, handle, file, funcName, line);
    const size_t prefixLength = out.size();
    appendMessage(out, isMember, funcName, className, format, args);
    Kelvo::Impl::traceLineWrite(out, handle, level, prefixLength);
}

void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handle, const char* file,
                  const char* func, int line) {
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
