// Whether this process is a child forked after the library was loaded. The
// flag is process-wide and unguarded: set by the child handler of fork(),
// read and cleared by the program's own thread.
#pragma once

#include "KelvoBase.h"

namespace Kelvo {
namespace Platform {

// Registers handleFork() as the child handler of fork(); runs at load.
KELVO_EXPORT void setupHandler();
KELVO_EXPORT void handleFork();
KELVO_EXPORT bool isForkedChild() noexcept;
// Lets a child clear the flag once it has reinitialised itself (leForkReinit).
KELVO_EXPORT void forkedChildIs(bool forkedChild) noexcept;

}  // namespace Platform
}  // namespace Kelvo
