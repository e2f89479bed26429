#include "SharedFiles/linux/KTHelperOperations.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>

#include "SharedFiles/KTAuthorization.h"

namespace {

using Result = KTHelperOperations::Result;
using Kind = KTHelperStep::Kind;

/// Closes its descriptor when it goes.
class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(Fd&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
    Fd& operator=(Fd&& o) noexcept {
        if (this != &o) {
            if (fd_ >= 0) ::close(fd_);
            fd_ = o.fd_;
            o.fd_ = -1;
        }
        return *this;
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

/// For its lifetime, file access is checked as the requesting user (and
/// the file-system capabilities of root are dropped by the kernel).
class ActingAs {
  public:
    ActingAs(uid_t uid, gid_t gid) : active_(uid != 0) {
        if (!active_) return;
        setfsgid(gid);
        setfsuid(uid);
    }
    ~ActingAs() {
        if (!active_) return;
        setfsuid(0);
        setfsgid(0);
    }
    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;

  private:
    bool active_;
};

Result ok() {
    return {};
}
Result refused(const std::string& why) {
    return {KTAuthorization::kStatusRefused, why};
}
Result failed(const std::string& what, const std::string& path, int err = errno) {
    return {KTAuthorization::kStatusFailed, what + " " + path + ": " + std::strerror(err)};
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string joined(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

/// Why a failed open on the way to an operand failed, in words.
Result notReached(const std::string& path) {
    if (errno == ELOOP || errno == ENOTDIR)
        return refused("path " + path + " passes through a link or a file");
    return failed("unable to reach", path);
}

std::vector<std::string> entriesOf(int folderFd) {
    std::vector<std::string> names;
    int dup = fcntl(folderFd, F_DUPFD_CLOEXEC, 0);
    if (dup < 0) return names;
    DIR* d = fdopendir(dup);
    if (!d) {
        close(dup);
        return names;
    }
    while (dirent* e = readdir(d)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            names.push_back(e->d_name);
    }
    closedir(d);
    return names;
}

bool lookNoFollow(int dirFd, const std::string& name, struct stat* st) {
    return fstatat(dirFd, name.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0;
}

/// Removes `name` in `dirFd` and, for a folder, everything in it; links are
/// removed, never followed. Missing counts as removed.
bool removeTree(int dirFd, const std::string& name, std::string* why) {
    Fd folder(openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) {
        if (errno == ENOENT) return true;
        if (errno != ENOTDIR && errno != ELOOP) {
            *why = std::strerror(errno);
            return false;
        }
        if (unlinkat(dirFd, name.c_str(), 0) != 0 && errno != ENOENT) {
            *why = std::strerror(errno);
            return false;
        }
        return true;
    }
    bool all = true;
    for (const auto& entry : entriesOf(folder.get()))
        all = removeTree(folder.get(), entry, why) && all;
    if (!all) return false;
    if (unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        *why = std::strerror(errno);
        return false;
    }
    return true;
}

/// Copies `name` in `fromFd` (read as `reader`) to the new entry `to` in
/// `toFd`, keeping modes, owners and times as "cp -p -R" does, less the
/// set-id bits; links are copied as links. Other kinds of file are refused.
bool copyTree(int fromFd, const std::string& name, int toFd, const std::string& to, uid_t readerUid,
              gid_t readerGid, std::string* why) {
    struct stat st;
    Fd source;
    std::string linkTarget;
    {
        ActingAs reader(readerUid, readerGid);
        source = Fd(openat(fromFd, name.c_str(),
                           O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!source && errno == ELOOP) {
            char buf[4096];
            ssize_t n = readlinkat(fromFd, name.c_str(), buf, sizeof buf);
            if (n < 0 || !lookNoFollow(fromFd, name, &st)) {
                *why = name + ": " + std::strerror(errno);
                return false;
            }
            linkTarget.assign(buf, static_cast<size_t>(n));
        } else if (!source || fstat(source.get(), &st) != 0) {
            *why = name + ": " + std::strerror(errno);
            return false;
        }
    }
    const mode_t mode = st.st_mode & 07777 & ~static_cast<mode_t>(S_ISUID | S_ISGID);
    const timespec times[2] = {st.st_atim, st.st_mtim};
    if (!source) {
        if (symlinkat(linkTarget.c_str(), toFd, to.c_str()) != 0 ||
            fchownat(toFd, to.c_str(), st.st_uid, st.st_gid, AT_SYMLINK_NOFOLLOW) != 0) {
            *why = to + ": " + std::strerror(errno);
            return false;
        }
        return true;
    }
    if (S_ISDIR(st.st_mode)) {
        if (mkdirat(toFd, to.c_str(), 0700) != 0) {
            *why = to + ": " + std::strerror(errno);
            return false;
        }
        Fd made(openat(toFd, to.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!made) {
            *why = to + ": " + std::strerror(errno);
            return false;
        }
        std::vector<std::string> entries;
        {
            ActingAs reader(readerUid, readerGid);
            entries = entriesOf(source.get());
        }
        for (const auto& e : entries) {
            if (!copyTree(source.get(), e, made.get(), e, readerUid, readerGid, why)) return false;
        }
        if (fchown(made.get(), st.st_uid, st.st_gid) != 0 || fchmod(made.get(), mode) != 0 ||
            futimens(made.get(), times) != 0) {
            *why = to + ": " + std::strerror(errno);
            return false;
        }
        return true;
    }
    if (!S_ISREG(st.st_mode)) {
        *why = name + ": neither a file, a folder nor a link";
        return false;
    }
    Fd out(openat(toFd, to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out) {
        *why = to + ": " + std::strerror(errno);
        return false;
    }
    char buf[65536];
    for (;;) {
        ssize_t n;
        {
            ActingAs reader(readerUid, readerGid);
            n = read(source.get(), buf, sizeof buf);
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *why = name + ": " + std::strerror(errno);
            return false;
        }
        if (n == 0) break;
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(out.get(), buf + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                *why = to + ": " + std::strerror(errno);
                return false;
            }
            done += w;
        }
    }
    if (fchown(out.get(), st.st_uid, st.st_gid) != 0 || fchmod(out.get(), mode) != 0 ||
        futimens(out.get(), times) != 0 || fsync(out.get()) != 0) {
        *why = to + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

/// Changes what `fd` (opened O_PATH, not a link) names, through its own
/// descriptor so that no name is looked up again.
bool applyOwnerOrMode(int fd, const struct stat& st, const KTHelperStep& step, uid_t uid) {
    // A file with a second name may be a system file linked in: leave it.
    if (!S_ISDIR(st.st_mode) && st.st_nlink > 1) return true;
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) return true;
    if (step.kind == Kind::Chown)
        return fchownat(fd, "", uid, static_cast<gid_t>(-1), AT_EMPTY_PATH) == 0;
    mode_t mode = (st.st_mode & 07777) | 0666;
    if (S_ISREG(st.st_mode)) mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    return chmod(self.c_str(), mode) == 0;
}

bool ownerOrModeTree(int dirFd, const std::string& name, const KTHelperStep& step, uid_t uid,
                     std::string* why) {
    Fd entry(openat(dirFd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!entry || fstat(entry.get(), &st) != 0) {
        *why = name + ": " + std::strerror(errno);
        return false;
    }
    if (S_ISLNK(st.st_mode)) return true;  // never followed, never changed
    if (!applyOwnerOrMode(entry.get(), st, step, uid)) {
        *why = name + ": " + std::strerror(errno);
        return false;
    }
    if (!step.recursive || !S_ISDIR(st.st_mode)) return true;
    Fd folder(openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return true;  // swapped for something else meanwhile: not followed
    struct stat again;
    if (fstat(folder.get(), &again) != 0 || again.st_ino != st.st_ino || again.st_dev != st.st_dev)
        return true;
    bool all = true;
    for (const auto& e : entriesOf(folder.get()))
        all = ownerOrModeTree(folder.get(), e, step, uid, why) && all;
    return all;
}

}  // namespace

KTHelperOperations::KTHelperOperations(uid_t uid, gid_t gid, KTHelperPlaces places)
    : uid_(uid), gid_(gid), places_(std::move(places)) {}

int KTHelperOperations::openFolder(const std::string& path) {
    int fd = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    size_t start = 1;
    while (fd >= 0 && start < path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        const std::string part = path.substr(start, end - start);
        int next = openat(fd, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        int err = errno;
        close(fd);
        errno = err;
        fd = next;
        start = end + 1;
    }
    if (fd >= 0) {
        // O_PATH with O_NOFOLLOW opens a link itself: make sure it is a folder.
        struct stat st;
        if (fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode)) {
            close(fd);
            errno = ENOTDIR;
            return -1;
        }
    }
    return fd;
}

KTHelperOperations::Result KTHelperOperations::perform(const KTHelperStep& step) {
    switch (step.kind) {
        case Kind::MakeDirectory:
            // All or nothing: every folder is judged before the first is made.
            for (const auto& p : step.paths) {
                if (!places_.mayMakeFolder(p))
                    return refused("path " + p + " is outside the plug-in places");
            }
            for (const auto& p : step.paths) {
                Result r = makeDirectory(p);
                if (r.status != 0) return r;
            }
            return ok();
        case Kind::Move:
            return move(step);
        case Kind::Copy:
            return copy(step);
        case Kind::Remove:
            for (const auto& p : step.paths) {
                if (!places_.isInside(p))
                    return refused("path " + p + " is outside the plug-in places");
            }
            for (const auto& p : step.paths) {
                Result r = remove(step, p);
                if (r.status != 0) return r;
            }
            return ok();
        case Kind::Chown:
        case Kind::Chmod:
            if (step.kind == Kind::Chown) {
                bool self = step.owner == std::to_string(uid_);
                if (!self) {
                    const passwd* pw = getpwnam(step.owner.c_str());
                    self = pw && pw->pw_uid == uid_;
                }
                if (!self) return refused("owner " + step.owner + " is not the requesting user");
            }
            for (const auto& p : step.paths) {
                if (!places_.isProgramFolder(p))
                    return refused("path " + p + " is outside the program's own folder");
            }
            for (const auto& p : step.paths) {
                Result r = changeOwnerOrMode(step, p);
                if (r.status != 0) return r;
            }
            return ok();
    }
    return refused("unknown step");
}

KTHelperOperations::Result KTHelperOperations::makeDirectory(const std::string& path) {
    if (!places_.mayMakeFolder(path))
        return refused("path " + path + " is outside the plug-in places");
    Fd fd(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    size_t start = 1;
    while (fd && start < path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        const std::string part = path.substr(start, end - start);
        const std::string sofar = path.substr(0, end);
        int next = openat(fd.get(), part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        bool made = false;
        if (next < 0 && errno == ENOENT) {
            if (mkdirat(fd.get(), part.c_str(), places_.belongsToUser(sofar) ? 0700 : 0755) != 0) {
                if (errno != EEXIST) return failed("unable to make", sofar);
            } else {
                made = true;
            }
            next = openat(fd.get(), part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }
        // The user's own folders stay the user's (a Trash made by root
        // would be one the user cannot empty).
        if (next >= 0 && made && places_.belongsToUser(sofar)) {
            if (fchownat(next, "", uid_, gid_, AT_EMPTY_PATH) != 0) {
                close(next);
                return failed("unable to give", sofar);
            }
            chmod(("/proc/self/fd/" + std::to_string(next)).c_str(), 0755);
        }
        if (next < 0) return notReached(sofar);
        struct stat st;
        fd = Fd(next);
        if (fstat(fd.get(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            errno = ENOTDIR;
            return notReached(sofar);
        }
        start = end + 1;
    }
    return fd ? ok() : failed("unable to reach", "/");
}

KTHelperOperations::Result KTHelperOperations::move(const KTHelperStep& step) {
    const std::string& source = step.paths[0];
    std::string destination = step.paths[1];
    if (!places_.isInside(source))
        return refused("path " + source + " is outside the plug-in places");
    if (step.intoExistingFolder) {
        Fd into(openFolder(destination));
        if (into) destination = joined(destination, nameOf(source));
    }
    if (!places_.isInside(destination))
        return refused("path " + destination + " is outside the plug-in places");
    if (destination == source || destination.compare(0, source.size() + 1, source + "/") == 0)
        return refused("path " + destination + " lies inside " + source);

    Fd from(openFolder(parentOf(source)));
    if (!from) return notReached(parentOf(source));
    Fd to(openFolder(parentOf(destination)));
    if (!to) return notReached(parentOf(destination));
    const std::string name = nameOf(source), target = nameOf(destination);
    struct stat st;
    if (!lookNoFollow(from.get(), name, &st)) return failed("unable to move", source);
    if (renameat2(from.get(), name.c_str(), to.get(), target.c_str(), RENAME_NOREPLACE) == 0)
        return ok();
    if (errno != EXDEV) return failed("unable to move", source);

    // Another file system: a whole copy under a work name first, then into
    // place, and only then the original goes.
    const std::string work =
        ".ambrel-work." + std::to_string(getpid()) + "." + std::to_string(++workCounter_) + ".copy";
    std::string why;
    if (!copyTree(from.get(), name, to.get(), work, 0, 0, &why)) {
        std::string ignored;
        removeTree(to.get(), work, &ignored);
        return {KTAuthorization::kStatusFailed, "unable to copy " + source + ": " + why};
    }
    if (renameat2(to.get(), work.c_str(), to.get(), target.c_str(), RENAME_NOREPLACE) != 0) {
        Result r = failed("unable to move", source);
        std::string ignored;
        removeTree(to.get(), work, &ignored);
        return r;
    }
    // The original leaves its real name before it is deleted, so that a kill
    // half-way through the deletion never leaves a partial plug-in where hosts
    // look; the next run of the program removes what is left of it.
    const std::string gone =
        ".ambrel-work." + std::to_string(getpid()) + "." + std::to_string(++workCounter_) + ".gone";
    if (renameat2(from.get(), name.c_str(), from.get(), gone.c_str(), RENAME_NOREPLACE) != 0)
        return failed("unable to set aside", source);
    if (!removeTree(from.get(), gone, &why))
        return {KTAuthorization::kStatusFailed, "unable to remove " + source + ": " + why};
    return ok();
}

KTHelperOperations::Result KTHelperOperations::copy(const KTHelperStep& step) {
    const std::string& source = step.paths[0];
    std::string destination = step.paths[1];
    if (step.intoExistingFolder) {
        Fd into(openFolder(destination));
        if (into) destination = joined(destination, nameOf(source));
    }
    if (!places_.isInside(destination))
        return refused("path " + destination + " is outside the plug-in places");

    Fd from;
    {
        // The way to the source is the user's to walk.
        ActingAs reader(uid_, gid_);
        from = Fd(openFolder(parentOf(source)));
    }
    if (!from) return notReached(parentOf(source));
    Fd to(openFolder(parentOf(destination)));
    if (!to) return notReached(parentOf(destination));
    const std::string work =
        ".ambrel-work." + std::to_string(getpid()) + "." + std::to_string(++workCounter_) + ".copy";
    std::string why;
    if (!copyTree(from.get(), nameOf(source), to.get(), work, uid_, gid_, &why)) {
        std::string ignored;
        removeTree(to.get(), work, &ignored);
        return {KTAuthorization::kStatusFailed, "unable to copy " + source + ": " + why};
    }
    if (renameat2(to.get(), work.c_str(), to.get(), nameOf(destination).c_str(),
                  RENAME_NOREPLACE) != 0) {
        Result r = failed("unable to copy to", destination);
        std::string ignored;
        removeTree(to.get(), work, &ignored);
        return r;
    }
    return ok();
}

KTHelperOperations::Result KTHelperOperations::remove(const KTHelperStep& step,
                                                      const std::string& path) {
    Fd parent(openFolder(parentOf(path)));
    if (!parent) {
        if (errno == ENOENT) return ok();  // rm -f: nothing there
        return notReached(parentOf(path));
    }
    const std::string name = nameOf(path);
    struct stat st;
    if (!lookNoFollow(parent.get(), name, &st)) {
        if (errno == ENOENT && !step.onlyEmptyFolders) return ok();
        return failed("unable to remove", path);
    }
    if (step.onlyEmptyFolders) {
        if (unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR) != 0)
            return failed("unable to remove", path);
        return ok();
    }
    if (S_ISDIR(st.st_mode) && step.recursive) {
        std::string why;
        if (!removeTree(parent.get(), name, &why))
            return {KTAuthorization::kStatusFailed, "unable to remove " + path + ": " + why};
        return ok();
    }
    if (unlinkat(parent.get(), name.c_str(), S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0) != 0 &&
        errno != ENOENT)
        return failed("unable to remove", path);
    return ok();
}

KTHelperOperations::Result KTHelperOperations::changeOwnerOrMode(const KTHelperStep& step,
                                                                 const std::string& path) {
    Fd parent(openFolder(parentOf(path)));
    if (!parent) return notReached(parentOf(path));
    struct stat st;
    if (!lookNoFollow(parent.get(), nameOf(path), &st)) return failed("unable to change", path);
    if (S_ISLNK(st.st_mode)) return refused("path " + path + " is a link");
    std::string why;
    if (!ownerOrModeTree(parent.get(), nameOf(path), step, uid_, &why))
        return {KTAuthorization::kStatusFailed, "unable to change " + path + ": " + why};
    return ok();
}
