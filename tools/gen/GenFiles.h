#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <unordered_set>

namespace gen {

/// Writes the tree with plain system calls: no fsync and no temporary files,
/// since a tree of 100,000 bundles must be made in seconds and a half-written
/// one is simply generated again. Folders already made are remembered so a
/// deep path costs one mkdir per new level. The first failure is kept and
/// every later call does nothing.
class FileWriter {
  public:
    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }
    std::size_t filesWritten() const { return files_; }

    /// mkdir -p.
    bool makeDirs(const std::string& path) {
        if (!ok()) return false;
        if (path.empty() || made_.count(path)) return true;
        const auto slash = path.find_last_of('/');
        if (slash != std::string::npos && slash > 0 && !makeDirs(path.substr(0, slash)))
            return false;
        if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return fail(path);
        made_.insert(path);
        return true;
    }

    /// Writes a whole file, making its folder first.
    bool writeFile(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
        if (!ok()) return false;
        const auto slash = path.find_last_of('/');
        if (slash != std::string::npos && slash > 0 && !makeDirs(path.substr(0, slash)))
            return false;
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
        if (fd >= 0 && mode != 0644) ::fchmod(fd, mode);  // the umask may have cut it
        if (fd < 0) return fail(path);
        std::size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
            if (n < 0) {
                if (errno == EINTR) continue;
                ::close(fd);
                return fail(path);
            }
            done += static_cast<std::size_t>(n);
        }
        if (::close(fd) != 0) return fail(path);
        ++files_;
        return true;
    }

  private:
    bool fail(const std::string& path) {
        error_ = path + ": " + std::strerror(errno);
        return false;
    }

    std::unordered_set<std::string> made_;
    std::string error_;
    std::size_t files_ = 0;
};

}  // namespace gen
