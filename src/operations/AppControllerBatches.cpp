// The toolbar's batch actions (enable or disable, scope, remove) and
// "Delete All": each batch runs on a thread of its own and touches the
// interface only through the main-thread seam.
#include <chrono>
#include <filesystem>
#include <functional>
#include <unordered_set>

#include "SharedFiles/KTFileManager.h"
#include "SharedFiles/KTLog.h"
#include "app/core/AppController.h"
#include "catalogue/KTOutlineView.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "SharedFiles/KTMoveBatch.h"
#include "operations/KTOperationSupport.h"

namespace fs = std::filesystem;
using namespace KTOperationSupport;

namespace {

/// The determinate maximum of a batch's progress window, or 0 for none: the
/// selection's size when more than 4 are selected, else the plug-ins
/// counted inside groups when those are more than 4.
double batchProgressMaximum(const KTItemList& items) {
    if (items.size() > 4) return double(items.size());
    const long total = OutlineViewController::countTotalItemsInArray(items);
    return total > 4 ? double(total) : 0.0;
}

/// The items up to the first point where the batch was cancelled.
KTItemList collectSelection(const AppController& app, const KTItemList& selection) {
    KTItemList out;
    for (const auto& item : selection) {
        if (app.processingCancelled()) break;
        if (item) out.push_back(item);
    }
    return out;
}

/// The body both toolbar toggles share: progress over a large selection, one
/// step per item until cancelled, then the outline redrawn (or, after a
/// cancel, the catalogue reloaded, since the moves stopped half-way).
void runToggleBatch(AppController& app, OutlineViewController& outline, const KTItemList& items,
                    const std::function<void(const KTItemPtr&)>& perItem, bool refreshCounts) {
    KTPluginLocations::FolderCache folders;  // one folder table for the whole batch
    const double maximum = batchProgressMaximum(items);
    if (maximum > 0 && KTOperationSupport::hasInterface(&app)) {
        onMain([&] {
            app.showProgressWindow();
            app.updateProgressText("Moving files...");
            app.setDeterminateProgress(maximum);
        });
    }
    for (const auto& item : items) {
        if (app.processingCancelled()) break;
        perItem(item);
    }
    onMain([&] {
        const bool cancelled = app.processingCancelled();
        app.endProgressWindow();
        if (cancelled) {
            app.reloadData();
        } else if (KTOutlineView* view = outline.outlineView()) {
            view->reloadOutline();
            if (refreshCounts) view->refreshPluginStats();
            view->enableAndConfigureButtons();
        }
    });
}

}  // namespace

void AppController::enableDisable(const KTItemList& selection, const std::string& buttonLabel) {
    setProcessingCancelled(false);
    KTLog::appendLog("Toggling enabled status...");
    KTToggleArgs args{collectSelection(*this, selection), buttonLabel == "Disable" ? 0 : 1};
    batchThreads_.start([this, args] { toggleEnableDisableOnThread(args); });
}

void AppController::toggleEnableDisableOnThread(const KTToggleArgs& args) {
    OutlineViewController& outline = *outline_;
    KTMoveBatch batch;
    runToggleBatch(
        *this, outline, args.objectArray,
        [&](const KTItemPtr& item) {
            if (item->isGroup()) {
                outline.setEnabled(args.newValue, std::static_pointer_cast<KTGroupItem>(item),
                                   false, false);
            } else {
                outline.moveFilter(std::static_pointer_cast<KTPluginItem>(item), args.newValue);
                onMainNoWait([this] { incrementProgress(); });
            }
        },
        true);
}

void AppController::toggleUserAccess(const KTItemList& selection, const std::string& buttonLabel) {
    setProcessingCancelled(false);
    KTLog::appendLog("Toggling user access...");
    KTToggleArgs args{collectSelection(*this, selection), buttonLabel == "Current User" ? 1 : 0};
    batchThreads_.start([this, args] { toggleUserAccessOnThread(args); });
}

void AppController::toggleUserAccessOnThread(const KTToggleArgs& args) {
    OutlineViewController& outline = *outline_;
    KTMoveBatch batch;
    runToggleBatch(
        *this, outline, args.objectArray,
        [&](const KTItemPtr& item) { outline.setAccess(args.newValue, item, false, false); },
        false);
}

void AppController::remove(const KTItemList& selection) {
    setProcessingCancelled(false);
    if (selection.empty()) return;
    std::string subject = "these items";
    if (selection.size() == 1) subject = selection[0]->isGroup() ? "this group" : "this plugin";
    const int answer = ask(this, {KTFormat::str("Are you sure you wish to remove %@?", subject),
                                  "To restore from the Trash, drag the plugin back into the main "
                                  "window.",
                                  {"Remove", "Cancel"}});
    if (answer != 0) return;
    KTLog::appendLog("Removing items...");
    KTItemList items;
    for (const auto& item : selection)
        if (item) items.push_back(item);
    if (items.empty()) return;
    batchThreads_.start([this, items] { removePluginsOnThread(items); });
}

void AppController::removePluginsOnThread(const KTItemList& selected) {
    KTPluginLocations::FolderCache folders;  // one folder table for the whole batch
    OutlineViewController& outline = *outline_;
    // A group's members go with the group; listing them again would trash twice.
    std::unordered_set<const KTItem*> groups;
    for (const auto& item : selected)
        if (item && item->isGroup()) groups.insert(item.get());
    KTItemList items;
    for (const auto& item : selected) {
        if (!item) continue;
        bool inside = false;
        for (auto p = item->parent(); p && !inside; p = p->parent()) inside = groups.count(p.get());
        if (!inside) items.push_back(item);
    }

    const long total = OutlineViewController::countTotalItemsInArray(items);
    const bool ui = KTOperationSupport::hasInterface(this);
    if (total > 3 && ui) {
        onMain([&] {
            showProgressWindow();
            setDeterminateProgress(double(total));
            updateProgressText("Removing files...");
        });
    }
    for (const auto& item : items) {
        if (item->isGroup()) {
            outline.removeGroup(std::static_pointer_cast<KTGroupItem>(item), true);
            continue;
        }
        auto plugin = std::static_pointer_cast<KTPluginItem>(item);
        if (!outline.removePlugin(plugin)) {
            alert(this, KTFormat::str("Unable to remove plugin %@.", plugin->shortName()),
                  KTFormat::str("Please check you have write permissions for the directory %@.",
                                parentOf(plugin->actualPath())));
            break;
        }
        onMainNoWait([this] { incrementProgress(); });
    }
    onMain([&] {
        const bool cancelled = processingCancelled();
        endProgressWindow();
        if (cancelled) reloadData();
    });
}

void AppController::deleteAllDisabled() {
    const int answer = ask(this, {"Are you sure you wish to delete all disabled plugins?",
                                  "The plugins will be placed in the Trash.",
                                  {"Delete All", "Cancel"}});
    if (KTOperationSupport::hasInterface(this) && answer != 0) return;

    const std::string disabled = outline_->disabledPath();
    if (!exists(disabled)) {
        tell(this, "Unable to trash disabled plugins", "No plugins have been disabled.");
        return;
    }
    bool trashed = true;
    std::error_code ec;
    std::vector<std::string> entries;
    for (fs::directory_iterator it(disabled, ec), end; !ec && it != end; it.increment(ec))
        entries.push_back(it->path().string());
    if (ec) trashed = false;
    for (const auto& entry : entries) {
        if (!KTFileManager::trashFile(entry, true)) trashed = false;
    }
    if (!trashed) {
        tell(this, "Unable to trash disabled plugins", "Please check your file permissions.");
        return;
    }
    reloadData();
    tell(this, "Plugin trash successful", "All disabled plugins were trashed.");
}
