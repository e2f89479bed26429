// Finding a loaded plug-in by path while a batch moves and renames items
// without otherwise changing the tree.
#include <gtest/gtest.h>

#include <filesystem>

#include "app/core/AppController.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

void makeBundle(const std::string& path) {
    ScratchRoot::writeFile(path + "/Contents/Info.plist",
                           "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict></dict></plist>");
}

std::shared_ptr<KTPluginItem> named(OutlineViewController& outline, const std::string& fileName) {
    for (auto& p : outline.allPlugins())
        if (p->fileName() == fileName) return p;
    return nullptr;
}

/// Moves the bundle on disk and tells the item, as a disable does.
void moveTo(const std::shared_ptr<KTPluginItem>& item, const std::string& to) {
    fs::create_directories(fs::path(to).parent_path());
    fs::rename(item->actualPath(), to);
    item->setActualPath(to);
}

}  // namespace

TEST(OutlineViewControllerTest, PathLookupFollowsMovesAndRenamesAndMissesCleanly) {
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    makeBundle(fx + "/Pack/Glow.fxplug");
    makeBundle(fx + "/Blur.fxplug");
    auto app = AppController::initWithoutGUI();
    app->loadPluginData();
    OutlineViewController& outline = app->outlineViewController();
    outline.waitForBundleInspection();
    auto glow = named(outline, "Glow.fxplug"), blur = named(outline, "Blur.fxplug");
    ASSERT_TRUE(glow && blur);
    const std::string was = glow->actualPath();
    EXPECT_EQ(outline.pluginFromPath(was), glow);
    EXPECT_EQ(outline.pluginFromPath(fx + "/Pack/Nothing.fxplug"), nullptr);

    // Moved after the index was built: found at the new place, not at the old.
    glow->setPluginEnabled(0);
    const std::string off = KTPluginLocations::disabledPathForPath(was);
    moveTo(glow, off);
    EXPECT_EQ(outline.pluginFromPath(off), glow);
    EXPECT_EQ(outline.pluginFromPath(was), nullptr);
    EXPECT_EQ(outline.pluginFromPath(blur->actualPath()), blur);

    // Renamed: the new name is found although no entry was ever made for it.
    const std::string renamed = fx + "/Blur Pro.fxplug";
    moveTo(blur, renamed);
    blur->setFileName("Blur Pro.fxplug");
    EXPECT_EQ(outline.pluginFromPath(renamed), blur);
    EXPECT_EQ(outline.pluginFromPath(fx + "/Blur.fxplug"), nullptr);

    // Taken out of the tree while still held: no longer found, moved or not.
    outline.removeItemFromTree(glow);
    EXPECT_EQ(outline.pluginFromPath(off), nullptr);
    EXPECT_EQ(outline.pluginFromPath(renamed), blur);
}
