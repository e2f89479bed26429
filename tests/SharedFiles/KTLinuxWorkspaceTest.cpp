#include "SharedFiles/linux/KTLinuxWorkspace.h"

#include <gtest/gtest.h>

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
