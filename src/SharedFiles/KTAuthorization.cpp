#include "SharedFiles/KTAuthorization.h"

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/linux/KTPrivilegedHelper.h"
#include "SharedFiles/linux/KTToolPaths.h"

namespace {

/// Refusals and argument errors go to the system console, not the log.
template <class... A>
void console(std::string_view format, const A&... args) {
    std::fprintf(stderr, "%s\n", KTFormat::str(format, args...).c_str());
    std::fflush(stderr);
}

/// The guard (exact match) on the path as given and as normalised, so that
/// "//usr" or "/./bin" is the folder it names.
bool isSystemFolder(const std::string& path) {
    if (KTLocalPaths::isPathSystemDirectory(path, true)) return true;
    const std::optional<std::string> normal = KTLocalPaths::normalisedPath(path);
    return normal && *normal != path && KTLocalPaths::isPathSystemDirectory(*normal, true);
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string lastComponent(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

/// The extension as the desktop sees it: none for "Plug" or ".hidden".
std::string extensionOf(const std::string& name) {
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return {};
    return name.substr(dot + 1);
}

std::string withoutExtension(const std::string& path) {
    std::string name = lastComponent(path);
    std::string ext = extensionOf(name);
    if (ext.empty()) return path;
    return path.substr(0, path.size() - ext.size() - 1);
}

std::string localTime(const char* format) {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, format, &tm);
    return buf;
}

std::vector<std::string> folderEntries(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* d = opendir(folder.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        closedir(d);
    }
    return names;
}

struct Owner {
    uid_t uid;
    gid_t gid;
};

/// The user who ran sudo, when this root process was started through it.
/// Copied out: the account lookups share one static record.
std::optional<Owner> sudoUser() {
    const char* name = std::getenv("SUDO_USER");
    if (!name || !*name || getuid() != 0) return std::nullopt;
    const passwd* pw = getpwnam(name);
    if (!pw) return std::nullopt;
    return Owner{pw->pw_uid, pw->pw_gid};
}

/// Percent-encodes a path for a trash information file.
std::string encodePath(const std::string& path) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

/// Lets the desktop's Trash list the item and put it back. A missing info
/// file costs only that, so failures are ignored.
void writeTrashInfo(const std::string& target, const std::string& original,
                    const std::optional<Owner>& owner) {
    namespace fs = std::filesystem;
    fs::path files = fs::path(target).parent_path();
    fs::path info = files.parent_path() / "info";
    std::error_code ec;
    fs::create_directories(info, ec);
    std::string infoPath = (info / (lastComponent(target) + ".trashinfo")).string();
    {
        std::ofstream out(infoPath, std::ios::trunc);
        if (!out) return;
        out << "[Trash Info]\nPath=" << encodePath(original)
            << "\nDeletionDate=" << localTime("%Y-%m-%dT%H:%M:%S") << "\n";
    }
    if (owner) {
        int ignored = lchown(info.c_str(), owner->uid, owner->gid);
        ignored = lchown(infoPath.c_str(), owner->uid, owner->gid);
        (void)ignored;
    }
}

}  // namespace

KTAuthorization* KTAuthorization::sharedController(bool withGUI) {
    static std::mutex classLock;
    // Never destroyed: operations may run on detached threads until exit.
    static KTAuthorization* shared = nullptr;
    std::lock_guard<std::mutex> guard(classLock);
    if (!shared) shared = new KTAuthorization(withGUI);
    return shared;
}

KTAuthorization::KTAuthorization(bool withGUI) : hasGUI_(withGUI) {
    // A plain root process has no user of its own; under sudo the user is
    // the one who ran it.
    if (!runningAsRoot() || sudoUser()) userDirectory_ = KTLocalPaths::userDirectory();
}

KTAuthorization::~KTAuthorization() {
    authEnd();
}

bool KTAuthorization::runningAsRoot() {
    return getuid() == 0 || geteuid() == 0;
}

bool KTAuthorization::hasGUI() const {
    std::lock_guard<std::mutex> guard(lock_);
    return hasGUI_;
}

void KTAuthorization::setHasGUI(bool hasGUI) {
    std::lock_guard<std::mutex> guard(lock_);
    hasGUI_ = hasGUI;
}

std::shared_ptr<KTPrivilegedHelper> KTAuthorization::authRef() const {
    std::lock_guard<std::mutex> guard(lock_);
    return authRef_;
}

void KTAuthorization::setAuthRef(std::shared_ptr<KTPrivilegedHelper> ref) {
    std::lock_guard<std::mutex> guard(lock_);
    authRef_ = std::move(ref);
}

bool KTAuthorization::isAuthorized() const {
    if (runningAsRoot()) return true;
    auto ref = authRef();
    return ref && ref->isAlive();
}

bool KTAuthorization::canAuthorize() const {
    return hasGUI() || runningAsRoot();
}

bool KTAuthorization::authStart() {
    // One prompt at a time: a second caller waits and then finds the right held.
    std::lock_guard<std::mutex> starting(startLock_);
    if (isAuthorized()) return true;
    if (!hasGUI()) {
        console("Unable to authorize");
        return false;
    }
    std::vector<std::string> command = KTPrivilegedHelper::elevationCommand();
    command.push_back(KTPrivilegedHelper::helperPath());
    auto helper = KTPrivilegedHelper::start(command);
    setAuthRef(helper);
    return helper != nullptr;
}

bool KTAuthorization::authStartWithUser(const std::string& user, const std::string& password) {
    if (runningAsRoot()) return true;
    if (user.empty() || password.empty()) return false;
    std::lock_guard<std::mutex> starting(startLock_);
    if (isAuthorized()) return true;
    std::shared_ptr<KTPrivilegedHelper> helper;
    // sudo asks for the password of the user who runs it, nobody else's.
    if (user == KTLocalPaths::username()) {
        helper = KTPrivilegedHelper::start(
            {"sudo", "-S", "-p", "", "--", KTPrivilegedHelper::helperPath()}, &password);
    }
    setAuthRef(helper);
    if (!helper) {
        console("Authorization failed. Invalid username or password");
        KTLog::appendLog("Authorization failed. Invalid username or password");
        return false;
    }
    return true;
}

void KTAuthorization::authEnd() {
    if (runningAsRoot()) return;
    setAuthRef(nullptr);
}

std::int32_t KTAuthorization::authExecTask(const std::string& tool,
                                           const std::vector<std::string>& arguments, bool async) {
    std::optional<std::string> real = KTToolPaths::resolve(tool);
    if (!real || !exists(*real)) {
        console("Unable to execute task: path %@ doesn't exist", tool);
        return -2;
    }
    if (runningAsRoot()) {
        // Without waiting when async, as the callers' pause expects.
        if (async) {
            KTTaskEx::runTaskAndReturn(tool, arguments);
        } else {
            KTTaskEx::runTask(tool, arguments);
        }
        return 0;
    }
    if (!isAuthorized()) authStart();
    auto helper = authRef();
    if (!helper || !helper->isAlive()) return -1;
    const std::int32_t status = helper->run(tool, arguments, !async);
    if (status == kStatusRefused || status == kStatusFailed) {
        // A failed privileged step names its tool and paths in the log.
        std::string line = tool;
        for (const auto& a : arguments) line += " " + a;
        const std::string text = KTFormat::str(
            status == kStatusRefused ? "Privileged step refused: %@" : "Privileged step failed: %@",
            line);
        console("%@", text);
        KTLog::appendLog(text);
    }
    return status;
}

bool KTAuthorization::authMoveFile(const std::string& oldPath, const std::string& newPath) {
    if (oldPath.empty()) {
        console("Error in authMoveFile: old path is null");
        return false;
    }
    if (newPath.empty()) {
        console("Error in authMoveFile: new path is null");
        return false;
    }
    if (isSystemFolder(oldPath)) {
        console("Unable to move path %@ because it is a system directory.", oldPath);
        return false;
    }
    if (!exists(oldPath)) return false;
    // -T: a folder or a link already at the new path is never moved into.
    if (runningAsRoot()) {
        KTTaskEx::runTaskAndReturn("/bin/mv", {"-f", "-T", oldPath, newPath});
        return true;
    }
    return authExecTask("/bin/mv", {"-f", "-T", oldPath, newPath}) == 0;
}

bool KTAuthorization::authCopyFile(const std::string& oldPath, const std::string& newPath) {
    if (oldPath.empty()) {
        console("Error in authCopyFile: old path is null");
        return false;
    }
    if (newPath.empty()) {
        console("Error in authCopyFile: new path is null");
        return false;
    }
    if (!exists(oldPath)) return false;
    if (runningAsRoot()) {
        KTTaskEx::runTaskAndReturn("/bin/cp", {"-f", "-p", "-R", "-T", oldPath, newPath});
        return true;
    }
    return authExecTask("/bin/cp", {"-f", "-p", "-R", "-T", oldPath, newPath}) == 0;
}

bool KTAuthorization::authCreateDir(const std::string& path) {
    if (runningAsRoot()) {
        KTTaskEx::runTaskAndReturn("/bin/mkdir", {"-p", path});
        return true;
    }
    if (authExecTask("/bin/mkdir", {"-p", path}) != 0) return false;
    // Most likely in place before the caller uses it.
    usleep(500);
    return true;
}

bool KTAuthorization::authRemoveFile(const std::string& path) {
    if (isSystemFolder(path)) {
        console("Unable to delete path %@ because it is a system directory.", path);
        return false;
    }
    return authExecTask("/bin/rm", {"-Rdf", path}) == 0;
}

bool KTAuthorization::authTrashFile(const std::string& path, bool deleteOnRootAccount) {
    if (isSystemFolder(path)) {
        console("Unable to trash path %@ because it is a system directory.", path);
        return false;
    }
    const std::string name = lastComponent(path);
    const bool root = runningAsRoot();
    const std::optional<Owner> owner = root ? sudoUser() : std::nullopt;
    std::string trash = KTLocalPaths::trashDirectory();
    if (root && !userDirectory_.empty()) trash = userDirectory_ + "/.local/share/Trash/files";

    // The Trash may not exist yet on a fresh account.
    std::error_code ec;
    if (!std::filesystem::exists(trash, ec)) {
        std::filesystem::create_directories(trash, ec);
        if (owner) {
            for (std::string p = trash; p.size() > userDirectory_.size();
                 p = p.substr(0, p.rfind('/'))) {
                int ignored = lchown(p.c_str(), owner->uid, owner->gid);
                (void)ignored;
            }
        }
    }

    std::string target = trash + "/" + name;
    if (exists(target)) {
        // A bare "." ends the name of an item without extension; kept so
        // that names stay the same whatever the item.
        target = withoutExtension(target) +
                 KTFormat::str("_%@.%@", localTime("%Y%m%d%H%M%S"), extensionOf(name));
    }

    if (deleteOnRootAccount && userDirectory_.empty() && root) return authRemoveFile(target);

    if (owner) {
        // Under sudo the item goes into the user's Trash and back to the
        // user, so the move has to be over before the owner changes.
        if (!exists(path)) return false;
        if (!KTTaskEx::runTask("/bin/mv", {"-f", path, target}) || !exists(target)) return false;
        KTTaskEx::runTask(
            "/usr/sbin/chown",
            {"-R", std::to_string(owner->uid) + ":" + std::to_string(owner->gid), target});
        writeTrashInfo(target, path, owner);
        return true;
    }
    if (!authMoveFile(path, target)) return false;
    writeTrashInfo(target, path, std::nullopt);
    return true;
}

bool KTAuthorization::authTrashFolderContents(const std::string& folder, bool deleteOnRootAccount) {
    if (isSystemFolder(folder)) {
        console("Unable to trash folder contents of path %@ because it is a system directory.",
                folder);
        return false;
    }
    bool all = true;
    for (const std::string& entry : folderEntries(folder)) {
        const std::string path = folder + "/" + entry;
        bool ok;
        if (!runningAsRoot() || !deleteOnRootAccount || !userDirectory_.empty()) {
            ok = authTrashFile(path);
        } else {
            ok = authExecTask("/bin/rm", {"-R", "-f", path}) == 0;
        }
        all = all && ok;
    }
    return all;
}

bool KTAuthorization::authMoveFolderContents(const std::string& from, const std::string& to) {
    if (isSystemFolder(from)) {
        console("Unable to move contents of path %@ because it is a system directory.", from);
        return false;
    }
    bool all = true;
    for (const std::string& entry : folderEntries(from)) {
        all = authMoveFile(from + "/" + entry, to + "/" + entry) && all;
    }
    return all;
}
