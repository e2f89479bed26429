#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class AppController;
class KTPluginItem;

/// One plug-in of the catalogue as the exports and the duplicate finder
/// see it: the item's fields plus what only the bundle on disk tells (its
/// identifier, the architectures by their usual names, whether the path is
/// a link and where it leads).
struct KTCatalogueEntry {
    std::shared_ptr<KTPluginItem> item;
    std::string path;         ///< where it lies on this machine
    std::string logicalPath;  ///< as a host on this machine's root sees it
    std::int64_t kind = -1;
    std::string kindName;
    std::int64_t scope = 0;  ///< 0 all users, 1 current user
    bool enabled = false;
    bool locked = false;
    std::string shortName;
    std::string fileName;
    std::string version;
    std::vector<std::string> architectures;  ///< "x86_64", "arm64", "i386", "ppc", ...
    std::string group;                       ///< the group sub-folder; "" at top level
    std::string bundleIdentifier;            ///< "" for a plain file or a bundle without one
    std::string realPath;                    ///< every link resolved
    bool isLink = false;                     ///< the path, or a folder above it, is a link
    bool shadowed = false;                   ///< set by the duplicate finder

    static KTCatalogueEntry fromItem(const std::shared_ptr<KTPluginItem>& item,
                                     const std::string& path);
    /// Every plug-in of the loaded catalogue in listing order (the order of
    /// `-allplugins`), then any item the listing does not reach.
    static std::vector<KTCatalogueEntry> collect(AppController& app);

    /// "x86_64", "arm64", ... for a processor type code; "" for one we do not name.
    static std::string architectureName(std::int32_t cpuType);
    /// The architectures of the bundle's executable, or of the file itself.
    static std::vector<std::string> architectureNames(const std::string& path);
    /// The bundle's "CFBundleIdentifier"; "" when there is none.
    static std::string bundleIdentifierAt(const std::string& path);
};
