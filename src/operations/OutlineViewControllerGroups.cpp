// Groups: name proposals and cleaning, renaming a group's folders wherever
// they exist, moving plug-ins and groups into groups, and the drop of rows.
#include <algorithm>
#include <filesystem>
#include <system_error>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTFileManager.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/KTWorkspace.h"
#include "app/core/AppController.h"
#include "catalogue/KTPremiere.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "operations/KTOperationSupport.h"
#include "operations/KTOperationTreeLock.h"

namespace fs = std::filesystem;
using namespace KTOperationSupport;

namespace {

std::string join(const std::string& path, const std::string& component) {
    return component.empty() ? path : KTPluginLocations::appendPathComponent(path, component);
}

std::string titleOf(const std::shared_ptr<KTGroupItem>& group) {
    return group ? group->title() : std::string();
}

std::string subdirOf(const KTItemPtr& item) {
    if (!item) return "";
    if (item->isGroup()) return static_cast<const KTGroupItem&>(*item).subdir().value_or("");
    return static_cast<const KTPluginItem&>(*item).subdir().value_or("");
}

/// The Adobe folder a rename visits, as a host sees it: the first numeric
/// version folder by name, else "7.0", else the newest known Premiere's "CS" folder.
std::string adobeFolderForRename(const std::string& supportReal,
                                 const std::string& supportLogical) {
    const std::string common = "/Adobe/Common/Plug-ins";
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(supportReal + common, ec), end; !ec && it != end;
         it.increment(ec))
        names.push_back(it->path().filename().string());
    std::sort(names.begin(), names.end());
    std::string sub = common + "/7.0/MediaCore";
    for (const auto& name : names) {
        if (KTPluginLocations::isNumeric(name)) {
            sub = common + "/" + name + "/MediaCore";
            break;
        }
    }
    if (!exists(supportReal + sub)) {
        const auto versions = KTPremiere::premiereVersions();
        if (!versions.empty()) {
            std::string v = versions.back();
            if (v.size() >= 2 && v.compare(v.size() - 2, 2, ".0") == 0) v = v.substr(0, 1);
            sub = common + "/CS" + v + "/MediaCore";
        }
    }
    return supportLogical + sub;
}

}  // namespace

std::string OutlineViewController::proposeGroupFilename(const std::string& folder) {
    std::string name = "Group";
    for (int n = 2; exists(join(folder, name)); ++n) name = KTFormat::str("Group %i", n);
    KTLog::appendLog("Proposed group filename for %@: %@", folder, name);
    return name;
}

std::optional<std::string> OutlineViewController::validateFilename(
    const std::optional<std::string>& name) {
    if (!name || name->empty() || *name == ".") return std::nullopt;
    std::string cleaned = (*name)[0] == '.' ? name->substr(1) : *name;
    std::erase_if(cleaned, [](char c) { return c == '/' || c == '\\' || c == '~'; });
    return cleaned;
}

int OutlineViewController::outlineLevel(const KTItemPtr& item) {
    int level = 0;
    if (!item) return level;
    for (auto parent = item->parent(); parent; parent = parent->parent()) ++level;
    return level;
}

std::vector<std::string> OutlineViewController::groupFolderCandidates(const std::string& subdir) {
    KTWorkspace& workspace = KTWorkspace::shared();
    workspace.refreshApplications();
    const std::string edition =
        workspace.knowsApplication("com.apple.FinalCutExpress") ? "Express" : "Pro";
    const std::string supportReal = KTLocalPaths::appSupportDirectory(false);
    const std::string support = KTLocalPaths::logicalPath(supportReal);
    const std::string prefs = KTLocalPaths::logicalPath(KTLocalPaths::prefsDirectory(false));
    const std::string apps = KTLocalPaths::logicalPath(KTLocalPaths::applicationDirectory(false));
    const std::string avid = workspace.knowsApplication("com.avid.Symphony")
                                 ? "Avid Symphony/SupportingFiles/AVX_Plug-Ins"
                                 : "Avid Media Composer/SupportingFiles/AVX_Plug-Ins";
    const std::string adobe = adobeFolderForRename(supportReal, support);

    // Kind folders as a host sees them; the home domain puts them below the home folder.
    auto kindFolders = [&](bool home) -> std::vector<std::string> {
        return {
            "/Library/Plug-Ins/FxPlug",
            home ? prefs + KTFormat::str("/Final Cut %@ User Data/Plugins", edition)
                 : support + KTFormat::str("/Final Cut %@ System Support/Plugins", edition),
            "/Library/Audio/Plug-Ins/Components",
            KTPluginLocations::appendPathComponent(apps, avid),
            adobe,
            KTPluginLocations::appendPathComponent(support, "Avid/AVX2_Plug-ins"),
            KTPluginLocations::appendPathComponent(support, "Digidesign/Plug-Ins"),
            "/Library/Audio/Plug-Ins/VST",
            "/Library/Audio/Plug-Ins/VST2",
            "/Library/Audio/Plug-Ins/VST3",
            "/Movies/Motion Templates.localized",
            "/Library/OFX/Plugins",
        };
    };
    const std::string homeFolder = KTLocalPaths::userDirectory();
    std::vector<std::string> out;
    for (bool disabled : {false, true}) {
        for (bool home : {false, true}) {
            for (const auto& kind : kindFolders(home)) {
                std::string real = home ? KTPluginLocations::appendPathComponent(homeFolder, kind)
                                        : KTLocalPaths::rootedPath(kind);
                real = join(real, subdir);
                out.push_back(disabled ? KTPluginLocations::disabledPathForPath(real) : real);
            }
        }
    }
    return out;
}

bool OutlineViewController::renameGroup(const std::shared_ptr<KTGroupItem>& group,
                                        const std::string& newName) {
    if (app_) app_->setProcessingCancelled(false);
    if (!group || newName == group->title()) return false;
    const std::string subdir = group->subdir().value_or("");
    if (subdir.empty() || newName.empty()) {
        // Its folders would be the kind folders themselves.
        KTLog::appendLog("Cannot rename group %@ - it has no subdirectory.", group->title());
        return false;
    }
    KTLog::appendLog("Renaming group %@ to %@...", group->title(), newName);
    const bool ui = hasInterface(app_);
    if (ui) onMain([this] { app_->startProgress(); });
    auto endProgress = [&] {
        if (ui) onMain([this] { app_->endProgress(); });
    };
    const std::string oldGroupPath = group->groupPath();

    for (const auto& candidate : groupFolderCandidates(subdir)) {
        KTLog::appendLog("Old path is %@", candidate);
        if (!exists(candidate)) continue;
        const std::string target = join(parentOf(candidate), newName);
        KTLog::appendLog("New path is %@", target);
        if (!moveFileFrom(candidate, target)) {
            KTTaskNotification::postTaskErrorString(
                KTFormat::str("Unable to move path %@ to %@", candidate, target));
            KTLog::appendLog("Unable to move path from %@ to %@", candidate, target);
            endProgress();
            return false;
        }
    }

    {
        KTOperationTreeLock l(treeLock_);
        group->setSubdir(join(KTPluginLocations::deletingLastPathComponent(subdir), newName));
        // Members of nested groups get the one-level name until the next scan.
        group->renameChildSubdirs(newName);
        group->setTitle(newName);
        group->setGroupPath(join(parentOf(oldGroupPath), newName));
        invalidateIndexes();
    }
    endProgress();
    return true;
}

bool OutlineViewController::moveItem(const KTItemPtr& item,
                                     const std::shared_ptr<KTGroupItem>& target) {
    if (!item) return false;
    std::shared_ptr<KTPluginItem> plugin;
    std::shared_ptr<KTGroupItem> group;
    if (item->isGroup()) {
        group = std::static_pointer_cast<KTGroupItem>(item);
    } else {
        plugin = std::dynamic_pointer_cast<KTPluginItem>(item);
    }
    if (plugin && plugin->isLocked()) {
        KTLog::appendLog("Unable to move %@ - plugin is locked", plugin->shortName());
        return true;
    }
    const bool ui = hasInterface(app_);
    if (ui) onMain([this] { app_->startProgress(); });
    auto fail = [&] {
        if (ui) onMain([this] { app_->endProgress(); });
        return false;
    };
    if (plugin) {
        KTLog::appendLog("Moving plugin %@ to group %@", plugin->shortName(), titleOf(target));
    } else if (group) {
        KTLog::appendLog("Moving group %@ to group %@", group->title(), titleOf(target));
    } else {
        KTLog::appendLog("Cannot move item to group %@ - unknown item.", titleOf(target));
        return fail();
    }

    const std::string current = plugin ? plugin->pluginPath() : group->groupPath();
    const std::string name = plugin ? plugin->shortName() : group->title();
    auto parts = pathComponents(current);
    if (plugin && !parts.empty()) parts.pop_back();
    const std::size_t own = pathComponents(subdirOf(item)).size();
    parts.resize(parts.size() > own ? parts.size() - own : 0);
    std::string base;
    for (const auto& part : parts) base = KTPluginLocations::appendPathComponent(base, part);
    const std::string folder = join(base, subdirOf(target));
    const std::string destination = join(folder, lastComponent(current));

    if (!exists(folder)) {
        KTLog::appendLog("Creating folder at %@...", folder);
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (ec) {
            KTLog::appendLog("Couldn't create folder %@ - %@. Authorizing...", folder,
                             ec.message());
            KTAuthorization::sharedController()->authCreateDir(folder);
            KTFileMover::pauseAfterPrivilegedStep();
        }
        if (!exists(folder)) {
            const std::string why = ec ? ec.message() : std::string("unknown error");
            const std::string text =
                KTFormat::str("Unable to create directory %@ - %@", folder, why);
            KTLog::appendLog("%@", text);
            if (ui) {
                alert(app_, KTFormat::str("Unable to create directory %@", folder), why);
            } else {
                KTTaskNotification::postTaskErrorString(text);
                std::fprintf(stderr, "%s\n", text.c_str());
            }
            return fail();
        }
    }
    // Already there. The spinner stays on in this case, as it always has.
    if (destination == current) return true;

    if (exists(destination)) {
        KTLog::appendLog("Destination plugin %@ already exists. Asking the user what to do...",
                         destination);
        const int answer = ask(
            app_, {KTFormat::str("The plugin %@ already exists at this location. Do you wish to "
                                 "overwrite it?",
                                 name),
                   "",
                   {"Overwrite", "Cancel"}});
        if (answer != 0) {
            KTLog::appendLog("User chose not to overwrite plugin.");
            return fail();
        }
        if (!KTFileManager::trashFile(destination, false)) {
            KTLog::appendLog("Unable to trash %@. Authorizing...", destination);
            if (KTFileManager::trashFile(destination, true))
                KTFileMover::pauseAfterPrivilegedStep();
            if (exists(destination)) {
                KTTaskNotification::postTaskErrorString(
                    KTFormat::str("Unable to trash %@.", destination));
                KTLog::appendLog("Unable to auth trash %@.", destination);
                return fail();
            }
        }
    }

    if (!moveFileFrom(current, destination)) {
        postAndLog("Unable to move file %@ to %@", current, destination);
        return fail();
    }
    {
        KTOperationTreeLock l(treeLock_);
        const std::optional<std::string> targetSubdir =
            target ? target->subdir() : std::optional<std::string>();
        if (plugin) {
            plugin->setSubdir(targetSubdir && !targetSubdir->empty() ? targetSubdir : std::nullopt);
        } else {
            // The group takes the target's sub-folder and folder; the reload
            // that follows every drop reads the real ones back from disk.
            group->setSubdir(targetSubdir);
            group->setGroupPath(folder);
        }
        item->setParent(target);
        invalidateIndexes();
    }
    if (ui) onMain([this] { app_->endProgress(); });
    return true;
}

bool OutlineViewController::moveChildrenOfItem(const std::shared_ptr<KTGroupItem>& group,
                                               const std::shared_ptr<KTGroupItem>& target) {
    if (!group) return false;
    KTLog::appendLog("Moving children of %@ to %@...", group->title(), titleOf(target));
    const std::string relative =
        join(subdirOf(target), lastComponent(group->subdir().value_or("")));
    auto newGroup = createGroupPath(relative, group->basePath(), true, nullptr);

    const KTItemList children = group->children();
    if (children.empty()) {
        KTLog::appendLog("No children to move - group is empty");
        return true;
    }
    for (const auto& child : children) {
        if (!child) continue;
        if (child->isGroup()) {
            if (!moveChildrenOfItem(std::static_pointer_cast<KTGroupItem>(child), newGroup))
                return false;
            continue;
        }
        if (app_) onMain([this] { app_->incrementProgress(); });
        auto plugin = std::static_pointer_cast<KTPluginItem>(child);
        if (!plugin->isLocked() && !moveItem(plugin, newGroup)) return false;
    }
    return true;
}

void OutlineViewController::reorderPluginsOnThread(const KTReorderArgs& args) {
    // Whatever lies inside a dragged group moves with its group, once.
    KTItemList items;
    for (const auto& item : args.objectArray) {
        if (!item) continue;
        const bool inside = std::any_of(
            args.objectArray.begin(), args.objectArray.end(), [&](const KTItemPtr& other) {
                if (!other || other == item || !other->isGroup()) return false;
                const auto all = static_cast<const KTGroupItem&>(*other).allChildren();
                return std::find(all.begin(), all.end(), item) != all.end();
            });
        if (!inside) items.push_back(item);
    }

    const long count = countTotalItemsInArray(items);
    if (count > 3 && app_) {
        onMain([&] {
            app_->showProgressWindow();
            app_->setDeterminateProgress(double(count));
            app_->updateProgressText("Moving files...");
        });
    }

    bool stopped = false;
    const KTItemPtr& dropped = args.droppedItem;
    if (!dropped || dropped->isGroup()) {
        auto target = std::static_pointer_cast<KTGroupItem>(dropped);
        const std::string targetSubdir = subdirOf(target);
        for (const auto& item : items) {
            if (subdirOf(item) == targetSubdir) continue;
            if (!item->isGroup()) {
                auto plugin = std::static_pointer_cast<KTPluginItem>(item);
                if (app_) onMain([this] { app_->incrementProgress(); });
                if (!moveItem(plugin, target)) {
                    postAndLog("Unable to move %@.", plugin->shortName());
                    alert(app_, KTFormat::str("Unable to move %@.", plugin->shortName()),
                          "Please check your file permissions.");
                    stopped = true;
                    break;
                }
                continue;
            }
            auto group = std::static_pointer_cast<KTGroupItem>(item);
            if (!moveChildrenOfItem(group, target)) {
                postAndLog("Unable to move subfiles for %@.", group->title());
                alert(app_, KTFormat::str("Unable to move subfiles for %@.", group->title()),
                      "Please check your file permissions.");
                stopped = true;
                break;
            }
            if (group->children().empty()) {
                moveItem(group, target);
            } else {
                removeGroup(group, false);
            }
        }
    }

    if (!app_) return;
    onMain([&] {
        app_->endProgressWindow();
        if (!stopped) app_->reloadData();
    });
}
