// Loads the library given as argument with local symbol visibility and checks
// that checkIncompat moves it into the global scope.
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
        return 2;
    }
    void* library = ::dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "dlopen: %s\n", ::dlerror());
        return 2;
    }
    if (::dlsym(RTLD_DEFAULT, "platformLibPresenceFlag") != nullptr) {
        std::printf("visible before the check\n");
        return 3;
    }
    auto check = reinterpret_cast<void (*)()>(::dlsym(library, "_ZN5Kelvo13checkIncompatEv"));
    if (check == nullptr) {
        std::fprintf(stderr, "dlsym: %s\n", ::dlerror());
        return 2;
    }
    check();
    if (::dlsym(RTLD_DEFAULT, "platformLibPresenceFlag") == nullptr) {
        std::printf("not promoted\n");
        return 4;
    }
    std::printf("promoted\n");
    return 0;
}
