// Named trace handles and the registry that decides their levels.
//
// A handle carries a ten-level mask (bit n for level n). Masks are set
// centrally from TRACE and from set/clear calls, by exact name or by name
// prefix, and propagate to the live handles. Handles are shared: they are owned
// by the shared pointers handed out by getDebugHandler. Any thread may trace
// and use the registry.
//
// Shared across threads: the registry (handlerMap_, both control maps and the
// controls' masks) is guarded by the global lock. A handle's mask and the eight
// trace-format switches are written under that lock (enabledIs without it) and
// read by every trace without it, so they are relaxed atomics: testing a level
// is one relaxed load and one bit test, and a change may reach another thread's
// next line late, or a line only partly. Names are fixed at construction.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>
#include <unordered_map>

#include "KelvoBase.h"

namespace Kelvo {
namespace Platform {

// A message composed with stream insertion before it is handed to dump().
class KELVO_EXPORT DebugStream : public std::stringstream {
  public:
    DebugStream() = default;
};

class KELVO_EXPORT DebugHandler : public std::enable_shared_from_this<DebugHandler> {
  public:
    static constexpr uint32_t allLevels = 0x3ff;

    // A handle that owns its mask.
    DebugHandler(const String& name, uint32_t levels, bool fixedLevels);
    // A handle that reads its mask from storage owned elsewhere; no factory
    // makes one, but the layout of a handle allows for it.
    DebugHandler(const String& name, std::atomic<uint32_t>* levelsPtr, bool fixedLevels);
    virtual ~DebugHandler();
    DebugHandler(const DebugHandler&) = delete;
    DebugHandler& operator=(const DebugHandler&) = delete;

    // Sets or clears bit (level % 32) of the handle's own mask; returns it.
    virtual uint32_t enabledIs(unsigned level, bool enabled) = 0;
    // Writes the text accumulated in stream as one trace line.
    virtual void dump(DebugStream& stream, unsigned level, const char* file, int line,
                      const char* func) const = 0;

    bool enabled(unsigned level) const noexcept {
        return (levelsPtr->load(std::memory_order_relaxed) >> level) & 1u;
    }

    std::atomic<uint32_t> levels;
    // The mask actually tested: &levels unless constructed with external storage.
    std::atomic<uint32_t>* levelsPtr;
    String name;
    // The registry never changes the mask of a handle with fixed levels.
    bool fixedLevels;
};

}  // namespace Platform

namespace Sarn {

class KELVO_EXPORT DebugHandler : public Platform::DebugHandler {
  public:
    using HandlerMap = std::multimap<String, DebugHandler*>;

    // Registers the handle in handlerMap_; the caller holds the global lock.
    DebugHandler(const String& name, int levels, bool fixedLevels) noexcept;
    ~DebugHandler() override;

    uint32_t enabledIs(unsigned level, bool enabled) override;
    void dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
              const char* func) const override;

    // name, "+" for fixed levels, "/", then the level digits or "*".
    String displayString() const;

    // Creates handlerMap_ if absent; the caller holds the global lock.
    static void initialize();
    static void printAll();

    // Every live handle by name; created on first use, never freed.
    static HandlerMap* handlerMap_;
};

class KELVO_EXPORT DebugControl {
  public:
    using SpecificMap = std::unordered_map<String, DebugControl*>;
    using WildcardMap = std::map<String, DebugControl*>;

    // Inserts itself into the map of its kind; the caller holds the global lock.
    DebugControl(const String& name, int levels, bool wildcard);
    ~DebugControl();
    DebugControl(const DebugControl&) = delete;
    DebugControl& operator=(const DebugControl&) = delete;

    // Digits 0-9 add their level, '*' adds all ten, anything else is ignored.
    static uint32_t parseLevels(const String& text);
    // A trailing '*' makes a prefix (returned without the '*').
    static String parseName(const String& text, bool& wildcard);
    // The wildcard control with the lexicographically smallest prefix of name,
    // or null; the caller holds the global lock.
    static DebugControl* findWildcard(String name);
    // A new handle for name with the levels the registry gives it.
    static std::shared_ptr<Platform::DebugHandler> get(const String& name,
                                                       bool warnOnWildcard = true) noexcept;
    // Adds levels to the controls and handles matching nameSpec.
    static void set(const String& nameSpec, const String& levelsSpec);
    // Removes levels from the controls and handles matching nameSpec.
    static void clear(const String& nameSpec, const String& levelsSpec);
    // Creates both control maps if absent; the caller holds the global lock.
    static void initialize();
    static void printAll();

    String displayString() const;

    String name;
    // Guarded by the global lock, like the maps.
    uint32_t levels;
    bool wildcard;

    static SpecificMap* debugsMap_;
    static WildcardMap* wildCardDebugsMap_;

    // Trace line fields, in output order; relaxed atomics (see the top).
    static std::atomic<bool> showDate_;
    static std::atomic<bool> showTime_;
    static std::atomic<bool> showPid_;
    static std::atomic<bool> showTid_;
    static std::atomic<bool> showHandleName_;
    static std::atomic<bool> showLevel_;
    static std::atomic<bool> showLineInfo_;
    static std::atomic<bool> showFuncName_;
};

}  // namespace Sarn

// Holds a share of a trace handle; the base or member through which
// components trace.
class KELVO_EXPORT Debuggable {
  public:
    Debuggable() = default;
    explicit Debuggable(std::shared_ptr<Platform::DebugHandler> handler)
        : debugHandler_(std::move(handler)) {}
    // Shares a handle that is already owned by a shared pointer.
    explicit Debuggable(Platform::DebugHandler& handler)
        : debugHandler_(handler.shared_from_this()) {}
    // A new handle from getDebugHandler(name).
    explicit Debuggable(const String& name);
    explicit Debuggable(const char* name) : Debuggable(String(name)) {}
    Debuggable(const Debuggable&) = default;
    Debuggable& operator=(const Debuggable&) = default;
    ~Debuggable() = default;

    Platform::DebugHandler* debugHandler() const noexcept { return debugHandler_.get(); }
    const std::shared_ptr<Platform::DebugHandler>& debugHandlerPtr() const noexcept {
        return debugHandler_;
    }

  private:
    std::shared_ptr<Platform::DebugHandler> debugHandler_;
};

namespace Platform {

// A new handle named name; never shared by name.
KELVO_EXPORT std::shared_ptr<DebugHandler> getDebugHandler(const String& name) noexcept;
// Deletes handle under the global lock; for handles not held by shared pointers,
// which only code outside the library makes.
KELVO_EXPORT void destroyDebugHandler(DebugHandler* handle);
// Applies a TRACE text ("name/levels,prefix*/levels,..."); null reads TRACE.
// Also (re)selects the trace file from TRACEFILE.
KELVO_EXPORT void setupKelvoDebug(const char* traceText);
// Removes the levels named by a TRACE-style text.
KELVO_EXPORT void clearKelvoDebug(const char* traceText);
// Prints every handle and control to standard output.
KELVO_EXPORT void dumpKelvoDebugMap();

// Chooses the trace line fields ("date,time,pid,tid,handle,level,line-info,
// func-name"); null reads TRACEFORMAT; "help" prints the usage.
KELVO_EXPORT void setTraceFormat(const char* fields);
KELVO_EXPORT void clearTraceFormat();
KELVO_EXPORT void printAllTraceFormat();
// Writes one trace line: the chosen fields, then len bytes of msg.
KELVO_EXPORT void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handle,
                               const char* file, const char* func, int line);

// A trace line about to be written; the views live only for the call.
struct ObservedTraceLine {
    const DebugHandler* handle;  // null for a line written without a handle
    unsigned level;
    std::string_view line;     // as it would be written, without the newline
    std::string_view message;  // line without its prefix fields
};

// One per process, off by default (function null), for tests and tools that
// need to see the lines of a handle. The function is called for every line
// written, on the tracing thread, under the global lock: it must not trace,
// and is best quick. Returning true keeps the line from the trace output.
// The level bit is still tested before a line is formatted, so an observer
// sees only lines of enabled levels and costs nothing on disabled ones.
struct TraceLineObserver {
    bool (*function)(void* context, const ObservedTraceLine& line) = nullptr;
    void* context = nullptr;
};
// Any thread; guarded by the global lock. Once it returns, the replaced
// observer is running on no thread and will not be called again.
KELVO_EXPORT void traceLineObserverIs(TraceLineObserver observer);
KELVO_EXPORT TraceLineObserver traceLineObserver();

}  // namespace Platform

// Traces "file:func:line: message" when level is enabled on handle, then
// fails the assertion with that text. Never returns.
[[noreturn]] KELVO_EXPORT void debugAndThrowAssertException(Platform::DebugHandler* handle,
                                                            unsigned level,
                                                            Platform::DebugStream& message,
                                                            const char* file, const char* func,
                                                            int line);
[[noreturn]] KELVO_EXPORT void debugAndThrowAssertException(Platform::DebugHandler& handle,
                                                            unsigned level,
                                                            Platform::DebugStream& message,
                                                            const char* file, const char* func,
                                                            int line);

}  // namespace Kelvo
