// The registry is process-wide and never forgets, so every case that loads
// or registers something runs in a child of its own.
#include <Kelvo/PluginCpp.h>

#include "OsTestSupport.h"

#include <dlfcn.h>

#include <cstring>

using ::testing::HasSubstr;
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

ChildResult runProgram(const std::string& path) {
    return runInChild([&] {
        ::execl(path.c_str(), path.c_str(), nullptr);
        std::perror("execv");
        return 127;
    });
}

class Plugin : public NoFdLeak {};

TEST_F(Plugin, MissingPluginIsNullAndTracedAtLevelZero) {
    CaptureStderr();
    EXPECT_EQ(Platform::loadPlugin("KelvoTestAbsent"), nullptr);
    EXPECT_THAT(GetCapturedStderr(),
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
        std::puts(thrownMessage<Kelvo::AssertException>([] {
                      Platform::loadPlugin("KelvoTestMisnamed");
                  }).c_str());
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
        static Twice first;
        static Twice second;
        Platform::registerPlugin(&first);
        std::puts(thrownMessage<Kelvo::AssertException>([] {
                      Platform::registerPlugin(&second);
                  }).c_str());
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

TEST_F(Plugin, CheckIncompatAbortsOnlyWhenAnotherPlatformLibraryWasBoundFirst) {
    const auto ok = runProgram(pluginDir + "/kelvo_incompat_ok");
    EXPECT_EQ(ok.exitCode, 0) << ok.output;
    EXPECT_THAT(ok.output, HasSubstr("checkIncompat passed"));

    const auto wrong = runProgram(pluginDir + "/kelvo_incompat_wrong");
    EXPECT_EQ(wrong.signal, SIGABRT) << wrong.output;
    EXPECT_THAT(wrong.output, HasSubstr("Kelvo::Assert aborting because: "));
    EXPECT_THAT(wrong.output, HasSubstr("a library incompatible with Kelvo has been loaded"));
}

}  // namespace
