#include "SharedFiles/KTLocalPaths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string_view>
#include <vector>

namespace {

std::string envOr(const char* name, const std::string& fallback) {
    const char* v = std::getenv(name);
    return (v && *v) ? std::string(v) : fallback;
}

bool startsWith(const std::string& s, const std::string& prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

/// Read once: the id never changes under this process, and the standard
/// folders are asked for several times per plug-in of a batch.
uid_t processUid() {
    static const uid_t id = ::getuid();
    return id;
}

std::string homeOfUser(const std::string& name) {
    if (struct passwd* pw = getpwnam(name.c_str()); pw && pw->pw_dir) return pw->pw_dir;
    return {};
}

}  // namespace

std::string KTLocalPaths::systemRoot() {
    std::string root = envOr("AMBREL_ROOT", "/");
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    return root == "/" ? std::string() : root;
}

std::string KTLocalPaths::rootedPath(const std::string& absolute) {
    return systemRoot() + absolute;
}

std::string KTLocalPaths::logicalPath(const std::string& real) {
    const std::string root = systemRoot();
    if (root.empty()) return real;
    if (real == root) return "/";
    if (startsWith(real, root + "/")) return real.substr(root.size());
    return real;
}

std::string KTLocalPaths::realPath(const std::string& logical) {
    const std::string root = systemRoot();
    if (root.empty()) return logical;
    const std::string home = userDirectory();
    if (!home.empty() && !startsWith(home, root + "/") &&
        (logical == home || startsWith(logical, home + "/")))
        return logical;
    return logical == "/" ? root : root + logical;
}

std::string KTLocalPaths::userDirectory() {
    std::string home = envOr("HOME", "");
    // Under sudo HOME is root's; the folders that matter are those of the
    // person who ran sudo.
    if (processUid() == 0) {
        const char* sudoUser = std::getenv("SUDO_USER");
        if (sudoUser && *sudoUser && (home.empty() || home == homeOfUser("root"))) {
            std::string h = homeOfUser(sudoUser);
            if (!h.empty()) return h;
        }
    }
    if (home.empty()) {
        if (struct passwd* pw = getpwuid(processUid()); pw && pw->pw_dir) home = pw->pw_dir;
    }
    while (home.size() > 1 && home.back() == '/') home.pop_back();
    return home;
}

std::string KTLocalPaths::username() {
    if (processUid() == 0) {
        if (const char* s = std::getenv("SUDO_USER"); s && *s) return s;
    }
    if (struct passwd* pw = getpwuid(processUid()); pw && pw->pw_name) return pw->pw_name;
    return envOr("USER", "");
}

std::string KTLocalPaths::rootUserAdjusted(const std::string& result) {
    std::string rest = result;
    if (startsWith(rest, "/var/root")) rest = rest.substr(9);
    // 16, not 17: the "t" of "root" stays at the head of what remains.
    if (startsWith(rest, "/private/var/root")) rest = rest.substr(16);
    std::string home = userDirectory();
    if (rest.empty()) return home;
    if (rest.front() != '/') rest = "/" + rest;
    return home == "/" ? rest : home + rest;
}

std::string KTLocalPaths::pathForDirectory(Directory kind, bool userDomain) {
    std::string base = userDomain ? userDirectory() : systemRoot();
    std::string suffix;
    switch (kind) {
        case Directory::Applications:
            suffix = "/Applications";
            break;
        case Directory::AdminApplications:
            suffix = "/Applications/Utilities";
            break;
        case Directory::Documents:
            suffix = "/Documents";
            break;
        case Directory::Library:
            suffix = "/Library";
            break;
        case Directory::Caches:
            suffix = "/Library/Caches";
            break;
        case Directory::ApplicationSupport:
            suffix = "/Library/Application Support";
            break;
        case Directory::Movies:
            suffix = "/Movies";
            break;
        case Directory::Desktop:
            suffix = "/Desktop";
            break;
        case Directory::Documentation:
            suffix = "/Library/Documentation";
            break;
    }
    return base + suffix;
}

std::string KTLocalPaths::applicationDirectory(bool u) {
    return pathForDirectory(Directory::Applications, u);
}
std::string KTLocalPaths::adminApplicationDirectory(bool u) {
    return pathForDirectory(Directory::AdminApplications, u);
}
std::string KTLocalPaths::documentDirectory(bool u) {
    return pathForDirectory(Directory::Documents, u);
}
std::string KTLocalPaths::libraryDirectory(bool u) {
    return pathForDirectory(Directory::Library, u);
}
std::string KTLocalPaths::prefsDirectory(bool u) {
    return libraryDirectory(u) + "/Preferences";
}
std::string KTLocalPaths::cacheDirectory(bool u) {
    return pathForDirectory(Directory::Caches, u);
}
std::string KTLocalPaths::appSupportDirectory(bool u) {
    return pathForDirectory(Directory::ApplicationSupport, u);
}
std::string KTLocalPaths::logDirectory(bool u) {
    return libraryDirectory(u) + "/Logs";
}
std::string KTLocalPaths::movieDirectory() {
    return pathForDirectory(Directory::Movies, true);
}
std::string KTLocalPaths::desktopDirectory() {
    return pathForDirectory(Directory::Desktop, true);
}
std::string KTLocalPaths::systemLibraryDirectory() {
    return systemRoot() + "/System/Library";
}
std::string KTLocalPaths::localDocumentationDirectory() {
    return pathForDirectory(Directory::Documentation, false);
}

std::string KTLocalPaths::trashDirectory() {
    // The freedesktop.org home trash, which desktop trash tools list and restore from.
    std::string data = envOr("XDG_DATA_HOME", userDirectory() + "/.local/share");
    return data + "/Trash/files";
}

std::string KTLocalPaths::tempDirectory() {
    std::string t = envOr("TMPDIR", "/tmp");
    if (t.empty() || t.back() != '/') t += '/';
    return t;
}

std::string KTLocalPaths::darwinCacheDirectory() {
    return {};
}

std::string KTLocalPaths::uuid() {
    static thread_local std::mt19937_64 gen{std::random_device{}()};
    std::uniform_int_distribution<unsigned> nibble(0, 15);
    const char* hex = "0123456789ABCDEF";
    std::string s;
    for (int i = 0; i < 36; ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            s += '-';
        } else if (i == 14) {
            s += '4';
        } else if (i == 19) {
            s += hex[8 + (nibble(gen) & 3)];
        } else {
            s += hex[nibble(gen)];
        }
    }
    return s;
}

std::string KTLocalPaths::randomString(int count) {
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::srand(static_cast<unsigned>(std::clock() * std::time(nullptr)));
    std::string s;
    for (int i = 0; i < count; ++i) s += alphabet[std::rand() % 36];
    return s;
}

std::string KTLocalPaths::tempFile() {
    return tempDirectory() + uuid() + randomString(8);
}

std::optional<std::string> KTLocalPaths::ensureTrailingSlash(const std::optional<std::string>& p) {
    if (!p) return std::nullopt;
    if (p->empty() || p->back() == '/') return p;
    return *p + "/";
}

std::optional<std::string> KTLocalPaths::stripTrailingSlash(const std::optional<std::string>& p) {
    if (!p) return std::nullopt;
    if (p->size() < 2 || p->back() != '/') return p;
    return p->substr(0, p->size() - 1);
}

namespace {

/// "//etc", "/./etc", "/usr/../etc" and "/etc/" all read "/etc".
std::string normalised(const std::string& path) {
    std::string n = std::filesystem::path(path).lexically_normal().string();
    while (n.size() > 1 && n.back() == '/') n.pop_back();
    return n.empty() ? path : n;
}

bool isInside(const std::string& path, const std::string& folder) {
    if (folder == "/") return !path.empty() && path.front() == '/';
    return path == folder ||
           (path.size() > folder.size() && startsWith(path, folder) && path[folder.size()] == '/');
}

/// This machine's own system folders: the whole tree of each is protected
/// (but for /usr/local), or only the folder itself.
const char* const kLinuxTrees[] = {"/usr", "/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32",
                                   "/etc", "/var", "/boot", "/dev", "/proc",  "/sys",   "/run"};
const char* const kLinuxFolders[] = {"/home", "/root", "/opt", "/srv", "/mnt", "/media", "/tmp"};

bool isLinuxSystemFolder(const std::string& real, bool exactMatch) {
    if (real == "/") return true;
    for (const char* f : kLinuxFolders) {
        if (real == f) return true;
    }
    for (const char* t : kLinuxTrees) {
        if (real == t) return true;
        if (!exactMatch && isInside(real, t) && !isInside(real, "/usr/local")) return true;
    }
    return false;
}

/// The standard folders the guard compares with, for the variables they
/// were made from. The clean-up asks the guard for every folder it empties,
/// thousands of times in a batch, and the folders change only when the
/// variables do (tests change the system root and home between cases):
/// reading a variable costs no system call, and they are the key.
struct GuardFolders {
    std::string root, home, sudoUser;
    bool made = false;
    std::string normalisedRoot;
    std::vector<std::string> exact;
};

const GuardFolders& guardFolders() {
    thread_local GuardFolders cached;
    auto value = [](const char* name) {
        const char* v = std::getenv(name);
        return v ? std::string(v) : std::string();
    };
    std::string root = value("AMBREL_ROOT"), home = value("HOME"), sudo = value("SUDO_USER");
    if (cached.made && cached.root == root && cached.home == home && cached.sudoUser == sudo)
        return cached;
    GuardFolders g;
    g.root = std::move(root);
    g.home = std::move(home);
    g.sudoUser = std::move(sudo);
    g.made = true;
    const std::string system = KTLocalPaths::systemRoot();
    g.normalisedRoot = system.empty() ? std::string() : normalised(system);
    for (bool user : {true, false}) {
        g.exact.push_back(KTLocalPaths::applicationDirectory(user));
        g.exact.push_back(KTLocalPaths::adminApplicationDirectory(user));
        g.exact.push_back(KTLocalPaths::documentDirectory(user));
        g.exact.push_back(KTLocalPaths::libraryDirectory(user));
        g.exact.push_back(KTLocalPaths::prefsDirectory(user));
        g.exact.push_back(KTLocalPaths::cacheDirectory(user));
        g.exact.push_back(KTLocalPaths::appSupportDirectory(user));
    }
    g.exact.push_back(KTLocalPaths::desktopDirectory());
    g.exact.push_back(KTLocalPaths::userDirectory());
    g.exact.push_back(KTLocalPaths::systemLibraryDirectory());
    g.exact.push_back(KTLocalPaths::localDocumentationDirectory());
    cached = std::move(g);
    return cached;
}

const std::string& normalisedRoot() {
    return guardFolders().normalisedRoot;
}

const std::vector<std::string>& exactFolders() {
    return guardFolders().exact;
}

}  // namespace

bool KTLocalPaths::isPathSystemDirectory(const std::string& input, bool exactMatch) {
    if (input == "/") return true;
    if (input.size() < 3) return false;

    // The real system folders of this machine are protected in every
    // spelling, except inside a system root placed elsewhere (under /var/tmp,
    // say), whose folders are judged below as the hosts would see them.
    const std::string& root = normalisedRoot();
    const std::string real = normalised(input);
    const bool inRoot = !root.empty() && isInside(real, root);
    if (!inRoot && isLinuxSystemFolder(real, exactMatch)) return true;

    std::string path = input;
    // The slash and the character before it: "/System/" compares as "/Syste".
    if (path.back() == '/') path.resize(path.size() - 2);
    // Inside the system root, the path the hosts would see: ROOT/usr reads "/usr".
    const std::string logical = inRoot ? logicalPath(path) : path;
    if (inRoot && logical == "/") return true;

    for (const auto& e : exactFolders()) {
        if (!e.empty() && path == e) return true;
    }
    for (const char* lit : {"/Users/Shared", "/usr", "/var", "/bin", "/sbin", "/System"}) {
        if (logical == lit) return true;
    }
    if (exactMatch) return false;

    if (startsWith(logical, "/usr/") && !startsWith(logical, "/usr/local/")) return true;
    for (const char* prefix : {"/var/", "/bin/", "/sbin/", "/private/var/", "/System/"}) {
        if (startsWith(logical, prefix)) return true;
    }
    return false;
}

std::optional<std::string> KTLocalPaths::normalisedPath(const std::string& path) {
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos)
        return std::nullopt;
    std::string out;
    std::size_t start = 0;
    while (start < path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        const std::string_view part(path.data() + start, end - start);
        if (part == "..") return std::nullopt;
        if (!part.empty() && part != ".") {
            out += '/';
            out += part;
        }
        start = end + 1;
    }
    return out.empty() ? std::string("/") : out;
}

bool KTLocalPaths::isRealSystemFolder(const std::string& input) {
    const std::optional<std::string> path = normalisedPath(input);
    if (!path || *path == "/") return true;
    // Whole trees of the system and of the superuser.
    static const char* const trees[] = {
        "/etc", "/usr",  "/bin", "/sbin", "/lib", "/lib32", "/lib64",   "/libx32", "/boot",
        "/dev", "/proc", "/sys", "/run",  "/var", "/root",  "/private", "/System", "/snap"};
    for (const char* t : trees) {
        if (*path == t || startsWith(*path, std::string(t) + "/")) return true;
    }
    // Shared top-level folders: protected themselves, usable beneath.
    static const char* const tops[] = {"/home", "/opt",   "/srv",   "/tmp",
                                       "/mnt",  "/media", "/Users", "/Volumes"};
    for (const char* t : tops) {
        if (*path == t) return true;
    }
    return false;
}

bool KTLocalPaths::isPathOnTimeMachineVolume(const std::string& path) {
    if (!startsWith(path, "/Volumes/")) return false;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (path.compare(start, end - start, "Backups.backupdb") == 0 &&
            end - start == std::string("Backups.backupdb").size())
            return true;
        start = end + 1;
    }
    return false;
}
