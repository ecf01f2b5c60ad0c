#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/FmtraceCpp.h>

#include <atomic>
#include <iostream>

// glibc's assertion reporter; declared here because <assert.h> hides it under NDEBUG.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((noreturn));

namespace Kelvo {

namespace {
std::atomic<bool> throwOnAssertFail_ = false;
}

Exception::Exception(const String& message, bool captureBacktrace)
    : backtrace_(false), message_(message) {
    if (captureBacktrace) {
        backtrace_.unwind();
    }
}

Exception::~Exception() = default;

const char* Exception::name() const noexcept {
    return "Kelvo::Exception";
}

String Exception::msg() const {
    String text(name());
    text += "(\"";
    text += message_;
    text += "\")";
    return text;
}

// noexcept: a failure to build the text terminates, as it must not be lost.
const char* Exception::what() const noexcept {
    if (what_.empty()) {
        what_ = msg() + "\n" + backtrace_.pretty();
    }
    return what_.c_str();
}

#define KELVO_DEFINE_EXCEPTION(Class)                   \
    const char* Class::name() const noexcept {          \
        return "Kelvo::" #Class;                        \
    }                                                   \
    void Class::throwException(const String& message) { \
        throw Class(message);                           \
    }

KELVO_DEFINE_EXCEPTION(MemoryResourceException)
KELVO_DEFINE_EXCEPTION(NoPermissionException)
KELVO_DEFINE_EXCEPTION(UnimplementedException)
KELVO_DEFINE_EXCEPTION(InvalidInitializeException)
KELVO_DEFINE_EXCEPTION(RuntimeException)
KELVO_DEFINE_EXCEPTION(OutOfRangeException)
KELVO_DEFINE_EXCEPTION(CorruptionDetectedException)
KELVO_DEFINE_EXCEPTION(InvalidSizeException)

#undef KELVO_DEFINE_EXCEPTION

const char* AssertException::name() const noexcept {
    return "Kelvo::AssertException";
}

void AssertException::throwException(const String& message) {
    if (throwOnAssertFail_.load(std::memory_order_relaxed)) {
        throw AssertException(message);
    }
    std::cerr << "Kelvo::Assert aborting because: " << message << std::endl;
    std::terminate();
}

void throwOnAssertFailIs(bool throwOnAssertFail) {
    throwOnAssertFail_.store(throwOnAssertFail, std::memory_order_relaxed);
}
bool throwOnAssertFail() {
    return throwOnAssertFail_.load(std::memory_order_relaxed);
}

namespace Platform {

void refCountingEnabledIs(bool) {
    KELVO_ASSERT_FAIL("not available in libKelvo.so");
}
bool refCountingEnabled() {
    KELVO_ASSERT_FAIL("not available in libKelvo.so");
}
bool releaseMode() {
    return false;
}

}  // namespace Platform

namespace Impl {

void assertFail(const char* file, int line, const char* func, const char* prettyFunction,
                const char* condition) {
    assertFail(file, line, func, prettyFunction, condition, "{}", condition);
}

void checkFail(const char* condition, const char* file, int line, const char* func) noexcept {
    __assert_fail(condition, file, static_cast<unsigned>(line), func);
}

const char* memberClassName(const char* prettyFunction, const char* func, char* out,
                            size_t size) noexcept {
    out[0] = '\0';
    if (prettyFunction == nullptr || func == nullptr || size == 0) {
        return out;
    }
    const std::string_view pretty(prettyFunction);
    const std::string_view name(func);
    // The member's own name stands right after the last "::" that precedes
    // its parameter list.
    size_t at = std::string_view::npos;
    for (size_t pos = pretty.find(name); pos != std::string_view::npos;
         pos = pretty.find(name, pos + 1)) {
        const size_t after = pos + name.size();
        if (pos >= 2 && pretty.substr(pos - 2, 2) == "::" && after < pretty.size() &&
            (pretty[after] == '(' || pretty[after] == '<')) {
            at = pos - 2;
            break;
        }
    }
    if (at == std::string_view::npos) {
        return out;
    }
    // Walk back over the class, skipping its template arguments.
    size_t end = at;
    size_t i = at;
    int depth = 0;
    while (i > 0) {
        const char c = pretty[i - 1];
        if (c == '>') {
            ++depth;
        } else if (c == '<') {
            // The class name ends where its outermost template arguments begin.
            if (--depth == 0) {
                end = i - 1;
            }
        } else if (depth == 0 && (c == ':' || c == ' ' || c == '*' || c == '&')) {
            break;
        }
        --i;
    }
    if (end > at || end < i) {
        end = at;
    }
    const size_t length = std::min(end - i, size - 1);
    pretty.copy(out, length, i);
    out[length] = '\0';
    return out;
}

}  // namespace Impl

}  // namespace Kelvo
