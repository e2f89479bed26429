#pragma once

#include <optional>
#include <string>

/// Where the standard folders of the user and of the machine lie, temporary
/// names, and the guard that keeps every operation away from system folders.
///
/// On Linux the machine-wide ("local") folders live under the system root
/// named by AMBREL_ROOT (default "/"), the user's under HOME, laid out as on
/// macOS: ROOT/Library, ROOT/Applications, HOME/Library/Preferences, ...
/// A lookup that has no folder on this platform answers "" (nothing).
class KTLocalPaths {
  public:
    enum class Directory {
        Applications,
        AdminApplications,
        Documents,
        Library,
        Caches,
        ApplicationSupport,
        Movies,
        Desktop,
        Documentation,
    };

    /// The standard-folder lookup every folder operation goes through;
    /// `userDomain` false means the machine-wide local domain.
    static std::string pathForDirectory(Directory kind, bool userDomain);

    static std::string applicationDirectory(bool userDomain);
    static std::string adminApplicationDirectory(bool userDomain);
    static std::string documentDirectory(bool userDomain);
    static std::string libraryDirectory(bool userDomain);
    static std::string prefsDirectory(bool userDomain);
    static std::string cacheDirectory(bool userDomain);
    static std::string appSupportDirectory(bool userDomain);
    static std::string logDirectory(bool userDomain);
    static std::string movieDirectory();
    static std::string desktopDirectory();
    static std::string systemLibraryDirectory();
    static std::string localDocumentationDirectory();
    static std::string userDirectory();
    static std::string username();
    static std::string trashDirectory();
    static std::string tempDirectory();
    static std::string darwinCacheDirectory();

    /// The system root without a trailing slash: "" when AMBREL_ROOT is "/" or unset.
    static std::string systemRoot();
    /// The system root followed by `absolute` ("/Library" -> ROOT/Library).
    static std::string rootedPath(const std::string& absolute);

    /// A real path as the hosts would see it on a machine whose root is the
    /// system root: ROOT/Library/X reads "/Library/X"; paths outside the root
    /// (a home elsewhere) stay as they are. The disabled folder mirrors these.
    static std::string logicalPath(const std::string& realPath);
    /// The inverse of logicalPath: a path under the user's home stays, any
    /// other is put under the system root.
    static std::string realPath(const std::string& logicalPath);

    /// The superuser's cut of a user-domain search result ("/var/root/Library"
    /// -> HOME/Library; 16 characters off "/private/var/root", so its "t"
    /// stays). The Linux lookups start from `userDirectory`, which already
    /// names the home of the person behind sudo, so they need no cut; this is
    /// for paths that come from a macOS machine.
    static std::string rootUserAdjusted(const std::string& searchResult);

    static std::string uuid();
    static std::string randomString(int count);
    static std::string tempFile();
    static std::optional<std::string> ensureTrailingSlash(const std::optional<std::string>& path);
    static std::optional<std::string> stripTrailingSlash(const std::optional<std::string>& path);

    static bool isPathSystemDirectory(const std::string& path, bool exactMatch = false);
    /// The folders of this machine that no privileged step may touch, whatever
    /// the system root: the top-level folders themselves ("/", "/home", "/tmp",
    /// "/opt", ...) and everything beneath the system's own trees ("/etc",
    /// "/usr", "/root", "/var", "/proc", ...). Compared after `normalisedPath`,
    /// so "//etc", "/./etc/" and "/usr/../etc" are caught; a path that cannot
    /// be normalised counts as a system folder.
    static bool isRealSystemFolder(const std::string& path);
    /// An absolute path with doubled slashes, "." components and a trailing
    /// slash removed; nothing for a relative path, a NUL byte or any ".."
    /// (which cannot be resolved without looking at links).
    static std::optional<std::string> normalisedPath(const std::string& path);
    static bool isPathOnTimeMachineVolume(const std::string& path);
};
