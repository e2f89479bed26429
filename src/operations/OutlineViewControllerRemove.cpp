// Removal to the Trash: one plug-in, a group's plug-ins and folders.
#include <algorithm>
#include <chrono>

#include "SharedFiles/KTFileManager.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/KTTransferPlan.h"
#include "app/core/AppController.h"
#include "catalogue/KTOutlineView.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTOperationSupport.h"

using namespace KTOperationSupport;

namespace {

/// How long one item may take to leave for the Trash.
constexpr std::chrono::seconds kTrashTimeout{10};

class Spinner {
  public:
    explicit Spinner(AppController* app) : app_(hasInterface(app) ? app : nullptr) {
        if (app_) onMain([this] { app_->startProgress(); });
    }
    ~Spinner() {
        if (app_) onMain([this] { app_->endProgress(); });
    }

  private:
    AppController* app_;
};

}  // namespace

bool OutlineViewController::removePlugin(const std::shared_ptr<KTPluginItem>& item) {
    Spinner spinner(app_);
    if (!item) return false;
    if (item->isLocked()) {
        // Skipped like every other operation skips it; it stays in the tree.
        KTLog::appendLog("Unable to move %@ - plugin is locked", item->shortName());
        KTTransferPlan::noteSkip(item->actualPath(), "plugin is locked");
        return true;
    }
    // Where the file was last seen: its computed place when it is there, and
    // otherwise not a place where trashing "nothing" would count as done.
    item->updateActualPath();
    if (!KTFileManager::trashFile(item->actualPath(), kTrashTimeout)) {
        postAndLog("Unable to remove plugin %@.", item->shortName());
        return false;
    }
    removeItemFromTree(item);
    return true;
}

void OutlineViewController::removeItemFromTree(const KTItemPtr& item) {
    if (!item) return;
    bool topLevel = false;
    onMain([&] {
        std::lock_guard<std::recursive_mutex> l(treeLock_);
        if (auto parent = item->parent()) {
            auto& list = *parent->childrenList();
            list.erase(std::remove(list.begin(), list.end(), item), list.end());
        } else {
            topLevel = true;
            dataArray_.erase(std::remove(dataArray_.begin(), dataArray_.end(), item),
                             dataArray_.end());
            filteredArray_.erase(std::remove(filteredArray_.begin(), filteredArray_.end(), item),
                                 filteredArray_.end());
        }
        if (item->isGroup()) {
            invalidateIndexes();
        } else {
            // Only this plug-in's entries go: a batch removing thousands of
            // plug-ins must not rebuild the whole index after each one.
            const auto& plugin = static_cast<const KTPluginItem&>(*item);
            for (const std::string& key : {plugin.actualPath(), plugin.pluginPath()}) {
                auto hit = pathIndex_.find(key);
                if (hit != pathIndex_.end() && hit->second.lock() == item) pathIndex_.erase(hit);
            }
        }
        if (topLevel && outlineView()) outlineView()->reloadOutline();
    });
}

bool OutlineViewController::trashChildPluginsForGroup(const std::shared_ptr<KTGroupItem>& group) {
    if (!group) return false;
    KTLog::appendLog("Trashing child plugins for group %@", group->title());
    const KTItemList children = group->children();
    for (const auto& child : children) {
        if (!child) continue;
        if (child->isGroup()) {
            if (!trashChildPluginsForGroup(std::static_pointer_cast<KTGroupItem>(child)))
                return false;
        } else {
            if (!removePlugin(std::static_pointer_cast<KTPluginItem>(child))) return false;
            if (app_) onMain([this] { app_->incrementProgress(); });
        }
    }
    return true;
}

bool OutlineViewController::removeGroup(const std::shared_ptr<KTGroupItem>& group,
                                        bool removeChildren) {
    if (!group) return false;
    KTLog::appendLog("Removing group %@...", group->title());
    Spinner spinner(app_);
    const bool ui = hasInterface(app_);
    bool refresh = false;

    [&] {
        if (removeChildren && !trashChildPluginsForGroup(group)) {
            KTLog::appendLogAndPrint("Cannot remove group %@ - child plugins could not be trashed.",
                                     group->title());
            if (ui) {
                alert(app_, KTFormat::str("Cannot remove group %@", group->title()),
                      "Child plugins could not be removed.");
            } else {
                KTTaskNotification::postTaskErrorString(
                    KTFormat::str("Cannot remove group %@ - child plugins could not be trashed.",
                                  group->title()));
            }
            return;
        }
        const std::string subdir = group->subdir().value_or("");
        if (subdir.empty()) {
            // Its folder would be the kind folder itself, with everybody's plug-ins in it.
            const std::string text = KTFormat::str(
                "Group %@ has no subdirectory parameter - aborting deletion to protect other "
                "plugins from removal.",
                group->title());
            KTTaskNotification::postTaskErrorString(text);
            KTLog::appendLogAndPrint("%@", text);
            alert(app_, KTFormat::str("Invalid group format for %@.", group->title()),
                  "Removal aborted.");
            refresh = true;
            return;
        }
        for (const auto& [key, kindFolder] : pluginFolderDict()) {
            const std::string enabled = KTPluginLocations::appendPathComponent(kindFolder, subdir);
            for (const std::string& candidate :
                 {enabled, KTPluginLocations::disabledPathForPath(enabled)}) {
                if (!removeChildren) {
                    removeEmptyFolder(candidate, true);
                    continue;
                }
                if (!exists(candidate) || KTFileManager::trashFile(candidate, kTrashTimeout))
                    continue;
                KTLog::appendLogAndPrint("Unable to remove %@", candidate);
                if (ui) {
                    alert(app_, KTFormat::str("Unable to remove directory %@", candidate), "");
                } else {
                    KTTaskNotification::postTaskErrorString(
                        KTFormat::str("Unable to remove directory %@", candidate));
                }
                return;
            }
        }
    }();

    removeItemFromTree(group);
    // The group comes back from disk when the catalogue is read again.
    if (refresh && ui) app_->reloadData();
    return false;
}

std::optional<std::string> OutlineViewController::currentUser() {
    if (const char* user = std::getenv("$USER")) return std::string(user);
    return std::nullopt;
}
