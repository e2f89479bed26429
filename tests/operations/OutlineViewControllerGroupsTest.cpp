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
using OVC = OutlineViewController;

namespace {

bool exists(const std::string& p) {
    return fs::exists(fs::symlink_status(p));
}

class GroupsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        KTFileMover::setPrivilegedPauseSecondsForTesting(0);
        app = AppController::initWithoutGUI();
        app->setHasGUI(true);
        app->setUserInterface(ui);
    }
    void TearDown() override {
        app->waitForReload();
        KTFileMover::setPrivilegedPauseSecondsForTesting(1);
    }
    void load() {
        app->waitForReload();
        app->loadPluginData();
    }
    OVC& outline() { return app->outlineViewController(); }
    std::shared_ptr<KTGroupItem> group(const std::string& subdir) {
        return outline().groupMatchingSubdir(subdir);
    }
    /// The plug-in of that file name in that group ("" for the top level).
    std::shared_ptr<KTPluginItem> plugin(const std::string& fileName, const std::string& in = "*") {
        for (auto& p : outline().allPlugins())
            if (p->fileName() == fileName && (in == "*" || p->subdir().value_or("") == in))
                return p;
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

}  // namespace

TEST_F(GroupsTest, NameProposalsAndCleaning) {
    const std::string folder = s.base() + "/groups";
    ScratchRoot::makeDirs(folder + "/Group 2");
    EXPECT_EQ(OVC::proposeGroupFilename(folder), "Group");
    ScratchRoot::writeFile(folder + "/Group", "a file takes the name too");
    EXPECT_EQ(OVC::proposeGroupFilename(folder), "Group 3");

    EXPECT_EQ(OVC::validateFilename("..x"), ".x");
    EXPECT_EQ(OVC::validateFilename("a/b\\c~"), "abc");
    EXPECT_EQ(OVC::validateFilename("."), std::nullopt);
}

TEST_F(GroupsTest, AddGroupPlacesItAndStopsAtLevelTen) {
    std::string level9 = "g0", level10;
    for (int i = 1; i <= 9; ++i) level9 += "/g" + std::to_string(i);
    level10 = level9 + "/g10";
    ScratchRoot::writeFile(fx + "/" + level10 + "/Deep.fxplug", "x");
    ScratchRoot::writeFile(fx + "/g0/Top.fxplug", "x");
    load();

    // Nothing selected: the disabled mirror of the FxPlug folder, top level.
    auto first = app->addGroup(nullptr);
    auto second = app->addGroup(nullptr);
    ASSERT_TRUE(first && second);
    EXPECT_TRUE(fs::is_directory(KTPluginLocations::disabledPathForPath(fx) + "/Group 2"));
    EXPECT_EQ(second->subdir(), "Group 2");
    const auto top = outline().dataArray();
    EXPECT_NE(std::find(top.begin(), top.end(), second), top.end());

    // A plug-in stands for its group.
    auto inG0 = app->addGroup(plugin("Top.fxplug"));
    ASSERT_TRUE(inG0);
    EXPECT_TRUE(fs::is_directory(fx + "/g0/Group"));
    EXPECT_EQ(inG0->subdir(), "g0/Group");
    EXPECT_EQ(inG0->parent(), group("g0"));

    ASSERT_EQ(OVC::outlineLevel(group(level9)), 9);
    EXPECT_TRUE(app->addGroup(group(level9)));
    EXPECT_TRUE(alertMessages().empty());
    EXPECT_FALSE(app->addGroup(group(level10)));
    // The plug-in's own level counts, not its group's.
    EXPECT_FALSE(app->addGroup(plugin("Deep.fxplug")));
    EXPECT_FALSE(exists(fx + "/" + level10 + "/Group"));
    EXPECT_EQ(alertMessages(),
              std::vector<std::string>(2, "You have reached the limit of 10 subdirectories."));
}

TEST_F(GroupsTest, RenameMovesEveryFolderOfTheGroupButQuartz) {
    const std::string au = s.homePath("/Library/Audio/Plug-Ins/Components");
    const std::string vst3 =
        KTPluginLocations::disabledPathForPath(s.rootPath("/Library/Audio/Plug-Ins/VST3"));
    const std::string quartz = s.rootPath("/Library/Graphics/Quartz Composer Plug-Ins");
    ScratchRoot::writeFile(fx + "/Reverbs/A.fxplug", "a");
    ScratchRoot::writeFile(au + "/Reverbs/B.component", "b");
    ScratchRoot::writeFile(vst3 + "/Reverbs/C.vst3", "c");
    ScratchRoot::writeFile(quartz + "/Reverbs/Q.plugin", "q");
    load();
    auto reverbs = group("Reverbs");
    ASSERT_TRUE(reverbs);

    EXPECT_FALSE(outline().renameGroup(reverbs, "Reverbs"));
    ASSERT_TRUE(outline().renameGroup(reverbs, "Echoes"));
    EXPECT_TRUE(exists(fx + "/Echoes/A.fxplug"));
    EXPECT_TRUE(exists(au + "/Echoes/B.component"));
    EXPECT_TRUE(exists(vst3 + "/Echoes/C.vst3"));
    EXPECT_FALSE(exists(fx + "/Reverbs"));
    EXPECT_TRUE(exists(quartz + "/Reverbs/Q.plugin"));
    EXPECT_EQ(reverbs->title(), "Echoes");
    EXPECT_EQ(plugin("A.fxplug")->pluginPath(), fx + "/Echoes/A.fxplug");

    // A folder in the way stops the rename; folders visited before keep the new name.
    ScratchRoot::makeDirs(au + "/Chorus");
    EXPECT_FALSE(outline().renameGroup(reverbs, "Chorus"));
    EXPECT_TRUE(exists(fx + "/Chorus/A.fxplug"));
    EXPECT_TRUE(exists(au + "/Echoes/B.component"));
}

TEST_F(GroupsTest, MoveIntoAGroupAsksBeforeReplacing) {
    ScratchRoot::writeFile(fx + "/Glow.fxplug", "new");
    ScratchRoot::writeFile(fx + "/Lights/Glow.fxplug", "old");
    load();
    auto lights = group("Lights");
    auto glow = plugin("Glow.fxplug", "");
    ASSERT_TRUE(lights && glow);

    ui->answer("Cancel");
    EXPECT_FALSE(outline().moveItem(glow, lights));
    EXPECT_EQ(ScratchRoot::readFile(fx + "/Lights/Glow.fxplug"), "old");
    EXPECT_EQ(ui->alerts().at(0).buttons, (std::vector<std::string>{"Overwrite", "Cancel"}));

    ui->answer("Overwrite");
    EXPECT_TRUE(outline().moveItem(glow, lights));
    EXPECT_EQ(ScratchRoot::readFile(fx + "/Lights/Glow.fxplug"), "new");
    EXPECT_FALSE(exists(fx + "/Glow.fxplug"));
    EXPECT_EQ(glow->subdir(), "Lights");
    EXPECT_EQ(glow->parent(), lights);
}

TEST_F(GroupsTest, DropMovesEachThingOnceAndNothingAlreadyInPlace) {
    ScratchRoot::writeFile(fx + "/Target/T.fxplug", "t");
    ScratchRoot::writeFile(fx + "/Pack/P.fxplug", "p");
    ScratchRoot::writeFile(fx + "/Pack/Inner/I.fxplug", "i");
    ScratchRoot::writeFile(fx + "/Loose.fxplug", "l");
    load();

    outline().reorderPluginsOnThread({{plugin("T.fxplug")}, group("Target"), {}});
    EXPECT_TRUE(exists(fx + "/Target/T.fxplug"));
    EXPECT_FALSE(ui->hasEvent("inc"));

    load();
    outline().reorderPluginsOnThread(
        {{group("Pack"), plugin("P.fxplug"), plugin("Loose.fxplug")}, group("Target"), {}});
    EXPECT_TRUE(exists(fx + "/Target/Pack/P.fxplug"));
    EXPECT_TRUE(exists(fx + "/Target/Pack/Inner/I.fxplug"));
    EXPECT_TRUE(exists(fx + "/Target/Loose.fxplug"));
    EXPECT_FALSE(exists(fx + "/Target/P.fxplug"));
    EXPECT_FALSE(exists(fx + "/Pack"));  // emptied, so removed
    EXPECT_TRUE(ui->alerts().empty());
    EXPECT_FALSE(ui->hasEvent("show"));  // three plug-ins in all

    // A failure stops the drop; more than three items showed the progress window.
    ScratchRoot::writeFile(fx + "/Dest/Loose.fxplug", "in the way");
    load();
    ui->answer("Cancel");
    outline().reorderPluginsOnThread(
        {{plugin("T.fxplug"), plugin("Loose.fxplug", "Target"), group("Target/Pack")},
         group("Dest"),
         {}});
    EXPECT_TRUE(ui->hasEvent("max 4"));
    EXPECT_TRUE(exists(fx + "/Dest/T.fxplug"));
    EXPECT_TRUE(exists(fx + "/Target/Pack/P.fxplug"));
    EXPECT_EQ(alertMessages().back(), "Unable to move Loose.");
}
