// The scan over a scratch tree: which paths are listed, how they classify,
// and the tree of groups that results.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "SharedFiles/KTFinderInfo.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "app/core/AppController.h"
#include "catalogue/KTCatalogueEntry.h"
#include "catalogue/KTGroupItem.h"
#include "SharedFiles/linux/KTOpenFolder.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + body + "</dict></plist>";
}

/// A bundle with an Info.plist and, when `cpu` is given, a thin or fat executable.
void makeBundle(const std::string& path, const std::string& name, const std::string& version,
                std::vector<uint32_t> cpus = {}) {
    ScratchRoot::writeFile(
        path + "/Contents/Info.plist",
        plist("<key>CFBundleName</key><string>" + name +
              "</string><key>CFBundleShortVersionString</key><string>" + version +
              "</string><key>CFBundleExecutable</key><string>exe</string>"));
    std::string exe;
    auto be = [&](uint32_t v) {
        for (int s = 24; s >= 0; s -= 8) exe += char((v >> s) & 0xff);
    };
    if (cpus.size() == 1) {
        be(0xfeedfacf), be(cpus[0]), be(3);
    } else if (!cpus.empty()) {
        be(0xcafebabe), be(uint32_t(cpus.size()));
        for (auto c : cpus) be(c), be(3), be(4096), be(4096), be(12);
    }
    ScratchRoot::writeFile(path + "/Contents/MacOS/exe", exe);
}

struct Catalogue {
    std::unique_ptr<AppController> app = AppController::initWithoutGUI();
    void load() {
        app->loadPluginData();
        app->outlineViewController().waitForBundleInspection();
    }
    OutlineViewController& outline() { return app->outlineViewController(); }
    std::shared_ptr<KTPluginItem> plugin(const std::string& fileName) {
        for (auto& p : outline().allPlugins())
            if (p->fileName() == fileName) return p;
        return nullptr;
    }
};

bool contains(const std::vector<std::string>& v, const std::string& s) {
    return std::find(v.begin(), v.end(), s) != v.end();
}

}  // namespace

TEST(CatalogueScanTest, GroupsTemplatesAndIgnoredEntries) {
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    makeBundle(fx + "/Old Plugins.localized/Glow.fxplug", "Glow", "1.0");
    makeBundle(fx + "/Pack 2.0/Blur.fxplug", "Blur", "2.0");
    makeBundle(fx + "/.Disabled/Hidden.fxplug", "Hidden", "1");
    ScratchRoot::writeFile(fx + "/Stuff.zip", "zip");
    const std::string tmpl =
        s.homePath("/Movies/Motion Templates.localized/Titles.localized/Lower");
    ScratchRoot::writeFile(tmpl + "/Lower.moti", "doc");
    ScratchRoot::writeFile(tmpl + "/Media/clip.mov", "media");

    Catalogue c;
    auto listed = c.app->listPlugins(true, true);
    EXPECT_TRUE(contains(listed, fx + "/Old Plugins.localized"));
    EXPECT_TRUE(contains(listed, fx + "/Pack 2.0"));
    EXPECT_TRUE(contains(listed, fx + "/Pack 2.0/Blur.fxplug"));
    EXPECT_TRUE(contains(listed, tmpl));
    for (const auto& p : listed) {
        EXPECT_EQ(p.find("Stuff.zip"), std::string::npos) << p;
        EXPECT_EQ(p.find(".Disabled"), std::string::npos) << p;
        EXPECT_EQ(p.find("/Media"), std::string::npos) << p;
    }

    c.load();
    auto glow = c.plugin("Glow.fxplug");
    ASSERT_TRUE(glow);
    EXPECT_EQ(glow->subdir().value_or(""), "Old Plugins.localized");
    ASSERT_TRUE(glow->parent());
    EXPECT_EQ(glow->parent()->title(), "Old Plugins");
    EXPECT_EQ(c.plugin("Blur.fxplug")->parent()->title(), "Pack 2.0");

    auto lower = c.plugin("Lower");
    ASSERT_TRUE(lower) << "a template folder is one plug-in";
    EXPECT_EQ(lower->pluginType(), KTPluginType::MotionTemplate);
    EXPECT_EQ(lower->pluginAccess(), KTPluginAccess::CurrentUser);
    EXPECT_EQ(lower->parent()->title(), "Titles");
}

TEST(CatalogueScanTest, DisabledPluginsAndNestedGroupsHangFromOneTopGroup) {
    ScratchRoot s;
    const std::string au = s.rootPath("/Library/Audio/Plug-Ins/Components");
    makeBundle(au + "/A/B/C/Deep.component", "Deep", "3");
    makeBundle(au + "/A/Shallow.component", "Shallow", "1");
    const std::string disabled = KTPluginLocations::disabledPath();
    makeBundle(disabled + "/Library/Audio/Plug-Ins/Components/A/B/Off.component", "Off", "1");

    Catalogue c;
    c.load();
    auto top = c.outline().dataArray();
    long groupsNamedA = std::count_if(top.begin(), top.end(), [](const KTItemPtr& i) {
        return i->isGroup() && static_cast<KTGroupItem&>(*i).title() == "A";
    });
    EXPECT_EQ(groupsNamedA, 1);
    auto deep = c.plugin("Deep.component");
    ASSERT_TRUE(deep);
    EXPECT_EQ(deep->subdir().value_or(""), "A/B/C");
    EXPECT_EQ(deep->absoluteParent()->title(), "A");

    auto off = c.plugin("Off.component");
    ASSERT_TRUE(off);
    EXPECT_EQ(off->pluginEnabled(), 0);
    EXPECT_EQ(off->pluginType(), KTPluginType::AudioUnit);
    EXPECT_EQ(off->pluginAccess(), KTPluginAccess::AllUsers);
    EXPECT_EQ(off->actualPath(), disabled + "/Library/Audio/Plug-Ins/Components/A/B/Off.component");
    EXPECT_EQ(off->absoluteParent()->title(), "A");
    EXPECT_EQ(c.outline().pluginFromPath(off->actualPath()), off);

    // Enabled plug-ins are listed before the disabled ones.
    auto paths = c.app->listPlugins(true);
    ASSERT_FALSE(paths.empty());
    EXPECT_EQ(paths.back(), off->actualPath());
}

TEST(CatalogueScanTest, PreferencesChooseFoldersAndHideManagedFolders) {
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    ScratchRoot::writeFile(fx + "/Managed/.fxfactory.plist", "");
    makeBundle(fx + "/Managed/Inside.fxplug", "Inside", "1");
    makeBundle(fx + "/Locked.fxplug", "Locked", "1");
    ScratchRoot::writeFile(fx + "/Locked.fxplug/.fxfactory.plist", "");
    const std::string avx =
        s.rootPath("/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins");
    makeBundle(avx + "/Key.avx", "Key", "1");
    makeBundle(KTPluginLocations::disabledPath() +
                   "/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins/Off.avx",
               "Off", "1");

    Catalogue c;
    // The managed folder is only hidden when the preference says so; a
    // bundle holding the marker is always listed, and locked.
    EXPECT_TRUE(contains(c.app->listPlugins(false), fx + "/Managed/Inside.fxplug"));
    KTPreferences::standard().setInteger("ignoreFxFactory", 1);
    auto listed = c.app->listPlugins(false, true);
    EXPECT_FALSE(contains(listed, fx + "/Managed"));
    EXPECT_FALSE(contains(listed, fx + "/Managed/Inside.fxplug"));
    EXPECT_TRUE(contains(listed, fx + "/Locked.fxplug"));

    KTPreferences::standard().setInteger("filter", 3);
    c.load();
    std::vector<std::string> names;
    for (auto& p : c.outline().allPlugins()) names.push_back(p->fileName());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Key.avx", "Off.avx"}));
    EXPECT_EQ(c.plugin("Off.avx")->pluginEnabled(), 0);

    KTPreferences::standard().setInteger("filter", 0);
    c.load();
    ASSERT_TRUE(c.plugin("Locked.fxplug"));
    EXPECT_TRUE(c.plugin("Locked.fxplug")->isLocked());
    KTPreferences::standard().setInteger("ignoreFxFactory", 0);
}

TEST(CatalogueScanTest, BundleDetailsFillIn) {
    ScratchRoot s;
    const std::string vst = s.rootPath("/Library/Audio/Plug-Ins/VST3");
    makeBundle(vst + "/Universal.vst3", "Universal Synth", "4.2", {0x01000007, 0x0100000c});
    makeBundle(vst + "/Apple.vst3", "Apple Only", "1.0", {0x0100000c});
    makeBundle(vst + "/Placeholder.vst3", "${PRODUCT_NAME}", "0.9");
    // Read from the folder the scan listed it in, a group's as well as the kind folder's.
    makeBundle(vst + "/Pack/Deutsch.vst3", "Plain", "1");
    ScratchRoot::writeFile(vst + "/Pack/Deutsch.vst3/Contents/Resources/de.lproj/InfoPlist.strings",
                           "CFBundleName = \"Deutsch Synth\";");

    Catalogue c;
    c.load();
    // The folders kept open for the load are closed once it has ended.
    EXPECT_EQ(KTOpenFolder::openCount(), 0);
    ASSERT_TRUE(c.plugin("Deutsch.vst3"));
    EXPECT_EQ(c.plugin("Deutsch.vst3")->shortName(), "Deutsch Synth");
    auto uni = c.plugin("Universal.vst3");
    ASSERT_TRUE(uni);
    EXPECT_EQ(uni->shortName(), "Universal Synth");
    EXPECT_EQ(uni->version(), "4.2");
    EXPECT_EQ(uni->architectures(), std::vector<std::string>{"64-bit (Intel)"});
    EXPECT_TRUE(c.plugin("Apple.vst3")->architectures().empty());
    EXPECT_EQ(c.plugin("Placeholder.vst3")->shortName(), "Placeholder");
    EXPECT_EQ(c.plugin("Placeholder.vst3")->version(), "0.9");
}

TEST(CatalogueScanTest, HostileTreesAreLoggedAndPassedOver) {
    ScratchRoot s;
    const std::string vst = s.rootPath("/Library/Audio/Plug-Ins/VST");
    makeBundle(vst + "/Good.vst", "Good", "1");
    fs::create_directories(vst + "/Loop");
    fs::create_directory_symlink(vst, vst + "/Loop/Back");            // a link to an ancestor
    fs::create_directory_symlink(vst + "/Self", vst + "/Self");       // a link to itself
    fs::create_symlink(vst + "/Missing.vst", vst + "/Dangling.vst");  // a dangling link
    makeBundle(vst + "/Odd\nName%s \"q\".vst", "%@ 50% done", "1");
    makeBundle(vst + "/Bad\xff\xfe.vst", "Bytes", "1");
    std::string deep = vst;
    for (int i = 0; i < 50; ++i) deep += "/L" + std::to_string(i);
    makeBundle(deep + "/Deep.vst", "Deep", "1");
    ScratchRoot::writeFile(vst + "/Corrupt.vst/Contents/Info.plist", "<plist><dict><key>x");
    ScratchRoot::writeFile(vst + "/Corrupt.vst/Contents/MacOS/exe", "\xca\xfe");

    Catalogue c;
    c.load();
    std::vector<std::string> names;
    for (auto& p : c.outline().allPlugins()) names.push_back(p->fileName());
    for (const char* n : {"Good.vst", "Deep.vst", "Corrupt.vst", "Bad\xff\xfe.vst"})
        EXPECT_TRUE(contains(names, n)) << n;
    EXPECT_TRUE(contains(names, "Odd\nName%s \"q\".vst"));
    EXPECT_EQ(c.plugin("Odd\nName%s \"q\".vst")->shortName(), "%@ 50% done");
    EXPECT_EQ(c.plugin("Deep.vst")->subdir()->substr(0, 6), "L0/L1/");
}

TEST(CatalogueScanTest, LinksAreFollowedOncePerFolderAndNeverOutward) {
    ScratchRoot s;
    const std::string vst = s.rootPath("/Library/Audio/Plug-Ins/VST");
    const std::string au = s.rootPath("/Library/Audio/Plug-Ins/Components");
    makeBundle(vst + "/Good.vst", "Good", "1");
    // Three folders linking round in a circle, one plug-in in each.
    for (const char* f : {"/A", "/B", "/C"}) makeBundle(vst + f + f + ".vst", f + 1, "1");
    fs::create_directory_symlink(vst + "/B", vst + "/A/toB");
    fs::create_directory_symlink(vst + "/C", vst + "/B/toC");
    fs::create_directory_symlink(vst + "/A", vst + "/C/toA");
    fs::create_directory_symlink("/", vst + "/Everything");             // the whole machine
    fs::create_directory_symlink(s.rootPath("/Library"), vst + "/Up");  // holds every kind folder
    fs::create_directory_symlink(au, vst + "/Units");                   // another kind folder
    const std::string outside = s.base() + "/elsewhere";
    makeBundle(outside + "/Far.vst", "Far", "1");
    fs::create_directory_symlink(outside, vst + "/Far");
    // A group kept elsewhere inside the system root is followed.
    makeBundle(s.rootPath("/Shared/Pack/Kept.vst"), "Kept", "1");
    fs::create_directory_symlink(s.rootPath("/Shared/Pack"), vst + "/Pack");
    makeBundle(au + "/Unit.component", "Unit", "1");

    Catalogue c;
    const auto listed = c.app->listPlugins(true, true);
    auto count = [&](const std::string& name) {
        return std::count_if(listed.begin(), listed.end(),
                             [&](const std::string& p) { return fs::path(p).filename() == name; });
    };
    for (const char* n : {"Good.vst", "A.vst", "B.vst", "C.vst", "Kept.vst", "Unit.component"})
        EXPECT_EQ(count(n), 1) << n;
    EXPECT_EQ(count("Far.vst"), 0);
    for (const char* n : {"Everything", "Up", "Units", "Far"}) EXPECT_EQ(count(n), 0) << n;

    c.load();
    c.app->listPlugins(true, true);  // a second listing says nothing new
    KTLog::finishWriting();
    std::ifstream in(KTLog::currentLogPath());
    const std::string log((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const char* link : {"/Everything to / - a folder that holds a plug-in folder", "/Up to ",
                             "/Units to ", "/Far to "}) {
        const std::string line = "Not following link " + vst + link;
        const auto first = log.find(line);
        EXPECT_NE(first, std::string::npos) << line;
        EXPECT_EQ(log.find(line, first + 1), std::string::npos) << line << " logged twice";
    }
    EXPECT_NE(log.find("outside the system root and the home folder"), std::string::npos);
    // The circle is cut where it closes; every group is a real folder once.
    EXPECT_TRUE(c.plugin("A.vst") && c.plugin("B.vst") && c.plugin("C.vst"));
}

TEST(CatalogueScanTest, WhatTheScanSawDecidesAsTheDiskWould) {
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    // The lock marker counts only inside the plug-in itself, not inside a
    // namesake at the top of the kind folder.
    makeBundle(fx + "/Blur.fxplug", "Blur", "1");
    ScratchRoot::writeFile(fx + "/Blur.fxplug/.fxfactory.plist", "");
    makeBundle(fx + "/Pack/Blur.fxplug", "Blur", "2");
    makeBundle(fx + "/Pack/Held.fxplug", "Held", "1");
    ScratchRoot::writeFile(fx + "/Pack/Held.fxplug/.fxfactory.plist", "");
    // A template is a folder holding the document named after it (less the
    // folder's extension, exactly); another document only ends the listing.
    const std::string titles = s.rootPath(
        "/Library/Application Support/Final Cut Pro/Templates.localized/Titles.localized");
    ScratchRoot::writeFile(titles + "/Lower.localized/Lower.motn", "doc");
    ScratchRoot::writeFile(titles + "/Other/Else.moti", "doc");
    ScratchRoot::writeFile(titles + "/Case/case.moti", "doc");
    // A compiled FxScript file is listed by its type code, whatever its name.
    const std::string script =
        s.rootPath("/Library/Application Support/Final Cut Pro System Support/Plugins/Wipe");
    ScratchRoot::writeFile(script, "compiled");
    ASSERT_TRUE(KTFinderInfo::setTypeCode(script, KTFinderInfo::kFxScriptType));

    Catalogue c;
    c.load();
    std::vector<std::shared_ptr<KTPluginItem>> blurs;
    for (auto& p : c.outline().allPlugins())
        if (p->fileName() == "Blur.fxplug") blurs.push_back(p);
    ASSERT_EQ(blurs.size(), 2u);
    for (auto& b : blurs) EXPECT_EQ(b->isLocked(), !b->subdir().has_value()) << b->actualPath();
    ASSERT_TRUE(c.plugin("Held.fxplug"));
    EXPECT_TRUE(c.plugin("Held.fxplug")->isLocked());
    EXPECT_FALSE(c.plugin("Held.fxplug")->isDeletable());

    ASSERT_TRUE(c.plugin("Lower.localized"));
    EXPECT_EQ(c.plugin("Lower.localized")->pluginType(), KTPluginType::MotionTemplate);
    EXPECT_FALSE(c.plugin("Other"));
    EXPECT_FALSE(c.plugin("Case"));
    EXPECT_TRUE(c.outline().groupMatchingSubdir("Titles.localized/Other"));
    EXPECT_TRUE(c.outline().groupMatchingSubdir("Titles.localized/Case"));

    ASSERT_TRUE(c.plugin("Wipe"));
    EXPECT_EQ(c.plugin("Wipe")->pluginType(), KTPluginType::FxScript);

    // The same paths handed over one by one, as the disk tells them, make
    // the same tree.
    const auto paths = c.outline().loadedPaths();
    c.outline().clearData();
    for (const auto& p : paths) c.app->processPluginAtPath(p);
    c.outline().waitForBundleInspection();
    EXPECT_TRUE(c.plugin("Lower.localized"));
    EXPECT_FALSE(c.plugin("Other"));
    EXPECT_TRUE(c.plugin("Wipe"));
    EXPECT_EQ(c.outline().allPlugins().size(), 5u);
}

TEST(CatalogueScanTest, ManyPathsOverSeveralWorkersHangFromOneTopGroupEach) {
    ScratchRoot s;
    const std::string au = s.rootPath("/Library/Audio/Plug-Ins/Components");
    const std::string off =
        KTPluginLocations::disabledPath() + "/Library/Audio/Plug-Ins/Components";
    for (int g = 0; g < 12; ++g) {
        for (int i = 0; i < 25; ++i) {
            const std::string name =
                "G" + std::to_string(g) + "/Sub/P" + std::to_string(i) + ".component";
            ScratchRoot::makeDirs((i % 3 ? au : off) + "/" + name);
        }
        ScratchRoot::makeDirs(au + "/Top" + std::to_string(g) + ".component");
    }
    Catalogue c;
    c.load();
    EXPECT_EQ(c.outline().allPlugins().size(), 12u * 26u);
    std::set<std::string> titles;
    long groups = 0;
    for (const auto& item : c.outline().dataArray()) {
        if (!item->isGroup()) continue;
        ++groups;
        titles.insert(static_cast<KTGroupItem&>(*item).title());
    }
    EXPECT_EQ(groups, 12);
    EXPECT_EQ(titles.size(), 12u);
    EXPECT_EQ(OutlineViewController::countTotalItemsInArray(c.outline().dataArray()), 12 * 26);
}

TEST(CatalogueScanTest, TheListingPairsNamesakesWithTheirOwnGroupsWhateverTheTreeOrder) {
    ScratchRoot s;
    // OpenFX plug-ins in groups: their computed place is not where they are
    // listed, so the listing pairs them with the tree's items by name.
    const std::string ofx = s.rootPath("/Library/OFX/Plugins");
    for (const char* group : {"Alpha", "Beta", "Gamma"})
        makeBundle(ofx + "/" + group + "/Kaleido.ofx.bundle", std::string("Kaleido ") + group, "1");

    Catalogue c;
    c.load();
    // The same paths hung in the opposite order, as workers may.
    auto paths = c.outline().loadedPaths();
    std::reverse(paths.begin(), paths.end());
    c.outline().clearData();
    for (const auto& p : paths) c.app->processPluginAtPath(p);
    c.outline().waitForBundleInspection();

    const auto entries = KTCatalogueEntry::collect(*c.app);
    ASSERT_EQ(entries.size(), 3u);
    for (const auto& e : entries) {
        EXPECT_NE(e.path.find("/" + e.group + "/Kaleido.ofx.bundle"), std::string::npos)
            << e.path << " in " << e.group;
    }
}
