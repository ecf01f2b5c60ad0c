// The library's own trace handles, for modules whose hot paths check one.
#pragma once

#include <Kelvo/DebugCpp.h>

namespace Kelvo {
namespace Impl {

// A new handle for `name` that lives as long as the process: never released,
// so code running at exit may still trace through it. Checking it costs two
// loads, where a function-local static handle adds a guard test and, inlined,
// the cold start-up code that widens its callers' frames. Made at load, from
// a namespace-scope initialiser; a module's code that runs at load before its
// handle is made sees null, which traces nothing.
const Platform::DebugHandler* debugHandlerForLife(const String& name);

}  // namespace Impl
}  // namespace Kelvo
