#include "SharedFiles/KTLocalPaths.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/ScratchRoot.h"

TEST(KTLocalPathsTest, GuardProtectsSystemFoldersAndCutsTwoCharactersAfterATrailingSlash) {
    ScratchRoot scratch;
    using L = KTLocalPaths;
    EXPECT_TRUE(L::isPathSystemDirectory("/"));
    EXPECT_FALSE(L::isPathSystemDirectory("/a"));
    EXPECT_TRUE(L::isPathSystemDirectory("/usr"));
    // "/System/" compares as "/Syste": neither a listed folder nor below "/System/".
    EXPECT_FALSE(L::isPathSystemDirectory(scratch.rootPath("/System/")));
    EXPECT_FALSE(L::isPathSystemDirectory(scratch.rootPath("/System/"), true));
    // This machine's own /usr stays protected however it is spelled.
    EXPECT_TRUE(L::isPathSystemDirectory("/usr/", true));
    EXPECT_TRUE(L::isPathSystemDirectory("/usr/x/"));  // cut to "/usr/", a prefix match
    EXPECT_FALSE(L::isPathSystemDirectory("/usr/local/bin"));
    EXPECT_TRUE(L::isPathSystemDirectory("/usr/share/x"));
    EXPECT_FALSE(L::isPathSystemDirectory("/usr/share/x", true));
    EXPECT_TRUE(L::isPathSystemDirectory("/private/var/folders/x"));
    EXPECT_FALSE(L::isPathSystemDirectory("/private/var/folders/x", true));
    EXPECT_TRUE(L::isPathSystemDirectory("/System", true));
    EXPECT_TRUE(L::isPathSystemDirectory("/Users/Shared", true));
    EXPECT_FALSE(L::isPathSystemDirectory("/Users/Shared/Plug-Ins"));

    // This machine's own system folders, whatever the system root.
    EXPECT_TRUE(L::isPathSystemDirectory("/etc", true));
    EXPECT_TRUE(L::isPathSystemDirectory("/lib64", true));
    EXPECT_TRUE(L::isPathSystemDirectory("/etc/passwd"));
    EXPECT_FALSE(L::isPathSystemDirectory("/etc/passwd", true));
    EXPECT_FALSE(L::isPathSystemDirectory("/etcetera"));
    for (const char* spelling : {"/etc/", "//etc", "/./etc", "/usr/../etc", "/etc/."})
        EXPECT_TRUE(L::isPathSystemDirectory(spelling, true)) << spelling;
    EXPECT_TRUE(L::isPathSystemDirectory(scratch.rootPath("/../../../../../../../etc"), true));
    EXPECT_TRUE(L::isPathSystemDirectory("/home", true));
    EXPECT_FALSE(L::isPathSystemDirectory("/home/someone/Library/Plug-Ins"));
}

TEST(KTLocalPathsTest, ASystemRootUnderVarIsJudgedByItsLogicalPaths) {
    ScratchRoot scratch;
    using L = KTLocalPaths;
    // Where a system image is unpacked for a test or a build: every emptied
    // folder in it used to count as a system folder, so clean-ups never ran.
    const char* old = std::getenv("AMBREL_ROOT");
    const std::string saved = old ? old : "";
    setenv("AMBREL_ROOT", "/var/tmp/ambrel-root/", 1);
    const std::string root = "/var/tmp/ambrel-root";
    for (bool exact : {true, false}) {
        EXPECT_FALSE(L::isPathSystemDirectory(root + "/Library/Audio/Plug-Ins/VST/Group", exact));
        EXPECT_TRUE(L::isPathSystemDirectory(root + "/Library", exact));
        EXPECT_TRUE(L::isPathSystemDirectory(root, exact));
        EXPECT_TRUE(L::isPathSystemDirectory(root + "/usr", exact));
        EXPECT_TRUE(L::isPathSystemDirectory("/var", exact));
        EXPECT_TRUE(L::isPathSystemDirectory(root + "/../../../etc", exact));
    }
    // Inside the root the hosts' rules hold: ROOT/var/x is their /var/x.
    EXPECT_TRUE(L::isPathSystemDirectory(root + "/var/db/x"));
    EXPECT_FALSE(L::isPathSystemDirectory(root + "/var/db/x", true));
    EXPECT_TRUE(L::isPathSystemDirectory(root + "/System/Library/Frameworks"));
    EXPECT_FALSE(L::isPathSystemDirectory(root + "/etc/x"));
    // Outside it this machine's folders are protected as ever.
    EXPECT_TRUE(L::isPathSystemDirectory("/var/tmp/other/x"));
    EXPECT_TRUE(L::isPathSystemDirectory("/var/tmp"));
    setenv("AMBREL_ROOT", saved.c_str(), 1);
}

TEST(KTLocalPathsTest, GuardComparesAgainstTheMappedFoldersExactly) {
    ScratchRoot scratch;
    using L = KTLocalPaths;
    for (bool exact : {true, false}) {
        SCOPED_TRACE(exact ? "exact" : "prefix");
        EXPECT_TRUE(L::isPathSystemDirectory(scratch.rootPath("/Library"), exact));
        EXPECT_TRUE(L::isPathSystemDirectory(scratch.homePath("/Library"), exact));
        EXPECT_TRUE(L::isPathSystemDirectory(scratch.homePath("/Library/Preferences"), exact));
        EXPECT_TRUE(L::isPathSystemDirectory(scratch.rootPath("/Applications/Utilities"), exact));
        EXPECT_TRUE(L::isPathSystemDirectory(scratch.rootPath("/System/Library"), exact));
        EXPECT_TRUE(L::isPathSystemDirectory(scratch.home(), exact));
        EXPECT_TRUE(L::isPathSystemDirectory(scratch.homePath("/Desktop"), exact));
        EXPECT_FALSE(L::isPathSystemDirectory(
            scratch.rootPath("/Library/Audio/Plug-Ins/Components"), exact));
        EXPECT_FALSE(
            L::isPathSystemDirectory(scratch.homePath("/Library/Application Support/X"), exact));
        // Case counts, and the trailing-slash cut applies to mapped folders too.
        EXPECT_FALSE(L::isPathSystemDirectory(scratch.rootPath("/library"), exact));
        EXPECT_FALSE(L::isPathSystemDirectory(scratch.rootPath("/Library/"), exact));
        EXPECT_FALSE(L::isPathSystemDirectory(scratch.rootPath("/Library/x/"), exact));
    }
    // The real /Library is not a mapped folder while the system root is elsewhere.
    EXPECT_FALSE(L::isPathSystemDirectory("/Library", true));
}

TEST(KTLocalPathsTest, FoldersMapUnderTheSystemRootAndHome) {
    ScratchRoot scratch;
    using L = KTLocalPaths;
    EXPECT_EQ(L::applicationDirectory(false), scratch.rootPath("/Applications"));
    EXPECT_EQ(L::adminApplicationDirectory(false), scratch.rootPath("/Applications/Utilities"));
    EXPECT_EQ(L::libraryDirectory(false), scratch.rootPath("/Library"));
    EXPECT_EQ(L::prefsDirectory(false), scratch.rootPath("/Library/Preferences"));
    EXPECT_EQ(L::appSupportDirectory(false), scratch.rootPath("/Library/Application Support"));
    EXPECT_EQ(L::logDirectory(false), scratch.rootPath("/Library/Logs"));
    EXPECT_EQ(L::localDocumentationDirectory(), scratch.rootPath("/Library/Documentation"));
    EXPECT_EQ(L::systemLibraryDirectory(), scratch.rootPath("/System/Library"));

    EXPECT_EQ(L::userDirectory(), scratch.home());
    EXPECT_EQ(L::applicationDirectory(true), scratch.homePath("/Applications"));
    EXPECT_EQ(L::prefsDirectory(true), scratch.homePath("/Library/Preferences"));
    EXPECT_EQ(L::logDirectory(true), scratch.homePath("/Library/Logs"));
    EXPECT_EQ(L::movieDirectory(), scratch.homePath("/Movies"));
    EXPECT_EQ(L::desktopDirectory(), scratch.homePath("/Desktop"));
    EXPECT_EQ(L::darwinCacheDirectory(), "");

    EXPECT_EQ(L::trashDirectory(), scratch.homePath("/.local/share/Trash/files"));
    setenv("XDG_DATA_HOME", (scratch.base() + "/data").c_str(), 1);
    EXPECT_EQ(L::trashDirectory(), scratch.base() + "/data/Trash/files");
    unsetenv("XDG_DATA_HOME");

    // The hosts' view of a machine-wide path, and back.
    const std::string real = scratch.rootPath("/Library/Plug-Ins/FxPlug/Glow.fxplug");
    EXPECT_EQ(L::logicalPath(real), "/Library/Plug-Ins/FxPlug/Glow.fxplug");
    EXPECT_EQ(L::realPath("/Library/Plug-Ins/FxPlug/Glow.fxplug"), real);
    EXPECT_EQ(L::logicalPath(scratch.root()), "/");
    EXPECT_EQ(L::logicalPath(scratch.root() + "x/y"), scratch.root() + "x/y");
    EXPECT_EQ(L::realPath(scratch.homePath("/Library/X")), scratch.homePath("/Library/X"));
}

TEST(KTLocalPathsTest, NamingAndSlashHelpers) {
    ScratchRoot scratch;
    using L = KTLocalPaths;
    EXPECT_EQ(L::stripTrailingSlash(std::string("/")), "/");
    EXPECT_EQ(L::stripTrailingSlash(std::string("a/")), "a");
    EXPECT_EQ(L::stripTrailingSlash(std::string("a//")), "a/");

    EXPECT_EQ(L::randomString(0), "");
    const std::string r = L::randomString(40);
    EXPECT_EQ(r.size(), 40u);
    EXPECT_EQ(r.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789"), std::string::npos);

    // The superuser's cut: 9 characters of "/var/root", then 16 of
    // "/private/var/root", which leaves its "t" behind.
    EXPECT_EQ(L::rootUserAdjusted("/var/root/Library"), scratch.homePath("/Library"));
    EXPECT_EQ(L::rootUserAdjusted("/private/var/root/Library"), scratch.homePath("/t/Library"));

    EXPECT_TRUE(L::isPathOnTimeMachineVolume("/Volumes/Backup/Backups.backupdb/x"));
    EXPECT_FALSE(L::isPathOnTimeMachineVolume("/Users/x/Backups.backupdb"));
    EXPECT_FALSE(L::isPathOnTimeMachineVolume("/Volumes/Backup/Backups.backupdbX/x"));
}

TEST(KTLocalPathsTest, TheGuardFollowsTheRootAndHomeBetweenCalls) {
    using L = KTLocalPaths;
    // The guard keeps the standard folders it compares with: a new root or
    // home must be seen at once, and going back must not keep the other's.
    std::string firstLibrary, firstHome;
    {
        ScratchRoot first;
        firstLibrary = first.rootPath("/Library");
        firstHome = first.home();
        EXPECT_TRUE(L::isPathSystemDirectory(firstLibrary));
        EXPECT_TRUE(L::isPathSystemDirectory(firstHome + "/Library", true));
        ScratchRoot second;
        EXPECT_FALSE(L::isPathSystemDirectory(firstLibrary));
        EXPECT_FALSE(L::isPathSystemDirectory(firstHome + "/Library", true));
        EXPECT_TRUE(L::isPathSystemDirectory(second.rootPath("/Library")));
        const char* oldHome = std::getenv("HOME");
        const std::string saved = oldHome ? oldHome : "";
        setenv("HOME", firstHome.c_str(), 1);
        EXPECT_TRUE(L::isPathSystemDirectory(firstHome + "/Library", true));
        EXPECT_FALSE(L::isPathSystemDirectory(second.home() + "/Library", true));
        setenv("HOME", saved.c_str(), 1);
    }
}
