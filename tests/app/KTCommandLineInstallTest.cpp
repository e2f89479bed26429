// "-install" as a person runs it: the built program in a scratch root.
#include <gtest/gtest.h>

#include <filesystem>

#include "catalogue/KTPluginLocations.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

TEST(KTCommandLineInstallTest, KindsScopesGroupsReplacementsAndFailures) {
    ScratchRoot s;
    const std::string in = s.base() + "/in";
    for (const char* f :
         {"/Glow.fxplug/Contents/Info.plist", "/Blur.fxplug", "/Tint.fxplug", "/Late.fxplug",
          "/Example.ofx.bundle/Contents/Info.plist", "/Fx.avx", "/Color.plugin", "/Keys/Keys.motn",
          "/Keys/Media/clip.mov", "/Stuff/A.fxplug", "/Stuff/Deeper/B.component",
          "/Stuff/readme.doc", "/notes.doc"})
        ScratchRoot::writeFile(in + f, "new");
    const auto dict = KTPluginLocations::pluginFolderDict();
    auto folder = [&](const char* key) { return *KTPluginLocations::folderForKey(dict, key); };
    ScratchRoot::writeFile(folder("userFxPlug") + "Blur.fxplug", "old");
    auto ambrel = [](std::vector<std::string> args) {
        args.insert(args.begin(), {ChildProcess::builtProgram("ambrel"), "-install"});
        return ChildProcess::run(args);
    };

    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{in + "/Glow.fxplug"}, folder("userFxPlug") + "Glow.fxplug"},
        {{"-all", in + "/Tint.fxplug"}, folder("localFxPlug") + "Tint.fxplug"},
        // Any other middle word is not looked at; with three words the first is the path.
        {{"-everyone", in + "/Blur.fxplug"}, folder("userFxPlug") + "Blur.fxplug"},
        {{in + "/Late.fxplug", "-all", "x"}, folder("userFxPlug") + "Late.fxplug"},
        // OpenFX, Avid and Adobe always for all users.
        {{in + "/Example.ofx.bundle"}, folder("localOFX") + "Example.ofx.bundle"},
        {{in + "/Fx.avx"}, folder("avidAVX2") + "Fx.avx"},
        {{in + "/Color.plugin"}, folder("adobeCommon") + "Color.plugin"},
        // The template document brings its whole folder into its category.
        {{in + "/Keys/Keys.motn"}, folder("userMotionTemplate") + "Generators.localized/Keys"},
        // A plain folder becomes a group of its recognised entries.
        {{in + "/Stuff"}, folder("userAU") + "Stuff/Deeper/B.component"},
    };
    std::string errors;
    for (const auto& [args, installed] : cases) {
        const ChildProcess run = ambrel(args);
        EXPECT_EQ(run.exitCode, 0) << installed;
        EXPECT_TRUE(fs::exists(installed)) << installed << "\n" << run.err;
        errors += run.err;
    }
    EXPECT_TRUE(fs::exists(folder("userMotionTemplate") + "Generators.localized/Keys/Media"));
    EXPECT_TRUE(fs::exists(folder("userFxPlug") + "Stuff/A.fxplug"));
    EXPECT_EQ(ambrel({}).exitCode, 0);

    // The existing plug-in was replaced, its old copy is in the Trash.
    EXPECT_EQ(ScratchRoot::readFile(folder("userFxPlug") + "Blur.fxplug"), "new");
    EXPECT_NE(errors.find("The file Blur.fxplug already exists. Overwriting.."), std::string::npos);
    bool trashed = false;
    for (const auto& e : fs::recursive_directory_iterator(s.home()))
        trashed |= e.path().filename() == "Blur.fxplug" &&
                   e.path().string().find("Trash") != std::string::npos &&
                   ScratchRoot::readFile(e.path()) == "old";
    EXPECT_TRUE(trashed);

    // Unrecognised files are summed up and copied nowhere.
    const ChildProcess run = ambrel({in + "/notes.doc"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.err.find("Installation failed. The following plugins failed to install: \n" + in +
                           "/notes.doc"),
              std::string::npos)
        << run.err;
    for (const std::string& top : {s.root(), s.home()})
        for (const auto& e : fs::recursive_directory_iterator(top))
            EXPECT_TRUE(e.path().filename() != "notes.doc" && e.path().filename() != "readme.doc")
                << e.path();
}
