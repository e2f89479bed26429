#include "SharedFiles/KTAuthorization.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "KTHelperWorld.h"
#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/linux/KTHelperPolicy.h"
#include "SharedFiles/linux/KTPrivilegedHelper.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

bool exists(const std::string& p) {
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}

/// Privileged tools run without being waited for; wait (generously) for
/// their result to show on disk.
bool eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 600; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

std::vector<std::string> listing(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(folder, ec)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

/// The one name in `folder` matching `pattern`, or "".
std::string findName(const std::string& folder, const std::string& pattern) {
    for (const auto& n : listing(folder)) {
        if (std::regex_match(n, std::regex(pattern))) return n;
    }
    return {};
}

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

const std::string kTimestamp = "_[0-9]{14}";

// ---------------------------------------------------------------------------
// In this process, as root (the way CI runs).

class KTAuthorizationRootTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: the tools run directly only as root";
    }
    ScratchRoot scratch;
    KTAuthorization* auth = KTAuthorization::sharedController(false);
};

TEST_F(KTAuthorizationRootTest, SharedInstanceKeepsItsFirstFlag) {
    const bool first = auth->hasGUI();
    EXPECT_EQ(KTAuthorization::sharedController(!first), auth);
    EXPECT_EQ(auth->hasGUI(), first);
    EXPECT_TRUE(auth->isAuthorized());
    EXPECT_TRUE(auth->canAuthorize());
    EXPECT_TRUE(auth->authStart());  // root: nothing asked, even without an interface
}

TEST_F(KTAuthorizationRootTest, StatusesForMissingAndPresentTools) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(auth->authExecTask("/usr/bin/xcrun", {"stapler"}), -2);
    EXPECT_EQ(auth->authExecTask("/opt/none/tool", {}), -2);
    std::string console = testing::internal::GetCapturedStderr();
    EXPECT_NE(console.find("Unable to execute task: path /usr/bin/xcrun doesn't exist"),
              std::string::npos);

    std::string made = scratch.rootPath("/Library/Made");
    EXPECT_EQ(auth->authExecTask("/bin/mkdir", {"-p", made}, false), 0);
    EXPECT_TRUE(exists(made));  // not async: done when it answers
}

TEST_F(KTAuthorizationRootTest, GuardRefusesOnlyTheSystemFolderItself) {
    ScratchRoot::writeFile(scratch.rootPath("/System/Library/Foo/file"), "x");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(auth->authMoveFile("/System", scratch.rootPath("/Elsewhere")));
    EXPECT_FALSE(auth->authMoveFile(scratch.rootPath("/System"), scratch.rootPath("/Elsewhere")));
    EXPECT_FALSE(auth->authRemoveFile("/usr"));
    EXPECT_FALSE(auth->authTrashFile(scratch.home()));
    std::string console = testing::internal::GetCapturedStderr();
    EXPECT_NE(console.find("Unable to move path /System because it is a system directory."),
              std::string::npos);
    EXPECT_NE(console.find("Unable to delete path /usr because it is a system directory."),
              std::string::npos);
    EXPECT_NE(console.find("Unable to trash path " + scratch.home()), std::string::npos);
    EXPECT_TRUE(exists(scratch.rootPath("/System/Library/Foo")));

    std::string moved = scratch.rootPath("/Library/Foo");
    ScratchRoot::makeDirs(scratch.rootPath("/Library"));
    EXPECT_TRUE(auth->authMoveFile(scratch.rootPath("/System/Library/Foo"), moved));
    EXPECT_TRUE(eventually([&] { return exists(moved + "/file"); }));
}

TEST_F(KTAuthorizationRootTest, MissingSourcesAndNullPaths) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(auth->authCopyFile(scratch.rootPath("/Nothing"), scratch.rootPath("/Copy")));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // silently

    testing::internal::CaptureStderr();
    EXPECT_FALSE(auth->authMoveFile("", "/x"));
    EXPECT_FALSE(auth->authCopyFile("/x", ""));
    std::string console = testing::internal::GetCapturedStderr();
    EXPECT_NE(console.find("Error in authMoveFile: old path is null"), std::string::npos);
    EXPECT_NE(console.find("Error in authCopyFile: new path is null"), std::string::npos);
}

TEST_F(KTAuthorizationRootTest, TrashCollisionsGetATimeStamp) {
    if (!env("SUDO_USER").empty()) GTEST_SKIP() << "started through sudo: the Trash is the user's";
    const std::string trash = scratch.homePath("/.local/share/Trash/files");
    ScratchRoot::writeFile(trash + "/Foo.plugin/old", "old");
    ScratchRoot::writeFile(trash + "/Plug", "old");
    ScratchRoot::writeFile(scratch.rootPath("/Library/Foo.plugin/new"), "new");
    ScratchRoot::writeFile(scratch.rootPath("/Library/Plug"), "new");
    ScratchRoot::writeFile(scratch.rootPath("/Library/Fresh.vst"), "new");

    EXPECT_TRUE(auth->authTrashFile(scratch.rootPath("/Library/Foo.plugin")));
    EXPECT_TRUE(auth->authTrashFile(scratch.rootPath("/Library/Plug")));
    EXPECT_TRUE(auth->authTrashFile(scratch.rootPath("/Library/Fresh.vst")));
    EXPECT_TRUE(eventually([&] { return listing(trash).size() == 5; }));
    std::string foo = findName(trash, "Foo" + kTimestamp + "\\.plugin");
    ASSERT_FALSE(foo.empty());
    EXPECT_EQ(ScratchRoot::readFile(trash + "/" + foo + "/new"), "new");
    EXPECT_FALSE(findName(trash, "Plug" + kTimestamp + "\\.").empty());
    EXPECT_TRUE(exists(trash + "/Fresh.vst"));
    EXPECT_EQ(ScratchRoot::readFile(trash + "/Foo.plugin/old"), "old");
    // The desktop's Trash can list and restore it.
    std::string info =
        ScratchRoot::readFile(scratch.homePath("/.local/share/Trash/info/") + foo + ".trashinfo");
    EXPECT_NE(info.find("Path=" + scratch.rootPath("/Library/Foo.plugin")), std::string::npos);
}

TEST_F(KTAuthorizationRootTest, FolderContentsGoEntryByEntry) {
    if (!env("SUDO_USER").empty()) GTEST_SKIP() << "started through sudo: the Trash is the user's";
    const std::string from = scratch.rootPath("/Library/From");
    const std::string to = scratch.rootPath("/Library/To");
    ScratchRoot::writeFile(from + "/A.plugin", "a");
    ScratchRoot::writeFile(from + "/B.plugin/x", "b");
    ScratchRoot::makeDirs(to);
    ScratchRoot::makeDirs(scratch.rootPath("/Library/Empty"));

    EXPECT_TRUE(auth->authMoveFolderContents(from, to));
    EXPECT_TRUE(eventually([&] { return listing(to).size() == 2 && listing(from).empty(); }));
    EXPECT_TRUE(auth->authMoveFolderContents(scratch.rootPath("/Library/Empty"), to));

    EXPECT_TRUE(auth->authTrashFolderContents(to));
    const std::string trash = scratch.homePath("/.local/share/Trash/files");
    EXPECT_TRUE(eventually([&] { return listing(trash).size() == 2 && listing(to).empty(); }));
    EXPECT_FALSE(auth->authTrashFolderContents(scratch.rootPath("/System")));
}

TEST(KTHelperPolicyTest, OnlyTheFileToolsWithTheirOwnOptions) {
    auto ok = [](std::vector<std::string> f) { return !KTHelperPolicy::refusal(f).has_value(); };
    EXPECT_TRUE(ok({"/bin/mv", "-f", "/a/B.plugin", "/c/B.plugin"}));
    EXPECT_TRUE(ok({"/bin/cp", "-f", "-p", "-R", "/a", "/b"}));
    EXPECT_TRUE(ok({"/bin/rm", "-Rdf", "/a/b"}));
    EXPECT_TRUE(ok({"/bin/mkdir", "-p", "/a/b"}));
    EXPECT_TRUE(ok({"/usr/sbin/chown", "-R", "someone", "/Library/Application Support/Q"}));
    EXPECT_TRUE(ok({"/bin/chmod", "-R", "a+rw", "/Library/Application Support/Q"}));

    EXPECT_FALSE(ok({"/usr/bin/id"}));
    EXPECT_FALSE(ok({"/bin/sh", "-c", "id"}));
    EXPECT_FALSE(ok({"/bin/mv", "-f", "/a", "/b", "/c"}));           // one source only
    EXPECT_FALSE(ok({"/bin/mv", "--target-directory=/etc", "/a"}));  // foreign option
    EXPECT_FALSE(ok({"/bin/cp", "-f", "relative", "/b"}));           // operands absolute
    EXPECT_FALSE(ok({"/bin/cp", "-f", "/a", "-t"}));                 // no option in disguise
    EXPECT_FALSE(ok({"/bin/rm", "-Rdf", "/"}));
    EXPECT_FALSE(ok({"/bin/rm", "-Rdf", "/usr"}));
    EXPECT_FALSE(ok({"/bin/mv", "-f", "/bin", "/x"}));
    EXPECT_FALSE(ok({"/usr/sbin/chown", "-R", "--reference=/x", "/a"}));
    EXPECT_FALSE(ok({"/usr/sbin/chown", "-R", "root", "/etc"}));
    EXPECT_FALSE(ok({"/bin/chmod", "-R", "u+s;x", "/a"}));
    EXPECT_FALSE(ok({"/bin/mkdir", "-p", std::string("/a\0b", 4)}));
}

TEST_F(KTAuthorizationRootTest, OneHelperServesManyRequestsAndRefusesTheRest) {
    // The helper's refusals go to the standard error it was started with.
    testing::internal::CaptureStderr();
    auto helper = KTPrivilegedHelper::start({KTPrivilegedHelper::helperPath()});
    if (!helper) testing::internal::GetCapturedStderr();
    ASSERT_TRUE(helper) << "helper at " << KTPrivilegedHelper::helperPath();
    const std::string vst = scratch.rootPath("/Library/Audio/Plug-Ins/VST");
    const std::string a = vst + "/A.vst", b = vst + "/B.vst";
    ScratchRoot::writeFile(a, "a");

    EXPECT_EQ(helper->run("/usr/bin/id", {}, true), KTAuthorization::kStatusRefused);
    EXPECT_EQ(helper->run("/bin/mv", {"-f", "A.vst", b}, true), KTAuthorization::kStatusRefused);
    EXPECT_EQ(helper->run("/bin/mv", {"-f", "-T", a, b}, true), 0);
    EXPECT_EQ(helper->run("/bin/mkdir", {"-p", vst + "/C/D"}, false), 0);
    // Outside the plug-in places, even for a root client.
    EXPECT_EQ(helper->run("/bin/mkdir", {"-p", scratch.rootPath("/C/D")}, false),
              KTAuthorization::kStatusRefused);
    EXPECT_EQ(helper->run("/bin/mv", {"-f", "-T", a, b}, true), KTAuthorization::kStatusFailed);
    std::string console = testing::internal::GetCapturedStderr();
    EXPECT_NE(console.find("refused: tool /usr/bin/id is not allowed"), std::string::npos);
    EXPECT_TRUE(exists(b) && !exists(a));
    EXPECT_TRUE(exists(vst + "/C/D"));
    EXPECT_FALSE(exists(scratch.rootPath("/C")));
    EXPECT_TRUE(helper->isAlive());
}

// ---------------------------------------------------------------------------
// In a fresh copy of this program, as another user or with another
// environment: what the shared instance records at creation differs there.

std::string selfPath() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

class KTAuthorizationUserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (auto why = KTHelperWorld::missing()) GTEST_SKIP() << *why;
        world = std::make_unique<KTHelperWorld>();
        const ScratchRoot& scratch = world->scratch;
        // A machine-wide kind folder, root's; the user's own plug-in and Trash.
        locked = scratch.rootPath("/Library/Plug-Ins/FxPlug");
        ScratchRoot::makeDirs(locked);
        ScratchRoot::writeFile(locked + "/Old.plugin", "old");
        ScratchRoot::writeFile(scratch.homePath("/Library/Plug-Ins/FxPlug/Glow.plugin/Contents/x"),
                               "glow");
        ScratchRoot::writeFile(scratch.homePath("/.local/share/Trash/files/Old.plugin"), "older");
        world->giveToNobody(scratch.home());
        world->environment["AMBREL_TEST_LOCKED"] = locked;
    }
    std::unique_ptr<KTHelperWorld> world;
    std::string locked;
};

TEST_F(KTAuthorizationUserTest, MovesIntoRootFoldersThroughTheHelper) {
    bool passed = false;
    std::string out = world->run("KTAuthorizationChild", "Elevated", &passed);
    EXPECT_TRUE(passed) << out;
}

TEST_F(KTAuthorizationUserTest, WithoutElevationNothingIsLost) {
    // An elevation that never lets the helper start.
    bool passed = false;
    std::string out = world->run("KTAuthorizationChild", "NoElevation", &passed,
                                 {{"AMBREL_ELEVATE", "/bin/false"}});
    EXPECT_TRUE(passed) << out;
    const std::string glow = world->scratch.homePath("/Library/Plug-Ins/FxPlug/Glow.plugin");
    EXPECT_EQ(ScratchRoot::readFile(glow + "/Contents/x"), "glow");
    EXPECT_FALSE(exists(locked + "/Glow.plugin"));
}

TEST(KTAuthorizationSudoTest, UnderSudoTheTrashIsTheStartingUsers) {
    if (geteuid() != 0 || !getpwnam("nobody")) GTEST_SKIP() << "needs root and the user nobody";
    ScratchRoot scratch;
    const std::string locked = scratch.rootPath("/Library/Plug-Ins/FxPlug");
    ScratchRoot::writeFile(locked + "/Old.plugin", "old");
    ScratchRoot::writeFile(scratch.homePath("/.local/share/Trash/files/Old.plugin"), "older");
    std::map<std::string, std::string> environment = {{"HOME", scratch.home()},
                                                      {"AMBREL_ROOT", scratch.root()},
                                                      {"AMBREL_TEST_LOCKED", locked},
                                                      {"SUDO_USER", "nobody"},
                                                      {"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}};
    for (const char* keep : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (!env(keep).empty()) environment[keep] = env(keep);
    }
    std::string out =
        KTTaskEx::dataFromTask(selfPath(),
                               {"--gtest_also_run_disabled_tests",
                                "--gtest_filter=KTAuthorizationChild.DISABLED_UnderSudo"},
                               nullptr, environment)
            .value_or("(no output)");
    EXPECT_NE(out.find("[  PASSED  ] 1 test"), std::string::npos) << out;
}

// The scenarios themselves; they run only when a test above starts them.

TEST(KTAuthorizationChild, DISABLED_Elevated) {
    const std::string home = env("HOME"), locked = env("AMBREL_TEST_LOCKED");
    const std::string plugins = home + "/Library/Plug-Ins/FxPlug";
    const std::string trash = home + "/.local/share/Trash/files";
    ASSERT_NE(getuid(), 0u);
    KTAuthorization* auth = KTAuthorization::sharedController(false);

    // The command line never prompts.
    testing::internal::CaptureStderr();
    EXPECT_FALSE(auth->authStart());
    EXPECT_EQ(auth->authExecTask("/bin/mkdir", {"-p", locked + "/Never"}), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Unable to authorize"),
              std::string::npos);
    EXPECT_FALSE(auth->isAuthorized());

    // The plain call fails: the folder is root's.
    const std::string src = plugins + "/Glow.plugin", dst = locked + "/Glow.plugin";
    EXPECT_NE(rename(src.c_str(), dst.c_str()), 0);

    auth->setHasGUI(true);
    EXPECT_TRUE(auth->authMoveFile(src, dst));
    auto helper = auth->authRef();
    ASSERT_TRUE(helper);
    EXPECT_TRUE(eventually([&] { return exists(dst + "/Contents/x") && !exists(src); }));
    EXPECT_TRUE(auth->authCreateDir(locked + "/Sub/Deeper"));
    // Launched, not waited for: the caller's pause covers this.
    EXPECT_TRUE(eventually([&] { return exists(locked + "/Sub/Deeper"); }));
    EXPECT_EQ(
        auth->authExecTask("/bin/cp", {"-f", "-p", "-R", "-T", dst, locked + "/Sub/Copy"}, false),
        0);
    EXPECT_TRUE(exists(locked + "/Sub/Copy/Contents/x"));
    EXPECT_TRUE(auth->authTrashFile(locked + "/Old.plugin"));
    EXPECT_TRUE(
        eventually([&] { return !findName(trash, "Old" + kTimestamp + "\\.plugin").empty(); }));
    EXPECT_EQ(auth->authRef(), helper);  // one elevation for all of them

    EXPECT_EQ(auth->authExecTask("/bin/mv", {"-f", "/etc/passwd", "/tmp/x", "/y"}),
              KTAuthorization::kStatusRefused);
    EXPECT_EQ(helper->run("/usr/bin/id", {}, true), KTAuthorization::kStatusRefused);
    EXPECT_TRUE(helper->isAlive());  // a refusal does not end the right
    EXPECT_EQ(auth->authExecTask("/usr/bin/xcrun", {}), -2);

    auth->authEnd();
    EXPECT_FALSE(auth->isAuthorized());

    // The same helper through "sudo -S", for the invoking user only.
    testing::internal::CaptureStderr();
    EXPECT_FALSE(auth->authStartWithUser("root", "secret"));
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Authorization failed. Invalid username or password"),
              std::string::npos);
    EXPECT_FALSE(auth->authStartWithUser("nobody", ""));
    EXPECT_TRUE(auth->authStartWithUser("nobody", "secret"));
    EXPECT_TRUE(auth->authRemoveFile(locked + "/Sub/Copy"));
    EXPECT_TRUE(eventually([&] { return !exists(locked + "/Sub/Copy"); }));
}

TEST(KTAuthorizationChild, DISABLED_NoElevation) {
    const std::string home = env("HOME"), locked = env("AMBREL_TEST_LOCKED");
    const std::string glow = home + "/Library/Plug-Ins/FxPlug/Glow.plugin";
    ASSERT_NE(getuid(), 0u);
    KTAuthorization* auth = KTAuthorization::sharedController(true);
    EXPECT_FALSE(auth->authMoveFile(glow, locked + "/Glow.plugin"));
    EXPECT_FALSE(auth->isAuthorized());
    EXPECT_EQ(auth->authExecTask("/bin/mkdir", {"-p", locked + "/Never"}), -1);
    EXPECT_TRUE(exists(glow + "/Contents/x"));
}

TEST(KTAuthorizationChild, DISABLED_UnderSudo) {
    const std::string home = env("HOME"), locked = env("AMBREL_TEST_LOCKED");
    ASSERT_EQ(getuid(), 0u);
    KTAuthorization* auth = KTAuthorization::sharedController(false);
    EXPECT_EQ(auth->userDirectory(), home);
    EXPECT_TRUE(auth->authTrashFile(locked + "/Old.plugin"));
    const std::string trash = home + "/.local/share/Trash/files";
    std::string name = findName(trash, "Old" + kTimestamp + "\\.plugin");
    ASSERT_FALSE(name.empty());
    struct stat st;
    ASSERT_EQ(lstat((trash + "/" + name).c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, getpwnam("nobody")->pw_uid);  // given back to the user
    EXPECT_TRUE(exists(home + "/.local/share/Trash/info/" + name + ".trashinfo"));
}

}  // namespace
