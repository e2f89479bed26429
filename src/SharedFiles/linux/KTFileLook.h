#pragma once

#include <sys/types.h>

#include <cerrno>

#include <optional>
#include <string>

/// One look at a path, a last link not followed: whether anything is there,
/// what it is, whose, where, and its locked (immutable) flag when the file
/// system tells it with the look. One system call answers what "exists",
/// "is a folder", the permission bits and the flags would ask separately.
struct KTFileLook {
    /// 0 when something is there, else the errno of the look.
    int error = ENOENT;
    mode_t mode = 0;
    uid_t owner = 0;
    gid_t group = 0;
    dev_t device = 0;
    ino_t inode = 0;
    /// The link count; 0 when the file system did not say.
    nlink_t links = 0;
    /// Whether the locked flag is set; nothing when the file system keeps no
    /// such flag with the look (the flags must then be read apart).
    std::optional<bool> locked;

    bool exists() const { return error == 0; }
    bool isDirectory() const;
    bool isLink() const;
    /// Whether a folder's link count shows that it holds a folder: more than
    /// its own two names ("." and its entry in its parent). File systems that
    /// do not count (btrfs says 1, very large ext4 folders too) never say so.
    bool holdsAFolder() const { return isDirectory() && links > 2; }

    /// Looks at `path` (a last link not followed).
    static KTFileLook at(const std::string& path);
    /// Looks at what `path` names (links followed).
    static KTFileLook following(const std::string& path);

    /// Whether the volume holding `path` is mounted read-only, which no bit
    /// of a look shows; nothing when it cannot be asked.
    static std::optional<bool> onReadOnlyVolume(const std::string& path);

    /// What clearing the locked flag came to: `error` 0 when the item is not
    /// locked now (or the file system keeps no such flag, or a link stands
    /// there: a link has no flags of its own and its target is not ours to
    /// unlock); else errno, and `reading` tells whether the flags could not
    /// even be read (as opposed to not cleared), so callers word it their way.
    struct Unlock {
        int error = 0;
        bool reading = false;
    };
    /// Clears the locked (immutable, `chattr +i`) flag of what `path` names.
    static Unlock clearLocked(const std::string& path);
};

/// Who this process is, read once: the ids cannot change under a process
/// that never changes them, and asking the kernel for each plug-in of a
/// batch is a system call each time.
class KTProcessIdentity {
  public:
    static uid_t uid();
    static uid_t euid();

    /// Whether this process may add and remove entries in the folder looked
    /// at (write and search), when its bits alone decide: the superuser and
    /// the owner, whose bits no access list overrides. Nothing when only the
    /// system can tell (another user, an access list, a flag not known).
    /// A read-only volume is the caller's to rule out (`onReadOnlyVolume`).
    static std::optional<bool> mayChangeEntries(const KTFileLook& folder);
    /// The same for writing into an item (`access(W_OK)`).
    static std::optional<bool> mayWrite(const KTFileLook& item);
};
