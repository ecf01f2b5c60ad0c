// Run-time extensions ("plug-ins"), the named-counters facade that uses one,
// and the check against two incompatible platform libraries in one process.
//
// A plug-in is a shared object lib<name>.so, found on the dynamic loader's
// search path, whose static initialisation registers one Plugin under its
// name. Plug-ins stay loaded, and registered, until the process ends; the
// registry holds plain pointers to objects the plug-ins own. Any thread may
// load or register: both run under the global lock.
#pragma once

#include <cstdint>

#include "KelvoBase.h"

// The value of this symbol that the process sees tells which platform library
// the dynamic loader bound first; see Kelvo::checkIncompat.
extern "C" KELVO_EXPORT int32_t platformLibPresenceFlag;

namespace Kelvo {

constexpr int32_t PLATFORM_LIB_FLAG_KELVO = 2;

namespace Platform {

// Plug-ins are reached through their virtual table, whose layout is the
// interface: name() must stay the first virtual function, so there is no
// virtual destructor (plug-ins are never deleted through this interface).
class KELVO_EXPORT Plugin {
  public:
    // The key under which the plug-in registers; zero-terminated.
    virtual const char* name() const = 0;

  protected:
    ~Plugin() = default;
};

// The interface of the object registered as "VigilCountersPlugin".
class KELVO_EXPORT CountersPlugin : public Plugin {
  public:
    // Called once by Counters with the name of its counter set.
    virtual void counterSetNameIs(const char* setName) = 0;
    // Storage of the named counter; fallback when the plug-in has none to give.
    virtual uint64_t* counter(const char* name, uint64_t* fallback) = 0;

  protected:
    ~CountersPlugin() = default;
};

// The registered plug-in called name, loading lib<name>.so if needed; null
// (and a level-0 trace on "KelvoPlugin") when the file cannot be loaded. A
// file that loads but registers nothing under name fails an assertion.
KELVO_EXPORT Plugin* loadPlugin(const char* name);
// For a plug-in's static initialiser. Registering a name twice fails an
// assertion.
KELVO_EXPORT void registerPlugin(Plugin* plugin);

}  // namespace Platform

// Named counters stored by the counters plug-in when it is installed, and in
// the caller's fallback storage otherwise, so callers never check which. Used
// by one thread at a time; owned by its creator.
class KELVO_EXPORT Counters {
  public:
    // Loads the counters plug-in and, when there is one, hands it setName
    // (unless null).
    explicit Counters(const char* setName);

    uint64_t* counter(const char* name, uint64_t* fallback);
    bool hasPlugin() const noexcept { return plugin_ != nullptr; }

  private:
    Platform::CountersPlugin* plugin_;
};

// Aborts with "a library incompatible with Kelvo has been loaded" when
// platformLibPresenceFlag is not PLATFORM_LIB_FLAG_KELVO. Otherwise promotes
// this library into the global symbol scope, so that plug-ins loaded later
// resolve against it even when it was itself loaded with RTLD_LOCAL. The
// library never calls it itself: programs and plug-ins call it early.
KELVO_EXPORT void checkIncompat();

}  // namespace Kelvo
