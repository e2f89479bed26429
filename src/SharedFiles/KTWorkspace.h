#pragma once

#include <memory>
#include <optional>
#include <string>

/// The workspace seam: which applications this machine has. Lookups answer
/// from a list the implementation keeps; `refreshApplications` rebuilds it,
/// so callers refresh once per catalogue load or folder-table build and then
/// ask as often as they like without touching the disk again.
class KTWorkspace {
  public:
    virtual ~KTWorkspace() = default;

    /// The full path of an application whose bundle identifier is exactly
    /// `bundleIdentifier` (letter case counts), or nothing.
    virtual std::optional<std::string> absolutePathForAppBundleWithIdentifier(
        const std::string& bundleIdentifier) = 0;

    /// Forgets the list of applications; the next lookup reads the disk afresh.
    virtual void refreshApplications() = 0;

    /// Opens a file in the desktop's default application for it, without
    /// waiting; false when there is no way to (no desktop opener here).
    virtual bool openFile(const std::string& path) { return false; }

    /// True when an application with that identifier is known.
    bool knowsApplication(const std::string& bundleIdentifier) {
        return absolutePathForAppBundleWithIdentifier(bundleIdentifier).has_value();
    }

    /// The process-wide workspace (the Linux one unless a test replaced it).
    static KTWorkspace& shared();
    /// Replaces the process-wide workspace (a test's fake); null puts the
    /// default back. The replaced one is kept alive for references still held.
    static void setShared(std::shared_ptr<KTWorkspace> workspace);
};
