#include <Kelvo/Kelvo.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "ChildProcess.h"

// Exported, so that the loader can name it in a printed backtrace.
KELVO_EXPORT [[gnu::noinline]] Kelvo::Backtrace captureHere() {
    Kelvo::Backtrace trace(true);
    asm volatile("" ::: "memory");  // keep the frame apart from the caller's
    return trace;
}

// Both captures from one function: below their first entries (the two call
// sites) the stacks are the same. Compared from the outermost frame, since a
// sanitizer's interceptor adds a frame on top of glibc's.
KELVO_EXPORT [[gnu::noinline]] bool sameFramesAsGlibc() {
    void* ips[100];
    const int n = backtrace(ips, 100);
    const Kelvo::Backtrace trace(true);
    const int count = static_cast<int>(trace.count());
    bool same = count > 3 && n >= count;
    for (int k = 1; same && k < count; ++k) {
        same = trace.frame(count - k) == reinterpret_cast<uint64_t>(ips[n - k]);
    }
    return same;
}

using testing::HasSubstr;
using testing::StartsWith;

namespace {

const bool assertsThrow = (Kelvo::throwOnAssertFailIs(true), true);

template <typename E>
std::function<void()> thrower() {
    return [] { E::throwException("x"); };
}

TEST(Exception, EveryClassNamesItselfAndPrintsMessageThenBacktrace) {
    const struct {
        const char* name;
        std::function<void()> raise;
    } cases[] = {
        {"Kelvo::MemoryResourceException", thrower<Kelvo::MemoryResourceException>()},
        {"Kelvo::NoPermissionException", thrower<Kelvo::NoPermissionException>()},
        {"Kelvo::UnimplementedException", thrower<Kelvo::UnimplementedException>()},
        {"Kelvo::InvalidInitializeException", thrower<Kelvo::InvalidInitializeException>()},
        {"Kelvo::RuntimeException", thrower<Kelvo::RuntimeException>()},
        {"Kelvo::OutOfRangeException", thrower<Kelvo::OutOfRangeException>()},
        {"Kelvo::CorruptionDetectedException", thrower<Kelvo::CorruptionDetectedException>()},
        {"Kelvo::InvalidSizeException", thrower<Kelvo::InvalidSizeException>()},
        {"Kelvo::AssertException", thrower<Kelvo::AssertException>()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            c.raise();
            ADD_FAILURE() << "did not throw";
        } catch (const Kelvo::Exception& e) {
            EXPECT_STREQ(e.name(), c.name);
            EXPECT_EQ(e.msg(), std::string(c.name) + "(\"x\")");
            const char* first = e.what();
            EXPECT_THAT(first, StartsWith(e.msg() + "\nBacktrace:\n"));
            EXPECT_EQ(e.what(), first);  // cached, not rebuilt
        }
    }
}

TEST(Exception, InvalidSizeIsCaughtAsCorruption) {
    EXPECT_THROW(Kelvo::InvalidSizeException::throwException("len"),
                 Kelvo::CorruptionDetectedException);
}

TEST(Exception, NoCaptureMeansNoBacktraceInWhat) {
    const Kelvo::Exception e("quiet", false);
    EXPECT_STREQ(e.what(), "Kelvo::Exception(\"quiet\")\nNo backtrace available\n");
}

template <typename T>
struct Holder {
    void check(int v) { KELVO_ASSERTM(v > 1, "v is {}", v); }
};

std::string assertText(const std::function<void()>& body) {
    try {
        body();
    } catch (const Kelvo::AssertException& e) {
        return e.message();
    }
    return "no assertion";
}

TEST(Assert, MessageCarriesFileLineClassAndFunction) {
    EXPECT_THAT(assertText([] { KELVO_ASSERT(1 > 2); }),
                testing::MatchesRegex(std::string(__FILE__) + ":[0-9]+: 1 > 2"));
    EXPECT_THAT(assertText([] { Holder<int>().check(0); }),
                testing::MatchesRegex(".*ExceptionTest\\.cpp:[0-9]+: Holder::check\\(\\) v is 0"));
    EXPECT_THAT(assertText([] { KELVO_ASSERT_FAIL("n={}", 3); }), testing::EndsWith(": n=3"));
}

TEST(Assert, UnofferedFeaturesFailAndReleaseModeIsOff) {
    EXPECT_THAT(assertText([] { Kelvo::Platform::refCountingEnabledIs(true); }),
                testing::EndsWith("not available in libKelvo.so"));
    EXPECT_THAT(assertText([] { (void)Kelvo::Platform::refCountingEnabled(); }),
                testing::EndsWith("not available in libKelvo.so"));
    EXPECT_FALSE(Kelvo::Platform::releaseMode());
}

TEST(AssertDeathTest, CheckAbortsEvenWhenAssertionsThrow) {
    EXPECT_DEATH(KELVO_CHECK(1 + 1 == 3), "Assertion `1 \\+ 1 == 3' failed");
}

[[gnu::noinline]] uint32_t deepCapture(int depth) {
    if (depth > 0) {
        const uint32_t count = deepCapture(depth - 1);
        asm volatile("" ::: "memory");  // no tail call: every level keeps its frame
        return count;
    }
    return Kelvo::Backtrace(true).count();
}

TEST(Backtrace, FirstFrameIsTheConstructingFunction) {
    const Kelvo::Backtrace trace = captureHere();
    ASSERT_GT(trace.count(), 2u);
    Dl_info info;
    ASSERT_NE(dladdr(reinterpret_cast<void*>(trace.frame(0)), &info), 0);
    ASSERT_NE(info.dli_sname, nullptr);
    EXPECT_THAT(info.dli_sname, HasSubstr("captureHere"));
    EXPECT_TRUE(sameFramesAsGlibc());
}

TEST(Backtrace, DeepStackKeepsExactlyOneHundredFrames) {
    EXPECT_EQ(deepCapture(500), 100u);
    EXPECT_LT(deepCapture(5), 100u);
    EXPECT_EQ(Kelvo::Backtrace(false).pretty(), "No backtrace available\n");
}

TEST(Backtrace, EveryPrintedLineNamesObjectSymbolOffsetAndAddress) {
    const Kelvo::Backtrace trace = captureHere();
    std::istringstream lines(trace.pretty());
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "Backtrace:");
    const auto frame = testing::MatchesRegex(R"(([^(]+\([^)]*\+0x[0-9a-f]+\))?\[0x[0-9a-f]+\])");
    uint32_t n = 0;
    while (std::getline(lines, line)) {
        EXPECT_THAT(line, frame);
        EXPECT_THAT(line, HasSubstr(fmt::format("[{}]", (void*)trace.frame(n))));
        ++n;
    }
    EXPECT_EQ(n, trace.count());
    EXPECT_THAT(trace.pretty(), HasSubstr("captureHere"));  // raw, mangled symbol
}

TEST(TypeName, DemanglesAndFallsBackToTheRawName) {
    const struct {
        const char* in;
        const char* out;
    } cases[] = {{"i", "int"},
                 {"N5Kelvo16RuntimeExceptionE", "Kelvo::RuntimeException"},
                 {"*N5Kelvo9BacktraceE", "Kelvo::Backtrace"},
                 {"not a mangled name!", "not a mangled name!"}};
    for (const auto& c : cases)
        EXPECT_EQ(Kelvo::typeName(c.in), c.out) << c.in;
    EXPECT_EQ(Kelvo::typeName(typeid(std::runtime_error)), "std::runtime_error");
}

// The terminate handler is installed at load, and ends the process: each case
// runs the probe in a child and reads its standard error.
TEST(Terminate, ReportsWhatTheProcessDiedOfAndWhere) {
    const std::string typeLine = "terminate called after throwing an instance of ";
    const struct {
        const char* mode;
        const char* verbosity;
        std::string errStart;  // the whole stderr when stack is false
        bool stack;
    } cases[] = {
        {"throw-std", "0", typeLine + "'std::runtime_error'\n  what(): boom\n", false},
        {"throw-std", "1", typeLine + "'std::runtime_error'\n  what(): boom\nBacktrace:\n", true},
        {"throw-int", "0", typeLine + "'int'\n", false},
        {"throw-int", "00", typeLine + "'int'\nBacktrace:\n", true},
        {"terminate", "0", "", false},
        {"terminate", "", "Backtrace:\n", true},
        {"throw-kelvo", "0",
         typeLine + "'Kelvo::RuntimeException'\n  what(): Kelvo::RuntimeException(\"boom\")\n"
                    "Backtrace:\n",
         true},
        {"assert", "0", "Kelvo::Assert aborting because: m\n", false},
        {"assert", "1", "Kelvo::Assert aborting because: m\nBacktrace:\n", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.mode) + " verbosity=" + c.verbosity);
        const auto r = KelvoTest::runProbe(
            {c.mode}, {std::string("KELVO_BACKTRACE_VERBOSITY=") + c.verbosity});
        EXPECT_TRUE(r.aborted()) << r.status;
        if (c.stack) {
            EXPECT_THAT(r.err, StartsWith(c.errStart));
            // One stack only, ending the report with an empty line.
            EXPECT_EQ(r.err.find("Backtrace:"), r.err.rfind("Backtrace:"));
            EXPECT_THAT(r.err, testing::EndsWith("]\n\n"));
        } else {
            EXPECT_EQ(r.err, c.errStart);
        }
    }
}

}  // namespace
