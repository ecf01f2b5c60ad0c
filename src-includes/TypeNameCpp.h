// Readable names of C++ types. Any thread.
#pragma once

#include <typeinfo>

#include "KelvoBase.h"

namespace Kelvo {

// Demangles a type name as stored in std::type_info (a leading '*' is
// skipped); returns the raw name when it cannot be demangled.
KELVO_EXPORT String typeName(const char* mangled);

inline String typeName(const std::type_info& info) {
    return typeName(info.name());
}

}  // namespace Kelvo
