// Fault injection for the promise that a plug-in's bytes exist exactly once,
// whole, under a real name: randomised verbs over a generated tree, with
// second disks, full disks, read-only volumes, immutable files, other users'
// files, kill -9, a second Ambrel and a concurrent mv, and the invariant
// checked after every step. scripts/faults runs it larger
// (AMBREL_FAULTS_SIZE, _STEPS, _SEEDS, _KILLS, _BIG_MB for six bundles, _DISK).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTTransfer.h"
#include "catalogue/KTPluginLocations.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;
extern char** environ;

namespace {

long envNumber(const char* name, long fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::strtol(v, nullptr, 10) : fallback;
}

std::vector<unsigned> seeds() {
    std::vector<unsigned> out;
    std::stringstream in(std::getenv("AMBREL_FAULTS_SEEDS") ? std::getenv("AMBREL_FAULTS_SEEDS")
                                                            : "7");
    for (std::string s; std::getline(in, s, ',');)
        if (!s.empty()) out.push_back(unsigned(std::stoul(s)));
    return out;
}

constexpr const char* kId = "user.test.id";
/// The folder that holds the disabled folder.
constexpr const char* kTallowby = "/Library/Application Support/Quellbrook/Tallowby";

std::string attribute(const std::string& path, const char* name) {
    char buf[256];
    const ssize_t n = ::lgetxattr(path.c_str(), name, buf, sizeof buf);
    return n < 0 ? std::string() : std::string(buf, std::size_t(n));
}

/// What a plug-in is, whatever its name: every entry's kind, bytes, link
/// target and user attributes, by relative path.
std::uint64_t fingerprint(const std::string& path) {
    std::uint64_t h = 1469598103934665603ull;
    auto mix = [&](const std::string& s) {
        for (unsigned char c : s) h = (h ^ c) * 1099511628211ull;
        h = (h ^ 0xff) * 1099511628211ull;
    };
    std::function<void(const std::string&, const std::string&)> walk = [&](const std::string& p,
                                                                           const std::string& rel) {
        struct stat st {};
        if (::lstat(p.c_str(), &st) != 0) return mix("missing " + rel);
        mix(rel + " " + std::to_string(st.st_mode & S_IFMT));
        char names[4096];
        ssize_t n = ::llistxattr(p.c_str(), names, sizeof names);
        std::vector<std::string> attrs;
        for (ssize_t at = 0; n > 0 && at < n; at += ssize_t(std::strlen(names + at)) + 1)
            attrs.emplace_back(names + at);
        std::sort(attrs.begin(), attrs.end());
        for (const auto& a : attrs)
            if (a.rfind("user.", 0) == 0) mix(a + "=" + attribute(p, a.c_str()));
        if (S_ISLNK(st.st_mode)) return mix(fs::read_symlink(p).string());
        if (S_ISREG(st.st_mode)) {
            // The library's hash of each block: tens of MB stay quick in a
            // sanitized build.
            std::ifstream in(p, std::ios::binary);
            std::string block(1 << 20, '\0');
            while (in.read(block.data(), std::streamsize(block.size())) || in.gcount() > 0) {
                const std::string_view got(block.data(), std::size_t(in.gcount()));
                mix(std::to_string(std::hash<std::string_view>()(got)));
            }
            return;
        }
        auto entries = KTFileTree::entriesOf(p);
        std::sort(entries.begin(), entries.end());
        for (const auto& e : entries) walk(p + "/" + e, rel + "/" + e);
    };
    walk(path, "");
    return h;
}

/// A child run without waiting, so that it can be killed or raced.
struct Running {
    pid_t pid = -1;
    int wait() {
        int status = 0;
        if (pid > 0) ::waitpid(pid, &status, 0);
        pid = -1;
        return status;
    }
};

Running start(const std::vector<std::string>& argv) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    Running r;
    posix_spawn(&r.pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return r;
}

/// A tmpfs inside the scratch tree: a second disk, or a small one.
class Disk {
  public:
    Disk(const std::string& where, const std::string& size, unsigned long flags = 0)
        : where_(where) {
        fs::create_directories(where);
        ok_ = ::mount("tmpfs", where.c_str(), "tmpfs", flags, ("size=" + size).c_str()) == 0;
    }
    ~Disk() { release(); }
    void release() {
        if (ok_ && ::umount2(where_.c_str(), 0) != 0) ::umount2(where_.c_str(), MNT_DETACH);
        ok_ = false;
    }
    bool ok() const { return ok_; }

  private:
    std::string where_;
    bool ok_ = false;
};

/// A generated tree whose listed plug-ins carry an id, and the invariant.
class FaultWorld {
  public:
    ScratchRoot s;
    std::vector<std::unique_ptr<Disk>> disks;     // unmounted before the scratch folder goes
    std::map<std::string, std::uint64_t> prints;  // id -> fingerprint
    std::mt19937 rng;
    bool disksOk = true;

    /// `mounts`: folders below the root or home ("/..." with a leading "~"
    /// for the home) that get a tmpfs of their own before the tree is made.
    explicit FaultWorld(unsigned seed, std::vector<std::string> mounts = {}) : rng(seed) {
        for (const auto& m : mounts) {
            const std::string at = m[0] == '~' ? s.homePath(m.substr(1)) : s.rootPath(m);
            const char* size = std::getenv("AMBREL_FAULTS_DISK");
            disks.push_back(std::make_unique<Disk>(at, size && *size ? size : "64m"));
            disksOk = disksOk && disks.back()->ok();
        }
        ChildProcess gen = ChildProcess::run({ChildProcess::builtProgram("ambrel-gen"), "--root",
                                              s.root(), "--home", s.home(), "--size",
                                              std::to_string(envNumber("AMBREL_FAULTS_SIZE", 10)),
                                              "--seed", std::to_string(seed), "--quiet"});
        EXPECT_EQ(gen.exitCode, 0) << gen.err;
        const long big = envNumber("AMBREL_FAULTS_BIG_MB", 0);
        int n = 0, bigOnes = 0;
        for (const auto& path : listed()) {
            if (big > 0 && fs::is_directory(path) && n % 7 == 0 && bigOnes++ < 6)
                ScratchRoot::writeFile(path + "/Contents/Resources/Big.bin",
                                       std::string(std::size_t(big) << 20, char('a' + n % 26)));
            tag(path, std::to_string(++n));
        }
    }

    ChildProcess ambrel(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {ChildProcess::builtProgram("ambrel")};
        argv.insert(argv.end(), args.begin(), args.end());
        return ChildProcess::run(argv);
    }

    std::vector<std::string> listed() {
        std::vector<std::string> out;
        std::stringstream in(ambrel({"-allplugins"}).out);
        for (std::string line; std::getline(in, line);)
            if (!line.empty()) out.push_back(line);
        return out;
    }

    void tag(const std::string& path, const std::string& id) {
        ::lsetxattr(path.c_str(), kId, id.data(), id.size(), 0);
        prints[id] = fingerprint(path);
    }

    /// Where every id is now (real names only), and the work entries seen.
    std::map<std::string, std::vector<std::string>> where(
        std::vector<std::string>* work = nullptr) {
        std::map<std::string, std::vector<std::string>> found;
        for (const auto& top : {s.root(), s.home()}) {
            std::error_code ec;
            for (fs::recursive_directory_iterator it(top, ec), end; !ec && it != end;
                 it.increment(ec)) {
                const std::string p = it->path().string();
                if (KTTransfer::isWorkName(it->path().filename().string())) {
                    if (work) work->push_back(p);
                    it.disable_recursion_pending();
                    continue;
                }
                const std::string id = attribute(p, kId);
                if (id.empty()) continue;
                found[id].push_back(p);
                it.disable_recursion_pending();
            }
        }
        return found;
    }

    bool inTrash(const std::string& p) const {
        return p.find("/Trash/files/") != std::string::npos ||
               p.find("/.Trash-") != std::string::npos || p.find("/.Trash/") != std::string::npos;
    }

    /// Every plug-in exactly once and whole; the listing holds exactly the
    /// whole plug-ins outside the Trash; with `settled`, no work entry left.
    void check(const std::string& when, bool settled = true) {
        SCOPED_TRACE(when);
        std::vector<std::string> work;
        const auto found = where(&work);
        std::set<std::string> outside;
        for (const auto& [id, print] : prints) {
            auto hit = found.find(id);
            const std::size_t count = hit == found.end() ? 0 : hit->second.size();
            // Right after a kill a whole copy may still stand beside its
            // original (the next run settles it); never none, never a part.
            if (settled) {
                ASSERT_EQ(count, 1u) << "plug-in " << id << " found " << count << " times"
                                     << (count ? ": " + hit->second[0] : std::string());
            } else {
                ASSERT_GE(count, 1u) << "plug-in " << id << " lost";
            }
            for (const auto& p : hit->second) {
                EXPECT_EQ(fingerprint(p), print) << "changed: " << p;
                if (!inTrash(p)) outside.insert(p);
            }
        }
        if (settled) {
            EXPECT_TRUE(work.empty()) << "left behind: " << work[0];
        }
        const auto list = listed();
        std::set<std::string> shown(list.begin(), list.end());
        for (const auto& p : shown)
            EXPECT_TRUE(outside.count(p)) << "listed but not a whole plug-in: " << p;
        for (const auto& p : outside) EXPECT_TRUE(shown.count(p)) << "not listed: " << p;
    }

    /// Where every id lies, relative to the scratch folder.
    std::map<std::string, std::string> state() {
        std::map<std::string, std::string> out;
        for (const auto& [id, paths] : where()) {
            if (paths.empty()) continue;
            std::string p = paths[0];
            // The disabled mirror of a home plug-in holds the home's own path.
            for (std::size_t at; (at = p.find(s.base())) != std::string::npos;)
                p.replace(at, s.base().size(), "<scratch>");
            out[id] = p;
        }
        return out;
    }

    std::string someName() {
        const auto found = where();
        std::vector<std::string> names;
        for (const auto& [id, paths] : found)
            if (!inTrash(paths[0])) names.push_back(fs::path(paths[0]).filename().string());
        if (names.empty()) return "Nothing.fxplug";
        return names[rng() % names.size()];
    }

    /// A random verb with its arguments.
    std::vector<std::string> randomVerb() {
        switch (rng() % 12) {
            case 0:
                return {"-disable"};
            case 1:
                return {"-enable"};
            case 2:
                return {"-remove", someName()};
            case 3:
            case 4:
                return {"-setaccess", std::to_string(rng() % 2), someName()};
            case 5:
            case 6:
            case 7:
                return {"-enable", someName()};
            default:
                return {"-disable", someName()};
        }
    }

    void randomSteps(int steps) {
        for (int i = 0; i < steps && !::testing::Test::HasFatalFailure(); ++i) {
            const auto verb = randomVerb();
            std::string text;
            for (const auto& a : verb) text += a + " ";
            const ChildProcess r = ambrel(verb);
            EXPECT_EQ(r.exitCode, 0) << text << r.err;
            check("after step " + std::to_string(i) + ": " + text);
        }
    }
};

bool root() {
    return ::geteuid() == 0;
}

/// Everything Ambrel logged below the scratch folder (the user's log, or
/// root's under the system root).
std::string logs(const ScratchRoot& s) {
    std::string all;
    for (auto it = fs::recursive_directory_iterator(s.base()); it != fs::end(it); ++it) {
        if (it->path().extension() == ".log") all += ScratchRoot::readFile(it->path());
    }
    return all;
}

}  // namespace

TEST(TransferFaultsTest, RandomVerbsAcrossDisksKeepEveryPluginExactlyOnce) {
    for (unsigned seed : seeds()) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        // As root the disabled folder and the Trash lie on disks of their
        // own, so that every disable, enable and removal copies across;
        // elsewhere the same verbs rename on one disk.
        std::vector<std::string> disks;
        if (root()) disks = {kTallowby, "~/.local/share/Trash"};
        FaultWorld w(seed, disks);
        if (!w.disksOk) GTEST_SKIP() << "no tmpfs could be mounted here";
        w.check("generated");
        w.randomSteps(int(envNumber("AMBREL_FAULTS_STEPS", 3)));
    }
}

TEST(TransferFaultsTest, ADiskTooSmallFailsHalfWayAndNothingMoves) {
    if (!root()) GTEST_SKIP() << "mounting tmpfs file systems needs root";
    ScratchRoot s;
    Disk tiny(s.rootPath(kTallowby), "64k");
    Disk tinyTrash(s.homePath("/.local/share/Trash"), "64k");
    if (!tiny.ok() || !tinyTrash.ok()) GTEST_SKIP() << "no tmpfs could be mounted here";
    const std::string big = s.rootPath("/Library/Plug-Ins/FxPlug/Huge.fxplug");
    ScratchRoot::writeFile(big + "/Contents/Info.plist", "<plist/>");
    ScratchRoot::writeFile(big + "/Contents/MacOS/Huge", std::string(300000, 'h'));
    const std::uint64_t print = fingerprint(big);
    for (const char* verb : {"-disable", "-remove"}) {
        ChildProcess::run({ChildProcess::builtProgram("ambrel"), verb, "Huge.fxplug"});
        EXPECT_NE(logs(s).find(verb == std::string("-disable")
                                   ? "Unable to move " + big
                                   : std::string("Unable to remove plugin Huge.")),
                  std::string::npos);
        EXPECT_EQ(fingerprint(big), print);
        for (const auto& top : {s.rootPath(kTallowby), s.homePath("/.local/share/Trash")}) {
            for (auto it = fs::recursive_directory_iterator(top); it != fs::end(it); ++it)
                EXPECT_FALSE(it->is_regular_file()) << "left on the small disk: " << it->path();
        }
    }
}

TEST(TransferFaultsTest, AKilledRunRerunEndsAsAnUninterruptedRun) {
    if (!root()) GTEST_SKIP() << "mounting tmpfs file systems needs root";
    const unsigned seed = seeds()[0];
    std::map<std::string, std::string> expected;
    double runMs = 0;
    {
        FaultWorld w(seed, {kTallowby});
        if (!w.disksOk) GTEST_SKIP() << "no tmpfs could be mounted here";
        const auto t0 = std::chrono::steady_clock::now();
        w.ambrel({"-disable"});
        runMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                    .count();
        expected = w.state();
    }
    int interrupted = 0;
    const int rounds = int(envNumber("AMBREL_FAULTS_KILLS", 1));
    std::mt19937 rng(seed);
    for (int round = 0; round < rounds; ++round) {
        FaultWorld w(seed, {kTallowby});
        // Somewhere in the second half of the run, where the moves are.
        const long delayMs = long(runMs * (0.4 + 0.6 * double(rng() % 1000) / 1000.0));
        SCOPED_TRACE("killed after " + std::to_string(delayMs) + " ms");
        Running batch = start({ChildProcess::builtProgram("ambrel"), "-disable"});
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        ::kill(batch.pid, SIGKILL);
        batch.wait();
        std::vector<std::string> work;
        w.where(&work);
        if (!work.empty()) ++interrupted;
        w.check("right after the kill", false);
        w.ambrel({"-disable"});
        w.check("after the rerun");
        EXPECT_EQ(w.state(), expected);
    }
    std::cout << "[ kills   ] " << rounds << " kills, " << interrupted
              << " of them inside a transfer (a run takes " << long(runMs) << " ms)\n";
}

TEST(TransferFaultsTest, ASecondAmbrelAndAConcurrentMv) {
    FaultWorld w(seeds()[0],
                 root() ? std::vector<std::string>{kTallowby} : std::vector<std::string>{});
    // Two batches at once over the same tree, one undoing the other.
    Running a = start({ChildProcess::builtProgram("ambrel"), "-disable"});
    Running b = start({ChildProcess::builtProgram("ambrel"), "-enable"});
    a.wait();
    b.wait();
    w.check("after two batches at once");

    // Someone renames a plug-in back and forth while Ambrel moves it.
    const auto found = w.where();
    std::string victim;
    for (const auto& [id, paths] : found)
        if (fs::is_directory(paths[0]) && !w.inTrash(paths[0])) victim = paths[0];
    ASSERT_FALSE(victim.empty());
    std::atomic<bool> stop{false};
    std::thread racer([&] {
        const std::string other = victim + ".elsewhere";
        while (!stop) {
            std::rename(victim.c_str(), other.c_str());
            std::rename(other.c_str(), victim.c_str());
        }
    });
    for (int i = 0; i < int(envNumber("AMBREL_FAULTS_KILLS", 1)); ++i) {
        w.ambrel({"-disable", fs::path(victim).filename().string()});
        w.ambrel({"-enable", fs::path(victim).filename().string()});
    }
    stop = true;
    racer.join();
    w.check("after a concurrent mv");
}

TEST(TransferFaultsTest, ReadOnlyVolumesImmutableFilesAndOtherUsersFiles) {
    if (!root()) GTEST_SKIP() << "remounts, immutable flags and setpriv need root";
    FaultWorld w(seeds()[0], {kTallowby});
    if (!w.disksOk) GTEST_SKIP() << "no tmpfs could be mounted here";

    // An immutable file inside a bundle: the copy could be made, the
    // original never removed, so nothing moves.
    const std::string stuck = w.s.rootPath("/Library/Plug-Ins/FxPlug/Stuck.fxplug");
    ScratchRoot::writeFile(stuck + "/Contents/Info.plist", "<plist/>");
    ScratchRoot::writeFile(stuck + "/Contents/Frozen", "f");
    w.tag(stuck, "stuck");
    struct Thaw {
        std::string p;
        ~Thaw() { ScratchRoot::setImmutable(p, false); }
    } thaw{stuck + "/Contents/Frozen"};
    if (!ScratchRoot::setImmutable(thaw.p, true)) GTEST_SKIP() << "no immutable flag here";
    ChildProcess r = w.ambrel({"-disable", "Stuck.fxplug"});
    EXPECT_NE(r.out.find("Could not disable plugin."), std::string::npos) << r.out;
    EXPECT_TRUE(fs::exists(stuck + "/Contents/Frozen"));
    w.check("after an immutable file");
    ScratchRoot::setImmutable(thaw.p, false);

    // A read-only kind folder: its plug-ins stay, the batch goes on.
    const std::string au = w.s.rootPath("/Library/Audio/Plug-Ins/Components");
    ScratchRoot::makeDirs(au);
    ASSERT_EQ(::mount(au.c_str(), au.c_str(), nullptr, MS_BIND, nullptr), 0);
    struct Unmount {
        std::string p;
        ~Unmount() { ::umount2(p.c_str(), MNT_DETACH); }
    } unmount{au};
    ASSERT_EQ(::mount(nullptr, au.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    w.ambrel({"-disable"});
    w.check("after a read-only volume");
}

TEST(TransferFaultsTest, WithoutRightsOnTheCommandLineEachPluginSaysWhyAndTheBatchGoesOn) {
    if (!root()) GTEST_SKIP() << "needs root to run the program as another user";
    passwd* nobody = ::getpwnam("nobody");
    if (!nobody || !fs::exists("/usr/bin/setpriv")) GTEST_SKIP() << "needs nobody and setpriv";
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    for (const char* name : {"A.fxplug", "B.fxplug"})
        ScratchRoot::writeFile(fx + "/" + name + "/v", name);
    const std::string userFx = s.homePath("/Library/Plug-Ins/FxPlug");
    ScratchRoot::writeFile(userFx + "/Mine.fxplug/v", "mine");
    const std::string quellbrook = s.rootPath("/Library/Application Support/Quellbrook");
    ScratchRoot::makeDirs(quellbrook + "/Tallowby");
    for (const auto& p : {s.base(), s.root(), s.home()}) ::chmod(p.c_str(), 0755);
    for (const auto& top : {s.home(), quellbrook}) {
        ::lchown(top.c_str(), nobody->pw_uid, nobody->pw_gid);
        for (auto it = fs::recursive_directory_iterator(top); it != fs::end(it); ++it)
            ::lchown(it->path().c_str(), nobody->pw_uid, nobody->pw_gid);
    }
    ChildProcess r =
        ChildProcess::run({"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup",
                           "--clear-groups", ChildProcess::builtProgram("ambrel"), "-disable"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    // Root's plug-ins stay, each named once; the user's own one still moved.
    for (const char* name : {"A.fxplug", "B.fxplug"}) {
        EXPECT_TRUE(fs::exists(fx + "/" + name + "/v"));
        EXPECT_NE(r.out.find("Left " + fx + "/" + name + " where it is - "), std::string::npos)
            << r.out;
    }
    EXPECT_FALSE(fs::exists(userFx + "/Mine.fxplug"));
    EXPECT_TRUE(fs::exists(KTPluginLocations::disabledPathForPath(userFx + "/Mine.fxplug") + "/v"));
}

TEST(TransferFaultsTest, AnFxScriptKeepsItsTypeCodeThroughInstallAndACrossDiskRoundTrip) {
    ScratchRoot s;
    ScratchRoot::makeDirs(s.rootPath("/Library/Application Support/Quellbrook/Tallowby"));
    std::unique_ptr<Disk> disabled;
    if (root())
        disabled = std::make_unique<Disk>(
            s.rootPath("/Library/Application Support/Quellbrook/Tallowby"), "8m");
    const std::string source = s.base() + "/in/Soft Blur";
    ScratchRoot::writeFile(source, "compiled script");
    const char info[32] = {'F', 'C', 'S', 'C', 'K', 'T', 'F', 'X'};
    ASSERT_EQ(::lsetxattr(source.c_str(), "user.com.apple.FinderInfo", info, sizeof info, 0), 0);
    auto run = [&](const std::vector<std::string>& args) {
        std::vector<std::string> argv = {ChildProcess::builtProgram("ambrel")};
        argv.insert(argv.end(), args.begin(), args.end());
        return ChildProcess::run(argv);
    };
    run({"-install", "-all", source});
    auto typeCode = [](const std::string& p) { return attribute(p, "user.com.apple.FinderInfo"); };
    const std::string listing = run({"-allplugins"}).out;
    std::string path;
    std::stringstream lines(listing);
    for (std::string line; std::getline(lines, line);)
        if (fs::path(line).filename() == "Soft Blur") path = line;
    ASSERT_FALSE(path.empty()) << listing;
    EXPECT_NE(path, source);
    EXPECT_EQ(typeCode(path).substr(0, 4), "FCSC");
    run({"-disable", "Soft Blur"});
    const std::string off = KTPluginLocations::disabledPathForPath(path);
    EXPECT_EQ(typeCode(off).substr(0, 4), "FCSC");
    EXPECT_NE(run({"-allplugins"}).out.find(off), std::string::npos);
    run({"-enable", "Soft Blur"});
    EXPECT_EQ(typeCode(path).substr(0, 4), "FCSC");
    EXPECT_EQ(ScratchRoot::readFile(path), "compiled script");
}

TEST(TransferFaultsTest, WorkEntriesAreNeverListedAndAreSettledByTheNextRun) {
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    ScratchRoot::writeFile(fx + "/Glow.fxplug/v", "glow");
    // What a killed copy of a group left: a work folder full of plug-ins.
    const std::string left = fx + "/.ambrel-work.999999999.3.copy";
    ScratchRoot::writeFile(left + "/Inner.fxplug/v", "inner");
    const auto run = [&](const std::vector<std::string>& args) {
        std::vector<std::string> argv = {ChildProcess::builtProgram("ambrel")};
        argv.insert(argv.end(), args.begin(), args.end());
        return ChildProcess::run(argv);
    };
    const std::string listing = run({"-allplugins"}).out;
    EXPECT_EQ(listing.find("Inner"), std::string::npos) << listing;
    EXPECT_EQ(listing.find(".ambrel-work."), std::string::npos) << listing;
    // The listing settled it: nobody runs under that process id.
    EXPECT_FALSE(fs::exists(left));
    EXPECT_NE(logs(s).find("the unfinished copy of an interrupted transfer"), std::string::npos);
}

TEST(TransferFaultsTest, RemovalSkipsLockedPluginsAndSudoTrashesIntoTheUsersOwnTrash) {
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    ScratchRoot::writeFile(fx + "/Managed.fxplug/.fxfactory.plist", "<plist/>");
    ScratchRoot::writeFile(fx + "/Glow.fxplug/v", "glow");
    const auto run = [&](const std::vector<std::string>& args) {
        std::vector<std::string> argv = {ChildProcess::builtProgram("ambrel")};
        argv.insert(argv.end(), args.begin(), args.end());
        return ChildProcess::run(argv);
    };
    passwd* nobody = ::getpwnam("nobody");
    const bool asSudo = root() && nobody && fs::exists("/usr/bin/setpriv");
    if (asSudo) {
        // As "sudo ambrel -remove" by nobody would run: root, with SUDO_* set.
        ::chown(s.home().c_str(), nobody->pw_uid, nobody->pw_gid);
        for (const auto& p : {s.base(), s.root()}) ::chmod(p.c_str(), 0755);
        ::setenv("SUDO_UID", std::to_string(nobody->pw_uid).c_str(), 1);
        ::setenv("SUDO_GID", std::to_string(nobody->pw_gid).c_str(), 1);
        ::setenv("SUDO_USER", "nobody", 1);
    }
    run({"-remove"});
    if (asSudo) {
        ::unsetenv("SUDO_UID");
        ::unsetenv("SUDO_GID");
        ::unsetenv("SUDO_USER");
    }
    EXPECT_TRUE(fs::exists(fx + "/Managed.fxplug/.fxfactory.plist"));
    EXPECT_FALSE(fs::exists(fx + "/Glow.fxplug"));
    const std::string trashed = s.homePath("/.local/share/Trash/files/Glow.fxplug");
    EXPECT_TRUE(fs::exists(trashed + "/v"));
    if (!asSudo) return;
    struct stat st {};
    for (const auto& p : {s.homePath("/.local/share/Trash"), trashed, trashed + "/v",
                          s.homePath("/.local/share/Trash/info/Glow.fxplug.trashinfo")}) {
        ASSERT_EQ(::lstat(p.c_str(), &st), 0) << p;
        EXPECT_EQ(st.st_uid, nobody->pw_uid) << p;
    }
    // The user's own tool sees it.
    const ChildProcess list = ChildProcess::run(
        {"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "/usr/bin/env",
         "-u", "XDG_DATA_HOME", "HOME=" + s.home(), "/usr/bin/trash-list"});
    EXPECT_NE(list.out.find(fx + "/Glow.fxplug"), std::string::npos) << list.out << list.err;
}

TEST(TransferFaultsTest, RemovalOnAnotherDiskIsARenameIntoThatDisksTrash) {
    if (!root()) GTEST_SKIP() << "mounting a tmpfs needs root";
    ScratchRoot s;
    const std::string au = s.rootPath("/Library/Audio/Plug-Ins/Components");
    Disk disk(au, "8m");
    if (!disk.ok()) GTEST_SKIP() << "no tmpfs could be mounted here";
    ScratchRoot::writeFile(au + "/Echo.component/Contents/Info.plist", "<plist/>");
    ChildProcess r =
        ChildProcess::run({ChildProcess::builtProgram("ambrel"), "-remove", "Echo.component"});
    EXPECT_FALSE(fs::exists(au + "/Echo.component"));
    const std::string trash = au + "/.Trash-" + std::to_string(::getuid());
    EXPECT_TRUE(fs::exists(trash + "/files/Echo.component/Contents/Info.plist")) << r.out;
    EXPECT_EQ(ScratchRoot::readFile(trash + "/info/Echo.component.trashinfo")
                  .find("Path=Echo.component\n"),
              std::string("[Trash Info]\n").size());
}
