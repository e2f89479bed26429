#include "SharedFiles/linux/KTLinuxWorkspace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>

#include "support/ScratchRoot.h"

namespace {

void writeApp(const std::string& bundle, const std::string& identifier) {
    ScratchRoot::writeFile(bundle + "/Contents/Info.plist",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
                           "<key>CFBundleIdentifier</key><string>" +
                               identifier + "</string></dict></plist>");
}

}  // namespace

TEST(KTLinuxWorkspaceTest, FindsBundlesInBothApplicationFoldersOneLevelDown) {
    ScratchRoot scratch;
    writeApp(scratch.rootPath("/Applications/Final Cut Express.app"), "com.apple.FinalCutExpress");
    writeApp(scratch.rootPath("/Applications/Avid/Symphony.app"), "com.avid.Symphony");
    writeApp(scratch.homePath("/Applications/Mine.app"), "org.example.mine");
    // Two folders down is out of reach, and a folder without ".app" is no application.
    writeApp(scratch.rootPath("/Applications/A/B/Deep.app"), "org.example.deep");
    writeApp(scratch.rootPath("/Applications/NotAnApp"), "org.example.plain");
    ScratchRoot::makeDirs(scratch.rootPath("/Applications/Empty.app"));

    KTLinuxWorkspace workspace;
    EXPECT_EQ(workspace.absolutePathForAppBundleWithIdentifier("com.apple.FinalCutExpress"),
              scratch.rootPath("/Applications/Final Cut Express.app"));
    EXPECT_EQ(workspace.absolutePathForAppBundleWithIdentifier("com.avid.Symphony"),
              scratch.rootPath("/Applications/Avid/Symphony.app"));
    EXPECT_EQ(workspace.absolutePathForAppBundleWithIdentifier("org.example.mine"),
              scratch.homePath("/Applications/Mine.app"));
    EXPECT_FALSE(workspace.knowsApplication("org.example.deep"));
    EXPECT_FALSE(workspace.knowsApplication("org.example.plain"));
    // Identifiers are matched exactly: the lower-case spelling is another application.
    EXPECT_FALSE(workspace.knowsApplication("com.avid.symphony"));
}

TEST(KTLinuxWorkspaceTest, KeepsItsListUntilRefreshed) {
    ScratchRoot scratch;
    KTLinuxWorkspace workspace;
    EXPECT_FALSE(workspace.knowsApplication("org.example.late"));
    writeApp(scratch.rootPath("/Applications/Late.app"), "org.example.late");
    EXPECT_FALSE(workspace.knowsApplication("org.example.late"));
    workspace.refreshApplications();
    EXPECT_TRUE(workspace.knowsApplication("org.example.late"));
}

namespace {

/// A launchable bundle whose executable (a script) runs until SIGTERM.
std::string writeLaunchableApp(const std::string& bundle, const std::string& identifier,
                               mode_t mode = 0755) {
    ScratchRoot::writeFile(bundle + "/Contents/Info.plist",
                           "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                           "<key>CFBundleIdentifier</key><string>" +
                               identifier +
                               "</string><key>CFBundleExecutable</key><string>run</string>"
                               "</dict></plist>");
    const std::string executable = bundle + "/Contents/MacOS/run";
    ScratchRoot::writeFile(executable, "#!/bin/sh\nwhile :; do sleep 0.05; done\n");
    ::chmod(executable.c_str(), mode);
    return executable;
}

/// Polls `done` for up to 10 seconds.
bool eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 1000 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

}  // namespace

TEST(KTLinuxWorkspaceTest, LaunchesByIdentifierIgnoringCaseAndReportsLaunchAndEnd) {
    ScratchRoot scratch;
    const std::string executable =
        writeLaunchableApp(scratch.homePath("/Applications/Tools/Host.app"), "org.example.Host");
    KTLinuxWorkspace workspace;
    std::mutex lock;
    std::vector<KTWorkspaceNotice> notices;
    const int token = workspace.addNoticeObserver([&](const KTWorkspaceNotice& n) {
        std::lock_guard<std::mutex> l(lock);
        notices.push_back(n);
    });
    auto count = [&] {
        std::lock_guard<std::mutex> l(lock);
        return notices.size();
    };

    ASSERT_TRUE(workspace.launchApplication("ORG.EXAMPLE.HOST"));
    ASSERT_EQ(count(), 1u);
    EXPECT_EQ(notices[0].kind, KTWorkspaceNotice::Kind::didLaunch);
    EXPECT_EQ(notices[0].bundleIdentifier, "org.example.Host");  // as the bundle spells it
    const int pid = notices[0].processIdentifier;
    // Found in /proc by the script's path, the second word of "/bin/sh <script>".
    ASSERT_TRUE(eventually([&] {
        return workspace.runningApplicationIdentifiers() ==
               std::vector<std::string>{"org.example.Host"};
    }));
    // Its streams are not ours: a host left running holds no pipe of the caller.
    for (const char* fd : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + fd),
                  "/dev/null");
    }

    EXPECT_EQ(workspace.terminateApplication("org.example.host"), KTTerminateResult::requested);
    ASSERT_TRUE(eventually([&] { return count() == 2; }));
    EXPECT_EQ(notices[1].kind, KTWorkspaceNotice::Kind::didTerminate);
    EXPECT_EQ(notices[1].processIdentifier, pid);
    // Reaped by the watcher: no zombie is left to be found.
    EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(pid)));
    EXPECT_TRUE(workspace.runningApplicationIdentifiers().empty());
    EXPECT_EQ(workspace.terminateApplication("org.example.Host"), KTTerminateResult::notRunning);

    workspace.removeNoticeObserver(token);
    EXPECT_FALSE(workspace.launchApplication("org.example.missing"));
    writeLaunchableApp(scratch.rootPath("/Applications/Broken.app"), "org.example.broken", 0644);
    EXPECT_FALSE(workspace.launchApplication("org.example.broken"));
    EXPECT_EQ(count(), 2u);
}
