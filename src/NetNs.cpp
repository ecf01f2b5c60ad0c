// Joining named namespaces; see NetNs.h for how names resolve.
#include <Kelvo/NetNs.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Kelvo {
namespace NetNs {

const char DEFAULT_NS[] = "default";

namespace {

constexpr const char* namedNetNsDir = "/run/netns/";
constexpr const char* initNetNs = "/proc/1/ns/net";

int joinPath(const String& path, int nstype) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    const int rc = ::setns(fd, nstype);
    const int savedErrno = errno;
    ::close(fd);
    errno = savedErrno;
    return rc;
}

}  // namespace

int setnsByName(const char* name, int nstype) {
    if (name == nullptr || *name == '\0') {
        errno = EINVAL;
        return -1;
    }
    if (std::strchr(name, '/') != nullptr) {
        return joinPath(name, nstype);
    }
    // Only network namespaces have a conventional directory of names.
    if (nstype != CLONE_NEWNET) {
        errno = EINVAL;
        return -1;
    }
    const String named = String(namedNetNsDir) + name;
    if (std::strcmp(name, DEFAULT_NS) != 0) {
        return joinPath(named, nstype);
    }
    if (joinPath(named, nstype) == 0) {
        return 0;
    }
    // An unpinned default falls back to the initial namespace; a pinned one
    // that cannot be joined is reported as it is, not masked by the fallback.
    if (errno != ENOENT) {
        return -1;
    }
    return joinPath(initNetNs, nstype);
}

}  // namespace NetNs
}  // namespace Kelvo
