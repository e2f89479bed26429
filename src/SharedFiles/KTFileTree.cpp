#include "SharedFiles/KTFileTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

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
    struct stat so {}, sc{};
    if (::lstat(original.c_str(), &so) != 0 || ::lstat(copy.c_str(), &sc) != 0) return false;
    if ((so.st_mode & S_IFMT) != (sc.st_mode & S_IFMT)) return false;
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
        ::chmod(to.c_str(), st.st_mode & 07777);
    } else if (S_ISREG(st.st_mode)) {
        fs::copy_file(from, to, fs::copy_options::none, ec);
    } else {
        setError(error, KTFormat::str("%@ is not a file, folder or link", from));
        return false;
    }
    if (ec) {
        setError(error, ec.message());
        return false;
    }
    keepTimesAndOwner(to, st);
    return true;
}

bool KTFileTree::removeTree(const std::string& path, std::string* error) {
    std::error_code ec;
    fs::remove_all(path, ec);
    if (ec || existsNoFollow(path)) {
        setError(error, ec ? ec.message() : std::string("still present"));
        return false;
    }
    return true;
}
