// Named counters backed by the counters plug-in when it is installed.
#include <Kelvo/PluginCpp.h>

namespace Kelvo {

// Whatever registers under this name implements CountersPlugin.
Counters::Counters(const char* setName)
    : plugin_(static_cast<Platform::CountersPlugin*>(Platform::loadPlugin("VigilCountersPlugin"))) {
    if (plugin_ != nullptr && setName != nullptr) {
        plugin_->counterSetNameIs(setName);
    }
}

uint64_t* Counters::counter(const char* name, uint64_t* fallback) {
    return plugin_ ? plugin_->counter(name, fallback) : fallback;
}

}  // namespace Kelvo
