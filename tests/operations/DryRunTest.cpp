// "-dryrun" after each verb that changes plug-ins, run as the built program
// inside a scratch root: the dry run leaves every byte as it was and prints
// exactly the moves the real run then makes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pwd.h>

#include <filesystem>
#include <map>
#include <set>

#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

const char* const kDisabled =
    "/Library/Application Support/Quellbrook/Tallowby/Ambrel Disabled Plugins";

/// Runs as another user when set (a command prefix such as setpriv's).
std::vector<std::string> gRunAs;

ChildProcess ambrel(const std::vector<std::string>& args) {
    std::vector<std::string> argv = gRunAs;
    argv.push_back(ChildProcess::builtProgram("ambrel"));
    argv.insert(argv.end(), args.begin(), args.end());
    return ChildProcess::run(argv);
}

int flagsOf(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return 0;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) flags = 0;
    ::close(fd);
    return flags & (FS_IMMUTABLE_FL | FS_APPEND_FL);
}

/// Every entry below `folder` (the log folders left out) with its kind, mode,
/// flags, modification time and bytes or link target.
std::map<std::string, std::string> snapshot(const std::string& folder) {
    std::map<std::string, std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        const std::string path = it->path().string();
        if (path.find("/Library/Logs") != std::string::npos) {
            it.disable_recursion_pending();
            continue;
        }
        struct stat st {};
        ::lstat(path.c_str(), &st);
        std::string d = std::to_string(st.st_mode) + " " + std::to_string(flagsOf(path)) + " " +
                        std::to_string(st.st_mtim.tv_sec) + "." +
                        std::to_string(st.st_mtim.tv_nsec);
        if (S_ISLNK(st.st_mode)) d += " -> " + fs::read_symlink(path).string();
        if (S_ISREG(st.st_mode)) d += " " + ScratchRoot::readFile(path);
        out[path] = d;
    }
    return out;
}

/// The files below `folder` with their bytes (what a move must carry along).
std::map<std::string, std::string> files(const std::string& folder) {
    std::map<std::string, std::string> out;
    std::error_code ec;
    if (fs::is_regular_file(folder, ec)) out[""] = ScratchRoot::readFile(folder);
    for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::end(it);
         it.increment(ec))
        if (it->is_regular_file() && !it->is_symlink())
            out[it->path().string().substr(folder.size())] = ScratchRoot::readFile(it->path());
    return out;
}

struct Step {
    std::string verb, from, to;
};

/// The "would move:" and "would copy:" lines of a dry run.
std::vector<Step> planned(const std::string& out) {
    std::vector<Step> steps;
    std::size_t start = 0;
    while (start < out.size()) {
        std::size_t end = out.find('\n', start);
        if (end == std::string::npos) end = out.size();
        const std::string line = out.substr(start, end - start);
        start = end + 1;
        for (const std::string verb : {"move", "copy"}) {
            const std::string prefix = "would " + verb + ": ";
            if (line.rfind(prefix, 0) != 0) continue;
            const auto arrow = line.find(" -> ");
            std::string to = line.substr(arrow + 4);
            const std::string rights = " (administrator rights)";
            if (to.size() > rights.size() && to.ends_with(rights))
                to.resize(to.size() - rights.size());
            steps.push_back({verb, line.substr(prefix.size(), arrow - prefix.size()), to});
        }
    }
    return steps;
}

/// The names of the files in the user's log folder.
std::set<std::string> logFiles(const ScratchRoot& s) {
    std::set<std::string> names;
    std::error_code ec;
    for (const auto& e :
         std::filesystem::directory_iterator(s.homePath("/Library/Logs/Quellbrook"), ec))
        names.insert(e.path().filename().string());
    return names;
}

bool under(const std::string& path, const std::string& folder) {
    return path == folder || path.rfind(folder + "/", 0) == 0;
}

/// Runs the verb dry, checks nothing changed, runs it for real, and checks
/// that the real run made exactly the planned steps. Answers the dry output.
std::string dryThenReal(const ScratchRoot& s, std::vector<std::string> args,
                        std::size_t dryrunAt = 1) {
    // The log folders (the one thing any run writes) exist before the snapshot.
    ambrel({"-allplugins", "-plist"});
    const auto before = snapshot(s.base());
    const auto logsBefore = logFiles(s);
    std::vector<std::string> dry = args;
    dry.insert(dry.begin() + static_cast<long>(dryrunAt), "-dryrun");
    const ChildProcess d = ambrel(dry);
    EXPECT_EQ(d.exitCode, 0) << d.err;
    // The dry run's lines go on at the end of the current log: no older log is
    // rotated along.
    EXPECT_EQ(logFiles(s), logsBefore);
    EXPECT_NE(d.out.find("Dry run: nothing was changed."), std::string::npos) << d.out;
    const auto afterDry = snapshot(s.base());
    EXPECT_EQ(afterDry, before) << "the dry run of " << args[0] << " changed the disk";

    const std::vector<Step> steps = planned(d.out);
    std::map<std::string, std::map<std::string, std::string>> carried;
    for (const Step& step : steps) carried[step.from] = files(step.from);

    const ChildProcess r = ambrel(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.find("would "), std::string::npos) << "a real run printed a plan";
    const auto after = snapshot(s.base());

    for (const Step& step : steps) {
        EXPECT_EQ(files(step.to), carried[step.from]) << step.from << " -> " << step.to;
        bool refilled = false;  // an install puts the new copy where the old one was
        for (const Step& later : steps) refilled = refilled || later.to == step.from;
        if (step.verb == "move" && !refilled)
            EXPECT_FALSE(fs::exists(fs::symlink_status(step.from)));
        if (step.verb == "copy") EXPECT_TRUE(fs::exists(step.from));
    }
    // Nothing else: every file that went was a planned source, every file
    // that came a planned destination (the Trash's records aside).
    for (const auto& [path, d1] : before) {
        if (after.count(path) || !S_ISREG(std::stoul(d1))) continue;
        bool planned = false;
        for (const Step& step : steps) planned = planned || under(path, step.from);
        EXPECT_TRUE(planned) << path << " went without being planned";
    }
    for (const auto& [path, d2] : after) {
        if (before.count(path) || !S_ISREG(std::stoul(d2)) || path.ends_with(".trashinfo"))
            continue;
        bool planned = false;
        for (const Step& step : steps) planned = planned || under(path, step.to);
        EXPECT_TRUE(planned) << path << " came without being planned";
    }
    return d.out;
}

struct Tree {
    ScratchRoot s;
    std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    std::string userFx = s.homePath("/Library/Plug-Ins/FxPlug");
    std::string au = s.rootPath("/Library/Audio/Plug-Ins/Components");
    std::string disabled = s.rootPath(kDisabled);

    Tree() {
        ScratchRoot::writeFile(fx + "/Glow.fxplug/Contents/v", "machine glow");
        ScratchRoot::writeFile(userFx + "/Glow.fxplug/Contents/v", "user glow");
        ScratchRoot::writeFile(fx + "/Pack/Blur.fxplug/v", "blur");
        ScratchRoot::writeFile(fx + "/Managed.fxplug/.fxfactory.plist", "managed");
        ScratchRoot::writeFile(au + "/Echo.component/v", "echo");
    }
};

}  // namespace

TEST(DryRunTest, DisableAndEnable) {
    Tree t;
    // Already disabled: skipped with its reason, by name.
    ScratchRoot::writeFile(t.disabled + t.au.substr(t.s.root().size()) + "/Old.component/v", "old");
    const std::string out = dryThenReal(t.s, {"-disable"});
    EXPECT_NE(out.find("would skip: " + t.fx + "/Managed.fxplug - plugin is locked"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("- plugin is already disabled"), std::string::npos) << out;
    EXPECT_EQ(planned(out).size(), 4u) << out;

    // "-dryrun" anywhere after the verb; the name still names the plug-in.
    const std::string one = dryThenReal(t.s, {"-enable", "Glow.fxplug"}, 2);
    EXPECT_EQ(planned(one).size(), 2u) << one;
    const std::string rest = dryThenReal(t.s, {"-enable"});
    EXPECT_EQ(planned(rest).size(), 3u) << rest;
    EXPECT_NE(rest.find("- plugin is already enabled"), std::string::npos) << rest;
}

TEST(DryRunTest, SetAccessWithATakenDestination) {
    Tree t;
    ScratchRoot::writeFile(t.s.homePath("/Library/Audio/Plug-Ins/Components/Echo.component/v"),
                           "user echo");
    const std::string out = dryThenReal(t.s, {"-setaccess", "1"}, 2);
    EXPECT_NE(out.find("would skip: " + t.au + "/Echo.component - destination"), std::string::npos)
        << out;
    EXPECT_NE(
        out.find("would move: " + t.fx + "/Pack/Blur.fxplug -> " + t.userFx + "/Pack/Blur.fxplug"),
        std::string::npos)
        << out;
}

TEST(DryRunTest, RemoveEverythingTakesTheTrashsNextNames) {
    Tree t;
    const std::string out = dryThenReal(t.s, {"-remove"});
    const std::string trash = t.s.homePath("/.local/share/Trash/files/");
    // Two of one name: the second gets the next free name, as the real run does.
    EXPECT_NE(out.find("-> " + trash + "Glow.fxplug\n"), std::string::npos) << out;
    EXPECT_NE(out.find("-> " + trash + "Glow 2.fxplug\n"), std::string::npos) << out;
    EXPECT_EQ(planned(out).size(), 4u) << out;
}

TEST(DryRunTest, InstallOverAnExistingPlugin) {
    Tree t;
    const std::string source = t.s.base() + "/new/Echo.component";
    ScratchRoot::writeFile(source + "/v", "new echo");
    const std::string out = dryThenReal(t.s, {"-install", "-all", source}, 2);
    // The old copy goes to the Trash first, then the new one is copied in.
    const auto steps = planned(out);
    ASSERT_EQ(steps.size(), 2u) << out;
    EXPECT_EQ(steps[0].from, t.au + "/Echo.component");
    EXPECT_EQ(steps[1].verb, "copy");
    EXPECT_EQ(steps[1].to, t.au + "/Echo.component");
}

TEST(DryRunTest, WithoutRightsThePlanSkipsWhatOnlyAnAdministratorCouldMove) {
    passwd* nobody = ::getpwnam("nobody");
    if (::geteuid() != 0 || !nobody || !fs::exists("/usr/bin/setpriv"))
        GTEST_SKIP() << "needs root, the user nobody and setpriv";
    Tree t;
    // nobody owns the home; the machine's folders stay root's.
    for (auto it = fs::recursive_directory_iterator(t.s.home()); it != fs::end(it); ++it)
        ::lchown(it->path().c_str(), nobody->pw_uid, nobody->pw_gid);
    ::chown(t.s.home().c_str(), nobody->pw_uid, nobody->pw_gid);
    for (const auto& p : {t.s.base(), t.s.root()}) ::chmod(p.c_str(), 0755);
    gRunAs = {"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"};
    const std::string out = dryThenReal(t.s, {"-remove"});
    gRunAs.clear();
    EXPECT_NE(out.find("would skip: " + t.fx + "/Glow.fxplug - needs administrator rights"),
              std::string::npos)
        << out;
    const auto steps = planned(out);
    ASSERT_EQ(steps.size(), 1u) << out;
    EXPECT_EQ(steps[0].from, t.userFx + "/Glow.fxplug");
    EXPECT_TRUE(fs::exists(t.fx + "/Glow.fxplug/Contents/v"));
}
