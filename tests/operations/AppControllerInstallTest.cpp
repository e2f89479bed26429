// Installing through the controller with the scripted interface: progress,
// the overwrite question, the failure summary, the scope question and the
// files opened with the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "app/core/AppController.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/OutlineViewController.h"
#include "operations/KTFileMover.h"
#include "SharedFiles/KTTransfer.h"
#include "support/ScratchRoot.h"
#include "support/ScriptedUserInterface.h"

namespace fs = std::filesystem;

namespace {

bool exists(const std::string& p) {
    return fs::exists(fs::symlink_status(p));
}

/// A copier whose ordinary copy always fails, as on a folder the user may not write.
class RefusingCopier : public KTTransfer {
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
        settle();
        KTTransfer::setShared(nullptr);
        KTFileMover::setPrivilegedPauseSecondsForTesting(1);
    }
    void settle() {
        app->waitForBatchOperations();
        app->waitForReload();
    }
    std::vector<std::string> install(const std::vector<std::string>& paths, bool forUser,
                                     const KTItemPtr& item = nullptr) {
        auto failed = app->installPlugins(paths, item, forUser, true);
        settle();
        return failed;
    }
    std::string file(const std::string& name, const std::string& content = "x") {
        ScratchRoot::writeFile(s.base() + "/in/" + name, content);
        return s.base() + "/in/" + name;
    }

    ScratchRoot s;
    std::shared_ptr<ScriptedUserInterface> ui = std::make_shared<ScriptedUserInterface>();
    std::unique_ptr<AppController> app;
    const std::string userFx = s.homePath("/Library/Plug-Ins/FxPlug");
    const std::string localFx = s.rootPath("/Library/Plug-Ins/FxPlug");
};

}  // namespace

TEST_F(InstallTest, ProgressWindowOnlyForMoreThanThreeFiles) {
    install({file("A.fxplug"), file("B.fxplug"), file("C.fxplug")}, true);
    EXPECT_FALSE(ui->hasEvent("show"));
    install({file("D.fxplug"), file("E.fxplug"), file("F.fxplug"), file("G.fxplug")}, false);
    EXPECT_TRUE(ui->hasEvent("max 4"));
    EXPECT_TRUE(ui->hasEvent("text Installing plugins..."));
    EXPECT_TRUE(exists(userFx + "/C.fxplug"));
    EXPECT_TRUE(exists(localFx + "/G.fxplug"));
}

TEST_F(InstallTest, IgnoreIsReportedAsFailedAndOverwriteTrashesTheOldCopy) {
    ScratchRoot::writeFile(userFx + "/Glow.fxplug", "old");
    const std::string glow = file("Glow.fxplug", "new");
    const std::string junk = file("notes.doc");

    ui->answer("Ignore");
    EXPECT_EQ(install({glow, junk}, true), (std::vector<std::string>{glow, junk}));
    EXPECT_EQ(ScratchRoot::readFile(userFx + "/Glow.fxplug"), "old");
    EXPECT_FALSE(exists(userFx + "/notes.doc"));
    ASSERT_EQ(ui->alerts().size(), 2u);
    EXPECT_EQ(ui->alerts()[0].buttons, (std::vector<std::string>{"Overwrite", "Ignore"}));
    EXPECT_EQ(ui->alerts()[1].message, "Installation failed");
    EXPECT_EQ(ui->alerts()[1].informative,
              "The following plugins failed to install: \n" + glow + "\n" + junk);

    // The old copy is found in the user's folder; the new one goes where asked.
    ui->answer("Overwrite");
    EXPECT_TRUE(install({glow}, false).empty());
    EXPECT_FALSE(exists(userFx + "/Glow.fxplug"));
    EXPECT_EQ(ScratchRoot::readFile(localFx + "/Glow.fxplug"), "new");
    bool trashed = false;
    for (const auto& e : fs::recursive_directory_iterator(s.home()))
        trashed |= e.path().filename() == "Glow.fxplug" &&
                   e.path().string().find("Trash") != std::string::npos &&
                   ScratchRoot::readFile(e.path()) == "old";
    EXPECT_TRUE(trashed);
    EXPECT_TRUE(app->installList.empty());

    // Installing a plug-in from where it lies keeps it.
    EXPECT_TRUE(install({localFx + "/Glow.fxplug"}, false).empty());
    EXPECT_EQ(ScratchRoot::readFile(localFx + "/Glow.fxplug"), "new");
}

TEST_F(InstallTest, TargetGroupAndFoldersThatBecomeGroups) {
    ScratchRoot::writeFile(userFx + "/Reverbs/Hall.fxplug", "h");
    app->loadPluginData();
    auto all = app->outlineViewController().allPlugins();
    ASSERT_EQ(all.size(), 1u);

    // A plug-in as target stands for its group; a folder inside becomes a sub-group.
    const std::string room = file("Room.fxplug"), pack = s.base() + "/in/Pack";
    file("Pack/Plate.fxplug");
    file("Pack/readme.doc");
    fs::create_directory_symlink(".", pack + "/again");
    EXPECT_TRUE(install({room, pack}, true, all[0]).empty());  // the folder's failures are logged
    EXPECT_TRUE(exists(userFx + "/Reverbs/Room.fxplug"));
    EXPECT_TRUE(exists(userFx + "/Reverbs/Pack/Plate.fxplug"));
    EXPECT_FALSE(exists(userFx + "/Reverbs/Pack/readme.doc"));
    EXPECT_FALSE(exists(userFx + "/Reverbs/Pack/again"));
    EXPECT_EQ(AppController::countTotalFilesInPathArray({room, pack}), 4);
}

TEST_F(InstallTest, RefusedCopyFallsBackToAdministratorRights) {
    KTTransfer::setShared(std::make_shared<RefusingCopier>());
    file("Echo.component/Contents/Info.plist", "plist");
    if (!install({s.base() + "/in/Echo.component"}, false).empty())
        GTEST_SKIP() << "no administrator rights here";
    const std::string au = s.rootPath("/Library/Audio/Plug-Ins/Components");
    EXPECT_EQ(ScratchRoot::readFile(au + "/Echo.component/Contents/Info.plist"), "plist");
    for (const auto& e : fs::directory_iterator(au))
        EXPECT_EQ(e.path().filename(), "Echo.component");  // no staging copy left
}

TEST_F(InstallTest, ScopeQuestionOnlyWhenTheKindHasTwoFolders) {
    // Audio Units install at once, in the scope left selected.
    app->installForUser = false;
    EXPECT_FALSE(app->displayInstallPrompt(std::vector<std::string>{file("Echo.component")}));
    settle();
    EXPECT_TRUE(exists(s.rootPath("/Library/Audio/Plug-Ins/Components/Echo.component")));

    const std::string glow = file("Glow.fxplug");
    ASSERT_TRUE(app->displayInstallPrompt(std::vector<std::string>{glow}));
    EXPECT_NE(app->installPromptText().find("make this plugin available"), std::string::npos);
    app->installPromptSheetDidEnd(0, 0);  // Cancel
    settle();
    EXPECT_FALSE(exists(userFx + "/Glow.fxplug"));

    ASSERT_TRUE(app->displayInstallPrompt(std::vector<std::string>{glow, file("S.vst3")}));
    EXPECT_NE(app->installPromptText().find("these plugins"), std::string::npos);
    app->installPromptSheetDidEnd(1, 0);  // Install, current user
    settle();
    EXPECT_TRUE(exists(userFx + "/Glow.fxplug"));
    EXPECT_TRUE(exists(s.homePath("/Library/Audio/Plug-Ins/VST3/S.vst3")));
}

TEST_F(InstallTest, PluginStructureGivesOnlyTheOutermostPlugins) {
    const std::string ps = s.base() + "/Installer/PluginStructure";
    const std::string fx = ps + "/Library/Plug-Ins/FxPlug";
    const std::string au = ps + "/Users/user/Library/Audio/Plug-Ins/Components";
    const std::string titles =
        ps + "/Library/Application Support/Final Cut Pro/Templates.localized/Titles.localized";
    ScratchRoot::writeFile(fx + "/Glow.fxplug/Contents/Info.plist", "p");
    ScratchRoot::writeFile(fx + "/Pack/Blur.fxplug", "b");
    ScratchRoot::writeFile(au + "/Echo.component", "e");
    ScratchRoot::writeFile(titles + "/Lower/Lower.moti", "doc");

    auto list = app->installListForOpenedFiles({ps});
    std::sort(list.begin(), list.end());
    EXPECT_EQ(list, (std::vector<std::string>{titles + "/Lower", fx + "/Glow.fxplug", fx + "/Pack",
                                              au + "/Echo.component"}));
    const std::vector<std::string> plain = {"/x/A.fxplug", "/x/PluginStructure/B.fxplug"};
    EXPECT_EQ(app->installListForOpenedFiles(plain), plain);
}
