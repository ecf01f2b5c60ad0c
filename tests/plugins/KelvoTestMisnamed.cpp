// A plug-in whose file name and registered name disagree.
#include <Kelvo/PluginCpp.h>

namespace {

class MisnamedPlugin : public Kelvo::Platform::Plugin {
  public:
    const char* name() const override { return "KelvoTestSomethingElse"; }
};

MisnamedPlugin plugin;

struct RegisterAtLoad {
    RegisterAtLoad() { Kelvo::Platform::registerPlugin(&plugin); }
} registerAtLoad;

}  // namespace
