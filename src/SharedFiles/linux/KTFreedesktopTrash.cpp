#include "SharedFiles/linux/KTFreedesktopTrash.h"

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

/// Copies a tree as it stands: folders, regular files with their contents
/// and modes, links as links. Anything else cannot be carried over.
bool copyTree(const fs::path& from, const fs::path& to, std::string* error) {
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) {
        *error = from.string() + ": " + std::strerror(errno);
        return false;
    }
    std::error_code ec;
    if (S_ISLNK(st.st_mode)) {
        fs::copy_symlink(from, to, ec);
    } else if (S_ISREG(st.st_mode)) {
        fs::copy_file(from, to, fs::copy_options::none, ec);
        if (!ec) ::chmod(to.c_str(), st.st_mode & 07777);
    } else if (S_ISDIR(st.st_mode)) {
        // A folder the item cannot be removed from afterwards must not be copied at all.
        if (::access(from.c_str(), W_OK | X_OK) != 0) {
            *error = from.string() + ": " + std::strerror(errno);
            return false;
        }
        if (::mkdir(to.c_str(), 0700) != 0) {
            *error = to.string() + ": " + std::strerror(errno);
            return false;
        }
        for (auto it = fs::directory_iterator(from, ec); !ec && it != fs::directory_iterator();
             it.increment(ec)) {
            if (!copyTree(it->path(), to / it->path().filename(), error)) return false;
        }
        if (!ec) ::chmod(to.c_str(), st.st_mode & 07777);
    } else {
        *error = from.string() + ": not a file, folder or link";
        return false;
    }
    if (ec) {
        *error = from.string() + ": " + ec.message();
        return false;
    }
    if (::geteuid() == 0) {
        if (::lchown(to.c_str(), st.st_uid, st.st_gid) != 0) {
            // Ownership is kept where it can be; the content is what counts.
        }
    }
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW);
    return true;
}

bool sameContents(const fs::path& a, const fs::path& b) {
    std::ifstream fa(a, std::ios::binary), fb(b, std::ios::binary);
    if (!fa || !fb) return false;
    char ba[65536], bb[65536];
    for (;;) {
        fa.read(ba, sizeof ba);
        fb.read(bb, sizeof bb);
        if (fa.gcount() != fb.gcount()) return false;
        if (std::memcmp(ba, bb, static_cast<std::size_t>(fa.gcount())) != 0) return false;
        if (!fa || !fb) return !fa && !fb;
    }
}

/// The copy holds every entry of the original, of the same kind, with the
/// same bytes and link targets.
bool sameTree(const fs::path& from, const fs::path& to, std::string* error) {
    struct stat a {
    }, b{};
    if (::lstat(from.c_str(), &a) != 0 || ::lstat(to.c_str(), &b) != 0 ||
        (a.st_mode & S_IFMT) != (b.st_mode & S_IFMT)) {
        *error = "The copy of " + from.string() + " differs from the original";
        return false;
    }
    std::error_code ec;
    bool same = true;
    if (S_ISREG(a.st_mode)) {
        same = a.st_size == b.st_size && sameContents(from, to);
    } else if (S_ISLNK(a.st_mode)) {
        same = fs::read_symlink(from, ec) == fs::read_symlink(to, ec) && !ec;
    } else if (S_ISDIR(a.st_mode)) {
        std::size_t inOriginal = 0, inCopy = 0;
        for (auto it = fs::directory_iterator(from, ec); !ec && it != fs::directory_iterator();
             it.increment(ec)) {
            ++inOriginal;
            if (!sameTree(it->path(), to / it->path().filename(), error)) return false;
        }
        for (auto it = fs::directory_iterator(to, ec); !ec && it != fs::directory_iterator();
             it.increment(ec))
            ++inCopy;
        same = !ec && inOriginal == inCopy;
    }
    if (!same) *error = "The copy of " + from.string() + " differs from the original";
    return same;
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
        if (!copyTree(path, destination, error) || !sameTree(path, destination, error))
            return false;
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
