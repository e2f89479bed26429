// Installers built by `ambrel -createinstaller` from one scratch machine and
// installed with their own program, unattended, on a second one.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTKeychain.h"
#include "SharedFiles/KTPlist.h"
#include "installer/KTInstallerRunner.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

const std::string kComponents = "/Library/Audio/Plug-Ins/Components";
const std::string kVST3 = "/Library/Audio/Plug-Ins/VST3";
const std::string kProgram = "/Contents/MacOS/Ambrel Installer";

ChildProcess ambrel(std::vector<std::string> args) {
    args.insert(args.begin(), ChildProcess::builtProgram("ambrel"));
    return ChildProcess::run(args);
}

ChildProcess sh(const std::string& script) {
    return ChildProcess::run({"/bin/sh", "-c", script});
}

void writeBundle(const std::string& bundle, const std::string& binary) {
    ScratchRoot::writeFile(bundle + "/Contents/Info.plist",
                           "<plist version=\"1.0\"><dict/></plist>");
    ScratchRoot::writeFile(bundle + "/Contents/MacOS/" + fs::path(bundle).stem().string(), binary);
}

void writeScript(const std::string& path, const std::string& body) {
    ScratchRoot::writeFile(path, "#!/bin/sh\n" + body + "\n");
    ::chmod(path.c_str(), 0755);
}

/// The machine the installer is built on: a machine-wide Audio Unit, one in
/// a group folder, a VST3 in the home Library, the form's files.
class BuildMachine {
  public:
    BuildMachine() {
        writeBundle(scratch.rootPath(kComponents + "/Echo.component"), "echo-binary");
        writeBundle(scratch.rootPath(kComponents + "/Acme/Delay.component"), "delay-binary");
        writeBundle(scratch.rootPath(kComponents + "/Acme/Verb.component"), "verb-binary");
        writeBundle(scratch.homePath(kVST3 + "/Synth.vst3"), std::string(100000, 's'));
        ScratchRoot::writeFile(work("/Licence.txt"), "Use it well.");
        ScratchRoot::writeFile(work("/back.png"), "png bytes");
        ScratchRoot::writeFile(work("/icon.icns"), "icns bytes");
        // The scripts leave proof of their run where the installing machine is.
        writeScript(work("/before.sh"), "echo pre >> \"$HOME/scripts.log\"");
        writeScript(work("/postinstall.sh"), "echo post >> \"$HOME/scripts.log\"");
    }
    std::string work(const std::string& rel) const { return scratch.base() + "/work" + rel; }
    std::string out() const { return scratch.base() + "/out/Acme FX Installer.app"; }

    ChildProcess build(const std::vector<std::string>& extra = {}) {
        std::vector<std::string> args = {"-createinstaller",
                                         "-o",
                                         scratch.base() + "/out/Acme FX Installer",
                                         "-name",
                                         "Acme FX",
                                         "-version",
                                         "2.1",
                                         "-author",
                                         "Acme Labs",
                                         "-eula",
                                         work("/Licence.txt"),
                                         "-background",
                                         work("/back.png"),
                                         "-icon",
                                         work("/icon.icns"),
                                         "-preinstall",
                                         work("/before.sh"),
                                         "-postinstall",
                                         work("/postinstall.sh"),
                                         "-removebranding"};
        args.insert(args.end(), extra.begin(), extra.end());
        return ambrel(args);
    }

    ScratchRoot scratch;
};

std::string structure(const std::string& bundle, const std::string& rel) {
    return bundle + "/Contents/Resources/PluginStructure" + rel;
}

}  // namespace

TEST(KTInstallerBuilder, BuiltInstallerHoldsTheLayoutAndInstallsEverythingElsewhere) {
    BuildMachine machine;
    const std::string bundle = machine.out();
    // A group folder's path, and a file name matched like the other verbs match names.
    auto built = machine.build({machine.scratch.rootPath(kComponents + "/Acme"), "Echo.component",
                                "Synth.vst3", "Delay.component"});
    ASSERT_EQ(built.exitCode, 0) << built.out << built.err;
    EXPECT_NE(built.out.find("An installer was successfully created at " + bundle + "."),
              std::string::npos)
        << built.out;

    // The layout.
    EXPECT_TRUE(fs::is_regular_file(bundle + kProgram));
    const std::string& root = machine.scratch.root();
    for (const char* p : {"/Echo.component", "/Acme/Delay.component", "/Acme/Verb.component"})
        EXPECT_TRUE(
            KTFileTree::sameTree(root + kComponents + p, structure(bundle, kComponents + p)))
            << p;
    EXPECT_TRUE(KTFileTree::sameTree(machine.scratch.homePath(kVST3 + "/Synth.vst3"),
                                     structure(bundle, "/Users/user" + kVST3 + "/Synth.vst3")));
    const std::string resources = bundle + "/Contents/Resources/";
    for (const char* f :
         {"Licence.txt", "back.png", "icon.icns", "preinstall.sh", "postinstall.sh"})
        EXPECT_TRUE(fs::exists(resources + f)) << f;
    EXPECT_FALSE(fs::exists(resources + "before.sh"));

    // The settings file and the icon's entry.
    KTPlistPtr settings = KTPlist::readFile(resources + "InstallerSettings.plist");
    ASSERT_TRUE(settings);
    EXPECT_EQ(KTPlist::stringForKey(settings.get(), "KTPluginName"), "Acme FX");
    EXPECT_EQ(KTPlist::stringForKey(settings.get(), "KTPluginVersion"), "2.1");
    EXPECT_EQ(KTPlist::stringForKey(settings.get(), "KTPluginAuthor"), "Acme Labs");
    EXPECT_EQ(KTPlist::stringForKey(settings.get(), "KTEULAPath"), "Licence.txt");
    EXPECT_EQ(KTPlist::stringForKey(settings.get(), "KTBgImagePath"), "back.png");
    EXPECT_EQ(KTPlist::boolForKey(settings.get(), "removeBranding"), true);
    EXPECT_EQ(plist_dict_get_size(settings.get()), 6u);
    KTPlistPtr info = KTPlist::readFile(bundle + "/Contents/Info.plist");
    ASSERT_TRUE(info);
    EXPECT_EQ(KTPlist::stringForKey(info.get(), "CFBundleIconFile"), "icon.icns");

    // What the template reads back, and its window drawn offscreen.
    KTInstallerRunner runner(bundle);
    ASSERT_TRUE(runner.loadSettings(nullptr));
    EXPECT_EQ(runner.settings().name, "Acme FX");
    EXPECT_EQ(runner.settings().eulaPath, resources + "Licence.txt");
    EXPECT_EQ(runner.settings().bgImagePath, resources + "back.png");
    EXPECT_TRUE(runner.settings().removeBranding);
    EXPECT_EQ(runner.placements().size(), 4u);
    const std::string shot = machine.scratch.base() + "/shot.png";
    auto window = ChildProcess::run({"/usr/bin/env", "QT_QPA_PLATFORM=offscreen",
                                     "AMBREL_SCREENSHOT=" + shot, bundle + kProgram});
    EXPECT_EQ(window.exitCode, 0) << window.err;
    EXPECT_TRUE(fs::exists(shot));

    // Installed on a second machine, unattended.
    const std::string program = machine.scratch.base() + "/moved/Acme FX Installer.app";
    fs::create_directories(fs::path(program).parent_path());
    fs::rename(bundle, program);  // an installer works wherever it is
    ScratchRoot target;
    ScratchRoot::writeFile(target.rootPath(kComponents + "/Echo.component/old"), "older version");
    auto run = ChildProcess::run({program + kProgram, "-unattended"});
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    for (const char* p : {"/Echo.component", "/Acme/Delay.component", "/Acme/Verb.component"})
        EXPECT_TRUE(KTFileTree::sameTree(root + kComponents + p, target.rootPath(kComponents + p)))
            << p;
    EXPECT_TRUE(KTFileTree::sameTree(machine.scratch.homePath(kVST3 + "/Synth.vst3"),
                                     target.homePath(kVST3 + "/Synth.vst3")));
    EXPECT_EQ(ScratchRoot::readFile(target.homePath("/scripts.log")), "pre\npost\n");
    // The older copy went to the Trash, not away.
    EXPECT_FALSE(fs::exists(target.rootPath(kComponents + "/Echo.component/old")));
    bool trashed = false;
    for (auto& e : fs::recursive_directory_iterator(target.home()))
        trashed = trashed || e.path().filename() == "old";
    EXPECT_TRUE(trashed);
}

TEST(KTInstallerBuilder, AFailingScriptOrAnEmptyInstallerInstallsNothingAndFails) {
    BuildMachine machine;
    writeScript(machine.work("/before.sh"), "exit 3");
    auto built = machine.build({"Echo.component"});
    ASSERT_EQ(built.exitCode, 0) << built.out << built.err;
    ScratchRoot target;
    auto run = ChildProcess::run({machine.out() + kProgram, "-unattended"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("preinstall.sh failed with status 3"), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(target.rootPath(kComponents + "/Echo.component")));

    // An installer that lost its plug-ins does not report success.
    writeScript(machine.out() + "/Contents/Resources/preinstall.sh", "exit 0");
    fs::remove_all(machine.out() + "/Contents/Resources/PluginStructure");
    run = ChildProcess::run({machine.out() + kProgram, "-unattended"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("The installer holds no plugins"), std::string::npos) << run.err;
}

TEST(KTInstallerBuilder, RefusalsExitOneWithTheirMessages) {
    BuildMachine machine;
    auto none = machine.build({"Nothing.component"});
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_NE(none.out.find("No files to add. Make sure you didn't select an empty group."),
              std::string::npos);
    EXPECT_FALSE(fs::exists(machine.out()));

    auto noScript = machine.build({"-preinstall", machine.work("/missing.sh"), "Echo.component"});
    EXPECT_EQ(noScript.exitCode, 1);
    EXPECT_NE(noScript.err.find("Pre-install script path doesn't exist"), std::string::npos);

    EXPECT_EQ(ambrel({"-createinstaller", "Echo.component"}).exitCode, 1);  // no -o

    // Signing needs Apple's tools: without them nothing pretends to be signed.
    auto signedBuild =
        machine.build({"-certificate", "Developer ID Application: Acme (X1)", "Echo.component"});
    EXPECT_EQ(signedBuild.exitCode, 1);
    EXPECT_NE(signedBuild.out.find("Code signing failed: Error: /usr/bin/codesign is not "
                                   "executable."),
              std::string::npos)
        << signedBuild.out;
}

TEST(KTInstallerBuilder, RebuildingTrashesTheOldInstallerAndOptionalFilesMayBeMissing) {
    BuildMachine machine;
    ASSERT_EQ(machine.build({"Echo.component"}).exitCode, 0);
    ScratchRoot::writeFile(machine.out() + "/Contents/Resources/stale", "x");
    fs::remove(machine.work("/Licence.txt"));
    fs::remove(machine.work("/back.png"));
    auto again = machine.build({"Echo.component"});
    ASSERT_EQ(again.exitCode, 0) << again.out << again.err;
    EXPECT_FALSE(fs::exists(machine.out() + "/Contents/Resources/stale"));
    KTPlistPtr settings =
        KTPlist::readFile(machine.out() + "/Contents/Resources/InstallerSettings.plist");
    ASSERT_TRUE(settings);
    EXPECT_FALSE(KTPlist::stringForKey(settings.get(), "KTEULAPath").has_value());
    EXPECT_FALSE(KTPlist::stringForKey(settings.get(), "KTBgImagePath").has_value());
}

// ---- The notarisation account, through the private keyring ------------------

namespace {
bool privateKeyring() {
    return std::getenv("AMBREL_PRIVATE_KEYRING") != nullptr;
}
}  // namespace

TEST(KTInstallerAppleID, SetAppleIDStoresReplacesAndRemovesTheOneItem) {
    if (!privateKeyring())
        GTEST_SKIP() << "needs the private keyring of tests/support/with-keyring";
    ScratchRoot scratch;
    const std::string program = ChildProcess::builtProgram("ambrel");
    auto set = [&](const std::string& id, const std::string& password) {
        return sh("printf '%s\\n' '" + password + "' | '" + program + "' -setappleid '" + id + "'");
    };
    auto items = [] { return sh("secret-tool search --all labl 'Ambrel Apple ID' 2>&1").out; };

    ASSERT_EQ(set("dev@example.com", "abcd-efgh").exitCode, 0);
    ASSERT_EQ(set("new@example.com", "wxyz").exitCode, 0);
    std::string found = items();
    EXPECT_EQ(found.find("attribute.labl"), found.rfind("attribute.labl")) << found;
    EXPECT_NE(found.find("attribute.acct = new@example.com"), std::string::npos) << found;
    EXPECT_EQ(found.find("dev@example.com"), std::string::npos);
    EXPECT_EQ(sh("secret-tool lookup labl 'Ambrel Apple ID'").out, "wxyz");

    // With an account stored but no notary tools, the build says it was not notarised.
    BuildMachine machine;
    auto built = machine.build({"Echo.component"});
    EXPECT_EQ(built.exitCode, 1);
    EXPECT_NE(built.out.find("Unable to notarize - Error: /usr/bin/xcrun is not executable."),
              std::string::npos)
        << built.out;

    ASSERT_EQ(set("new@example.com", "").exitCode, 0);
    EXPECT_EQ(items().find("attribute.labl"), std::string::npos);

    // A locked keyring asks nobody: what is stored reads as nothing, and nothing is stored.
    ASSERT_EQ(set("dev@example.com", "pw").exitCode, 0);
    auto lock =
        sh("gdbus call --session --dest org.freedesktop.secrets --object-path "
           "/org/freedesktop/secrets --method org.freedesktop.Secret.Service.Lock "
           "\"['/org/freedesktop/secrets/collection/login']\"");
    ASSERT_EQ(lock.exitCode, 0) << lock.err;
    std::string id, password;
    EXPECT_FALSE(KTKeychain::appleIDInfo(&id, &password));
    EXPECT_EQ(set("other@example.com", "pw2").exitCode, 1);

    // No session bus: the keychain refuses, and says so on the console.
    auto noBus = sh("printf 'pw\\n' | DBUS_SESSION_BUS_ADDRESS=disabled: '" + program +
                    "' -setappleid a@b.c");
    EXPECT_EQ(noBus.exitCode, 1);
    EXPECT_NE(noBus.err.find("from SecKeychainSearchCreateFromAttributes"), std::string::npos);
}
