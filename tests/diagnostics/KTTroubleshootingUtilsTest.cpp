// Gathering logs, crash reports and preferences into the desktop archive,
// read back with Python's zipfile; viewing the logs.
#include "diagnostics/KTTroubleshootingUtils.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "DiagnosticsTestSupport.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTWorkspace.h"
#include "support/ChildProcess.h"

namespace fs = std::filesystem;

namespace {

/// The files of an archive (folders left out), one "name size" a line, and
/// the content of `show` when given.
std::string zipFiles(const std::string& archive, const std::string& show = "") {
    const char* script =
        "import sys, zipfile\n"
        "z = zipfile.ZipFile(sys.argv[1])\n"
        "assert z.testzip() is None\n"
        "for n in sorted(z.namelist()):\n"
        "    if not n.endswith('/'): print(n)\n"
        "if sys.argv[2]: print(z.read(sys.argv[2]).decode(), end='')\n";
    ChildProcess p = ChildProcess::run({"/usr/bin/python3", "-c", script, archive, show});
    EXPECT_EQ(p.exitCode, 0) << p.err;
    return p.out;
}

struct RecordingWorkspace : KTWorkspace {
    std::vector<std::string> opened;
    std::optional<std::string> absolutePathForAppBundleWithIdentifier(const std::string&) override {
        return std::nullopt;
    }
    void refreshApplications() override {}
    bool openFile(const std::string& path) override {
        opened.push_back(path);
        return true;
    }
};

}  // namespace

TEST(KTTroubleshootingUtilsTest, GathersLogsReportsAndPreferencesUnderTheirFullPaths) {
    DiagnosticsWorld w;
    const ScratchRoot& s = w.scratch;
    const std::string userLogs = s.homePath("/Library/Logs/Quellbrook");
    const std::string machineLogs = s.rootPath("/Library/Logs/Quellbrook");
    ScratchRoot::writeFile(userLogs + "/Ambrel.2.log", "older log\n");
    ScratchRoot::writeFile(userLogs + "/Other.1.log", "not ours\n");
    ScratchRoot::writeFile(userLogs + "/Ambrel.notes.txt", "not a log\n");
    ScratchRoot::writeFile(s.base() + "/elsewhere/target.txt", "through a link\n");
    fs::create_symlink(s.base() + "/elsewhere/target.txt", userLogs + "/Ambrel.link.log");
    fs::create_symlink(s.base() + "/nowhere", userLogs + "/Ambrel.dangling.log");
    ScratchRoot::writeFile(machineLogs + "/Ambrel.3.log", "machine log\n");
    const std::string userReport =
        s.homePath("/Library/Logs/DiagnosticReports/Ambrel_2026-01-02-030405_77.crash");
    const std::string machineReport = s.rootPath("/Library/Logs/CrashReporter/Ambrel_x.crash");
    ScratchRoot::writeFile(userReport, "report\n");
    ScratchRoot::writeFile(machineReport, "machine report\n");
    ScratchRoot::writeFile(s.homePath("/Library/Logs/DiagnosticReports/AmbrelX_1.crash"));
    ScratchRoot::writeFile(s.homePath("/Library/Logs/DiagnosticReports/Ambrel_1.txt"));
    const std::string userPrefs = s.homePath("/Library/Preferences/com.quellbrook.Ambrel.plist");
    const std::string machinePrefs = s.rootPath("/Library/Preferences/com.quellbrook.ambrel.plist");
    ScratchRoot::writeFile(userPrefs, "<plist/>");
    ScratchRoot::writeFile(machinePrefs, "<plist/>");
    const std::string extra = s.base() + "/extra/Ünïcode notes.txt";
    ScratchRoot::writeFile(extra, "extra\n");
    // The desktop is where the XDG user folders say.
    ScratchRoot::writeFile(s.homePath("/.config/user-dirs.dirs"),
                           "# written by xdg-user-dirs-update\n"
                           "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n");
    ScratchRoot::makeDirs(s.homePath("/Schreibtisch"));
    KTLog::finishWriting();  // the controller's own log is in the archive as well

    ASSERT_TRUE(
        KTTroubleshootingUtils::gatherLogsForAppsWithNames({"Ambrel"}, false, {extra}, w.ui.get()));
    const std::string first = s.homePath("/Schreibtisch/Ambrel Logs.zip");
    ASSERT_TRUE(fs::exists(first));
    const std::string top = "KT_App_Logs";
    std::vector<std::string> expected = {
        top + userLogs + "/Ambrel.2.log",
        top + userLogs + "/Ambrel.link.log",
        top + machineLogs + "/Ambrel.3.log",
        top + KTLog::currentLogPath(),
        top + userReport,
        top + machineReport,
        top + userPrefs,
        top + machinePrefs,
        top + extra,
    };
    std::sort(expected.begin(), expected.end());
    std::string listing;
    for (const auto& e : expected) listing += e + "\n";
    EXPECT_EQ(zipFiles(first, top + userLogs + "/Ambrel.link.log"), listing + "through a link\n");
    EXPECT_FALSE(fs::exists(KTLocalPaths::tempDirectory() + "KT_App_Logs"));
    ASSERT_EQ(w.ui->alerts().size(), 1u);
    EXPECT_EQ(w.ui->alerts()[0].message, "Logs gathered successfully");
    EXPECT_EQ(w.ui->alerts()[0].informative, "The gathered logs were placed on your desktop.");

    // The same day again: a time-stamped name beside the first archive.
    std::string second;
    ASSERT_TRUE(
        KTTroubleshootingUtils::gatherLogsForAppsWithNames({"Ambrel"}, true, {}, nullptr, &second));
    EXPECT_TRUE(std::regex_match(fs::path(second).filename().string(),
                                 std::regex("Ambrel Logs_20[0-9]{12}\\.zip")))
        << second;
    EXPECT_EQ(fs::path(second).parent_path(), fs::path(first).parent_path());
    EXPECT_NE(zipFiles(second).find(top + userReport), std::string::npos);
    EXPECT_EQ(w.ui->alerts().size(), 1u) << "silent";
}

TEST(KTTroubleshootingUtilsTest, OutcomeAlertsWhenThereIsNothingOrNoPlaceForTheArchive) {
    DiagnosticsWorld w;
    EXPECT_FALSE(KTTroubleshootingUtils::gatherLogsForAppWithName("", w.ui.get()));
    EXPECT_FALSE(KTTroubleshootingUtils::gatherLogsForAppWithName("Nothing Here", w.ui.get()));
    ASSERT_EQ(w.ui->alerts().size(), 1u);
    EXPECT_EQ(w.ui->alerts()[0].message, "No logs found");
    EXPECT_EQ(w.ui->alerts()[0].informative, "There were no logs available to gather.");
    EXPECT_FALSE(
        KTTroubleshootingUtils::gatherLogsForAppsWithNames({"Nothing Here"}, true, {}, w.ui.get()));
    EXPECT_EQ(w.ui->alerts().size(), 1u);

    // A name with spaces finds its preferences without them, or lower-cased.
    ScratchRoot::writeFile(w.scratch.homePath("/Library/Preferences/com.quellbrook.mytool.plist"));
    // ~/Desktop is a file: the archive cannot be written.
    ScratchRoot::writeFile(w.scratch.homePath("/Desktop"), "in the way");
    EXPECT_FALSE(KTTroubleshootingUtils::gatherLogsForAppWithName("My Tool", w.ui.get()));
    ASSERT_EQ(w.ui->alerts().size(), 2u);
    EXPECT_EQ(w.ui->alerts()[1].message, "Logs could not be gathered");
    EXPECT_EQ(w.ui->alerts()[1].informative, "Please check your file permissions.");
}

TEST(KTTroubleshootingUtilsTest, CommandLineGathersOntoTheDesktopAndViewingLooksUpTheLog) {
    DiagnosticsWorld w;
    ChildProcess p = ChildProcess::run({ChildProcess::builtProgram("ambrel"), "-gatherlogs"});
    const std::string archive = w.scratch.homePath("/Desktop/Ambrel Logs.zip");
    EXPECT_EQ(p.exitCode, 0) << p.err;
    EXPECT_EQ(p.out, "Logs gathered successfully The gathered logs were placed on your desktop.\n" +
                         archive + "\n");
    EXPECT_NE(zipFiles(archive).find("Ambrel.task.1.log"), std::string::npos);

    auto workspace = std::make_shared<RecordingWorkspace>();
    KTWorkspace::setShared(workspace);
    KTTroubleshootingUtils::viewLogForApp("Ambrel", w.ui.get());
    // The command line's log is "Ambrel.task.1.log"; the task log is looked
    // up as "Ambrel.1.task.log" all the same.
    KTTroubleshootingUtils::viewTaskLogForApp("Ambrel", w.ui.get());
    ScratchRoot::writeFile(KTLog::logFolder() + "/Ambrel.1.log", "window log\n");
    KTTroubleshootingUtils::viewLogForApp("Ambrel", w.ui.get());
    KTWorkspace::setShared(nullptr);
    ASSERT_EQ(w.ui->alerts().size(), 2u);
    EXPECT_EQ(w.ui->alerts()[0].message, "No log found");
    EXPECT_EQ(w.ui->alerts()[0].informative, "You must perform a task before viewing the log.");
    EXPECT_EQ(w.ui->alerts()[1].informative,
              "You must run the application as a task (e.g. through Chorewell) before viewing a "
              "log.");
    EXPECT_EQ(workspace->opened, std::vector<std::string>{KTLog::logFolder() + "/Ambrel.1.log"});
}
