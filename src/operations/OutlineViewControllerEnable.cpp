// Enabling and disabling: the move of one plug-in into and out of the
// disabled folder, the general move with its administrator fall-back, the
// clean-up of emptied folders, and the group-wide and check-box entries.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMoveBatch.h"
#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/KTTransfer.h"
#include "SharedFiles/KTTransferPlan.h"
#include "SharedFiles/linux/KTFileLook.h"
#include "app/core/AppController.h"
#include "catalogue/KTOutlineView.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "operations/KTOperationSupport.h"

namespace fs = std::filesystem;
using namespace KTOperationSupport;

namespace {

/// Ends the spinning progress on every way out of a move.
class ProgressSpinner {
  public:
    explicit ProgressSpinner(AppController* app) : app_(hasInterface(app) ? app : nullptr) {
        if (app_) onMain([this] { app_->startProgress(); });
    }
    ~ProgressSpinner() {
        if (app_) onMain([this] { app_->endProgress(); });
    }

  private:
    AppController* app_;
};

/// What one walk from "/" down to an item saw at its end: the item's
/// grandparent, its folder and the item itself (each unlocked by the walk
/// where it could be), and whether the walk got as far as each.
struct WalkEnd {
    KTFileLook grandparent, folder, item;
    bool sawGrandparent = false, sawFolder = false, sawItem = false;
    /// The folder's look is the batch's, from an earlier move, not a new one.
    bool folderRemembered = false;
};

/// Reads the locked flag of what `path` names (a link not followed) and
/// clears it: true when the item is unlocked afterwards. Failures are posted
/// and logged; `stop` is set when the walk must stop there.
bool clearLockedFlag(const std::string& path, bool* stop) {
    const KTFileLook::Unlock result = KTFileLook::clearLocked(path);
    if (result.error == 0) return true;
    if (result.reading) {
        postAndLog("Unable to get attributes of item %@ - %@", path, std::strerror(result.error));
        *stop = true;
    } else {
        postAndLog("Unable to unlock item %@ - %@", path, std::strerror(result.error));
    }
    return false;
}

/// The unlock walk: from "/" down, each ancestor and then the item, stopping
/// silently at the first that is not there; a locked one is unlocked.
/// `itemSeen` and `folderSeen`, when given, are looks at the item and its
/// folder taken just before.
///
/// Within a batch an ancestor above the item's folder that was found (or
/// made) unlocked is not looked at again: a locked folder refuses changes to
/// its own entries, not to entries further down, so a stale answer about a
/// folder higher up can only leave a lock in place that no move needed
/// cleared. The item itself is looked at for every move. Its folder is too,
/// unless `folderFromBatch` lets an earlier move's look answer: a stale one
/// can only make the rename fail (a lock, a folder gone, rights taken away;
/// the rename never replaces and moves only the item named), and the caller
/// then does the move again from new looks.
WalkEnd unlockWalk(const std::string& path, const KTFileLook* itemSeen,
                   const KTFileLook* folderSeen = nullptr, bool folderFromBatch = false) {
    WalkEnd end;
    KTMoveBatch* batch = KTMoveBatch::current();
    // One step of the walk; false when the walk ends there. `chain` says
    // whether every prefix above this one is known to the batch: only then
    // is this one noted, so that the batch's ancestors always form a chain
    // from "/" down and the deepest of them stands for all above it.
    bool chain = batch != nullptr;
    auto step = [&](const std::string& prefix, bool isItem, bool isFolder,
                    bool isGrandparent) -> bool {
        if (!isItem && (!isFolder || (folderFromBatch && !folderSeen)) && batch) {
            if (const KTFileLook* known = batch->unlockedAncestor(prefix)) {
                if (isFolder) {
                    end.folder = *known;
                    end.sawFolder = true;
                    end.folderRemembered = true;
                }
                if (isGrandparent) {
                    end.grandparent = *known;
                    end.sawGrandparent = true;
                }
                return true;
            }
        }
        KTFileLook look = isItem && itemSeen       ? *itemSeen
                          : isFolder && folderSeen ? *folderSeen
                                                   : KTFileLook::at(prefix);
        auto record = [&] {
            if (isItem) end.item = look, end.sawItem = true;
            if (isFolder) end.folder = look, end.sawFolder = true;
            if (isGrandparent) end.grandparent = look, end.sawGrandparent = true;
        };
        if (!look.exists()) {
            record();
            return false;
        }
        if (!look.isLink() && (!look.locked || *look.locked)) {
            // Locked, or a file system that does not say with the look: read
            // the flags. A link has no flags of its own.
            bool stop = false;
            const bool unlocked = clearLockedFlag(prefix, &stop);
            if (stop) return false;
            look.locked = !unlocked;
        }
        record();
        // A link is passed through, never unlocked: it is as good as unlocked.
        const bool passable = look.isLink() || (!*look.locked && look.isDirectory());
        chain = chain && passable && !isItem;
        if (chain) batch->noteUnlockedAncestor(prefix, look);
        return true;
    };

    // The usual case within a batch: everything above the item's folder is
    // known, and only the folder and the item are looked at.
    if (batch) {
        const std::string folder = parentOf(path);
        const std::string grandparent = parentOf(folder);
        if (!folder.empty() && folder != path && !grandparent.empty() && grandparent != folder) {
            if (const KTFileLook* known = batch->unlockedAncestor(grandparent)) {
                end.grandparent = *known;
                end.sawGrandparent = true;
                if (step(folder, false, true, false)) step(path, true, false, false);
                return end;
            }
        }
    }

    const std::vector<std::string> components = pathComponents(path);
    const std::size_t n = components.size();
    std::string prefix;
    for (std::size_t i = 0; i < n; ++i) {
        prefix = prefix.empty() ? components[i]
                                : KTPluginLocations::appendPathComponent(prefix, components[i]);
        if (!step(prefix, i + 1 == n, i + 2 == n, i + 3 == n)) break;
    }
    return end;
}

/// Whether the volume of a looked-at folder is read-only, asked once per
/// batch and device.
std::optional<bool> readOnly(const std::string& folder, const KTFileLook& look) {
    KTMoveBatch* batch = KTMoveBatch::current();
    if (batch)
        if (auto known = batch->readOnlyDevice(look.device)) return known;
    auto ro = KTFileLook::onReadOnlyVolume(folder);
    if (batch && ro) batch->noteReadOnlyDevice(look.device, *ro);
    return ro;
}

/// A "yes" from the bits still needs a writable volume.
std::optional<bool> onWritableVolume(std::optional<bool> bits, const std::string& folder,
                                     const KTFileLook& look) {
    if (!bits || !*bits) return bits;
    const std::optional<bool> ro = readOnly(folder, look);
    if (!ro) return std::nullopt;
    return !*ro;
}

/// Whether entries may be taken out of the looked-at folder (write and
/// search; in a sticky folder only `item`'s owner, the folder's or the
/// superuser): from the bits when they decide.
std::optional<bool> mayTakeOut(const std::string& folder, const KTFileLook& look,
                               const KTFileLook& item) {
    std::optional<bool> ok = KTProcessIdentity::mayChangeEntries(look);
    const uid_t me = KTProcessIdentity::euid();
    if (ok && *ok && (look.mode & S_ISVTX) && me != 0 && item.owner != me && look.owner != me)
        ok = false;
    return onWritableVolume(ok, folder, look);
}

/// Whether the user may take `oldPath` out of its folder and put it in
/// `folder`: the plain move's permission check. The looks the move has just
/// taken answer for the superuser and for owners (whose bits no access list
/// overrides); anyone else asks the system, within a batch once per folder,
/// while the item's own answer is asked each time.
bool plainMoveAllowed(const std::string& oldPath, const WalkEnd& from, const std::string& folder,
                      const KTFileLook& folderLook, const WalkEnd& to) {
    const bool planned = KTTransferPlan::active() != nullptr;
    std::optional<bool> itemOk;
    if (!planned && from.sawItem) {
        // The item lies on its folder's volume.
        if (from.sawFolder && from.folder.isDirectory())
            itemOk = onWritableVolume(KTProcessIdentity::mayWrite(from.item), parentOf(oldPath),
                                      from.folder);
    }
    if (!itemOk) itemOk = isWritable(oldPath);
    if (!*itemOk) return false;

    // A dry run's folders may exist only in its plan: it asks each time.
    KTMoveBatch* batch = planned ? nullptr : KTMoveBatch::current();
    std::optional<bool> fromOk;
    if (!planned && from.sawItem && from.sawFolder && from.folder.isDirectory())
        fromOk = mayTakeOut(parentOf(oldPath), from.folder, from.item);
    if (!fromOk) {
        struct stat st {};
        if (::stat(parentOf(oldPath).c_str(), &st) != 0) return false;
        if (batch) fromOk = batch->movableFrom(st.st_dev, st.st_ino);
        if (!fromOk) {
            fromOk = isDeletable(oldPath);
            // In a sticky folder the answer depends on each item's owner.
            if (batch && !(st.st_mode & S_ISVTX))
                batch->noteMovableFrom(st.st_dev, st.st_ino, *fromOk);
        }
    }
    if (!*fromOk) return false;

    // "Writable and deletable": written into, and taken out of its own folder.
    std::optional<bool> intoOk;
    if (!planned && to.sawFolder && to.folder.isDirectory() && to.sawGrandparent &&
        to.grandparent.isDirectory()) {
        const std::optional<bool> writable =
            onWritableVolume(KTProcessIdentity::mayWrite(to.folder), folder, to.folder);
        const std::optional<bool> deletable =
            mayTakeOut(parentOf(folder), to.grandparent, to.folder);
        if (writable && deletable) intoOk = *writable && *deletable;
    }
    if (!intoOk && batch) intoOk = batch->movableInto(folderLook.device, folderLook.inode);
    if (!intoOk) {
        intoOk = isWritable(folder) && isDeletable(folder);
        if (batch) batch->noteMovableInto(folderLook.device, folderLook.inode, *intoOk);
    }
    return *intoOk;
}

/// Looks at a move's item and destination folder that its caller has just
/// taken, so that the move does not take them again.
struct Seen {
    const KTFileLook* item = nullptr;
    const KTFileLook* folder = nullptr;
    /// `folder` is the batch's look from an earlier move.
    bool folderRemembered = false;
    /// Every look new: the move again after one that trusted the batch failed.
    bool fresh = false;
};

bool moveFileSeen(OutlineViewController& outline, const std::string& oldPath,
                  const std::string& newPath, const Seen& seenBefore,
                  bool* leftHoldingAFolder = nullptr);

/// A folder the batch has just made holds nothing that a killed transfer
/// left behind: the transfer need not list it before the first move into it.
void noteMadeFolder(const KTFileLook& look) {
    KTMoveBatch* batch = KTMoveBatch::current();
    if (batch && look.exists() && look.isDirectory()) batch->noteSettled(look.device, look.inode);
}

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

bool OutlineViewController::moveFilter(const std::shared_ptr<KTPluginItem>& item,
                                       long long newStatus) {
    if (!item) return false;
    const bool planned = KTTransferPlan::active() != nullptr;
    auto body = [&]() -> bool {
        if (item->isLocked()) {
            KTLog::appendLog("Unable to move %@ - plugin is locked", item->shortName());
            KTTransferPlan::noteSkip(item->actualPath(), "plugin is locked");
            return true;
        }
        item->updateActualPath();
        const std::string path = item->actualPath();

        if (newStatus != 0) {
            KTLog::appendLog("Enabling plugin %@...", item->shortName());
            const KTFileLook look = planned ? KTFileLook() : KTFileLook::at(path);
            if (planned ? !exists(path) : !look.exists()) return false;
            const auto target = KTPluginLocations::enabledPathForDisabledPath(path);
            if (!target) {
                KTLog::appendLog("Error: plugin is already enabled.");
                KTTransferPlan::noteSkip(path, "plugin is already enabled");
                return false;
            }
            bool leftHoldingAFolder = false;
            if (moveFileSeen(*this, path, *target, {planned ? nullptr : &look, nullptr},
                             &leftHoldingAFolder)) {
                item->movedTo(1, *target);
                // What the move saw of the folder it left answers the first
                // question of the clean-up.
                cleanupPluginPath(path, leftHoldingAFolder);
                return true;
            }
            item->setPluginEnabled(0);
            KTLog::appendLogAndPrint("Unable to enable plugin.");
            KTTaskNotification::postTaskErrorString(
                KTFormat::str("Could not enable plugin %@. Please check your file permissions.",
                              item->shortName()));
            return false;
        }

        KTLog::appendLog("Disabling plugin %@...", item->shortName());
        const KTFileLook look = planned ? KTFileLook() : KTFileLook::at(path);
        if (planned ? !exists(path) : !look.exists()) return false;
        if (KTPluginLocations::isDisabledPath(path)) {
            KTLog::appendLog("Error: plugin is already disabled.");
            KTTransferPlan::noteSkip(path, "plugin is already disabled");
            return false;
        }
        const std::string target = KTPluginLocations::disabledPathForPath(path);
        const std::string parent = parentOf(target);
        // The look at the folder serves the move's walk as well, unless it
        // must be made; an earlier move of the batch may have taken it.
        KTMoveBatch* batch = planned ? nullptr : KTMoveBatch::current();
        const KTFileLook* remembered = batch ? batch->unlockedAncestor(parent) : nullptr;
        const KTFileLook parentLook = planned      ? KTFileLook()
                                      : remembered ? *remembered
                                                   : KTFileLook::at(parent);
        const FolderCreation made =
            parentLook.exists()
                ? FolderCreation::Existed
                : createFolder(parent, "Unable to create directory %@ - %@. Authorizing...");
        if (made != FolderCreation::Existed) KTMoveBatch::folderMadeInCurrent();
        if (made == FolderCreation::Refused) {
            KTTaskNotification::postTaskErrorString("Ambrel: Unable to authorize.");
            KTLog::appendLog("Unable to authorize.");
            return false;
        }
        // A folder just made is looked at here rather than by the move's walk.
        const KTFileLook madeLook =
            made == FolderCreation::Created && !planned ? KTFileLook::at(parent) : KTFileLook();
        if (made == FolderCreation::Created) noteMadeFolder(madeLook);
        const KTFileLook* folderSeen = planned                           ? nullptr
                                       : made == FolderCreation::Existed ? &parentLook
                                       : made == FolderCreation::Created ? &madeLook
                                                                         : nullptr;
        Seen seen{planned ? nullptr : &look, folderSeen};
        seen.folderRemembered = remembered && made == FolderCreation::Existed;
        if (moveFileSeen(*this, path, target, seen)) {
            item->movedTo(0, target);
            return true;
        }
        item->setPluginEnabled(1);
        KTTaskNotification::postTaskErrorString(KTFormat::str(
            "Could not disable plugin %@. Please check your file permissions.", item->shortName()));
        KTLog::appendLogAndPrint("Could not disable plugin.");
        return false;
    };
    const bool result = body();
    item->updateActualPath();
    if (KTOutlineView* view = outlineView()) onMain([&] { view->reloadItem(item); });
    return result;
}

bool OutlineViewController::moveFileFrom(const std::string& oldPath, const std::string& newPath) {
    return moveFileSeen(*this, oldPath, newPath, {});
}

namespace {

bool moveFileSeen(OutlineViewController& outline, const std::string& oldPath,
                  const std::string& newPath, const Seen& seenBefore, bool* leftHoldingAFolder) {
    AppController* app = outline.appController();
    if (oldPath.empty() || newPath.empty()) return false;
    const bool planned = KTTransferPlan::active() != nullptr;
    // One look answers whether the item is there and, for the walk and the
    // rights below, what it is.
    const KTFileLook oldLook = planned           ? KTFileLook()
                               : seenBefore.item ? *seenBefore.item
                                                 : KTFileLook::at(oldPath);
    if (planned ? !exists(oldPath) : !oldLook.exists()) return true;
    if (app && app->processingCancelled()) return false;
    // What the batch knows holds only while its moves succeed.
    struct ForgetUnlessMoved {
        bool moved = false;
        ~ForgetUnlessMoved() {
            if (!moved) KTMoveBatch::forgetCurrent();
        }
    } batchKnowledge;

    // The walks end at the two folders and the item: what the move needs to
    // know of them. The batch may answer for the folders, except for the one
    // an enable leaves, whose link count the clean-up reads.
    const bool fromBatch = !seenBefore.fresh;
    const WalkEnd from =
        planned ? WalkEnd()
                : unlockWalk(oldPath, &oldLook, nullptr, fromBatch && !leftHoldingAFolder);
    const WalkEnd to =
        planned ? WalkEnd() : unlockWalk(newPath, nullptr, seenBefore.folder, fromBatch);
    const bool remembered =
        seenBefore.folderRemembered || from.folderRemembered || to.folderRemembered;
    KTLog::appendLog("Moving file from %@ to %@", oldPath, newPath);
    ProgressSpinner spinner(app);

    const std::string folder = parentOf(newPath);
    // The walk saw the folder unless it stopped above it; a link is followed.
    KTFileLook folderLook;
    if (planned) {
        folderLook.error = exists(folder) ? 0 : ENOENT;
    } else if (to.sawFolder && !to.folder.isLink()) {
        folderLook = to.folder;
    } else {
        folderLook = KTFileLook::following(folder);
        if (!folderLook.exists() && KTFileTree::existsNoFollow(folder)) folderLook.error = 0;
    }
    bool walkedTo = to.sawFolder && !to.folder.isLink();
    if (!folderLook.exists()) {
        KTLog::appendLog("Creating new containing folder at %@...", folder);
        const FolderCreation made =
            createFolder(folder, "Unable to create directory at %@ - %@. Authorizing...");
        if (made == FolderCreation::Refused) {
            KTLog::appendLog("User cancelled authorization.");
            if (app) app->setProcessingCancelled(true);
            return false;
        }
        KTMoveBatch::folderMadeInCurrent();
        folderLook = planned ? KTFileLook() : KTFileLook::following(folder);
        if (made == FolderCreation::Created && !planned) noteMadeFolder(folderLook);
        walkedTo = false;
    }
    // The folder is there (a dry run's may be only planned), and the batch knows it by its inode.
    const bool onlyPlanned = planned && exists(folder);
    if (!folderLook.exists() && !onlyPlanned) {
        postAndLog("Error: Unable to create containing folder %@. File %@ was not moved.", folder,
                   oldPath);
        return false;
    }
    // The privileged tool would replace it without a word; refuse here for both paths.
    // The walk looked at the destination itself when it reached the folder.
    const bool destinationTaken = walkedTo && to.sawItem ? to.item.exists() : exists(newPath);
    if (destinationTaken) {
        postAndLog("Unable to move %@ to %@ - %@", oldPath, newPath,
                   KTFormat::str("%@ already exists", newPath));
        KTTransferPlan::noteSkip(oldPath, KTFormat::str("destination %@ exists", newPath));
        return false;
    }

    KTTransfer& transfer = KTTransfer::shared();
    std::string error;
    // The transfer need not look at the folders again when the walks just did.
    KTTransfer::Seen seen;
    const bool seenBoth = walkedTo && from.sawFolder && from.folder.isDirectory();
    if (seenBoth) {
        seen = {from.folder.device, from.folder.inode, folderLook.device, folderLook.inode};
    }
    if (plainMoveAllowed(oldPath, from, folder, folderLook, walkedTo ? to : WalkEnd())) {
        KTLog::appendLog("Moving %@ to %@", oldPath, newPath);
        if (!transfer.moveItem(oldPath, newPath, &error, {}, seenBoth ? &seen : nullptr)) {
            // A folder the batch answered for may have changed since (locked,
            // gone, its rights): the rename on one disk failed and touched
            // nothing, so the move is done again as if nothing were known.
            if (remembered && seenBoth && seen.fromDevice == seen.toDevice) {
                KTMoveBatch::forgetCurrent();
                batchKnowledge.moved = true;  // the move again decides what the batch keeps
                Seen again;
                again.fresh = true;
                return moveFileSeen(outline, oldPath, newPath, again, leftHoldingAFolder);
            }
            postAndLog("Unable to move %@ to %@ - %@", oldPath, newPath, error);
            return false;
        }
        KTLog::appendLog("Plugin successfully moved to %@", newPath);
        batchKnowledge.moved = true;
        // The folder left behind still holds a folder when it held one more
        // than the item that left (a folder item takes a link with it).
        if (leftHoldingAFolder)
            *leftHoldingAFolder = from.sawFolder && from.sawItem && !from.folder.isLink() &&
                                  from.folder.links > 2u + (from.item.isDirectory() ? 1u : 0u);
        return true;
    }

    KTLog::appendLog("File permissions are preventing Ambrel from moving %@ to %@ - authorizing...",
                     oldPath, newPath);
    if (!transfer.moveItem(oldPath, newPath, &error)) {
        KTAuthorization* auth = KTAuthorization::sharedController();
        if (!auth->isAuthorized() && !auth->canAuthorize()) {
            // Nobody to ask (the command line): this plug-in stays, the batch goes on.
            KTLog::appendLogAndPrint("Left %@ where it is - %@", oldPath, error);
            KTTransferPlan::noteSkip(oldPath, "needs administrator rights");
            return false;
        }
        switch (transfer.authMoveItem(oldPath, newPath, &error)) {
            case KTTransfer::Outcome::Refused:
                KTLog::appendLog("User cancelled authorization.");
                if (app) app->setProcessingCancelled(true);
                return false;
            case KTTransfer::Outcome::Failed:
                KTLog::appendLog("%@", error);
                postAndLog("Error: File %@ could not be moved to %@.", oldPath, newPath);
                return false;
            case KTTransfer::Outcome::Done:
                KTFileMover::pauseAfterPrivilegedStep();
                break;
        }
    }
    outline.removeEmptyFolder(parentOf(oldPath), true);
    batchKnowledge.moved = true;
    return true;
}

}  // namespace

void OutlineViewController::cleanupPluginPath(const std::string& oldDisabledPath,
                                              bool oldFolderHoldsAFolder) {
    KTLog::appendLog("Cleaning up plugin path %@...", oldDisabledPath);
    if (!startsWith(oldDisabledPath, disabledPath_)) return;
    // The plug-in's old folder relative to the disabled folder, from "/".
    const std::string relative = parentOf(oldDisabledPath.substr(disabledPath_.size()));
    if (relative.empty() || relative[0] != '/') return;
    std::string folder = relative == "/"
                             ? disabledPath_
                             : KTPluginLocations::appendPathComponent(disabledPath_, relative);
    const std::size_t passes = pathComponents(relative).size();
    for (std::size_t i = 0; i < passes; ++i) {
        if (!removeEmptyFolder(folder, false, i == 0 && oldFolderHoldsAFolder)) break;
        folder = parentOf(folder);
    }
}

bool OutlineViewController::removeEmptyFolder(const std::string& folder,
                                              bool includeEmptySubfolders, bool holdsAFolder) {
    if (KTTransferPlan::active()) return false;  // a dry run leaves every folder
    KTLog::appendLog("Removing empty folder %@...", folder);
    if (holdsAFolder) return false;
    // A folder that may be gone in a moment is no longer the batch's to answer for.
    if (KTMoveBatch* batch = KTMoveBatch::current()) batch->forgetFolder(folder);
    // One look: whether it is there, whether it is a folder (a link is
    // followed) and how many folders it holds.
    const KTFileLook look = KTFileLook::at(folder);
    if (!look.exists()) return true;
    if (look.isLink() ? !isDirectory(folder) : !look.isDirectory()) return false;
    if (KTLocalPaths::isPathSystemDirectory(folder, false)) return false;
    const std::string bare = withoutTrailingSlash(folder);
    for (const auto& [key, kindFolder] : pluginFolderDict()) {
        if (withoutTrailingSlash(kindFolder) == bare) return false;
    }

    if (!includeEmptySubfolders && !look.isLink()) {
        // The mirrored kind folder can hold thousands of disabled plug-ins and
        // is asked after each enable. Its link count answers for a folder that
        // still holds a bundle (a folder: more than a .DS_Store), which rmdir
        // would otherwise find out by reading the folder, further each time as
        // the enabled entries leave holes at its start. Otherwise rmdir
        // answers "not empty" in one call; only a .DS_Store in the way, or a
        // refusal, takes the long way.
        if (look.holdsAFolder()) return false;
        if (::rmdir(folder.c_str()) == 0) {
            KTLog::appendLog("Beginning removal of empty folder %@...", folder);
            return true;
        }
        const int err = errno;
        if (err == ENOENT) return true;
        if ((err == ENOTEMPTY || err == EEXIST) &&
            !exists(KTPluginLocations::appendPathComponent(folder, ".DS_Store")))
            return false;
    }

    std::error_code ec;
    std::vector<fs::directory_entry> entries;
    // Without recursion two entries already decide.
    const std::size_t enough = includeEmptySubfolders ? SIZE_MAX : 2;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end && entries.size() < enough;
         it.increment(ec))
        entries.push_back(*it);
    if (ec) {
        postAndLog("Error getting contents of directory %@ - %@", folder, ec.message());
        return false;
    }
    if (!includeEmptySubfolders) {
        if (entries.size() > 1) return false;
        if (entries.size() == 1 && entries[0].path().filename() != ".DS_Store") return false;
    } else {
        for (const auto& entry : entries) {
            const std::string path = entry.path().string();
            if (!exists(path)) continue;
            if (isDirectory(path) && !entry.is_symlink()) {
                if (!removeEmptyFolder(path, true)) return false;
            } else if (entry.path().filename() != ".DS_Store") {
                return false;
            }
        }
    }

    KTLog::appendLog("Beginning removal of empty folder %@...", folder);
    // Never a recursive delete after a look: another batch may have put a
    // plug-in here since. rmdir refuses a folder that is no longer empty.
    const std::string dsStore = KTPluginLocations::appendPathComponent(folder, ".DS_Store");
    int err = 0;
    if (::unlink(dsStore.c_str()) != 0 && errno != ENOENT) err = errno;
    if (err == 0 && ::rmdir(folder.c_str()) == 0) return true;
    if (err == 0) err = errno;
    if (err == ENOTEMPTY || err == EEXIST) {
        KTLog::appendLog("Folder %@ is no longer empty; kept", folder);
        return false;
    }
    KTAuthorization* auth = KTAuthorization::sharedController();
    if (err != ENOENT && (auth->isAuthorized() || auth->canAuthorize())) {
        if (exists(dsStore)) auth->authExecTask("/bin/rm", {"-f", dsStore}, false);
        auth->authExecTask("/bin/rm", {"-d", folder}, false);
        KTFileMover::pauseAfterPrivilegedStep();
    }
    if (!exists(folder)) return true;
    postAndLog("Unable to remove empty folder %@ - %@", folder, std::strerror(err));
    return false;
}

void OutlineViewController::unlockItemsInPath(const std::string& path) {
    if (KTTransferPlan::active()) return;  // a dry run changes no flag
    unlockWalk(path, nullptr);
}

void OutlineViewController::setEnabled(long long enabled, const std::shared_ptr<KTGroupItem>& group,
                                       bool showProgress, bool threaded) {
    if (enabled == -1 || !group) return;
    KTGroupEnabledArgs args{enabled, group, showProgress};
    if (threaded && app_) {
        app_->batchThreads().start([this, args] { setEnabledForGroupOnThread(args); });
    } else {
        setEnabledForGroupOnThread(args);
    }
}

void OutlineViewController::setEnabledForGroupOnThread(const KTGroupEnabledArgs& args) {
    if (!args.group || args.groupEnabled == -1) return;
    KTMoveBatch batch;
    KTLog::appendLog("%@ group %@...", args.groupEnabled != 0 ? "Enabling" : "Disabling",
                     args.group->title());
    const KTItemList children = args.group->children();
    const bool progress = args.showProgress && hasInterface(app_);
    if (progress) {
        onMain([&] {
            app_->showProgressWindow();
            app_->setDeterminateProgress(double(children.size()));
            app_->updateProgressText("Moving files...");
        });
    }
    for (const auto& child : children) {
        if (!child) continue;
        if (child->isGroup()) {
            setEnabled(args.groupEnabled, std::static_pointer_cast<KTGroupItem>(child), false,
                       false);
        } else {
            moveFilter(std::static_pointer_cast<KTPluginItem>(child), args.groupEnabled);
            if (app_) onMainNoWait([app = app_] { app->incrementProgress(); });
        }
    }
    if (progress) onMain([&] { app_->endProgressWindow(); });
    if (KTOutlineView* view = outlineView()) onMain([&] { view->refreshPluginStats(); });
}

void OutlineViewController::statusCheckBoxChanged(const KTItemPtr& item, long long newValue) {
    if (!item) return;
    if (app_) app_->setProcessingCancelled(false);
    if (item->isGroup()) {
        auto group = std::static_pointer_cast<KTGroupItem>(item);
        group->enableChildren(newValue);
        setEnabled(newValue, group, true);
        return;
    }
    auto plugin = std::static_pointer_cast<KTPluginItem>(item);
    if (plugin->pluginEnabled() == newValue || plugin->isLocked()) return;
    plugin->setPluginEnabled(newValue);
    moveFilter(plugin, newValue);
    if (KTOutlineView* view = outlineView()) {
        view->reloadParentOfItem(item);
        if (hasInterface(app_)) view->refreshPluginStats();
    }
}
