// The permission test that files and directories share.
#ifndef KALVOREN_SRC_PERMISSION_H
#define KALVOREN_SRC_PERMISSION_H

#include <sys/stat.h>
#include <unistd.h>

/// Whether the permission bits of a file let this process do what is asked. The class of bits is chosen by the real user
/// and the real primary group alone; the superuser gets no special treatment.
inline bool IsPermitted(const struct stat& status, bool fgWrite, bool fgRead) {
    constexpr mode_t kWrite = 02;
    constexpr mode_t kRead = 04;
    const unsigned int nShift = getuid() == status.st_uid ? 6 : getgid() == status.st_gid ? 3 : 0;
    const mode_t nBits = status.st_mode >> nShift;
    return (!fgWrite || (nBits & kWrite) != 0) && (!fgRead || (nBits & kRead) != 0);
}

#endif  // KALVOREN_SRC_PERMISSION_H
