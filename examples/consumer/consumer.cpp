// Uses the installed headers and library only; exits non-zero when something
// a daemon relies on does not work.
#include <Kelvo/Kelvo.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

namespace {
int failures = 0;

void expect(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "consumer: %s\n", what);
        ++failures;
    }
}
}  // namespace

int main() {
    auto handle = Kelvo::Platform::getDebugHandler("KelvoConsumer");
    expect(*handle->levelsPtr == 3, "a Kelvo* handle starts with levels 0 and 1");
    KELVO_TRACE(handle, 1, "consumer built against the installed package: {}", "ok");

    try {
        Kelvo::OutOfRangeException::throwException("x");
    } catch (const Kelvo::Exception& e) {
        expect(std::strncmp(e.what(), "Kelvo::OutOfRangeException(\"x\")\n", 32) == 0,
               "exception text");
    }

    // libunwind, which the library links for backtraces, has an unwinder of
    // its own; throws must go through the toolchain's.
    Dl_info unwinder;
    void* raise = dlsym(RTLD_DEFAULT, "_Unwind_RaiseException");
    expect(raise && dladdr(raise, &unwinder) && std::strstr(unwinder.dli_fname, "/libgcc_s.so"),
           "exceptions unwound by libgcc_s");

    Kelvo::throwOnAssertFailIs(true);
    try {
        KELVO_ASSERT(1 + 1 == 3, "arithmetic is {}", "broken");
        expect(false, "assertion did not fire");
    } catch (const Kelvo::AssertException& e) {
        expect(e.message().find("arithmetic is broken") != std::string::npos, "assert text");
    }

    // The headers this program was built with and the library it runs with
    // come from the same package.
    expect(std::strcmp(Kelvo::version(), KELVO_VERSION_STRING) == 0,
           "library version equals the header's");

    Kelvo::Platform::LocoGuard guard;
    expect(Kelvo::Platform::loco().owns_lock(), "global lock held");
    return failures == 0 ? 0 : 1;
}
