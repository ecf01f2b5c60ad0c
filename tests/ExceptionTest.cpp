#include "TestSupport.h"
#include <dlfcn.h>
#include <link.h>

using namespace KelvoTest;

// Exported, so that the loader can name it in a printed backtrace.
[[gnu::noinline]] KELVO_EXPORT Kelvo::Backtrace captureHere() {
    Kelvo::Backtrace trace(true);
    asm volatile("" ::: "memory");  // keep the frame apart from the caller's
    return trace;
}

namespace {

template <typename... E>
void expectEachNamesItselfThenPrintsItsBacktrace() {
    (
        [] {
            const std::string name = Kelvo::typeName(typeid(E));
            SCOPED_TRACE(name);
            try {
                E::throwException("x");
                ADD_FAILURE() << "did not throw";
            } catch (const E& e) {
                EXPECT_EQ(std::pair(std::string(e.name()), e.msg()),
                          std::pair(name, name + "(\"x\")"));
                const char* first = e.what();
                EXPECT_THAT(first, StartsWith(e.msg() + "\nBacktrace:\n"));
                EXPECT_EQ(e.what(), first);  // cached, not rebuilt
            }
        }(),
        ...);
}

TEST(Exception, EveryClassNamesItselfAndPrintsMessageThenBacktrace) {
    using namespace Kelvo;
    expectEachNamesItselfThenPrintsItsBacktrace<
        MemoryResourceException, NoPermissionException, UnimplementedException,
        InvalidInitializeException, RuntimeException, OutOfRangeException,
        CorruptionDetectedException, InvalidSizeException, AssertException>();
    EXPECT_THROW(InvalidSizeException::throwException("len"), CorruptionDetectedException);
    EXPECT_STREQ(Exception("quiet", false).what(),
                 "Kelvo::Exception(\"quiet\")\nNo backtrace available\n");
    // The star marker is dropped; what does not demangle is shown raw.
    EXPECT_EQ(typeName("*N5Kelvo9BacktraceE") + "|" + typeName("not mangled!"),
              "Kelvo::Backtrace|not mangled!");
}

template <typename T>
struct Holder {
    void check(int v) { KELVO_ASSERTM(v > 1, "v is {}", v); }
};

TEST(Assert, MessageCarriesFileLineClassAndFunction) {
    EXPECT_THAT(thrownMessage([] { KELVO_ASSERT(1 > 2); }),
                MatchesRegex(std::string(__FILE__) + ":[0-9]+: 1 > 2"));
    EXPECT_THAT(thrownMessage([] { Holder<int>().check(0); }),
                MatchesRegex(".*ExceptionTest\\.cpp:[0-9]+: Holder::check\\(\\) v is 0"));
    EXPECT_THAT(thrownMessage([] { KELVO_ASSERT_FAIL("n={}", 3); }), EndsWith(": n=3"));
}

[[gnu::noinline]] uint32_t deepCapture(int depth) {
    if (depth > 0) {
        const uint32_t count = deepCapture(depth - 1);
        asm volatile("" ::: "memory");  // no tail call: every level keeps its frame
        return count;
    }
    return Kelvo::Backtrace(true).count();
}

// The first frame is the constructing function's; every printed line names
// object, symbol, offset and the frame's address; a deep stack keeps 100.
TEST(Backtrace, CapturesFromItsConstructorAndPrintsEveryFrame) {
    const Kelvo::Backtrace trace = captureHere();
    std::istringstream lines(trace.pretty());
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "Backtrace:");
    uint32_t n = 0;
    for (; std::getline(lines, line); ++n) {
        EXPECT_THAT(line, MatchesRegex(R"(([^(]+\([^)]*\+0x[0-9a-f]+\))?\[0x[0-9a-f]+\])"));
        EXPECT_THAT(line, EndsWith(fmt::format("[{}]", (void*)trace.frame(n))));
        if (n == 0) {
            EXPECT_THAT(line, HasSubstr("captureHere"));  // raw, mangled symbol
        }
    }
    EXPECT_EQ(n, trace.count());
    EXPECT_EQ(std::pair(deepCapture(500), deepCapture(5) < 100), std::pair(100u, true));
}

// The library whose definition of symbol serves the process: the first in
// the lookup order that defines it, passing over a sanitizer runtime, which
// only interposes and forwards to the next definition.
std::string definingLibrary(const char* symbol) {
    std::vector<std::string> loaded;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* out) {
            static_cast<std::vector<std::string>*>(out)->push_back(info->dlpi_name);
            return 0;
        },
        &loaded);
    for (const std::string& name : loaded) {
        void* handle = name.empty() ? nullptr : ::dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        void* address = handle ? ::dlsym(handle, symbol) : nullptr;
        Dl_info where;
        if (address && ::dladdr(address, &where) && name == where.dli_fname &&
            name.find("san.so") == std::string::npos)
            return name;
    }
    return "none";
}

// libunwind, linked for backtraces, exports an unwinder and a backtrace() of
// its own: neither may stand in for the system's.
TEST(Exception, ThrowsUseTheToolchainUnwinder) {
    EXPECT_THAT(definingLibrary("_Unwind_RaiseException"), HasSubstr("/libgcc_s.so"));
    EXPECT_THAT(definingLibrary("backtrace"), HasSubstr("/libc.so"));
}

// The terminate handler is installed at load, and ends the process: each case
// runs the probe in a child and reads its standard error.
TEST(Terminate, ReportsWhatTheProcessDiedOfAndWhere) {
    const auto run = [](const char* mode, const char* verbosity) {
        return KelvoTest::runProbe({mode}, {std::string("KELVO_BACKTRACE_VERBOSITY=") + verbosity});
    };
    // One stack only, after the report's start and ending it with an empty line.
    const auto expectOneStackAfter = [](const ChildResult& r, const std::string& start) {
        EXPECT_TRUE(r.aborted()) << r.status;
        EXPECT_THAT(r.err, AllOf(StartsWith(start + "Backtrace:\n"), EndsWith("]\n\n")));
        EXPECT_EQ(r.err.find("Backtrace:"), r.err.rfind("Backtrace:"));
    };
    const std::string typeLine = "terminate called after throwing an instance of ";
    const std::vector<std::tuple<const char*, const char*, std::string>> cases = {
        // mode, a KELVO_BACKTRACE_VERBOSITY other than "0", the report without a stack
        {"throw-std", "1", typeLine + "'std::runtime_error'\n  what(): boom\n"},
        {"throw-int", "00", typeLine + "'int'\n"},
        {"terminate", "", ""},
        {"assert", "1", "Kelvo::Assert aborting because: m\n"},
    };
    for (const auto& [mode, verbosity, err] : cases) {
        SCOPED_TRACE(mode);
        const auto quiet = run(mode, "0");
        EXPECT_TRUE(quiet.aborted()) << quiet.status;
        EXPECT_EQ(quiet.err, err);
        expectOneStackAfter(run(mode, verbosity), err);
    }
    // The exception's own text carries its stack, whatever the verbosity.
    expectOneStackAfter(run("throw-kelvo", "0"),
                        typeLine +
                            "'Kelvo::RuntimeException'\n"
                            "  what(): Kelvo::RuntimeException(\"boom\")\n");
}

}  // namespace
