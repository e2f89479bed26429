// Access scope: moving plug-ins between the current user's folders and the
// machine-wide ones, for one plug-in or a whole group.
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/KTTransferPlan.h"
#include "app/core/AppController.h"
#include "catalogue/KTOutlineView.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTOperationSupport.h"

using namespace KTOperationSupport;

namespace {

/// Kinds that have one place for everybody: their scope is never changed.
bool hasFixedScope(const KTPluginItem& item) {
    switch (item.pluginType()) {
        case KTPluginType::AvidAVX:
        case KTPluginType::Adobe:
        case KTPluginType::AvidAVX2:
        case KTPluginType::AvidRTAS:
            return true;
        default:
            return false;
    }
}

const char* scopeWord(std::int64_t mode) {
    return mode != 0 ? "current user" : "all users";
}

}  // namespace

void OutlineViewController::setAccess(std::int64_t mode, const KTItemPtr& item, bool showProgress,
                                      bool threaded) {
    if (!item) return;
    if (!item->isGroup()) {
        const auto& plugin = static_cast<const KTPluginItem&>(*item);
        if (plugin.isLocked()) KTTransferPlan::noteSkip(plugin.actualPath(), "plugin is locked");
        if (hasFixedScope(plugin) || plugin.isLocked()) return;
    }
    KTSetAccessArgs args{mode, item, showProgress};
    if (threaded && app_) {
        app_->batchThreads().start([this, args] { setAccessOnThread(args); });
    } else {
        setAccessOnThread(args);
    }
}

void OutlineViewController::setAccessOnThread(const KTSetAccessArgs& args) {
    if (!args.item) return;
    const std::int64_t mode = args.accessMode;
    const bool ui = hasInterface(app_);

    // Moves one plug-in to the computed place of the new scope when its scope
    // or its place differs; a failure puts the scope back. True when it acted.
    auto changeScope = [&](const std::shared_ptr<KTPluginItem>& plugin, bool report) {
        const std::int64_t oldScope = plugin->pluginAccess();
        plugin->updateActualPath();
        if (oldScope == mode && plugin->actualPath() == plugin->pluginPath()) return false;
        KTLog::appendLog("Setting access for plugin %@ to %@...", plugin->shortName(),
                         scopeWord(mode));
        const std::int64_t revert = oldScope != mode ? oldScope : (mode == 0 ? 1 : 0);
        const std::string oldPlace = plugin->actualPath();
        plugin->setPluginAccess(mode);
        const std::string newPlace = plugin->pluginPath();
        if (oldPlace != newPlace) {
            if (moveFileFrom(oldPlace, newPlace)) {
                plugin->setActualPath(newPlace);
            } else {
                if (report) postAndLog("Failed to move file %@ to %@", oldPlace, newPlace);
                plugin->setPluginAccess(revert);
            }
        }
        return true;
    };

    if (!args.item->isGroup()) {
        auto plugin = std::static_pointer_cast<KTPluginItem>(args.item);
        if (plugin->isLocked()) return;
        if (changeScope(plugin, true) && ui) {
            if (KTOutlineView* view = outlineView())
                onMain([&] { view->reloadParentOfItem(plugin); });
        }
        if (ui) onMain([&] { app_->incrementProgress(); });
        return;
    }

    auto group = std::static_pointer_cast<KTGroupItem>(args.item);
    const KTItemList children = group->children();
    const bool progress = args.showProgress && ui && children.size() > 3;
    if (progress) {
        onMain([&] {
            app_->showProgressWindow();
            app_->setDeterminateProgress(double(children.size()));
            app_->updateProgressText("Moving files...");
        });
    }
    KTLog::appendLog("Setting access for group %@ to %@...", group->title(), scopeWord(mode));
    for (const auto& child : children) {
        if (!child) continue;
        if (child->isGroup()) {
            setAccess(mode, child, args.showProgress, false);
            continue;
        }
        auto plugin = std::static_pointer_cast<KTPluginItem>(child);
        if (plugin->isLocked() || hasFixedScope(*plugin)) continue;
        changeScope(plugin, false);
        group->setGroupPath(
            KTFormat::str("%@/%@", plugin->pluginBasePath(), plugin->subdir().value_or("")));
        if (ui) onMain([&] { app_->incrementProgress(); });
    }
    if (ui) {
        if (KTOutlineView* view = outlineView())
            onMain([&] { view->reloadItemAndChildren(group); });
    }
    if (progress) onMain([&] { app_->endProgressWindow(); });
}

void OutlineViewController::userCheckBoxChanged(const KTItemPtr& item, std::int64_t newValue) {
    if (!item) return;
    if (item->isGroup()) {
        auto group = std::static_pointer_cast<KTGroupItem>(item);
        group->setChildAccess(newValue);
        setAccess(newValue, group, true);
        return;
    }
    auto plugin = std::static_pointer_cast<KTPluginItem>(item);
    if (plugin->isLocked()) return;
    plugin->setPluginAccess(newValue);
    setAccess(newValue, plugin, false);
}
