#include <Kelvo/TypeNameCpp.h>

#include <cxxabi.h>

#include <cstdlib>

namespace Kelvo {

String typeName(const char* mangled) {
    if (mangled == nullptr) {
        return String();
    }
    // type_info names of some types carry a '*' marker that is not part of the name.
    if (*mangled == '*') {
        ++mangled;
    }
    int status = 0;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    if (status != 0 || demangled == nullptr) {
        return String(mangled);
    }
    String result(demangled);
    std::free(demangled);
    return result;
}

}  // namespace Kelvo
