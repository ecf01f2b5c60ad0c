// Value printers and the process-wide map from type names to renderers.
#include <Kelvo/AllocatorCpp.h>
#include <Kelvo/DisplayPointerCpp.h>
#include <Kelvo/LockingCpp.h>
#include <Kelvo/PlatformCpp.h>

#include <unordered_map>

namespace Kelvo {
namespace Platform {

namespace {
// Guarded by the global lock; created on first use and never freed, so that
// printers keep working from static destructors.
std::unordered_map<String, IntrospectionFunction>& introspectionMap() {
    static auto* map = new std::unordered_map<String, IntrospectionFunction>();
    return *map;
}
}  // namespace

void introspectionFunctionIs(const String& typeName, IntrospectionFunction function) {
    LocoGuard guard;
    if (function) {
        introspectionMap()[typeName] = std::move(function);
    } else {
        introspectionMap().erase(typeName);
    }
}

ValuePrinter::ValuePrinter(const String& typeName, int size) : typeName(typeName), size(size) {}

ValuePrinter::~ValuePrinter() = default;

String ValuePrinter::customToString(const void* value) const {
    IntrospectionFunction function;
    {
        LocoGuard guard;
        auto it = introspectionMap().find(typeName);
        if (it == introspectionMap().end()) {
            return String();
        }
        function = it->second;
    }
    // Called outside the lock: a renderer may itself print nested values.
    return function(value);
}

String ValuePrinter::toString(const void* value) {
    String text = customToString(value);
    if (text.empty()) {
        text = Util::dumpHex(value, size > 0 ? static_cast<size_t>(size) : 0);
    }
    return text;
}

std::shared_ptr<ValuePrinter> getValuePrinter(const String& typeName, int size) {
    return allocateShared<ValuePrinter>(typeName, size);
}

}  // namespace Platform
}  // namespace Kelvo
