#include "operations/KTInstallCopier.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <vector>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLocalPaths.h"
#include "catalogue/KTPluginLocations.h"
#include "operations/KTFileMover.h"

namespace fs = std::filesystem;

namespace {

std::mutex gSharedLock;
std::shared_ptr<KTInstallCopier> gShared;

void setError(std::string* error, const std::string& text) {
    if (error) *error = text;
}

bool existsNoFollow(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
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

/// A rename that never replaces what is at `to`: 0 or the errno.
int renameNoReplace(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    const int err = errno;
    if (err != EINVAL && err != ENOSYS) return err;
    if (existsNoFollow(to)) return EEXIST;
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

void removeQuietly(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
}

}  // namespace

KTInstallCopier& KTInstallCopier::shared() {
    std::lock_guard<std::mutex> l(gSharedLock);
    if (!gShared) gShared = std::make_shared<KTInstallCopier>();
    return *gShared;
}

void KTInstallCopier::setShared(std::shared_ptr<KTInstallCopier> copier) {
    std::lock_guard<std::mutex> l(gSharedLock);
    gShared = std::move(copier);
}

std::string KTInstallCopier::stagingPathFor(const std::string& destination) {
    return KTPluginLocations::appendPathComponent(
        KTPluginLocations::deletingLastPathComponent(destination),
        ".ambrel-install-" + KTLocalPaths::randomString(8) + "-" +
            fs::path(destination).filename().string());
}

bool KTInstallCopier::sameTree(const std::string& original, const std::string& copy) {
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
    const auto names = entriesOf(original);
    if (names.size() != entriesOf(copy).size()) return false;
    for (const auto& n : names) {
        if (!sameTree(original + "/" + n, copy + "/" + n)) return false;
    }
    return true;
}

bool KTInstallCopier::copyItem(const std::string& source, const std::string& destination,
                               std::string* error) {
    if (!existsNoFollow(source)) {
        setError(error, KTFormat::str("%@ does not exist", source));
        return false;
    }
    if (existsNoFollow(destination)) {
        setError(error, KTFormat::str("%@ already exists", destination));
        return false;
    }
    const std::string staging = stagingPathFor(destination);
    auto abandon = [&](const std::string& text) {
        removeQuietly(staging);
        setError(error, text);
        return false;
    };
    std::string why;
    if (!copyTree(source, staging, &why)) return abandon(why);
    if (!sameTree(source, staging))
        return abandon(KTFormat::str("The copy of %@ is incomplete", source));
    if (int err = renameNoReplace(staging, destination)) return abandon(std::strerror(err));
    return true;
}

bool KTInstallCopier::authCopyItem(const std::string& source, const std::string& destination,
                                   std::string* error) {
    if (existsNoFollow(destination)) {
        setError(error, KTFormat::str("%@ already exists", destination));
        return false;
    }
    KTAuthorization* auth = KTAuthorization::sharedController();
    const std::string staging = stagingPathFor(destination);
    // Waited for, so that the check below sees the tool's whole work.
    if (auth->authExecTask("/bin/cp", {"-f", "-p", "-R", source, staging}, false) != 0) {
        setError(error, "User cancelled authorization.");
        return false;
    }
    KTFileMover::pauseAfterPrivilegedStep();
    if (!sameTree(source, staging)) {
        if (existsNoFollow(staging)) auth->authExecTask("/bin/rm", {"-Rdf", staging}, false);
        setError(error, KTFormat::str("The copy of %@ is incomplete", source));
        return false;
    }
    // "mv" into an existing folder would move the copy inside it: look again.
    if (existsNoFollow(destination) ||
        auth->authExecTask("/bin/mv", {"-f", staging, destination}, false) != 0) {
        auth->authExecTask("/bin/rm", {"-Rdf", staging}, false);
        setError(error, KTFormat::str("Unable to move the copy into place at %@", destination));
        return false;
    }
    KTFileMover::pauseAfterPrivilegedStep();
    return existsNoFollow(destination);
}

bool KTInstallCopier::copyTree(const std::string& from, const std::string& to, std::string* error) {
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) {
        setError(error, std::strerror(errno));
        return false;
    }
    std::error_code ec;
    if (S_ISLNK(st.st_mode)) {
        fs::copy_symlink(from, to, ec);
    } else if (S_ISDIR(st.st_mode)) {
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
    const timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW);
    return true;
}
