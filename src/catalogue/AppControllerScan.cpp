// The catalogue half of AppController: listing the plug-in folders and
// classifying each path into the tree.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
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
#include "SharedFiles/linux/KTOpenFolder.h"
#include "app/core/AppController.h"
#include "catalogue/KTFilePackage.h"
#include "catalogue/OutlineViewController.h"

namespace {

bool isTemplateDocumentExtension(const std::string& ext) {
    return ext == "moti" || ext == "motn" || ext == "motr" || ext == "moef";
}

bool isListedPluginExtension(const std::string& ext) {
    static const char* const kListed[] = {"txt",       "fcfcc",  "bundle", "avx",  "dpm", "fxplug",
                                          "component", "plugin", "vst",    "vst2", "vst3"};
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

struct FolderEntry {
    std::string name;
    unsigned char type;  ///< DT_LNK, DT_DIR, ...; DT_UNKNOWN where the file system does not say
};

/// Whether a listing may add a plug-in of this folder itself, so that the
/// folder is worth keeping open: not a template's own folder (its listing
/// ends at the document), and something there that is no folder or has a
/// plug-in's extension.
bool mayHoldPlugin(const std::vector<FolderEntry>& entries) {
    bool some = false;
    for (const auto& e : entries) {
        const std::string ext = KTFilePackage::lowerExtension(e.name);
        if (isTemplateDocumentExtension(ext)) return false;
        some = some || e.type != DT_DIR || isListedPluginExtension(ext);
    }
    return some;
}

/// The entries of a folder in the order the file system lists them; nothing
/// with the error text when it cannot be read. With `kept`, the folder is
/// also kept open there (when the bound allows) for the looks that follow.
std::optional<std::vector<FolderEntry>> listFolder(const std::string& folder, std::string& error,
                                                   std::shared_ptr<const KTOpenFolder>* kept,
                                                   bool settled = false) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) {
        error = std::strerror(errno);
        return std::nullopt;
    }
    std::vector<FolderEntry> entries;
    bool leftovers = false;
    while (struct dirent* e = ::readdir(dir)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        // A transfer's work entry (a copy being made, an original being
        // removed) is never a plug-in, whatever it holds.
        if (KTTransfer::isWorkName(e->d_name)) {
            leftovers = true;
            continue;
        }
        entries.push_back({e->d_name, e->d_type});
    }
    if (leftovers && !settled) {
        ::closedir(dir);
        // What a killed run left here is settled first (a live run's work is
        // left alone), so that a plug-in put back is listed too.
        KTTransfer::shared().recoverFolder(folder);
        return listFolder(folder, error, kept, true);
    }
    if (kept && mayHoldPlugin(entries)) *kept = KTOpenFolder::keep(::dirfd(dir));
    ::closedir(dir);
    return entries;
}

/// What the scan learnt of a path it listed, so that classifying it need
/// not ask the disk again.
enum class ListedShape : unsigned char {
    Unknown,      ///< ask the disk
    Item,         ///< no folder entry: a plug-in file or bundle
    FolderEntry,  ///< a group or a template, its listing not read
    Group,        ///< a folder entry whose listing holds no template document of its name
    Template,     ///< a folder entry whose listing does
};

struct ListedPath {
    std::string path;
    ListedShape shape;
    /// The folder it was listed in, still open, for a plug-in; else none.
    std::shared_ptr<const KTOpenFolder> folder = nullptr;
};

/// The name a Motion template's document carries inside the template's
/// folder: the folder's name less its extension.
std::string templateBaseName(const std::string& folderName) {
    const std::string ext = KTFilePackage::lowerExtension(folderName);
    return ext.empty() ? folderName : folderName.substr(0, folderName.size() - ext.size() - 1);
}

/// Whether `folder` is `path` or holds it (both canonical).
bool holds(const std::string& folder, const std::string& path) {
    if (folder == "/") return true;
    return path == folder ||
           (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
            path[folder.size()] == '/');
}

std::string canonical(const std::string& path) {
    std::error_code ec;
    std::string c = std::filesystem::canonical(path, ec).string();
    return ec ? std::string() : c;
}

/// One listing's walk. A symbolic link to a folder is followed only once per
/// real folder (device and inode of every folder on the current walk and
/// already walked), never into a folder that holds a folder of the listing,
/// and never out of the system root and the user's home: a link to "/", or
/// three folders linking to each other, would otherwise walk forever or list
/// the same plug-ins again and again.
class ScanWalk {
  public:
    /// `keepFolders`: the plug-ins' folders are kept open in the paths listed
    /// (for a load, which looks inside each plug-in next).
    ScanWalk(std::vector<std::string> topFolders, bool includeFolders, bool ignoreFxFactory,
             bool keepFolders = false)
        : topFolders_(std::move(topFolders)),
          includeFolders_(includeFolders),
          ignoreFxFactory_(ignoreFxFactory),
          keepFolders_(keepFolders) {}

    /// The paths below one folder of the listing, with what the walk learnt
    /// of each; nothing when the folder cannot be listed.
    std::optional<std::vector<ListedPath>> scan(const std::string& folder);

  private:
    using Identity = std::pair<dev_t, ino_t>;

    /// Lists `plain` (already known to be a folder not walked before) and
    /// appends what it holds to `out`. False when it cannot be listed.
    /// `holdsOwnTemplate` tells whether the listing holds the template
    /// document named after the folder.
    bool list(const std::string& plain, const std::string& asGiven, std::vector<ListedPath>& out,
              bool& holdsOwnTemplate);

    /// Why the link at `link` (leading to the folder `st`) is not followed,
    /// or nothing. `top` for a folder of the listing itself, which may lie
    /// anywhere (plug-in folders moved to another disk) but not hold another.
    std::optional<std::string> refusal(const std::string& link, const struct stat& st, bool top,
                                       std::string& target);
    void logRefusal(const std::string& link, const std::string& target, const std::string& why);
    const std::vector<std::string>& canonicalTops();

    std::vector<std::string> topFolders_;
    std::vector<std::string> canonicalTops_;
    std::vector<std::string> allowedPlaces_;
    bool canonicalDone_ = false;
    bool includeFolders_, ignoreFxFactory_, keepFolders_;
    std::set<Identity> walked_;
};

const std::vector<std::string>& ScanWalk::canonicalTops() {
    if (!canonicalDone_) {
        canonicalDone_ = true;
        for (const auto& f : topFolders_) {
            if (auto c = canonical(f); !c.empty()) canonicalTops_.push_back(c);
        }
        const std::string root = KTLocalPaths::systemRoot();
        for (const std::string& place :
             {root.empty() ? std::string("/") : root, KTLocalPaths::userDirectory()}) {
            if (auto c = canonical(place); !c.empty()) allowedPlaces_.push_back(c);
        }
    }
    return canonicalTops_;
}

std::optional<std::string> ScanWalk::refusal(const std::string& link, const struct stat& st,
                                             bool top, std::string& target) {
    if (walked_.count({st.st_dev, st.st_ino})) return "a folder already listed";
    target = canonical(link);
    if (target.empty()) return "a folder that cannot be resolved";
    for (const auto& t : canonicalTops()) {
        if (top && target == t) continue;
        if (target == t) return "a plug-in folder listed in its own right";
        if (holds(target, t)) return "a folder that holds a plug-in folder";
    }
    if (top) return std::nullopt;
    for (const auto& place : allowedPlaces_) {
        if (holds(place, target)) return std::nullopt;
    }
    return "outside the system root and the home folder";
}

void ScanWalk::logRefusal(const std::string& link, const std::string& target,
                          const std::string& why) {
    // Every reload lists the same links again: say it once per process.
    static std::mutex lock;
    static std::set<std::string> logged;
    {
        std::lock_guard<std::mutex> l(lock);
        if (!logged.insert(link).second) return;
    }
    KTLog::appendLog("Not following link %@ to %@ - %@", link, target.empty() ? "?" : target, why);
}

/// The last component of a path, as the file system names it: after the
/// last "/", empty when the path ends with one.
std::string lastComponent(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

/// Display name of a path's last component: the name less its extension,
/// unless the extension is a number ("Denoise 2.5" stays whole).
std::string shortNameForPath(const std::string& path) {
    std::string name = lastComponent(path);
    if (name.empty()) {
        std::string parent = path;
        while (!parent.empty() && parent.back() == '/') parent.pop_back();
        name = lastComponent(parent);
    }
    std::string ext = KTFilePackage::lowerExtension(name);
    if (ext.empty() || KTPluginLocations::isNumeric(ext)) return name;
    return name.substr(0, name.size() - ext.size() - 1);
}

/// Whether a folder is an entry of its own (a group or a Motion template)
/// rather than a bundle: not a package, extension empty, "localized" or numeric.
bool isFolderEntry(const std::string& path) {
    // The name first: most paths are bundles their extension already tells.
    std::string ext = KTFilePackage::lowerExtension(path);
    if (!ext.empty() && ext != "localized" && !KTPluginLocations::isNumeric(ext)) return false;
    return isFolder(path) && !KTFilePackage::isFilePackage(path);
}

bool isMotionTemplateFolder(const std::string& path) {
    const std::string base = templateBaseName(std::filesystem::path(path).filename().string());
    for (const char* e : {"moti", "motn", "moef", "motr"}) {
        struct stat st {};
        if (::lstat(join(path, base + "." + e).c_str(), &st) == 0) return true;
    }
    return false;
}

}  // namespace

std::set<std::string> AppController::fileExtensionsInFileArray(
    const std::vector<std::string>& names) {
    std::set<std::string> out;
    for (const auto& n : names) out.insert(KTFilePackage::lowerExtension(n));
    return out;
}

namespace {
std::vector<std::string> pathsOf(std::vector<ListedPath>&& listed) {
    std::vector<std::string> paths;
    paths.reserve(listed.size());
    for (auto& l : listed) paths.push_back(std::move(l.path));
    listed.clear();  // and with them the folders kept open
    return paths;
}
}  // namespace

std::optional<std::vector<std::string>> AppController::scanPluginsInFolder(
    const std::string& folder, bool includeFolders) {
    ScanWalk walk({folder}, includeFolders,
                  KTPreferences::standard().integerForKey("ignoreFxFactory") == 1);
    auto found = walk.scan(folder);
    if (!found) return std::nullopt;
    return pathsOf(std::move(*found));
}

namespace {
std::optional<std::vector<ListedPath>> ScanWalk::scan(const std::string& folder) {
    std::vector<ListedPath> result;
    std::string plain = folder;
    while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
    struct stat st {};
    if (::stat(plain.c_str(), &st) != 0) return result;  // nothing there: nothing to say
    if (S_ISDIR(st.st_mode)) {
        struct stat lst {};
        if (::lstat(plain.c_str(), &lst) == 0 && S_ISLNK(lst.st_mode)) {
            std::string target;
            if (auto why = refusal(plain, st, true, target)) {
                logRefusal(plain, target, *why);
                return result;
            }
        }
        // Bind mounts can loop without a link.
        if (!walked_.insert({st.st_dev, st.st_ino}).second) return result;
    }
    bool ownTemplate = false;
    if (!list(plain, folder, result, ownTemplate)) return std::nullopt;
    return result;
}

bool ScanWalk::list(const std::string& plain, const std::string& asGiven,
                    std::vector<ListedPath>& result, bool& holdsOwnTemplate) {
    std::string error;
    std::shared_ptr<const KTOpenFolder> folder;
    auto entries = listFolder(plain, error, keepFolders_ ? &folder : nullptr);
    if (!entries) {
        KTLog::appendLog("Error getting contents of directory %@ - %@", asGiven, error);
        return false;
    }
    std::vector<std::string> exts;
    exts.reserve(entries->size());
    bool holdsTemplate = false;
    const std::string own = templateBaseName(plain.substr(plain.rfind('/') + 1));
    for (const auto& e : *entries) {
        exts.push_back(KTFilePackage::lowerExtension(e.name));
        if (isTemplateDocumentExtension(exts.back())) {
            holdsTemplate = true;
            for (const char* doc : {".moti", ".motn", ".moef", ".motr"})
                if (e.name == own + doc) holdsOwnTemplate = true;
        }
    }

    for (std::size_t i = 0; i < entries->size(); ++i) {
        const auto& [name, type] = (*entries)[i];
        const std::string& ext = exts[i];
        const std::string full = join(plain, name);
        if (isTemplateDocumentExtension(ext))
            return true;  // the folder is a template: its parent lists it
        if (isListedPluginExtension(ext)) {
            // Its extension alone says it is no group and no template.
            result.push_back({full, ListedShape::Item, folder});
            continue;
        }
        // A folder has no file type of its own (that is a file's): only
        // what may be a file is asked for one.
        if (type != DT_DIR && KTFinderInfo::typeCode(full) == KTFinderInfo::kFxScriptType) {
            result.push_back(
                {full,
                 type == DT_LNK || type == DT_UNKNOWN ? ListedShape::Unknown : ListedShape::Item,
                 folder});
            continue;
        }
        if (!ext.empty() && ext != "localized" && !KTPluginLocations::isNumeric(ext)) continue;
        if (name == ".localized" || name == ".Disabled") continue;
        if (type != DT_DIR && type != DT_LNK && type != DT_UNKNOWN) continue;
        if (KTFilePackage::isFilePackage(full)) continue;
        struct stat sub {};
        if (::stat(full.c_str(), &sub) != 0 || !S_ISDIR(sub.st_mode)) continue;
        if (ignoreFxFactory_) {  // a folder another installer manages
            struct stat marker {};
            if (::lstat(join(full, ".fxfactory.plist").c_str(), &marker) == 0) continue;
        }
        bool isLink = type == DT_LNK;
        if (type == DT_UNKNOWN) {
            struct stat l {};
            isLink = ::lstat(full.c_str(), &l) == 0 && S_ISLNK(l.st_mode);
        }
        if (isLink) {
            std::string target;
            if (auto why = refusal(full, sub, false, target)) {
                logRefusal(full, target, *why);
                continue;
            }
        } else if (walked_.count({sub.st_dev, sub.st_ino})) {
            continue;
        }
        std::size_t self = result.size();
        if (includeFolders_) {
            if (name == "Media" && holdsTemplate) continue;  // a template's media, not a group
            result.push_back({full, ListedShape::FolderEntry});
        }
        // Checked above, link or not: the folder is listed as it is found.
        walked_.insert({sub.st_dev, sub.st_ino});
        bool subTemplate = false;
        if (list(full, full, result, subTemplate) && includeFolders_)
            result[self].shape = subTemplate ? ListedShape::Template : ListedShape::Group;
    }
    return true;
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

std::vector<std::string> AppController::foldersForFilter(int filter,
                                                         const KTPluginFolderDict& dict) {
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

std::vector<std::string> AppController::listFilteredPlugins(bool includeDisabled,
                                                            bool includeFolders) {
    int filter = static_cast<int>(KTPreferences::standard().integerForKey("filter"));
    return listPlugins(includeDisabled, includeFolders,
                       foldersForFilter(filter, KTPluginLocations::pluginFolderDict()));
}

namespace {
/// Lists the folders (and, with `includeDisabled`, their mirrors in the
/// disabled folder) and hands what each one holds to `take`, in order, as
/// soon as that folder is done.
void listEachWithShapes(bool includeDisabled, bool includeFolders,
                        const std::vector<std::string>& folders, bool keepFolders,
                        const std::function<void(std::vector<ListedPath>&&)>& take) {
    KTLog::appendLog("Generating list of plugins...");
    const bool ignoreFxFactory = KTPreferences::standard().integerForKey("ignoreFxFactory") == 1;
    std::vector<std::string> scanned;
    for (int pass = 0; pass < (includeDisabled ? 2 : 1); ++pass) {
        for (const auto& folder : folders)
            scanned.push_back(pass == 0 ? folder : KTPluginLocations::disabledPathForPath(folder));
    }
    ScanWalk walk(scanned, includeFolders, ignoreFxFactory, keepFolders);
    for (const auto& folder : scanned) {
        if (auto found = walk.scan(folder); found && !found->empty()) take(std::move(*found));
    }
}

std::vector<ListedPath> listWithShapes(bool includeDisabled, bool includeFolders,
                                       const std::vector<std::string>& folders,
                                       bool keepFolders = false) {
    std::vector<ListedPath> result;
    listEachWithShapes(includeDisabled, includeFolders, folders, keepFolders,
                       [&](std::vector<ListedPath>&& found) {
                           result.insert(result.end(), std::make_move_iterator(found.begin()),
                                         std::make_move_iterator(found.end()));
                       });
    return result;
}

/// The folder table in the order paths are classified by, looked up once
/// per load instead of once per key and path.
class Classification {
  public:
    struct Kind {
        std::string folder;       ///< the table's value
        std::string folderSlash;  ///< the same with a trailing "/"
        int kind, access;
    };

    explicit Classification(const KTPluginFolderDict& dict) {
        static const std::pair<const char*, std::pair<int, int>> kTable[] = {
            {"localFxPlug", {0, 0}},
            {"userFxPlug", {0, 1}},
            {"localFxScript", {1, 0}},
            {"userFxScript", {1, 1}},
            {"localAU", {2, 0}},
            {"userAU", {2, 1}},
            {"avidAVX", {3, 0}},
            {"avidAVX2", {5, 0}},
            {"avidRTAS", {6, 0}},
            {"adobeCommon", {4, 0}},
            {"localVST", {7, 0}},
            {"userVST", {7, 1}},
            {"localVST2", {11, 0}},
            {"userVST2", {11, 1}},
            {"localVST3", {12, 0}},
            {"userVST3", {12, 1}},
            {"localMotionTemplate", {8, 0}},
            {"userMotionTemplate", {8, 1}},
            {"localOFX", {9, 0}},
            {"localQuartz", {10, 0}},
            {"userQuartz", {10, 1}},
        };
        for (const auto& [key, codes] : kTable) {
            auto value = KTPluginLocations::folderForKey(dict, key);
            if (!value || value->empty()) continue;
            kinds_.push_back(
                {*value, *KTLocalPaths::ensureTrailingSlash(*value), codes.first, codes.second});
        }
    }

    /// The first kind whose folder the path begins with, or null.
    const Kind* match(const std::string& path) const {
        for (const auto& k : kinds_) {
            if (path.compare(0, k.folder.size(), k.folder) == 0) return &k;
        }
        return nullptr;
    }

  private:
    std::vector<Kind> kinds_;
};

/// Classifies one listed path and adds it to the tree (the body of
/// `processPluginAtPath:filter:pluginFolderDict:disabledPath:`).
void classifyPath(OutlineViewController& outline, const ListedPath& listed,
                  const Classification& table, const std::string& disabledPath) {
    const std::string& path = listed.path;
    KTLog::fastAppendLog("Processing plugin %@", path);
    bool folderEntry, isGroup;
    switch (listed.shape) {
        case ListedShape::Item:
            folderEntry = isGroup = false;
            break;
        case ListedShape::Group:
        case ListedShape::Template:
            folderEntry = true;
            isGroup = listed.shape == ListedShape::Group;
            break;
        case ListedShape::FolderEntry:
            folderEntry = true;
            isGroup = !isMotionTemplateFolder(path);
            break;
        default:
            folderEntry = isFolderEntry(path);
            isGroup = folderEntry && !isMotionTemplateFolder(path);
    }

    std::string cut;
    long long enabled = 1;
    const bool disabled = path.size() > disabledPath.size() + 1 &&
                          path.compare(0, disabledPath.size(), disabledPath) == 0;
    if (disabled) {
        // The rest mirrors the plug-in's path as a host sees it; map it back
        // onto this machine's system root.
        cut = KTLocalPaths::realPath(path.substr(disabledPath.size()));
        enabled = 0;
    }
    const std::string& place = disabled ? cut : path;

    std::int64_t kind = -1, access = -1;
    static const std::string kNone;
    const Classification::Kind* match = table.match(place);
    if (match) kind = match->kind, access = match->access;
    const std::string& base = match ? match->folder : kNone;

    std::string subdir;
    std::string parent =
        *KTLocalPaths::ensureTrailingSlash(KTPluginLocations::deletingLastPathComponent(place));
    const std::string& baseSlash = match ? match->folderSlash : kNone;
    if (!base.empty() && parent.size() > baseSlash.size() &&
        parent.compare(0, baseSlash.size(), baseSlash) == 0)
        subdir = parent.substr(baseSlash.size());
    else if (base.empty())
        subdir = "";
    subdir = *KTLocalPaths::stripTrailingSlash(subdir);
    if (subdir == "/") subdir.clear();

    const std::string fileName = lastComponent(path);
    if (isGroup) {
        std::string groupSubdir = subdir.empty() ? fileName : subdir + "/" + fileName;
        std::string basePath = *KTLocalPaths::stripTrailingSlash(base);
        if (enabled == 0) basePath = KTPluginLocations::disabledPathForPath(basePath);
        outline.addGroup(groupSubdir, basePath);
        return;
    }
    std::optional<std::string> sub;
    if (!subdir.empty()) sub = subdir;
    outline.addPlugin(fileName, shortNameForPath(path), sub, "", kind, access, enabled, path,
                      listed.folder);
}
}  // namespace

std::vector<std::string> AppController::listPlugins(bool includeDisabled, bool includeFolders,
                                                    const std::vector<std::string>& folders) {
    return pathsOf(listWithShapes(includeDisabled, includeFolders, folders));
}

void AppController::processPluginAtPath(const std::string& path) {
    int filter = static_cast<int>(KTPreferences::standard().integerForKey("filter"));
    processPluginAtPath(path, filter, KTPluginLocations::pluginFolderDict(),
                        KTPluginLocations::disabledPath());
}

void AppController::processPluginAtPath(const std::string& path, int /*filter*/,
                                        const KTPluginFolderDict& dict,
                                        const std::string& disabledPath) {
    classifyPath(*outline_, {path, ListedShape::Unknown}, Classification(dict), disabledPath);
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
        const int filter = static_cast<int>(KTPreferences::standard().integerForKey("filter"));
        const Classification table(KTPluginLocations::pluginFolderDict());
        // What each folder of the listing holds, in the listing's order; a
        // deque, so that the workers' references stay good while it grows.
        std::deque<std::vector<ListedPath>> listed;
        {
            // At most 3 at a time, and no more than there are processors: the
            // work is system calls, and threads beyond the processors only
            // wait for each other's locks. Each operation takes a run of
            // paths, so that handing work over costs little beside it. A
            // folder's plug-ins are classified while the next folders are
            // listed: the listing alone keeps one processor busy.
            const unsigned cpus = std::max(1u, std::thread::hardware_concurrency());
            const unsigned workers = std::min(3u, cpus);
            KTOperationQueue queue(workers);
            listEachWithShapes(
                true, true, foldersForFilter(filter, KTPluginLocations::pluginFolderDict()), true,
                [&](std::vector<ListedPath>&& found) {
                    const std::vector<ListedPath>& chunk = listed.emplace_back(std::move(found));
                    const std::size_t run =
                        std::clamp<std::size_t>(chunk.size() / (2 * workers), 8, 64);
                    for (std::size_t first = 0; first < chunk.size(); first += run) {
                        const std::size_t last = std::min(chunk.size(), first + run);
                        queue.addOperation([this, first, last, &chunk, &table, &disabled] {
                            OutlineViewController::DeferredAppends appends(*outline_);
                            for (std::size_t i = first; i < last; ++i)
                                classifyPath(*outline_, chunk[i], table, disabled);
                        });
                    }
                });
            queue.waitUntilAllOperationsAreFinished();
        }
        std::vector<std::string> paths;
        for (auto& chunk : listed) {
            for (auto& l : chunk) paths.push_back(std::move(l.path));
        }
        listed.clear();  // and with them the folders kept open
        outline_->setLoadedPaths(std::move(paths));
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
