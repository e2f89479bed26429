#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// Plug-in kind codes (`pluginType`). They are stored in archives and printed
/// by the command line: never renumber them. Any other value is "Unknown".
struct KTPluginType {
    static constexpr std::int64_t FxPlug = 0;
    static constexpr std::int64_t FxScript = 1;
    static constexpr std::int64_t AudioUnit = 2;
    static constexpr std::int64_t AvidAVX = 3;
    static constexpr std::int64_t Adobe = 4;
    static constexpr std::int64_t AvidAVX2 = 5;
    static constexpr std::int64_t AvidRTAS = 6;
    static constexpr std::int64_t VST = 7;
    static constexpr std::int64_t MotionTemplate = 8;
    static constexpr std::int64_t OpenFX = 9;
    static constexpr std::int64_t QuartzComposer = 10;
    static constexpr std::int64_t VST2 = 11;
    static constexpr std::int64_t VST3 = 12;
    static constexpr std::int64_t Unknown = -1;
    /// Every known code, in code order.
    static constexpr std::int64_t all[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
};

/// Scope codes (`pluginAccess`): 0 all users, anything else (written as 1)
/// the current user. Groups also report -1 for mixed or empty.
struct KTPluginAccess {
    static constexpr std::int64_t AllUsers = 0;
    static constexpr std::int64_t CurrentUser = 1;
    static constexpr std::int64_t Mixed = -1;
};

/// The scanned folders by key ("localFxPlug" -> ".../Library/Plug-Ins/FxPlug/"),
/// in one fixed order. Every value ends with "/".
using KTPluginFolderDict = std::vector<std::pair<std::string, std::string>>;

/// Where each kind of plug-in lives, where disabled plug-ins go, and the
/// folder table the scan walks.
///
/// Every path returned is a real path on this machine: machine-wide folders
/// lie under the system root (AMBREL_ROOT), the user's under HOME. The
/// disabled folder mirrors a plug-in's path as a host would see it (the
/// logical path, without the system root), so that with the root at "/" the
/// layout is exactly that of a Mac.
class KTPluginLocations {
  public:
    /// "FxPlug", "Audio Unit", ...; "Unknown" for any other code.
    static std::string pluginTypeName(std::int64_t pluginType);

    /// The one folder of disabled plug-ins, for all kinds and both scopes:
    /// <local Application Support>/Quellbrook/Tallowby/Ambrel Disabled Plugins.
    static std::string disabledPath();

    /// The kind folder of a kind in a scope (`pluginBasePath`); "" for an
    /// unknown kind. Reads the disk for the Adobe folder and asks the shared
    /// workspace (from its kept list) for Avid Symphony.
    static std::string pluginBasePath(std::int64_t pluginType, std::int64_t pluginAccess);
    /// The same, worked out afresh whatever a FolderCache holds.
    static std::string findBasePath(std::int64_t pluginType, std::int64_t pluginAccess);

    /// The disabled folder when `pluginEnabled` is 0, otherwise "".
    static std::string pluginTypeDir(long long pluginEnabled);

    /// Kind folder, then the group sub-folder (when there is one), then the file name.
    static std::string pluginRelativePath(std::int64_t pluginType, std::int64_t pluginAccess,
                                          const std::optional<std::string>& subdir,
                                          const std::string& fileName);

    /// Where the plug-in lies: its relative path, below the disabled folder
    /// (mirrored) when `pluginEnabled` is 0.
    static std::string pluginPath(std::int64_t pluginType, std::int64_t pluginAccess,
                                  long long pluginEnabled, const std::optional<std::string>& subdir,
                                  const std::string& fileName);

    /// The place below the disabled folder that mirrors a real path (a
    /// plug-in's or a kind folder's).
    static std::string disabledPathForPath(const std::string& realPath);
    /// The inverse: the real enabled path mirrored by a path below the
    /// disabled folder; nothing when the path is not below it (by more than
    /// one character, so the folder itself and "folder/" are not).
    static std::optional<std::string> enabledPathForDisabledPath(const std::string& path);
    /// True when the path lies below the disabled folder.
    static bool isDisabledPath(const std::string& path);

    /// The Adobe common folder as a host sees it, e.g.
    /// "/Library/Application Support/Adobe/Common/Plug-ins/8.0/MediaCore",
    /// chosen afresh from the machine-wide folders and installed Premiere
    /// versions. `trailingSlash` gives the folder-table form.
    static std::string adobeFolder(bool trailingSlash = false);
    /// The Adobe folder read from the disk, without a trailing slash.
    static std::string findAdobeFolder();

    /// While one is alive the Adobe folder, the folder table, the kind
    /// folders and the disabled folder are worked out once and then remembered: a catalogue load or
    /// a batch of moves forms thousands of paths, and the folders cannot change under it in a way
    /// the batch could follow anyway.
    class FolderCache {
      public:
        FolderCache();
        ~FolderCache();
        FolderCache(const FolderCache&) = delete;
        FolderCache& operator=(const FolderCache&) = delete;
    };

    /// The folder table as the disk has it now, whatever the cache holds.
    static KTPluginFolderDict buildPluginFolderDict();

    /// The folder table, built afresh (the workspace's application list is
    /// refreshed first, once per build).
    static KTPluginFolderDict pluginFolderDict();
    /// The value of a key of the table, or nothing.
    static std::optional<std::string> folderForKey(const KTPluginFolderDict& dict,
                                                   const std::string& key);
    /// Every key of the table, in the table's order.
    static std::vector<std::string> folderKeys();

    /// The first existing value + sub-folder + file name over the table, in
    /// its order (`pathForPlugin:withSubdir:`); nothing when none exists.
    static std::optional<std::string> pathForPlugin(const std::string& fileName,
                                                    const std::optional<std::string>& subdir);
    static std::optional<std::string> pathForPlugin(const KTPluginFolderDict& dict,
                                                    const std::string& fileName,
                                                    const std::optional<std::string>& subdir);

    /// File name extensions that count as plug-ins (lower case, no dot).
    static const std::vector<std::string>& pluginExtensions();

    /// True when the whole string reads as a number ("8.0", "5", "-2"; not "CS5", not "").
    static bool isNumeric(const std::string& text);

    /// Appends a path component the way the platform does: one "/" between,
    /// a leading "/" of `component` does not make it absolute, "" + x is x.
    static std::string appendPathComponent(const std::string& path, const std::string& component);
    /// The path less its last component ("/a/b/c" -> "/a/b", "/a" -> "/").
    static std::string deletingLastPathComponent(const std::string& path);
    /// Whether anything (file, folder, link target) exists at the path.
    static bool fileExists(const std::string& path);
};
