// The registry is process-wide and never forgets, so every case that loads
// or registers something runs in a child of its own.
#include "TestSupport.h"

#include <dlfcn.h>

using namespace KelvoTest;

namespace Platform = Kelvo::Platform;

namespace {

const std::string pluginDir = KELVO_TEST_PLUGIN_DIR;

using Plugin = OsTest;

TEST_F(Plugin, RegistryLoadsEachPluginOnceAndRefusesWrongOrTakenNames) {
    struct Twice : Platform::Plugin {
        const char* name() const override { return "KelvoTestTwice"; }
    };
    const std::string result =
        runInChild([] {
            Platform::setupKelvoDebug("KelvoPlugin/0123");
            childCheck(Platform::loadPlugin("KelvoTestAbsent") == nullptr);
            Platform::Plugin* good = Platform::loadPlugin("KelvoTestGood");
            childCheck(good != nullptr && std::strcmp(good->name(), "KelvoTestGood") == 0);
            childCheck(Platform::loadPlugin("KelvoTestGood") == good);
            static Twice first, second;
            Platform::registerPlugin(&first);
            for (void (*misuse)() : {+[] { Platform::loadPlugin("KelvoTestMisnamed"); },
                                     +[] { Platform::registerPlugin(&second); }})
                std::puts(thrownMessage(misuse).c_str());
            childCheck(Platform::loadPlugin("KelvoTestTwice") == &first);
            return 0;
        }).text();
    // Each step traced once: a second load finds the plug-in loaded.
    for (const char* once : {"KelvoPlugin 0 Failed to load plugin libKelvoTestAbsent.so: "
                             "libKelvoTestAbsent.so: cannot open shared object file",
                             "KelvoPlugin 2 adding plugin KelvoTestGood",
                             "KelvoPlugin 2 Yay!  Plugin KelvoTestGood loaded",
                             "KelvoPlugin 3 KelvoTestGood already loaded",
                             "Phooey -- plugin KelvoTestMisnamed failed to register",
                             "Plugin KelvoTestTwice already registered"}) {
        const size_t at = result.find(once);
        EXPECT_TRUE(at != std::string::npos && at == result.rfind(once)) << once << "\n" << result;
    }
    EXPECT_THAT(result, EndsWith("exit 0"));
}

TEST_F(Plugin, CountersForwardToThePluginOrHandBackTheFallback) {
    uint64_t fallback = 0;
    Kelvo::Counters without("daemon");
    EXPECT_FALSE(without.hasPlugin());
    EXPECT_EQ(without.counter("owned", &fallback), &fallback);
    EXPECT_EQ(runInChild([&] {
                  // Loading by full path runs the registration; Counters then finds it.
                  void* library =
                      ::dlopen((pluginDir + "/counters/libVigilCountersPlugin.so").c_str(),
                               RTLD_NOW | RTLD_GLOBAL);
                  childCheck(library != nullptr);
                  auto setNames =
                      reinterpret_cast<const char* (*)()>(::dlsym(library, "vigilTestSetNames"));
                  Kelvo::Counters counters("daemon"), unnamed(nullptr);
                  childCheck(counters.hasPlugin() && unnamed.hasPlugin());
                  childCheck(setNames != nullptr && std::strcmp(setNames(), "daemon;") == 0);
                  uint64_t* owned = counters.counter("owned", &fallback);
                  childCheck(owned != &fallback && unnamed.counter("owned", nullptr) == owned);
                  childCheck(counters.counter("other", &fallback) == &fallback);
                  return 0;
              }).text(),
              "exit 0");
}

TEST_F(Plugin, CheckIncompatAbortsOnlyWhenAnotherPlatformLibraryWasBoundFirst) {
    const auto run = [](const std::string& program) {
        return runInChild([&] { return ::execl(program.c_str(), program.c_str(), nullptr); })
            .text();
    };
    EXPECT_EQ(run(pluginDir + "/kelvo_incompat_ok"), "checkIncompat passed\nexit 0");
    EXPECT_THAT(run(pluginDir + "/kelvo_incompat_wrong"),
                AllOf(ContainsRegex("Kelvo::Assert aborting because: .*a library incompatible "
                                    "with Kelvo has been loaded"),
                      EndsWith("signal " + std::to_string(SIGABRT))));
}

}  // namespace
