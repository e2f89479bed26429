#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "SharedFiles/KTWorkspace.h"

class KTProcessWatcher;

/// Applications on Linux: ".app" bundles in the machine's and the user's
/// Applications folders, directly or one sub-folder down (as "Utilities/X.app"
/// or a vendor's folder holds them), each known by the CFBundleIdentifier of
/// its Contents/Info.plist. The list is read on the first lookup after a
/// refresh and kept; lookups from several threads are safe.
///
/// The launcher reads the folders afresh on each call (an application
/// installed a moment ago can be launched): a launch runs
/// Contents/MacOS/<CFBundleExecutable> in a session of its own with the
/// standard streams on /dev/null; running applications are found in /proc by
/// their executable, or for a script by the first or second word of its
/// command line; quitting sends SIGTERM.
///
/// A file is shown through the freedesktop file-manager interface
/// (org.freedesktop.FileManager1 ShowItems on the session bus), which opens
/// its folder with the file selected; without a bus or a file manager that
/// serves it, the folder is handed to xdg-open.
class KTLinuxWorkspace : public KTWorkspace {
  public:
    KTLinuxWorkspace();
    ~KTLinuxWorkspace() override;

    std::optional<std::string> absolutePathForAppBundleWithIdentifier(
        const std::string& bundleIdentifier) override;
    void refreshApplications() override;
    bool selectFile(const std::string& path) override;

    /// The ShowItems call alone: true when a file manager answered it.
    static bool showItemsOnSessionBus(const std::string& path);
    /// xdg-open of the folder holding `path`, found on PATH: true when started.
    static bool openContainingFolder(const std::string& path);

    bool launchApplication(const std::string& bundleIdentifier) override;
    std::vector<std::string> runningApplicationIdentifiers() override;
    KTTerminateResult terminateApplication(const std::string& bundleIdentifier) override;

    /// The bundle whose identifier equals `bundleIdentifier` ignoring letter
    /// case, with its identifier as spelt in its Info.plist.
    static std::optional<std::pair<std::string, std::string>> findApplicationIgnoringCase(
        const std::string& bundleIdentifier);
    /// A bundle's executable: Contents/MacOS/<CFBundleExecutable>; "" without one.
    static std::string executablePath(const std::string& bundle);
    /// The running processes of known applications: pid -> bundle identifier.
    static std::map<pid_t, std::string> runningApplications();

    /// Through "xdg-open", which hands the file to the desktop's default viewer.
    bool openFile(const std::string& path) override;

    /// The folders searched, machine-wide first.
    static std::vector<std::string> applicationFolders();
    /// Reads every application bundle of the folders: identifier -> path.
    /// When two bundles share an identifier the first found wins.
    static std::map<std::string, std::string> scanApplications();

  private:
    std::mutex mutex_;
    std::mutex watcherMutex_;
    std::unique_ptr<KTProcessWatcher> watcher_;  ///< made on the first launch
    bool loaded_ = false;
    std::map<std::string, std::string> applications_;
};
