// Scope changes and removal to the Trash over a scratch tree.
#include <gtest/gtest.h>

#include "OperationsTestSupport.h"

TEST(ScopeTest, MovesToTheComputedPlaceAndLeavesFixedKindsAlone) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Glow.fxplug/v"), "glow");
    ScratchRoot::writeFile(w.fx("/Off.fxplug/v"), "off");
    const std::string adobe =
        w.scratch.rootPath("/Library/Application Support/Adobe/Common/Plug-ins/7.0/MediaCore");
    ScratchRoot::writeFile(adobe + "/Night.plugin/v", "night");
    w.load();
    auto glow = w.plugin("Glow.fxplug");
    auto night = w.plugin("Night.plugin");
    ASSERT_TRUE(glow && night);
    ASSERT_EQ(night->pluginType(), KTPluginType::Adobe);

    w.outline().setAccess(1, glow, false, false);
    EXPECT_EQ(ScratchRoot::readFile(w.userFx("/Glow.fxplug/v")), "glow");
    EXPECT_EQ(glow->pluginAccess(), 1);
    EXPECT_EQ(glow->actualPath(), w.userFx("/Glow.fxplug"));
    EXPECT_TRUE(w.logged("Setting access for plugin Glow to current user..."));

    w.outline().setAccess(1, night, false, false);
    EXPECT_TRUE(pathExists(adobe + "/Night.plugin/v"));
    EXPECT_EQ(night->pluginAccess(), 0);

    // The scope already says "current user", but the file lies in the
    // machine-wide folder: the check box's path, which moves it anyway.
    auto off = w.plugin("Off.fxplug");
    off->setPluginAccess(1);
    w.outline().setAccess(1, off, false, false);
    EXPECT_TRUE(pathExists(w.userFx("/Off.fxplug/v")));
    EXPECT_FALSE(pathExists(w.fx("/Off.fxplug")));

    // A disabled plug-in moves inside the disabled folder.
    ASSERT_TRUE(w.outline().moveFilter(glow, 0));
    w.outline().setAccess(0, glow, false, false);
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Glow.fxplug/v"))));
    EXPECT_FALSE(pathExists(w.mirror(w.userFx("/Glow.fxplug"))));
}

TEST(ScopeTest, AFailedMoveKeepsTheFileAndPutsTheScopeBack) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Glow.fxplug/v"), "machine");
    ScratchRoot::writeFile(w.userFx("/Glow.fxplug/v"), "user");
    w.load();
    std::shared_ptr<KTPluginItem> machine;
    for (auto& p : w.outline().allPlugins())
        if (p->fileName() == "Glow.fxplug" && p->pluginAccess() == 0) machine = p;
    ASSERT_TRUE(machine);
    w.outline().setAccess(1, machine, false, false);
    EXPECT_EQ(ScratchRoot::readFile(w.fx("/Glow.fxplug/v")), "machine");
    EXPECT_EQ(ScratchRoot::readFile(w.userFx("/Glow.fxplug/v")), "user");
    EXPECT_EQ(machine->pluginAccess(), 0);
    EXPECT_TRUE(w.logged("Failed to move file " + w.fx("/Glow.fxplug") + " to " +
                         w.userFx("/Glow.fxplug")));
}

TEST(ScopeTest, GroupsMoveTheirMembersWithProgressFromFourChildren) {
    OperationsWorld w;
    for (const char* n : {"A", "B", "C"})
        ScratchRoot::writeFile(w.fx(std::string("/Three/") + n + ".fxplug/v"), n);
    for (const char* n : {"D", "E", "F"})
        ScratchRoot::writeFile(w.fx(std::string("/Four/") + n + ".fxplug/v"), n);
    ScratchRoot::writeFile(w.fx("/Four/Sub/G.fxplug/v"), "g");
    w.load();
    w.withInterface();

    w.outline().setAccess(1, w.group("Three"), true, false);
    EXPECT_FALSE(w.ui->hasEvent("show"));
    EXPECT_TRUE(pathExists(w.userFx("/Three/C.fxplug/v")));

    auto four = w.group("Four");
    w.outline().setAccess(1, four, true, true);  // as the check box starts it
    w.app->waitForBatchOperations();
    EXPECT_TRUE(w.ui->hasEvent("show"));
    EXPECT_TRUE(w.ui->hasEvent("max 4"));
    EXPECT_TRUE(pathExists(w.userFx("/Four/Sub/G.fxplug/v")));
    EXPECT_TRUE(pathExists(w.userFx("/Four/F.fxplug/v")));
    EXPECT_EQ(four->storedGroupPath().value_or(""),
              KTPluginLocations::pluginBasePath(KTPluginType::FxPlug, 1) + "/Four");
}

TEST(RemovalTest, PluginsGoToTheTrashAndLeaveTheTree) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Glow.fxplug/v"), "glow");
    ScratchRoot::writeFile(w.fx("/Pack/Blur.fxplug/v"), "blur");
    w.load();
    auto glow = w.plugin("Glow.fxplug");
    auto blur = w.plugin("Blur.fxplug");
    ASSERT_TRUE(w.outline().removePlugin(glow));
    ASSERT_TRUE(w.outline().removePlugin(blur));
    EXPECT_FALSE(pathExists(w.fx("/Glow.fxplug")));
    EXPECT_NE(w.trash().find("Glow.fxplug"), std::string::npos);
    EXPECT_NE(w.trash().find("Blur.fxplug"), std::string::npos);
    EXPECT_FALSE(w.plugin("Glow.fxplug"));
    EXPECT_FALSE(w.plugin("Blur.fxplug"));
    EXPECT_TRUE(w.group("Pack"));  // the emptied group stays until the next reload
    EXPECT_FALSE(w.outline().pluginFromPath(w.fx("/Glow.fxplug")));
}

TEST(RemovalTest, GroupSafetyRuleAndFoldersThatStillHoldSomething) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Glow.fxplug/v"), "glow");
    ScratchRoot::writeFile(w.fx("/Pack/Inner/.DS_Store"), "");
    ScratchRoot::writeFile(w.fx("/Pack/readme.txt"), "keep");
    ScratchRoot::makeDirs(w.mirror(w.fx("/Pack/Empty")));
    ScratchRoot::writeFile(w.fx("/Gone/Blur.fxplug/v"), "blur");
    ScratchRoot::writeFile(w.mirror(w.fx("/Gone/Off.fxplug/v")), "off");
    w.load();
    w.withInterface();

    // No sub-folder: its folder would be the kind folder itself.
    auto bad = std::make_shared<KTGroupItem>();
    bad->setTitle("Bad");
    w.outline().addItemToDataArray(bad);
    EXPECT_FALSE(w.outline().removeGroup(bad, true));
    EXPECT_TRUE(pathExists(w.fx("/Glow.fxplug/v")));
    EXPECT_TRUE(w.ui->hasEvent("alert Invalid group format for Bad."));
    EXPECT_TRUE(w.logged("Group Bad has no subdirectory parameter"));
    w.app->waitForReload();  // the catalogue is read again

    // Without its children only what is empty goes.
    auto pack = std::make_shared<KTGroupItem>();
    pack->setTitle("Pack");
    pack->setSubdir("Pack");
    w.outline().removeGroup(pack, false);
    EXPECT_EQ(ScratchRoot::readFile(w.fx("/Pack/readme.txt")), "keep");
    EXPECT_FALSE(pathExists(w.mirror(w.fx("/Pack"))));

    // With them, from the enabled folder and the disabled mirror alike.
    auto gone = w.group("Gone");
    ASSERT_TRUE(gone);
    w.outline().removeGroup(gone, true);
    EXPECT_FALSE(pathExists(w.fx("/Gone")));
    EXPECT_FALSE(pathExists(w.mirror(w.fx("/Gone"))));
    EXPECT_NE(w.trash().find("Blur.fxplug"), std::string::npos);
    EXPECT_NE(w.trash().find("Off.fxplug"), std::string::npos);
    EXPECT_FALSE(w.group("Gone"));
}

TEST(RemovalTest, AskedBatchWithProgressFromFourItems) {
    OperationsWorld w;
    for (const char* n : {"A", "B", "C", "D", "E", "F", "G"})
        ScratchRoot::writeFile(w.fx(std::string("/") + n + ".fxplug/v"), n);
    w.load();
    w.withInterface();

    w.ui->answer("Cancel");
    w.app->remove({w.plugin("A.fxplug")});
    w.app->waitForBatchOperations();
    EXPECT_TRUE(pathExists(w.fx("/A.fxplug")));
    EXPECT_TRUE(w.ui->hasEvent("alert Are you sure you wish to remove this plugin?"));

    w.ui->answer("Remove");
    w.app->remove({w.plugin("A.fxplug"), w.plugin("B.fxplug"), w.plugin("C.fxplug")});
    w.app->waitForBatchOperations();
    EXPECT_FALSE(pathExists(w.fx("/C.fxplug")));
    EXPECT_FALSE(w.ui->hasEvent("show"));

    w.ui->answer("Remove");
    w.app->remove(
        {w.plugin("D.fxplug"), w.plugin("E.fxplug"), w.plugin("F.fxplug"), w.plugin("G.fxplug")});
    w.app->waitForBatchOperations();
    EXPECT_TRUE(w.ui->hasEvent("alert Are you sure you wish to remove these items?"));
    EXPECT_TRUE(w.ui->hasEvent("max 4"));
    EXPECT_TRUE(w.ui->hasEvent("text Removing files..."));
    EXPECT_FALSE(pathExists(w.fx("/G.fxplug")));
}

TEST(RemovalTest, DeleteAllDisabled) {
    OperationsWorld w;
    ScratchRoot::writeFile(w.fx("/Glow.fxplug/v"), "glow");
    w.load();
    w.withInterface();

    // The last enable removed it (the load makes it afresh).
    std::filesystem::remove_all(w.disabled());
    w.ui->answer("Delete All");
    w.app->deleteAllDisabled();
    ASSERT_EQ(w.ui->alerts().size(), 2u);
    EXPECT_EQ(w.ui->alerts()[1].message, "Unable to trash disabled plugins");
    EXPECT_EQ(w.ui->alerts()[1].informative, "No plugins have been disabled.");

    ASSERT_TRUE(w.outline().moveFilter(w.plugin("Glow.fxplug"), 0));
    w.ui->answer("Cancel");
    w.app->deleteAllDisabled();
    EXPECT_TRUE(pathExists(w.mirror(w.fx("/Glow.fxplug"))));

    w.ui->answer("Delete All");
    w.app->deleteAllDisabled();
    w.app->waitForReload();
    EXPECT_EQ(w.ui->alerts().back().message, "Plugin trash successful");
    EXPECT_TRUE(pathExists(w.disabled()));
    EXPECT_FALSE(pathExists(w.mirror(w.fx("/Glow.fxplug"))));
    EXPECT_FALSE(pathExists(w.fx("/Glow.fxplug")));
    EXPECT_FALSE(w.plugin("Glow.fxplug"));
}
