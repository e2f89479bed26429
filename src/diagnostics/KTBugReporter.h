#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// Told when the last run ended in a crash (on the main thread, not waited for).
class KTBugReporterDelegate {
  public:
    virtual ~KTBugReporterDelegate() = default;
    /// `openedInReporter`: the bug-reporting application was started with the
    /// report; otherwise the delegate decides how to show where it lies.
    virtual void applicationDidCrashWithLog(const std::string& reportPath,
                                            bool openedInReporter) = 0;
};

/// Notices at start-up that the previous run crashed. Each start records
/// "launch", each orderly end "exit"; a "launch" later than "exit" means the
/// run in between died, and the newest crash report written since that
/// launch is logged and handed to the bug-reporting application. The
/// markers live in the standard preferences (window) or in a marker file of
/// their own (command line, `commandLineMarkerPath`).
class KTBugReporter {
  public:
    using Clock = std::chrono::system_clock;

    /// The command line's marker file: "com.quellbrook.Ambrel" (no extension)
    /// in the user's Preferences folder.
    static std::string commandLineMarkerPath();

    /// Installs the crash handler, checks for a crash of the last run (the
    /// delegate hears of a report), then records "launch" = now: in the
    /// standard preferences without a marker file, else in the file (given
    /// back to the user under sudo, `chownPlist`).
    static void startBugReporter(const std::string& appName = {},
                                 const std::optional<std::string>& plistPath = std::nullopt,
                                 KTBugReporterDelegate* delegate = nullptr);
    /// The command line's start: the marker file, and, when no bug-reporting
    /// application took a report of the last run, where it lies on standard error.
    static void startCommandLineBugReporter();
    /// Records "exit" = now, the same way.
    static void stopBugReporter(const std::optional<std::string>& plistPath = std::nullopt);
    /// Records "exit" where this process's last start recorded "launch".
    static void stopStartedBugReporter();

    /// The report of a crash of the last run, or nothing (see the class
    /// comment); logs "Application crashed on last launch" and opens the
    /// report unless "disable-crash-reporter" is set. `openedInReporter`
    /// says whether a bug-reporting application took it.
    static std::optional<std::string> checkForCrashes(
        const std::string& appName = {}, const std::optional<std::string>& plistPath = std::nullopt,
        bool* openedInReporter = nullptr);

    /// The report found by the last `startBugReporter` of this process and
    /// whether a reporter opened it, for a window made after the controller.
    static std::optional<std::string> lastCrashReport(bool* openedInReporter = nullptr);

    /// A file written while running as root under sudo goes back to the
    /// user: the owner is the component after "Users" in the path, or, for a
    /// path in the sudo user's home, that user; "/usr/sbin/chown", 5 s at most.
    static void chownPlist(const std::string& path);

    /// The folders searched for reports, in order: the user's Logs folder
    /// plus "CrashReporter" and "DiagnosticReports", then the machine's.
    static std::vector<std::string> crashReportFolders();
    /// The bug-reporting application's executable, when one is installed.
    static std::optional<std::string> bugReporterExecutable();

    /// Dates are kept to the second, as the preference file stores them.
    static void recordMarker(const char* key, const std::optional<std::string>& plistPath,
                             Clock::time_point when = Clock::now());
    static std::optional<Clock::time_point> readMarker(const char* key,
                                                       const std::optional<std::string>& plistPath);
};
