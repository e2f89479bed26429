// Crash reports: the run markers and the next start's detection in process,
// then a real crash of the window program and the starts after it.
#include "diagnostics/KTBugReporter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "DiagnosticsTestSupport.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTWorkspace.h"
#include "support/ChildProcess.h"

extern char** environ;

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

/// A bug-reporting application in the machine's Applications folder whose
/// executable appends the path it was started with to `calls`.
std::string installBugReporter(const ScratchRoot& s) {
    const std::string app = s.rootPath("/Applications/Bug Reporter.app");
    ScratchRoot::writeFile(
        app + "/Contents/Info.plist",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<plist version=\"1.0\"><dict>"
        "<key>CFBundleIdentifier</key><string>com.quellbrook.BugReporter</string>"
        "<key>CFBundleExecutable</key><string>Bug Reporter</string>"
        "</dict></plist>\n");
    const std::string calls = s.base() + "/reporter-calls";
    DiagnosticsWorld::writeScript(app + "/Contents/MacOS/Bug Reporter",
                                  "echo \"$1\" >> '" + calls + "'\n");
    KTWorkspace::shared().refreshApplications();
    return calls;
}

void setModified(const std::string& path, KTBugReporter::Clock::time_point when) {
    fs::last_write_time(path, std::chrono::file_clock::from_sys(when));
}

/// Waits up to `limit` for `done`, polling.
template <class F>
bool eventually(F done, std::chrono::seconds limit = 60s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

pid_t spawn(const std::vector<std::string>& argv, const std::string& output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

}  // namespace

TEST(KTBugReporterTest, DetectionFollowsTheMarkersAndTheReportsSinceLaunch) {
    DiagnosticsWorld w;
    const auto launch = KTBugReporter::Clock::now() - 1h;
    const std::string userReports = w.scratch.homePath("/Library/Logs/DiagnosticReports");
    const std::string userOld = w.scratch.homePath("/Library/Logs/CrashReporter");
    const std::string machine = w.scratch.rootPath("/Library/Logs/DiagnosticReports");
    const std::optional<std::string> standard;  // the window's markers

    KTPreferences::standard().removeObjectForKey("launch");
    EXPECT_FALSE(KTBugReporter::checkForCrashes("Ambrel", standard)) << "first run";

    KTBugReporter::recordMarker("launch", standard, launch);
    ScratchRoot::writeFile(userOld + "/Ambrel_old.crash", "before the launch");
    setModified(userOld + "/Ambrel_old.crash", launch - 1min);
    EXPECT_FALSE(KTBugReporter::checkForCrashes("Ambrel", standard)) << "only an older report";

    // Newer reports: the first folder holding one wins, the last name in it,
    // the application's name matched without regard to case.
    for (const std::string& path :
         {userReports + "/ambrel_1.crash", userReports + "/Ambrel_2.crash",
          userReports + "/Other_3.crash", machine + "/Ambrel_9.crash"}) {
        ScratchRoot::writeFile(path, "crash");
        setModified(path, launch + 10min);
    }
    KTBugReporter::recordMarker("exit", standard, launch);
    EXPECT_FALSE(KTBugReporter::checkForCrashes("Ambrel", standard)) << "exit equal to launch";
    EXPECT_EQ(countOf(w.log(), "Application crashed on last launch"), 0);

    KTBugReporter::recordMarker("exit", standard, launch - 1s);
    bool opened = true;
    EXPECT_EQ(KTBugReporter::checkForCrashes("Ambrel", standard, &opened),
              userReports + "/ambrel_1.crash");
    EXPECT_FALSE(opened) << "no bug-reporting application here";
    EXPECT_EQ(countOf(w.log(), "Application crashed on last launch"), 1);

    // With the bug-reporting application, it is started with the report...
    const std::string calls = installBugReporter(w.scratch);
    EXPECT_TRUE(KTBugReporter::checkForCrashes("Ambrel", standard, &opened));
    EXPECT_TRUE(opened);
    EXPECT_TRUE(eventually([&] { return fs::exists(calls); }));
    EXPECT_EQ(DiagnosticsWorld::read(calls), userReports + "/ambrel_1.crash\n");
    // ...unless the maker's global preference turns it off.
    KTPreferences::global().setString("disable-crash-reporter", "1");
    EXPECT_TRUE(KTBugReporter::checkForCrashes("Ambrel", standard, &opened));
    EXPECT_FALSE(opened);
    EXPECT_EQ(countOf(w.log(), "Crash reporter disabled"), 1);

    // The command line keeps its markers in a file of their own.
    const std::string file = KTBugReporter::commandLineMarkerPath();
    EXPECT_EQ(file, w.scratch.homePath("/Library/Preferences/com.quellbrook.Ambrel"));
    KTBugReporter::stopBugReporter(file);
    KTPlistPtr markers = KTPlist::readFile(file);
    ASSERT_TRUE(markers);
    // The controller's start wrote "launch"; the stop "exit", not earlier.
    EXPECT_EQ(plist_get_node_type(plist_dict_get_item(markers.get(), "launch")), PLIST_DATE);
    EXPECT_EQ(plist_get_node_type(plist_dict_get_item(markers.get(), "exit")), PLIST_DATE);
    EXPECT_GE(KTBugReporter::readMarker("exit", file), KTBugReporter::readMarker("launch", file));
}

TEST(KTBugReporterTest, CrashOfTheWindowLeavesAReportThatTheNextStartLogsOnce) {
    ScratchRoot s;
    EnvGuard qpa("QT_QPA_PLATFORM", "offscreen");
    EnvGuard tools("AMBREL_TOOL_DIR", std::nullopt);
    const std::string calls = installBugReporter(s);
    const std::string ambrel = ChildProcess::builtProgram("ambrel");
    const std::string log = DiagnosticsWorld::logFile(s, "Ambrel");
    const std::string output = s.base() + "/window-output";

    const pid_t pid = spawn({ambrel}, output);
    ASSERT_GT(pid, 0);
    const bool up = eventually([&] {
        return DiagnosticsWorld::read(log).find("Preparing to display window...") !=
               std::string::npos;
    });
    ::kill(pid, SIGSEGV);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_TRUE(up) << DiagnosticsWorld::read(output);

    std::string report;
    for (const auto& e : fs::directory_iterator(s.homePath("/Library/Logs/DiagnosticReports")))
        report = e.path().string();
    ASSERT_FALSE(report.empty()) << DiagnosticsWorld::read(output);
    EXPECT_TRUE(fs::path(report).filename().string().starts_with("Ambrel_"));
    EXPECT_TRUE(report.ends_with("_" + std::to_string(pid) + ".crash")) << report;
    const std::string text = DiagnosticsWorld::read(report);
    EXPECT_NE(text.find("Process: Ambrel\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Command line: " + ambrel + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Signal: 11 (SIGSEGV)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Backtrace:\n"), std::string::npos) << text;

    // The next starts close by themselves once the window is shown.
    EnvGuard shot("AMBREL_SCREENSHOT", s.base() + "/shot.png");
    ChildProcess second = ChildProcess::run({ambrel});
    EXPECT_EQ(second.exitCode, 0) << second.out << second.err;
    EXPECT_EQ(countOf(DiagnosticsWorld::read(log), "Application crashed on last launch"), 1);
    EXPECT_TRUE(eventually([&] { return fs::exists(calls); }));
    EXPECT_EQ(DiagnosticsWorld::read(calls), report + "\n");

    ChildProcess third = ChildProcess::run({ambrel});
    EXPECT_EQ(third.exitCode, 0) << third.out << third.err;
    EXPECT_EQ(countOf(DiagnosticsWorld::read(log), "Application crashed on last launch"), 0);
    EXPECT_EQ(DiagnosticsWorld::read(calls), report + "\n");
}
