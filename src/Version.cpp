// The library's own version, fixed when libKelvo.so is built.
#include <Kelvo/Version.h>

namespace Kelvo {

const char* version() noexcept {
    return KELVO_VERSION_STRING;
}

}  // namespace Kelvo
