#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "diagnostics/KTCrashTestJournal.h"

class AppController;
class KTCrashTestView;
class KTPluginItem;
class KTWorkspace;
struct KTCrashTestHost;
struct KTWorkspaceNotice;

/// How a crash test ended.
enum class KTCrashTestOutcome {
    none,               ///< no test has ended yet
    culpritFound,       ///< one or more plug-ins found and left disabled
    notReproduced,      ///< the host survived with every plug-in enabled
    notCausedByPlugin,  ///< it crashed with every candidate disabled
    aborted,            ///< host already running, launch or close failure, cancelled
};

/// The crash tester: finds the plug-ins that make a host crash at start-up
/// by disabling its candidate plug-ins and relaunching it until it survives.
///
/// One at a time (the default) it disables the candidates cumulatively, in
/// catalogue order, relaunching after each; the plug-in whose disabling first
/// lets the host survive is the culprit. Halving disables half of the
/// remaining suspects at a time instead and, when several plug-ins each crash
/// the host, finds all of them, proven by a last relaunch that survives with
/// exactly those disabled. Every other plug-in the test disabled is enabled
/// again at every end, and each one is written to a journal before it is
/// disabled, so that a test killed halfway is undone at the next start.
///
/// Owned by the application controller; the test runs on a thread of its
/// own from the dialog, on the calling thread from the command line.
class KTCrashTester {
  public:
    explicit KTCrashTester(AppController& app);
    /// Cancels a running test and waits for its clean-up.
    ~KTCrashTester();
    KTCrashTester(const KTCrashTester&) = delete;
    KTCrashTester& operator=(const KTCrashTester&) = delete;

    // Read when a test starts (the dialog's pop-up and check box).
    void setHostIndex(int index) { hostIndex_ = index; }
    int hostIndex() const { return hostIndex_; }
    void setHalving(bool on) { halving_ = on; }
    bool halving() const { return halving_; }
    /// The dialog; null without one. Set and cleared on the main thread.
    void setView(KTCrashTestView* view);

    bool testRunning() const { return testRunning_; }
    bool hostLaunched() const { return hostLaunched_; }
    bool hostTerminated() const { return hostTerminated_; }
    bool cancelRequested() const { return cancelRequested_; }
    /// Seen at the next check, at most one poll late during a wait.
    void requestCancel() { cancelRequested_ = true; }
    /// The flag itself, for a signal handler (a lock-free store is all it does).
    std::atomic<bool>& cancelFlag() { return cancelRequested_; }

    /// The Run/Cancel button: starts a test on a thread of its own, or asks
    /// the running one to stop.
    void runCrashTestClick();
    /// The whole test, on the calling thread.
    KTCrashTestOutcome runCrashTest();
    /// Returns when no test runs (not to be called from the test's thread).
    void waitUntilIdle();

    /// The launcher's notices: a match of the host's identifier, ignoring
    /// letter case, sets host launched or host terminated.
    void appLaunched(const KTWorkspaceNotice& notice);
    void appTerminated(const KTWorkspaceNotice& notice);
    /// Asks the host to quit; false (logged and printed) when none runs or
    /// the request is refused.
    bool quitAppWithBundleID(const std::string& bundleIdentifier);
    /// Enables every plug-in of `list` that is disabled, removes the notice
    /// observers, resets the dialog, clears the journal, reloads when asked.
    void cleanupCrashTest(const std::vector<std::string>* list, bool reloadData);
    /// Logs the text, prints it without an interface, shows it in the dialog.
    void updateCrashTestStatus(const std::string& text);

    /// The candidate plug-ins of a host, as enabled paths in catalogue order.
    std::vector<std::string> crashTestList(const KTCrashTestHost& host);

    // The last test's results.
    KTCrashTestOutcome outcome() const { return outcome_; }
    int relaunchCount() const { return relaunches_; }
    /// The culprits' enabled paths, in list order.
    std::vector<std::string> culprits() const;

    /// At start-up: enables every plug-in named by the journal of a test that
    /// never finished. Answers how many were named.
    int replayJournal();

  private:
    enum class Launch { crashed, survived, launchFailed, closeFailed, cancelled };
    enum class Wait { done, timedOut, cancelled };

    KTCrashTestOutcome run();
    KTCrashTestOutcome runOneByOne(const KTCrashTestHost& host,
                                   const std::vector<std::string>& list);
    KTCrashTestOutcome runHalving(const KTCrashTestHost& host,
                                  const std::vector<std::string>& list);
    /// Brings the disk to: the first `prefix` plug-ins of the list (below
    /// `limit`) and every culprit disabled, all others enabled.
    void arrange(const std::vector<std::string>& list, std::size_t prefix, std::size_t limit,
                 const std::vector<bool>& culprit, std::vector<bool>& disabled);
    Launch launchHost(const KTCrashTestHost& host);
    Wait waitFor(const std::atomic<bool>& flag);
    void pause();

    bool disablePlugin(const std::string& path, bool journal);
    bool enablePlugin(const std::string& path);
    std::shared_ptr<KTPluginItem> pluginForPath(const std::string& path);
    std::string shortNameForPath(const std::string& path);

    /// An end's texts: the log line (printed without an interface) and the
    /// alert's two sentences (with one).
    void report(const std::string& logLine, const std::string& message,
                const std::string& informative);
    /// Ends after a failed launch, a failed close or a cancel: the messages
    /// and the clean-up each asks for.
    KTCrashTestOutcome abortAfter(Launch result, const KTCrashTestHost& host,
                                  const std::vector<std::string>& list);
    KTCrashTestOutcome notReproduced(const KTCrashTestHost& host,
                                     const std::vector<std::string>& list);
    KTCrashTestOutcome notCausedByPlugin(const KTCrashTestHost& host,
                                         const std::vector<std::string>& list);
    KTCrashTestOutcome culpritsFound(const KTCrashTestHost& host,
                                     const std::vector<std::string>& list,
                                     const std::vector<std::string>& found, bool oneByOne);
    void reportRelaunches(const KTCrashTestHost& host);
    void onMain(const std::function<void()>& work);
    void withView(const std::function<void(KTCrashTestView&)>& work);

    AppController& app_;
    KTCrashTestView* view_ = nullptr;  ///< touched on the main thread only
    std::atomic<int> hostIndex_{0};
    std::atomic<bool> halving_{false};

    std::atomic<bool> hostLaunched_{false};
    std::atomic<bool> hostTerminated_{false};
    std::atomic<bool> testRunning_{false};
    std::atomic<bool> cancelRequested_{false};
    std::string hostIdentifier_;  ///< the running test's host; set before observing

    KTWorkspace* workspace_ = nullptr;
    int observerToken_ = 0;
    KTCrashTestJournal journal_;

    std::atomic<KTCrashTestOutcome> outcome_{KTCrashTestOutcome::none};
    std::atomic<int> relaunches_{0};
    mutable std::mutex resultsLock_;
    std::vector<std::string> culprits_;

    std::mutex idleLock_;
    std::condition_variable idle_;
};
