// Detection of another platform library bound ahead of this one.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/PluginCpp.h>

#include <dlfcn.h>

// Every variant of the platform library defines this symbol with its own
// value; the dynamic loader binds all references to the first definition it
// loaded, so the value read here names the winner.
int32_t platformLibPresenceFlag = Kelvo::PLATFORM_LIB_FLAG_KELVO;

namespace Kelvo {

void checkIncompat() {
    // Read through a volatile access: the compiler must not fold in the
    // initial value of our own definition.
    const int32_t seen = *static_cast<volatile int32_t*>(&platformLibPresenceFlag);
    KELVO_ASSERT(seen == PLATFORM_LIB_FLAG_KELVO,
                 "a library incompatible with Kelvo has been loaded");
    Dl_info self;
    if (::dladdr(reinterpret_cast<void*>(&checkIncompat), &self) != 0 &&
        self.dli_fname != nullptr) {
        // Re-opening an already loaded object with RTLD_GLOBAL moves it into
        // the global scope; RTLD_NOLOAD makes sure nothing new is loaded.
        ::dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL);
    }
}

}  // namespace Kelvo
