// The add-group action of the application controller.
#include <filesystem>
#include <system_error>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskNotification.h"
#include "app/core/AppController.h"
#include "catalogue/KTOutlineView.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTOperationSupport.h"
#include "operations/KTOperationTreeLock.h"

namespace fs = std::filesystem;
using namespace KTOperationSupport;

namespace {
/// Deeper trees made every scan and redraw crawl.
constexpr int kMaximumGroupLevel = 10;
}  // namespace

std::shared_ptr<KTGroupItem> AppController::addGroup(const KTItemPtr& selected) {
    KTLog::appendLog("Adding group...");
    OutlineViewController& outline = outlineViewController();
    if (selected && OutlineViewController::outlineLevel(selected) >= kMaximumGroupLevel) {
        KTLog::appendLog(
            "You have reached the limit of 10 subdirectories. This limit has been imposed for "
            "performance reasons.");
        alert(this, "You have reached the limit of 10 subdirectories.",
              "This limit has been imposed for performance reasons.");
        return nullptr;
    }
    std::shared_ptr<KTGroupItem> parent;
    if (selected) {
        parent = selected->isGroup() ? std::static_pointer_cast<KTGroupItem>(selected)
                                     : selected->parent();
    }
    std::string folder, parentSubdir;
    if (parent) {
        folder = parent->groupPath();
        parentSubdir = parent->subdir().value_or("");
    } else {
        // New top-level groups start out in the disabled mirror of the FxPlug folder.
        const auto fxplug =
            KTPluginLocations::folderForKey(outline.pluginFolderDict(), "localFxPlug");
        folder = KTPluginLocations::disabledPathForPath(
            *KTLocalPaths::stripTrailingSlash(fxplug.value_or("")));
    }

    const std::string name = OutlineViewController::proposeGroupFilename(folder);
    KTLog::appendLog("Proposed group filename: %@", name);
    if (name.empty()) {
        KTTaskNotification::postTaskErrorString(
            "Cannot create group - unable to determine group name. Please report this errpr to "
            "Quellbrook.");
        KTLog::appendLog(
            "Cannot create group - unable to determine group name. Please report this error to "
            "Quellbrook.");
        alert(this, "Cannot create group.",
              "Unable to determine group name. Please report this error to Quellbrook.");
        return nullptr;
    }

    const std::string path = KTPluginLocations::appendPathComponent(folder, name);
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) {
        postAndLog(
            "Unable to create group - %@. Please check you have write permissions for the "
            "folder %@.",
            ec.message(), folder);
        alert(this,
              KTFormat::str("Unable to create group. Please check you have write permissions for "
                            "the folder %@.",
                            folder),
              ec.message());
        return nullptr;
    }

    auto group = std::make_shared<KTGroupItem>();
    group->setTitle(name);
    group->setGroupPath(path);
    group->setSubdir(
        parentSubdir.empty() ? name : KTPluginLocations::appendPathComponent(parentSubdir, name));
    onMain([&] {
        {
            KTOperationTreeLock l(outline.treeLock());
            if (parent) {
                parent->addChild(group);
            } else {
                outline.addItemToDataArray(group);
            }
            outline.invalidateIndexes();
        }
        KTLog::appendLog("Refreshing OutlineView...");
        if (outline.outlineView()) outline.outlineView()->reloadOutline();
    });
    return group;
}
