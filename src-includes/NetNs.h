// Joining named Linux namespaces, for code that must create objects (local
// sockets above all) in one well-known network namespace whatever namespace
// its thread runs in.
//
// Names resolve as follows:
//   - a name containing '/' is the path of a namespace file, for example
//     "/proc/1234/ns/net" or a bind mount of one;
//   - any other name of a network namespace is looked up as /run/netns/<name>,
//     where named network namespaces live by convention;
//   - DEFAULT_NS ("default") is /run/netns/default when the administrator has
//     pinned one there, and otherwise the network namespace of process 1: the
//     initial namespace of the host or container, which every daemon can reach.
//
// setnsByName changes the namespace of the calling thread only. Any thread may
// call it; it keeps no state. Joining a namespace needs CAP_SYS_ADMIN: without
// it the call fails with EPERM (or EACCES when the namespace file of process 1
// cannot be opened) and the thread stays where it was.
#pragma once

#include "KelvoBase.h"

namespace Kelvo {
namespace NetNs {

KELVO_EXPORT extern const char DEFAULT_NS[];

// Joins the namespace called name of type nstype (CLONE_NEWNET and the like;
// 0 accepts any type, and only with a path). 0 on success, -1 with errno set
// otherwise, the thread unchanged.
KELVO_EXPORT int setnsByName(const char* name, int nstype);

}  // namespace NetNs
}  // namespace Kelvo
