// Stands for another variant of the platform library: it defines the presence
// flag with a value of its own.
#include <cstdint>

extern "C" {
__attribute__((visibility("default"))) int32_t platformLibPresenceFlag = 1;
}
