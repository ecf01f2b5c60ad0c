// Kelvo::FileLock: an exclusive, advisory, never-blocking lock named by a
// file, typically to keep a daemon to a single instance.
//
// The lock is an open-file-description lock on the whole file, so it excludes
// other processes and other FileLock objects (other descriptions) of the same
// process. A forked child inherits the description but does not own the lock:
// releasing it there fails an assertion. The lock file is created (mode 0666
// whatever the umask) with its directory when needed and is never deleted.
//
// One thread uses an object; its creator owns it. Destroying a held lock
// releases it.
#pragma once

#include "DebugCpp.h"
#include "KelvoBase.h"

namespace Kelvo {

// F_OFD_SETLK and F_OFD_GETLK, for code built against headers that lack them.
KELVO_EXPORT int cmd_F_OFD_SETLK();
KELVO_EXPORT int cmd_F_OFD_GETLK();

class KELVO_EXPORT FileLock : public Debuggable {
  public:
    // Names the lock directory/fileName (fileName alone for an empty
    // directory); touches nothing. A fileName with '/' fails an assertion.
    FileLock(Platform::DebugHandler& handle, const String& directory, const String& fileName);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Tries once. True when the lock is held on return; false when someone
    // else holds it or the file cannot be opened. With allowReentry, a
    // process that already holds it through this object gets true at once.
    bool lock(bool allowReentry);
    // Gives the lock up; only the process that took it may.
    void release();
    const String& file() const noexcept { return file_; }

  private:
    void closeFd() noexcept;

    String directory_;
    String file_;
    int fd_ = -1;
    int ownerPid_ = -1;
};

}  // namespace Kelvo
