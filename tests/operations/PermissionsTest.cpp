// Permission repair at start-up and the conversion of the old ".Disabled" layout.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include "OperationsTestSupport.h"

TEST(PermissionsTest, ConvertsTheOldLayoutIntoTheDisabledFolder) {
    OperationsWorld w;
    // No ".Disabled": unchanged, and the disk is not even looked at.
    EXPECT_EQ(w.app->convertPluginStorageMode("/nowhere/at/all.fxplug"),
              std::optional<std::string>("/nowhere/at/all.fxplug"));

    const std::string old = w.fx("/.Disabled/Pack/.Disabled/Glow.fxplug");
    ScratchRoot::writeFile(old + "/v", "glow");
    const auto converted = w.app->convertPluginStorageMode(old);
    // Only the first ".Disabled" goes.
    const std::string expected = w.mirror(w.fx("/Pack/.Disabled/Glow.fxplug"));
    ASSERT_EQ(converted, std::optional<std::string>(expected));
    EXPECT_EQ(ScratchRoot::readFile(expected + "/v"), "glow");
    // The emptied old folder is gone, the kind folder is not.
    EXPECT_FALSE(pathExists(w.fx("/.Disabled/Pack/.Disabled")));
    EXPECT_TRUE(pathExists(w.fx()));

    // A missing source is left as it is.
    EXPECT_EQ(w.app->convertPluginStorageMode(w.fx("/.Disabled/Gone.fxplug")),
              std::optional<std::string>(w.fx("/.Disabled/Gone.fxplug")));
}

TEST(PermissionsTest, NoQuestionWhenTheDisabledFolderIsUsable) {
    OperationsWorld w;
    w.withInterface();
    std::filesystem::remove_all(w.disabled());
    w.app->checkPermissions();
    EXPECT_TRUE(pathExists(w.disabled()));  // made on the way
    EXPECT_TRUE(w.ui->alerts().empty());
}

TEST(PermissionsTest, AnUnusableDisabledFolderAsksRepairOrCancel) {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a read-only tmpfs needs root";
    OperationsWorld w;
    const std::string tallowby = KTPluginLocations::deletingLastPathComponent(w.disabled());
    ScratchRoot::makeDirs(tallowby);
    if (::mount("tmpfs", tallowby.c_str(), "tmpfs", MS_RDONLY, "size=1m") != 0)
        GTEST_SKIP() << "no tmpfs could be mounted here";
    w.withInterface();
    w.ui->answer("Cancel");
    w.app->checkPermissions();
    ::umount2(tallowby.c_str(), MNT_DETACH);
    ASSERT_EQ(w.ui->alerts().size(), 1u);
    EXPECT_EQ(w.ui->alerts()[0].message, "Permissions incorrectly set");
    EXPECT_EQ(w.ui->alerts()[0].buttons, (std::vector<std::string>{"Repair", "Cancel"}));
    EXPECT_TRUE(w.logged("Permissions incorrectly set. Asking user to repair..."));
}
