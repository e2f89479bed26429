#include "catalogue/KTPluginLocations.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "SharedFiles/KTWorkspace.h"
#include "catalogue/KTPremiere.h"
#include "support/ScratchRoot.h"

namespace {

using L = KTPluginLocations;

const std::string kDisabled =
    "/Library/Application Support/Quellbrook/Tallowby/Ambrel Disabled Plugins";
const std::string kAdobe = "/Library/Application Support/Adobe/Common/Plug-ins";

void writeInfo(const std::string& bundle, const std::string& key, const std::string& value) {
    ScratchRoot::writeFile(bundle + "/Contents/Info.plist",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
                           "<key>" +
                               key + "</key><string>" + value + "</string></dict></plist>");
}

/// An installed "Adobe Premiere Pro <name>" whose bundle reports `version`.
void installPremiere(const ScratchRoot& s, const std::string& name, const std::string& version) {
    const std::string folder = s.rootPath("/Applications/Adobe Premiere Pro " + name);
    writeInfo(folder + "/Adobe Premiere Pro " + name + ".app", "CFBundleVersion", version);
}

class KTPluginLocationsTest : public ::testing::Test {
  protected:
    void SetUp() override { KTWorkspace::shared().refreshApplications(); }
    void TearDown() override { KTWorkspace::shared().refreshApplications(); }
    ScratchRoot s;
};

}  // namespace

TEST_F(KTPluginLocationsTest, UnknownKindsHaveNoFolderAndNoName) {
    for (std::int64_t kind : {std::int64_t{13}, std::int64_t{-1}}) {
        EXPECT_EQ(L::pluginTypeName(kind), "Unknown");
        EXPECT_EQ(L::pluginBasePath(kind, 0), "");
        EXPECT_EQ(L::pluginRelativePath(kind, 1, "Blur", "Glow.fxplug"), "Blur/Glow.fxplug");
        EXPECT_EQ(L::pluginPath(kind, 0, 0, std::nullopt, "Glow.fxplug"),
                  s.rootPath(kDisabled + "/Glow.fxplug"));
    }
    EXPECT_EQ(L::pluginTypeName(12), "VST3");
    EXPECT_EQ(L::pluginTypeName(10), "Quartz Composer Plugin");
}

TEST_F(KTPluginLocationsTest, DisabledPathsMirrorTheHostsViewOfThePlugin) {
    // All users: the mirror drops the scratch root, as a host on a Mac would see the file.
    EXPECT_EQ(L::pluginPath(0, 0, 1, "Blur", "Glow.fxplug"),
              s.rootPath("/Library/Plug-Ins/FxPlug/Blur/Glow.fxplug"));
    const std::string disabled = L::pluginPath(0, 0, 0, "Blur", "Glow.fxplug");
    EXPECT_EQ(disabled, s.rootPath(kDisabled + "/Library/Plug-Ins/FxPlug/Blur/Glow.fxplug"));
    EXPECT_EQ(L::enabledPathForDisabledPath(disabled),
              s.rootPath("/Library/Plug-Ins/FxPlug/Blur/Glow.fxplug"));

    // Current user: the whole home path sits inside the disabled folder.
    const std::string userDisabled = L::pluginPath(7, 1, 0, std::nullopt, "Verb.vst");
    EXPECT_EQ(userDisabled,
              s.rootPath(kDisabled) + s.home() + "/Library/Audio/Plug-Ins/VST/Verb.vst");
    EXPECT_EQ(L::enabledPathForDisabledPath(userDisabled),
              s.homePath("/Library/Audio/Plug-Ins/VST/Verb.vst"));

    EXPECT_TRUE(L::isDisabledPath(disabled));
    EXPECT_FALSE(L::isDisabledPath(s.rootPath(kDisabled)));
    EXPECT_FALSE(L::isDisabledPath(s.rootPath(kDisabled + "/")));
    EXPECT_FALSE(L::isDisabledPath(s.rootPath("/Library/Plug-Ins/FxPlug/Glow.fxplug")));
}

TEST_F(KTPluginLocationsTest, WithTheRealRootTheLayoutIsExactlyAMacs) {
    setenv("AMBREL_ROOT", "/", 1);  // restored by the scratch root
    setenv("HOME", "/Users/ann", 1);
    EXPECT_EQ(L::disabledPath(), kDisabled);
    EXPECT_EQ(L::pluginPath(0, 0, 0, "Blur", "Glow.fxplug"),
              kDisabled + "/Library/Plug-Ins/FxPlug/Blur/Glow.fxplug");
    EXPECT_EQ(L::pluginPath(2, 1, 0, std::nullopt, "EQ.component"),
              kDisabled + "/Users/ann/Library/Audio/Plug-Ins/Components/EQ.component");
    EXPECT_EQ(L::pluginBasePath(1, 0),
              "/Library/Application Support/Final Cut Pro System Support/Plugins");
    EXPECT_EQ(L::pluginBasePath(1, 1),
              "/Users/ann/Library/Preferences/Final Cut Pro User Data/Plugins");
    EXPECT_EQ(L::pluginBasePath(8, 0),
              "/Library/Application Support/Final Cut Pro/Templates.localized");
    EXPECT_EQ(L::pluginBasePath(10, 0), "/Library/Graphics/Quartz Composer Plug-Ins");
}

TEST_F(KTPluginLocationsTest, MotionTemplatesAndQuartzTakeTheirOwnRoots) {
    EXPECT_EQ(L::pluginBasePath(8, 0),
              s.rootPath("/Library/Application Support/Final Cut Pro/Templates.localized"));
    EXPECT_EQ(L::pluginBasePath(8, 1), s.homePath("/Movies/Motion Templates.localized"));
    EXPECT_EQ(L::pluginBasePath(10, 0), s.rootPath("/Library/Graphics/Quartz Composer Plug-Ins"));
    EXPECT_EQ(L::pluginBasePath(10, 1), s.homePath("/Library/Graphics/Quartz Composer Plug-Ins"));
    // The other kinds only swap the root.
    EXPECT_EQ(L::pluginBasePath(9, 1), s.homePath("/Library/OpenFX/Plugins"));
    EXPECT_EQ(L::pluginBasePath(5, 0),
              s.rootPath("/Library/Application Support/Avid/AVX2_Plug-ins"));
}

TEST_F(KTPluginLocationsTest, AdobeFolderPrefersTheHighestNumericFolder) {
    ScratchRoot::makeDirs(s.rootPath(kAdobe + "/7.0/MediaCore"));
    ScratchRoot::makeDirs(s.rootPath(kAdobe + "/CS5/MediaCore"));
    ScratchRoot::makeDirs(s.rootPath(kAdobe + "/8.0/MediaCore"));
    EXPECT_EQ(L::pluginBasePath(4, 0), s.rootPath(kAdobe + "/8.0/MediaCore"));
    // The existence test looks at the machine-wide folder whatever the scope.
    EXPECT_EQ(L::pluginBasePath(4, 1), s.homePath(kAdobe + "/8.0/MediaCore"));
}

TEST_F(KTPluginLocationsTest, AdobeFolderFallsBackToTheInstalledPremiere) {
    // No Premiere, no folder: the 7.0 guess stays although it does not exist.
    EXPECT_EQ(L::pluginBasePath(4, 0), s.rootPath(kAdobe + "/7.0/MediaCore"));

    ScratchRoot::makeDirs(s.rootPath(kAdobe + "/CS4"));
    installPremiere(s, "CS5", "5.0");
    EXPECT_EQ(L::pluginBasePath(4, 0), s.rootPath(kAdobe + "/CS5/MediaCore"));
    EXPECT_EQ(L::folderForKey(L::pluginFolderDict(), "adobeCommon"),
              s.rootPath(kAdobe + "/CS5/MediaCore/"));

    // The later of two wins; a ".0" version keeps one character, so 10.0 reads CS1.
    installPremiere(s, "CS6", "10.0");
    EXPECT_EQ(L::pluginBasePath(4, 0), s.rootPath(kAdobe + "/CS1/MediaCore"));
}

TEST_F(KTPluginLocationsTest, PremiereVersionsFromBundlesAndInstallerConfiguration) {
    installPremiere(s, "CS5", "5.0");
    writeInfo(s.rootPath("/Applications/adobe premiere elements/adobe premiere elements.app"),
              "CFBundleVersionString", "9.0");
    ScratchRoot::writeFile(
        s.rootPath("/Applications/Adobe Premiere Pro CS3/Configuration/XManConfig.xml"),
        "<Configuration><VariableForExMan><Data key='Other'>x</Data>"
        "<Data key='ProductVersion'>3.0</Data></VariableForExMan></Configuration>");
    ScratchRoot::writeFile(
        s.rootPath("/Applications/Adobe Premiere Pro CS2/Configuration/XManConfig.xml"), "<broken");
    ScratchRoot::makeDirs(s.rootPath("/Applications/Adobe Photoshop"));
    // A Premiere kept elsewhere is found through the workspace, its folder searched first.
    installPremiere(s, "CC", "12.1");
    writeInfo(s.homePath("/Applications/Adobe Premiere Pro CC/Adobe Premiere Pro CC.app"),
              "CFBundleIdentifier", "com.adobe.AdobePremierePro");
    writeInfo(s.homePath("/Applications/Adobe Premiere Pro 2020/Adobe Premiere Pro 2020.app"),
              "CFBundleVersion", "14.0");
    KTWorkspace::shared().refreshApplications();

    std::vector<std::string> versions = KTPremiere::premiereVersions();
    EXPECT_EQ(versions, (std::vector<std::string>{"14.0", "12.1", "3.0", "5.0", "9.0"}));
}

TEST_F(KTPluginLocationsTest, SuiteVersionsKeepMajorAndMinor) {
    writeInfo(s.rootPath("/Applications/Adobe Premiere Pro 2022/Adobe Premiere Pro 2022.app"),
              "CFBundleVersion", "22.1.2");
    ScratchRoot::writeFile(
        s.rootPath("/Applications/Adobe Premiere Pro CS4/Configuration/XManConfig.xml"),
        "<Configuration><VariableForExMan><Data key='ProductVersion'>4.2</Data>"
        "</VariableForExMan></Configuration>");
    EXPECT_EQ(KTPremiere::suiteVersions(), (std::vector<std::string>{"22.1", "4.2"}));
}

TEST_F(KTPluginLocationsTest, FolderTableKeepsItsOwnSpellings) {
    writeInfo(s.rootPath("/Applications/Final Cut Express.app"), "CFBundleIdentifier",
              "com.apple.FinalCutExpress");
    writeInfo(s.rootPath("/Applications/Avid/Symphony.app"), "CFBundleIdentifier",
              "com.avid.Symphony");
    KTPluginFolderDict dict = L::pluginFolderDict();

    ASSERT_EQ(dict.size(), L::folderKeys().size());
    for (std::size_t i = 0; i < dict.size(); ++i) {
        EXPECT_EQ(dict[i].first, L::folderKeys()[i]);
        EXPECT_EQ(dict[i].second.back(), '/') << dict[i].first;
    }
    auto at = [&](const char* key) { return L::folderForKey(dict, key).value_or("?"); };
    EXPECT_EQ(at("localFxScript"),
              s.rootPath("/Library/Application Support/Final Cut Express System Support/Plugins/"));
    EXPECT_EQ(at("userFxScript"),
              s.homePath("/Library/Preferences/Final Cut Express User Data/Plugins/"));
    EXPECT_EQ(at("avidAVX2"), s.rootPath("/Library/Application SupportAvid/AVX2_Plug-ins/"));
    EXPECT_EQ(at("avidRTAS"), s.rootPath("/Library/Application SupportDigidesign/Plug-Ins/"));
    EXPECT_EQ(at("localOFX"), s.rootPath("/Library/OFX/Plugins/"));
    EXPECT_EQ(at("userMotionTemplate"), s.homePath("/Movies/Motion Templates.localized/"));
    // The table asks for the lower-case identifier, the item rule for the mixed-case one.
    EXPECT_EQ(at("avidAVX"),
              s.rootPath("/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins/"));
    EXPECT_EQ(L::pluginBasePath(3, 0),
              s.rootPath("/Applications/Avid Symphony/SupportingFiles/AVX_Plug-Ins"));
    // The item rule never switches FxScript to Express, and OpenFX lives elsewhere there.
    EXPECT_EQ(L::pluginBasePath(1, 0),
              s.rootPath("/Library/Application Support/Final Cut Pro System Support/Plugins"));
    EXPECT_EQ(L::pluginBasePath(9, 0), s.rootPath("/Library/OpenFX/Plugins"));
    EXPECT_FALSE(L::folderForKey(dict, "userOFX"));
}

TEST_F(KTPluginLocationsTest, PathForPluginFindsTheFirstExistingPlace) {
    EXPECT_FALSE(L::pathForPlugin("Glow.fxplug", "Blur"));
    ScratchRoot::makeDirs(s.homePath("/Library/Plug-Ins/FxPlug/Blur/Glow.fxplug"));
    EXPECT_EQ(L::pathForPlugin("Glow.fxplug", "Blur"),
              s.homePath("/Library/Plug-Ins/FxPlug/Blur/Glow.fxplug"));
    ScratchRoot::writeFile(s.rootPath("/Library/Audio/Plug-Ins/VST3/Glow.fxplug"));
    EXPECT_EQ(L::pathForPlugin("Glow.fxplug", std::nullopt),
              s.rootPath("/Library/Audio/Plug-Ins/VST3/Glow.fxplug"));
}

TEST(KTPluginLocationsHelpers, NumbersAndPathComponents) {
    for (const char* yes : {"8.0", "7", "10", "-2", "5.", ".5", "1e3", " 7 ", "+.5e-3", "1.E2"})
        EXPECT_TRUE(L::isNumeric(yes)) << yes;
    for (const char* no :
         {"", "CS5", "8.0a", "localized", "1.2.3", ".", "5e", "e5", "- 1", "+", " "})
        EXPECT_FALSE(L::isNumeric(no)) << no;

    EXPECT_EQ(L::appendPathComponent("", "/Library"), "/Library");
    EXPECT_EQ(L::appendPathComponent("", "Blur"), "Blur");
    EXPECT_EQ(L::appendPathComponent("/", "Library"), "/Library");
    EXPECT_EQ(L::appendPathComponent("/home/ann/", "/Library/X/"), "/home/ann/Library/X");
    EXPECT_EQ(L::appendPathComponent("/a", ""), "/a");
    EXPECT_EQ(L::deletingLastPathComponent("/a/b/c"), "/a/b");
    EXPECT_EQ(L::deletingLastPathComponent("/a"), "/");
    EXPECT_EQ(L::deletingLastPathComponent("a"), "");
}
