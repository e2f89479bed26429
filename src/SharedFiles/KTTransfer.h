#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <sys/types.h>

/// The one way a plug-in changes place on disk: moves (enable, disable,
/// scope, groups), the Trash and installs all come here, so that a plug-in
/// under a real name is always whole and exists once.
///
/// - Within one file system a move is one rename that never replaces.
/// - Across file systems the item is copied beside its destination under a
///   work name (".ambrel-work.<pid>.<n>.copy", never a plug-in extension, so
///   no scan takes it for a plug-in), with contents, modes, times, links as
///   links and every extended attribute; the copy is compared with the
///   source and renamed into place without replacing; then the original is
///   renamed aside (".ambrel-work.<pid>.<n>.<name in hex>.orig") and only
///   then deleted. A note (".ambrel-work.<pid>.<n>.note", the source and
///   destination paths) lies in both folders for the length of the transfer.
/// - Success means the destination is whole and the source is gone. Any
///   other outcome removes the transfer's own copy and leaves the item where
///   it was, with an error sentence naming it.
/// - What a killed transfer left behind is finished or rolled back by the
///   first transfer of a later process that touches the folder, with a log
///   line; work entries of a process still running are left alone.
///
/// The privileged variants run the same steps through the administrator
/// tools ("mv -n -T", "cp -a -T", "rm -Rf" on work names only) and judge the
/// outcome on disk by the same rule.
class KTTransfer {
  public:
    /// The prefix of every work name.
    static constexpr const char* kWorkPrefix = ".ambrel-work.";

    KTTransfer() = default;
    virtual ~KTTransfer() = default;
    KTTransfer(const KTTransfer&) = delete;
    KTTransfer& operator=(const KTTransfer&) = delete;

    /// The two folders of a move and the item as the caller has just seen
    /// them: the item there, nothing at the destination, and the folders'
    /// device and inode, so that the move need not look again.
    struct Seen {
        dev_t fromDevice = 0;
        ino_t fromInode = 0;
        dev_t toDevice = 0;
        ino_t toInode = 0;
    };

    /// Moves `from` to the new path `to`, whose folder must exist.
    /// `reservation`, when given, is a file made for this move (a Trash's
    /// .trashinfo) that a rollback after a kill must remove too.
    bool moveItem(const std::string& from, const std::string& to, std::string* error = nullptr,
                  const std::string& reservation = {}, const Seen* seen = nullptr);
    /// Copies `source` to the new path `to` (an install). A link given as
    /// the source is followed: its target is copied; a link to nothing is
    /// refused.
    bool copyItem(const std::string& source, const std::string& to, std::string* error = nullptr);

    /// How a privileged transfer ended.
    enum class Outcome { Done, Failed, Refused };
    /// `moveItem` through the administrator tools; `Refused` when no right
    /// could be had (nothing was touched).
    Outcome authMoveItem(const std::string& from, const std::string& to,
                         std::string* error = nullptr);
    /// `copyItem` through the administrator tools.
    Outcome authCopyItem(const std::string& source, const std::string& to,
                         std::string* error = nullptr);

    /// Finishes or rolls back what dead transfers left in `folder`; each
    /// folder is looked at once per batch of moves (KTMoveBatch), once per
    /// process outside any batch, and every time when `again`.
    void recoverFolder(const std::string& folder, bool again = false);

    /// True for a name (last component) the transfer works under.
    static bool isWorkName(const std::string& name);
    /// True when the two paths' folders lie on one file system.
    static bool sameFileSystem(const std::string& from, const std::string& toFolder);

    static KTTransfer& shared();
    /// Replaces the shared instance; null puts the ordinary one back.
    static void setShared(std::shared_ptr<KTTransfer> transfer);

  protected:
    /// Copies a tree (a test makes it fail or stop half-way).
    virtual bool copyTree(const std::string& from, const std::string& to, std::string* error);
    /// Called between the steps of a cross-file-system transfer, with the
    /// step's name ("copied", "placed", "aside"); a test kills or races here.
    virtual void step(const char* /*name*/) {}

  private:
    struct Names {
        std::string copy, aside, noteAtSource, noteAtDestination;
    };
    Names workNames(const std::string& from, const std::string& to);
    bool moveAcross(const std::string& from, const std::string& to, std::string* error,
                    const std::string& reservation);
    Outcome authMoveAcross(const std::string& from, const std::string& to, std::string* error);
    void recoverEntry(const std::string& folder, const std::string& token);
    /// `recoverFolder` for a folder whose device and inode are known (null: look).
    void recoverFolderOnce(const std::string& folder, const std::pair<dev_t, ino_t>* known);

    std::mutex lock_;
    std::set<std::string> recovered_;
};
