#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <set>
#include <utility>

/// What one batch of moves has found out about the folders its plug-ins pass
/// through. A batch over thousands of plug-ins below a handful of folders
/// would otherwise open every ancestor of both paths for each plug-in to read
/// its flags, and ask for write access to the same folders again and again.
///
/// Folders are known by device and inode, so a folder replaced under the same
/// name is looked at afresh; everything is forgotten when a move fails or a
/// folder is created. A batch belongs to the thread that starts it: moves on
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

    /// Records that the transfer settles what killed runs left in the folder;
    /// false when this batch has settled it already.
    bool noteSettled(dev_t device, ino_t inode);

    bool isKnownUnlocked(dev_t device, ino_t inode) const;
    void noteUnlocked(dev_t device, ino_t inode);

    /// Whether the folder was found writable and deletable; nothing when not asked yet.
    std::optional<bool> movableInto(dev_t device, ino_t inode) const;
    void noteMovableInto(dev_t device, ino_t inode, bool movable);
    /// Whether entries may be taken out of the folder (writable, searchable,
    /// not sticky); nothing when not asked yet.
    std::optional<bool> movableFrom(dev_t device, ino_t inode) const;
    void noteMovableFrom(dev_t device, ino_t inode, bool movable);

  private:
    using Key = std::pair<dev_t, ino_t>;
    std::set<Key> unlocked_, settled_;
    std::map<Key, bool> into_, from_;
    bool owner_ = false;
};
