// The version of libKelvo. The macros describe the headers a program was
// compiled with; version() names the library it runs with, so a program can
// tell the two apart after the shared library was replaced under it.
//
// The three numbers below are the project's only statement of its version:
// the build reads them for the CMake package and pkg-config file, and
// debian/changelog must carry the same upstream version (a test compares
// them). version() may be called from any thread.
#pragma once

#include "KelvoBase.h"

#define KELVO_VERSION_MAJOR 0
#define KELVO_VERSION_MINOR 1
#define KELVO_VERSION_PATCH 0

#define KELVO_VERSION_STR_(x) #x
#define KELVO_VERSION_STR(x) KELVO_VERSION_STR_(x)
// "MAJOR.MINOR.PATCH", for example "0.1.0".
#define KELVO_VERSION_STRING               \
    KELVO_VERSION_STR(KELVO_VERSION_MAJOR) \
    "." KELVO_VERSION_STR(KELVO_VERSION_MINOR) "." KELVO_VERSION_STR(KELVO_VERSION_PATCH)

// One number that orders versions: MAJOR * 1000000 + MINOR * 1000 + PATCH,
// so minor and patch stay below 1000. Compare with KELVO_VERSION_AT_LEAST.
#define KELVO_VERSION_NUMBER \
    (KELVO_VERSION_MAJOR * 1000000 + KELVO_VERSION_MINOR * 1000 + KELVO_VERSION_PATCH)
#define KELVO_VERSION_AT_LEAST(major, minor, patch) \
    (KELVO_VERSION_NUMBER >= (major)*1000000 + (minor)*1000 + (patch))

namespace Kelvo {

// KELVO_VERSION_STRING as the running libKelvo.so was built with it. A static
// string; never null.
KELVO_EXPORT const char* version() noexcept;

}  // namespace Kelvo
