#include "diagnostics/KTCrashTester.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTTimeScale.h"
#include "SharedFiles/KTUserInterface.h"
#include "SharedFiles/KTWorkspace.h"
#include "app/core/AppController.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "diagnostics/KTCrashTestHost.h"
#include "diagnostics/KTCrashTestView.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kPoll = 1s;
constexpr auto kPhaseLimit = 30s;

bool sameIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

void printLine(const std::string& text) {
    std::fputs((text + "\n").c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace

KTCrashTester::KTCrashTester(AppController& app) : app_(app) {}

KTCrashTester::~KTCrashTester() {
    requestCancel();
    waitUntilIdle();
}

void KTCrashTester::setView(KTCrashTestView* view) {
    view_ = view;
}

std::vector<std::string> KTCrashTester::culprits() const {
    std::lock_guard<std::mutex> lock(resultsLock_);
    return culprits_;
}

void KTCrashTester::onMain(const std::function<void()>& work) {
    KTMainThread::shared().runAndWait(work);
}

void KTCrashTester::withView(const std::function<void(KTCrashTestView&)>& work) {
    if (!app_.hasGUI()) return;
    onMain([&] {
        if (view_) work(*view_);
    });
}

void KTCrashTester::waitUntilIdle() {
    std::unique_lock<std::mutex> lock(idleLock_);
    idle_.wait(lock, [this] { return !testRunning_; });
}

void KTCrashTester::runCrashTestClick() {
    if (testRunning_) {
        requestCancel();
        return;
    }
    // Marked here, not on the new thread, so that a second click cancels.
    testRunning_ = true;
    cancelRequested_ = false;
    app_.batchThreads().start([this] { runCrashTest(); });
}

KTCrashTestOutcome KTCrashTester::runCrashTest() {
    testRunning_ = true;
    KTCrashTestOutcome result = KTCrashTestOutcome::aborted;
    try {
        result = run();
    } catch (const std::exception& e) {
        KTException::logException(e, "-[AppController runCrashTest]");
    }
    outcome_ = result;
    {
        std::lock_guard<std::mutex> lock(idleLock_);
        // Cleared at the end, not the start: a cancel that came before the
        // test's thread did (a closing window) still stops it.
        cancelRequested_ = false;
        testRunning_ = false;
    }
    idle_.notify_all();
    return result;
}

KTCrashTestOutcome KTCrashTester::run() {
    relaunches_ = 0;
    {
        std::lock_guard<std::mutex> lock(resultsLock_);
        culprits_.clear();
    }
    KTLog::appendLog("Running crash test...");
    const bool gui = app_.hasGUI();
    if (gui) {
        KTAuthorization* auth = KTAuthorization::sharedController();
        if (!auth->isAuthorized()) auth->authStart();
        withView([](KTCrashTestView& v) { v.resizeCrashTestDialog(true); });
    }

    const KTCrashTestHost& host = KTCrashTestHost::forIndex(hostIndex_);
    KTWorkspace& workspace = KTWorkspace::shared();
    // An exact comparison: the desktop's list of running applications is.
    const std::vector<std::string> running = workspace.runningApplicationIdentifiers();
    if (std::find(running.begin(), running.end(), host.bundleIdentifier) != running.end()) {
        KTLog::appendLog("%@ is running. Please close it before launching the test.", host.name);
        const std::string please =
            KTFormat::str("Please close %@ before running the test.", host.name);
        if (!gui) printLine(please);
        if (gui && app_.userInterface()) app_.userInterface()->runAlert({please, "", {}});
        withView([](KTCrashTestView& v) { v.resizeCrashTestDialog(false); });
        return KTCrashTestOutcome::aborted;
    }

    if (cancelRequested_) {
        cleanupCrashTest(nullptr, false);
        return KTCrashTestOutcome::aborted;
    }
    withView([](KTCrashTestView& v) { v.startCrashTestProgress(); });
    updateCrashTestStatus("Initializing...");
    hostIdentifier_ = host.bundleIdentifier;
    workspace_ = &workspace;
    observerToken_ = workspace.addNoticeObserver([this](const KTWorkspaceNotice& notice) {
        if (notice.kind == KTWorkspaceNotice::Kind::didLaunch) {
            appLaunched(notice);
        } else {
            appTerminated(notice);
        }
    });
    const std::vector<std::string> list = crashTestList(host);
    if (cancelRequested_) {
        cleanupCrashTest(nullptr, false);
        return KTCrashTestOutcome::aborted;
    }
    if (!journal_.begin()) {
        report(
            "Another crash test is running, or its journal cannot be written. Crash Test "
            "aborted.",
            "Another crash test is running.", "Crash Test aborted.");
        cleanupCrashTest(nullptr, false);
        return KTCrashTestOutcome::aborted;
    }
    return halving_ ? runHalving(host, list) : runOneByOne(host, list);
}

std::vector<std::string> KTCrashTester::crashTestList(const KTCrashTestHost& host) {
    OutlineViewController& outline = app_.outlineViewController();
    std::vector<std::string> list;
    KTPluginLocations::FolderCache folders;
    for (const std::string& path : app_.listPlugins(false, false)) {
        auto item = outline.pluginFromPath(path);
        if (item && host.isCandidateKind(item->pluginType())) list.push_back(path);
    }
    return list;
}

// ---- The two searches --------------------------------------------------------

KTCrashTestOutcome KTCrashTester::runOneByOne(const KTCrashTestHost& host,
                                              const std::vector<std::string>& list) {
    const int n = static_cast<int>(list.size());
    withView([n](KTCrashTestView& v) { v.setupCrashTestProgressBar(n); });
    for (int r = 0; r <= n; ++r) {
        if (cancelRequested_) return abortAfter(Launch::cancelled, host, list);
        if (r == 0) {
            updateCrashTestStatus("Performing test pass...");
        } else {
            const std::string& path = list[static_cast<std::size_t>(r - 1)];
            updateCrashTestStatus(
                KTFormat::str("Processing %@ (%i of %i)", shortNameForPath(path), r, n));
            withView([](KTCrashTestView& v) { v.incrementCrashTestProgress(); });
            // Earlier ones stay disabled: the search is cumulative.
            disablePlugin(path, true);
            pause();
        }
        const Launch result = launchHost(host);
        if (result == Launch::crashed) continue;
        if (result != Launch::survived) return abortAfter(result, host, list);
        if (r == 0) return notReproduced(host, list);
        return culpritsFound(host, list, {list[static_cast<std::size_t>(r - 1)]}, true);
    }
    return notCausedByPlugin(host, list);
}

KTCrashTestOutcome KTCrashTester::runHalving(const KTCrashTestHost& host,
                                             const std::vector<std::string>& list) {
    const std::size_t n = list.size();
    // About log2(n) + 2 relaunches for one culprit; more for several.
    const double estimate = std::ceil(std::log2(static_cast<double>(n) + 1)) + 2;
    withView([estimate](KTCrashTestView& v) { v.setupCrashTestProgressBar(estimate); });
    std::vector<bool> disabled(n, false), culprit(n, false);

    // One relaunch with the first `prefix` suspects below `limit` (and the
    // culprits found so far) disabled; nothing when cancelled.
    std::size_t limit = n;
    bool survivorRunning = false;
    auto trial = [&](std::size_t prefix) -> Launch {
        if (cancelRequested_) return Launch::cancelled;
        // A host that survived the last relaunch is still up: it goes first.
        if (survivorRunning) {
            survivorRunning = false;
            onMain([&] { quitAppWithBundleID(host.bundleIdentifier); });
            const Wait closed = waitFor(hostTerminated_);
            if (closed == Wait::timedOut) return Launch::closeFailed;
            if (closed == Wait::cancelled) return Launch::cancelled;
        }
        arrange(list, prefix, limit, culprit, disabled);
        const long count = std::count(disabled.begin(), disabled.end(), true);
        updateCrashTestStatus(count == 0
                                  ? std::string("Performing test pass...")
                                  : KTFormat::str("Testing with %li of %li plugins disabled...",
                                                  count, static_cast<long>(n)));
        withView([](KTCrashTestView& v) { v.incrementCrashTestProgress(); });
        if (count > 0) pause();
        const Launch result = launchHost(host);
        survivorRunning = result == Launch::survived;
        return result;
    };

    Launch result = trial(0);
    if (result == Launch::survived) return notReproduced(host, list);
    if (result != Launch::crashed) return abortAfter(result, host, list);

    std::vector<std::string> found;
    // Invariants: the first `lo` suspects disabled still crashes; the first
    // `hi` disabled survives (once proven).
    std::size_t lo = 0, hi = n;
    bool hiProven = false;
    for (;;) {
        while (hi > lo && (hi - lo > 1 || !hiProven)) {
            const std::size_t mid = hi - lo > 1 ? lo + (hi - lo) / 2 : hi;
            result = trial(mid);
            if (result == Launch::survived) {
                hi = mid;
                hiProven = true;
            } else if (result == Launch::crashed) {
                lo = mid;
            } else {
                return abortAfter(result, host, list);
            }
        }
        // No suspect's disabling lets it survive (or the host is unsteady).
        if (!hiProven || hi == 0) break;
        // Disabling suspect hi - 1 was what made the difference.
        culprit[hi - 1] = true;
        found.insert(found.begin(), list[hi - 1]);
        limit = hi - 1;
        // The proof: only the culprits disabled. Should it still crash,
        // another culprit lies before this one (all after it were enabled
        // when it survived).
        result = trial(0);
        if (result == Launch::survived) {
            return culpritsFound(host, list, found, false);
        }
        if (result != Launch::crashed) return abortAfter(result, host, list);
        lo = 0;
        hi = limit;
    }
    return notCausedByPlugin(host, list);
}

void KTCrashTester::arrange(const std::vector<std::string>& list, std::size_t prefix,
                            std::size_t limit, const std::vector<bool>& culprit,
                            std::vector<bool>& disabled) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        const bool want = culprit[i] || (i < prefix && i < limit);
        if (want == disabled[i]) continue;
        // A move that fails is reported by the move; the test goes on.
        if (want) {
            disablePlugin(list[i], true);
        } else {
            enablePlugin(list[i]);
        }
        disabled[i] = want;
    }
}

// ---- One relaunch ---------------------------------------------------------------

KTCrashTester::Wait KTCrashTester::waitFor(const std::atomic<bool>& flag) {
    const auto deadline = std::chrono::steady_clock::now() + KTTimeScale::scaled(kPhaseLimit);
    for (;;) {
        if (flag) return Wait::done;
        if (cancelRequested_) return Wait::cancelled;
        if (std::chrono::steady_clock::now() >= deadline) return Wait::timedOut;
        std::this_thread::sleep_for(KTTimeScale::scaled(kPoll));
    }
}

void KTCrashTester::pause() {
    std::this_thread::sleep_for(KTTimeScale::scaled(kPoll));
}

KTCrashTester::Launch KTCrashTester::launchHost(const KTCrashTestHost& host) {
    hostLaunched_ = false;
    hostTerminated_ = false;
    ++relaunches_;
    if (!workspace_->launchApplication(host.bundleIdentifier)) return Launch::launchFailed;
    switch (waitFor(hostLaunched_)) {
        case Wait::timedOut:
            return Launch::launchFailed;
        case Wait::cancelled:
            return Launch::cancelled;
        case Wait::done:
            break;
    }
    switch (waitFor(hostTerminated_)) {
        case Wait::timedOut:
            return Launch::survived;  // and is left running
        case Wait::cancelled:
            return Launch::cancelled;
        case Wait::done:
            break;
    }
    if (cancelRequested_) return Launch::cancelled;
    // In case it is still up.
    onMain([&] { quitAppWithBundleID(host.bundleIdentifier); });
    switch (waitFor(hostTerminated_)) {
        case Wait::timedOut:
            return Launch::closeFailed;
        case Wait::cancelled:
            return Launch::cancelled;
        case Wait::done:
            break;
    }
    return Launch::crashed;
}

void KTCrashTester::appLaunched(const KTWorkspaceNotice& notice) {
    if (sameIgnoringCase(notice.bundleIdentifier, hostIdentifier_)) hostLaunched_ = true;
}

void KTCrashTester::appTerminated(const KTWorkspaceNotice& notice) {
    if (sameIgnoringCase(notice.bundleIdentifier, hostIdentifier_)) hostTerminated_ = true;
}

bool KTCrashTester::quitAppWithBundleID(const std::string& bundleIdentifier) {
    switch (KTWorkspace::shared().terminateApplication(bundleIdentifier)) {
        case KTTerminateResult::requested:
            return true;
        case KTTerminateResult::notRunning:
            KTLog::appendLogAndPrint("Unable to quit - app is not running");
            return false;
        case KTTerminateResult::refused:
            KTLog::appendLogAndPrint("Unable to quit - app did not terminate");
            return false;
    }
    return false;
}

// ---- Moves ------------------------------------------------------------------------

std::shared_ptr<KTPluginItem> KTCrashTester::pluginForPath(const std::string& path) {
    OutlineViewController& outline = app_.outlineViewController();
    // The list holds enabled paths; a plug-in the test has disabled is known
    // by its place below the disabled folder.
    if (auto item = outline.pluginFromPath(path)) return item;
    return outline.pluginFromPath(KTPluginLocations::disabledPathForPath(path));
}

std::string KTCrashTester::shortNameForPath(const std::string& path) {
    auto item = pluginForPath(path);
    return item ? item->shortName() : path;
}

bool KTCrashTester::disablePlugin(const std::string& path, bool journal) {
    auto item = pluginForPath(path);
    if (!item) return false;
    // Written before the move: a test killed in between leaves a name too
    // many in the journal, never one too few.
    if (journal) journal_.add(path);
    return app_.outlineViewController().moveFilter(item, 0);
}

bool KTCrashTester::enablePlugin(const std::string& path) {
    auto item = pluginForPath(path);
    if (!item) return false;
    item->updateActualPath();
    // Never reached by the test: nothing to undo.
    if (!KTPluginLocations::isDisabledPath(item->actualPath())) return true;
    return app_.outlineViewController().moveFilter(item, 1);
}

// ---- Ends -------------------------------------------------------------------------

void KTCrashTester::updateCrashTestStatus(const std::string& text) {
    KTLog::appendLog(text);
    if (!app_.hasGUI()) printLine(text);
    withView([&text](KTCrashTestView& v) { v.updateCrashTestStatus(text); });
}

void KTCrashTester::report(const std::string& logLine, const std::string& message,
                           const std::string& informative) {
    if (app_.hasGUI()) {
        KTLog::appendLog(logLine);
        if (app_.userInterface()) app_.userInterface()->runAlert({message, informative, {}});
    } else {
        KTLog::appendLogAndPrint(logLine);
    }
}

void KTCrashTester::reportRelaunches(const KTCrashTestHost& host) {
    const std::string line =
        KTFormat::str("Crash Tester relaunched %@ %i times.", host.name, relaunches_.load());
    KTLog::appendLog(line);
    if (!app_.hasGUI()) printLine(line);
}

KTCrashTestOutcome KTCrashTester::abortAfter(Launch result, const KTCrashTestHost& host,
                                             const std::vector<std::string>& list) {
    switch (result) {
        case Launch::launchFailed:
            report(KTFormat::str("Unable to launch %@. Crash Test aborted.", host.name),
                   KTFormat::str("Unable to launch %@", host.name), "Crash Test aborted.");
            cleanupCrashTest(&list, true);
            break;
        case Launch::closeFailed:
            report(KTFormat::str("Unable to close %@. Crash test aborted.", host.name),
                   KTFormat::str("Unable to close %@.", host.name), "Crash Test aborted.");
            cleanupCrashTest(&list, true);
            break;
        default:
            KTLog::appendLog("Crash test cancelled.");
            if (!app_.hasGUI()) printLine("Crash test cancelled.");
            cleanupCrashTest(&list, false);
            break;
    }
    reportRelaunches(host);
    return KTCrashTestOutcome::aborted;
}

KTCrashTestOutcome KTCrashTester::notReproduced(const KTCrashTestHost& host,
                                                const std::vector<std::string>& list) {
    report(
        "Crash Tester has been unable to replicate the crash. Test aborted. Crash Tester is "
        "designed to locate plugins that crash at startup.",
        "Crash Tester has been unable to reproduce the crash. Test aborted.",
        "Crash Tester is designed to locate plugins that crash at startup.");
    cleanupCrashTest(&list, true);
    reportRelaunches(host);
    return KTCrashTestOutcome::notReproduced;
}

KTCrashTestOutcome KTCrashTester::notCausedByPlugin(const KTCrashTestHost& host,
                                                    const std::vector<std::string>& list) {
    report(
        "Crash Tester was unable to discover the cause of the crash. It is likely that the crash "
        "is not caused by a plugin.",
        "Crash Tester was unable to discover the cause of the crash.",
        "It is likely that the crash is not caused by a plugin.");
    cleanupCrashTest(&list, true);
    reportRelaunches(host);
    return KTCrashTestOutcome::notCausedByPlugin;
}

KTCrashTestOutcome KTCrashTester::culpritsFound(const KTCrashTestHost& host,
                                                const std::vector<std::string>& list,
                                                const std::vector<std::string>& found,
                                                bool oneByOne) {
    std::vector<std::string> names;
    for (const std::string& path : found) names.push_back(shortNameForPath(path));
    for (const std::string& name : names) {
        const std::string line = KTFormat::str(
            "Crash Tester found problems with the \"%@\" plugin. This plugin has been disabled.",
            name);
        KTLog::appendLog(line);
        if (!app_.hasGUI()) printLine(line);
    }
    if (app_.hasGUI() && app_.userInterface()) {
        std::string joined;
        for (const std::string& name : names) joined += (joined.empty() ? "" : ", ") + name;
        app_.userInterface()->runAlert(
            names.size() == 1
                ? KTAlert{KTFormat::str("Crash Tester found problems with the \"%@\" plugin.",
                                        names.front()),
                          "This plugin has been disabled.",
                          {}}
                : KTAlert{KTFormat::str("Crash Tester found problems with %i plugins.",
                                        static_cast<int>(names.size())),
                          KTFormat::str("These plugins have been disabled: %@.", joined),
                          {}});
    }
    {
        std::lock_guard<std::mutex> lock(resultsLock_);
        culprits_ = found;
    }
    if (oneByOne) {
        // Everything the test disabled comes back, then the culprit goes again.
        cleanupCrashTest(&list, false);
        for (const std::string& path : found) disablePlugin(path, false);
    } else {
        // The proof left exactly the culprits disabled: they stay.
        std::vector<std::string> others;
        for (const std::string& path : list) {
            if (std::find(found.begin(), found.end(), path) == found.end()) others.push_back(path);
        }
        cleanupCrashTest(&others, false);
    }
    app_.reloadData();
    reportRelaunches(host);
    return KTCrashTestOutcome::culpritFound;
}

void KTCrashTester::cleanupCrashTest(const std::vector<std::string>* list, bool reloadData) {
    try {
        KTLog::appendLog("Cleaning up crash test...");
        // The moves run on this thread, which waits for them as it would for
        // the main thread; the window stays live meanwhile.
        if (list) {
            KTLog::appendLog("Enabling disabled plugins...");
            KTPluginLocations::FolderCache folders;
            for (const std::string& path : *list) enablePlugin(path);
        }
        journal_.clear();
        if (workspace_) {
            workspace_->removeNoticeObserver(observerToken_);
            workspace_ = nullptr;
        }
        withView([](KTCrashTestView& v) {
            v.stopCrashTestProgress();
            v.resizeCrashTestDialog(false);
        });
        if (reloadData) app_.reloadData();
    } catch (const std::exception& e) {
        KTException::logException(e, "-[AppController cleanupCrashTest:reloadData:]");
    }
}

// ---- The journal of an unfinished test ------------------------------------------

int KTCrashTester::replayJournal() {
    KTCrashTestJournal journal;
    auto paths = journal.takeLeftOver();
    if (!paths) return 0;
    if (!paths->empty()) {
        KTLog::appendLog("A crash test did not finish: enabling the %i plugins it had disabled...",
                         static_cast<int>(paths->size()));
    }
    OutlineViewController& outline = app_.outlineViewController();
    for (const std::string& path : *paths) {
        const std::string disabled = KTPluginLocations::disabledPathForPath(path);
        // Already back, or gone altogether: nothing to move. A test killed
        // between its journal and its move may still have made the folders.
        if (KTPluginLocations::fileExists(disabled) && !KTPluginLocations::fileExists(path) &&
            !outline.moveFileFrom(disabled, path))
            continue;
        if (!KTPluginLocations::fileExists(disabled)) outline.cleanupPluginPath(disabled);
    }
    journal.clear();
    return static_cast<int>(paths->size());
}
