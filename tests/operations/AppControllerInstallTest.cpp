// Installing through the controller with the scripted interface: progress,
// the overwrite question, the failure summary, the scope question and the
// files opened with the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "app/core/AppController.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "operations/KTInstallCopier.h"
#include "support/ScratchRoot.h"
#include "support/ScriptedUserInterface.h"

namespace fs = std::filesystem;

namespace {

/// A copier whose ordinary copy always fails, as on a folder the user may not write.
class RefusingCopier : public KTInstallCopier {
  protected:
    bool copyTree(const std::string&, const std::string&, std::string* error) override {
        if (error) *error = "Permission denied";
        return false;
    }
};

class InstallTest : public ::testing::Test {
  protected:
    void SetUp() override {
        KTFileMover::setPrivilegedPauseSecondsForTesting(0);
        app = AppController::initWithoutGUI();
        app->setHasGUI(true);
        app->setUserInterface(ui);
    }
    void TearDown() override {
        app->waitForBatchOperations();
        app->waitForReload();
        KTInstallCopier::setShared(nullptr);
        KTFileMover::setPrivilegedPauseSecondsForTesting(1);
    }
    std::vector<std::string> install(const std::vector<std::string>& paths, bool forUser,
                                     const KTItemPtr& item = nullptr) {
        auto failed = app->installPlugins(paths, item, forUser, true);
        app->waitForReload();
        return failed;
    }
    std::string file(const std::string& name, const std::string& content = "x") {
        const std::string path = s.base() + "/in/" + name;
        ScratchRoot::writeFile(path, content);
        return path;
    }

    ScratchRoot s;
    std::shared_ptr<ScriptedUserInterface> ui = std::make_shared<ScriptedUserInterface>();
    std::unique_ptr<AppController> app;
    const std::string userFx = s.homePath("/Library/Plug-Ins/FxPlug");
    const std::string localFx = s.rootPath("/Library/Plug-Ins/FxPlug");
};

bool exists(const std::string& p) {
    return fs::exists(fs::symlink_status(p));
}

}  // namespace

TEST_F(InstallTest, ProgressWindowOnlyForMoreThanThreeFiles) {
    install({file("A.fxplug"), file("B.fxplug"), file("C.fxplug")}, true);
    EXPECT_FALSE(ui->hasEvent("show"));
    EXPECT_TRUE(exists(userFx + "/C.fxplug"));

    install({file("D.fxplug"), file("E.fxplug"), file("F.fxplug"), file("G.fxplug")}, false);
    EXPECT_TRUE(ui->hasEvent("show"));
    EXPECT_TRUE(ui->hasEvent("max 4"));
    EXPECT_TRUE(ui->hasEvent("text Installing plugins..."));
    EXPECT_TRUE(exists(localFx + "/G.fxplug"));
    EXPECT_TRUE(ui->alerts().empty());
}

TEST_F(InstallTest, IgnoreIsReportedAsFailedAndOverwriteTrashesTheOldCopy) {
    ScratchRoot::writeFile(userFx + "/Glow.fxplug", "old");
    const std::string glow = file("Glow.fxplug", "new");
    const std::string junk = file("notes.doc");

    ui->answer("Ignore");
    auto failed = install({glow, junk}, true);
    EXPECT_EQ(failed, (std::vector<std::string>{glow, junk}));
    EXPECT_EQ(ScratchRoot::readFile(userFx + "/Glow.fxplug"), "old");
    EXPECT_FALSE(exists(userFx + "/notes.doc"));
    ASSERT_EQ(ui->alerts().size(), 2u);
    EXPECT_EQ(ui->alerts()[0].message,
              "The file Glow.fxplug already exists. Would you like to "
              "overwrite it?");
    EXPECT_EQ(ui->alerts()[0].buttons, (std::vector<std::string>{"Overwrite", "Ignore"}));
    EXPECT_EQ(ui->alerts()[1].message, "Installation failed");
    EXPECT_EQ(ui->alerts()[1].informative,
              "The following plugins failed to install: \n" + glow + "\n" + junk);

    ui->answer("Overwrite");
    EXPECT_TRUE(install({glow}, false).empty());
    // The old copy was found in the user's folder; the new one goes where asked.
    EXPECT_FALSE(exists(userFx + "/Glow.fxplug"));
    EXPECT_EQ(ScratchRoot::readFile(localFx + "/Glow.fxplug"), "new");
    bool trashed = false;
    for (const auto& e : fs::recursive_directory_iterator(s.home()))
        if (e.path().filename() == "Glow.fxplug" &&
            e.path().string().find("Trash") != std::string::npos)
            trashed = ScratchRoot::readFile(e.path()) == "old";
    EXPECT_TRUE(trashed);
    EXPECT_TRUE(app->installList.empty());
}

TEST_F(InstallTest, TargetGroupAndFoldersThatBecomeGroups) {
    ScratchRoot::writeFile(userFx + "/Reverbs/Hall.fxplug", "h");
    app->loadPluginData();
    std::shared_ptr<KTPluginItem> hall;
    for (auto& p : app->outlineViewController().allPlugins())
        if (p->fileName() == "Hall.fxplug") hall = p;
    ASSERT_TRUE(hall);

    // A plug-in as target stands for its group; a folder inside becomes a sub-group.
    const std::string room = file("Room.fxplug");
    file("Pack/Plate.fxplug");
    file("Pack/readme.doc");
    file("Pack/.DS_Store");
    const auto failed = install({room, s.base() + "/in/Pack"}, true, hall);
    EXPECT_TRUE(failed.empty());  // a nested folder's failures stay in the log
    EXPECT_TRUE(exists(userFx + "/Reverbs/Room.fxplug"));
    EXPECT_TRUE(exists(userFx + "/Reverbs/Pack/Plate.fxplug"));
    EXPECT_FALSE(exists(userFx + "/Reverbs/Pack/readme.doc"));
    EXPECT_FALSE(exists(userFx + "/Reverbs/Pack/.DS_Store"));
    EXPECT_EQ(AppController::countTotalFilesInPathArray({room, s.base() + "/in/Pack"}), 5);
}

TEST_F(InstallTest, RefusedCopyFallsBackToAdministratorRights) {
    KTInstallCopier::setShared(std::make_shared<RefusingCopier>());
    file("Echo.component/Contents/Info.plist", "plist");
    const auto failed = install({s.base() + "/in/Echo.component"}, false);
    const std::string au = s.rootPath("/Library/Audio/Plug-Ins/Components");
    if (!failed.empty()) GTEST_SKIP() << "no administrator rights here";
    EXPECT_EQ(ScratchRoot::readFile(au + "/Echo.component/Contents/Info.plist"), "plist");
    for (const auto& e : fs::directory_iterator(au))
        EXPECT_EQ(e.path().filename(), "Echo.component");  // no staging copy left
}

TEST_F(InstallTest, ScopeQuestionOnlyWhenTheKindHasTwoFolders) {
    // Audio Units and templates install at once, in the scope left selected.
    app->installForUser = false;
    EXPECT_FALSE(app->displayInstallPrompt(std::vector<std::string>{file("Echo.component")}));
    app->waitForBatchOperations();
    app->waitForReload();
    EXPECT_TRUE(exists(s.rootPath("/Library/Audio/Plug-Ins/Components/Echo.component")));

    EXPECT_FALSE(app->displayInstallPrompt(std::nullopt));
    const std::string glow = file("Glow.fxplug");
    ASSERT_TRUE(app->displayInstallPrompt(std::vector<std::string>{glow}));
    EXPECT_EQ(app->installPromptText(),
              "Would you like to make this plugin available to all users or just the current "
              "user?");
    app->installPromptSheetDidEnd(0, 0);  // Cancel
    app->waitForBatchOperations();
    EXPECT_FALSE(exists(userFx + "/Glow.fxplug"));

    ASSERT_TRUE(app->displayInstallPrompt(std::vector<std::string>{glow, file("Synth.vst3")}));
    EXPECT_NE(app->installPromptText().find("these plugins"), std::string::npos);
    app->installPromptSheetDidEnd(1, 0);  // Install, current user
    app->waitForBatchOperations();
    app->waitForReload();
    EXPECT_TRUE(exists(userFx + "/Glow.fxplug"));
    EXPECT_TRUE(exists(s.homePath("/Library/Audio/Plug-Ins/VST3/Synth.vst3")));
    EXPECT_TRUE(app->installForUser);
}

TEST_F(InstallTest, PluginStructureGivesOnlyTheOutermostPlugins) {
    const std::string ps = s.base() + "/Installer/PluginStructure";
    ScratchRoot::writeFile(ps + "/Library/Plug-Ins/FxPlug/Glow.fxplug/Contents/Info.plist", "p");
    ScratchRoot::writeFile(ps + "/Library/Plug-Ins/FxPlug/Pack/Blur.fxplug", "b");
    ScratchRoot::writeFile(ps + "/Users/user/Library/Audio/Plug-Ins/Components/Echo.component",
                           "e");
    const std::string titles =
        ps + "/Library/Application Support/Final Cut Pro/Templates.localized/Titles.localized";
    ScratchRoot::writeFile(titles + "/Lower/Lower.moti", "doc");

    auto list = app->installListForOpenedFiles({ps});
    std::sort(list.begin(), list.end());
    std::vector<std::string> want = {
        ps + "/Library/Plug-Ins/FxPlug/Glow.fxplug",
        ps + "/Library/Plug-Ins/FxPlug/Pack",
        ps + "/Users/user/Library/Audio/Plug-Ins/Components/Echo.component",
        titles + "/Lower",
    };
    std::sort(want.begin(), want.end());
    EXPECT_EQ(list, want);

    // Any other opened files are the list as they are.
    const std::vector<std::string> plain = {"/x/A.fxplug", "/x/PluginStructure/B.fxplug"};
    EXPECT_EQ(app->installListForOpenedFiles(plain), plain);
}
