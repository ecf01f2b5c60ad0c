// The registry is process-wide and never forgets, so every case that loads
// or registers something runs in a child of its own.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/PluginCpp.h>
#include <gmock/gmock.h>

#include "OsTestSupport.h"

#include <dlfcn.h>

#include <cstring>

using ::testing::HasSubstr;
using ::testing::Not;
using namespace KelvoTest;
namespace Platform = Kelvo::Platform;

namespace {

const std::string pluginDir = KELVO_TEST_PLUGIN_DIR;

int occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

ChildResult runProgram(const std::string& path, const std::vector<std::string>& arguments = {}) {
    return runInChild([&] {
        std::vector<char*> argv{const_cast<char*>(path.c_str())};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        ::execv(path.c_str(), argv.data());
        std::perror("execv");
        return 127;
    });
}

class Plugin : public NoFdLeak {};

TEST_F(Plugin, MissingPluginIsNullAndTracedAtLevelZero) {
    StderrCapture capture;
    EXPECT_EQ(Platform::loadPlugin("KelvoTestAbsent"), nullptr);
    EXPECT_THAT(capture.text(),
                HasSubstr("KelvoPlugin 0 Failed to load plugin libKelvoTestAbsent.so: "
                          "libKelvoTestAbsent.so: cannot open shared object file"));
}

TEST_F(Plugin, LoadedPluginIsRegisteredOnceAndReturnedAgain) {
    const auto result = runInChild([] {
        Platform::setupKelvoDebug("KelvoPlugin/0123");
        Platform::Plugin* first = Platform::loadPlugin("KelvoTestGood");
        CHILD_CHECK(first != nullptr);
        CHILD_CHECK(std::strcmp(first->name(), "KelvoTestGood") == 0);
        CHILD_CHECK(Platform::loadPlugin("KelvoTestGood") == first);
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
    EXPECT_EQ(occurrences(result.output, "KelvoPlugin 2 adding plugin KelvoTestGood"), 1);
    EXPECT_EQ(occurrences(result.output, "KelvoPlugin 2 Yay!  Plugin KelvoTestGood loaded"), 1);
    EXPECT_EQ(occurrences(result.output, "KelvoPlugin 3 KelvoTestGood already loaded"), 1);
}

TEST_F(Plugin, PluginRegisteringUnderAnotherNameFailsAssertion) {
    const auto result = runInChild([] {
        Kelvo::throwOnAssertFailIs(true);
        try {
            Platform::loadPlugin("KelvoTestMisnamed");
        } catch (const Kelvo::AssertException& e) {
            std::printf("%s\n", e.message().c_str());
        }
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
    EXPECT_THAT(result.output, HasSubstr("Phooey -- plugin KelvoTestMisnamed failed to register"));
}

TEST_F(Plugin, SecondRegistrationOfANameFailsAssertion) {
    struct Twice : Platform::Plugin {
        const char* name() const override { return "KelvoTestTwice"; }
    };
    const auto result = runInChild([] {
        Kelvo::throwOnAssertFailIs(true);
        static Twice first;
        static Twice second;
        Platform::registerPlugin(&first);
        try {
            Platform::registerPlugin(&second);
        } catch (const Kelvo::AssertException& e) {
            std::printf("%s\n", e.message().c_str());
        }
        CHILD_CHECK(Platform::loadPlugin("KelvoTestTwice") == &first);
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
    EXPECT_THAT(result.output, HasSubstr("Plugin KelvoTestTwice already registered"));
}

TEST_F(Plugin, CountersWithoutThePluginHandBackTheFallback) {
    Kelvo::Counters counters("daemon");
    EXPECT_FALSE(counters.hasPlugin());
    uint64_t fallback = 0;
    EXPECT_EQ(counters.counter("owned", &fallback), &fallback);
    EXPECT_EQ(counters.counter("other", nullptr), nullptr);
}

TEST_F(Plugin, CountersForwardToThePlugin) {
    const auto result = runInChild([] {
        // Loading by full path runs the registration; Counters then finds it.
        void* library = ::dlopen((pluginDir + "/counters/libVigilCountersPlugin.so").c_str(),
                                 RTLD_NOW | RTLD_GLOBAL);
        CHILD_CHECK(library != nullptr);
        auto setNames = reinterpret_cast<const char* (*)()>(::dlsym(library, "vigilTestSetNames"));
        CHILD_CHECK(setNames != nullptr);

        Kelvo::Counters counters("daemon");
        Kelvo::Counters unnamed(nullptr);
        CHILD_CHECK(counters.hasPlugin() && unnamed.hasPlugin());
        CHILD_CHECK(std::strcmp(setNames(), "daemon;") == 0);
        uint64_t fallback = 0;
        uint64_t* owned = counters.counter("owned", &fallback);
        CHILD_CHECK(owned != &fallback && owned != nullptr);
        CHILD_CHECK(unnamed.counter("owned", &fallback) == owned);
        CHILD_CHECK(counters.counter("other", &fallback) == &fallback);
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
}

TEST(CheckIncompat, PassesWithOnlyThisLibrary) {
    const auto result = runProgram(pluginDir + "/kelvo_incompat_ok");
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("checkIncompat passed"));
}

TEST(CheckIncompat, AbortsWhenAnotherPlatformLibraryWasBoundFirst) {
    const auto result = runProgram(pluginDir + "/kelvo_incompat_wrong");
    EXPECT_FALSE(result.exited) << result.output;
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, HasSubstr("Kelvo::Assert aborting because: "));
    EXPECT_THAT(result.output, HasSubstr("a library incompatible with Kelvo has been loaded"));
    EXPECT_THAT(result.output, Not(HasSubstr("checkIncompat passed")));
}

TEST(CheckIncompat, PromotesALocallyLoadedLibraryToGlobalScope) {
    const auto result = runProgram(pluginDir + "/kelvo_promote_check", {KELVO_TEST_LIBKELVO});
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.output;
    EXPECT_THAT(result.output, HasSubstr("promoted"));
}

}  // namespace
