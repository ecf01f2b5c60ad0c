#include <Kelvo/LockingCpp.h>

namespace Kelvo {
namespace Platform {

Loco::~Loco() = default;

Loco& loco() noexcept {
    // Never destroyed: static destructors and exit handlers may still trace.
    static Kelvo::Loco* const instance = new Kelvo::Loco();
    return *instance;
}

}  // namespace Platform
}  // namespace Kelvo
