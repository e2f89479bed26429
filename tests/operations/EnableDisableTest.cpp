// Enabling and disabling over a scratch tree: the moves, the clean-up of
// emptied folders, locked plug-ins, groups, and the toolbar batch.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include "OperationsTestSupport.h"

namespace {}  // namespace

TEST(EnableDisableTest, RoundTripRemovesTheEmptiedChainUpToTheDisabledFolder) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Glow.fxplug/Contents/Info.plist"), "glow");
    ScratchRoot::writeFile(w.fx("/Blur.fxplug/Contents/Info.plist"), "blur");
    w.load();
    auto glow = w.plugin("Glow.fxplug");
    auto blur = w.plugin("Blur.fxplug");
    ASSERT_TRUE(glow && blur);

    ASSERT_TRUE(w.outline().moveFilter(glow, 0));
    ASSERT_TRUE(w.outline().moveFilter(blur, 0));
    EXPECT_EQ(ScratchRoot::readFile(w.mirror(w.fx("/Glow.fxplug/Contents/Info.plist"))), "glow");
    EXPECT_FALSE(pathExists(w.fx("/Glow.fxplug")));
    EXPECT_EQ(glow->pluginEnabled(), 0);
    EXPECT_EQ(glow->actualPath(), w.mirror(w.fx("/Glow.fxplug")));

    // Already disabled: nothing moves.
    EXPECT_FALSE(w.outline().moveFilter(glow, 0));
    EXPECT_TRUE(w.logged("Error: plugin is already disabled."));

    // A Finder leftover does not keep a folder alive.
    ScratchRoot::writeFile(w.mirror(w.fx("/.DS_Store")), "");
    ASSERT_TRUE(w.outline().moveFilter(glow, 1));
    EXPECT_TRUE(pathExists(w.mirror(w.fx())));  // Blur is still in there
    ASSERT_TRUE(w.outline().moveFilter(blur, 1));
    EXPECT_EQ(ScratchRoot::readFile(w.fx("/Blur.fxplug/Contents/Info.plist")), "blur");
    EXPECT_EQ(blur->actualPath(), w.fx("/Blur.fxplug"));
    EXPECT_FALSE(pathExists(w.disabled()));
    EXPECT_TRUE(pathExists(KTLocalPaths::appSupportDirectory(false) + "/Quellbrook/Tallowby"));
    EXPECT_TRUE(pathExists(w.fx()));

    EXPECT_FALSE(w.outline().moveFilter(blur, 1));
    EXPECT_TRUE(w.logged("Error: plugin is already enabled."));
    EXPECT_TRUE(w.logged("Disabling plugin Glow..."));
    EXPECT_TRUE(w.logged("Plugin successfully moved to " + w.fx("/Blur.fxplug")));
}

TEST(EnableDisableTest, LockedPluginIsReportedMovedButStays) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Managed.fxplug/.fxfactory.plist"), "x");
    w.load();
    auto managed = w.plugin("Managed.fxplug");
    ASSERT_TRUE(managed && managed->isLocked());
    EXPECT_TRUE(w.outline().moveFilter(managed, 0));
    EXPECT_TRUE(pathExists(w.fx("/Managed.fxplug/.fxfactory.plist")));
    EXPECT_FALSE(pathExists(w.disabled() + "/Library"));
    EXPECT_TRUE(w.logged("Unable to move Managed - plugin is locked"));
}

TEST(EnableDisableTest, FoldersThatAreNeverRemoved) {
    OperationsWorld w;
    ScratchRoot::makeDirs(w.fx());
    ScratchRoot::makeDirs(w.scratch.rootPath("/Library/Audio/Plug-Ins/Components"));
    w.load();
    // Empty kind folders stay, with or without the trailing slash.
    EXPECT_FALSE(w.outline().removeEmptyFolder(w.fx(), true));
    EXPECT_FALSE(w.outline().removeEmptyFolder(w.fx("/"), false));
    EXPECT_TRUE(pathExists(w.fx()));
    // So does anything the system-folder guard names.
    EXPECT_FALSE(w.outline().removeEmptyFolder(KTLocalPaths::libraryDirectory(true), true));

    // A group folder holding only empty folders and .DS_Store files goes when
    // asked to recurse, but not without.
    ScratchRoot::writeFile(w.fx("/Pack/Inner/.DS_Store"), "");
    ScratchRoot::makeDirs(w.fx("/Pack/Empty"));
    EXPECT_FALSE(w.outline().removeEmptyFolder(w.fx("/Pack"), false));
    EXPECT_TRUE(w.outline().removeEmptyFolder(w.fx("/Pack"), true));
    EXPECT_FALSE(pathExists(w.fx("/Pack")));
    ScratchRoot::writeFile(w.fx("/Kept/Inner/notes.txt"), "x");
    EXPECT_FALSE(w.outline().removeEmptyFolder(w.fx("/Kept"), true));
    EXPECT_EQ(ScratchRoot::readFile(w.fx("/Kept/Inner/notes.txt")), "x");
}

TEST(EnableDisableTest, MoveNeverReplacesAndAMissingSourceIsNothingToDo) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Glow.fxplug/v"), "new");
    ScratchRoot::writeFile(w.mirror(w.fx("/Glow.fxplug/v")), "old");
    w.load();
    EXPECT_FALSE(w.outline().moveFileFrom(w.fx("/Glow.fxplug"), w.mirror(w.fx("/Glow.fxplug"))));
    EXPECT_EQ(ScratchRoot::readFile(w.fx("/Glow.fxplug/v")), "new");
    EXPECT_EQ(ScratchRoot::readFile(w.mirror(w.fx("/Glow.fxplug/v"))), "old");
    EXPECT_TRUE(w.logged("already exists"));

    EXPECT_TRUE(w.outline().moveFileFrom(w.fx("/Gone.fxplug"), w.fx("/Elsewhere.fxplug")));
    EXPECT_FALSE(pathExists(w.fx("/Elsewhere.fxplug")));
    // A refused authorization earlier in the batch stops every later move.
    w.app->setProcessingCancelled(true);
    EXPECT_FALSE(w.outline().moveFileFrom(w.fx("/Glow.fxplug"), w.fx("/Other.fxplug")));
    EXPECT_TRUE(pathExists(w.fx("/Glow.fxplug")));
}

TEST(EnableDisableTest, ImmutableFlagIsClearedOnTheWayIncludingAncestors) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Pack/Glow.fxplug/v"), "glow");
    if (!ScratchRoot::setImmutable(w.fx("/Pack/Glow.fxplug"), true))
        GTEST_SKIP() << "no immutable flag here (needs root and a file system that keeps it)";
    ScratchRoot::setImmutable(w.fx("/Pack"), true);
    w.load();
    auto glow = w.plugin("Glow.fxplug");
    ASSERT_TRUE(glow);
    const bool moved = w.outline().moveFilter(glow, 0);
    ScratchRoot::setImmutable(w.fx("/Pack"), false);  // whatever happened, the scratch tree must go
    ScratchRoot::setImmutable(w.mirror(w.fx("/Pack/Glow.fxplug")), false);
    ScratchRoot::setImmutable(w.fx("/Pack/Glow.fxplug"), false);
    EXPECT_TRUE(moved);
    EXPECT_EQ(ScratchRoot::readFile(w.mirror(w.fx("/Pack/Glow.fxplug/v"))), "glow");
}

TEST(EnableDisableTest, GroupWideChangesReachSubgroupsAndMixedDoesNothing) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Pack/A.fxplug/v"), "a");
    ScratchRoot::writeFile(w.fx("/Pack/Deep/B.fxplug/v"), "b");
    w.load();
    auto pack = w.group("Pack");
    ASSERT_TRUE(pack);
    w.outline().setEnabled(-1, pack, false, false);
    EXPECT_TRUE(pathExists(w.fx("/Pack/A.fxplug")));

    w.outline().setEnabled(0, pack, false, false);
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Pack/A.fxplug/v"))));
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Pack/Deep/B.fxplug/v"))));
    EXPECT_TRUE(w.logged("Disabling group Pack..."));

    // Threaded, as the check box starts it.
    w.withInterface();
    w.outline().setEnabled(1, pack, true, true);
    w.app->waitForBatchOperations();
    EXPECT_TRUE(pathExists(w.fx("/Pack/Deep/B.fxplug/v")));
    EXPECT_FALSE(pathExists(w.disabled()));
    EXPECT_TRUE(w.ui->hasEvent("max 2"));  // direct children: A and Deep
    EXPECT_TRUE(w.ui->hasEvent("end"));
}

TEST(EnableDisableTest, ToolbarBatchShowsProgressFromFiveItems) {
    OperationsWorld w;
    for (const char* n : {"A", "B", "C", "D", "E"})
        ScratchRoot::writeFile(w.fx(std::string("/") + n + ".fxplug/v"), n);
    ScratchRoot::writeFile(w.fx("/Pack/F.fxplug/v"), "f");
    ScratchRoot::writeFile(w.fx("/Pack/G.fxplug/v"), "g");
    w.load();
    w.withInterface();
    KTItemList four = {w.plugin("A.fxplug"), w.plugin("B.fxplug"), w.plugin("C.fxplug"),
                       w.plugin("D.fxplug")};
    w.app->enableDisable(four, "Disable");
    w.app->waitForBatchOperations();
    EXPECT_FALSE(w.ui->hasEvent("show"));
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/D.fxplug"))));

    // Four selected rows, but one is a group of two: five plug-ins in all.
    KTItemList withGroup = {w.plugin("A.fxplug"), w.plugin("B.fxplug"), w.plugin("C.fxplug"),
                            w.group("Pack")};
    w.app->enableDisable(withGroup, "Disable");
    w.app->waitForBatchOperations();
    EXPECT_TRUE(w.ui->hasEvent("show"));
    EXPECT_TRUE(w.ui->hasEvent("text Moving files..."));
    EXPECT_TRUE(w.ui->hasEvent("max 5"));
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Pack/G.fxplug/v"))));
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/C.fxplug/v"))));
}
