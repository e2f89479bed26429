// The crash tester against fake hosts (shell scripts in ".app" bundles that
// crash while given plug-ins are enabled) over a scratch tree, with the waits
// shrunk: both searches, every end, and the journal of a killed test.
#include "diagnostics/KTCrashTester.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>

#include "CrashTestWorld.h"
#include "SharedFiles/KTPlist.h"
#include "support/ChildProcess.h"

extern char** environ;

namespace {

std::string stem(const std::string& path) {
    return std::filesystem::path(path).stem().string();
}

}  // namespace

TEST(KTCrashTesterTest, OneAtATimeLeavesTheCulpritDisabledAndTheEarlierOnesEnabled) {
    CrashTestWorld w;
    w.fxPlugs(5);
    w.load();
    const auto list = w.testList();
    ASSERT_EQ(list.size(), 5u);
    const std::string culprit = list[2];
    // The bundle spells its identifier in lower case: the launcher still finds
    // it, and its notices still count as the host's.
    w.host("com.apple.finalcutpro", {culprit});

    EXPECT_EQ(w.run(0, false), KTCrashTestOutcome::culpritFound);
    EXPECT_EQ(w.missing(list), std::vector<std::string>{culprit});
    EXPECT_TRUE(pathExists(w.mirror(culprit)));
    EXPECT_EQ(w.tester().culprits(), std::vector<std::string>{culprit});
    EXPECT_EQ(w.tester().relaunchCount(), 4);  // rounds 0 to 3
    EXPECT_FALSE(w.tester().testRunning());
    EXPECT_TRUE(w.logged("Processing " + stem(list[0]) + " (1 of 5)"));
    EXPECT_TRUE(w.logged("Crash Tester found problems with the \"" + stem(culprit) +
                         "\" plugin. This plugin has been disabled."));
    // Plug-ins after the culprit were never touched.
    EXPECT_FALSE(w.logged("Disabling plugin " + stem(list[3])));
    EXPECT_FALSE(pathExists(KTCrashTestJournal::journalPath()));
    // The surviving host is left running; the running check compares exactly,
    // so its lower-case identifier is not Final Cut Pro's.
    const auto running = KTWorkspace::shared().runningApplicationIdentifiers();
    EXPECT_EQ(running, std::vector<std::string>{"com.apple.finalcutpro"});
}

TEST(KTCrashTesterTest, EndsWithoutACulpritWhenTheCrashIsNotAPluginsOrDoesNotHappen) {
    CrashTestWorld w;
    w.fxPlugs(3);
    w.load();
    const auto list = w.testList();

    w.host("com.apple.FinalCutPro", {});
    EXPECT_EQ(w.run(0, false), KTCrashTestOutcome::notReproduced);
    EXPECT_EQ(w.tester().relaunchCount(), 1);
    EXPECT_TRUE(w.missing(list).empty());
    EXPECT_TRUE(w.logged("Crash Tester has been unable to replicate the crash. Test aborted."));
    w.killHosts();

    w.alwaysCrashingHost("com.apple.FinalCutPro");
    for (bool halving : {false, true}) {
        EXPECT_EQ(w.run(0, halving), KTCrashTestOutcome::notCausedByPlugin) << halving;
        EXPECT_TRUE(w.missing(list).empty()) << halving;
        EXPECT_TRUE(w.tester().culprits().empty());
    }
    EXPECT_TRUE(w.logged("It is likely that the crash is not caused by a plugin."));

    // A host with no candidates at all: one round decides.
    EXPECT_EQ(w.run(4, false), KTCrashTestOutcome::aborted);  // Premiere is not installed
    w.alwaysCrashingHost("com.adobe.AdobePremierePro");
    EXPECT_EQ(w.run(4, false), KTCrashTestOutcome::notCausedByPlugin);
    EXPECT_EQ(w.tester().relaunchCount(), 1);
    w.host("com.adobe.AdobePremierePro", {});
    EXPECT_EQ(w.run(4, true), KTCrashTestOutcome::notReproduced);
    EXPECT_EQ(w.tester().relaunchCount(), 1);
}

TEST(KTCrashTesterTest, AbortsWhenTheHostRunsAlreadyOrCannotBeLaunched) {
    CrashTestWorld w;
    const auto plugs = w.fxPlugs(2);
    w.load();

    w.host("com.apple.FinalCutPro", {});
    ASSERT_TRUE(KTWorkspace::shared().launchApplication("com.apple.FinalCutPro"));
    EXPECT_EQ(w.run(0, false), KTCrashTestOutcome::aborted);
    EXPECT_EQ(w.tester().relaunchCount(), 0);
    EXPECT_TRUE(w.logged("Final Cut Pro is running. Please close it before launching the test."));
    EXPECT_FALSE(w.logged("Disabling plugin"));
    w.killHosts();

    w.notExecutableHost("com.apple.FinalCutPro");
    EXPECT_EQ(w.run(0, false), KTCrashTestOutcome::aborted);
    EXPECT_TRUE(w.logged("Unable to launch Final Cut Pro. Crash Test aborted."));
    EXPECT_TRUE(w.missing(plugs).empty());
    EXPECT_FALSE(pathExists(KTCrashTestJournal::journalPath()));
}

TEST(KTCrashTesterTest, AvidNeverDisablesAnAVX2Plugin) {
    CrashTestWorld w;
    const std::string avx = w.scratch.rootPath(
        "/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins/Grade.avx");
    const std::string avx2 =
        KTPluginLocations::folderForKey(KTPluginLocations::buildPluginFolderDict(), "avidAVX2")
            .value() +
        "Glitch.avx";
    ScratchRoot::writeFile(avx + "/Contents/Info.plist", "x");
    ScratchRoot::writeFile(avx2 + "/Contents/Info.plist", "x");
    w.load();
    ASSERT_TRUE(w.plugin("Glitch.avx"));
    ASSERT_EQ(w.plugin("Glitch.avx")->pluginType(), KTPluginType::AvidAVX2);
    EXPECT_EQ(w.testList(5), std::vector<std::string>{avx});

    w.host("com.avid.MediaComposer", {avx2}, "/Applications/Avid Media Composer/Avid.app");
    EXPECT_EQ(w.run(5, false), KTCrashTestOutcome::notCausedByPlugin);
    EXPECT_FALSE(w.logged("Disabling plugin Glitch"));
    EXPECT_TRUE(w.missing({avx, avx2}).empty());
}

namespace {

/// Halving over `n` plug-ins with culprits at `positions` of the test list;
/// answers the relaunches, after checking what was found and left.
int halvingFinds(int n, const std::vector<int>& positions) {
    CrashTestWorld w;
    w.fxPlugs(n);
    w.load();
    const auto list = w.testList();
    std::vector<std::string> culprits;
    for (int p : positions) culprits.push_back(list[static_cast<std::size_t>(p)]);
    w.host("com.apple.FinalCutPro", culprits);

    EXPECT_EQ(w.run(0, true), KTCrashTestOutcome::culpritFound);
    EXPECT_EQ(w.tester().culprits(), culprits);
    EXPECT_EQ(w.missing(list), culprits);
    for (const std::string& c : culprits) {
        EXPECT_TRUE(w.logged("Crash Tester found problems with the \"" + stem(c) + "\" plugin."));
    }
    EXPECT_TRUE(w.logged("Crash Tester relaunched Final Cut Pro " +
                         std::to_string(w.tester().relaunchCount()) + " times."));
    EXPECT_FALSE(pathExists(KTCrashTestJournal::journalPath()));
    return w.tester().relaunchCount();
}

}  // namespace

TEST(KTCrashTesterTest, HalvingFindsTheFirstAndTheLastCandidate) {
    // Round 0, at most ceil(log2(12)) + 1 halvings, the proof.
    // (One in the middle: the command-line test's.)
    for (int position : {0, 11}) EXPECT_LE(halvingFinds(12, {position}), 7) << position;
}

TEST(KTCrashTesterTest, HalvingFindsEveryCulpritAndProvesThemTogether) {
    // Each culprit costs its halvings and a proof; one at a time would take 10.
    EXPECT_LE(halvingFinds(12, {2, 8}), 11);
}

namespace {

/// `ambrel -crashtest ...` started in the background.
pid_t startAmbrel(const std::vector<std::string>& args, const std::string& output) {
    std::vector<std::string> argv{ChildProcess::builtProgram("ambrel")};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (auto& a : argv) raw.push_back(a.data());
    raw.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT, 0644);
    pid_t pid = -1;
    posix_spawn(&pid, raw[0], &actions, nullptr, raw.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

/// The journal's entries once it holds at least `count` (20 s at most).
std::size_t waitForJournal(std::size_t count) {
    for (int i = 0; i < 2000; ++i) {
        KTPlistPtr array = KTPlist::readFile(KTCrashTestJournal::journalPath());
        if (array && plist_array_get_size(array.get()) >= count)
            return plist_array_get_size(array.get());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}

int waitForExit(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

TEST(KTCrashTesterTest, CommandLineFindsTheCulpritInBothModesAndExitsWithTheOutcome) {
    CrashTestWorld w;
    const auto plugs = w.fxPlugs(6);
    w.load();
    const std::string culprit = w.testList()[4];
    w.host("com.apple.FinalCutPro", {culprit});
    for (const char* mode : {"", "-halving"}) {
        std::vector<std::string> argv{ChildProcess::builtProgram("ambrel"), "-crashtest",
                                      "final cut pro"};
        if (*mode) argv.push_back(mode);
        ChildProcess run = ChildProcess::run(argv);
        EXPECT_EQ(run.exitCode, 0) << mode << run.out << run.err;
        EXPECT_NE(run.out.find("Crash Tester found problems with the \"" + stem(culprit) +
                               "\" plugin. This plugin has been disabled."),
                  std::string::npos)
            << run.out;
        EXPECT_NE(run.out.find("Crash Tester relaunched Final Cut Pro"), std::string::npos);
        EXPECT_EQ(w.missing(plugs), std::vector<std::string>{culprit}) << mode;
        w.killHosts();
        ASSERT_TRUE(w.outline().moveFileFrom(w.mirror(culprit), culprit));
    }
    ChildProcess unknown =
        ChildProcess::run({ChildProcess::builtProgram("ambrel"), "-crashtest", "Logic"});
    EXPECT_EQ(unknown.exitCode, 3);
    EXPECT_NE(unknown.err.find("unknown host \"Logic\""), std::string::npos);

    w.host("com.apple.FinalCutPro", {});
    EXPECT_EQ(ChildProcess::run({ChildProcess::builtProgram("ambrel"), "-crashtest", "0"}).exitCode,
              1);
}

TEST(KTCrashTesterTest, SigintEndsTheCommandThroughTheCleanUp) {
    CrashTestWorld w;
    const auto plugs = w.fxPlugs(8);
    w.alwaysCrashingHost("com.apple.FinalCutPro", "0.05");
    const std::string out = w.scratch.base() + "/out.txt";
    const pid_t pid = startAmbrel({"-crashtest", "0"}, out);
    ASSERT_GT(pid, 0);
    ASSERT_GE(waitForJournal(2), 2u) << ScratchRoot::readFile(out);
    ::kill(pid, SIGINT);
    EXPECT_EQ(waitForExit(pid), 3);
    EXPECT_TRUE(w.missing(plugs).empty());
    EXPECT_FALSE(pathExists(KTCrashTestJournal::journalPath()));
}

TEST(KTCrashTesterTest, TheNextStartEnablesWhatAKilledTestLeftDisabled) {
    CrashTestWorld w;
    const auto plugs = w.fxPlugs(8);
    w.alwaysCrashingHost("com.apple.FinalCutPro", "0.05");
    const std::string out = w.scratch.base() + "/out.txt";
    const pid_t pid = startAmbrel({"-crashtest", "0"}, out);
    ASSERT_GT(pid, 0);
    ASSERT_GE(waitForJournal(3), 3u) << ScratchRoot::readFile(out);
    ::kill(pid, SIGKILL);
    waitForExit(pid);
    EXPECT_GE(w.missing(plugs).size(), 2u);

    // Any verb starts by undoing it; the catalogue it lists is whole again.
    ChildProcess list = ChildProcess::run({ChildProcess::builtProgram("ambrel"), "-allplugins"});
    EXPECT_EQ(list.exitCode, 0);
    EXPECT_TRUE(w.missing(plugs).empty());
    for (const std::string& p : plugs) EXPECT_NE(list.out.find(p + "\n"), std::string::npos);
    EXPECT_FALSE(pathExists(KTCrashTestJournal::journalPath()));
    if (pathExists(w.disabled())) {
        for (auto& e : std::filesystem::recursive_directory_iterator(w.disabled()))
            ADD_FAILURE() << "left: " << e.path();
    }
    const std::string taskLog = ScratchRoot::readFile(
        std::filesystem::path(KTLog::currentLogPath()).parent_path() / "Ambrel.task.1.log");
    EXPECT_NE(taskLog.find("A crash test did not finish: enabling the"), std::string::npos);
}

TEST(KTCrashTesterTest, ALiveTestsJournalIsLeftAlone) {
    CrashTestWorld w;
    KTCrashTestJournal running;
    ASSERT_TRUE(running.begin());
    ASSERT_TRUE(running.add("/nowhere/P1.fxplug"));
    KTCrashTestJournal second;
    EXPECT_FALSE(second.begin());
    EXPECT_FALSE(second.takeLeftOver());
    EXPECT_EQ(w.tester().replayJournal(), 0);
    EXPECT_TRUE(pathExists(KTCrashTestJournal::journalPath()));
    running.clear();
    EXPECT_FALSE(pathExists(KTCrashTestJournal::journalPath()));
}
