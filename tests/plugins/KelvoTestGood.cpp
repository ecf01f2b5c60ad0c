// A plug-in that registers under its own name.
#include <Kelvo/PluginCpp.h>

namespace {

class GoodPlugin : public Kelvo::Platform::Plugin {
  public:
    const char* name() const override { return "KelvoTestGood"; }
};

GoodPlugin plugin;

struct RegisterAtLoad {
    RegisterAtLoad() { Kelvo::Platform::registerPlugin(&plugin); }
} registerAtLoad;

}  // namespace
