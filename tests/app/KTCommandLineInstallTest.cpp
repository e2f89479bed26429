// "-install" as a person runs it: the built program in a scratch root.
#include <gtest/gtest.h>

#include <filesystem>

#include "catalogue/KTPluginLocations.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

ChildProcess ambrel(std::vector<std::string> args) {
    args.insert(args.begin(), ChildProcess::builtProgram("ambrel"));
    return ChildProcess::run(args);
}

std::string folder(const std::string& key) {
    return *KTPluginLocations::folderForKey(KTPluginLocations::pluginFolderDict(), key);
}

bool exists(const std::string& p) {
    return fs::exists(fs::symlink_status(p));
}

}  // namespace

TEST(KTCommandLineInstallTest, EachKindLandsInItsFolderAndScope) {
    ScratchRoot s;
    const std::string in = s.base() + "/in";
    ScratchRoot::writeFile(in + "/Glow.fxplug/Contents/Info.plist", "p");
    ScratchRoot::writeFile(in + "/Blur.fxplug", "b");
    ScratchRoot::writeFile(in + "/Tint.fxplug", "t");
    ScratchRoot::writeFile(in + "/Example.ofx.bundle/Contents/Info.plist", "p");
    ScratchRoot::writeFile(in + "/Fx.avx", "a");
    ScratchRoot::writeFile(in + "/Color.plugin", "c");
    ScratchRoot::writeFile(in + "/Keys/Keys.motn", "doc");
    ScratchRoot::writeFile(in + "/Keys/Media/clip.mov", "m");

    struct Case {
        std::vector<std::string> args;
        std::string installed;
    };
    const std::vector<Case> cases = {
        {{in + "/Glow.fxplug"}, folder("userFxPlug") + "Glow.fxplug"},
        {{"-all", in + "/Blur.fxplug"}, folder("localFxPlug") + "Blur.fxplug"},
        // Any other middle word is not looked at: the current user.
        {{"-everyone", in + "/Tint.fxplug"}, folder("userFxPlug") + "Tint.fxplug"},
        // OpenFX, Avid and Adobe always for all users.
        {{in + "/Example.ofx.bundle"}, folder("localOFX") + "Example.ofx.bundle"},
        {{in + "/Fx.avx"}, folder("avidAVX2") + "Fx.avx"},
        {{in + "/Color.plugin"}, folder("adobeCommon") + "Color.plugin"},
        // The template document brings its whole folder into its category.
        {{in + "/Keys/Keys.motn"}, folder("userMotionTemplate") + "Generators.localized/Keys"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = {"-install"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const ChildProcess run = ambrel(args);
        EXPECT_EQ(run.exitCode, 0) << c.installed << "\n" << run.err;
        EXPECT_TRUE(exists(c.installed)) << c.installed << "\n" << run.out << run.err;
    }
    EXPECT_TRUE(exists(folder("userMotionTemplate") + "Generators.localized/Keys/Media/clip.mov"));
    EXPECT_EQ(ScratchRoot::readFile(folder("localFxPlug") + "Blur.fxplug"), "b");

    // Without a path nothing happens; with three words the first is the path.
    EXPECT_EQ(ambrel({"-install"}).exitCode, 0);
    ScratchRoot::writeFile(in + "/Late.fxplug", "l");
    EXPECT_EQ(ambrel({"-install", in + "/Late.fxplug", "-all", "x"}).exitCode, 0);
    EXPECT_TRUE(exists(folder("userFxPlug") + "Late.fxplug"));
}

TEST(KTCommandLineInstallTest, FoldersReplacementsAndFailures) {
    ScratchRoot s;
    const std::string in = s.base() + "/in";
    ScratchRoot::writeFile(in + "/Stuff/A.fxplug", "a");
    ScratchRoot::writeFile(in + "/Stuff/Deeper/B.component", "b");
    ScratchRoot::writeFile(in + "/Stuff/readme.doc", "r");
    ScratchRoot::writeFile(in + "/Glow.fxplug", "new");
    ScratchRoot::writeFile(in + "/notes.doc", "n");
    const std::string userFx = folder("userFxPlug");
    ScratchRoot::writeFile(userFx + "Glow.fxplug", "old");

    // A plain folder becomes a group of its recognised entries.
    ChildProcess run = ambrel({"-install", in + "/Stuff"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(exists(userFx + "Stuff/A.fxplug"));
    EXPECT_TRUE(exists(folder("userAU") + "Stuff/Deeper/B.component"));
    EXPECT_FALSE(exists(userFx + "Stuff/readme.doc"));

    // An existing plug-in is replaced; the old copy is in the Trash.
    run = ambrel({"-install", in + "/Glow.fxplug"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(ScratchRoot::readFile(userFx + "Glow.fxplug"), "new");
    EXPECT_NE(run.err.find("The file Glow.fxplug already exists. Overwriting.."), std::string::npos)
        << run.err;
    bool trashed = false;
    for (const auto& e : fs::recursive_directory_iterator(s.home()))
        if (e.path().filename() == "Glow.fxplug" &&
            e.path().string().find("Trash") != std::string::npos)
            trashed = ScratchRoot::readFile(e.path()) == "old";
    EXPECT_TRUE(trashed);

    // An unrecognised file is summed up and copied nowhere.
    run = ambrel({"-install", in + "/notes.doc"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.err.find("Installation failed. The following plugins failed to install: \n" + in +
                           "/notes.doc"),
              std::string::npos)
        << run.err;
    for (const std::string& root : {s.root(), s.home()}) {
        for (const auto& e : fs::recursive_directory_iterator(root))
            EXPECT_NE(e.path().filename(), "notes.doc") << e.path();
    }
}
