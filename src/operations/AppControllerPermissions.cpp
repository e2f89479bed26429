// Keeping the disabled folder usable: the start-up permission repair and
// the conversion of the older ".Disabled" layout.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/KTTransfer.h"
#include "app/core/AppController.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "operations/KTOperationSupport.h"

namespace fs = std::filesystem;
using namespace KTOperationSupport;

void AppController::checkPermissions() {
    const std::string disabled = outline_->disabledPath();
    if (!exists(disabled)) {
        std::error_code ignored;
        fs::create_directories(disabled, ignored);
    }
    if (exists(disabled) && ::access(disabled.c_str(), R_OK | W_OK) == 0 && isDeletable(disabled))
        return;

    KTLog::appendLog("Permissions incorrectly set. Asking user to repair...");
    const int answer =
        ask(this, {"Permissions incorrectly set",
                   "Ambrel has determined that the permissions on some of the folders it uses are "
                   "incorrectly set. These can sometimes cause unexpected behavior. Would you like "
                   "to repair these now?",
                   {"Repair", "Cancel"}});
    if (answer != 0) return;

    KTAuthorization* auth = KTAuthorization::sharedController();
    if (!exists(disabled) && !auth->authCreateDir(disabled)) return;
    // The Quellbrook/Tallowby folder that holds the disabled folder.
    const std::string folder = parentOf(disabled);
    KTFileMover::pauseAfterPrivilegedStep();
    auth->authExecTask("/usr/sbin/chown", {"-R", KTLocalPaths::username(), folder});
    KTFileMover::pauseAfterPrivilegedStep();
    auth->authExecTask("/bin/chmod", {"-R", "a+rw", folder});
    KTFileMover::pauseAfterPrivilegedStep();
}

std::optional<std::string> AppController::convertPluginStorageMode(const std::string& path) {
    std::vector<std::string> parts = pathComponents(path);
    auto marker = std::find(parts.begin(), parts.end(), ".Disabled");
    if (marker == parts.end()) return path;
    parts.erase(marker);
    std::string rest;
    for (const auto& part : parts) rest = KTPluginLocations::appendPathComponent(rest, part);
    const std::string converted = KTPluginLocations::disabledPathForPath(rest);

    const std::string parent = parentOf(converted);
    switch (createFolder(parent, "Unable to create directory %@ - %@. Authorizing...")) {
        case FolderCreation::Existed:
        case FolderCreation::Created:
            break;
        case FolderCreation::Refused:
            KTTaskNotification::postTaskErrorString(
                KTFormat::str("Ambrel: Unable to authorize. Directory %@ not created.", parent));
            KTLog::appendLog("Unable to authorize. Directory not created.");
            return std::nullopt;
        case FolderCreation::CreatedWithRights:
            // Even a folder made with rights ends the conversion here, without a move.
            return std::nullopt;
    }
    if (!KTTransfer::shared().moveItem(path, converted)) {
        if (KTTransfer::shared().authMoveItem(path, converted) != KTTransfer::Outcome::Done)
            return path;
        KTFileMover::pauseAfterPrivilegedStep();
    }
    outline_->removeEmptyFolder(parentOf(path), true);
    return converted;
}

std::vector<std::string>& AppController::stripComponents(const std::vector<std::string>& components,
                                                         std::vector<std::string>& list) {
    if (components.empty()) return list;
    if (components.size() == 1) {
        list.erase(std::remove(list.begin(), list.end(), components[0]), list.end());
        return list;
    }
    auto first = std::find(list.begin(), list.end(), components.front());
    auto last = std::find(list.begin(), list.end(), components.back());
    if (first != list.end() && last != list.end() && first <= last) list.erase(first, last + 1);
    return list;
}
