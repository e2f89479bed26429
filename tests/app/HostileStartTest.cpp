// The built program against what a hostile machine hands it: closed standard
// descriptors, no threads to be had, a missing argument, and plug-ins whose
// files crashed every verb. Each run ends normally with a clear word.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

struct ChildRun {
    int exitCode = -1;
    std::string err;
};

/// Runs ambrel with `args` after `prepare` ran in the child (closing a
/// descriptor, dropping rights); standard error is collected.
ChildRun ambrelAfter(const std::vector<std::string>& args, const std::function<void()>& prepare) {
    const std::string program = ChildProcess::builtProgram("ambrel");
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (auto& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    int errPipe[2];
    if (::pipe(errPipe) != 0) return {};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(errPipe[1], STDERR_FILENO);
        ::close(errPipe[0]);
        ::close(errPipe[1]);
        prepare();
        ::execv(program.c_str(), cargv.data());
        ::_exit(127);
    }
    ::close(errPipe[1]);
    ChildRun run;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(errPipe[0], buf, sizeof buf)) > 0) run.err.append(buf, std::size_t(n));
    ::close(errPipe[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

std::string readAll(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string taskLog(const ScratchRoot& s) {
    const std::string rel = "/Library/Logs/Quellbrook/Ambrel.task.1.log";
    return readAll(::geteuid() == 0 ? s.rootPath(rel) : s.homePath(rel));
}

void makeBundle(const std::string& path) {
    ScratchRoot::writeFile(path + "/Contents/Info.plist",
                           "<plist><dict><key>CFBundleName</key><string>N</string></dict></plist>");
}

ChildProcess ambrel(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ChildProcess::builtProgram("ambrel")};
    argv.insert(argv.end(), args.begin(), args.end());
    return ChildProcess::run(argv);
}

}  // namespace

TEST(HostileStartTest, ClosedStandardDescriptorsNeverBecomeTheLog) {
    ScratchRoot s;
    const std::string glow = s.rootPath("/Library/Plug-Ins/FxPlug/Glow.fxplug");
    makeBundle(glow);
    for (int fd : {0, 1, 2}) {
        SCOPED_TRACE(fd);
        const ChildRun run = ambrelAfter({"-allplugins"}, [fd] { ::close(fd); });
        EXPECT_EQ(run.exitCode, 0) << run.err;
        // The listing went nowhere; the log holds only its own stamped lines.
        const std::string log = taskLog(s);
        EXPECT_NE(log.find("Processing plugin " + glow), std::string::npos);
        EXPECT_EQ(log.find("\n" + glow + "\n"), std::string::npos);
        EXPECT_NE(log.substr(0, log.find('\n')).find(" - Log started: "), std::string::npos)
            << log.substr(0, 200);
    }
}

TEST(HostileStartTest, SetAccessSaysWhatIsWrongAndReadsAnyNonZeroScopeAsTheUser) {
    ScratchRoot s;
    const ChildProcess bare = ambrel({"-setaccess"});
    EXPECT_EQ(bare.exitCode, 1);
    EXPECT_NE(bare.err.find("Invalid argument count"), std::string::npos) << bare.err;

    makeBundle(s.rootPath("/Library/Plug-Ins/FxPlug/Glow.fxplug"));
    const ChildProcess two = ambrel({"-setaccess", "2", "Glow.fxplug"});
    EXPECT_EQ(two.exitCode, 0) << two.err;
    EXPECT_TRUE(fs::exists(s.homePath("/Library/Plug-Ins/FxPlug/Glow.fxplug")));
    const std::string log = taskLog(s);
    EXPECT_NE(log.find("Setting access for plugin N to current user..."), std::string::npos);
    EXPECT_EQ(log.find("to all users"), std::string::npos);
}

TEST(HostileStartTest, NoThreadToBeHadEndsIn1004WithALineOnStandardError) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run the child as another user";
    ScratchRoot s;
    ::chmod(s.base().c_str(), 0777);
    // A user with no processes left to start: the log's writer thread is the first to fail.
    const ChildRun run = ambrelAfter({"-allplugins"}, [] {
        ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the leak check needs a thread too
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(126);
        struct rlimit none {
            0, 0
        };
        ::setrlimit(RLIMIT_NPROC, &none);
    });
    ASSERT_NE(run.exitCode, 126) << "could not become nobody";
    EXPECT_EQ(run.exitCode, 1004 & 0xFF) << run.err;
    EXPECT_NE(run.err.find("Exception in -[AppController initWithoutGUI]"), std::string::npos)
        << run.err;
}

TEST(HostileStartTest, CraftedPlugInsNoLongerStopEveryVerb) {
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    makeBundle(fx + "/Good.fxplug");
    // A name with a zero character in a binary Info.plist made libplist assert.
    ScratchRoot::writeFile(fx + "/Zero.fxplug/Contents/Info.plist",
                           std::string("bplist00\xd1\x01\x02\x5c"
                                       "CFBundleName\x55Gl\0ow"
                                       "\x08\x0b\x18\x00\x00\x00\x00\x00\x00\x01\x01"
                                       "\x00\x00\x00\x00\x00\x00\x00\x03"
                                       "\x00\x00\x00\x00\x00\x00\x00\x00"
                                       "\x00\x00\x00\x00\x00\x00\x00\x1e",
                                       65));
    // 100,000 nested arrays in a localisation overflowed the stack.
    std::string deep = "<plist>";
    for (int i = 0; i < 100000; ++i) deep += "<array>";
    for (int i = 0; i < 100000; ++i) deep += "</array>";
    makeBundle(fx + "/Deep.fxplug");
    ScratchRoot::writeFile(fx + "/Deep.fxplug/Contents/Resources/en.lproj/InfoPlist.strings",
                           deep + "</plist>");

    const ChildProcess list = ambrel({"-allplugins"});
    EXPECT_EQ(list.exitCode, 0) << list.err;
    for (const char* n : {"/Good.fxplug\n", "/Zero.fxplug\n", "/Deep.fxplug\n"})
        EXPECT_NE(list.out.find(fx + n), std::string::npos) << n;
    const std::string log = taskLog(s);
    EXPECT_NE(log.find("Unable to read property list " + fx + "/Zero.fxplug/Contents/Info.plist"),
              std::string::npos);
    EXPECT_NE(log.find("Unable to read strings file " + fx + "/Deep.fxplug/Contents/Resources"),
              std::string::npos);

    const ChildProcess disable = ambrel({"-disable", "Good.fxplug"});
    EXPECT_EQ(disable.exitCode, 0) << disable.err;
    EXPECT_FALSE(fs::exists(fx + "/Good.fxplug"));
}
