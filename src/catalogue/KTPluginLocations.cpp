#include "catalogue/KTPluginLocations.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTWorkspace.h"
#include "catalogue/KTPremiere.h"

namespace fs = std::filesystem;

namespace {

const char* const kDisabledSubpath = "Quellbrook/Tallowby/Ambrel Disabled Plugins";
const char* const kAdobeCommon = "/Adobe/Common/Plug-ins/";

bool startsWith(const std::string& s, const std::string& prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

/// Root of a scope: the home folder for the current user, the system root
/// ("" on a real machine, so that root + "/Library" is "/Library") for all users.
std::string scopeRoot(std::int64_t access) {
    return access != 0 ? KTLocalPaths::userDirectory() : KTLocalPaths::systemRoot();
}

/// Joins with "/" the way a platform root does: "" + "/Library" stays absolute.
std::string rootPlus(const std::string& root, const std::string& rest) {
    if (root.empty()) return rest.empty() || rest.front() == '/' ? rest : "/" + rest;
    return KTPluginLocations::appendPathComponent(root, rest);
}

std::vector<std::string> listFolder(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code ec;
    fs::directory_iterator it(folder, ec), end;
    for (; !ec && it != end; it.increment(ec)) names.push_back(it->path().filename().string());
    return names;
}

}  // namespace

std::string KTPluginLocations::pluginTypeName(std::int64_t type) {
    switch (type) {
        case 0:
            return "FxPlug";
        case 1:
            return "FxScript";
        case 2:
            return "Audio Unit";
        case 3:
            return "Avid AVX";
        case 4:
            return "Adobe Plugin";
        case 5:
            return "Avid AVX2";
        case 6:
            return "Avid RTAS";
        case 7:
            return "VST";
        case 8:
            return "Motion Template";
        case 9:
            return "OpenFX Plugin";
        case 10:
            return "Quartz Composer Plugin";
        case 11:
            return "VST2";
        case 12:
            return "VST3";
        default:
            return "Unknown";
    }
}

namespace {
std::mutex gFolderCacheLock;
int gFolderCacheDepth = 0;
std::optional<std::string> gCachedAdobeFolder;  // without the trailing slash
std::optional<KTPluginFolderDict> gCachedFolderDict;
std::optional<std::string> gCachedDisabledPath;
/// Kind folders by kind and scope (true for the current user).
std::map<std::pair<std::int64_t, bool>, std::string> gCachedBasePaths;
}  // namespace

std::string KTPluginLocations::disabledPath() {
    {
        std::lock_guard<std::mutex> l(gFolderCacheLock);
        if (gFolderCacheDepth > 0 && gCachedDisabledPath) return *gCachedDisabledPath;
    }
    std::string path =
        appendPathComponent(KTLocalPaths::appSupportDirectory(false), kDisabledSubpath);
    std::lock_guard<std::mutex> l(gFolderCacheLock);
    if (gFolderCacheDepth > 0) gCachedDisabledPath = path;
    return path;
}

KTPluginLocations::FolderCache::FolderCache() {
    std::lock_guard<std::mutex> l(gFolderCacheLock);
    ++gFolderCacheDepth;
}

KTPluginLocations::FolderCache::~FolderCache() {
    std::lock_guard<std::mutex> l(gFolderCacheLock);
    if (--gFolderCacheDepth == 0) {
        gCachedAdobeFolder.reset();
        gCachedFolderDict.reset();
        gCachedDisabledPath.reset();
        gCachedBasePaths.clear();
    }
}

std::string KTPluginLocations::adobeFolder(bool trailingSlash) {
    {
        std::lock_guard<std::mutex> l(gFolderCacheLock);
        if (gFolderCacheDepth > 0 && gCachedAdobeFolder)
            return *gCachedAdobeFolder + (trailingSlash ? "/" : "");
    }
    std::string found = findAdobeFolder();
    {
        std::lock_guard<std::mutex> l(gFolderCacheLock);
        if (gFolderCacheDepth > 0) gCachedAdobeFolder = found;
    }
    return found + (trailingSlash ? "/" : "");
}

std::string KTPluginLocations::findAdobeFolder() {
    const std::string slash;
    const std::string localSupport = KTLocalPaths::appSupportDirectory(false);
    const std::string common = localSupport + kAdobeCommon;

    std::vector<std::string> names = listFolder(common);
    std::sort(names.begin(), names.end(), std::greater<>());
    std::string sub = std::string(kAdobeCommon) + "7.0/MediaCore" + slash;
    for (const std::string& name : names) {
        if (isNumeric(name)) {
            sub = std::string(kAdobeCommon) + name + "/MediaCore" + slash;
            break;
        }
    }
    if (!fileExists(localSupport + sub)) {
        std::vector<std::string> versions = KTPremiere::premiereVersions();
        if (!versions.empty()) {
            std::string v = versions.back();
            // Only the first character survives, so 10.0 reads as CS1; later
            // releases have numeric folders and never get here.
            if (v.size() >= 2 && v.compare(v.size() - 2, 2, ".0") == 0) v = v.substr(0, 1);
            sub = std::string(kAdobeCommon) + "CS" + v + "/MediaCore" + slash;
        }
    }
    return KTLocalPaths::logicalPath(localSupport) + sub;
}

std::string KTPluginLocations::pluginBasePath(std::int64_t type, std::int64_t access) {
    // Every item forms its path from this, several times per load and per
    // move; the user's folder alone cost a system call each time.
    const std::pair<std::int64_t, bool> key(type, access != 0);
    {
        std::lock_guard<std::mutex> l(gFolderCacheLock);
        if (gFolderCacheDepth > 0) {
            if (auto hit = gCachedBasePaths.find(key); hit != gCachedBasePaths.end())
                return hit->second;
        }
    }
    std::string path = findBasePath(type, access);
    std::lock_guard<std::mutex> l(gFolderCacheLock);
    if (gFolderCacheDepth > 0) gCachedBasePaths.emplace(key, path);
    return path;
}

std::string KTPluginLocations::findBasePath(std::int64_t type, std::int64_t access) {
    const std::string root = scopeRoot(access);
    const bool user = access != 0;
    switch (type) {
        case 0:
            return rootPlus(root, "Library/Plug-Ins/FxPlug");
        case 1:
            return rootPlus(
                root, user ? "Library/Preferences/Final Cut Pro User Data/Plugins"
                           : "Library/Application Support/Final Cut Pro System Support/Plugins");
        case 2:
            return rootPlus(root, "Library/Audio/Plug-Ins/Components");
        case 3:
            return rootPlus(root,
                            KTWorkspace::shared().knowsApplication("com.avid.Symphony")
                                ? "/Applications/Avid Symphony/SupportingFiles/AVX_Plug-Ins"
                                : "/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins");
        case 4:
            return rootPlus(root, adobeFolder(false));
        case 5:
            return rootPlus(root, "/Library/Application Support/Avid/AVX2_Plug-ins");
        case 6:
            return rootPlus(root, "/Library/Application Support/Digidesign/Plug-Ins");
        case 7:
            return rootPlus(root, "/Library/Audio/Plug-Ins/VST");
        case 8:
            return user ? rootPlus(root, "/Movies/Motion Templates.localized")
                        : KTLocalPaths::appSupportDirectory(false) +
                              "/Final Cut Pro/Templates.localized";
        case 9:
            return rootPlus(root, "/Library/OpenFX/Plugins");
        case 10:
            return KTLocalPaths::libraryDirectory(user) + "/Graphics/Quartz Composer Plug-Ins";
        case 11:
            return rootPlus(root, "/Library/Audio/Plug-Ins/VST2");
        case 12:
            return rootPlus(root, "/Library/Audio/Plug-Ins/VST3");
        default:
            return "";
    }
}

std::string KTPluginLocations::pluginTypeDir(long long enabled) {
    return enabled == 0 ? disabledPath() : std::string();
}

std::string KTPluginLocations::pluginRelativePath(std::int64_t type, std::int64_t access,
                                                  const std::optional<std::string>& subdir,
                                                  const std::string& fileName) {
    std::string path = pluginBasePath(type, access);
    if (subdir && !subdir->empty()) path = appendPathComponent(path, *subdir);
    return appendPathComponent(path, fileName);
}

std::string KTPluginLocations::pluginPath(std::int64_t type, std::int64_t access, long long enabled,
                                          const std::optional<std::string>& subdir,
                                          const std::string& fileName) {
    std::string relative = pluginRelativePath(type, access, subdir, fileName);
    if (enabled != 0) return relative;
    return disabledPathForPath(relative);
}

std::string KTPluginLocations::disabledPathForPath(const std::string& realPath) {
    return appendPathComponent(disabledPath(), KTLocalPaths::logicalPath(realPath));
}

std::optional<std::string> KTPluginLocations::enabledPathForDisabledPath(const std::string& path) {
    const std::string disabled = disabledPath();
    if (!startsWith(path, disabled) || path.size() <= disabled.size() + 1) return std::nullopt;
    return KTLocalPaths::realPath(path.substr(disabled.size()));
}

bool KTPluginLocations::isDisabledPath(const std::string& path) {
    return enabledPathForDisabledPath(path).has_value();
}

KTPluginFolderDict KTPluginLocations::pluginFolderDict() {
    {
        std::lock_guard<std::mutex> l(gFolderCacheLock);
        if (gFolderCacheDepth > 0 && gCachedFolderDict) return *gCachedFolderDict;
    }
    KTPluginFolderDict dict = buildPluginFolderDict();
    std::lock_guard<std::mutex> l(gFolderCacheLock);
    if (gFolderCacheDepth > 0) gCachedFolderDict = dict;
    return dict;
}

KTPluginFolderDict KTPluginLocations::buildPluginFolderDict() {
    KTWorkspace& workspace = KTWorkspace::shared();
    workspace.refreshApplications();

    const std::string libLocal = KTLocalPaths::libraryDirectory(false);
    const std::string libUser = KTLocalPaths::libraryDirectory(true);
    const std::string supportLocal = KTLocalPaths::appSupportDirectory(false);
    const std::string prefsUser = KTLocalPaths::prefsDirectory(true);
    const std::string appsLocal = KTLocalPaths::applicationDirectory(false);
    const std::string fcp =
        workspace.knowsApplication("com.apple.FinalCutExpress") ? "Express" : "Pro";
    const std::string avid = workspace.knowsApplication("com.avid.symphony")
                                 ? "/Avid Symphony/SupportingFiles/AVX_Plug-Ins/"
                                 : "/Avid Media Composer/SupportingFiles/AVX_Plug-Ins/";

    // The Avid 2 and RTAS values lack the "/" after Application Support, as
    // they always have; the scan finds nothing there and the item rule is
    // where those plug-ins are placed.
    return {
        {"localFxPlug", libLocal + "/Plug-Ins/FxPlug/"},
        {"userFxPlug", libUser + "/Plug-Ins/FxPlug/"},
        {"localFxScript", supportLocal + "/Final Cut " + fcp + " System Support/Plugins/"},
        {"userFxScript", prefsUser + "/Final Cut " + fcp + " User Data/Plugins/"},
        {"localAU", libLocal + "/Audio/Plug-Ins/Components/"},
        {"userAU", libUser + "/Audio/Plug-Ins/Components/"},
        {"avidAVX", appsLocal + avid},
        {"avidAVX2", supportLocal + "Avid/AVX2_Plug-ins/"},
        {"avidRTAS", supportLocal + "Digidesign/Plug-Ins/"},
        {"adobeCommon", KTLocalPaths::realPath(adobeFolder(true))},
        {"localVST", libLocal + "/Audio/Plug-Ins/VST/"},
        {"userVST", libUser + "/Audio/Plug-Ins/VST/"},
        {"localVST2", libLocal + "/Audio/Plug-Ins/VST2/"},
        {"userVST2", libUser + "/Audio/Plug-Ins/VST2/"},
        {"localVST3", libLocal + "/Audio/Plug-Ins/VST3/"},
        {"userVST3", libUser + "/Audio/Plug-Ins/VST3/"},
        {"localMotionTemplate", supportLocal + "/Final Cut Pro/Templates.localized/"},
        {"userMotionTemplate", KTLocalPaths::movieDirectory() + "/Motion Templates.localized/"},
        {"localOFX", libLocal + "/OFX/Plugins/"},
        {"localQuartz", libLocal + "/Graphics/Quartz Composer Plug-Ins/"},
        {"userQuartz", libUser + "/Graphics/Quartz Composer Plug-Ins/"},
    };
}

std::optional<std::string> KTPluginLocations::folderForKey(const KTPluginFolderDict& dict,
                                                           const std::string& key) {
    for (const auto& [k, v] : dict) {
        if (k == key) return v;
    }
    return std::nullopt;
}

std::vector<std::string> KTPluginLocations::folderKeys() {
    return {"localFxPlug",
            "userFxPlug",
            "localFxScript",
            "userFxScript",
            "localAU",
            "userAU",
            "avidAVX",
            "avidAVX2",
            "avidRTAS",
            "adobeCommon",
            "localVST",
            "userVST",
            "localVST2",
            "userVST2",
            "localVST3",
            "userVST3",
            "localMotionTemplate",
            "userMotionTemplate",
            "localOFX",
            "localQuartz",
            "userQuartz"};
}

std::optional<std::string> KTPluginLocations::pathForPlugin(
    const std::string& fileName, const std::optional<std::string>& subdir) {
    return pathForPlugin(pluginFolderDict(), fileName, subdir);
}

std::optional<std::string> KTPluginLocations::pathForPlugin(
    const KTPluginFolderDict& dict, const std::string& fileName,
    const std::optional<std::string>& subdir) {
    for (const auto& entry : dict) {
        std::string path = entry.second;
        if (subdir) path = appendPathComponent(path, *subdir);
        path = appendPathComponent(path, fileName);
        if (fileExists(path)) return path;
    }
    return std::nullopt;
}

const std::vector<std::string>& KTPluginLocations::pluginExtensions() {
    static const std::vector<std::string> extensions = {
        "fxplug", "fcfcc", "component", "plugin", "bundle", "vst",  "vst3",
        "avx",    "dpm",   "ofx",       "moti",   "motn",   "moef", "motr"};
    return extensions;
}

bool KTPluginLocations::isNumeric(const std::string& text) {
    // What a number formatter without style accepts: an optionally signed
    // decimal, with or without a fraction, an exponent, and white space
    // around it. Matched by hand: the scan asks once per entry and path,
    // and a regular expression cost more than the system call beside it.
    auto space = [](char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
    };
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t i = 0, n = text.size();
    while (i < n && space(text[i])) ++i;
    if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
    std::size_t whole = 0, fraction = 0;
    while (i < n && digit(text[i])) ++i, ++whole;
    if (i < n && text[i] == '.') {
        ++i;
        while (i < n && digit(text[i])) ++i, ++fraction;
    }
    if (whole == 0 && fraction == 0) return false;  // "", "-", ".", "+."
    if (i < n && (text[i] == 'e' || text[i] == 'E')) {
        std::size_t j = i + 1, exponent = 0;
        if (j < n && (text[j] == '+' || text[j] == '-')) ++j;
        while (j < n && digit(text[j])) ++j, ++exponent;
        if (exponent == 0) return false;
        i = j;
    }
    while (i < n && space(text[i])) ++i;
    return i == n;
}

std::string KTPluginLocations::appendPathComponent(const std::string& path,
                                                   const std::string& component) {
    std::size_t start = 0;
    while (start < component.size() && component[start] == '/') ++start;
    std::string rest = component.substr(start);
    while (!rest.empty() && rest.back() == '/') rest.pop_back();
    if (path.empty()) return component.empty() ? std::string() : (start > 0 ? "/" + rest : rest);
    std::string head = path;
    while (head.size() > 1 && head.back() == '/') head.pop_back();
    if (rest.empty()) return head;
    if (head == "/") return "/" + rest;
    return head + "/" + rest;
}

std::string KTPluginLocations::deletingLastPathComponent(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    std::size_t slash = p.rfind('/');
    if (slash == std::string::npos) return "";
    if (slash == 0) return "/";
    return p.substr(0, slash);
}

bool KTPluginLocations::fileExists(const std::string& path) {
    struct stat st;
    return !path.empty() && ::stat(path.c_str(), &st) == 0;
}
