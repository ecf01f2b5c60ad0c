// Hex dumps of raw memory, for diagnostics. Any thread; pure functions.
#pragma once

#include <cstddef>

#include "KelvoBase.h"

namespace Kelvo {
namespace Util {

// size bytes at data as lines of up to 16 bytes: a hex offset, the bytes in
// hex, then their printable characters ('.' for the others), e.g.
//   "0000: 4b 65 6c 0a  Kel."
// Lines are separated by '\n', with none after the last; "" for size 0.
KELVO_EXPORT String dumpHex(const void* data, size_t size);

}  // namespace Util
}  // namespace Kelvo
