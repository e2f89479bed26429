// Permission repair at start-up and the conversion of the old ".Disabled" layout.
#include <gtest/gtest.h>

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
