#include "SharedFiles/linux/KTFreedesktopTrash.h"

#include "SharedFiles/KTFileTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "SharedFiles/KTLocalPaths.h"

namespace fs = std::filesystem;

namespace {

/// Removes what it names when it goes, unless released: the reserved
/// .trashinfo and a partial copy must not outlive a failed move.
class RemoveOnFailure {
  public:
    explicit RemoveOnFailure(std::string path) : path_(std::move(path)) {}
    ~RemoveOnFailure() {
        if (path_.empty()) return;
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    void release() { path_.clear(); }
    RemoveOnFailure(const RemoveOnFailure&) = delete;
    RemoveOnFailure& operator=(const RemoveOnFailure&) = delete;

  private:
    std::string path_;
};

std::string deletionDate() {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    return buf;
}

bool ensureFolder(const std::string& path, std::string* error) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) return true;
    fs::create_directories(path, ec);
    if (ec) {
        if (error) *error = "Unable to create " + path + ": " + ec.message();
        return false;
    }
    ::chmod(path.c_str(), 0700);  // the trash is private to its owner
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

/// Whether every folder of the tree lets its entries be removed: a tree we
/// could copy but not take away afterwards must not be copied at all.
bool canRemoveTree(const std::string& path, std::string* error) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return true;
    if (::access(path.c_str(), W_OK | X_OK) != 0) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }
    for (const auto& n : KTFileTree::entriesOf(path)) {
        if (!canRemoveTree(path + "/" + n, error)) return false;
    }
    return true;
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

bool KTFreedesktopTrash::trashItem(const std::string& input, std::string* trashedPath,
                                   std::string* error) {
    std::string scratchError;
    if (!error) error = &scratchError;
    std::error_code ec;

    std::string path = fs::absolute(input, ec).lexically_normal().string();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    struct stat st {};
    if (ec || ::lstat(path.c_str(), &st) != 0) {
        *error = path + ": " + std::strerror(errno);
        return false;
    }

    const std::string trash = trashFolder_.empty()
                                  ? fs::path(KTLocalPaths::trashDirectory()).parent_path().string()
                                  : trashFolder_;
    if (trash == path || trash.compare(0, path.size() + 1, path + "/") == 0) {
        *error = "The Trash cannot be moved into itself";
        return false;
    }
    const std::string files = trash + "/files", info = trash + "/info";
    if (!ensureFolder(trash, error) || !ensureFolder(files, error) || !ensureFolder(info, error))
        return false;

    // The .trashinfo is created exclusively first: it reserves the name
    // against another program trashing an item of the same name meanwhile.
    const std::string base = fs::path(path).filename().string();
    std::string name, infoPath;
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
        struct stat existing {};
        if (::lstat((files + "/" + name).c_str(), &existing) == 0) {
            ::close(fd);
            ::unlink(infoPath.c_str());
            continue;
        }
        std::string text =
            "[Trash Info]\nPath=" + percentEncode(path) + "\nDeletionDate=" + deletionDate() + "\n";
        bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ok = ::close(fd) == 0 && ok;
        if (!ok) {
            *error = infoPath + ": " + std::strerror(errno);
            ::unlink(infoPath.c_str());
            return false;
        }
        break;
    }
    RemoveOnFailure reservedInfo(infoPath);
    const std::string destination = files + "/" + name;

    if (::rename(path.c_str(), destination.c_str()) != 0) {
        if (errno != EXDEV) {
            *error = path + ": " + std::strerror(errno);
            return false;
        }
        RemoveOnFailure partialCopy(destination);
        if (!canRemoveTree(path, error) || !KTFileTree::copyTree(path, destination, error))
            return false;
        if (!KTFileTree::sameTree(path, destination)) {
            *error = "The copy of " + path + " differs from the original";
            return false;
        }
        partialCopy.release();
        fs::remove_all(path, ec);
        if (ec) {
            // The Trash holds a whole copy; the original is partly gone, so the
            // copy is the one to keep.
            *error = "Unable to remove " + path + " after copying it to the Trash: " + ec.message();
            reservedInfo.release();
            return false;
        }
    }
    reservedInfo.release();
    if (trashedPath) *trashedPath = destination;
    return true;
}
