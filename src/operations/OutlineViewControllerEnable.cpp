// Enabling and disabling: the move of one plug-in into and out of the
// disabled folder, the general move with its administrator fall-back, the
// clean-up of emptied folders, and the group-wide and check-box entries.
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/KTTransfer.h"
#include "SharedFiles/KTTransferPlan.h"
#include "app/core/AppController.h"
#include "catalogue/KTOutlineView.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "SharedFiles/KTMoveBatch.h"
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

/// Whether the user may take `oldPath` out of its folder and put it in
/// `folder` (its stat given): the plain move's permission check. Within a
/// batch the folders' answers are asked once; the item's own is asked each time.
bool plainMoveAllowed(const std::string& oldPath, const std::string& folder,
                      const struct stat& folderStat) {
    if (!isWritable(oldPath)) return false;
    // A dry run's folders may exist only in its plan: it asks each time.
    KTMoveBatch* batch = KTTransferPlan::active() ? nullptr : KTMoveBatch::current();
    struct stat from {};
    if (::stat(parentOf(oldPath).c_str(), &from) != 0) return false;
    std::optional<bool> fromOk =
        batch ? batch->movableFrom(from.st_dev, from.st_ino) : std::nullopt;
    if (!fromOk) {
        fromOk = isDeletable(oldPath);
        // In a sticky folder the answer depends on each item's owner.
        if (batch && !(from.st_mode & S_ISVTX))
            batch->noteMovableFrom(from.st_dev, from.st_ino, *fromOk);
    }
    if (!*fromOk) return false;
    std::optional<bool> intoOk =
        batch ? batch->movableInto(folderStat.st_dev, folderStat.st_ino) : std::nullopt;
    if (!intoOk) {
        intoOk = isWritable(folder) && isDeletable(folder);
        if (batch) batch->noteMovableInto(folderStat.st_dev, folderStat.st_ino, *intoOk);
    }
    return *intoOk;
}

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

bool OutlineViewController::moveFilter(const std::shared_ptr<KTPluginItem>& item,
                                       long long newStatus) {
    if (!item) return false;
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
            if (!exists(path)) return false;
            const auto target = KTPluginLocations::enabledPathForDisabledPath(path);
            if (!target) {
                KTLog::appendLog("Error: plugin is already enabled.");
                KTTransferPlan::noteSkip(path, "plugin is already enabled");
                return false;
            }
            if (moveFileFrom(path, *target)) {
                item->setPluginEnabled(1);
                item->setActualPath(*target);
                cleanupPluginPath(path);
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
        if (!exists(path)) return false;
        if (KTPluginLocations::isDisabledPath(path)) {
            KTLog::appendLog("Error: plugin is already disabled.");
            KTTransferPlan::noteSkip(path, "plugin is already disabled");
            return false;
        }
        const std::string target = KTPluginLocations::disabledPathForPath(path);
        const std::string parent = parentOf(target);
        const FolderCreation made =
            createFolder(parent, "Unable to create directory %@ - %@. Authorizing...");
        if (made != FolderCreation::Existed) KTMoveBatch::forgetCurrent();
        if (made == FolderCreation::Refused) {
            KTTaskNotification::postTaskErrorString("Ambrel: Unable to authorize.");
            KTLog::appendLog("Unable to authorize.");
            return false;
        }
        if (moveFileFrom(path, target)) {
            item->setPluginEnabled(0);
            item->setActualPath(target);
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
    if (oldPath.empty() || newPath.empty()) return false;
    if (!exists(oldPath)) return true;
    if (app_ && app_->processingCancelled()) return false;
    // What the batch knows holds only while its moves succeed.
    struct ForgetUnlessMoved {
        bool moved = false;
        ~ForgetUnlessMoved() {
            if (!moved) KTMoveBatch::forgetCurrent();
        }
    } batchKnowledge;

    unlockItemsInPath(oldPath);
    unlockItemsInPath(newPath);
    KTLog::appendLog("Moving file from %@ to %@", oldPath, newPath);
    ProgressSpinner spinner(app_);

    const std::string folder = parentOf(newPath);
    if (!exists(folder)) {
        KTLog::appendLog("Creating new containing folder at %@...", folder);
        KTMoveBatch::forgetCurrent();  // a new folder: what was known above it may change
        if (createFolder(folder, "Unable to create directory at %@ - %@. Authorizing...") ==
            FolderCreation::Refused) {
            KTLog::appendLog("User cancelled authorization.");
            if (app_) app_->setProcessingCancelled(true);
            return false;
        }
    }
    // One look at the folder: whether it is there, and which folder it is for the batch's answers.
    struct stat folderStat {};
    const bool onlyPlanned = KTTransferPlan::active() && exists(folder);
    if (::stat(folder.c_str(), &folderStat) != 0 && !onlyPlanned) {
        postAndLog("Error: Unable to create containing folder %@. File %@ was not moved.", folder,
                   oldPath);
        return false;
    }
    // The privileged tool would replace it without a word; refuse here for both paths.
    if (exists(newPath)) {
        postAndLog("Unable to move %@ to %@ - %@", oldPath, newPath,
                   KTFormat::str("%@ already exists", newPath));
        KTTransferPlan::noteSkip(oldPath, KTFormat::str("destination %@ exists", newPath));
        return false;
    }

    KTTransfer& transfer = KTTransfer::shared();
    std::string error;
    if (plainMoveAllowed(oldPath, folder, folderStat)) {
        KTLog::appendLog("Moving %@ to %@", oldPath, newPath);
        if (!transfer.moveItem(oldPath, newPath, &error)) {
            postAndLog("Unable to move %@ to %@ - %@", oldPath, newPath, error);
            return false;
        }
        KTLog::appendLog("Plugin successfully moved to %@", newPath);
        batchKnowledge.moved = true;
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
                if (app_) app_->setProcessingCancelled(true);
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
    removeEmptyFolder(parentOf(oldPath), true);
    batchKnowledge.moved = true;
    return true;
}

void OutlineViewController::cleanupPluginPath(const std::string& oldDisabledPath) {
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
        if (!removeEmptyFolder(folder, false)) break;
        folder = parentOf(folder);
    }
}

bool OutlineViewController::removeEmptyFolder(const std::string& folder,
                                              bool includeEmptySubfolders) {
    if (KTTransferPlan::active()) return false;  // a dry run leaves every folder
    KTLog::appendLog("Removing empty folder %@...", folder);
    if (!exists(folder)) return true;
    if (!isDirectory(folder)) return false;
    if (KTLocalPaths::isPathSystemDirectory(folder, false)) return false;
    const std::string bare = withoutTrailingSlash(folder);
    for (const auto& [key, kindFolder] : pluginFolderDict()) {
        if (withoutTrailingSlash(kindFolder) == bare) return false;
    }

    if (!includeEmptySubfolders) {
        // The mirrored kind folder can hold thousands of disabled plug-ins and
        // is asked after each enable: rmdir answers "not empty" without a
        // listing. Only a .DS_Store in the way, or a refusal, needs the long way.
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
    KTMoveBatch* batch = KTMoveBatch::current();
    std::string prefix;
    for (const auto& component : pathComponents(path)) {
        prefix =
            prefix.empty() ? component : KTPluginLocations::appendPathComponent(prefix, component);
        struct stat st {};
        if (::lstat(prefix.c_str(), &st) != 0) return;
        if (S_ISLNK(st.st_mode)) continue;  // a link has no flags of its own
        // An ancestor this batch has already unlocked (or found unlocked) is not opened again.
        const bool folder = S_ISDIR(st.st_mode);
        if (folder && batch && batch->isKnownUnlocked(st.st_dev, st.st_ino)) continue;
        int fd = ::open(prefix.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
        if (fd < 0) {
            if (errno == ELOOP) continue;  // became a link since
            postAndLog("Unable to get attributes of item %@ - %@", prefix, std::strerror(errno));
            return;
        }
        int flags = 0;
        if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
            const int err = errno;
            ::close(fd);
            // A file system without flags has nothing locked.
            if (err == ENOTTY || err == EOPNOTSUPP || err == EINVAL || err == ENOSYS) {
                if (folder && batch) batch->noteUnlocked(st.st_dev, st.st_ino);
                continue;
            }
            postAndLog("Unable to get attributes of item %@ - %@", prefix, std::strerror(err));
            return;
        }
        bool unlocked = true;
        if (flags & FS_IMMUTABLE_FL) {
            flags &= ~FS_IMMUTABLE_FL;
            if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) != 0) {
                unlocked = false;
                postAndLog("Unable to unlock item %@ - %@", prefix, std::strerror(errno));
            }
        }
        ::close(fd);
        if (unlocked && folder && batch) batch->noteUnlocked(st.st_dev, st.st_ino);
    }
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
