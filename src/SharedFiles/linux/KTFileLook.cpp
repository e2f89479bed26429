#include "SharedFiles/linux/KTFileLook.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

namespace {

KTFileLook look(const std::string& path, int flags) {
    KTFileLook l;
    struct statx sx {};
    const unsigned mask = STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_INO | STATX_NLINK;
    if (path.empty()) return l;
    if (::statx(AT_FDCWD, path.c_str(), flags | AT_STATX_SYNC_AS_STAT, mask, &sx) != 0) {
        l.error = errno;
        return l;
    }
    l.error = 0;
    l.mode = sx.stx_mode;
    l.owner = sx.stx_uid;
    l.group = sx.stx_gid;
    l.device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    l.inode = sx.stx_ino;
    if (sx.stx_mask & STATX_NLINK) l.links = sx.stx_nlink;
    if (sx.stx_attributes_mask & STATX_ATTR_IMMUTABLE)
        l.locked = (sx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
    return l;
}

}  // namespace

bool KTFileLook::isDirectory() const {
    return exists() && S_ISDIR(mode);
}

bool KTFileLook::isLink() const {
    return exists() && S_ISLNK(mode);
}

KTFileLook KTFileLook::at(const std::string& path) {
    return look(path, AT_SYMLINK_NOFOLLOW);
}

KTFileLook KTFileLook::following(const std::string& path) {
    return look(path, 0);
}

std::optional<bool> KTFileLook::onReadOnlyVolume(const std::string& path) {
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0) return std::nullopt;
    return (vfs.f_flag & ST_RDONLY) != 0;
}

KTFileLook::Unlock KTFileLook::clearLocked(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return errno == ELOOP ? Unlock{} : Unlock{errno, true};
    Unlock result;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
        const int err = errno;
        // A file system that keeps no such flags (tmpfs of old kernels, FAT,
        // network mounts) answers one of these: nothing there is locked.
        if (err != ENOTTY && err != EOPNOTSUPP && err != EINVAL && err != ENOSYS)
            result = {err, true};
    } else if (flags & FS_IMMUTABLE_FL) {
        flags &= ~FS_IMMUTABLE_FL;
        if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) != 0) result = {errno, false};
    }
    ::close(fd);
    return result;
}

uid_t KTProcessIdentity::uid() {
    static const uid_t id = ::getuid();
    return id;
}

uid_t KTProcessIdentity::euid() {
    static const uid_t id = ::geteuid();
    return id;
}

std::optional<bool> KTProcessIdentity::mayChangeEntries(const KTFileLook& folder) {
    if (!folder.isDirectory() || !folder.locked) return std::nullopt;
    if (*folder.locked) return false;
    if (euid() == 0) return true;
    if (folder.owner == euid()) return (folder.mode & (S_IWUSR | S_IXUSR)) == (S_IWUSR | S_IXUSR);
    return std::nullopt;
}

std::optional<bool> KTProcessIdentity::mayWrite(const KTFileLook& item) {
    if (!item.exists() || item.isLink() || !item.locked) return std::nullopt;
    if (*item.locked) return false;
    if (euid() == 0) return true;
    if (item.owner == euid()) return (item.mode & S_IWUSR) != 0;
    return std::nullopt;
}
