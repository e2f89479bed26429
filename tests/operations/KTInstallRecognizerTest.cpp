// The recognition table over real files: where the order of the rows matters,
// the scope a row ignores, and what a template row copies.
#include "operations/KTInstallRecognizer.h"

#include <gtest/gtest.h>

#include "SharedFiles/KTFinderInfo.h"
#include "support/ScratchRoot.h"

using Action = KTInstallTarget::Action;

TEST(KTInstallRecognizerTest, FirstMatchingRowDecides) {
    ScratchRoot s;
    const std::string in = s.base() + "/in";
    auto info = [&](const std::string& bundle, const std::string& keys) {
        ScratchRoot::writeFile(
            in + bundle + "/Contents/Info.plist",
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + keys + "</dict></plist>");
    };
    info("/Both.bundle",
         "<key>AVX20_BundleVersion</key><string>2</string>"
         "<key>AVX15_BundleVersion</key><string>1</string>");
    info("/New.bundle", "<key>AVX20_BundleVersion</key><string>2</string>");
    info("/Plain.bundle", "<key>CFBundleName</key><string>P</string>");
    ScratchRoot::writeFile(in + "/Lower/Lower.moti", "doc");
    ScratchRoot::writeFile(in + "/Stuff/Stuff.txt", "not a template document");
    ScratchRoot::writeFile(in + "/.DS_Store", "x");

    struct Row {
        std::string path, userKey, allKey, subfolder, source;
        Action action = Action::Install;
    };
    const std::vector<Row> rows = {
        {"/Both.bundle", "avidAVX", "avidAVX", "", "/Both.bundle"},
        {"/New.bundle", "avidAVX2", "avidAVX2", "", "/New.bundle"},
        {"/Plain.bundle", "userFxScript", "localFxScript", "", "/Plain.bundle"},
        {"/Lower", "userMotionTemplate", "localMotionTemplate", "Titles.localized", "/Lower"},
        {"/Stuff", "", "", "", "/Stuff", Action::Group},
        {"/.DS_Store", "", "", "", "/.DS_Store", Action::Skip},
        {"/Plain.bundle/Contents", "", "", "", "/Plain.bundle/Contents", Action::Group},
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
