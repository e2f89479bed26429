#include "catalogue/KTCatalogueEntry.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <unordered_map>
#include <unordered_set>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTPlist.h"
#include "app/core/AppController.h"
#include "catalogue/KTBundleInfo.h"
#include "catalogue/KTMachO.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/OutlineViewController.h"

namespace fs = std::filesystem;

namespace {

/// The executable a bundle names, or the path itself when it is a plain file.
std::string executableOf(const std::string& path) {
    const std::string info = KTBundleInfo::infoPlistPath(path);
    if (info.empty()) {
        std::error_code ec;
        return fs::is_regular_file(path, ec) ? path : std::string();
    }
    KTPlistPtr plist = KTPlist::readFile(info);
    auto exe = plist ? KTPlist::stringForKey(plist.get(), "CFBundleExecutable") : std::nullopt;
    // A name with a slash would leave the bundle; plug-ins are not trusted.
    if (!exe || exe->empty() || exe->find('/') != std::string::npos || *exe == "..") return {};
    const fs::path folder = fs::path(info).parent_path();
    return (folder.filename() == "Contents" ? folder / "MacOS" / *exe : folder / *exe).string();
}

bool isSymlink(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

/// The plug-in itself or a group folder between it and its kind folder is a
/// link (links above the kind folder, such as a linked root, do not count).
bool isLinkBelowKindFolder(const std::string& path, const KTPluginItem& item) {
    if (isSymlink(path)) return true;
    std::string base = item.pluginBasePath();
    if (KTPluginLocations::isDisabledPath(path))
        base = KTPluginLocations::disabledPathForPath(base);
    if (base.empty()) return false;
    for (std::string p = KTPluginLocations::deletingLastPathComponent(path);
         p.size() > base.size() && p.compare(0, base.size(), base) == 0;
         p = KTPluginLocations::deletingLastPathComponent(p)) {
        if (isSymlink(p)) return true;
    }
    return false;
}

}  // namespace

std::string KTCatalogueEntry::architectureName(std::int32_t cpuType) {
    switch (static_cast<std::uint32_t>(cpuType)) {
        case 7:
            return "i386";
        case 0x01000007:
            return "x86_64";
        case 12:
            return "arm";
        case 0x0100000C:
            return "arm64";
        case 0x0200000C:
            return "arm64_32";
        case 18:
            return "ppc";
        case 0x01000012:
            return "ppc64";
        default:
            return "";
    }
}

std::vector<std::string> KTCatalogueEntry::architectureNames(const std::string& path) {
    std::vector<std::string> names;
    const std::string exe = executableOf(path);
    if (exe.empty()) return names;
    for (std::int32_t type : KTMachO::cpuTypesOfFile(exe)) {
        const std::string name = architectureName(type);
        if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(name);
    }
    return names;
}

std::string KTCatalogueEntry::bundleIdentifierAt(const std::string& path) {
    const std::string info = KTBundleInfo::infoPlistPath(path);
    if (info.empty()) return {};
    KTPlistPtr plist = KTPlist::readFile(info);
    if (!plist) return {};
    return KTPlist::stringForKey(plist.get(), "CFBundleIdentifier").value_or("");
}

KTCatalogueEntry KTCatalogueEntry::fromItem(const std::shared_ptr<KTPluginItem>& item,
                                            const std::string& path) {
    KTCatalogueEntry e;
    e.item = item;
    e.path = path;
    e.logicalPath = KTLocalPaths::logicalPath(path);
    e.kind = item->pluginType();
    e.kindName = item->pluginTypeName();
    e.scope = item->pluginAccess() == 0 ? 0 : 1;
    e.enabled = item->pluginEnabled() == 1;
    e.locked = item->isLocked();
    e.shortName = item->shortName();
    e.fileName = item->fileName();
    e.version = item->version();
    e.group = item->subdir().value_or("");
    e.architectures = architectureNames(path);
    e.bundleIdentifier = bundleIdentifierAt(path);
    std::error_code ec;
    const fs::path real = fs::canonical(path, ec);
    e.realPath = ec ? path : real.string();
    e.isLink = isLinkBelowKindFolder(path, *item);
    return e;
}

std::vector<KTCatalogueEntry> KTCatalogueEntry::collect(AppController& app) {
    OutlineViewController& outline = app.outlineViewController();
    KTPluginLocations::FolderCache folders;
    const std::vector<std::string> paths = app.listPlugins(true, false);
    std::vector<std::shared_ptr<KTPluginItem>> found(paths.size());
    std::unordered_set<const KTPluginItem*> seen;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        auto item = outline.pluginFromPath(paths[i]);
        if (item && seen.insert(item.get()).second) found[i] = item;
    }
    // An item whose computed place is not where the listing found it (a
    // folder the table and the item rule name differently) is matched by
    // its file name, so that it keeps its listed place and order.
    std::vector<std::shared_ptr<KTPluginItem>> rest;
    for (const auto& item : outline.allPlugins())
        if (item && !seen.count(item.get())) rest.push_back(item);
    // The rest (templates, which are folders) in the order the load listed
    // them, not in the tree's order: that depends on which worker of the load
    // came first, and "found first" must not change from one run to the next.
    {
        std::unordered_map<std::string, std::size_t> order;
        const std::vector<std::string> loaded = outline.loadedPaths();
        for (std::size_t i = 0; i < loaded.size(); ++i) order.emplace(loaded[i], i);
        std::vector<std::pair<std::size_t, std::shared_ptr<KTPluginItem>>> ranked;
        for (auto& item : rest) {
            auto it = order.find(item->actualPath());
            ranked.emplace_back(it == order.end() ? loaded.size() : it->second, std::move(item));
        }
        std::stable_sort(ranked.begin(), ranked.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        rest.clear();
        for (auto& r : ranked) rest.push_back(std::move(r.second));
    }
    for (std::size_t i = 0; i < paths.size(); ++i) {
        if (found[i]) continue;
        // Namesakes in several groups: the one whose group the path runs
        // through, else one without a group, else the first; never the
        // order the workers happened to hang them in.
        auto best = rest.end();
        int bestRank = 3;
        for (auto it = rest.begin(); it != rest.end() && bestRank > 0; ++it) {
            const std::string& name = (*it)->fileName();
            if (paths[i].size() <= name.size() || !paths[i].ends_with("/" + name) ||
                KTPluginLocations::isDisabledPath(paths[i]) != ((*it)->pluginEnabled() == 0))
                continue;
            const auto& subdir = (*it)->subdir();
            const int rank = !subdir || subdir->empty()                       ? 1
                             : paths[i].ends_with("/" + *subdir + "/" + name) ? 0
                                                                              : 2;
            if (rank < bestRank) best = it, bestRank = rank;
        }
        if (best != rest.end()) {
            found[i] = *best;
            rest.erase(best);
        }
    }
    std::vector<KTCatalogueEntry> entries;
    for (std::size_t i = 0; i < paths.size(); ++i)
        if (found[i]) entries.push_back(fromItem(found[i], paths[i]));
    for (const auto& item : rest) entries.push_back(fromItem(item, item->actualPath()));
    return entries;
}
