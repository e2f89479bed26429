#pragma once

#include <memory>

/// A folder the catalogue scan has just listed, kept open while the plug-ins
/// found in it are classified and read: a look inside a plug-in (its lock
/// marker, its Info.plist, its resources) then walks the plug-in's name and
/// one or two more from here, instead of its whole absolute path one
/// component at a time. How many are kept at once is bounded process-wide (a
/// share of the descriptor limit); past the bound there is none and callers
/// look by path as before.
class KTOpenFolder {
  public:
    /// A descriptor of its own for the folder open as `fd` (close-on-exec),
    /// or null past the bound or when it cannot be had.
    static std::shared_ptr<const KTOpenFolder> keep(int fd);
    ~KTOpenFolder();
    KTOpenFolder(const KTOpenFolder&) = delete;
    KTOpenFolder& operator=(const KTOpenFolder&) = delete;

    int fd() const { return fd_; }
    /// How many are open now (for tests).
    static int openCount();

  private:
    explicit KTOpenFolder(int fd) : fd_(fd) {}
    int fd_;
};
