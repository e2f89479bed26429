#include "catalogue/KTPluginItem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "SharedFiles/KTWorkspace.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginLocations.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {
const std::string kDisabled =
    "/Library/Application Support/Quellbrook/Tallowby/Ambrel Disabled Plugins";
}

TEST(KTPluginItemTest, ActualPathFollowsTheFileOnlyWhereItExists) {
    ScratchRoot s;
    const std::string enabled = s.rootPath("/Library/Plug-Ins/FxPlug/Blur/Glow.fxplug");
    const std::string disabled =
        s.rootPath(kDisabled + "/Library/Plug-Ins/FxPlug/Blur/Glow.fxplug");
    ScratchRoot::makeDirs(enabled);

    auto item = std::make_shared<KTPluginItem>("Glow.fxplug", 0, 0, 1);
    EXPECT_EQ(item->actualPath(), s.rootPath("/Library/Plug-Ins/FxPlug/Glow.fxplug"));
    item->setSubdir("Blur");
    EXPECT_EQ(item->actualPath(), enabled);

    // Someone else moves the file away: the item keeps the last place it was seen...
    ScratchRoot::makeDirs(fs::path(disabled).parent_path().string());
    fs::rename(enabled, disabled);
    item->setItemSelection(1);
    EXPECT_EQ(item->actualPath(), enabled);
    item->setPluginAccess(1);
    EXPECT_EQ(item->actualPath(), enabled);
    // ...until its computed place exists again.
    item->setPluginAccess(0);
    item->setPluginEnabled(0);
    EXPECT_EQ(item->pluginPath(), disabled);
    EXPECT_EQ(item->actualPath(), disabled);
}

TEST(KTPluginItemTest, LockedWhenAnotherInstallerManagesIt) {
    ScratchRoot s;
    ScratchRoot::writeFile(
        s.homePath("/Library/Audio/Plug-Ins/Components/EQ.component/.fxfactory.plist"));
    ScratchRoot::makeDirs(s.homePath("/Library/Audio/Plug-Ins/Components/Free.component"));
    auto managed = std::make_shared<KTPluginItem>("EQ.component", 2, 1, 1);
    auto free = std::make_shared<KTPluginItem>("Free.component", 2, 1, 1);
    EXPECT_TRUE(managed->isLocked());
    EXPECT_FALSE(managed->isDeletable());
    EXPECT_FALSE(free->isLocked());
    EXPECT_TRUE(free->isDeletable());

    // A later check that no longer finds the file never unlocks.
    fs::remove(s.homePath("/Library/Audio/Plug-Ins/Components/EQ.component/.fxfactory.plist"));
    managed->setLockStatus();
    EXPECT_TRUE(managed->isLocked());
    EXPECT_TRUE(managed->isDeletable());
}

TEST(KTPluginItemTest, CopyKeepsTheRecordButNotItsPlaceOrLinks) {
    ScratchRoot s;
    ScratchRoot::writeFile(s.rootPath("/Library/Audio/Plug-Ins/VST3/Verb.vst3/.fxfactory.plist"));
    auto group = std::make_shared<KTGroupItem>();
    auto item = std::make_shared<KTPluginItem>("Verb.vst3", 12, 0, 1);
    item->setShortName("Verb");
    item->setVersion("2.1");
    item->setArchitectures({"64-bit (Intel)"});
    group->addChild(item);

    auto copy = item->copy();
    EXPECT_EQ(copy->shortName(), "Verb");
    EXPECT_EQ(copy->fileName(), "Verb.vst3");
    EXPECT_EQ(copy->version(), "2.1");
    EXPECT_EQ(copy->architectures(), item->architectures());
    EXPECT_EQ(copy->pluginType(), 12);
    EXPECT_EQ(copy->pluginEnabled(), 1);
    EXPECT_EQ(copy->actualPath(), "");
    EXPECT_EQ(copy->parent(), nullptr);
    EXPECT_TRUE(item->isLocked());
    EXPECT_FALSE(copy->isLocked());
}

TEST(KTPluginItemTest, ParentLinksNeverOutliveTheGroup) {
    ScratchRoot s;
    auto item = std::make_shared<KTPluginItem>("A.fxplug", 0, 0, 1);
    {
        auto outer = std::make_shared<KTGroupItem>();
        auto inner = std::make_shared<KTGroupItem>();
        outer->addChild(inner);
        inner->addChild(item);
        EXPECT_EQ(item->parent(), inner);
        EXPECT_EQ(item->absoluteParent(), outer);
        EXPECT_EQ(inner->absoluteParent(), outer);
        EXPECT_EQ(outer->absoluteParent(), nullptr);
    }
    EXPECT_EQ(item->parent(), nullptr);
    EXPECT_EQ(item->absoluteParent(), nullptr);
}

TEST(KTPluginItemTest, InspectionThreadRunsOncePerItemAndIsStoppedOnTeardown) {
    ScratchRoot s;
    std::atomic<int> runs{0}, stopped{0};
    KTPluginItem::setBundleInspector([&](KTPluginItem& item, std::stop_token stop) {
        runs++;
        item.setVersion("9.9");
        if (item.fileName() == "Slow.plugin") {
            while (!stop.stop_requested()) std::this_thread::yield();
            stopped++;
        }
    });
    {
        auto quick = std::make_shared<KTPluginItem>("Quick.plugin", 10, 1, 1);
        quick->waitForBundleInfo();
        EXPECT_EQ(quick->version(), "9.9");
        auto slow = std::make_shared<KTPluginItem>("Slow.plugin", 10, 1, 1);
        auto plain = std::make_shared<KTPluginItem>();
        auto copy = quick->copy();
    }
    KTPluginItem::setBundleInspector(nullptr);
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(stopped, 1);
}
