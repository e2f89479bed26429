// The verbs that change plug-ins, run as the built program inside a scratch
// root: -enable, -disable, -remove and -setaccess.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

const char* const kDisabled =
    "/Library/Application Support/Quellbrook/Tallowby/Ambrel Disabled Plugins";

bool exists(const std::string& p) {
    std::error_code ec;
    return fs::symlink_status(p, ec).type() != fs::file_type::not_found;
}

ChildProcess ambrel(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ChildProcess::builtProgram("ambrel")};
    argv.insert(argv.end(), args.begin(), args.end());
    return ChildProcess::run(argv);
}

std::string readAll(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

/// The log of the last run: the machine's log folder for root, else the user's.
std::string lastLog(const ScratchRoot& s) {
    const std::string rel = "/Library/Logs/Quellbrook/Ambrel.task.1.log";
    return readAll(::geteuid() == 0 ? s.rootPath(rel) : s.homePath(rel));
}

struct Tree {
    ScratchRoot s;
    std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    std::string userFx = s.homePath("/Library/Plug-Ins/FxPlug");
    std::string disabled = s.rootPath(kDisabled);
    /// Where a path below the root is mirrored in the disabled folder.
    std::string mirrorOfRoot(const std::string& real) const {
        return disabled + real.substr(s.root().size());
    }
    std::string mirrorOfHome(const std::string& real) const { return disabled + real; }
};

}  // namespace

TEST(CommandLineVerbsTest, DisableAndEnableByNameOrForAll) {
    Tree t;
    ScratchRoot::writeFile(t.fx + "/Glow.fxplug/v", "machine");
    ScratchRoot::writeFile(t.userFx + "/Glow.fxplug/v", "user");
    ScratchRoot::writeFile(t.fx + "/Pack/Blur.fxplug/v", "blur");

    // Any path ending in the file name names it, in every folder.
    ChildProcess r = ambrel({"-disable", "/tmp/Glow.fxplug"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(ScratchRoot::readFile(t.mirrorOfRoot(t.fx + "/Glow.fxplug/v")), "machine");
    EXPECT_EQ(ScratchRoot::readFile(t.mirrorOfHome(t.userFx + "/Glow.fxplug/v")), "user");
    EXPECT_TRUE(exists(t.fx + "/Pack/Blur.fxplug"));
    EXPECT_NE(lastLog(t.s).find("Disabling plugin Glow..."), std::string::npos);

    r = ambrel({"-disable", "Blur.fxplug"});
    EXPECT_TRUE(exists(t.mirrorOfRoot(t.fx + "/Pack/Blur.fxplug/v")));
    r = ambrel({"-disable", "Blur.fxplug"});
    EXPECT_NE(lastLog(t.s).find("Error: plugin is already disabled."), std::string::npos);

    // No name: every plug-in; the disabled folder empties and goes.
    r = ambrel({"-enable"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(ScratchRoot::readFile(t.fx + "/Glow.fxplug/v"), "machine");
    EXPECT_EQ(ScratchRoot::readFile(t.userFx + "/Glow.fxplug/v"), "user");
    EXPECT_EQ(ScratchRoot::readFile(t.fx + "/Pack/Blur.fxplug/v"), "blur");
    EXPECT_FALSE(exists(t.disabled));
    EXPECT_NE(lastLog(t.s).find("Cleaning up plugin path"), std::string::npos);
}

TEST(CommandLineVerbsTest, SetAccessAndRemove) {
    Tree t;
    ScratchRoot::writeFile(t.userFx + "/Echo.fxplug/v", "echo");
    ScratchRoot::writeFile(t.userFx + "/Pack/Wave.fxplug/v", "wave");
    ScratchRoot::writeFile(t.fx + "/Stay.fxplug/v", "stay");

    ChildProcess r = ambrel({"-setaccess"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(lastLog(t.s).find("Invalid argument count"), std::string::npos);

    r = ambrel({"-setaccess", "0", "Wave.fxplug"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(ScratchRoot::readFile(t.fx + "/Pack/Wave.fxplug/v"), "wave");
    EXPECT_TRUE(exists(t.userFx + "/Echo.fxplug"));

    r = ambrel({"-setaccess", "0"});
    EXPECT_EQ(ScratchRoot::readFile(t.fx + "/Echo.fxplug/v"), "echo");
    EXPECT_FALSE(exists(t.userFx + "/Echo.fxplug"));
    EXPECT_NE(lastLog(t.s).find("Setting access for plugin Echo to all users..."),
              std::string::npos);

    r = ambrel({"-setaccess", "1", "Stay.fxplug"});
    EXPECT_EQ(ScratchRoot::readFile(t.userFx + "/Stay.fxplug/v"), "stay");

    r = ambrel({"-remove", "Echo.fxplug"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_FALSE(exists(t.fx + "/Echo.fxplug"));
    EXPECT_TRUE(exists(t.s.homePath("/.local/share/Trash/files/Echo.fxplug/v")));
    EXPECT_TRUE(exists(t.fx + "/Pack/Wave.fxplug"));

    // Without a name every plug-in goes to the Trash.
    r = ambrel({"-remove"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_FALSE(exists(t.fx + "/Pack/Wave.fxplug"));
    EXPECT_FALSE(exists(t.userFx + "/Stay.fxplug"));
    EXPECT_TRUE(exists(t.s.homePath("/.local/share/Trash/files/Stay.fxplug/v")));
}

TEST(CommandLineVerbsTest, WithoutRightsNothingIsLost) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run the program as another user";
    passwd* nobody = ::getpwnam("nobody");
    if (!nobody || !exists("/usr/bin/setpriv")) GTEST_SKIP() << "needs the user nobody and setpriv";
    Tree t;
    ScratchRoot::writeFile(t.fx + "/Glow.fxplug/v", "glow");
    // The disabled folder is the user's; the plug-in folder is root's alone.
    ScratchRoot::makeDirs(t.mirrorOfRoot(t.fx));
    for (const auto& p : {t.s.base(), t.s.root(), t.s.home()}) ::chmod(p.c_str(), 0755);
    for (auto it = fs::recursive_directory_iterator(t.s.home()); it != fs::end(it); ++it)
        ::lchown(it->path().c_str(), nobody->pw_uid, nobody->pw_gid);
    ::lchown(t.s.home().c_str(), nobody->pw_uid, nobody->pw_gid);
    const std::string quellbrook = t.s.rootPath("/Library/Application Support/Quellbrook");
    for (auto it = fs::recursive_directory_iterator(quellbrook); it != fs::end(it); ++it)
        ::lchown(it->path().c_str(), nobody->pw_uid, nobody->pw_gid);
    ::lchown(quellbrook.c_str(), nobody->pw_uid, nobody->pw_gid);

    ChildProcess r = ChildProcess::run({"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup",
                                        "--clear-groups", ChildProcess::builtProgram("ambrel"),
                                        "-disable", "Glow.fxplug"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(ScratchRoot::readFile(t.fx + "/Glow.fxplug/v"), "glow");
    EXPECT_FALSE(exists(t.mirrorOfRoot(t.fx + "/Glow.fxplug")));
    EXPECT_NE(r.out.find("Could not disable plugin."), std::string::npos) << r.out;
    const std::string log = readAll(t.s.homePath("/Library/Logs/Quellbrook/Ambrel.task.1.log"));
    EXPECT_NE(log.find("Could not disable plugin."), std::string::npos) << log;
    // Nobody was asked, so nobody refused: the plug-in is named with the reason.
    EXPECT_EQ(log.find("User cancelled authorization."), std::string::npos);
    EXPECT_NE(r.out.find("Left " + t.fx + "/Glow.fxplug where it is - "), std::string::npos)
        << r.out;
}
