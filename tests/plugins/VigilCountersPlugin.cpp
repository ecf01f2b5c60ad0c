// A counters plug-in that owns the counter "owned" and leaves every other
// name to the caller's storage; it records what Counters told it.
#include <Kelvo/PluginCpp.h>

#include <cstring>
#include <string>

namespace {

struct CountersPlugin : Kelvo::Platform::CountersPlugin {
    const char* name() const override { return "VigilCountersPlugin"; }
    void counterSetNameIs(const char* setName) override { setNames += setName + std::string(";"); }
    uint64_t* counter(const char* name, uint64_t* fallback) override {
        return std::strcmp(name, "owned") == 0 ? &owned : fallback;
    }

    std::string setNames;
    uint64_t owned = 0;
} plugin;

const bool registered = (Kelvo::Platform::registerPlugin(&plugin), true);

}  // namespace

// Every set name received so far, each followed by ';'.
extern "C" __attribute__((visibility("default"))) const char* vigilTestSetNames() {
    return plugin.setNames.c_str();
}
