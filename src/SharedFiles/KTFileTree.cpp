#include "SharedFiles/KTFileTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

#include "SharedFiles/KTFormat.h"

namespace fs = std::filesystem;

namespace {

void setError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

bool sameBytes(const std::string& a, const std::string& b) {
    std::ifstream fa(a, std::ios::binary), fb(b, std::ios::binary);
    if (!fa || !fb) return false;
    std::vector<char> ba(1 << 16), bb(1 << 16);
    while (true) {
        fa.read(ba.data(), std::streamsize(ba.size()));
        fb.read(bb.data(), std::streamsize(bb.size()));
        if (fa.gcount() != fb.gcount()) return false;
        if (fa.gcount() == 0) return true;
        if (std::memcmp(ba.data(), bb.data(), std::size_t(fa.gcount())) != 0) return false;
    }
}

/// The names of a path's extended attributes (of the link itself for a link).
std::vector<std::string> attributeNames(const std::string& path, int* err = nullptr) {
    std::vector<std::string> names;
    ssize_t size = ::llistxattr(path.c_str(), nullptr, 0);
    if (size < 0) {
        if (err) *err = (errno == ENOTSUP) ? 0 : errno;
        return names;
    }
    std::string buf(std::size_t(size) + 1, '\0');
    size = ::llistxattr(path.c_str(), buf.data(), buf.size());
    if (size < 0) {
        if (err) *err = errno;
        return names;
    }
    for (std::size_t at = 0; at < std::size_t(size);) {
        std::string n(buf.c_str() + at);
        at += n.size() + 1;
        if (!n.empty()) names.push_back(n);
    }
    return names;
}

std::optional<std::string> attributeValue(const std::string& path, const std::string& name) {
    ssize_t size = ::lgetxattr(path.c_str(), name.c_str(), nullptr, 0);
    if (size < 0) return std::nullopt;
    std::string value(std::size_t(size), '\0');
    size = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (size < 0) return std::nullopt;
    value.resize(std::size_t(size));
    return value;
}

/// Attributes outside the user's namespace (security labels, ACLs, trusted.*)
/// belong to the machine the file is on: one that cannot be set on the copy
/// does not make it a different plug-in. A user attribute (a Finder type
/// code among them) does.
bool isUserAttribute(const std::string& name) {
    return name.rfind("user.", 0) == 0;
}

bool copyAttributes(const std::string& from, const std::string& to, std::string* error) {
    int err = 0;
    for (const auto& name : attributeNames(from, &err)) {
        auto value = attributeValue(from, name);
        if (!value) {
            if (!isUserAttribute(name)) continue;
            setError(error, KTFormat::str("Unable to read attribute %@ of %@ - %@", name, from,
                                          std::strerror(errno)));
            return false;
        }
        if (::lsetxattr(to.c_str(), name.c_str(), value->data(), value->size(), 0) != 0 &&
            isUserAttribute(name)) {
            setError(error, KTFormat::str("Unable to keep attribute %@ of %@ - %@", name, from,
                                          std::strerror(errno)));
            return false;
        }
    }
    if (err != 0) {
        setError(error, KTFormat::str("Unable to list the attributes of %@ - %@", from,
                                      std::strerror(err)));
        return false;
    }
    return true;
}

bool sameUserAttributes(const std::string& a, const std::string& b) {
    std::vector<std::string> na, nb;
    for (auto& n : attributeNames(a))
        if (isUserAttribute(n)) na.push_back(n);
    for (auto& n : attributeNames(b))
        if (isUserAttribute(n)) nb.push_back(n);
    std::sort(na.begin(), na.end());
    std::sort(nb.begin(), nb.end());
    if (na != nb) return false;
    for (const auto& n : na) {
        auto va = attributeValue(a, n), vb = attributeValue(b, n);
        if (!va || !vb || *va != *vb) return false;
    }
    return true;
}

void keepTimesAndOwner(const std::string& path, const struct stat& st) {
    const timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    if (::geteuid() == 0) (void)::lchown(path.c_str(), st.st_uid, st.st_gid);
}

}  // namespace

bool KTFileTree::existsNoFollow(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> KTFileTree::entriesOf(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(folder.c_str())) {
        while (dirent* e = ::readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        ::closedir(d);
    }
    return names;
}

std::vector<std::string> KTFileTree::entriesStartingWith(const std::string& folder,
                                                         const std::string& prefix) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(folder.c_str())) {
        while (dirent* e = ::readdir(d)) {
            if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0)
                names.emplace_back(e->d_name);
        }
        ::closedir(d);
    }
    return names;
}

int KTFileTree::makeFolders(const std::string& path) {
    if (::mkdir(path.c_str(), 0777) == 0) return 0;
    if (errno != ENOENT) return errno;
    std::string parent = path;
    while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
    const auto slash = parent.rfind('/');
    if (slash == std::string::npos || slash == 0) return ENOENT;
    parent.resize(slash);
    if (const int err = makeFolders(parent); err != 0 && err != EEXIST) return err;
    return ::mkdir(path.c_str(), 0777) == 0 ? 0 : errno;
}

int KTFileTree::renameNoReplace(const std::string& from, const std::string& to) {
#ifdef RENAME_NOREPLACE
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    int err = errno;
    if (err != EINVAL && err != ENOSYS) return err;
#endif
    // File systems without the flag get a look first: a small window, but
    // never a silent replace of anything that was there before the call.
    if (existsNoFollow(to)) return EEXIST;
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

bool KTFileTree::sameTree(const std::string& original, const std::string& copy) {
    struct stat so {
    }, sc{};
    if (::lstat(original.c_str(), &so) != 0 || ::lstat(copy.c_str(), &sc) != 0) return false;
    if ((so.st_mode & S_IFMT) != (sc.st_mode & S_IFMT)) return false;
    if (!sameUserAttributes(original, copy)) return false;
    if (S_ISLNK(so.st_mode)) {
        std::error_code e1, e2;
        return fs::read_symlink(original, e1) == fs::read_symlink(copy, e2) && !e1 && !e2;
    }
    if (S_ISREG(so.st_mode)) return so.st_size == sc.st_size && sameBytes(original, copy);
    if (!S_ISDIR(so.st_mode)) return true;
    auto names = entriesOf(original);
    if (names.size() != entriesOf(copy).size()) return false;
    for (const auto& n : names) {
        if (!sameTree(original + "/" + n, copy + "/" + n)) return false;
    }
    return true;
}

bool KTFileTree::copyTree(const std::string& from, const std::string& to, std::string* error) {
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) {
        setError(error, std::strerror(errno));
        return false;
    }
    std::error_code ec;
    if (S_ISLNK(st.st_mode)) {
        fs::copy_symlink(from, to, ec);
    } else if (S_ISDIR(st.st_mode)) {
        // A folder we may not read would come out as an empty copy.
        if (::access(from.c_str(), R_OK | X_OK) != 0 || ::mkdir(to.c_str(), 0700) != 0) {
            setError(error, std::strerror(errno));
            return false;
        }
        for (const auto& n : entriesOf(from)) {
            if (!copyTree(from + "/" + n, to + "/" + n, error)) return false;
        }
        if (!copyAttributes(from, to, error)) return false;
        ::chmod(to.c_str(), st.st_mode & 07777);
    } else if (S_ISREG(st.st_mode)) {
        fs::copy_file(from, to, fs::copy_options::none, ec);
    } else {
        setError(error, KTFormat::str("%@ is not a file, folder or link", from));
        return false;
    }
    if (ec) {
        setError(error, KTFormat::str("Unable to copy %@ - %@", from, ec.message()));
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        // A file copied read-only still takes its attributes: set them as owner first.
        const bool readOnly = S_ISREG(st.st_mode) && !(st.st_mode & S_IWUSR);
        if (readOnly) ::chmod(to.c_str(), (st.st_mode & 07777) | S_IWUSR);
        const bool kept = copyAttributes(from, to, error);
        if (readOnly) ::chmod(to.c_str(), st.st_mode & 07777);
        if (!kept) return false;
    }
    keepTimesAndOwner(to, st);
    return true;
}

bool KTFileTree::removeTree(const std::string& path, std::string* error) {
    // A read-only folder inside a bundle would stop the removal half-way.
    std::function<void(const std::string&)> openUp = [&](const std::string& p) {
        struct stat st {};
        if (::lstat(p.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return;
        if ((st.st_mode & S_IRWXU) != S_IRWXU) ::chmod(p.c_str(), (st.st_mode & 07777) | S_IRWXU);
        for (const auto& n : entriesOf(p)) openUp(p + "/" + n);
    };
    openUp(path);
    std::error_code ec;
    fs::remove_all(path, ec);
    if (ec || existsNoFollow(path)) {
        setError(error, ec ? ec.message() : std::string("still present"));
        return false;
    }
    return true;
}

bool KTFileTree::canRemoveTree(const std::string& path, std::string* error) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        setError(error, KTFormat::str("%@ - %@", path, std::strerror(errno)));
        return false;
    }
    if (!S_ISLNK(st.st_mode) && (S_ISDIR(st.st_mode) || S_ISREG(st.st_mode))) {
        // An immutable or append-only entry refuses to go even for root.
        int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
        int flags = 0;
        if (fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
            (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL))) {
            ::close(fd);
            setError(error, KTFormat::str("%@ is locked", path));
            return false;
        }
        if (fd >= 0) ::close(fd);
    }
    if (!S_ISDIR(st.st_mode)) return true;
    const bool root = ::geteuid() == 0;
    if (::access(path.c_str(), W_OK | X_OK) != 0 && !(root && errno == EACCES)) {
        // Our own read-only folder can be opened up; anything else stays.
        if (errno == EROFS || st.st_uid != ::geteuid()) {
            setError(error, KTFormat::str("%@ - %@", path, std::strerror(errno)));
            return false;
        }
    }
    for (const auto& n : entriesOf(path)) {
        if (!canRemoveTree(path + "/" + n, error)) return false;
    }
    return true;
}
