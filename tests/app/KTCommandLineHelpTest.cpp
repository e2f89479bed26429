// What a person gets who types "ambrel --help", or "ambrel" where no window can open.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>

#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace {

/// Takes a variable out of the environment for the life of the guard.
class UnsetEnv {
  public:
    explicit UnsetEnv(const char* name) : name_(name) {
        if (const char* v = getenv(name)) old_ = v;
        unsetenv(name);
    }
    ~UnsetEnv() {
        if (old_) setenv(name_, old_->c_str(), 1);
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

ChildProcess ambrel(std::vector<std::string> args) {
    args.insert(args.begin(), ChildProcess::builtProgram("ambrel"));
    return ChildProcess::run(args);
}

}  // namespace

TEST(KTCommandLineHelpTest, HelpAndVersionNeedNoDisplayAndTouchNothing) {
    ScratchRoot s;
    UnsetEnv a("DISPLAY"), b("WAYLAND_DISPLAY"), c("QT_QPA_PLATFORM");
    ChildProcess help = ambrel({"--help"});
    EXPECT_EQ(help.exitCode, 0) << help.err;
    EXPECT_NE(help.out.find("-disable"), std::string::npos);
    EXPECT_NE(help.out.find("WITHOUT A NAME EVERY"), std::string::npos)
        << "the warning about -remove alone is part of the help";
    EXPECT_EQ(help.err, "");

    ChildProcess version = ambrel({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out.rfind("ambrel ", 0), 0u) << version.out;

    // Neither wrote a log or made a folder in the scratch home.
    EXPECT_FALSE(std::filesystem::exists(s.homePath("/Library/Logs")));
}

TEST(KTCommandLineHelpTest, WithoutDisplayOneLineNamesTheVerbsInsteadOfQtsAbort) {
    ScratchRoot s;
    UnsetEnv a("DISPLAY"), b("WAYLAND_DISPLAY"), c("QT_QPA_PLATFORM");
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{}, std::vector<std::string>{"-notaverb"}}) {
        ChildProcess r = ambrel(args);
        EXPECT_EQ(r.exitCode, 1);
        EXPECT_NE(r.err.find("no display"), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("--help"), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("qt.qpa"), std::string::npos) << r.err;
    }
}
