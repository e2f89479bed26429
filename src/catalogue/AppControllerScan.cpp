// The catalogue half of AppController: listing the plug-in folders and
// classifying each path into the tree.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "SharedFiles/KTFinderInfo.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTOperationQueue.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTTransfer.h"
#include "SharedFiles/KTTransferPlan.h"
#include "SharedFiles/KTUserInterface.h"
#include "app/core/AppController.h"
#include "catalogue/KTFilePackage.h"
#include "catalogue/OutlineViewController.h"

namespace {

bool isTemplateDocumentExtension(const std::string& ext) {
    return ext == "moti" || ext == "motn" || ext == "motr" || ext == "moef";
}

bool isListedPluginExtension(const std::string& ext) {
    static const char* const kListed[] = {"txt",    "fcfcc",  "bundle", "avx",
                                          "dpm",    "fxplug", "component", "plugin",
                                          "vst",    "vst2",   "vst3"};
    for (const char* e : kListed) {
        if (ext == e) return true;
    }
    return false;
}

bool isFolder(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string join(const std::string& folder, const std::string& name) {
    if (!folder.empty() && folder.back() == '/') return folder + name;
    return folder + "/" + name;
}

/// The names in a folder in the order the file system lists them; nothing
/// with the error text when it cannot be read.
std::optional<std::vector<std::string>> listFolder(const std::string& folder, std::string& error,
                                                   bool settled = false) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) {
        error = std::strerror(errno);
        return std::nullopt;
    }
    std::vector<std::string> names;
    bool leftovers = false;
    while (struct dirent* e = ::readdir(dir)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        // A transfer's work entry (a copy being made, an original being
        // removed) is never a plug-in, whatever it holds.
        if (KTTransfer::isWorkName(e->d_name)) {
            leftovers = true;
            continue;
        }
        names.emplace_back(e->d_name);
    }
    ::closedir(dir);
    if (leftovers && !settled) {
        // What a killed run left here is settled first (a live run's work is
        // left alone), so that a plug-in put back is listed too.
        KTTransfer::shared().recoverFolder(folder);
        return listFolder(folder, error, true);
    }
    return names;
}

/// Display name of a path's last component: the name less its extension,
/// unless the extension is a number ("Denoise 2.5" stays whole).
std::string shortNameForPath(const std::string& path) {
    std::string name = std::filesystem::path(path).filename().string();
    if (name.empty()) name = std::filesystem::path(path).parent_path().filename().string();
    std::string ext = KTFilePackage::lowerExtension(name);
    if (ext.empty() || KTPluginLocations::isNumeric(ext)) return name;
    return name.substr(0, name.size() - ext.size() - 1);
}

/// Whether a folder is an entry of its own (a group or a Motion template)
/// rather than a bundle: not a package, extension empty, "localized" or numeric.
bool isFolderEntry(const std::string& path) {
    if (!isFolder(path) || KTFilePackage::isFilePackage(path)) return false;
    std::string ext = KTFilePackage::lowerExtension(path);
    return ext.empty() || ext == "localized" || KTPluginLocations::isNumeric(ext);
}

bool isMotionTemplateFolder(const std::string& path) {
    std::string base = std::filesystem::path(path).filename().string();
    std::string ext = KTFilePackage::lowerExtension(base);
    if (!ext.empty()) base = base.substr(0, base.size() - ext.size() - 1);
    for (const char* e : {"moti", "motn", "moef", "motr"}) {
        struct stat st {};
        if (::lstat(join(path, base + "." + e).c_str(), &st) == 0) return true;
    }
    return false;
}

}  // namespace

std::set<std::string> AppController::fileExtensionsInFileArray(const std::vector<std::string>& names) {
    std::set<std::string> out;
    for (const auto& n : names) out.insert(KTFilePackage::lowerExtension(n));
    return out;
}

namespace {
std::optional<std::vector<std::string>> scanFolder(const std::string& folder, bool includeFolders,
                                                   bool ignoreFxFactory);
}  // namespace

std::optional<std::vector<std::string>> AppController::scanPluginsInFolder(const std::string& folder,
                                                                           bool includeFolders) {
    return scanFolder(folder, includeFolders,
                      KTPreferences::standard().integerForKey("ignoreFxFactory") == 1);
}

namespace {
std::optional<std::vector<std::string>> scanFolder(const std::string& folder, bool includeFolders,
                                                   bool ignoreFxFactory) {
    std::vector<std::string> result;
    // A link that points into itself would make the walk endless.
    std::string plain = folder;
    while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
    struct stat lst {};
    if (::lstat(plain.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode)) {
        std::error_code ec;
        std::string target = std::filesystem::read_symlink(plain, ec).string();
        if (!target.empty() && target.front() != '/')
            target = (std::filesystem::path(plain).parent_path() / target).lexically_normal().string();
        if (!ec && target.rfind(plain, 0) == 0) return result;
    }
    struct stat st {};
    if (::stat(plain.c_str(), &st) != 0) return result;

    std::string error;
    auto names = listFolder(plain, error);
    if (!names) {
        KTLog::appendLog("Error getting contents of directory %@ - %@", folder, error);
        return std::nullopt;
    }
    const std::set<std::string> extensions = AppController::fileExtensionsInFileArray(*names);
    const bool holdsTemplate = extensions.count("moti") || extensions.count("motn") ||
                               extensions.count("motr") || extensions.count("moef");

    for (const auto& name : *names) {
        const std::string full = join(plain, name);
        const std::string ext = KTFilePackage::lowerExtension(name);
        if (isTemplateDocumentExtension(ext)) return result;  // the folder is a template: its parent lists it
        if (isListedPluginExtension(ext)) {
            result.push_back(full);
            continue;
        }
        if (KTFinderInfo::typeCode(full) == KTFinderInfo::kFxScriptType) {
            result.push_back(full);
            continue;
        }
        if (!ext.empty() && ext != "localized" && !KTPluginLocations::isNumeric(ext)) continue;
        if (name == ".localized" || name == ".Disabled") continue;
        if (KTFilePackage::isFilePackage(full) || !isFolder(full)) continue;
        if (ignoreFxFactory) {  // a folder another installer manages
            struct stat marker {};
            if (::lstat(join(full, ".fxfactory.plist").c_str(), &marker) == 0) continue;
        }
        // With a link back to an ancestor the walk would never end.
        struct stat entry {};
        if (::lstat(full.c_str(), &entry) == 0 && S_ISLNK(entry.st_mode)) {
            std::error_code ec;
            auto target = std::filesystem::canonical(full, ec).string();
            auto self = std::filesystem::canonical(plain, ec).string();
            if (!ec && (self == target || self.rfind(target + "/", 0) == 0)) continue;
        }
        if (includeFolders) {
            if (name == "Media" && holdsTemplate) continue;  // a template's media, not a group
            result.push_back(full);
        }
        if (auto sub = scanFolder(full, includeFolders, ignoreFxFactory)) {
            result.insert(result.end(), sub->begin(), sub->end());
        }
    }
    return result;
}
}  // namespace

std::vector<std::string> AppController::listPlugins(bool includeDisabled) {
    return listPlugins(includeDisabled, false);
}

std::vector<std::string> AppController::listPlugins(bool includeDisabled, bool includeFolders) {
    std::vector<std::string> folders;
    for (const auto& [key, value] : KTPluginLocations::pluginFolderDict()) folders.push_back(value);
    return listPlugins(includeDisabled, includeFolders, folders);
}

std::vector<std::string> AppController::foldersForFilter(int filter, const KTPluginFolderDict& dict) {
    static const std::vector<std::vector<std::string>> kFilters = {
        {},
        {"localFxPlug", "userFxPlug", "localFxScript", "userFxScript", "localAU", "userAU",
         "localQuartz", "userQuartz"},
        {"localFxPlug", "userFxPlug", "localAU", "userAU", "localMotionTemplate",
         "userMotionTemplate", "localQuartz", "userQuartz"},
        {"avidAVX", "avidAVX2", "avidRTAS"},
        {"adobeCommon", "localVST", "localVST2", "localVST3", "userVST", "userVST2", "userVST3"},
        {"localOFX"},
        {},
        {"localFxPlug", "userFxPlug", "localFxScript", "userFxScript", "localMotionTemplate",
         "userMotionTemplate", "avidAVX", "avidAVX2", "adobeCommon", "localOFX", "localQuartz",
         "userQuartz"},
        {"localAU", "userAU", "localVST", "localVST2", "localVST3", "userVST", "userVST2",
         "userVST3"},
    };
    std::vector<std::string> folders;
    const bool listed = filter > 0 && filter < int(kFilters.size()) && !kFilters[filter].empty();
    if (!listed) {
        for (const auto& [key, value] : dict) folders.push_back(value);
        return folders;
    }
    for (const auto& key : kFilters[filter]) {
        if (auto v = KTPluginLocations::folderForKey(dict, key)) folders.push_back(*v);
    }
    return folders;
}

std::vector<std::string> AppController::listFilteredPlugins(bool includeDisabled, bool includeFolders) {
    int filter = static_cast<int>(KTPreferences::standard().integerForKey("filter"));
    return listPlugins(includeDisabled, includeFolders,
                       foldersForFilter(filter, KTPluginLocations::pluginFolderDict()));
}

std::vector<std::string> AppController::listPlugins(bool includeDisabled, bool includeFolders,
                                                    const std::vector<std::string>& folders) {
    KTLog::appendLog("Generating list of plugins...");
    const bool ignoreFxFactory = KTPreferences::standard().integerForKey("ignoreFxFactory") == 1;
    std::vector<std::string> result;
    for (int pass = 0; pass < (includeDisabled ? 2 : 1); ++pass) {
        for (const auto& folder : folders) {
            std::string scanned = pass == 0 ? folder : KTPluginLocations::disabledPathForPath(folder);
            if (auto found = scanFolder(scanned, includeFolders, ignoreFxFactory))
                result.insert(result.end(), found->begin(), found->end());
        }
    }
    return result;
}

void AppController::processPluginAtPath(const std::string& path) {
    int filter = static_cast<int>(KTPreferences::standard().integerForKey("filter"));
    processPluginAtPath(path, filter, KTPluginLocations::pluginFolderDict(),
                        KTPluginLocations::disabledPath());
}

void AppController::processPluginAtPath(const std::string& path, int filter,
                                        const KTPluginFolderDict& dict,
                                        const std::string& disabledPath) {
    KTLog::fastAppendLog("Processing plugin %@", path);
    const bool folderEntry = isFolderEntry(path);
    const bool isGroup = folderEntry && !isMotionTemplateFolder(path);

    std::string cut = path;
    long long enabled = 1;
    if (path.size() > disabledPath.size() + 1 && path.compare(0, disabledPath.size(), disabledPath) == 0) {
        cut = path.substr(disabledPath.size());
        // The rest mirrors the plug-in's path as a host sees it; map it back
        // onto this machine's system root.
        cut = KTLocalPaths::realPath(cut);
        enabled = 0;
    }

    std::int64_t kind = -1, access = -1;
    std::string base;
    static const std::pair<const char*, std::pair<int, int>> kClassification[] = {
        {"localFxPlug", {0, 0}},  {"userFxPlug", {0, 1}},  {"localFxScript", {1, 0}},
        {"userFxScript", {1, 1}}, {"localAU", {2, 0}},     {"userAU", {2, 1}},
        {"avidAVX", {3, 0}},      {"avidAVX2", {5, 0}},    {"avidRTAS", {6, 0}},
        {"adobeCommon", {4, 0}},  {"localVST", {7, 0}},    {"userVST", {7, 1}},
        {"localVST2", {11, 0}},   {"userVST2", {11, 1}},   {"localVST3", {12, 0}},
        {"userVST3", {12, 1}},    {"localMotionTemplate", {8, 0}}, {"userMotionTemplate", {8, 1}},
        {"localOFX", {9, 0}},     {"localQuartz", {10, 0}}, {"userQuartz", {10, 1}},
    };
    for (const auto& [key, codes] : kClassification) {
        auto value = KTPluginLocations::folderForKey(dict, key);
        if (value && !value->empty() && cut.compare(0, value->size(), *value) == 0) {
            kind = codes.first;
            access = codes.second;
            base = *value;
            break;
        }
    }

    std::string subdir;
    std::string parent = *KTLocalPaths::ensureTrailingSlash(KTPluginLocations::deletingLastPathComponent(cut));
    std::string baseSlash = *KTLocalPaths::ensureTrailingSlash(base);
    if (!base.empty() && parent.size() > baseSlash.size() && parent.compare(0, baseSlash.size(), baseSlash) == 0)
        subdir = parent.substr(baseSlash.size());
    else if (base.empty())
        subdir = "";
    subdir = *KTLocalPaths::stripTrailingSlash(subdir);
    if (subdir == "/") subdir.clear();

    const std::string fileName = std::filesystem::path(path).filename().string();
    if (isGroup) {
        std::string groupSubdir = subdir.empty() ? fileName : subdir + "/" + fileName;
        std::string basePath = *KTLocalPaths::stripTrailingSlash(base);
        if (enabled == 0) basePath = KTPluginLocations::disabledPathForPath(basePath);
        outline_->addGroup(groupSubdir, basePath);
        return;
    }
    std::optional<std::string> sub;
    if (!subdir.empty()) sub = subdir;
    outline_->addPlugin(fileName, shortNameForPath(path), sub, "", kind, access, enabled);
}

void AppController::loadPluginData() {
    std::lock_guard<std::mutex> reload(reloadLock_);
    reloading_ = true;
    try {
        KTMainThread::shared().runAndWait([this] {
            startProgress();
            if (hasGUI_ && ui_) ui_->catalogueReloadStarted();
            outline_->clearData();
        });
        outline_->setLoading(true);
        KTLog::fastAppendLog("Loading plugin data...");
        const std::string disabled = KTPluginLocations::disabledPath();
        std::error_code ec;
        if (!std::filesystem::exists(disabled, ec) && !KTTransferPlan::active())
            std::filesystem::create_directories(disabled, ec);

        KTPluginLocations::FolderCache folderCache;
        std::vector<std::string> paths = listFilteredPlugins(true, true);
        const int filter = static_cast<int>(KTPreferences::standard().integerForKey("filter"));
        const KTPluginFolderDict dict = KTPluginLocations::pluginFolderDict();
        {
            unsigned workers = std::max(3u, std::min(8u, std::thread::hardware_concurrency()));
            KTOperationQueue queue(workers);
            for (const auto& p : paths) {
                queue.addOperation([this, p, filter, &dict, &disabled] {
                    processPluginAtPath(p, filter, dict, disabled);
                });
            }
            queue.waitUntilAllOperationsAreFinished();
        }
        outline_->setLoading(false);
        KTLog::appendLog("Refreshing data...");
        KTMainThread::shared().runAndWait([this] {
            endProgress();
            if (hasGUI_ && ui_) ui_->catalogueReloadFinished();
        });
    } catch (const std::exception& e) {
        outline_->setLoading(false);
        KTException::logException(e, "-[AppController loadPluginData]");
    }
    reloading_ = false;
}

void AppController::reloadData() {
    {
        std::lock_guard<std::mutex> l(reloadThreadsLock_);
        ++reloadsRunning_;
    }
    std::thread([this] {
        loadPluginData();
        std::lock_guard<std::mutex> l(reloadThreadsLock_);
        --reloadsRunning_;
        reloadsDone_.notify_all();
    }).detach();
}

void AppController::waitForReload() {
    std::unique_lock<std::mutex> l(reloadThreadsLock_);
    reloadsDone_.wait(l, [this] { return reloadsRunning_ == 0; });
}
