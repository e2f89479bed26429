#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// A notice of the application launcher: an application finished launching,
/// or ended. Observers may be called on any thread.
struct KTWorkspaceNotice {
    enum class Kind { didLaunch, didTerminate };
    Kind kind = Kind::didLaunch;
    /// As the application's own Info.plist spells it.
    std::string bundleIdentifier;
    int processIdentifier = 0;
};

/// How a request to quit an application went.
enum class KTTerminateResult { requested, notRunning, refused };

/// The workspace seam: which applications this machine has, and showing a
/// file in the desktop's file manager. Application lookups answer
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

    /// Opens the folder holding `path` in the file manager, with `path`
    /// selected where the file manager can do that. True when a file manager
    /// (or the desktop's opener) was reached. The default reaches none.
    virtual bool selectFile(const std::string& path) { return false; }

    /// Opens a file in the desktop's default application for it, without
    /// waiting; false when there is no way to (no desktop opener here).
    virtual bool openFile(const std::string& path) { return false; }

    /// True when an application with that identifier is known.
    bool knowsApplication(const std::string& bundleIdentifier) {
        return absolutePathForAppBundleWithIdentifier(bundleIdentifier).has_value();
    }

    // The application launcher. Hosts are found by identifier ignoring letter
    // case, as the desktop finds them; the lookups above stay exact.

    /// Starts the application; true when it was started ("did launch" is
    /// posted by then). There is no hiding a window here.
    virtual bool launchApplication(const std::string& bundleIdentifier) { return false; }
    /// The bundle identifiers of the running applications, as spelt by each.
    virtual std::vector<std::string> runningApplicationIdentifiers() { return {}; }
    /// Asks the first running application with that identifier to quit.
    virtual KTTerminateResult terminateApplication(const std::string& bundleIdentifier) {
        return KTTerminateResult::notRunning;
    }

    using NoticeObserver = std::function<void(const KTWorkspaceNotice&)>;
    /// Registers an observer of launch and termination notices; answers the
    /// token that removes it. Once `removeNoticeObserver` has returned the
    /// observer is not running and never runs again.
    int addNoticeObserver(NoticeObserver observer);
    void removeNoticeObserver(int token);

    /// The process-wide workspace (the Linux one unless a test replaced it).
    static KTWorkspace& shared();
    /// Replaces the process-wide workspace (a test's fake); null puts the
    /// default back. The replaced one is kept alive for references still held.
    static void setShared(std::shared_ptr<KTWorkspace> workspace);

  protected:
    /// Hands a notice to every observer, on the calling thread.
    void postNotice(const KTWorkspaceNotice& notice);

  private:
    // Held while observers run, so that removal waits for a call in progress;
    // recursive, so that an observer may remove itself.
    std::recursive_mutex observersMutex_;
    std::map<int, NoticeObserver> observers_;
    int nextObserverToken_ = 1;
};
