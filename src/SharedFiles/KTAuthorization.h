#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class KTPrivilegedHelper;

/// The one place where the program gains administrator rights and changes
/// files with them. Callers first try the ordinary call and come here only
/// when it fails for lack of permission; after each privileged step they
/// pause 1 second before checking the disk, because the tools run without
/// being waited for.
///
/// As root (uid 0) nothing is asked and the tools run directly through
/// `KTTaskEx`. Otherwise the right is one running `ambrel-helper` (beside
/// `ambrel`, or where the build put it; never chosen by the environment),
/// started once through the elevation command — "pkexec" (polkit shows its
/// own prompt), or the words of AMBREL_ELEVATE when that is set, e.g.
/// "sudo -n" — and kept until `authEnd` or the end of the process. The
/// helper takes the steps of mv, cp, rm, mkdir, chown and chmod itself, with
/// the arguments these operations use, only in the requesting user's plug-in
/// places and never through a link (see KTHelperOperations).
///
/// Statuses of `authExecTask`: 0 done (or launched, as root), -1 no right
/// (refused, cancelled, no interface), -2 no such tool, `kStatusRefused` the
/// helper would not take the step, `kStatusFailed` it took it and it failed.
/// Refusals go to stderr; refused and failed steps are also logged with
/// their tool and paths.
///
/// Under sudo (uid 0 with SUDO_USER) the folders and the Trash are those of
/// SUDO_USER: `userDirectory` is recorded, trashed items go into that user's
/// Trash and are given back to that user.
class KTAuthorization {
  public:
    /// The helper was reached but would not run the request (tool or
    /// arguments outside its list), or the helper went away mid-request.
    static constexpr std::int32_t kStatusRefused = -60031;
    /// The helper took the step and it failed (nothing there, disk full...);
    /// what it had begun is undone.
    static constexpr std::int32_t kStatusFailed = -60032;

    /// The shared instance, created on first call with or without a user
    /// interface; later calls answer the same instance whatever the flag.
    static KTAuthorization* sharedController(bool withGUI = true);

    ~KTAuthorization();
    KTAuthorization(const KTAuthorization&) = delete;
    KTAuthorization& operator=(const KTAuthorization&) = delete;

    bool hasGUI() const;
    void setHasGUI(bool hasGUI);
    /// The kept right: the running helper, or null while none is held.
    std::shared_ptr<KTPrivilegedHelper> authRef() const;
    void setAuthRef(std::shared_ptr<KTPrivilegedHelper> ref);
    /// The starting user's home: recorded when not root, or root under sudo;
    /// empty for a plain root process.
    const std::string& userDirectory() const { return userDirectory_; }

    /// True as root or while the helper runs.
    bool isAuthorized() const;
    /// True with a user interface, or as root.
    bool canAuthorize() const;

    /// Gains the right once (the prompt is polkit's own); without a user
    /// interface it fails with "Unable to authorize" unless root.
    bool authStart();
    /// Gains the right with the given account through "sudo -S"; `user` must
    /// be the login of this process (sudo checks only the invoking user).
    bool authStartWithUser(const std::string& user, const std::string& password);
    /// Stops the helper (the right is gone until the next `authStart`).
    void authEnd();

    /// "/bin/rm" "-Rdf" path; refuses system folders (exact match).
    bool authRemoveFile(const std::string& path);
    /// Moves the item into the user's Trash; a name already there gets
    /// "_YYYYmmddHHMMSS" before its extension ("Foo_20240131235959.plugin",
    /// "Plug_20240131235959."). With `deleteOnRootAccount`, a plain root
    /// process without a recorded user removes the Trash target instead.
    bool authTrashFile(const std::string& path, bool deleteOnRootAccount = false);
    /// Trashes each entry of `folder`; true only when every entry went.
    bool authTrashFolderContents(const std::string& folder, bool deleteOnRootAccount = false);
    /// Moves each entry of `from` into `to`; true only when every entry moved.
    bool authMoveFolderContents(const std::string& from, const std::string& to);
    /// "/bin/mv" "-f" old new; refuses a system folder as the source.
    bool authMoveFile(const std::string& oldPath, const std::string& newPath);
    /// "/bin/cp" "-f" "-p" "-R" old new; a missing source fails silently.
    bool authCopyFile(const std::string& oldPath, const std::string& newPath);
    /// "/bin/mkdir" "-p" path.
    bool authCreateDir(const std::string& path);
    /// Runs `tool` (a macOS tool path, mapped by `KTToolPaths`) with
    /// administrator rights. `async` false waits for the tool to end; the
    /// status is the launch status either way, never the tool's exit code.
    std::int32_t authExecTask(const std::string& tool, const std::vector<std::string>& arguments,
                              bool async = true);

    /// True when the process runs as root (real or effective user id 0).
    static bool runningAsRoot();

  private:
    explicit KTAuthorization(bool withGUI);

    mutable std::mutex lock_;
    std::mutex startLock_;
    std::shared_ptr<KTPrivilegedHelper> authRef_;
    bool hasGUI_ = true;
    std::string userDirectory_;
};
