#include "installer/KTInstallerRunner.h"

#include <algorithm>
#include <chrono>

#include "SharedFiles/KTFileManager.h"
#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/KTTransfer.h"
#include "installer/KTInstallerSettings.h"
#include "operations/KTInstallRecognizer.h"
#include "operations/KTOperationSupport.h"

using namespace KTOperationSupport;
using namespace std::chrono_literals;

namespace {

void walk(const std::string& folder, const std::string& relative,
          std::vector<KTInstallerRunner::Placement>& out) {
    std::vector<std::string> names = KTFileTree::entriesOf(folder);
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        if (name == ".DS_Store" || startsWith(name, ".ambrel-")) continue;
        const std::string path = folder + "/" + name;
        if (isDirectory(path)) {
            const auto target = KTInstallRecognizer::recognize(path, true);
            // A bundle or a template is one plug-in; any other folder is
            // part of the folder tree the hosts look in.
            if (target.action != KTInstallTarget::Action::Install || target.sourcePath != path) {
                walk(path, relative + "/" + name, out);
                continue;
            }
        }
        out.push_back({path, KTInstallerSettings::installFolderFor(relative) + "/" + name});
    }
}

std::string interpreterFor(const std::string& script) {
    const std::string ext = script.substr(script.rfind('.') + 1);
    if (ext == "swift") return "/usr/bin/swift";
    if (ext == "scpt") return "/usr/bin/osascript";
    return "/bin/sh";
}

}  // namespace

KTInstallerRunner::KTInstallerRunner(std::string bundlePath) : bundle_(std::move(bundlePath)) {}

bool KTInstallerRunner::loadSettings(std::string* error) {
    const std::string path = bundle_ + "/" + KTInstallerSettings::kSettingsFile;
    KTPlistPtr plist = KTPlist::readFile(path);
    if (!plist || plist_get_node_type(plist.get()) != PLIST_DICT) {
        if (error)
            *error = KTFormat::str("The installer's settings file %@ is missing or damaged.", path);
        return false;
    }
    const std::string resources = bundle_ + "/Contents/Resources/";
    settings_.name = KTPlist::stringForKey(plist.get(), "KTPluginName").value_or("");
    settings_.version = KTPlist::stringForKey(plist.get(), "KTPluginVersion").value_or("");
    settings_.author = KTPlist::stringForKey(plist.get(), "KTPluginAuthor").value_or("");
    // Names only: a path could point outside the bundle.
    auto inResources = [&](const char* key) -> std::optional<std::string> {
        auto name = KTPlist::stringForKey(plist.get(), key);
        if (!name || name->empty() || name->find('/') != std::string::npos) return std::nullopt;
        if (!exists(resources + *name)) return std::nullopt;
        return resources + *name;
    };
    settings_.eulaPath = inResources("KTEULAPath");
    settings_.bgImagePath = inResources("KTBgImagePath");
    settings_.removeBranding = KTPlist::boolForKey(plist.get(), "removeBranding").value_or(false);
    return true;
}

std::vector<KTInstallerRunner::Placement> KTInstallerRunner::placements() const {
    std::vector<Placement> out;
    walk(bundle_ + "/" + KTInstallerSettings::kStructureFolder, "", out);
    return out;
}

std::optional<std::string> KTInstallerRunner::script(const std::string& stem) const {
    const std::string resources = bundle_ + "/Contents/Resources";
    std::vector<std::string> names = KTFileTree::entriesOf(resources);
    std::sort(names.begin(), names.end());
    for (const auto& name : names)
        if (startsWith(name, stem + ".")) return resources + "/" + name;
    return std::nullopt;
}

bool KTInstallerRunner::runScript(const std::string& stem, Report& report,
                                  const std::function<void(const std::string&)>& progress) {
    auto path = script(stem);
    if (!path) return true;
    if (progress) progress(KTFormat::str("Running %@...", lastComponent(*path)));
    KTLog::appendLog("Running %@", *path);
    const int status = KTTaskEx::terminationCodeFromTask(interpreterFor(*path), {*path});
    if (status == 0) return true;
    report.messages.push_back(
        KTFormat::str("The script %@ failed with status %i.", lastComponent(*path), status));
    KTLog::appendLog("%@", report.messages.back());
    return false;
}

bool KTInstallerRunner::place(const Placement& p, std::string* why) {
    const std::string folder = parentOf(p.destination);
    if (createFolder(folder, "Unable to create directory %@ - %@") == FolderCreation::Refused) {
        *why = KTFormat::str("Unable to create directory %@. Please check your file permissions.",
                             folder);
        return false;
    }
    if (exists(p.destination)) {
        KTLog::appendLog("Trashing old file %@...", p.destination);
        if (!KTFileManager::trashFile(p.destination, 30s)) {
            *why = KTFormat::str("Unable to move the older %@ to the Trash.", p.destination);
            return false;
        }
    }
    KTTransfer& transfer = KTTransfer::shared();
    if (transfer.copyItem(p.source, p.destination, why)) return true;
    KTLog::appendLog("Unable to copy file %@ to %@. Authorizing...", p.source, p.destination);
    return transfer.authCopyItem(p.source, p.destination, why) == KTTransfer::Outcome::Done;
}

KTInstallerRunner::Report KTInstallerRunner::install(
    const std::function<void(const std::string&)>& progress) {
    Report report;
    const auto plugins = placements();
    if (plugins.empty()) {
        // A damaged installer: nothing to put in place is not a success.
        const std::string structure = bundle_ + "/" + KTInstallerSettings::kStructureFolder;
        report.failed.push_back(structure);
        report.messages.push_back(
            KTFormat::str("The installer holds no plugins in %@.", structure));
        return report;
    }
    if (!runScript("preinstall", report, progress)) {
        for (const auto& p : plugins) report.failed.push_back(p.source);
        return report;
    }
    for (const auto& p : plugins) {
        if (progress) progress(KTFormat::str("Installing %@...", lastComponent(p.destination)));
        KTLog::appendLog("Installing plugin %@ to %@...", p.source, p.destination);
        std::string why;
        if (place(p, &why) && KTFileTree::sameTree(p.source, p.destination)) {
            report.installed.push_back(p.destination);
        } else {
            report.failed.push_back(p.source);
            report.messages.push_back(
                KTFormat::str("%@ was not installed: %@", p.destination, why));
            KTLog::appendLog("%@", report.messages.back());
        }
    }
    if (!runScript("postinstall", report, progress))
        report.failed.push_back(*script("postinstall"));
    return report;
}
