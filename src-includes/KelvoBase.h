// Common definitions of every public Kelvo header: the export macro and the
// library's string type.
#pragma once

#include <string>

#define KELVO_EXPORT __attribute__((visibility("default")))

namespace Kelvo {
using String = std::string;
}  // namespace Kelvo
