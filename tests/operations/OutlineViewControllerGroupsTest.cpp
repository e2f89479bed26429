// Groups on a scratch tree: creating, naming, renaming, moving and dropping,
// with the scripted interface answering the questions.
#include <gtest/gtest.h>

#include <filesystem>

#include "app/core/AppController.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "support/ScratchRoot.h"
#include "support/ScriptedUserInterface.h"

namespace fs = std::filesystem;

namespace {

class GroupsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        KTFileMover::setPrivilegedPauseSecondsForTesting(0);
        app = AppController::initWithoutGUI();
        app->setHasGUI(true);
        app->setUserInterface(ui);
    }
    void TearDown() override {
        if (app) {
            app->waitForBatchOperations();
            app->waitForReload();
        }
        KTFileMover::setPrivilegedPauseSecondsForTesting(1);
    }
    void load() {
        app->waitForReload();
        app->loadPluginData();
        outline().waitForBundleInspection();
    }
    OutlineViewController& outline() { return app->outlineViewController(); }
    std::shared_ptr<KTGroupItem> group(const std::string& subdir) {
        return outline().groupMatchingSubdir(subdir);
    }
    std::shared_ptr<KTPluginItem> plugin(const std::string& fileName) {
        for (auto& p : outline().allPlugins())
            if (p->fileName() == fileName) return p;
        return nullptr;
    }
    std::vector<std::string> alertMessages() const {
        std::vector<std::string> out;
        for (const auto& a : ui->alerts()) out.push_back(a.message);
        return out;
    }

    ScratchRoot s;
    std::shared_ptr<ScriptedUserInterface> ui = std::make_shared<ScriptedUserInterface>();
    std::unique_ptr<AppController> app;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
};

bool exists(const std::string& p) {
    return fs::exists(fs::symlink_status(p));
}

}  // namespace

TEST_F(GroupsTest, NameProposalsAndCleaning) {
    const std::string folder = s.base() + "/groups";
    ScratchRoot::makeDirs(folder);
    EXPECT_EQ(OutlineViewController::proposeGroupFilename(folder), "Group");
    ScratchRoot::makeDirs(folder + "/Group 2");
    EXPECT_EQ(OutlineViewController::proposeGroupFilename(folder), "Group");
    ScratchRoot::writeFile(folder + "/Group", "a file takes the name too");
    EXPECT_EQ(OutlineViewController::proposeGroupFilename(folder), "Group 3");

    EXPECT_EQ(OutlineViewController::validateFilename("..x"), ".x");
    EXPECT_EQ(OutlineViewController::validateFilename("a/b\\c~"), "abc");
    EXPECT_EQ(OutlineViewController::validateFilename(".Hidden"), "Hidden");
    EXPECT_EQ(OutlineViewController::validateFilename("."), std::nullopt);
    EXPECT_EQ(OutlineViewController::validateFilename(""), std::nullopt);
    EXPECT_EQ(OutlineViewController::validateFilename(std::nullopt), std::nullopt);
}

TEST_F(GroupsTest, AddGroupPlacesItAndStopsAtTenLevels) {
    // Groups g0 (level 0) to g10 (level 10), one plug-in at the bottom.
    std::string subdir = "g0";
    for (int i = 1; i <= 10; ++i) subdir += "/g" + std::to_string(i);
    ScratchRoot::writeFile(fx + "/" + subdir + "/Deep.fxplug", "x");
    ScratchRoot::writeFile(fx + "/g0/Top.fxplug", "x");
    load();

    // Nothing selected: a top-level group in the disabled mirror of the FxPlug folder.
    auto first = app->addGroup(nullptr);
    ASSERT_TRUE(first);
    const std::string mirror = KTPluginLocations::disabledPathForPath(fx);
    EXPECT_TRUE(fs::is_directory(mirror + "/Group"));
    EXPECT_EQ(first->subdir(), "Group");
    auto second = app->addGroup(nullptr);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->title(), "Group 2");
    const auto top = outline().dataArray();
    EXPECT_NE(std::find(top.begin(), top.end(), second), top.end());

    // A plug-in's own group gets the new group.
    auto inG0 = app->addGroup(plugin("Top.fxplug"));
    ASSERT_TRUE(inG0);
    EXPECT_TRUE(fs::is_directory(fx + "/g0/Group"));
    EXPECT_EQ(inG0->subdir(), "g0/Group");
    EXPECT_EQ(inG0->parent(), group("g0"));

    std::string level9 = "g0";
    for (int i = 1; i <= 9; ++i) level9 += "/g" + std::to_string(i);
    ASSERT_EQ(OutlineViewController::outlineLevel(group(level9)), 9);
    EXPECT_TRUE(app->addGroup(group(level9)));
    EXPECT_TRUE(fs::is_directory(fx + "/" + level9 + "/Group"));
    EXPECT_TRUE(alertMessages().empty());

    EXPECT_FALSE(app->addGroup(group(subdir)));
    // The plug-in at level 11 is measured itself, not its group.
    EXPECT_FALSE(app->addGroup(plugin("Deep.fxplug")));
    EXPECT_FALSE(exists(fx + "/" + subdir + "/Group"));
    EXPECT_EQ(alertMessages(),
              std::vector<std::string>(2, "You have reached the limit of 10 subdirectories."));
}

TEST_F(GroupsTest, RenameMovesEveryFolderOfTheGroupButQuartz) {
    const std::string au = s.homePath("/Library/Audio/Plug-Ins/Components");
    const std::string vst3 = s.rootPath("/Library/Audio/Plug-Ins/VST3");
    const std::string quartz = s.rootPath("/Library/Graphics/Quartz Composer Plug-Ins");
    ScratchRoot::writeFile(fx + "/Reverbs/A.fxplug", "a");
    ScratchRoot::writeFile(au + "/Reverbs/B.component", "b");
    ScratchRoot::writeFile(KTPluginLocations::disabledPathForPath(vst3) + "/Reverbs/C.vst3", "c");
    ScratchRoot::writeFile(quartz + "/Reverbs/Q.plugin", "q");
    load();
    auto reverbs = group("Reverbs");
    ASSERT_TRUE(reverbs);

    EXPECT_FALSE(outline().renameGroup(reverbs, "Reverbs"));
    EXPECT_TRUE(exists(fx + "/Reverbs/A.fxplug"));

    ASSERT_TRUE(outline().renameGroup(reverbs, "Echoes"));
    EXPECT_TRUE(exists(fx + "/Echoes/A.fxplug"));
    EXPECT_TRUE(exists(au + "/Echoes/B.component"));
    EXPECT_TRUE(exists(KTPluginLocations::disabledPathForPath(vst3) + "/Echoes/C.vst3"));
    EXPECT_FALSE(exists(fx + "/Reverbs"));
    EXPECT_TRUE(exists(quartz + "/Reverbs/Q.plugin"));
    EXPECT_FALSE(exists(quartz + "/Echoes"));
    EXPECT_EQ(reverbs->title(), "Echoes");
    EXPECT_EQ(reverbs->subdir(), "Echoes");
    EXPECT_EQ(plugin("A.fxplug")->subdir(), "Echoes");
    EXPECT_EQ(plugin("A.fxplug")->pluginPath(), fx + "/Echoes/A.fxplug");
}

TEST_F(GroupsTest, RenameStopsAtAFolderInTheWayKeepingEarlierOnes) {
    const std::string au = s.homePath("/Library/Audio/Plug-Ins/Components");
    ScratchRoot::writeFile(fx + "/Reverbs/A.fxplug", "a");
    ScratchRoot::writeFile(au + "/Reverbs/B.component", "b");
    ScratchRoot::writeFile(au + "/Echoes/Other.component", "o");
    load();
    auto reverbs = group("Reverbs");
    ASSERT_TRUE(reverbs);
    EXPECT_FALSE(outline().renameGroup(reverbs, "Echoes"));
    EXPECT_TRUE(exists(fx + "/Echoes/A.fxplug"));
    EXPECT_TRUE(exists(au + "/Reverbs/B.component"));
    EXPECT_TRUE(exists(au + "/Echoes/Other.component"));
    EXPECT_FALSE(exists(au + "/Echoes/B.component"));
}

TEST_F(GroupsTest, MoveIntoAGroupAsksBeforeReplacing) {
    ScratchRoot::writeFile(fx + "/Glow.fxplug", "new");
    ScratchRoot::writeFile(fx + "/Lights/Glow.fxplug", "old");
    ScratchRoot::writeFile(fx + "/Lights/Keep.fxplug", "k");
    load();
    auto lights = group("Lights");
    std::shared_ptr<KTPluginItem> top;
    for (auto& p : outline().allPlugins())
        if (p->fileName() == "Glow.fxplug" && !p->subdir()) top = p;
    ASSERT_TRUE(lights && top);

    ui->answer("Cancel");
    EXPECT_FALSE(outline().moveItem(top, lights));
    EXPECT_EQ(ScratchRoot::readFile(fx + "/Lights/Glow.fxplug"), "old");
    EXPECT_TRUE(exists(fx + "/Glow.fxplug"));
    ASSERT_EQ(ui->alerts().size(), 1u);
    EXPECT_EQ(ui->alerts()[0].buttons, (std::vector<std::string>{"Overwrite", "Cancel"}));

    ui->answer("Overwrite");
    EXPECT_TRUE(outline().moveItem(top, lights));
    EXPECT_EQ(ScratchRoot::readFile(fx + "/Lights/Glow.fxplug"), "new");
    EXPECT_FALSE(exists(fx + "/Glow.fxplug"));
    EXPECT_EQ(top->subdir(), "Lights");
    EXPECT_EQ(top->parent(), lights);
    bool trashed = false;
    for (const auto& e : fs::recursive_directory_iterator(s.home()))
        if (e.path().filename() == "Glow.fxplug" &&
            e.path().string().find("Trash") != std::string::npos)
            trashed = ScratchRoot::readFile(e.path()) == "old";
    EXPECT_TRUE(trashed);

    // Without an interface nobody can agree to replace anything.
    app->setHasGUI(false);
    ScratchRoot::writeFile(fx + "/Keep.fxplug", "other");
    auto keep = plugin("Keep.fxplug");
    EXPECT_FALSE(outline().moveItem(keep, nullptr));
    EXPECT_EQ(ScratchRoot::readFile(fx + "/Keep.fxplug"), "other");
    EXPECT_TRUE(exists(fx + "/Lights/Keep.fxplug"));
}

TEST_F(GroupsTest, DropMovesEachThingOnceAndNothingAlreadyInPlace) {
    ScratchRoot::writeFile(fx + "/Target/T.fxplug", "t");
    ScratchRoot::writeFile(fx + "/Pack/P.fxplug", "p");
    ScratchRoot::writeFile(fx + "/Pack/Inner/I.fxplug", "i");
    ScratchRoot::writeFile(fx + "/Loose.fxplug", "l");
    load();

    // Onto the group the plug-in is already in: nothing moves, nothing is asked.
    KTReorderArgs same;
    same.objectArray = {plugin("T.fxplug")};
    same.droppedItem = group("Target");
    outline().reorderPluginsOnThread(same);
    app->waitForReload();
    EXPECT_TRUE(exists(fx + "/Target/T.fxplug"));
    EXPECT_TRUE(ui->alerts().empty());
    EXPECT_FALSE(ui->hasEvent("inc"));

    // A group together with one of its own plug-ins, and a loose plug-in.
    load();
    KTReorderArgs drop;
    drop.objectArray = {group("Pack"), plugin("P.fxplug"), plugin("Loose.fxplug")};
    drop.droppedItem = group("Target");
    outline().reorderPluginsOnThread(drop);
    app->waitForReload();
    EXPECT_TRUE(exists(fx + "/Target/Pack/P.fxplug"));
    EXPECT_TRUE(exists(fx + "/Target/Pack/Inner/I.fxplug"));
    EXPECT_TRUE(exists(fx + "/Target/Loose.fxplug"));
    EXPECT_FALSE(exists(fx + "/Target/P.fxplug"));
    EXPECT_FALSE(exists(fx + "/Pack"));  // emptied, so removed
    EXPECT_TRUE(ui->alerts().empty());
    // Three plug-ins in all: no progress window.
    EXPECT_FALSE(ui->hasEvent("show"));

    // After the reload the tree shows the new places.
    outline().waitForBundleInspection();
    ASSERT_TRUE(plugin("P.fxplug"));
    EXPECT_EQ(plugin("P.fxplug")->subdir(), "Target/Pack");
}

TEST_F(GroupsTest, DropOfMoreThanThreeShowsProgressAndAFailureStopsIt) {
    for (const char* n : {"A", "B", "C", "D"}) ScratchRoot::writeFile(fx + "/" + n + ".fxplug", n);
    ScratchRoot::writeFile(fx + "/Dest/B.fxplug", "in the way");
    load();
    KTReorderArgs drop;
    drop.objectArray = {plugin("A.fxplug"), plugin("D.fxplug")};
    for (auto& p : outline().allPlugins())
        if (p->fileName() == "B.fxplug" && !p->subdir()) drop.objectArray.push_back(p);
    drop.objectArray.push_back(plugin("C.fxplug"));
    drop.droppedItem = group("Dest");

    ui->answer("Cancel");  // do not replace Dest/B.fxplug
    outline().reorderPluginsOnThread(drop);
    EXPECT_TRUE(ui->hasEvent("show"));
    EXPECT_TRUE(ui->hasEvent("max 4"));
    EXPECT_TRUE(ui->hasEvent("text Moving files..."));
    EXPECT_TRUE(exists(fx + "/Dest/A.fxplug"));
    EXPECT_TRUE(exists(fx + "/Dest/D.fxplug"));
    EXPECT_TRUE(exists(fx + "/B.fxplug"));
    EXPECT_TRUE(exists(fx + "/C.fxplug"));  // the drop stopped before it
    const auto messages = alertMessages();
    EXPECT_NE(std::find(messages.begin(), messages.end(), "Unable to move B."), messages.end());
    EXPECT_TRUE(ui->hasEvent("end"));
}
