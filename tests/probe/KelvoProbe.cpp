// kelvo_probe MODE [NAME...]
//   levels NAME...  print "NAME MASK" for a new handle of each name, then the
//                   trace format switches
//   trace           one trace line "hello 42" on handle KelvoProbe, level 1
//   throw-std | throw-kelvo | throw-int | terminate | assert
//                   end the process in that way
#include <Kelvo/Kelvo.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

int main(int argc, char** argv) {
    const char* mode = argc > 1 ? argv[1] : "";
    if (std::strcmp(mode, "levels") == 0) {
        for (int i = 2; i < argc; ++i) {
            std::printf("%s %u\n", argv[i],
                        Kelvo::Platform::getDebugHandler(argv[i])->levels.load());
        }
        std::fflush(stdout);
        Kelvo::Platform::printAllTraceFormat();
    } else if (std::strcmp(mode, "trace") == 0) {
        Kelvo::Debuggable handle("KelvoProbe");
        KELVO_TRACE(handle, 1, "hello {}", 42);
    } else if (std::strcmp(mode, "throw-std") == 0) {
        throw std::runtime_error("boom");
    } else if (std::strcmp(mode, "throw-kelvo") == 0) {
        Kelvo::RuntimeException::throwException("boom");
    } else if (std::strcmp(mode, "throw-int") == 0) {
        throw 7;
    } else if (std::strcmp(mode, "terminate") == 0) {
        std::terminate();
    } else if (std::strcmp(mode, "assert") == 0) {
        Kelvo::AssertException::throwException("m");
    } else {
        return 2;
    }
    return 0;
}
