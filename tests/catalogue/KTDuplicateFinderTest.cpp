// The duplicate finder's choice of the copy in use, in memory and through
// "-duplicates" over a scratch tree with both scopes, two formats and a link.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>

#include "catalogue/KTDuplicateFinder.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

ChildProcess ambrel(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ChildProcess::builtProgram("ambrel")};
    argv.insert(argv.end(), args.begin(), args.end());
    return ChildProcess::run(argv);
}

/// A bundle with an identifier, a name and a version.
void writeBundle(const std::string& path, const std::string& id, const std::string& name,
                 const std::string& version) {
    ScratchRoot::writeFile(path + "/Contents/Info.plist",
                           "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                           "<key>CFBundleIdentifier</key><string>" +
                               id +
                               "</string>"
                               "<key>CFBundleName</key><string>" +
                               name +
                               "</string>"
                               "<key>CFBundleShortVersionString</key><string>" +
                               version +
                               "</string>"
                               "</dict></plist>");
}

}  // namespace

namespace {

KTCatalogueEntry entry(const std::string& path, std::int64_t kind, std::int64_t scope, bool enabled,
                       const std::string& id, const std::string& real = "", bool link = false) {
    KTCatalogueEntry e;
    e.path = e.logicalPath = path;
    e.kind = kind;
    e.scope = scope;
    e.enabled = enabled;
    e.shortName = "Echo";
    e.version = "1.0";
    e.bundleIdentifier = id;
    e.realPath = real.empty() ? path : real;
    e.isLink = link;
    return e;
}

}  // namespace

TEST(KTDuplicateFinderTest, OneCopyInUsePerFormat) {
    std::vector<KTCatalogueEntry> entries = {
        entry("/L/Components/Echo.component", 2, 0, true, "com.acme.echo"),
        entry("/H/Components/Echo.component", 2, 1, true, "com.acme.echo"),
        entry("/D/H/Components/Echo.component", 2, 1, false, "com.acme.echo"),
        entry("/L/VST3/EchoLink.vst3", 12, 0, true, "com.acme.echo.vst3", "/L/VST3/Echo.vst3",
              true),
        entry("/L/VST3/Echo.vst3", 12, 0, true, "com.acme.echo.vst3"),
        entry("/L/VST/Other.vst", 7, 0, true, "com.other"),
    };
    entries[5].shortName = "Other";
    const auto sets = KTDuplicateFinder::find(entries);
    ASSERT_EQ(sets.size(), 1u);  // the VST3s join the AU by name and version
    const auto& copies = sets[0].copies;
    ASSERT_EQ(copies.size(), 5u);
    // The user's copy beats the machine's; the disabled one is not loaded at
    // all; the real bundle beats the link to it.
    EXPECT_TRUE(copies[1].inUse);
    EXPECT_TRUE(copies[0].shadowed);
    EXPECT_NE(copies[0].reason.find("current user's copy is loaded first"), std::string::npos);
    EXPECT_FALSE(copies[2].inUse || copies[2].shadowed);
    EXPECT_TRUE(copies[4].inUse);
    EXPECT_TRUE(copies[3].shadowed);
    EXPECT_NE(copies[3].reason.find("through a link"), std::string::npos);
    EXPECT_TRUE(entries[0].shadowed && entries[3].shadowed);
    EXPECT_FALSE(entries[5].shadowed);
}

TEST(KTDuplicateFinderTest, CommandLineGroupsAcrossScopesAndLinks) {
    ScratchRoot s;
    const std::string au = "/Library/Audio/Plug-Ins/Components/Echo.component";
    writeBundle(s.rootPath(au), "com.acme.echo", "Echo", "1.0");
    writeBundle(s.homePath(au), "com.acme.echo", "Echo", "1.0");
    writeBundle(s.rootPath("/Library/Audio/Plug-Ins/VST3/Echo.vst3"), "com.acme.echo.vst3", "Echo",
                "1.0");
    fs::create_directories(s.rootPath("/Library/Audio/Plug-Ins/VST"));
    fs::create_symlink(s.rootPath("/Library/Audio/Plug-Ins/VST3/Echo.vst3"),
                       s.rootPath("/Library/Audio/Plug-Ins/VST3/Echo Link.vst3"));
    writeBundle(s.rootPath("/Library/Audio/Plug-Ins/VST/Solo.vst"), "com.acme.solo", "Solo", "1");

    const ChildProcess r = ambrel({"-duplicates"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("  in use    " + s.homePath(au)), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  shadowed  " + au), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  in use    /Library/Audio/Plug-Ins/VST3/Echo.vst3 "), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("  shadowed  /Library/Audio/Plug-Ins/VST3/Echo Link.vst3 [VST3, all "
                         "users, enabled, link]"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("Solo"), std::string::npos) << r.out;
}
