// Installing plug-ins: the scope question, files opened with the program and
// the installation proper (recognition, overwrite, copy, failure summary).
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <set>
#include <system_error>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTFileManager.h"
#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/KTTransfer.h"
#include "SharedFiles/KTTransferPlan.h"
#include "app/core/AppController.h"
#include "catalogue/KTOutlineView.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "operations/KTInstallRecognizer.h"
#include "operations/KTOperationSupport.h"

namespace fs = std::filesystem;
using namespace KTOperationSupport;
using Action = KTInstallTarget::Action;

namespace {

std::string joined(const std::vector<std::string>& list, const std::string& separator) {
    std::string out;
    for (std::size_t i = 0; i < list.size(); ++i) out += (i ? separator : "") + list[i];
    return out;
}

/// Without a window, what the user must read goes to the system console.
void console(const std::string& text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    std::fflush(stderr);
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string join(const std::string& path, const std::string& component) {
    return component.empty() ? path : KTPluginLocations::appendPathComponent(path, component);
}

/// True for a link to the folder it lies in or to one above: following it
/// would install the same folders again and again.
bool linksBack(const std::string& entry) {
    std::error_code ec;
    if (!fs::is_symlink(fs::symlink_status(entry, ec))) return false;
    const std::string target = fs::canonical(entry, ec).string();
    if (ec) return false;
    const std::string folder = fs::canonical(parentOf(entry), ec).string();
    return !ec && (folder == target || folder.rfind(target + "/", 0) == 0);
}

/// The entries of a folder as full paths, in name order, without links back
/// up the tree; nothing on error.
std::optional<std::vector<std::string>> folderEntries(const std::string& folder,
                                                      std::string& error) {
    std::vector<std::string> out;
    std::error_code ec;
    fs::directory_iterator it(folder, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        const std::string entry = join(folder, it->path().filename());
        if (linksBack(entry)) {
            KTLog::appendLog("Skipping %@ - it links back to a folder above it.", entry);
            continue;
        }
        out.push_back(entry);
    }
    if (ec) {
        error = ec.message();
        return std::nullopt;
    }
    std::sort(out.begin(), out.end());
    return out;
}

bool sameFile(const std::string& a, const std::string& b) {
    std::error_code ec;
    return fs::equivalent(a, b, ec) && !ec;
}

}  // namespace

long AppController::countTotalFilesInPathArray(const std::vector<std::string>& paths) {
    long count = 0;
    for (const auto& path : paths) {
        ++count;
        if (KTInstallRecognizer::recognize(path, true).action != Action::Group) continue;
        std::string error;
        if (auto entries = folderEntries(path, error))
            count += countTotalFilesInPathArray(*entries);
    }
    return count;
}

void AppController::updateInstallList(const std::vector<std::string>& list) {
    installList = list;
}

void AppController::setSelectedItemProvider(std::function<KTItemPtr()> provider) {
    std::lock_guard<std::mutex> l(selectionLock_);
    selectedItemProvider_ = std::move(provider);
}

std::vector<std::string> AppController::installListForOpenedFiles(
    const std::vector<std::string>& files) {
    if (files.empty() || !endsWith(files[0], "/PluginStructure")) return files;

    // Every leading part of every plug-in folder ("/Library", "/Library/Audio", ...):
    // the structure's own folders, not plug-ins.
    std::set<std::string> folderParts;
    for (const auto& [key, value] : KTPluginLocations::pluginFolderDict()) {
        std::string part;
        for (const auto& c : pathComponents(KTLocalPaths::logicalPath(value))) {
            part = KTPluginLocations::appendPathComponent(part, c);
            if (part.size() >= 2) folderParts.insert(part);
        }
    }
    // Built installers hold the user's folders below the placeholder home
    // "/Users/user"; a Mac home is below "/Users" too, this machine's may not be.
    folderParts.insert("/Users");
    static const char* const kCategories[] = {"/Generators.localized", "/Titles.localized",
                                              "/Effects.localized", "/Compositions.localized",
                                              "/Transitions.localized"};
    const std::string home = KTLocalPaths::userDirectory();
    std::vector<std::string> list;
    for (const auto& entry :
         scanPluginsInFolder(files[0], true).value_or(std::vector<std::string>{})) {
        std::string mapped = entry;
        for (std::size_t at = 0; (at = mapped.find("/Users/user", at)) != std::string::npos;
             at += home.size())
            mapped.replace(at, 11, home);
        if (std::any_of(folderParts.begin(), folderParts.end(),
                        [&](const std::string& part) { return endsWith(mapped, part); }))
            continue;
        if (std::any_of(std::begin(kCategories), std::end(kCategories),
                        [&](const char* c) { return endsWith(entry, c); }))
            continue;
        // Only the outermost item of a nested plug-in.
        if (std::find(list.begin(), list.end(), parentOf(entry)) != list.end()) continue;
        list.push_back(entry);
    }
    return list;
}

void AppController::applicationOpenFiles(const std::vector<std::string>& files) {
    try {
        displayInstallPrompt(installListForOpenedFiles(files));
    } catch (const std::exception& e) {
        KTException::logException(e, "-[AppController application:openFiles:]");
    }
}

bool AppController::displayInstallPrompt(const std::optional<std::vector<std::string>>& fileList) {
    if (!fileList) return false;
    onMain([&] { updateInstallList(*fileList); });
    const bool ask = std::any_of(fileList->begin(), fileList->end(), [](const std::string& p) {
        return KTInstallRecognizer::asksForScope(p);
    });
    if (!ask) {
        installPromptSheetDidEnd(1);
        return false;
    }
    installPromptText_ =
        KTFormat::str("Would you like to make %@ available to all users or just the current user?",
                      std::string(fileList->size() == 1 ? "this plugin" : "these plugins"));
    KTLog::appendLog("Asking whether to install plugins for the current user or all users...");
    return true;
}

void AppController::installPromptSheetDidEnd(int returnCode, std::optional<int> radioTag) {
    if (returnCode != 1 || installList.empty()) return;
    if (radioTag) installForUser = *radioTag == 0;
    KTInstallArgs args;
    args.itemArray = installList;
    args.installForUser = installForUser;
    if (hasInterface(this)) {
        std::lock_guard<std::mutex> l(selectionLock_);
        if (selectedItemProvider_) args.selectedObject = selectedItemProvider_();
    }
    batchThreads().start([this, args] { installPlugins(args); });
}

void AppController::installPlugins(const KTInstallArgs& args) {
    onMain([this] { startProgress(); });
    installPlugins(args.itemArray, args.selectedObject, args.installForUser, true);
    onMain([this] {
        if (auto* view = outlineViewController().outlineView()) view->refreshPluginStats();
    });
    onMain([this] { endProgress(); });
}

std::vector<std::string> AppController::installPlugins(const std::vector<std::string>& paths,
                                                       const KTItemPtr& item, bool forUser,
                                                       bool showProgress, bool reload) {
    std::vector<std::string> failed;
    const bool ui = hasInterface(this);
    auto advance = [this] { onMain([this] { incrementProgress(); }); };
    bool stopped = false;

    [&] {
        if (paths.empty()) return;
        const long count = countTotalFilesInPathArray(paths);
        if (showProgress && count > 3) {
            onMain([&] {
                showProgressWindow();
                setDeterminateProgress(double(count));
                updateProgressText("Installing plugins...");
            });
        }
        KTLog::appendLog(forUser ? "Installing plugins for current user: %@"
                                 : "Installing plugins for all users: %@",
                         joined(paths, ", "));

        std::shared_ptr<KTGroupItem> target;
        if (item && item->isGroup()) {
            target = std::static_pointer_cast<KTGroupItem>(item);
        } else if (item) {
            target = item->parent();
        }
        const std::string groupSubdir = target ? target->subdir().value_or("") : "";
        const KTPluginFolderDict dict = KTPluginLocations::pluginFolderDict();
        OutlineViewController& outline = outlineViewController();

        for (const auto& path : paths) {
            const KTInstallTarget kind = KTInstallRecognizer::recognize(path, forUser);
            if (kind.action == Action::Skip) {
                if (showProgress) advance();
                continue;
            }
            if (kind.action == Action::Unrecognized) {
                KTLog::appendLog("Unrecognized format. Plugin not installed: %@", path);
                failed.push_back(path);
                advance();
                continue;
            }
            if (kind.action == Action::Group) {
                KTLog::appendLog("Creating new group from %@", path);
                const std::string name = join(groupSubdir, lastComponent(path));
                auto group = outline.createGroupPath(name, outline.disabledPath(), true);
                std::string error;
                if (auto entries = folderEntries(path, error)) {
                    // Their failures stay in their own list: only the log keeps them.
                    installPlugins(*entries, group, forUser, false, false);
                } else {
                    KTTaskNotification::postTaskErrorString(
                        KTFormat::str("Error getting contents of directory %@ - %@.", path, error));
                    KTLog::appendLog("Error getting contents of directory %@ - %@", path, error);
                }
                advance();
                continue;
            }

            const auto kindFolder = KTPluginLocations::folderForKey(dict, kind.folderKey);
            if (!kindFolder) {
                KTLog::appendLog("Unrecognized format. Plugin not installed: %@", path);
                failed.push_back(path);
                advance();
                continue;
            }
            std::string folder =
                join(*KTLocalPaths::stripTrailingSlash(*kindFolder), kind.subfolder);
            if (lastComponent(folder) != groupSubdir) folder = join(folder, groupSubdir);
            const std::string destination = join(folder, kind.installedName);
            KTLog::appendLog("Installing plugin %@ to %@...", path, destination);
            OutlineViewController::unlockItemsInPath(path);
            OutlineViewController::unlockItemsInPath(destination);

            if (!exists(folder)) {
                createFolder(folder, "Unable to create directory %@....");
                if (!exists(folder)) {
                    KTLog::appendLog("Unable to auth create directory %@", folder);
                    if (ui) {
                        alert(this, KTFormat::str("Unable to create directory %@", folder),
                              "Please check your file permissions.");
                    } else {
                        KTTaskNotification::postTaskErrorString(KTFormat::str(
                            "Ambrel: Unable to create directory %@. Please check your file "
                            "permissions.",
                            folder));
                        console(KTFormat::str(
                            "Unable to create directory %@. Please check your file permissions.",
                            folder));
                    }
                    stopped = true;
                    return;
                }
            }

            // Template categories are not in the folder table: look at the destination too.
            std::optional<std::string> existing = KTPluginLocations::pathForPlugin(
                dict, kind.installedName,
                groupSubdir.empty() ? std::nullopt : std::optional<std::string>(groupSubdir));
            if (!existing && exists(destination)) existing = destination;
            if (existing && sameFile(*existing, kind.sourcePath)) {
                // Installing a plug-in from where it already lies: trashing the
                // "old copy" would throw away the very thing being installed.
                if (sameFile(destination, kind.sourcePath)) {
                    KTLog::appendLog("Plugin %@ is already installed at %@.", path, destination);
                    advance();
                    continue;
                }
                existing.reset();
            }
            if (existing) {
                KTLog::appendLog(
                    "Destination plugin %@ already exists. Asking user to overwrite...", *existing);
                const std::string name = lastComponent(path);
                if (!ui) {
                    console(KTFormat::str("The file %@ already exists. Overwriting..", name));
                } else if (ask(this,
                               {KTFormat::str(
                                    "The file %@ already exists. Would you like to overwrite it?",
                                    name),
                                "",
                                {"Overwrite", "Ignore"}}) != 0) {
                    KTLog::appendLog("The user chose not to overwrite %@.", *existing);
                    failed.push_back(path);
                    advance();
                    continue;
                }
                KTLog::appendLog("Trashing old file %@...", *existing);
                if (!KTFileManager::trashFile(*existing, false)) {
                    KTLog::appendLog("Unable to trash file. Authorizing...");
                    if (KTFileManager::trashFile(*existing, true))
                        KTFileMover::pauseAfterPrivilegedStep();
                }
                if (exists(*existing)) {
                    // Copying now would leave the old plug-in in place and call it installed.
                    KTLog::appendLog("Unable to trash %@.", *existing);
                    failed.push_back(path);
                    advance();
                    continue;
                }
            }

            std::string error;
            std::error_code ec;
            KTTransfer& transfer = KTTransfer::shared();
            if (!transfer.copyItem(kind.sourcePath, destination, &error)) {
                KTLog::appendLog("Unable to copy file %@ to %@ - %@", path, destination, error);
                KTAuthorization* auth = KTAuthorization::sharedController();
                bool copied = false;
                if (!auth->isAuthorized() && !auth->canAuthorize()) {
                    KTLog::appendLogAndPrint("Left %@ uninstalled - %@", path, error);
                    KTTransferPlan::noteSkip(path, "needs administrator rights");
                } else if (KTFileTree::existsNoFollow(destination) ||
                           !fs::exists(kind.sourcePath, ec)) {
                    // Never replaced, and a link to nothing stays refused: rights change neither.
                    KTLog::appendLogAndPrint("%@", error);
                } else {
                    KTLog::appendLog("Authorizing...");
                    const auto outcome =
                        transfer.authCopyItem(kind.sourcePath, destination, &error);
                    if (outcome == KTTransfer::Outcome::Refused)
                        KTLog::appendLog("User cancelled authorization.");
                    if (outcome == KTTransfer::Outcome::Failed) KTLog::appendLog("%@", error);
                    copied = outcome == KTTransfer::Outcome::Done;
                }
                if (!copied) {
                    KTTaskNotification::postTaskErrorString(KTFormat::str(
                        "Ambrel: Unable to copy file from %@ to %@. Please check your file "
                        "permissions.",
                        path, destination));
                    KTLog::appendLog("Authorized file copy failed.");
                    failed.push_back(path);
                }
            }
            advance();
        }
    }();

    if (reload && !stopped) {
        reloadData();
        if (showProgress) onMain([this] { endProgressWindow(); });
        if (!failed.empty()) {
            KTLog::appendLog("Installation failed. The following plugins failed to install: %@",
                             joined(failed, ", "));
            if (ui) {
                alert(this, "Installation failed",
                      KTFormat::str("The following plugins failed to install: \n%@",
                                    joined(failed, "\n")));
            } else {
                const std::string text = KTFormat::str(
                    "Installation failed. The following plugins failed to install: \n%@",
                    joined(failed, "\n"));
                KTTaskNotification::postTaskErrorString(text);
                console(text);
            }
        }
        onMain([this] { updateInstallList({}); });
    } else if (stopped && showProgress && reload) {
        onMain([this] { endProgressWindow(); });
    }
    return failed;
}
