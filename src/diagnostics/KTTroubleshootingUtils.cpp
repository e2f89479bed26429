#include "diagnostics/KTTroubleshootingUtils.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "SharedFiles/KTFileManager.h"
#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTUserInterface.h"
#include "SharedFiles/KTWorkspace.h"

namespace fs = std::filesystem;

namespace {

bool startsWith(const std::string& s, const std::string& p) {
    return s.rfind(p, 0) == 0;
}
bool endsWith(const std::string& s, const std::string& e) {
    return s.size() >= e.size() && s.compare(s.size() - e.size(), e.size(), e) == 0;
}

/// Problems while gathering are for the console, not for the person.
void console(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
}

void alert(KTUserInterface* ui, const char* message, const char* informative) {
    if (ui) ui->runAlert(KTAlert{message, informative, {}});
}

void viewLog(const std::string& file, KTUserInterface* ui, const char* informative) {
    const std::string path = KTLog::logFolder() + "/" + file;
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        alert(ui, "No log found", informative);
        return;
    }
    if (KTWorkspace::shared().openFile(path)) return;
    // No desktop opener here: at least say where the log is.
    KTLog::appendLog("Unable to open %@: no viewer for it", path);
    if (ui)
        ui->runAlert(KTAlert{"Unable to open the log",
                             "No application to show it was found. The log is at " + path + ".",
                             {}});
}

/// One gathering: the temporary folder and what has been copied into it.
class Gathering {
  public:
    explicit Gathering(std::string temp) : temp_(std::move(temp)) {}

    /// Copies `file` to the temporary folder under `folder`'s full path; a
    /// link is followed. False after a copy error (reported with `what`).
    bool copy(const std::string& folder, const std::string& file, const char* what) {
        const std::string source = folder + "/" + file;
        std::error_code ec;
        std::string from = source;
        if (fs::is_symlink(source, ec)) {
            const fs::path target = fs::weakly_canonical(source, ec);
            if (ec || !fs::exists(target, ec))
                return true;  // a link to nothing has nothing to copy
            from = target.string();
        }
        const std::string destinationFolder = temp_ + folder;
        const std::string destination = destinationFolder + "/" + file;
        if (KTFileTree::existsNoFollow(destination)) return true;
        std::string error;
        fs::create_directories(destinationFolder, ec);
        if (ec) error = ec.message();
        if (error.empty() && KTFileTree::copyTree(from, destination, &error)) {
            ++copied_;
            return true;
        }
        console(std::string(what) + source + " (" + error + ")");
        return false;
    }

    /// Copies every file of `folder` that `wanted` picks; a missing folder
    /// has nothing to give.
    template <class Pred>
    bool copyMatching(const std::string& folder, Pred wanted, const char* what) {
        std::vector<std::string> names = KTFileTree::entriesOf(folder);
        std::sort(names.begin(), names.end());
        for (const auto& name : names) {
            if (!wanted(name)) continue;
            std::error_code ec;
            if (fs::is_directory(folder + "/" + name, ec)) continue;
            if (!copy(folder, name, what)) return false;
        }
        return true;
    }

    int copied() const { return copied_; }

  private:
    std::string temp_;
    int copied_ = 0;
};

std::string withoutSpaces(std::string s) {
    s.erase(std::remove(s.begin(), s.end(), ' '), s.end());
    return s;
}

std::string lowercased(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

}  // namespace

void KTTroubleshootingUtils::viewLogForApp(const std::string& name, KTUserInterface* ui) {
    viewLog(name + ".1.log", ui, "You must perform a task before viewing the log.");
}

void KTTroubleshootingUtils::viewTaskLogForApp(const std::string& name, KTUserInterface* ui) {
    // The command line's files are "<name>.task.1.log"; this looks for
    // "<name>.1.task.log", as the maker's other programs name theirs.
    viewLog(name + ".1.task.log", ui,
            "You must run the application as a task (e.g. through Chorewell) before viewing a "
            "log.");
}

bool KTTroubleshootingUtils::gatherLogsForAppWithName(const std::string& name,
                                                      KTUserInterface* ui) {
    if (name.empty()) return false;
    return gatherLogsForAppsWithNames({name}, false, {}, ui);
}

std::string KTTroubleshootingUtils::desktopFolder() {
    const std::string home = KTLocalPaths::userDirectory();
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    const std::string config =
        (configHome && *configHome ? std::string(configHome) : home + "/.config") +
        "/user-dirs.dirs";
    std::ifstream in(config);
    std::string line;
    while (std::getline(in, line)) {
        // XDG_DESKTOP_DIR="$HOME/Desktop": a path relative to $HOME or absolute.
        if (!startsWith(line, "XDG_DESKTOP_DIR=")) continue;
        std::string value = line.substr(16);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        if (startsWith(value, "$HOME")) value = home + value.substr(5);
        // The home itself means "no desktop folder" to the desktop's tools.
        std::error_code ec;
        if (startsWith(value, "/") && value != home && value != home + "/" &&
            fs::is_directory(value, ec))
            return value;
    }
    return KTLocalPaths::desktopDirectory();
}

std::string KTTroubleshootingUtils::archivePath(const std::string& appName) {
    const std::string path = desktopFolder() + "/" + appName + " Logs.zip";
    if (!KTFileTree::existsNoFollow(path)) return path;
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    std::strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &tm);
    return path.substr(0, path.size() - 4) + "_" + stamp + ".zip";
}

bool KTTroubleshootingUtils::gatherLogsForAppsWithNames(
    const std::vector<std::string>& names, bool silent,
    const std::vector<std::string>& additionalFiles, KTUserInterface* ui, std::string* archiveOut) {
    if (names.empty()) return false;
    std::string temp = KTLocalPaths::tempDirectory() + "KT_App_Logs";
    std::error_code ec;
    if (KTFileTree::existsNoFollow(temp)) {
        std::string error;
        if (!KTFileTree::removeTree(temp, &error)) {
            console("Error removing existing folder: " + error);
            return false;
        }
    }
    if (!fs::create_directory(temp, ec)) {
        console("Error creating temp folder: " + (ec ? ec.message() : temp));
        return false;
    }
    // Gone however the gathering ends.
    struct TempGuard {
        std::string path;
        ~TempGuard() { KTFileTree::removeTree(path, nullptr); }
    } guard{temp};

    Gathering gathering(temp);
    for (const bool user : {true, false}) {
        const std::string logs = KTLocalPaths::libraryDirectory(user) + "/Logs/Quellbrook";
        auto isLog = [&](const std::string& file) {
            return endsWith(file, ".log") &&
                   std::any_of(names.begin(), names.end(),
                               [&](const std::string& n) { return startsWith(file, n); });
        };
        if (!gathering.copyMatching(logs, isLog, "Unable to copy log: ")) return false;

        auto isReport = [&](const std::string& file) {
            return endsWith(file, ".crash") &&
                   std::any_of(names.begin(), names.end(),
                               [&](const std::string& n) { return startsWith(file, n + "_"); });
        };
        for (const char* sub : {"/CrashReporter", "/DiagnosticReports"}) {
            if (!gathering.copyMatching(KTLocalPaths::logDirectory(user) + sub, isReport,
                                        "Unable to copy log: "))
                return false;
        }

        const std::string prefs = KTLocalPaths::prefsDirectory(user);
        for (const auto& name : names) {
            std::string file = "com.quellbrook." + withoutSpaces(name) + ".plist";
            if (!KTFileTree::existsNoFollow(prefs + "/" + file)) file = lowercased(file);
            if (!KTFileTree::existsNoFollow(prefs + "/" + file)) continue;
            if (!gathering.copy(prefs, file, "Unable to copy log: ")) return false;
        }
    }
    for (const auto& extra : additionalFiles) {
        const fs::path p(extra);
        if (!gathering.copy(p.parent_path().string(), p.filename().string(),
                            "Unable to copy file: "))
            return false;
    }

    if (gathering.copied() == 0) {
        if (!silent) alert(ui, "No logs found", "There were no logs available to gather.");
        return false;
    }
    const std::string archive = archivePath(names.front());
    // A desktop that was never made (a server, a fresh account) is made now.
    fs::create_directories(fs::path(archive).parent_path(), ec);
    const bool ok = KTFileManager::compressFile(temp, archive);
    if (ok) {
        if (archiveOut) *archiveOut = archive;
        KTLog::appendLog("Logs gathered into %@", archive);
        if (!silent)
            alert(ui, "Logs gathered successfully",
                  "The gathered logs were placed on your desktop.");
    } else if (!silent) {
        alert(ui, "Logs could not be gathered", "Please check your file permissions.");
    }
    return ok;
}
