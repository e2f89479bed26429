#include "SharedFiles/linux/KTFreedesktopTrash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>

#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTTransfer.h"
#include "SharedFiles/KTTransferPlan.h"

namespace fs = std::filesystem;

namespace {

/// Whose Trash it is: the user who ran sudo when root under sudo, else us.
struct TrashOwner {
    uid_t uid = ::getuid();
    gid_t gid = ::getgid();
    bool give = false;  // created entries must be handed over
};

TrashOwner trashOwner() {
    TrashOwner o;
    const char* uid = std::getenv("SUDO_UID");
    const char* gid = std::getenv("SUDO_GID");
    if (::geteuid() == 0 && uid && *uid && gid && *gid) {
        o.uid = uid_t(std::strtoul(uid, nullptr, 10));
        o.gid = gid_t(std::strtoul(gid, nullptr, 10));
        o.give = o.uid != 0;
    }
    return o;
}

void handOver(const std::string& path, const TrashOwner& owner) {
    if (owner.give) (void)::lchown(path.c_str(), owner.uid, owner.gid);
}

void handOverTree(const std::string& path, const TrashOwner& owner) {
    if (!owner.give) return;
    handOver(path, owner);
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return;
    for (const auto& n : KTFileTree::entriesOf(path)) handOverTree(path + "/" + n, owner);
}

std::string deletionDate() {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    return buf;
}

/// A private folder of the owner's, made when missing; a link or someone
/// else's folder is never used.
bool ownFolder(const std::string& path, const TrashOwner& owner, std::string* error) {
    if (KTTransferPlan* plan = KTTransferPlan::active()) {
        if (!KTFileTree::existsNoFollow(path)) return plan->makeFolder(path);
    }
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
            if (error) *error = "Unable to create " + path + ": " + std::strerror(errno);
            return false;
        }
        handOver(path, owner);
        if (::lstat(path.c_str(), &st) != 0) return false;
    }
    if (!S_ISDIR(st.st_mode) || st.st_uid != owner.uid) {
        if (error) *error = path + " is not a private folder of the user";
        return false;
    }
    return true;
}

/// The home Trash and the folders above it, made when missing.
bool homeFolder(const std::string& path, const TrashOwner& owner, std::string* error) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) return true;
    if (KTTransferPlan* plan = KTTransferPlan::active()) return plan->makeFolder(path);
    std::vector<std::string> missing;
    for (fs::path p = path; !p.empty() && !fs::exists(p, ec); p = p.parent_path())
        missing.push_back(p.string());
    fs::create_directories(path, ec);
    if (ec) {
        if (error) *error = "Unable to create " + path + ": " + ec.message();
        return false;
    }
    ::chmod(path.c_str(), 0700);  // the Trash is private to its owner
    for (const auto& p : missing) handOver(p, owner);
    return true;
}

/// Candidate names: "Glow.fxplug", "Glow 2.fxplug", "Glow 3.fxplug", ...
std::string candidateName(const std::string& base, int n) {
    if (n == 1) return base;
    fs::path p(base);
    std::string stem = p.stem().string(), ext = p.extension().string();
    if (stem.empty()) stem = base, ext.clear();
    return stem + " " + std::to_string(n) + ext;
}

/// The mount a path lies on.
std::optional<std::uint64_t> mountOf(const std::string& path) {
    struct statx sx {};
    if (::statx(AT_FDCWD, path.c_str(), AT_STATX_SYNC_AS_STAT, STATX_MNT_ID, &sx) != 0)
        return std::nullopt;
    if (!(sx.stx_mask & STATX_MNT_ID))
        return (std::uint64_t(sx.stx_dev_major) << 32) | sx.stx_dev_minor;
    return sx.stx_mnt_id;
}

std::string nearestExisting(std::string path) {
    std::error_code ec;
    while (path.size() > 1 && !fs::exists(path, ec)) path = fs::path(path).parent_path().string();
    return path;
}

bool inside(const std::string& path, const std::string& folder) {
    if (folder.empty()) return false;
    std::string f = folder;
    while (f.size() > 1 && f.back() == '/') f.pop_back();
    return f == "/" || path == f || path.compare(0, f.size() + 1, f + "/") == 0;
}

}  // namespace

KTFreedesktopTrash::KTFreedesktopTrash(std::string trashFolder)
    : trashFolder_(std::move(trashFolder)) {}

std::string KTFreedesktopTrash::percentEncode(const std::string& path) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string KTFreedesktopTrash::trashFolderFor(const std::string& path, std::string* topdir,
                                               std::string* error) const {
    const TrashOwner owner = trashOwner();
    if (topdir) topdir->clear();
    const std::string home = trashFolder_.empty()
                                 ? fs::path(KTLocalPaths::trashDirectory()).parent_path().string()
                                 : trashFolder_;
    auto homeTrash = [&]() -> std::string {
        if (!homeFolder(home, owner, error)) return {};
        return home;
    };
    if (!trashFolder_.empty()) return homeTrash();

    const std::string folder = fs::path(path).parent_path().string();
    const auto itemMount = mountOf(folder);
    if (!itemMount || itemMount == mountOf(nearestExisting(home))) return homeTrash();

    // The top of the item's mount: the highest folder still on it.
    std::string top = folder;
    while (top != "/") {
        const std::string up = fs::path(top).parent_path().string();
        if (mountOf(up) != itemMount) break;
        top = up;
    }
    // Only where Ambrel may act at all: a scratch root keeps it off the real
    // disk's top folder.
    if (!inside(top, KTLocalPaths::systemRoot()) && !inside(top, KTLocalPaths::userDirectory()))
        return homeTrash();

    const std::string uid = std::to_string(owner.uid);
    std::string ignored;
    struct stat st {};
    const std::string shared = top == "/" ? "/.Trash" : top + "/.Trash";
    std::string candidate;
    if (::lstat(shared.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX)) {
        candidate = shared + "/" + uid;
        if (!ownFolder(candidate, owner, &ignored)) candidate.clear();
    }
    if (candidate.empty()) {
        candidate = (top == "/" ? "" : top) + "/.Trash-" + uid;
        if (!ownFolder(candidate, owner, &ignored)) return homeTrash();
    }
    if (topdir) *topdir = top;
    return candidate;
}

bool KTFreedesktopTrash::trashItem(const std::string& path, std::string* trashedPath,
                                   std::string* error) {
    return trash(path, trashedPath, error, false);
}

bool KTFreedesktopTrash::authTrashItem(const std::string& path, std::string* trashedPath,
                                       std::string* error) {
    return trash(path, trashedPath, error, true);
}

bool KTFreedesktopTrash::trash(const std::string& input, std::string* trashedPath,
                               std::string* error, bool withRights) {
    std::string scratchError;
    if (!error) error = &scratchError;
    std::error_code ec;
    const TrashOwner owner = trashOwner();

    std::string path = fs::absolute(input, ec).lexically_normal().string();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    struct stat st {};
    if (ec || ::lstat(path.c_str(), &st) != 0) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }

    std::string topdir;
    const std::string trash = trashFolderFor(path, &topdir, error);
    if (trash.empty()) return false;
    if (trash == path || trash.compare(0, path.size() + 1, path + "/") == 0) {
        *error = "The Trash cannot be moved into itself";
        return false;
    }
    const std::string files = trash + "/files", info = trash + "/info";
    if (!ownFolder(files, owner, error) || !ownFolder(info, owner, error)) return false;

    // The .trashinfo is created exclusively first: it reserves the name
    // against another program trashing an item of the same name meanwhile.
    const std::string base = fs::path(path).filename().string();
    const std::string recorded =
        topdir.empty() ? path : path.substr(topdir == "/" ? 1 : topdir.size() + 1);
    std::string name, infoPath;
    if (KTTransferPlan* plan = KTTransferPlan::active()) {
        // The same name choice, without reserving it on disk.
        for (int n = 1; n <= 10000; ++n) {
            name = candidateName(base, n);
            if (plan->exists(info + "/" + name + ".trashinfo") || plan->exists(files + "/" + name))
                continue;
            const std::string destination = files + "/" + name;
            if (!plan->move(path, destination, withRights, error)) return false;
            if (trashedPath) *trashedPath = destination;
            return true;
        }
        *error = "No free name in the Trash for " + base;
        return false;
    }
    for (int n = 1;; ++n) {
        if (n > 10000) {
            *error = "No free name in the Trash for " + base;
            return false;
        }
        name = candidateName(base, n);
        infoPath = info + "/" + name + ".trashinfo";
        int fd = ::open(infoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            *error = infoPath + ": " + std::strerror(errno);
            return false;
        }
        if (KTFileTree::existsNoFollow(files + "/" + name)) {
            ::close(fd);
            ::unlink(infoPath.c_str());
            continue;
        }
        std::string text = "[Trash Info]\nPath=" + percentEncode(recorded) +
                           "\nDeletionDate=" + deletionDate() + "\n";
        bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ok = ::close(fd) == 0 && ok;
        if (!ok) {
            *error = infoPath + ": " + std::strerror(errno);
            ::unlink(infoPath.c_str());
            return false;
        }
        handOver(infoPath, owner);
        break;
    }

    const std::string destination = files + "/" + name;
    bool moved;
    if (withRights) {
        moved = KTTransfer::shared().authMoveItem(path, destination, error) ==
                KTTransfer::Outcome::Done;
    } else {
        moved = KTTransfer::shared().moveItem(path, destination, error, infoPath);
    }
    if (!moved) {
        ::unlink(infoPath.c_str());
        return false;
    }
    handOverTree(destination, owner);
    if (trashedPath) *trashedPath = destination;
    return true;
}
