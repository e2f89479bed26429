#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "SharedFiles/KTWorkspace.h"

/// Applications on Linux: ".app" bundles in the machine's and the user's
/// Applications folders, directly or one sub-folder down (as "Utilities/X.app"
/// or a vendor's folder holds them), each known by the CFBundleIdentifier of
/// its Contents/Info.plist. The list is read on the first lookup after a
/// refresh and kept; lookups from several threads are safe.
class KTLinuxWorkspace : public KTWorkspace {
  public:
    std::optional<std::string> absolutePathForAppBundleWithIdentifier(
        const std::string& bundleIdentifier) override;
    void refreshApplications() override;
    /// Through "xdg-open", which hands the file to the desktop's default viewer.
    bool openFile(const std::string& path) override;

    /// The folders searched, machine-wide first.
    static std::vector<std::string> applicationFolders();
    /// Reads every application bundle of the folders: identifier -> path.
    /// When two bundles share an identifier the first found wins.
    static std::map<std::string, std::string> scanApplications();

  private:
    std::mutex mutex_;
    bool loaded_ = false;
    std::map<std::string, std::string> applications_;
};
