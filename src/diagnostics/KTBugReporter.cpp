#include "diagnostics/KTBugReporter.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/KTTransferPlan.h"
#include "SharedFiles/KTWorkspace.h"
#include "SharedFiles/linux/KTCrashReporter.h"

namespace fs = std::filesystem;

namespace {

const char* const kAppName = "Ambrel";
const char* const kReporterIdentifier = "com.quellbrook.BugReporter";
/// Property-list dates count from 2001-01-01 00:00:00 UTC.
constexpr long long kPlistEpoch = 978307200;

std::mutex g_lastLock;
std::optional<std::string> g_lastReport;
bool g_lastOpened = false;
std::optional<std::string> g_startedWith;  // the marker file of the last start

bool startsWithNoCase(const std::string& s, const std::string& prefix) {
    if (s.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(s[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    }
    return true;
}

/// The marker file holds nothing but the two dates: after a power cut an old
/// or empty one reads as a normal end or a first run. Waiting for the disk
/// would make every verb wait at its end until the disk has taken all that the
/// verb moved (tens of milliseconds after a batch).
KTPreferences markerDomain(const std::string& plistPath) {
    return KTPreferences(plistPath, KTPreferences::Writes::DoNotWait);
}

/// The crash reporter stays off when the maker's global preference says so.
bool crashReporterDisabled() {
    KTPlistPtr value = KTPreferences::global().plistForKey("disable-crash-reporter");
    if (!value) return false;
    if (auto text = KTPlist::stringValue(value.get())) return *text == "1";
    if (plist_get_node_type(value.get()) == PLIST_BOOLEAN) {
        uint8_t b = 0;
        plist_get_bool_val(value.get(), &b);
        return b != 0;
    }
    return false;
}

std::string executablePath() {
    std::error_code ec;
    return fs::read_symlink("/proc/self/exe", ec).string();
}

/// An application bundle's executable: Contents/MacOS/<CFBundleExecutable>,
/// or the bundle's name without ".app" there.
std::optional<std::string> bundleExecutable(const std::string& app) {
    std::error_code ec;
    if (!fs::is_directory(app, ec)) return std::nullopt;
    std::string name = fs::path(app).stem().string();
    if (KTPlistPtr info = KTPlist::readFile(app + "/Contents/Info.plist"))
        if (auto exe = KTPlist::stringForKey(info.get(), "CFBundleExecutable")) name = *exe;
    const std::string exe = app + "/Contents/MacOS/" + name;
    if (::access(exe.c_str(), X_OK) != 0) return std::nullopt;
    return exe;
}

}  // namespace

std::string KTBugReporter::commandLineMarkerPath() {
    return KTLocalPaths::prefsDirectory(true) + "/com.quellbrook.Ambrel";
}

std::vector<std::string> KTBugReporter::crashReportFolders() {
    return {KTLocalPaths::logDirectory(true) + "/CrashReporter",
            KTLocalPaths::logDirectory(true) + "/DiagnosticReports",
            KTLocalPaths::logDirectory(false) + "/CrashReporter",
            KTLocalPaths::logDirectory(false) + "/DiagnosticReports"};
}

void KTBugReporter::recordMarker(const char* key, const std::optional<std::string>& plistPath,
                                 Clock::time_point when) {
    // A dry run writes nothing but its log lines.
    if (KTTransferPlan::active()) return;
    const long long seconds =
        std::chrono::duration_cast<std::chrono::seconds>(when.time_since_epoch()).count();
    KTPlistPtr date(plist_new_date(static_cast<int32_t>(seconds - kPlistEpoch), 0));
    std::string error;
    if (!plistPath) {
        if (!KTPreferences::standard().setPlist(key, date.get(), &error))
            KTLog::appendLog("Unable to record %@: %@", std::string(key), error);
        return;
    }
    if (!markerDomain(*plistPath).setPlist(key, date.get(), &error)) {
        KTLog::appendLog("Unable to record %@ in %@: %@", std::string(key), *plistPath, error);
        return;
    }
    chownPlist(*plistPath);
}

std::optional<KTBugReporter::Clock::time_point> KTBugReporter::readMarker(
    const char* key, const std::optional<std::string>& plistPath) {
    KTPlistPtr node = plistPath ? markerDomain(*plistPath).plistForKey(key)
                                : KTPreferences::standard().plistForKey(key);
    if (!node || plist_get_node_type(node.get()) != PLIST_DATE) return std::nullopt;
    int32_t sec = 0, usec = 0;
    plist_get_date_val(node.get(), &sec, &usec);
    return Clock::time_point(std::chrono::seconds(kPlistEpoch + sec));
}

std::optional<std::string> KTBugReporter::bugReporterExecutable() {
    const std::string exe = executablePath();
    const std::vector<std::string> candidates = {
        fs::path(exe).parent_path().string() + "/Bug Reporter.app",
        exe + "/Bug Reporter.app",
    };
    for (const auto& app : candidates)
        if (auto found = bundleExecutable(app)) return found;
    KTWorkspace& workspace = KTWorkspace::shared();
    workspace.refreshApplications();
    if (auto app = workspace.absolutePathForAppBundleWithIdentifier(kReporterIdentifier))
        return bundleExecutable(*app);
    return std::nullopt;
}

std::optional<std::string> KTBugReporter::checkForCrashes(
    const std::string& appName, const std::optional<std::string>& plistPath,
    bool* openedInReporter) {
    if (openedInReporter) *openedInReporter = false;
    const auto launch = readMarker("launch", plistPath);
    if (!launch) return std::nullopt;  // first run
    const std::string name = appName.empty() ? kAppName : appName;
    const auto exit = readMarker("exit", plistPath);
    if (exit && *exit >= *launch) return std::nullopt;

    std::optional<std::string> report;
    for (const auto& folder : crashReportFolders()) {
        std::error_code ec;
        std::vector<std::string> names;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
            const std::string file = it->path().filename().string();
            if (startsWithNoCase(file, name + "_")) names.push_back(file);
        }
        if (names.empty()) continue;
        // The listing order of the folder is by name: the newest report, whose
        // name carries the latest date, comes last.
        std::sort(names.begin(), names.end());
        const std::string candidate = folder + "/" + names.back();
        const auto modified = fs::last_write_time(candidate, ec);
        if (ec) continue;
        const auto modifiedSystem = std::chrono::file_clock::to_sys(modified);
        if (modifiedSystem > *launch) {
            report = candidate;
            break;
        }
    }
    if (!report) return std::nullopt;

    KTLog::appendLog("Application crashed on last launch");
    if (crashReporterDisabled()) {
        std::fprintf(stderr, "Crash reporter disabled\n");
        KTLog::appendLog("Crash reporter disabled");
        return report;
    }
    if (auto reporter = bugReporterExecutable()) {
        KTTaskEx::runTaskAndReturn(*reporter, {*report});
        if (openedInReporter) *openedInReporter = true;
    }
    return report;
}

void KTBugReporter::startBugReporter(const std::string& appName,
                                     const std::optional<std::string>& plistPath,
                                     KTBugReporterDelegate* delegate) {
    KTCrashReporter::install(appName.empty() ? kAppName : appName, AMBREL_VERSION);
    bool opened = false;
    const auto report = checkForCrashes(appName, plistPath, &opened);
    {
        std::lock_guard<std::mutex> l(g_lastLock);
        g_lastReport = report;
        g_lastOpened = opened;
        g_startedWith = plistPath;
    }
    if (report && delegate) {
        const std::string path = *report;
        KTMainThread::shared().post(
            [delegate, path, opened] { delegate->applicationDidCrashWithLog(path, opened); });
    }
    recordMarker("launch", plistPath);
}

void KTBugReporter::startCommandLineBugReporter() {
    startBugReporter(kAppName, commandLineMarkerPath());
    bool opened = false;
    if (auto report = lastCrashReport(&opened); report && !opened)
        std::fprintf(stderr, "Ambrel crashed on its last run. The crash report is %s\n",
                     report->c_str());
}

void KTBugReporter::stopBugReporter(const std::optional<std::string>& plistPath) {
    recordMarker("exit", plistPath);
}

void KTBugReporter::stopStartedBugReporter() {
    std::optional<std::string> plistPath;
    {
        std::lock_guard<std::mutex> l(g_lastLock);
        plistPath = g_startedWith;
    }
    stopBugReporter(plistPath);
}

std::optional<std::string> KTBugReporter::lastCrashReport(bool* openedInReporter) {
    std::lock_guard<std::mutex> l(g_lastLock);
    if (openedInReporter) *openedInReporter = g_lastOpened;
    return g_lastReport;
}

void KTBugReporter::chownPlist(const std::string& path) {
    // Only the superuser can give a file away; anyone else already owns it.
    if (::geteuid() != 0) return;
    std::string user;
    const fs::path p(path);
    for (auto it = p.begin(); it != p.end(); ++it) {
        if (it->string() == "Users" && std::next(it) != p.end()) {
            user = std::next(it)->string();
            break;
        }
    }
    if (user.empty()) {
        const char* sudoUser = std::getenv("SUDO_USER");
        const std::string home = KTLocalPaths::userDirectory();
        if (sudoUser && *sudoUser && !home.empty() && path.rfind(home + "/", 0) == 0)
            user = sudoUser;
    }
    if (user.empty() || user == "root") return;
    KTTaskEx::create()->runTaskWithTimeout("/usr/sbin/chown", {user, path}, 5.0);
}
