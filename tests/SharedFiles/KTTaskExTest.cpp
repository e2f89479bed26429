#include "SharedFiles/KTTaskEx.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <set>

#include "SharedFiles/KTTaskNotification.h"
#include "SharedFiles/linux/KTToolPaths.h"
#include "support/ScratchRoot.h"

namespace {

class KTTaskExTest : public ::testing::Test {
  protected:
    /// An executable shell script in the scratch folder.
    std::string script(const std::string& name, const std::string& body) {
        std::string path = scratch.base() + "/" + name;
        ScratchRoot::writeFile(path, "#!/bin/sh\n" + body + "\n");
        chmod(path.c_str(), 0755);
        return path;
    }
    ScratchRoot scratch;
};

TEST_F(KTTaskExTest, RunTaskChecksOnlyAbsolutePaths) {
    std::string marker = scratch.base() + "/ran";
    script("touch.sh", "echo \"$#\" > '" + marker + "'");

    // Relative: started from the working folder without the check.
    char old[4096];
    ASSERT_NE(getcwd(old, sizeof old), nullptr);
    ASSERT_EQ(chdir(scratch.base().c_str()), 0);
    bool ran = KTTaskEx::runTask("touch.sh", std::nullopt);
    ASSERT_EQ(chdir(old), 0);
    EXPECT_TRUE(ran);
    // An absent argument list means no arguments at all.
    EXPECT_EQ(ScratchRoot::readFile(marker), "0\n");

    std::string plain = scratch.base() + "/plain.sh";
    ScratchRoot::writeFile(plain, "#!/bin/sh\ntouch '" + marker + "2'\n");
    EXPECT_FALSE(KTTaskEx::runTask(plain, {}));
    EXPECT_FALSE(KTTaskEx::runTask(scratch.base(), {}));  // a folder is never a tool
    EXPECT_FALSE(std::filesystem::exists(marker + "2"));
    EXPECT_EQ(KTTaskEx::terminationCodeFromTask(plain, {}), -1);
    EXPECT_FALSE(KTTaskEx::dataFromTask(plain, {}).has_value());
}

TEST_F(KTTaskExTest, CaptureReturnsOutputElseErrorText) {
    std::string both = script("both.sh", "printf out; printf err >&2");
    std::string errOnly = script("err.sh", "printf 'only error' >&2; exit 3");
    std::string silent = script("silent.sh", "exit 0");

    EXPECT_EQ(KTTaskEx::dataFromTask(both, {}), "out");
    EXPECT_EQ(KTTaskEx::dataFromTask(errOnly, {}), "only error");
    // With the error stream off the tool yields empty data, not nothing.
    EXPECT_EQ(KTTaskEx::dataFromTask(errOnly, {}, nullptr, std::nullopt, true, false), "");
    // With our own output stream handed over, only the error text is left.
    EXPECT_EQ(KTTaskEx::dataFromTask(both, {}, nullptr, std::nullopt, false, true), "err");
    EXPECT_EQ(KTTaskEx::dataFromTask(silent, {}), "");
    EXPECT_EQ(KTTaskEx::stringFromTask(silent, {}), "");
}

TEST_F(KTTaskExTest, ErrorBeforeChunkedOutputYieldsOnlyTheOutput) {
    std::string tool = script("abc.sh", "printf a >&2; sleep 0.1; printf b; sleep 0.1; printf c");
    EXPECT_EQ(KTTaskEx::stringFromTask(tool, {}), "bc");
}

TEST_F(KTTaskExTest, ArgumentsEnvironmentAndStatus) {
    std::string echo = script("echo.sh", "printf '%s|' \"$@\"; printf '%s' \"$FOO:$HOME\"");
    EXPECT_EQ(KTTaskEx::dataFromTask(echo, {"a b", "", "*"}, nullptr,
                                     std::map<std::string, std::string>{{"FOO", "bar"}}),
              "a b||*|bar:");

    std::string code = script("code.sh", "exit \"$1\"");
    EXPECT_EQ(KTTaskEx::terminationCodeFromTask(code, {"7"}), 7);
    KTTaskHandle handle;
    EXPECT_EQ(KTTaskEx::terminationCodeFromTask(code, {"0"}, &handle), 0);
    ASSERT_TRUE(handle);
    EXPECT_FALSE(handle->isRunning());
}

TEST_F(KTTaskExTest, DecodingFollowsTheEncodingCode) {
    std::string accented = script("utf8.sh", "printf 'caf\\303\\251'");
    EXPECT_EQ(KTTaskEx::stringFromTask(accented, {}), std::nullopt);  // 7-bit by default
    EXPECT_EQ(KTTaskEx::stringFromTask(accented, {}, KTStringEncoding::UTF8), "caf\xc3\xa9");
    EXPECT_EQ(KTTaskEx::decode("\xc3\x28", KTStringEncoding::UTF8), std::nullopt);
    EXPECT_EQ(KTTaskEx::decode("\xed\xa0\x80", KTStringEncoding::UTF8), std::nullopt);  // surrogate
    EXPECT_EQ(KTTaskEx::decode("\xe2\x82", KTStringEncoding::UTF8), std::nullopt);      // cut short
}

TEST_F(KTTaskExTest, TimeOutBelowOneSecondTerminatesAtOnce) {
    // exec: the terminate request must reach the process holding the pipes.
    std::string slow = script("slow.sh", "printf partial; exec sleep 60");
    // Whatever arrived before the end (possibly nothing) is the result.
    auto partial = KTTaskEx::stringFromTask(slow, {}, 0.5);
    ASSERT_TRUE(partial.has_value());
    EXPECT_TRUE(*partial == "" || *partial == "partial") << *partial;
    EXPECT_EQ(KTTaskEx::terminationCodeFromTask(slow, {}, 0.9), 15);
    KTTaskEx::runTask(slow, {}, 0.2);  // returns: the watchdog ended it
}

TEST_F(KTTaskExTest, ToolEndingBeforeItsTimeOutLeavesNothingToTerminate) {
    std::string quick = script("quick.sh", "printf done");
    auto runner = KTTaskEx::create();
    EXPECT_EQ(runner->dataFromTaskWithTimeout(quick, {}, 30), "done");
    EXPECT_FALSE(runner->theTask());
    runner->timeout();  // what the watchdog does when it wakes: nothing
}

TEST_F(KTTaskExTest, ToolPathsMapToThisMachineAndMissingToolsStayMissing) {
    EXPECT_EQ(KTToolPaths::resolve("/usr/sbin/chown"), "/usr/bin/chown");
    EXPECT_EQ(KTToolPaths::resolve("/usr/bin/xcrun"), std::nullopt);
    EXPECT_EQ(KTToolPaths::resolve("/opt/some/tool"), "/opt/some/tool");
    EXPECT_FALSE(KTTaskEx::runTask("/usr/bin/auval", {"-a"}));
    EXPECT_EQ(KTTaskEx::terminationCodeFromTask("/usr/bin/codesign", {}), -1);
    EXPECT_EQ(KTTaskEx::dataFromTask("/bin/mkdir", {"--version"}).value_or("").substr(0, 5),
              "mkdir");

    std::string standIns = scratch.base() + "/standins";
    script("standins/auval", "printf 'stand-in %s' \"$1\"");
    setenv("AMBREL_TOOL_DIR", standIns.c_str(), 1);
    auto out = KTTaskEx::stringFromTask("/usr/bin/auval", {"-a"});
    auto untouched = KTToolPaths::resolveSystem("/usr/bin/auval");
    unsetenv("AMBREL_TOOL_DIR");
    EXPECT_EQ(out, "stand-in -a");
    EXPECT_EQ(untouched, std::nullopt);
}

class Collector : public KTTaskExDelegate {
  public:
    void taskDidReturnData(const KTData& data, KTTaskEx& runner, const std::any* object) override {
        std::lock_guard<std::mutex> guard(lock);
        if (object) context = std::any_cast<int>(*object);
        if (data.empty()) {
            ended = true;
            changed.notify_all();
        } else {
            text += data;
        }
    }
    void waitForEnd() {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return ended; });
    }
    std::mutex lock;
    std::condition_variable changed;
    std::string text;
    int context = 0;
    bool ended = false;
};

TEST_F(KTTaskExTest, AsyncRunDeliversChunksThenEndsByItself) {
    std::string tool = script("async.sh", "printf one; sleep 0.1; printf two; printf x >&2");
    Collector collector;
    auto runner = KTTaskEx::create();
    runner->asyncDataFromTask(tool, {}, &collector, &KTTaskExDelegate::taskDidReturnData, 42);
    collector.waitForEnd();
    EXPECT_EQ(collector.text, "onetwo");  // standard error is not delivered
    EXPECT_EQ(collector.context, 42);
    EXPECT_EQ(runner->delegate(), nullptr);
    EXPECT_FALSE(runner->theTask());
}

TEST_F(KTTaskExTest, TerminatedAsyncRunStopsDelivering) {
    std::string tool = script("forever.sh", "printf first; exec sleep 60");
    struct FirstChunk : Collector {
        void taskDidReturnData(const KTData& d, KTTaskEx& r, const std::any* o) override {
            Collector::taskDidReturnData(d, r, o);
            std::lock_guard<std::mutex> guard(lock);
            ended = true;
            changed.notify_all();
        }
    } collector;
    auto runner = KTTaskEx::create();
    runner->asyncDataFromTask(tool, {}, &collector, &KTTaskExDelegate::taskDidReturnData, {});
    collector.waitForEnd();
    KTTaskHandle task = runner->theTask();
    runner->terminateAsyncTask();
    ASSERT_TRUE(task);
    EXPECT_EQ(task->terminationStatus(), 15);
    EXPECT_EQ(collector.text, "first");
}

class FakeCompanion : public KTCompanionCallback, public KTCompanionConnector {
  public:
    std::shared_ptr<KTCompanionCallback> lookup(const std::string& name) override {
        lookups.push_back(name);
        return name == registered ? std::shared_ptr<KTCompanionCallback>(this, [](auto*) {})
                                  : nullptr;
    }
    bool respondsToMessage(const std::string& m) const override { return answers.count(m) != 0; }
    void sendMessage(const std::string& m, const std::vector<std::string>& args) override {
        sent.push_back(m);
        lastArgs = args;
    }
    std::string registered;
    std::set<std::string> answers;
    std::vector<std::string> lookups, sent, lastArgs;
};

TEST(KTTaskNotificationTest, ReachesTheSecondCompanionAndFallsBackToShortMessages) {
    auto companion = std::make_shared<FakeCompanion>();
    companion->registered = "KTOrrinClientCallback";
    companion->answers = {"postErrorString:", "postError:forApp:"};
    KTTaskNotification::setConnector(companion);
    KTTaskNotification::postTaskErrorString("Ambrel: Unable to authorize.");
    KTTaskNotification::postTaskError("disk full");
    KTTaskNotification::postIncrementProgress();  // not answered: not sent
    KTTaskNotification::setConnector(nullptr);
    KTTaskNotification::postTaskFinished();  // no companion: nothing at all

    EXPECT_EQ(companion->lookups.front(), "KTVessaClientCallback");
    EXPECT_EQ(companion->sent, (std::vector<std::string>{"postErrorString:", "postError:forApp:"}));
    EXPECT_EQ(companion->lastArgs.at(0), "disk full");
}

}  // namespace
