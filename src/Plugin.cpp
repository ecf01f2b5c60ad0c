// The plug-in registry and loader.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/LockingCpp.h>
#include <Kelvo/PluginCpp.h>

#include <dlfcn.h>

#include <unordered_map>

namespace Kelvo {
namespace Platform {

namespace {

// Both are made on first use, because a plug-in linked into a program may
// register before this library's own initialisers run, and are never freed,
// because plug-ins outlive static destruction.
DebugHandler& pluginHandle() {
    static auto* handle = new std::shared_ptr<DebugHandler>(getDebugHandler("KelvoPlugin"));
    return **handle;
}

std::unordered_map<String, Plugin*>& registry() {
    static auto* plugins = new std::unordered_map<String, Plugin*>();
    return *plugins;
}

struct CreateAtLoad {
    CreateAtLoad() {
        LocoGuard guard;
        pluginHandle();
        registry();
    }
} createAtLoad;

}  // namespace

Plugin* loadPlugin(const char* name) {
    LocoGuard guard;
    auto& plugins = registry();
    if (auto it = plugins.find(name); it != plugins.end()) {
        KELVO_TRACE(pluginHandle(), 3, "{} already loaded", name);
        return it->second;
    }
    const String fileName = fmt::format("lib{}.so", name);
    // The handle is dropped on purpose: plug-ins are never unloaded.
    if (::dlopen(fileName.c_str(), RTLD_NOW | RTLD_GLOBAL) == nullptr) {
        const char* error = ::dlerror();
        KELVO_TRACE(pluginHandle(), 0, "Failed to load plugin {}: {}", fileName,
                    error ? error : "unknown error");
        return nullptr;
    }
    auto it = plugins.find(name);
    if (it == plugins.end()) {
        KELVO_ASSERT_FAIL("Phooey -- plugin {} failed to register", name);
    }
    KELVO_TRACE(pluginHandle(), 2, "Yay!  Plugin {} loaded", name);
    return it->second;
}

void registerPlugin(Plugin* plugin) {
    LocoGuard guard;
    const String key = plugin->name();
    auto& plugins = registry();
    if (plugins.count(key) != 0) {
        KELVO_ASSERT_FAIL("Plugin {} already registered", key);
    }
    KELVO_TRACE(pluginHandle(), 2, "adding plugin {}", key);
    plugins.emplace(key, plugin);
}

}  // namespace Platform
}  // namespace Kelvo
