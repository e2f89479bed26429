#include "operations/KTFileMover.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "catalogue/KTPluginLocations.h"

namespace fs = std::filesystem;

namespace {

std::mutex gSharedLock;
std::shared_ptr<KTFileMover> gShared;
std::atomic<double> gPause{1.0};

void setError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

bool existsNoFollow(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

/// A rename that never replaces: 0, or the errno. File systems without the
/// flag get a look first (a small window, but never a silent replace of
/// anything that was there before the call).
int renameNoReplace(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    int err = errno;
    if (err != EINVAL && err != ENOSYS) return err;
    if (existsNoFollow(to)) return EEXIST;
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

std::string hiddenSibling(const std::string& path, const char* tag) {
    return KTPluginLocations::appendPathComponent(
        KTPluginLocations::deletingLastPathComponent(path),
        std::string(".") + tag + "-" + KTLocalPaths::randomString(8) + "-" +
            fs::path(path).filename().string());
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

std::vector<std::string> entriesOf(const std::string& folder) {
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

/// True when `copy` holds the same tree as `original`: kinds, link targets,
/// sizes and bytes of every file.
bool sameTree(const std::string& original, const std::string& copy) {
    struct stat so {
    }, sc{};
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

void keepTimesAndOwner(const std::string& path, const struct stat& st) {
    const timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    if (::geteuid() == 0) (void)::lchown(path.c_str(), st.st_uid, st.st_gid);
}

}  // namespace

KTFileMover& KTFileMover::shared() {
    std::lock_guard<std::mutex> l(gSharedLock);
    if (!gShared) gShared = std::make_shared<KTFileMover>();
    return *gShared;
}

void KTFileMover::setShared(std::shared_ptr<KTFileMover> mover) {
    std::lock_guard<std::mutex> l(gSharedLock);
    gShared = std::move(mover);
}

double KTFileMover::privilegedPauseSeconds() {
    return gPause;
}
void KTFileMover::setPrivilegedPauseSecondsForTesting(double seconds) {
    gPause = seconds;
}
void KTFileMover::pauseAfterPrivilegedStep() {
    std::this_thread::sleep_for(std::chrono::duration<double>(gPause.load()));
}

bool KTFileMover::moveItem(const std::string& from, const std::string& to, std::string* error) {
    if (!existsNoFollow(from)) {
        setError(error, KTFormat::str("%@ does not exist", from));
        return false;
    }
    if (existsNoFollow(to)) {
        setError(error, KTFormat::str("%@ already exists", to));
        return false;
    }
    int err = renameNoReplace(from, to);
    if (err == 0) return true;
    if (err == EXDEV) return moveAcrossFileSystems(from, to, error);
    setError(error, err == EEXIST ? KTFormat::str("%@ already exists", to) : std::strerror(err));
    return false;
}

bool KTFileMover::moveAcrossFileSystems(const std::string& from, const std::string& to,
                                        std::string* error) {
    // Built under a hidden name so that no half copy is ever seen at `to`.
    const std::string staging = hiddenSibling(to, "ambrel-copy");
    std::string why;
    auto abandon = [&](const std::string& text) {
        std::string ignored;
        removeTree(staging, &ignored);
        setError(error, text);
        return false;
    };
    if (!copyTree(from, staging, &why))
        return abandon(KTFormat::str("Unable to copy %@ - %@", from, why));
    if (!sameTree(from, staging))
        return abandon(KTFormat::str("The copy of %@ is incomplete", from));
    if (int err = renameNoReplace(staging, to))
        return abandon(err == EEXIST ? KTFormat::str("%@ already exists", to)
                                     : std::string(std::strerror(err)));

    // The source goes aside in one step first: if that is refused the copy
    // is withdrawn and the source was never touched.
    const std::string aside = hiddenSibling(from, "ambrel-moved");
    if (::rename(from.c_str(), aside.c_str()) != 0) {
        const int err = errno;
        std::string ignored;
        removeTree(to, &ignored);
        setError(error, KTFormat::str("Unable to remove %@ - %@", from, std::strerror(err)));
        return false;
    }
    if (!removeTree(aside, &why)) {
        // The plug-in is whole at its new place; only the leftover is reported.
        KTLog::appendLog("Unable to remove %@ - %@", aside, why);
    }
    return true;
}

bool KTFileMover::copyTree(const std::string& from, const std::string& to, std::string* error) {
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) {
        setError(error, std::strerror(errno));
        return false;
    }
    std::error_code ec;
    if (S_ISLNK(st.st_mode)) {
        fs::copy_symlink(from, to, ec);
    } else if (S_ISDIR(st.st_mode)) {
        if (::mkdir(to.c_str(), 0700) != 0) {
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

bool KTFileMover::removeTree(const std::string& path, std::string* error) {
    std::error_code ec;
    fs::remove_all(path, ec);
    if (ec || existsNoFollow(path)) {
        setError(error, ec ? ec.message() : std::string("still present"));
        return false;
    }
    return true;
}
