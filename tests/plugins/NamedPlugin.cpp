// A plug-in that registers at load under PLUGIN_NAME, whatever its file is called.
#include <Kelvo/PluginCpp.h>

namespace {

struct NamedPlugin : Kelvo::Platform::Plugin {
    const char* name() const override { return PLUGIN_NAME; }
} plugin;

const bool registered = (Kelvo::Platform::registerPlugin(&plugin), true);

}  // namespace
