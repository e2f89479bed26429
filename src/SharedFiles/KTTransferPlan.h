#pragma once

#include <mutex>
#include <set>
#include <string>
#include <vector>

/// A dry run of the transfer: while one is active, every move, copy and
/// trashing that would pass through `KTTransfer` is written down instead of
/// made, with the checks the real step would make (the source is there,
/// nothing is at the destination, the folders may be written). Folder
/// creation, unlocking, clean-up of emptied folders and the recovery of
/// interrupted transfers are skipped as well, so that nothing on disk
/// changes.
///
/// Later steps of the same run must see the earlier ones: a planned move
/// leaves its source absent and its destination present, a planned folder
/// exists, so that the plan shows exactly what the real run would do in
/// order (a second plug-in of the same name takes the Trash's next name).
class KTTransferPlan {
  public:
    enum class Kind { Move, Copy, Skip };
    struct Entry {
        Kind kind = Kind::Move;
        std::string from;
        std::string to;  ///< destination; for a skip, the reason
        bool withRights = false;
    };

    /// Makes this plan the process-wide one for its lifetime.
    KTTransferPlan();
    ~KTTransferPlan();
    KTTransferPlan(const KTTransferPlan&) = delete;
    KTTransferPlan& operator=(const KTTransferPlan&) = delete;

    /// The plan of this process, or null when steps are really made.
    static KTTransferPlan* active();

    /// A move as `KTTransfer::moveItem` would make it: false with `error`
    /// set when the real move would fail (nothing there, something at the
    /// destination, a folder this user may not write into).
    bool move(const std::string& from, const std::string& to, bool withRights, std::string* error);
    /// A copy as `KTTransfer::copyItem` would make it (an install).
    bool copy(const std::string& source, const std::string& to, bool withRights,
              std::string* error);
    /// A folder the real run would make; true when the user could make it.
    bool makeFolder(const std::string& folder);
    /// Why a plug-in would be left where it is.
    void skip(const std::string& path, const std::string& reason);
    /// Notes a skip when a plan is active; nothing otherwise.
    static void noteSkip(const std::string& path, const std::string& reason);

    /// Whether anything is at `path` once the planned steps were made.
    bool exists(const std::string& path) const;
    /// `exists` through the active plan, or on disk without one.
    static bool existsNow(const std::string& path);
    /// Whether the user could add and remove entries in `folder` (a folder
    /// still to be made counts as the user's own when its nearest existing
    /// ancestor is writable).
    bool canWriteInto(const std::string& folder) const;

    std::vector<Entry> entries() const;
    /// One line per entry: "would move: A -> B", "would copy: A -> B" (with
    /// " (administrator rights)" when only rights would do it), "would skip: A - why".
    std::string describe() const;

  private:
    /// Present (true) or absent (false) by the plan; nothing when the disk decides.
    int plannedState(const std::string& path) const;
    std::string nearestExisting(const std::string& path) const;

    mutable std::mutex lock_;
    std::vector<Entry> entries_;
    std::set<std::string> present_;
    std::set<std::string> absent_;
};
