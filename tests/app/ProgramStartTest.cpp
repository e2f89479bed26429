// What the program loads to start: a verb runs without the window's Qt or
// the libraries of the keychain, certificates, zip and uploads; a module
// that is missing or broken is reported, never a crash.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

/// Sets (or, with nothing, removes) a variable for the life of the guard.
class SetEnv {
  public:
    SetEnv(const char* name, std::optional<std::string> value) : name_(name) {
        if (const char* v = getenv(name)) old_ = v;
        if (value)
            setenv(name, value->c_str(), 1);
        else
            unsetenv(name);
    }
    ~SetEnv() {
        if (old_)
            setenv(name_, old_->c_str(), 1);
        else
            unsetenv(name_);
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

/// What the window and the services bring in; a verb must map none of it.
const std::vector<std::string> kHeavy = {"libQt6",    "libsecret",     "libgio",
                                         "libcrypto", "libssl",        "libzip",
                                         "libcurl",   "ambrel-window", "ambrel-services"};

/// The files the dynamic loader opened, from its LD_DEBUG=files trace.
std::vector<std::string> loadedFiles(const std::string& trace) {
    std::vector<std::string> out;
    for (std::size_t at = trace.find("file="); at != std::string::npos;
         at = trace.find("file=", at + 5)) {
        const std::size_t end = trace.find_first_of(" \t\n[", at + 5);
        out.push_back(trace.substr(at + 5, end - at - 5));
    }
    return out;
}

/// A copy of the built program in its own folder, with `modules` (file name,
/// content) beside it: what the loader meets there is what it uses.
std::string programBeside(const ScratchRoot& s,
                          const std::vector<std::pair<std::string, std::string>>& modules) {
    const std::string bin = s.base() + "/bin";
    fs::create_directories(bin);
    fs::copy_file(ChildProcess::builtProgram("ambrel"), bin + "/ambrel");
    for (const auto& [name, content] : modules) ScratchRoot::writeFile(bin + "/" + name, content);
    return bin + "/ambrel";
}

/// The log of the command line's verbs.
std::string logText(const ScratchRoot& s) {
    const std::string rel = "/Library/Logs/Quellbrook/Ambrel.task.1.log";
    const std::string path = ::geteuid() == 0 ? s.rootPath(rel) : s.homePath(rel);
    return fs::exists(path) ? ScratchRoot::readFile(path) : std::string();
}

const std::string kNotAModule(200, 'x');

}  // namespace

TEST(ProgramStartTest, VerbsLoadNeitherTheWindowNorTheServices) {
    ScratchRoot s;
    ScratchRoot::writeFile(s.rootPath("/Library/Audio/Plug-Ins/VST/Echo.vst/Contents/Info.plist"),
                           "<plist><dict/></plist>");
    const std::string ambrel = ChildProcess::builtProgram("ambrel");
    for (const std::vector<std::string>& verb :
         {std::vector<std::string>{"-allplugins"}, {"-disable", "NOMATCH"}, {"--help"}}) {
        std::vector<std::string> argv{ambrel};
        argv.insert(argv.end(), verb.begin(), verb.end());
        ChildProcess r;
        {
            SetEnv trace("LD_DEBUG", "files");
            SetEnv display("QT_QPA_PLATFORM", "offscreen");  // a window could open
            r = ChildProcess::run(argv);
        }
        const std::vector<std::string> files = loadedFiles(r.err);
        // The trace itself is there: an empty one would pass anything.
        bool libc = false;
        for (const auto& f : files) libc = libc || f.find("libc.so") != std::string::npos;
        ASSERT_TRUE(libc) << verb[0] << ": no loader trace\n" << r.err;
        for (const auto& f : files)
            for (const auto& heavy : kHeavy)
                EXPECT_EQ(f.find(heavy), std::string::npos) << verb[0] << " loaded " << f;
    }
}

TEST(ProgramStartTest, TheHelperNeedsNoneOfTheHeavyLibraries) {
    // The helper runs as root: it links no module and none of their libraries.
    for (const std::string program : {"ambrel", "ambrel-helper"}) {
        ChildProcess r =
            ChildProcess::run({"/usr/bin/readelf", "-d", ChildProcess::builtProgram(program)});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        ASSERT_NE(r.out.find("(NEEDED)"), std::string::npos) << r.out;
        for (const auto& heavy : kHeavy)
            EXPECT_EQ(r.out.find(heavy), std::string::npos) << program << " needs " << heavy;
    }
}

TEST(ProgramStartTest, ABrokenModuleBesideTheProgramIsReportedAndNothingCrashes) {
    ScratchRoot s;
    const std::string ambrel =
        programBeside(s, {{"ambrel-services.so", kNotAModule}, {"ambrel-window.so", kNotAModule}});
    const std::string bin = fs::path(ambrel).parent_path().string();

    // The keychain is reached for (a bus address is set), the module fails
    // to open: the verb says it could not store, and exits.
    {
        SetEnv bus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + s.base() + "/no-bus");
        ChildProcess r = ChildProcess::run(
            {"/bin/sh", "-c", "printf 'secret\\n' | \"$0\" -setappleid a@b.c", ambrel});
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
    }
    const std::string log = logText(s);
    EXPECT_NE(log.find("Unable to load the services module"), std::string::npos) << log;
    // Named by the copy beside the program, not one further down the list.
    EXPECT_NE(log.find(bin + "/ambrel-services.so: "), std::string::npos) << log;
    EXPECT_NE(log.find("Unable to store the Apple ID in the keychain"), std::string::npos) << log;

    // The window's module: one line, not an abort.
    SetEnv display("QT_QPA_PLATFORM", "offscreen");
    ChildProcess window = ChildProcess::run({ambrel});
    EXPECT_EQ(window.exitCode, 1) << window.err;
    EXPECT_NE(window.err.find("unable to load the window: " + bin + "/ambrel-window.so: "),
              std::string::npos)
        << window.err;
}
