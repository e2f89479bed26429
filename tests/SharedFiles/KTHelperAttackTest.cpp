// The privileged helper tried as a hostile local user would: every request
// below comes from "nobody" holding a real helper started through sudo, and
// each must be refused and leave the system as it was. Sensitive targets
// are scratch stand-ins (a root-only folder for /etc, a root-only key file
// for /root/.ssh/authorized_keys, a folder of another user for their home).

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "KTHelperWorld.h"
#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTTaskEx.h"
#include "SharedFiles/KTTransfer.h"
#include "SharedFiles/linux/KTPrivilegedHelper.h"
#include "SharedFiles/linux/KTTaskProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int32_t kRefused = KTAuthorization::kStatusRefused;
constexpr std::int32_t kFailed = KTAuthorization::kStatusFailed;

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

bool exists(const std::string& p) {
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}

bool eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 200; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

/// The layout both sides agree on, from the scratch base, root and home.
struct Layout {
    std::string base, root, home;
    std::string vst, vst3, tallowby, disabled, userVst, trash;
    std::string secret, shadow, sudoersD, keys, otherHome;

    Layout(std::string b, std::string r, std::string h)
        : base(std::move(b)), root(std::move(r)), home(std::move(h)) {
        vst = root + "/Library/Audio/Plug-Ins/VST";
        vst3 = root + "/Library/Audio/Plug-Ins/VST3";
        tallowby = root + "/Library/Application Support/Quellbrook/Tallowby";
        disabled = tallowby + "/Ambrel Disabled Plugins";
        userVst = home + "/Library/Audio/Plug-Ins/VST";
        trash = home + "/.local/share/Trash/files";
        secret = base + "/etc";
        shadow = secret + "/shadow";
        sudoersD = secret + "/sudoers.d";
        keys = base + "/rootdir/.ssh/authorized_keys";
        otherHome = base + "/otherhome";
    }
    static Layout fromEnvironment() {
        return Layout(env("AMBREL_TEST_BASE"), env("AMBREL_ROOT"), env("HOME"));
    }
};

/// Every entry beneath the stand-ins with its owner, mode and content.
std::map<std::string, std::string> snapshot(const Layout& l) {
    std::map<std::string, std::string> out;
    for (const auto& top : {l.secret, l.base + "/rootdir", l.otherHome}) {
        auto note = [&](const fs::path& p) {
            struct stat st;
            if (lstat(p.c_str(), &st) != 0) return;
            std::string v = std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid) + ":" +
                            std::to_string(st.st_mode);
            if (S_ISREG(st.st_mode)) v += ":" + ScratchRoot::readFile(p.string());
            out[p.string()] = v;
        };
        note(top);
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(top, ec); !ec && it != fs::end(it);
             it.increment(ec))
            note(it->path());
    }
    return out;
}

class KTHelperAttackTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (auto why = KTHelperWorld::missing()) GTEST_SKIP() << *why;
        world = std::make_unique<KTHelperWorld>();
        layout = std::make_unique<Layout>(world->scratch.base(), world->scratch.root(),
                                          world->scratch.home());
        const Layout& l = *layout;
        // The machine's plug-in folders are root's.
        ScratchRoot::writeFile(l.vst + "/Old.vst", "old");
        ScratchRoot::makeDirs(l.vst3);
        ScratchRoot::makeDirs(l.tallowby);
        // The user's own plug-ins.
        ScratchRoot::writeFile(l.userVst + "/Mine.vst", "mine");
        ScratchRoot::writeFile(l.userVst + "/Glow.vst", "glow");
        ScratchRoot::writeFile(l.userVst + "/New.vst", "new");
        ScratchRoot::writeFile(l.userVst + "/Deep.vst/Contents/MacOS/Deep", "deep");
        ScratchRoot::writeFile(l.userVst + "/Deep.vst/Contents/Info.plist", "plist");
        ScratchRoot::writeFile(l.userVst + "/Half.vst/a", "a");
        ScratchRoot::writeFile(l.userVst + "/Half.vst/z", "z");
        ScratchRoot::makeDirs(l.trash);
        world->giveToNobody(l.home);
        // One file of the plug-in the user cannot read: a copy cannot be whole.
        lchown((l.userVst + "/Half.vst/z").c_str(), 0, 0);
        chmod((l.userVst + "/Half.vst/z").c_str(), 0600);
        // The stand-ins.
        ScratchRoot::writeFile(l.shadow, "SECRET");
        ScratchRoot::makeDirs(l.sudoersD);
        ScratchRoot::writeFile(l.keys, "KEYS");
        ScratchRoot::writeFile(l.otherHome + "/Library/Audio/Plug-Ins/VST/Theirs.vst", "theirs");
        chmod(l.secret.c_str(), 0755);
        chmod(l.shadow.c_str(), 0600);
        chmod((l.base + "/rootdir").c_str(), 0700);
        chmod(l.keys.c_str(), 0600);
        for (auto it = fs::recursive_directory_iterator(l.otherHome); it != fs::end(it); ++it)
            lchown(it->path().c_str(), 1, 1);
        lchown(l.otherHome.c_str(), 1, 1);
        before = snapshot(l);
    }

    void expectUntouched() {
        EXPECT_EQ(snapshot(*layout), before);
        EXPECT_FALSE(exists(layout->vst + "/shadow"));
        EXPECT_FALSE(exists(layout->sudoersD + "/Mine"));
    }

    std::unique_ptr<KTHelperWorld> world;
    std::unique_ptr<Layout> layout;
    std::map<std::string, std::string> before;
};

TEST_F(KTHelperAttackTest, RequestsBeyondThePluginOperationsAreRefused) {
    bool passed = false;
    std::string out = world->run("KTHelperAttackChild", "Requests", &passed);
    EXPECT_TRUE(passed) << out;
    expectUntouched();
    // What the helper did serve went where it was asked.
    EXPECT_EQ(ScratchRoot::readFile(layout->vst + "/Mine.vst"), "mine");
}

TEST_F(KTHelperAttackTest, LinksInPluginFoldersLeadNowhere) {
    // After the permission repair the program's folder is the user's.
    ScratchRoot::makeDirs(layout->disabled);
    world->giveToNobody(layout->tallowby);
    bool passed = false;
    std::string out = world->run("KTHelperAttackChild", "Links", &passed);
    EXPECT_TRUE(passed) << out;
    expectUntouched();
}

TEST_F(KTHelperAttackTest, ALinkSwappedInMidRequestIsNeverFollowed) {
    ScratchRoot::makeDirs(layout->disabled + "/Race/Inner");
    world->giveToNobody(layout->tallowby);
    bool passed = false;
    std::string out = world->run("KTHelperAttackChild", "Race", &passed);
    EXPECT_TRUE(passed) << out;
    expectUntouched();
}

TEST_F(KTHelperAttackTest, OnlyTheProgramThatStartedTheHelperIsServed) {
    bool passed = false;
    std::string out = world->run("KTHelperAttackChild", "SecondClient", &passed);
    EXPECT_TRUE(passed) << out;
}

TEST_F(KTHelperAttackTest, AnotherProcessOfTheUserCannotTakeTheChannel) {
    const std::string pidFile = layout->home + "/victim.pid", done = layout->home + "/done";
    KTTaskHandle victim = world->start("KTHelperAttackChild", "HoldChannel");
    ASSERT_TRUE(eventually([&] { return exists(pidFile) || !victim->isRunning(); }));
    ASSERT_TRUE(exists(pidFile)) << "the victim never held a helper";
    bool passed = false;
    std::string out = world->run("KTHelperAttackChild", "TakeChannel", &passed);
    EXPECT_TRUE(passed) << out;
    ScratchRoot::writeFile(done, "");
    victim->waitUntilExit();
    EXPECT_EQ(victim->terminationStatus(), 0);
}

TEST_F(KTHelperAttackTest, EveryOperationOfTheProgramStillWorks) {
    bool passed = false;
    // The machine's VST3 folder on a file system of its own: moves across.
    std::string out = world->run("KTHelperAttackChild", "Operations", &passed, {}, layout->vst3);
    EXPECT_TRUE(passed) << out;
    expectUntouched();
}

// ---------------------------------------------------------------------------
// The scenarios, run as nobody by the tests above.

/// Starts the helper the way the program does and answers it.
std::shared_ptr<KTPrivilegedHelper> elevate() {
    KTAuthorization* auth = KTAuthorization::sharedController(true);
    if (!auth->authStart()) return nullptr;
    return auth->authRef();
}

std::int32_t ask(KTPrivilegedHelper& helper, std::vector<std::string> fields) {
    const std::string tool = fields.front();
    fields.erase(fields.begin());
    return helper.run(tool, fields, true);
}

TEST(KTHelperAttackChild, DISABLED_Requests) {
    const Layout l = Layout::fromEnvironment();
    ASSERT_NE(getuid(), 0u);
    auto helper = elevate();
    ASSERT_TRUE(helper);
    auto& h = *helper;

    // Reading what the user cannot read: the copy reads as the user.
    EXPECT_EQ(ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", l.shadow, l.vst + "/shadow"}), kFailed);
    EXPECT_EQ(ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", "/etc/shadow", l.vst + "/shadow"}),
              kFailed);
    EXPECT_EQ(ask(h, {"/bin/cp", "-f", "-p", "-R", "/proc/1/environ", l.vst + "/env"}), kRefused);
    EXPECT_FALSE(exists(l.vst + "/shadow"));
    // A copy that cannot be whole leaves nothing behind.
    EXPECT_EQ(
        ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", l.userVst + "/Half.vst", l.vst + "/Half.vst"}),
        kFailed);
    for (const auto& e : fs::directory_iterator(l.vst))
        EXPECT_EQ(e.path().filename().string().find("Half"), std::string::npos);
    for (const auto& e : fs::directory_iterator(l.vst))
        EXPECT_EQ(e.path().filename().string().rfind(".ambrel-work.", 0), std::string::npos);
    // Modes: only the repair's, only on the program's folder.
    EXPECT_EQ(ask(h, {"/bin/chmod", "-R", "a+rw", l.vst}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/chmod", "-R", "a+rw", l.secret}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/chmod", "4755", l.tallowby}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/chmod", "-R", "u+s", l.tallowby}), kRefused);
    // Owners: only the requesting user, only on the program's folder.
    EXPECT_EQ(ask(h, {"/usr/sbin/chown", "-R", "root", l.tallowby}), kRefused);
    EXPECT_EQ(ask(h, {"/usr/sbin/chown", "-R", "0", l.tallowby}), kRefused);
    EXPECT_EQ(ask(h, {"/usr/sbin/chown", "-R", "nobody:root", l.tallowby}), kRefused);
    EXPECT_EQ(ask(h, {"/usr/sbin/chown", "-R", "nobody", l.secret}), kRefused);
    EXPECT_EQ(ask(h, {"/usr/sbin/chown", "-R", "--reference=/etc", l.tallowby}), kRefused);
    // Into the system's folders, onto the superuser's keys.
    EXPECT_EQ(ask(h, {"/bin/mv", "-f", "-T", l.userVst + "/Mine.vst", l.sudoersD + "/Mine"}),
              kRefused);
    EXPECT_EQ(ask(h, {"/bin/mv", "-f", l.userVst + "/Mine.vst", l.sudoersD}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", l.userVst + "/Mine.vst", l.keys}),
              kRefused);
    EXPECT_EQ(ask(h, {"/bin/mv", "-f", "-T", l.userVst + "/Mine.vst", l.keys}), kRefused);
    // Removing someone else's home, or a plug-in folder itself.
    EXPECT_EQ(ask(h, {"/bin/rm", "-Rdf", l.otherHome}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/rm", "-Rdf", l.vst}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/rm", "-Rdf", l.home}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/rm", "-Rdf", l.vst + "/../../../../../../etc"}), kRefused);
    // The system folders however spelled (mkdir of a folder that exists
    // would change nothing even if it were let through).
    EXPECT_EQ(ask(h, {"/bin/mkdir", "-p", l.vst + "/Fine", l.secret + "/Not"}), kRefused);
    EXPECT_FALSE(exists(l.vst + "/Fine"));  // all or nothing
    for (const char* spelled : {"/etc/", "//etc", "/./etc", "/usr/../etc", "/root/", "/bin/",
                                "/home", "/opt", "/srv", "/tmp", "/", "///"})
        EXPECT_EQ(ask(h, {"/bin/mkdir", "-p", spelled}), kRefused) << spelled;
    // Tools and shapes the program never sends.
    EXPECT_EQ(ask(h, {"/bin/sh", "-c", "id"}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/mv", "-f", "--target-directory=/etc", l.userVst + "/Mine.vst"}),
              kRefused);

    // A set-user-id file of the user's keeps no such bit once copied by root.
    const std::string suid = l.userVst + "/Suid.vst";
    ScratchRoot::writeFile(suid, "#!/bin/sh\n");
    ASSERT_EQ(chmod(suid.c_str(), 04755), 0);
    EXPECT_EQ(ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", suid, l.vst + "/Suid.vst"}), 0);
    struct stat st;
    ASSERT_EQ(lstat((l.vst + "/Suid.vst").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    EXPECT_EQ(st.st_uid, getuid());

    // A system root of the client's choosing serves no one else's folders.
    setenv("AMBREL_ROOT", l.otherHome.c_str(), 1);
    std::vector<std::string> command = KTPrivilegedHelper::elevationCommand();
    command.push_back(KTPrivilegedHelper::helperPath());
    auto foreign = KTPrivilegedHelper::start(command);
    ASSERT_TRUE(foreign);
    EXPECT_EQ(ask(*foreign,
                  {"/bin/mv", "-f", "-T", l.otherHome + "/Library/Audio/Plug-Ins/VST/Theirs.vst",
                   l.trash + "/Theirs.vst"}),
              kRefused);
    setenv("AMBREL_ROOT", "/etc", 1);
    auto system = KTPrivilegedHelper::start(command);
    ASSERT_TRUE(system);
    EXPECT_EQ(ask(*system, {"/bin/mkdir", "-p", "/etc/Library/Audio/Plug-Ins/VST"}), kRefused);
    setenv("AMBREL_ROOT", l.root.c_str(), 1);

    // And the helper still serves what the program asks.
    EXPECT_TRUE(h.isAlive());
    EXPECT_EQ(ask(h, {"/bin/mv", "-f", "-T", l.userVst + "/Mine.vst", l.vst + "/Mine.vst"}), 0);
}

TEST(KTHelperAttackChild, DISABLED_Links) {
    const Layout l = Layout::fromEnvironment();
    auto helper = elevate();
    ASSERT_TRUE(helper);
    auto& h = *helper;
    // Planted by the user in the folder everyone may write to.
    const std::string fxplug = l.disabled + "/Library/Plug-Ins/FxPlug";
    ScratchRoot::makeDirs(l.disabled + "/Library/Plug-Ins");
    ASSERT_EQ(symlink(l.secret.c_str(), fxplug.c_str()), 0);
    ASSERT_EQ(symlink(l.shadow.c_str(), (l.disabled + "/Shadow.plugin").c_str()), 0);
    ASSERT_EQ(symlink(l.secret.c_str(), (l.tallowby + "/etc").c_str()), 0);
    const std::string mine = l.userVst + "/Mine.vst";

    // The repair walks the folder and passes the links by.
    EXPECT_EQ(ask(h, {"/usr/sbin/chown", "-R", "nobody", l.tallowby}), 0);
    EXPECT_EQ(ask(h, {"/bin/chmod", "-R", "a+rw", l.tallowby}), 0);
    EXPECT_EQ(ask(h, {"/bin/chmod", "-R", "a+rw", l.tallowby + "/etc"}), kRefused);
    EXPECT_EQ(ask(h, {"/usr/sbin/chown", "nobody", l.disabled + "/Shadow.plugin"}), kRefused);
    // Through a folder link: refused whatever the step.
    EXPECT_EQ(ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", mine, fxplug + "/x"}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/mv", "-f", "-T", mine, fxplug + "/x"}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/mkdir", "-p", fxplug + "/sub"}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/rm", "-Rdf", fxplug + "/shadow"}), kRefused);
    EXPECT_EQ(ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", fxplug + "/shadow", l.vst + "/x"}),
              kRefused);
    // On a link itself: the link goes, never what it names.
    EXPECT_EQ(ask(h, {"/bin/rm", "-Rdf", fxplug + "/"}), 0);
    EXPECT_FALSE(exists(fxplug));
    // A link at the destination is something there: never replaced, never
    // written through, and without -T not a folder to move into either.
    const std::string secretBefore = ScratchRoot::readFile(l.secret);
    EXPECT_EQ(ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", mine, l.disabled + "/Shadow.plugin"}),
              kFailed);
    ASSERT_EQ(symlink(l.secret.c_str(), (l.disabled + "/Into").c_str()), 0);
    EXPECT_EQ(ask(h, {"/bin/mv", "-f", mine, l.disabled + "/Into"}), kFailed);
    struct stat st {};
    ASSERT_EQ(lstat((l.disabled + "/Into").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(ScratchRoot::readFile(l.secret), secretBefore);
    EXPECT_EQ(ScratchRoot::readFile(mine), "mine");
}

TEST(KTHelperAttackChild, DISABLED_Race) {
    const Layout l = Layout::fromEnvironment();
    // Hundreds of refusals: more than the pipe the test reads stderr from holds.
    const int savedStderr = dup(STDERR_FILENO);
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(devNull, STDERR_FILENO);
    close(devNull);
    auto helper = elevate();
    dup2(savedStderr, STDERR_FILENO);
    close(savedStderr);
    ASSERT_TRUE(helper);
    auto& h = *helper;
    const std::string race = l.disabled + "/Race", aside = l.disabled + "/Race.real";
    const std::string mine = l.userVst + "/Mine.vst";
    ScratchRoot::writeFile(race + "/Inner/file", "x");

    // Flips the folder for a link to the root-only folder, again and again.
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        while (!stop) {
            if (rename(race.c_str(), aside.c_str()) == 0) {
                symlink(l.secret.c_str(), race.c_str());
                std::this_thread::yield();
                unlink(race.c_str());
                rename(aside.c_str(), race.c_str());
            }
        }
    });
    for (int i = 0; i < 100; ++i) {
        const std::string n = std::to_string(i);
        ask(h, {"/bin/cp", "-f", "-p", "-R", "-T", mine, race + "/copy" + n});
        ask(h, {"/bin/mkdir", "-p", race + "/Inner/d" + n});
        ask(h, {"/bin/chmod", "-R", "a+rw", l.tallowby});
        ask(h, {"/usr/sbin/chown", "-R", "nobody", l.tallowby});
        ask(h, {"/bin/mv", "-f", "-T", race + "/copy" + n, race + "/Inner/moved" + n});
        ask(h, {"/bin/rm", "-Rdf", race + "/Inner/moved" + n});
    }
    stop = true;
    swapper.join();
    EXPECT_TRUE(h.isAlive());
}

/// Starts the helper through the elevation tool with `fd` as its standard
/// input and output; answers what the helper wrote on `readFd`.
std::string helperSays(int fd, int readFd) {
    KTTaskProcess sudo("/usr/bin/sudo", "/usr/bin/sudo", {"-n", KTPrivilegedHelper::helperPath()});
    if (sudo.launch(fd, fd, KTTaskProcess::kNullDevice) != 0) return "(not started)";
    close(fd);
    std::string said;
    char buf[64];
    ssize_t n;
    while ((n = read(readFd, buf, sizeof buf)) > 0) said.append(buf, static_cast<size_t>(n));
    sudo.waitUntilExit();
    return said;
}

TEST(KTHelperAttackChild, DISABLED_SecondClient) {
    // The program's own socket: served.
    int mine[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, mine), 0);
    shutdown(mine[0], SHUT_WR);  // end of requests at once
    EXPECT_EQ(helperSays(mine[1], mine[0]), "ready\n");
    close(mine[0]);

    // A socket another process made and handed over: its maker did not
    // start the helper, so the helper will not serve it.
    int carrier[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, carrier), 0);
    pid_t maker = fork();
    if (maker == 0) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) _exit(1);
        char byte = 0;
        iovec iov{&byte, 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof pair)];
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof pair);
        std::memcpy(CMSG_DATA(c), pair, sizeof pair);
        _exit(sendmsg(carrier[1], &msg, 0) == 1 ? 0 : 1);
    }
    ASSERT_GT(maker, 0);
    char byte;
    iovec iov{&byte, 1};
    int pair[2] = {-1, -1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof pair)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ASSERT_EQ(recvmsg(carrier[0], &msg, MSG_CMSG_CLOEXEC), 1);
    std::memcpy(pair, CMSG_DATA(CMSG_FIRSTHDR(&msg)), sizeof pair);
    waitpid(maker, nullptr, 0);
    shutdown(pair[0], SHUT_WR);
    EXPECT_EQ(helperSays(pair[1], pair[0]), "");
    close(pair[0]);

    // Standard input and output that are no socket at all.
    const std::string said =
        KTTaskEx::dataFromTask("/usr/bin/sudo", {"-n", KTPrivilegedHelper::helperPath()})
            .value_or("");
    EXPECT_EQ(said.find("ready"), std::string::npos);
    EXPECT_NE(said.find("refused: standard input and output are not the program's socket"),
              std::string::npos);
}

TEST(KTHelperAttackChild, DISABLED_HoldChannel) {
    const Layout l = Layout::fromEnvironment();
    auto helper = elevate();
    ASSERT_TRUE(helper);
    // A child of the program holds no socket: the channel stayed behind.
    std::string fds =
        KTTaskEx::dataFromTask("/bin/sh", {"-c", "ls -l /proc/self/fd/"}).value_or("(no output)");
    EXPECT_EQ(fds.find("socket:"), std::string::npos) << fds;
    ScratchRoot::writeFile(l.home + "/victim.pid", std::to_string(getpid()));
    for (int i = 0; i < 1200 && !exists(l.home + "/done"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(helper->isAlive());
}

TEST(KTHelperAttackChild, DISABLED_TakeChannel) {
    const Layout l = Layout::fromEnvironment();
    const pid_t victim = std::stoi(ScratchRoot::readFile(l.home + "/victim.pid"));
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, victim, 0));
    ASSERT_GE(pidfd, 0) << "the victim is gone: " << std::strerror(errno);
    int taken = 0;
    for (int fd = 0; fd < 256; ++fd) {
        int got = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, fd, 0));
        const int err = errno;
        if (got >= 0) {
            ++taken;
            close(got);
        } else if (err != EPERM) {
            // Refused for want of rights, not for want of a descriptor.
            ADD_FAILURE() << "descriptor " << fd << ": " << std::strerror(err);
        }
    }
    EXPECT_EQ(taken, 0);
    EXPECT_EQ(opendir(("/proc/" + std::to_string(victim) + "/fd").c_str()), nullptr);
    close(pidfd);
}

TEST(KTHelperAttackChild, DISABLED_Operations) {
    const Layout l = Layout::fromEnvironment();
    KTAuthorization* auth = KTAuthorization::sharedController(true);
    // Into a root folder on the same file system, and across to another.
    EXPECT_TRUE(auth->authMoveFile(l.userVst + "/Glow.vst", l.vst + "/Glow.vst"));
    EXPECT_EQ(ScratchRoot::readFile(l.vst + "/Glow.vst"), "glow");
    EXPECT_TRUE(auth->authMoveFile(l.userVst + "/Deep.vst", l.vst3 + "/Deep.vst"));
    EXPECT_EQ(ScratchRoot::readFile(l.vst3 + "/Deep.vst/Contents/MacOS/Deep"), "deep");
    EXPECT_FALSE(exists(l.userVst + "/Deep.vst"));
    for (const auto& e : fs::directory_iterator(l.vst3))
        EXPECT_EQ(e.path().filename().string().rfind(".ambrel-work.", 0), std::string::npos);

    // The permission repair.
    EXPECT_TRUE(auth->authCreateDir(l.disabled));
    auth->authExecTask("/usr/sbin/chown", {"-R", "nobody", l.tallowby}, false);
    auth->authExecTask("/bin/chmod", {"-R", "a+rw", l.tallowby}, false);
    EXPECT_EQ(access(l.disabled.c_str(), R_OK | W_OK), 0);
    struct stat st;
    ASSERT_EQ(stat(l.tallowby.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, getuid());

    // The Trash fall-back, in the home and on the other file system.
    EXPECT_TRUE(auth->authTrashFile(l.vst + "/Old.vst"));
    EXPECT_EQ(ScratchRoot::readFile(l.trash + "/Old.vst"), "old");
    const std::string mountTrash = l.vst3 + "/.Trash-" + std::to_string(getuid()) + "/files";
    EXPECT_TRUE(auth->authCreateDir(mountTrash));
    ASSERT_EQ(stat(mountTrash.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, getuid());  // the user's Trash stays the user's
    EXPECT_TRUE(auth->authMoveFile(l.vst3 + "/Deep.vst", mountTrash + "/Deep.vst"));
    EXPECT_TRUE(exists(mountTrash + "/Deep.vst/Contents/Info.plist"));

    // A privileged install, through the transfer's own names.
    std::string error;
    EXPECT_EQ(KTTransfer::shared().authCopyItem(l.userVst + "/New.vst", l.vst + "/New.vst", &error),
              KTTransfer::Outcome::Done)
        << error;
    EXPECT_EQ(ScratchRoot::readFile(l.vst + "/New.vst"), "new");
    const std::string work = l.vst + "/.ambrel-work.1.1.copy";
    EXPECT_EQ(
        auth->authExecTask("/bin/cp", {"-f", "-p", "-R", "-T", l.vst + "/New.vst", work}, false),
        0);
    EXPECT_EQ(auth->authExecTask("/bin/rm", {"-Rdf", work}, false), 0);
    EXPECT_FALSE(exists(work));
    // The clean-up of an emptied folder.
    EXPECT_TRUE(auth->authCreateDir(l.vst + "/Group/Empty"));
    EXPECT_EQ(auth->authExecTask("/bin/rm", {"-d", l.vst + "/Group/Empty"}, false), 0);
    EXPECT_FALSE(exists(l.vst + "/Group/Empty"));
    EXPECT_EQ(auth->authExecTask("/bin/rmdir", {l.vst + "/Glow.vst"}, false), kFailed);
    EXPECT_EQ(auth->authExecTask("/bin/rmdir", {l.vst + "/Group"}, false), 0);
    EXPECT_FALSE(exists(l.vst + "/Group"));
    EXPECT_TRUE(exists(l.vst + "/Glow.vst"));
    EXPECT_TRUE(auth->authRemoveFile(l.vst + "/New.vst"));
    EXPECT_FALSE(exists(l.vst + "/New.vst"));
}

}  // namespace
