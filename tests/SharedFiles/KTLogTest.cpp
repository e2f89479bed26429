#include "SharedFiles/KTLog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "SharedFiles/KTPlist.h"
#include "support/ScratchRoot.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

/// Run by the crash test's child (this program started again with
/// AMBREL_LOG_CRASH_CHILD set): an exception nobody catches must still reach
/// the log before the process dies.
[[maybe_unused]] const bool kCrashChild = [] {
    if (!std::getenv("AMBREL_LOG_CRASH_CHILD")) return false;
    KTLog::setSuperuserForTesting(false);
    KTLog::createNewLog(std::string("Crash"), true);
    std::thread([] { throw std::runtime_error("the disk caught fire"); }).join();
    std::_Exit(0);  // not reached
}();

/// Captures what the process writes to standard output.
class StdoutCapture {
  public:
    StdoutCapture() {
        std::fflush(stdout);
        path_ = fs::temp_directory_path() / ("ambrel-stdout-" + std::to_string(::getpid()));
        saved_ = ::dup(1);
        int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, 1);
        ::close(fd);
    }
    std::string finish() {
        if (saved_ >= 0) {
            std::fflush(stdout);
            ::dup2(saved_, 1);
            ::close(saved_);
            saved_ = -1;
        }
        std::string text = ScratchRoot::readFile(path_);
        fs::remove(path_);
        return text;
    }
    ~StdoutCapture() { finish(); }

  private:
    std::string path_;
    int saved_ = -1;
};

const std::regex kLine(R"(^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000) - (.*)$)");

/// The entries of a log file, date stamps checked and taken off.
std::vector<std::string> entries(const std::string& path) {
    std::vector<std::string> out;
    std::istringstream in(ScratchRoot::readFile(path));
    std::string line;
    while (std::getline(in, line)) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, kLine)) << "malformed line: " << line;
        out.push_back(m.size() > 2 ? m[2].str() : line);
    }
    return out;
}

void writeGlobalPrefs(const ScratchRoot& s, plist_t value) {
    KTPlistPtr dict(plist_new_dict());
    plist_dict_set_item(dict.get(), "disable-logging", value);
    std::string path = s.homePath("/Library/Preferences/com.quellbrook.global.plist");
    ScratchRoot::writeFile(path, KTPlist::toXML(dict.get()));
}

class KTLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        KTLog::resetForTesting();
        KTLog::setSuperuserForTesting(false);
    }
    void TearDown() override {
        KTLog::finishWriting();
        KTLog::resetForTesting();
        KTLog::setSuperuserForTesting(std::nullopt);
        KTLog::setRestartThresholdForTesting(5000000);
    }
    std::string logFile(const std::string& app, int n) const {
        return scratch.homePath("/Library/Logs/Quellbrook/" + app + "." + std::to_string(n) +
                                ".log");
    }
    ScratchRoot scratch;
};

}  // namespace

TEST_F(KTLogTest, NewLogStartsWithTheHeaderAndStampsEveryLine) {
    KTLog::createNewLog(std::string("Probe"), true);
    KTLog::appendLog("Moved %@ to %@ (%i of %li)", "Glow.fxplug", "/Library", 1, 2L);
    KTLog::appendLog("  \n\t ");  // nothing to write
    KTLog::fastAppendLog("\n  padded entry \n");
    KTLog::finishWriting();

    auto lines = entries(logFile("Probe", 1));
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_TRUE(std::regex_match(
        lines[0], std::regex(R"(Log started: \d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000)")));
    EXPECT_EQ(lines[1], "Version: " AMBREL_VERSION);
    EXPECT_EQ(lines[2], "Path: " + fs::read_symlink("/proc/self/exe").string());
    struct utsname u {};
    ::uname(&u);
    EXPECT_TRUE(std::regex_match(
        lines[3],
        std::regex("System: Linux " +
                   std::regex_replace(std::string(u.release), std::regex(R"([.+()])"), R"(\$&)") +
                   R"(, [1-9]\d* CPU\(s\), \d+\.\d\d GB RAM)")))
        << lines[3];
    EXPECT_EQ(lines[4], "Running in 64-bit mode");
    EXPECT_EQ(lines[5], "Moved Glow.fxplug to /Library (1 of 2)");
    EXPECT_EQ(lines[6], "padded entry");
    EXPECT_EQ(KTLog::sharedController()->bytesInQueue(), 0u);
}

TEST_F(KTLogTest, ShortEntriesFromBackgroundThreadsAreOnDiskWhenAppendLogReturns) {
    KTLog::createNewLog(std::string("Wait"), true);
    KTLog::finishWriting();
    std::string seen;
    std::thread([&] {
        KTLog::appendLog("short entry");
        seen = ScratchRoot::readFile(logFile("Wait", 1));
    }).join();
    EXPECT_NE(seen.find(" - short entry\n"), std::string::npos);
}

TEST_F(KTLogTest, PerCentSignsInTextsAndArguments) {
    EXPECT_EQ(KTLog::escapeTextForLogging("50% done"), "50%% done");
    EXPECT_EQ(KTLog::escapeTextForLogging("already 50%% done"), "already 50%% done");
    EXPECT_EQ(KTLog::escapeTextForLogging("%@ at 5%, then %i%."), "%@ at 5%%, then %i%%.");
    EXPECT_EQ(KTLog::escapeTextForLogging("no sign"), "no sign");

    KTLog::createNewLog(std::string("Esc"), true);
    KTLog::appendLog("50% done with %@", "Glow");
    KTLog::appendLog("already 50%% done");
    KTLog::appendLog("Moving %@", "odd %@ name %s 100%.plugin");
    KTLog::finishWriting();
    auto lines = entries(logFile("Esc", 1));
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[lines.size() - 3], "50% done with Glow");
    EXPECT_EQ(lines[lines.size() - 2], "already 50% done");
    EXPECT_EQ(lines[lines.size() - 1], "Moving odd %@ name %s 100%.plugin");
}

TEST_F(KTLogTest, PrintedCopyShowsPerCentDoubledAndNoPrintingSilencesIt) {
    KTLog::createNewLog(std::string("Print"));
    StdoutCapture capture;
    KTLog::appendLogAndPrint("Converted %i plug-ins, 50% done  ", 3);
    KTLog::appendLogAndDebugPrint("debug only");
    std::string printed = capture.finish();
    EXPECT_EQ(printed, "Converted 3 plug-ins, 50%% done\n");
    KTLog::finishWriting();

    KTLog::createNewLog(std::string("Print"), true);
    StdoutCapture quiet;
    KTLog::appendLogAndPrint("not shown");
    EXPECT_EQ(quiet.finish(), "");

    KTLog::finishWriting();
    auto older = entries(logFile("Print", 2));
    ASSERT_GE(older.size(), 2u);
    EXPECT_EQ(older[older.size() - 2], "Converted 3 plug-ins, 50% done");
    EXPECT_EQ(older.back(), "debug only");
    EXPECT_EQ(entries(logFile("Print", 1)).back(), "not shown");
}

TEST_F(KTLogTest, NewLogRotatesFiveFiles) {
    for (int n = 1; n <= 5; ++n)
        ScratchRoot::writeFile(logFile("Rot", n), "file " + std::to_string(n) + "\n");
    KTLog::createNewLog(std::string("Rot"), true);
    KTLog::finishWriting();
    for (int n = 2; n <= 5; ++n)
        EXPECT_EQ(ScratchRoot::readFile(logFile("Rot", n)), "file " + std::to_string(n - 1) + "\n");
    EXPECT_EQ(entries(logFile("Rot", 1)).front().rfind("Log started: ", 0), 0u);

    // Only file 1: it becomes 2; the gaps stay gaps.
    KTLog::resetForTesting();
    for (int n = 2; n <= 5; ++n) fs::remove(logFile("Rot", n));
    ScratchRoot::writeFile(logFile("Rot", 4), "four\n");
    KTLog::createNewLog(std::string("Rot"), true);
    KTLog::finishWriting();
    EXPECT_TRUE(fs::exists(logFile("Rot", 2)));
    EXPECT_FALSE(fs::exists(logFile("Rot", 3)));
    EXPECT_EQ(ScratchRoot::readFile(logFile("Rot", 5)), "four\n");
    std::vector<std::string> expected = {logFile("Rot", 1), logFile("Rot", 2), logFile("Rot", 5)};
    EXPECT_EQ(KTLog::availableLogs(), expected);
}

TEST_F(KTLogTest, SuperuserWritesTheCurrentFileInTheMachineFolder) {
    KTLog::setSuperuserForTesting(true);
    KTLog::createNewLog(std::string("Root"), true);
    KTLog::appendLog("as root");
    KTLog::finishWriting();
    EXPECT_EQ(entries(scratch.rootPath("/Library/Logs/Quellbrook/Root.1.log")).back(), "as root");
    EXPECT_TRUE(fs::is_directory(scratch.homePath("/Library/Logs/Quellbrook")));
    EXPECT_FALSE(fs::exists(logFile("Root", 1)));
}

TEST_F(KTLogTest, DisableLoggingPreference) {
    struct Case {
        const char* name;
        plist_t value;
        bool disables;
    };
    std::vector<Case> cases = {
        {"string 1", plist_new_string("1"), true},
        {"true", plist_new_bool(1), true},
        {"number 1", plist_new_uint(1), true},
        {"string 0", plist_new_string("0"), false},
        {"false", plist_new_bool(0), false},
        {"number 2", plist_new_uint(2), false},
        {"string YES", plist_new_string("YES"), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        KTLog::resetForTesting();
        fs::remove_all(scratch.homePath("/Library/Logs"));
        writeGlobalPrefs(scratch, c.value);
        StdoutCapture capture;
        KTLog::createNewLog(std::string("Off"));
        KTLog::appendLog("an entry");
        KTLog::finishWriting();
        std::string printed = capture.finish();
        EXPECT_EQ(KTLog::sharedController()->loggingDisabled(), c.disables);
        EXPECT_EQ(printed, c.disables ? "Logging is disabled\n" : "");
        EXPECT_EQ(fs::exists(logFile("Off", 1)), !c.disables);
    }
    // Disabled is final for the process: a new log does not bring it back.
    KTLog::resetForTesting();
    writeGlobalPrefs(scratch, plist_new_bool(1));
    KTLog::createNewLog(std::string("Off"), true);
    fs::remove(scratch.homePath("/Library/Preferences/com.quellbrook.global.plist"));
    KTLog::createNewLog(std::string("Off"), true);
    EXPECT_TRUE(KTLog::sharedController()->loggingDisabled());
}

TEST_F(KTLogTest, RestartRotatesWithoutLosingOrDuplicatingEntries) {
    KTLog::setRestartThresholdForTesting(6000);
    KTLog::createNewLog(std::string("Big"), true);
    // Background writers take the short-entry wait, the main thread does not;
    // both must get through restarts that happen on the writer.
    constexpr int kPerThread = 60;
    auto writeSome = [](int thread) {
        for (int i = 0; i < kPerThread; ++i)
            KTLog::appendLog("entry %i-%i with some padding to fill the file", thread, i);
    };
    std::thread a(writeSome, 1), b(writeSome, 2);
    writeSome(0);
    a.join();
    b.join();
    KTLog::finishWriting();

    std::map<std::string, int> seen;
    int restartedFiles = 0;
    for (const std::string& file : KTLog::availableLogs()) {
        auto lines = entries(file);
        ASSERT_GE(lines.size(), 6u) << file;
        EXPECT_EQ(lines[0].rfind("Log started: ", 0), 0u) << file;
        EXPECT_EQ(lines[4], "Running in 64-bit mode") << file;
        if (lines[5] == "Log truncated at 500KB") ++restartedFiles;
        for (const auto& l : lines)
            if (l.rfind("entry ", 0) == 0) ++seen[l];
    }
    EXPECT_GE(restartedFiles, 1);
    EXPECT_EQ(entries(logFile("Big", 1))[5], "Log truncated at 500KB");
    for (const auto& [line, count] : seen) EXPECT_EQ(count, 1) << line;
    // 180 entries of about 75 bytes fill fewer than five files of 6,000 bytes: none is lost.
    EXPECT_EQ(seen.size(), 3u * kPerThread);
}

TEST_F(KTLogTest, WillTerminateFlushesThenDropsLaterEntries) {
    KTLog::createNewLog(std::string("Quit"), true);
    for (int i = 0; i < 5; ++i) KTLog::fastAppendLog("before quitting %i", i);
    KTLog::willTerminate();
    KTLog::fastAppendLog("after quitting");
    KTLog::finishWriting();
    auto lines = entries(logFile("Quit", 1));
    EXPECT_EQ(lines.back(), "before quitting 4");
}

TEST_F(KTLogTest, ExceptionsBecomeEntries) {
    KTLog::createNewLog(std::string("Exc"), true);
    std::string text =
        KTException::logException(std::runtime_error("bad plist"), "-[AppController load]");
    EXPECT_EQ(text, "Exception in -[AppController load]. std::exception - bad plist.");
    KTLog::finishWriting();
    EXPECT_EQ(entries(logFile("Exc", 1)).back(), text);
}

TEST_F(KTLogTest, UncaughtExceptionReachesTheFileBeforeTheProcessDies) {
    std::string childEnv = "AMBREL_LOG_CRASH_CHILD=1";
    std::vector<std::string> env = {childEnv};
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    std::vector<char*> envp;
    for (auto& s : env) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::string self = fs::read_symlink("/proc/self/exe").string();
    std::string filter = "--gtest_filter=None";
    char* argv[] = {self.data(), filter.data(), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, self.c_str(), &actions, nullptr, argv, envp.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;

    auto lines = entries(logFile("Crash", 1));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "the disk caught fire");
}
