// Trace handles, the registry of trace controls, and the trace line writer.
#include <Kelvo/AllocatorCpp.h>
#include <Kelvo/DebugCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/LockingCpp.h>
#include <Kelvo/ThreadCpp.h>

#include "DebugImpl.h"
#include "TraceLine.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <mutex>
#include <vector>

namespace Kelvo {

using Platform::loco;
using Platform::LocoGuard;

// ---------------------------------------------------------------------------
// Handles

namespace Platform {

DebugHandler::DebugHandler(const String& name, uint32_t levels, bool fixedLevels)
    : levels(levels), levelsPtr(&this->levels), name(name), fixedLevels(fixedLevels) {}

DebugHandler::DebugHandler(const String& name, std::atomic<uint32_t>* levelsPtr, bool fixedLevels)
    : levels(0),
      levelsPtr(levelsPtr ? levelsPtr : &this->levels),
      name(name),
      fixedLevels(fixedLevels) {}

DebugHandler::~DebugHandler() = default;

}  // namespace Platform

namespace Sarn {

DebugHandler::HandlerMap* DebugHandler::handlerMap_ = nullptr;
DebugControl::SpecificMap* DebugControl::debugsMap_ = nullptr;
DebugControl::WildcardMap* DebugControl::wildCardDebugsMap_ = nullptr;

std::atomic<bool> DebugControl::showDate_ = false;
std::atomic<bool> DebugControl::showTime_ = false;
std::atomic<bool> DebugControl::showPid_ = false;
std::atomic<bool> DebugControl::showTid_ = false;
std::atomic<bool> DebugControl::showHandleName_ = false;
std::atomic<bool> DebugControl::showLevel_ = false;
std::atomic<bool> DebugControl::showLineInfo_ = false;
std::atomic<bool> DebugControl::showFuncName_ = false;

namespace {

String levelDigits(uint32_t mask, bool all) {
    if (all) {
        return "*";
    }
    String digits;
    for (unsigned level = 0; level < 10; ++level) {
        if (mask & (1u << level)) {
            digits += static_cast<char>('0' + level);
        }
    }
    return digits;
}

bool startsWith(const String& text, const String& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

DebugHandler::DebugHandler(const String& name, int levels, bool fixedLevels) noexcept
    : Platform::DebugHandler(name, static_cast<uint32_t>(levels), fixedLevels) {
    KELVO_CHECK(Kelvo::Platform::loco().owns_lock() && "DebugHandler::DebugHandler() no loco");
    initialize();
    handlerMap_->emplace(this->name, this);
}

DebugHandler::~DebugHandler() {
    LocoGuard guard;
    auto [first, last] = handlerMap_->equal_range(name);
    for (auto it = first; it != last; ++it) {
        if (it->second == this) {
            handlerMap_->erase(it);
            break;
        }
    }
}

uint32_t DebugHandler::enabledIs(unsigned level, bool enabled) {
    KELVO_ASSERTM(levelsPtr == &levels,
                  "Cannot use this with a non-null levelsPtr passed to constructor");
    // Read-modify-write: the registry may change the same mask concurrently.
    const uint32_t bit = 1u << (level % 32);
    return enabled ? levels.fetch_or(bit, std::memory_order_relaxed) | bit
                   : levels.fetch_and(~bit, std::memory_order_relaxed) & ~bit;
}

void DebugHandler::dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
                        const char* func) const {
    const String text = stream.str();
    Platform::dumpDebugMsg(text.data(), text.size(), level, this, file, func, line);
}

String DebugHandler::displayString() const {
    return name + (fixedLevels ? "+" : "") + "/" +
           levelDigits(levelsPtr->load(std::memory_order_relaxed),
                       levels.load(std::memory_order_relaxed) == Platform::DebugHandler::allLevels);
}

void DebugHandler::initialize() {
    KELVO_ASSERTM(loco().owns_lock(), "no loco");
    if (handlerMap_ == nullptr) {
        handlerMap_ = new HandlerMap();
    }
}

void DebugHandler::printAll() {
    LocoGuard guard;
    initialize();
    std::cout << "Handlers:\n";
    for (const auto& entry : *handlerMap_) {
        std::cout << "    " << entry.second->displayString() << "\n";
    }
    std::cout.flush();
}

// ---------------------------------------------------------------------------
// Controls

DebugControl::DebugControl(const String& name, int levels, bool wildcard)
    : name(name), levels(static_cast<uint32_t>(levels)), wildcard(wildcard) {
    KELVO_CHECK(Kelvo::Platform::loco().owns_lock() && "DebugControl::DebugControl() no loco");
    initialize();
    if (wildcard) {
        (*wildCardDebugsMap_)[name] = this;
    } else {
        (*debugsMap_)[name] = this;
    }
}

DebugControl::~DebugControl() {
    KELVO_CHECK(Kelvo::Platform::loco().owns_lock() && "DebugControl::~DebugControl() no loco");
    if (wildcard) {
        auto it = wildCardDebugsMap_->find(name);
        if (it != wildCardDebugsMap_->end() && it->second == this) {
            wildCardDebugsMap_->erase(it);
        }
    } else {
        auto it = debugsMap_->find(name);
        if (it != debugsMap_->end() && it->second == this) {
            debugsMap_->erase(it);
        }
    }
}

uint32_t DebugControl::parseLevels(const String& text) {
    uint32_t mask = 0;
    for (const char c : text) {
        if (c >= '0' && c <= '9') {
            mask |= 1u << (c - '0');
        } else if (c == '*') {
            mask |= Platform::DebugHandler::allLevels;
        }
    }
    return mask;
}

String DebugControl::parseName(const String& text, bool& wildcard) {
    wildcard = !text.empty() && text.back() == '*';
    return wildcard ? text.substr(0, text.size() - 1) : text;
}

DebugControl* DebugControl::findWildcard(String name) {
    KELVO_CHECK(Kelvo::Platform::loco().owns_lock() && "DebugControl::findWildcard() no loco");
    // Ascending key order: the smallest matching prefix wins, not the longest.
    for (const auto& [prefix, control] : *wildCardDebugsMap_) {
        if (startsWith(name, prefix)) {
            return control;
        }
    }
    return nullptr;
}

std::shared_ptr<Platform::DebugHandler> DebugControl::get(const String& name,
                                                          bool warnOnWildcard) noexcept {
    bool wildcard = false;
    const String lookup = parseName(name, wildcard);
    if (wildcard && warnOnWildcard) {
        std::cerr << "Kelvo::Debug - Warning"
                  << " - Wild card specifier ignored getting handler for " << name << " using "
                  << lookup << "\n";
    }
    LocoGuard guard;
    initialize();
    uint32_t mask = 0;
    if (auto it = debugsMap_->find(lookup); it != debugsMap_->end()) {
        mask = it->second->levels;
    } else if (DebugControl* control = findWildcard(lookup)) {
        mask = control->levels;
    }
    return allocateShared<Sarn::DebugHandler>(name, static_cast<int>(mask), false);
}

void DebugControl::set(const String& nameSpec, const String& levelsSpec) {
    bool wildcard = false;
    const String name = parseName(nameSpec, wildcard);
    const uint32_t add = parseLevels(levelsSpec);
    // An item with no levels still makes its control: later wildcard items
    // reach it, so "Foo,Fo*/3" gives a new handle Foo level 3, which it would
    // not get from its smallest matching prefix alone.
    LocoGuard guard;
    initialize();
    DebugHandler::initialize();
    auto& handlers = *DebugHandler::handlerMap_;

    // The control for the name, with the levels added; a new one starts from
    // the levels its name inherits from the wildcards.
    DebugControl* control = nullptr;
    auto found = [&](auto& map) {
        auto it = map.find(name);
        return it == map.end() ? nullptr : it->second;
    };
    if ((control = wildcard ? found(*wildCardDebugsMap_) : found(*debugsMap_))) {
        control->levels |= add;
    } else {
        uint32_t mask = add;
        if (DebugControl* inherited = findWildcard(name)) {
            mask |= inherited->levels;
        }
        control = new DebugControl(name, static_cast<int>(mask), wildcard);
    }

    if (!wildcard) {
        auto [first, last] = handlers.equal_range(name);
        for (auto it = first; it != last; ++it) {
            if (!it->second->fixedLevels) {
                it->second->levels.fetch_or(control->levels, std::memory_order_relaxed);
            }
        }
        return;
    }

    const uint32_t mask = control->levels;
    for (auto it = wildCardDebugsMap_->lower_bound(name);
         it != wildCardDebugsMap_->end() && startsWith(it->first, name); ++it) {
        it->second->levels |= mask;
    }
    for (auto& [specificName, specific] : *debugsMap_) {
        if (startsWith(specificName, name)) {
            specific->levels |= mask;
        }
    }
    for (auto it = handlers.lower_bound(name); it != handlers.end() && startsWith(it->first, name);
         ++it) {
        if (!it->second->fixedLevels) {
            it->second->levels.fetch_or(mask, std::memory_order_relaxed);
        }
    }
}

void DebugControl::clear(const String& nameSpec, const String& levelsSpec) {
    bool wildcard = false;
    const String name = parseName(nameSpec, wildcard);
    const uint32_t remove = parseLevels(levelsSpec);
    LocoGuard guard;
    initialize();
    DebugHandler::initialize();
    auto& handlers = *DebugHandler::handlerMap_;

    std::vector<DebugControl*> emptied;
    auto strip = [&](DebugControl* control) {
        control->levels &= ~remove;
        if (control->levels == 0) {
            emptied.push_back(control);
        }
    };
    auto matches = [&](const String& candidate) {
        return wildcard ? startsWith(candidate, name) : candidate == name;
    };

    if (wildcard) {
        for (auto it = wildCardDebugsMap_->lower_bound(name);
             it != wildCardDebugsMap_->end() && startsWith(it->first, name); ++it) {
            strip(it->second);
        }
        for (auto& [specificName, specific] : *debugsMap_) {
            if (startsWith(specificName, name)) {
                strip(specific);
            }
        }
    } else if (auto it = debugsMap_->find(name); it != debugsMap_->end()) {
        strip(it->second);
    }
    for (auto it = handlers.lower_bound(name); it != handlers.end() && matches(it->first); ++it) {
        if (!it->second->fixedLevels) {
            it->second->levels.fetch_and(~remove, std::memory_order_relaxed);
        }
    }
    for (DebugControl* control : emptied) {
        delete control;
    }
}

void DebugControl::initialize() {
    KELVO_CHECK(Kelvo::Platform::loco().owns_lock() && "DebugControl::initialize() no loco");
    if (debugsMap_ == nullptr) {
        debugsMap_ = new SpecificMap();
    }
    if (wildCardDebugsMap_ == nullptr) {
        wildCardDebugsMap_ = new WildcardMap();
    }
}

String DebugControl::displayString() const {
    return name + (wildcard ? "*" : "") + "/" +
           levelDigits(levels, (levels & Platform::DebugHandler::allLevels) ==
                                   Platform::DebugHandler::allLevels);
}

void DebugControl::printAll() {
    LocoGuard guard;
    initialize();
    std::cout << "Specific:\n";
    for (const auto& entry : *debugsMap_) {
        std::cout << "    " << entry.second->displayString() << "\n";
    }
    std::cout << "Wildcard:\n";
    for (const auto& entry : *wildCardDebugsMap_) {
        std::cout << "    " << entry.second->displayString() << "\n";
    }
    std::cout.flush();
}

}  // namespace Sarn

Debuggable::Debuggable(const String& name) : debugHandler_(Platform::getDebugHandler(name)) {}

// ---------------------------------------------------------------------------
// Trace output

namespace {

// The trace file; guarded by the global lock. -1 when lines go to stderr.
int traceFd_ = -1;
// Guarded by the global lock; empty unless a test or tool installs one.
Platform::TraceLineObserver traceLineObserver_;
// Reached from the load-time set-up, which runs before this file's ordinary
// static objects are constructed: built on first use and never destroyed.
String& traceFileName() {
    static String* const name = new String();
    return *name;
}

void selectTraceFile() {
    const char* wanted = std::getenv("TRACEFILE");
    if (wanted == nullptr || (traceFd_ >= 0 && traceFileName() == wanted)) {
        return;
    }
    if (traceFd_ >= 0) {
        ::close(traceFd_);
        traceFd_ = -1;
    }
    traceFileName().clear();
    // Opening must not block: a FIFO without a reader (ENXIO) is as unopenable
    // as a missing directory. Lines are then written in blocking mode, whole.
    const int fd = ::open(wanted, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
    if (fd >= 0) {
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    }
    if (fd < 0) {
        std::cerr << "Error opening TRACEFILE=" << wanted << "\n"
                  << "Defaulting to std::cerr for trace output.\n";
        return;
    }
    traceFd_ = fd;
    traceFileName() = wanted;
}

template <typename Apply>
void forEachItem(const char* traceText, Apply apply) {
    const String text(traceText);
    size_t start = 0;
    while (true) {
        const size_t comma = text.find(',', start);
        const String item =
            text.substr(start, comma == String::npos ? String::npos : comma - start);
        const size_t slash = item.find('/');
        if (slash == String::npos) {
            apply(item, String());
        } else {
            apply(item.substr(0, slash), item.substr(slash + 1));
        }
        if (comma == String::npos) {
            break;
        }
        start = comma + 1;
    }
}

constexpr const char* fieldNames[] = {"date",   "time",  "pid",       "tid",
                                      "handle", "level", "line-info", "func-name"};
std::atomic<bool>* const fieldSwitches[] = {
    &Sarn::DebugControl::showDate_,       &Sarn::DebugControl::showTime_,
    &Sarn::DebugControl::showPid_,        &Sarn::DebugControl::showTid_,
    &Sarn::DebugControl::showHandleName_, &Sarn::DebugControl::showLevel_,
    &Sarn::DebugControl::showLineInfo_,   &Sarn::DebugControl::showFuncName_};
constexpr size_t fieldCount = sizeof fieldNames / sizeof fieldNames[0];

// Local time changes once a second: each thread keeps the broken-down time
// of the last second it printed, so a line costs no time-zone conversion.
struct LocalSecond {
    time_t second = -1;
    bool valid = false;
    char date[16];  // "YYYY-MM-DD "
    size_t dateLength = 0;
    char time[16];  // "HH:MM:SS"
    size_t timeLength = 0;
};
thread_local LocalSecond localSecond_;

const LocalSecond& localSecond(time_t now) {
    LocalSecond& cache = localSecond_;
    if (cache.second != now) {
        struct tm parts;
        cache.second = now;
        cache.valid = ::localtime_r(&now, &parts) != nullptr;
        if (cache.valid) {
            cache.dateLength = std::strftime(cache.date, sizeof cache.date, "%Y-%m-%d ", &parts);
            cache.timeLength = std::strftime(cache.time, sizeof cache.time, "%H:%M:%S", &parts);
        }
    }
    return cache;
}

// Each piece of the prefix is a plain copy into room reserved up front.
class PrefixWriter {
  public:
    explicit PrefixWriter(char* out) : out_(out) {}
    void append(const char* text, size_t length) {
        Impl::copyBytes(out_, text, length);
        out_ += length;
    }
    void push(char c) { *out_++ = c; }
    // A field and its separating space.
    void field(const char* text, size_t length) {
        append(text, length);
        push(' ');
    }
    void field(const fmt::format_int& number) { field(number.data(), number.size()); }
    char* end() const { return out_; }

  private:
    char* out_;
};

// One write(2) of the whole line: a gathering writev costs measurably more.
void writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;  // Write errors on the trace output are not reported.
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
}

}  // namespace

namespace Platform {

std::shared_ptr<DebugHandler> getDebugHandler(const String& name) noexcept {
    return Sarn::DebugControl::get(name);
}

void destroyDebugHandler(DebugHandler* handle) {
    LocoGuard guard;
    delete handle;
}

}  // namespace Platform

namespace Impl {

const Platform::DebugHandler* debugHandlerForLife(const String& name) {
    // Never destroyed, and holding what it keeps where a leak check sees it.
    static auto* const kept = new std::vector<std::shared_ptr<Platform::DebugHandler>>();
    static std::mutex keptMutex;
    std::shared_ptr<Platform::DebugHandler> handle = Platform::getDebugHandler(name);
    std::lock_guard<std::mutex> guard(keptMutex);
    kept->push_back(std::move(handle));
    return kept->back().get();
}

}  // namespace Impl

namespace Platform {

void setupKelvoDebug(const char* traceText) {
    LocoGuard guard;
    selectTraceFile();
    const char* text = traceText ? traceText : std::getenv("TRACE");
    if (text == nullptr || (traceText == nullptr && *text == '\0')) {
        return;
    }
    forEachItem(text, [](const String& name, const String& levels) {
        Sarn::DebugControl::set(name, levels);
    });
}

void traceLineObserverIs(TraceLineObserver observer) {
    LocoGuard guard;
    traceLineObserver_ = observer;
}

TraceLineObserver traceLineObserver() {
    LocoGuard guard;
    return traceLineObserver_;
}

void clearKelvoDebug(const char* traceText) {
    if (traceText == nullptr) {
        return;
    }
    LocoGuard guard;
    forEachItem(traceText, [](const String& name, const String& levels) {
        Sarn::DebugControl::clear(name, levels);
    });
}

void dumpKelvoDebugMap() {
    Sarn::DebugHandler::printAll();
    Sarn::DebugControl::printAll();
}

void setTraceFormat(const char* fields) {
    const char* text = fields ? fields : std::getenv("TRACEFORMAT");
    if (text == nullptr) {
        return;
    }
    if (std::strcmp(text, "help") == 0) {
        std::cerr << "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n";
        for (const char* name : fieldNames) {
            std::cerr << "  " << name << "\n";
        }
        std::cerr.flush();
        return;
    }
    bool chosen[fieldCount] = {};
    const String copy(text);
    size_t start = 0;
    while (start <= copy.size()) {
        size_t comma = copy.find(',', start);
        if (comma == String::npos) {
            comma = copy.size();
        }
        const String piece = copy.substr(start, comma - start);
        start = comma + 1;
        if (piece.empty()) {
            continue;
        }
        size_t field = 0;
        while (field < fieldCount && piece != fieldNames[field]) {
            ++field;
        }
        if (field == fieldCount) {
            std::cerr << piece << " is an invalid field in TRACEFORMAT\n"
                      << "Set TRACEFORMAT=help for more information.\n";
            std::cerr.flush();
            return;
        }
        chosen[field] = true;
    }
    LocoGuard guard;
    for (size_t field = 0; field < fieldCount; ++field) {
        fieldSwitches[field]->store(chosen[field], std::memory_order_relaxed);
    }
}

void clearTraceFormat() {
    LocoGuard guard;
    for (std::atomic<bool>* field : fieldSwitches) {
        field->store(false, std::memory_order_relaxed);
    }
}

void printAllTraceFormat() {
    LocoGuard guard;
    for (size_t field = 0; field < fieldCount; ++field) {
        std::cout << (field ? " " : "")
                  << (fieldSwitches[field]->load(std::memory_order_relaxed) ? 1 : 0);
    }
    std::cout << std::endl;
}

void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handle, const char* file,
                  const char* func, int line) {
    Impl::TraceLine out;
    Impl::traceLineStart(out, level, handle, file, func, line);
    const size_t prefixLength = out.size();
    out.append(msg, msg + len);
    Impl::traceLineWrite(out, handle, level, prefixLength);
}

}  // namespace Platform

namespace Impl {

void traceLineStart(TraceLine& out, uint32_t level, const void* handle, const char* file,
                    const char* func, int line) {
    using Sarn::DebugControl;
    // Each switch is read once: a concurrent change may apply to this line
    // only partly, but never tears a field.
    constexpr auto relaxed = std::memory_order_relaxed;
    const bool showDate = DebugControl::showDate_.load(relaxed);
    const bool showTime = DebugControl::showTime_.load(relaxed);
    const String* name = handle != nullptr && DebugControl::showHandleName_.load(relaxed)
                             ? &static_cast<const Platform::DebugHandler*>(handle)->name
                             : nullptr;
    const char* fileName = nullptr;
    size_t fileNameLength = 0;
    if (file != nullptr && DebugControl::showLineInfo_.load(relaxed)) {
        const char* slash = std::strrchr(file, '/');
        fileName = slash ? slash + 1 : file;
        fileNameLength = std::strlen(fileName);
    }
    const char* funcName = DebugControl::showFuncName_.load(relaxed) ? func : nullptr;
    const size_t funcNameLength = funcName ? std::strlen(funcName) : 0;

    // Date, time, pid, tid, level and line number with their separators.
    constexpr size_t numericFieldsRoom = 96;
    const size_t start = out.size();
    out.resize(start + numericFieldsRoom + (name ? name->size() : 0) + fileNameLength +
               funcNameLength);
    PrefixWriter prefix(out.data() + start);
    if (showDate || showTime) {
        struct timeval now;
        ::gettimeofday(&now, nullptr);
        const LocalSecond& local = localSecond(now.tv_sec);
        if (local.valid) {
            if (showDate) {
                prefix.append(local.date, local.dateLength);
            }
            if (showTime) {
                prefix.append(local.time, local.timeLength);
                prefix.push('.');
                prefix.field(fmt::format_int(static_cast<long>(now.tv_usec)));
            }
        }
    }
    if (DebugControl::showPid_.load(relaxed)) {
        prefix.field(fmt::format_int(::getpid()));
    }
    if (DebugControl::showTid_.load(relaxed)) {
        prefix.field(fmt::format_int(Kelvo::gettid()));
    }
    if (name != nullptr) {
        prefix.field(name->data(), name->size());
    }
    if (DebugControl::showLevel_.load(relaxed)) {
        prefix.field(fmt::format_int(level));
    }
    if (fileName != nullptr) {
        prefix.append(fileName, fileNameLength);
        prefix.push(':');
        prefix.field(fmt::format_int(line));
    }
    if (funcName != nullptr) {
        prefix.field(funcName, funcNameLength);
    }
    out.resize(static_cast<size_t>(prefix.end() - out.data()));
}

void traceLineWrite(TraceLine& out, const void* handle, uint32_t level, size_t prefixLength) {
    out.push_back('\n');
    LocoGuard guard;
    // Read under the lock that its setter takes: once traceLineObserverIs
    // returns, the observer it replaced runs on no thread.
    if (traceLineObserver_.function != nullptr) {
        const std::string_view line(out.data(), out.size() - 1);
        const Platform::ObservedTraceLine observed{
            static_cast<const Platform::DebugHandler*>(handle), level, line,
            line.substr(prefixLength)};
        if (traceLineObserver_.function(traceLineObserver_.context, observed)) {
            return;
        }
    }
    writeAll(traceFd_ >= 0 ? traceFd_ : STDERR_FILENO, out.data(), out.size());
}

}  // namespace Impl

[[noreturn]] void debugAndThrowAssertException(Platform::DebugHandler* handle, unsigned level,
                                               Platform::DebugStream& message, const char* file,
                                               const char* func, int line) {
    Platform::DebugStream composed;
    composed << file << ":" << func << ":" << line << ": " << message.str();
    if (handle != nullptr && handle->enabled(level)) {
        handle->dump(composed, level, file, line, func);
    }
    AssertException::throwException(composed.str());
}

[[noreturn]] void debugAndThrowAssertException(Platform::DebugHandler& handle, unsigned level,
                                               Platform::DebugStream& message, const char* file,
                                               const char* func, int line) {
    debugAndThrowAssertException(&handle, level, message, file, func, line);
}

// ---------------------------------------------------------------------------
// Load time: default levels, then TRACE, then the default and TRACEFORMAT.
// First among the library's initialisers so that every module traces with the
// configured format from its own start-up on.

namespace {
struct SetUpTracing {
    SetUpTracing() {
        // This runs before the standard streams' own initialiser would.
        static std::ios_base::Init streams;
        // setupKelvoDebug("Kelvo*/01") without its trace file selection: the
        // TRACE call right after selects it, so a bad TRACEFILE is reported once.
        forEachItem("Kelvo*/01", [](const String& name, const String& levels) {
            Sarn::DebugControl::set(name, levels);
        });
        Platform::setupKelvoDebug(nullptr);
        Platform::setTraceFormat("date,time,tid,handle,level");
        Platform::setTraceFormat(nullptr);
    }
} setUpTracing __attribute__((init_priority(101)));
}  // namespace

}  // namespace Kelvo
