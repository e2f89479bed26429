#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "SharedFiles/linux/KTFileLook.h"

/// What one batch of moves has found out about the folders its plug-ins pass
/// through. A batch over thousands of plug-ins below a handful of folders
/// would otherwise look at every ancestor of both paths for each plug-in to
/// read its flags, list the same folders for leftovers again and again, and
/// ask for write access to the same folders each time.
///
/// Three kinds of knowledge, trusted differently:
/// - Folders found unlocked, by path. Only the folder an item leaves, the
///   folder it enters and the item itself can stop a rename (their flags and
///   bits; a locked grandparent does not). So an ancestor above them that
///   changed behind the batch's back can only cost a lock left in place that
///   the move does not need. The item is looked at for every move; a move's
///   own folder answered from here, if it changed, makes the rename fail
///   without touching anything, and that move is done again from new looks.
/// - Folders settled (leftovers of killed transfers handled) and folders
///   whose rights were asked of the system, by device and inode, so that a
///   folder replaced under the same name is looked at afresh.
/// - Volumes found writable or read-only, by device.
///
/// Everything is forgotten when a move fails. A folder the batch makes
/// itself is new and empty: it holds nothing to settle and changes nothing
/// above it, so only the answers about rights (whose inode it may reuse)
/// are dropped then. A batch belongs to the thread that starts it: moves on
/// other threads, and moves outside any batch, find nothing and ask the disk.
class KTMoveBatch {
  public:
    /// Starts a batch on this thread; inside a running one, joins it.
    KTMoveBatch();
    ~KTMoveBatch();
    KTMoveBatch(const KTMoveBatch&) = delete;
    KTMoveBatch& operator=(const KTMoveBatch&) = delete;

    /// The batch running on this thread, or null.
    static KTMoveBatch* current();
    /// Forgets what the running batch knows (nothing without one).
    static void forgetCurrent();
    /// The running batch made a folder: forgets the answers that a reused
    /// inode could make wrong (nothing without a batch).
    static void folderMadeInCurrent();

    /// Records that the transfer settles what killed runs left in the folder;
    /// false when this batch has settled it already.
    bool noteSettled(dev_t device, ino_t inode);

    /// The look of an ancestor folder found unlocked, or null.
    const KTFileLook* unlockedAncestor(const std::string& path) const;
    void noteUnlockedAncestor(const std::string& path, const KTFileLook& look);
    /// Drops what is known of a folder about to be removed.
    void forgetFolder(const std::string& path);

    /// Whether the volume is read-only; nothing when not asked yet.
    std::optional<bool> readOnlyDevice(dev_t device) const;
    void noteReadOnlyDevice(dev_t device, bool readOnly);

    /// Whether the folder was found writable and deletable; nothing when not asked yet.
    std::optional<bool> movableInto(dev_t device, ino_t inode) const;
    void noteMovableInto(dev_t device, ino_t inode, bool movable);
    /// Whether entries may be taken out of the folder (writable, searchable,
    /// not sticky); nothing when not asked yet.
    std::optional<bool> movableFrom(dev_t device, ino_t inode) const;
    void noteMovableFrom(dev_t device, ino_t inode, bool movable);

  private:
    using Key = std::pair<dev_t, ino_t>;
    struct KeyHash {
        std::size_t operator()(const Key& k) const {
            return std::hash<ino_t>()(k.second) * 31u + std::hash<dev_t>()(k.first);
        }
    };
    /// Asked twice per move: hashed, not ordered.
    std::unordered_set<Key, KeyHash> settled_;
    std::map<Key, bool> into_, from_;
    std::unordered_map<std::string, KTFileLook> ancestors_;
    std::map<dev_t, bool> readOnly_;
    bool owner_ = false;
};
