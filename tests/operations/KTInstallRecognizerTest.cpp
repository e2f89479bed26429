// The recognition table over real files: the row that decides, its folder
// key in each scope, and what is copied.
#include "operations/KTInstallRecognizer.h"

#include <gtest/gtest.h>

#include "SharedFiles/KTFinderInfo.h"
#include "support/ScratchRoot.h"

namespace {

using Action = KTInstallTarget::Action;

std::string infoPlist(const std::string& key) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>" + key +
           "</key><string>1</string></dict></plist>";
}

}  // namespace

TEST(KTInstallRecognizerTest, EachRowChoosesItsFolderInEachScope) {
    ScratchRoot s;
    const std::string in = s.base() + "/in";
    ScratchRoot::writeFile(in + "/Glow.FXPLUG/Contents/Info.plist", infoPlist("CFBundleName"));
    ScratchRoot::writeFile(in + "/Example.ofx.bundle/Contents/Info.plist", infoPlist("X"));
    ScratchRoot::writeFile(in + "/Old.bundle/Contents/Info.plist",
                           infoPlist("AVX15_BundleVersion"));
    // Both keys: the AVX 1.5 row comes first.
    ScratchRoot::writeFile(in + "/Both.bundle/Contents/Info.plist",
                           "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                           "<key>AVX20_BundleVersion</key><string>2</string>"
                           "<key>AVX15_BundleVersion</key><string>1</string></dict></plist>");
    ScratchRoot::writeFile(in + "/New.bundle/Contents/Info.plist",
                           infoPlist("AVX20_BundleVersion"));
    ScratchRoot::writeFile(in + "/Plain.bundle/Contents/Info.plist", infoPlist("CFBundleName"));
    ScratchRoot::writeFile(in + "/Fx.avx", "x");
    ScratchRoot::writeFile(in + "/Rt.dpm", "x");
    ScratchRoot::writeFile(in + "/Keys/Keys.motn", "doc");
    ScratchRoot::writeFile(in + "/Lower/Lower.moti", "doc");
    ScratchRoot::writeFile(in + "/Wipe/Wipe.motr", "doc");
    ScratchRoot::writeFile(in + "/Script.txt", "x");
    ScratchRoot::writeFile(in + "/Script.fcfcc", "x");
    ScratchRoot::writeFile(in + "/Echo.component", "x");
    ScratchRoot::writeFile(in + "/Synth.vst", "x");
    ScratchRoot::writeFile(in + "/Synth.vst2", "x");
    ScratchRoot::writeFile(in + "/Synth.vst3", "x");
    ScratchRoot::writeFile(in + "/Color.plugin", "x");
    ScratchRoot::writeFile(in + "/Stuff/A.fxplug", "x");
    ScratchRoot::writeFile(in + "/Stuff/Stuff.txt", "x");  // not a template document
    ScratchRoot::writeFile(in + "/.DS_Store", "x");
    ScratchRoot::writeFile(in + "/readme.doc", "x");
    ScratchRoot::makeDirs(in + "/Odd.app");

    struct Row {
        std::string path;
        Action action;
        std::string userKey, allKey, subfolder, source;
    };
    const std::vector<Row> rows = {
        {"/Glow.FXPLUG", Action::Install, "userFxPlug", "localFxPlug", "", "/Glow.FXPLUG"},
        {"/Example.ofx.bundle", Action::Install, "localOFX", "localOFX", "", "/Example.ofx.bundle"},
        {"/Old.bundle", Action::Install, "avidAVX", "avidAVX", "", "/Old.bundle"},
        {"/Both.bundle", Action::Install, "avidAVX", "avidAVX", "", "/Both.bundle"},
        {"/New.bundle", Action::Install, "avidAVX2", "avidAVX2", "", "/New.bundle"},
        {"/Plain.bundle", Action::Install, "userFxScript", "localFxScript", "", "/Plain.bundle"},
        {"/Fx.avx", Action::Install, "avidAVX2", "avidAVX2", "", "/Fx.avx"},
        {"/Rt.dpm", Action::Install, "avidRTAS", "avidRTAS", "", "/Rt.dpm"},
        {"/Keys/Keys.motn", Action::Install, "userMotionTemplate", "localMotionTemplate",
         "Generators.localized", "/Keys"},
        {"/Lower", Action::Install, "userMotionTemplate", "localMotionTemplate", "Titles.localized",
         "/Lower"},
        {"/Wipe", Action::Install, "userMotionTemplate", "localMotionTemplate",
         "Transitions.localized", "/Wipe"},
        {"/Script.txt", Action::Install, "userFxScript", "localFxScript", "", "/Script.txt"},
        {"/Script.fcfcc", Action::Install, "userFxScript", "localFxScript", "", "/Script.fcfcc"},
        {"/Echo.component", Action::Install, "userAU", "localAU", "", "/Echo.component"},
        {"/Synth.vst", Action::Install, "userVST", "localVST", "", "/Synth.vst"},
        {"/Synth.vst2", Action::Install, "userVST2", "localVST2", "", "/Synth.vst2"},
        {"/Synth.vst3", Action::Install, "userVST3", "localVST3", "", "/Synth.vst3"},
        {"/Color.plugin", Action::Install, "adobeCommon", "adobeCommon", "", "/Color.plugin"},
        {"/Stuff", Action::Group, "", "", "", "/Stuff"},
        {"/.DS_Store", Action::Skip, "", "", "", "/.DS_Store"},
        {"/readme.doc", Action::Unrecognized, "", "", "", "/readme.doc"},
        {"/Odd.app", Action::Unrecognized, "", "", "", "/Odd.app"},
    };
    for (const auto& row : rows) {
        for (bool forUser : {true, false}) {
            SCOPED_TRACE(row.path + (forUser ? " for the user" : " for all users"));
            const KTInstallTarget t = KTInstallRecognizer::recognize(in + row.path, forUser);
            EXPECT_EQ(t.action, row.action);
            EXPECT_EQ(t.folderKey, forUser ? row.userKey : row.allKey);
            EXPECT_EQ(t.subfolder, row.subfolder);
            EXPECT_EQ(t.sourcePath, in + row.source);
        }
    }
}

TEST(KTInstallRecognizerTest, FinderTypeCodeMakesAnFxScriptAndAsksForScope) {
    ScratchRoot s;
    const std::string script = s.base() + "/Compiled Script";
    ScratchRoot::writeFile(script, "x");
    EXPECT_EQ(KTInstallRecognizer::recognize(script, true).action, Action::Unrecognized);
    EXPECT_FALSE(KTInstallRecognizer::asksForScope(script));
    if (!KTFinderInfo::setTypeCode(script, KTFinderInfo::kFxScriptType))
        GTEST_SKIP() << "no extended attributes on this file system";
    EXPECT_EQ(KTInstallRecognizer::recognize(script, false).folderKey, "localFxScript");
    EXPECT_TRUE(KTInstallRecognizer::asksForScope(script));
}

TEST(KTInstallRecognizerTest, OnlyKindsWithTwoScopesAskForOne) {
    for (const char* p : {"/a/X.fxplug", "/a/X.bundle", "/a/X.VST", "/a/X.vst2", "/a/X.vst3",
                          "/a/X.txt", "/a/X.fcfcc"})
        EXPECT_TRUE(KTInstallRecognizer::asksForScope(p)) << p;
    // Audio Units have two scopes too, but never caused the question.
    for (const char* p : {"/a/X.component", "/a/X.plugin", "/a/X.avx", "/a/X.moti", "/a/Folder"})
        EXPECT_FALSE(KTInstallRecognizer::asksForScope(p)) << p;
}
