#pragma once

#include <string>
#include <vector>

class KTUserInterface;

/// Support helpers of the Help menu: open the current log, and gather the
/// logs, crash reports and preference files of named programs into one zip
/// archive on the desktop for the maker's support. Problems while gathering
/// go to standard error; the person sees only the outcome alert. Alerts go
/// through `ui` (none: nothing is shown).
class KTTroubleshootingUtils {
  public:
    /// Opens the user's "<name>.1.log" in the default viewer, or shows
    /// "No log found" / "You must perform a task before viewing the log.".
    static void viewLogForApp(const std::string& name, KTUserInterface* ui);
    /// The same for "<name>.1.task.log".
    static void viewTaskLogForApp(const std::string& name, KTUserInterface* ui);

    static bool gatherLogsForAppWithName(const std::string& name, KTUserInterface* ui);
    /// Copies, first from the user's folders then from the machine's, every
    /// "<name>*.log" of the log folder, every "<name>_*.crash" of the
    /// crash-report folders and "com.quellbrook.<name>.plist" of the
    /// Preferences folder into a temporary "KT_App_Logs" under their full
    /// paths, adds `additionalFiles`, and zips it into "<first name>
    /// Logs.zip" on the desktop (time-stamped when that exists). Answers
    /// whether an archive was made (its path in `archive`); `silent` shows
    /// no alert.
    static bool gatherLogsForAppsWithNames(const std::vector<std::string>& names, bool silent,
                                           const std::vector<std::string>& additionalFiles,
                                           KTUserInterface* ui, std::string* archive = nullptr);

    /// The desktop folder: the XDG desktop folder of user-dirs.dirs, else ~/Desktop.
    static std::string desktopFolder();
    /// Where the archive for `appName` goes: "<desktop>/<appName> Logs.zip",
    /// or, when that exists, "<desktop>/<appName> Logs_<YYYYmmddHHMMSS>.zip".
    static std::string archivePath(const std::string& appName);
};
