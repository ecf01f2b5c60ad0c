// The process terminate handler: says what the process died of and where.
#include <Kelvo/BacktraceCpp.h>
#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/TypeNameCpp.h>

#include <cxxabi.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>

namespace Kelvo {
namespace {

// Writes straight to the descriptor: the handler must not depend on the state
// of the standard streams, which may be what broke.
void writeAll(const String& text) noexcept {
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n <= 0) {
            return;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
}

[[noreturn]] void terminateHandler() noexcept {
    String report;
    bool appendStack = true;
    if (std::exception_ptr active = std::current_exception()) {
        const std::type_info* type = abi::__cxa_current_exception_type();
        writeAll("terminate called after throwing an instance of '" +
                 (type ? typeName(type->name()) : String()) + "'\n");
        try {
            std::rethrow_exception(active);
        } catch (const Exception& e) {
            // Its text already holds the backtrace of the throw point.
            report = "  what(): ";
            report += e.what();
            appendStack = false;
        } catch (const std::exception& e) {
            report = "  what(): ";
            report += e.what();
        } catch (...) {
        }
    }
    if (appendStack && Backtrace::verbosity() == 1) {
        // The stack starts on its own line, as it does in a library exception's what().
        if (!report.empty()) {
            report += '\n';
        }
        report += Backtrace(true).pretty();
    }
    if (!report.empty()) {
        writeAll(report + "\n");
    }
    std::abort();
}

struct InstallTerminateHandler {
    InstallTerminateHandler() { std::set_terminate(terminateHandler); }
} installTerminateHandler __attribute__((init_priority(102)));

}  // namespace
}  // namespace Kelvo
