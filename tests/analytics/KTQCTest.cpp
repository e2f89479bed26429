#include "analytics/KTQC.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "KTQCTestSupport.h"
#include "SharedFiles/KTPlist.h"

namespace fs = std::filesystem;

namespace {

constexpr long long kDay = 86400;

class KTQCTest : public KTQCTestBase {
  protected:
    /// One field's value in the last body sent.
    std::string sentField(const std::string& name) {
        const std::string& body = transport->sent.back().body;
        const std::string head = "name=\"" + name + "\"\r\n\r\n";
        const auto start = body.find(head) + head.size();
        return body.substr(start, body.find("\r\n", start) - start);
    }
    static void setDate(KTPreferences& p, const char* key, double when) {
        p.setPlist(key, KTPlist::newDate(static_cast<long long>(when)).get());
    }
    static std::optional<long long> date(KTPreferences& p, const char* key) {
        return KTPlist::dateValue(p.plistForKey(key).get());
    }
};

}  // namespace

TEST_F(KTQCTest, QuestionComesFromTheThirdLaunchAndMoreInfoLeavesItOpen) {
    launchAndQuit();
    launchAndQuit();
    EXPECT_EQ(asks, 0);

    auto third = launch();
    RecordingQuestion window;
    third->loadQC(window);
    ASSERT_EQ(window.asked.size(), 1u);
    EXPECT_EQ(window.delays[0], std::chrono::seconds(5));
    EXPECT_EQ(window.asked[0].buttons,
              (std::vector<std::string>{"Allow", "More Info", "Don't Allow"}));
    window.answer(1);
    EXPECT_EQ(window.opened, std::vector<std::string>{"https://example.invalid/analytics"});
    EXPECT_FALSE(qcPrefs().plistForKey("logQC"));
    third.reset();

    // Asked again; "Allow" on the fourth launch records and, never having
    // submitted, uploads at once.
    launchAndQuit(0);
    EXPECT_EQ(asks, 1);
    EXPECT_TRUE(qcPrefs().boolForKey("logQC"));
    ASSERT_EQ(transport->sent.size(), 1u);
    EXPECT_EQ(sentField("events"),
              "[{\"event\":\"launch\",\"date\":1700000000},{\"event\":\"specs\",\"date\":"
              "1700000000,\"data\":\"Debian GNU/Linux 12 (bookworm)\"}]");
    launchAndQuit();
    EXPECT_EQ(asks, 1);
}

TEST_F(KTQCTest, RefusedOrUnconfiguredMeansNothingRecordedWrittenOrSent) {
    launchAndQuit();
    launchAndQuit();
    launchAndQuit(2);  // "Don't Allow"
    ASSERT_TRUE(qcPrefs().plistForKey("logQC"));
    EXPECT_FALSE(qcPrefs().boolForKey("logQC"));
    for (bool configured : {true, false}) {
        if (!configured) {
            prefs().removeObjectForKey("qcSubmitURL");
            prefs().removeObjectForKey("launchCount");
            qcPrefs().setBool("logQC", true);
        }
        clock->time += 2 * kDay;
        auto qc = launch();
        RecordingQuestion window;
        qc->loadQC(window);
        qc->setupInitialLogging();
        qc->logQCEvent({"launch", 1, std::nullopt});
        qc->uploadData();
        qc->waitUntilIdle();
        EXPECT_TRUE(window.asked.empty());
        EXPECT_TRUE(qc->cache().empty());
    }
    EXPECT_TRUE(transport->sent.empty());
    EXPECT_FALSE(fs::exists(fs::path(cacheFile()).parent_path()));
    EXPECT_FALSE(qcPrefs().objectForKey("uid"));
    EXPECT_FALSE(prefs().objectForKey("lastOSVersion"));
    EXPECT_FALSE(prefs().objectForKey("launchCount"));  // not even counted without an address
}

TEST_F(KTQCTest, LaunchesWithinAMinuteCountOnceAndSpecsFollowVersionChanges) {
    qcPrefs().setBool("logQC", true);
    setDate(prefs(), "lastSubmission", clock->time - 3600);  // no upload due
    const long long t = static_cast<long long>(clock->time);
    for (long long at : {t, t + 30, t + 61}) {  // the last is 31 s after the second
        clock->time = static_cast<double>(at);
        launchAndQuit();
    }
    ScratchRoot::writeFile(scratch.rootPath("/etc/os-release"), "PRETTY_NAME='Debian 13'\n");
    clock->time = static_cast<double>(t + 200);
    auto qc = launch();
    EXPECT_EQ(qc->cache(), (std::vector<KTQCEvent>{{"launch", t, std::nullopt},
                                                   {"specs", t, "Debian GNU/Linux 12 (bookworm)"},
                                                   {"launch", t + 61, std::nullopt}}));
    RecordingQuestion window;
    qc->loadQC(window);
    EXPECT_EQ(qc->cache().back(), (KTQCEvent{"specs", t + 200, "Debian 13"}));
    EXPECT_TRUE(transport->sent.empty());
}

TEST_F(KTQCTest, UploadIsDueAfterADayOrFromTheFourthLaunchWithoutSubmission) {
    qcPrefs().setBool("logQC", true);
    struct Case {
        long long launchesBefore;
        std::optional<long long> submittedAgo;
        bool uploads;
    } cases[] = {{2, std::nullopt, false},
                 {3, std::nullopt, true},
                 {20, kDay - 10, false},
                 {20, kDay + 10, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.launchesBefore << " launches before");
        clock->time += 2 * kDay;
        prefs().setInteger("launchCount", c.launchesBefore);
        prefs().removeObjectForKey("lastSubmission");
        if (c.submittedAgo) setDate(prefs(), "lastSubmission", clock->time - *c.submittedAgo);
        const std::size_t before = transport->sent.size();
        auto qc = launch();
        RecordingQuestion window;
        qc->loadQC(window);
        qc->waitUntilIdle();
        EXPECT_EQ(transport->sent.size(), before + (c.uploads ? 1 : 0));
        EXPECT_EQ(qc->cache().empty(), c.uploads);
        EXPECT_EQ(fs::exists(cacheFile()), !c.uploads);
        if (c.uploads) {
            EXPECT_EQ(date(prefs(), "lastSubmission"), clock->time);
        }
        qc.reset();
        fs::remove(cacheFile());
    }
}

TEST_F(KTQCTest, IdentifierIsKeptFor89DaysAndReplacedAfter91) {
    qcPrefs().setBool("logQC", true);
    qcPrefs().setString("uid", "oldIdentifer");
    auto uploadWithIdentifierAged = [&](long long age) {
        clock->time += 2 * kDay;
        setDate(prefs(), "lastSubmission", clock->time - 2 * kDay);
        setDate(qcPrefs(), "uidAssigned", clock->time - age);
        launchAndQuit();
        return sentField("uid");
    };
    EXPECT_EQ(uploadWithIdentifierAged(89 * kDay), "oldIdentifer");
    const std::string fresh = uploadWithIdentifierAged(91 * kDay);
    EXPECT_EQ(transport->sent.size(), 2u);
    EXPECT_NE(fresh, "oldIdentifer");
    EXPECT_EQ(fresh.size(), 12u);
    EXPECT_EQ(fresh.find_first_not_of(KTQC::kIdentifierAlphabet), std::string::npos);
    EXPECT_EQ(qcPrefs().stringForKey("uid"), fresh);
    EXPECT_EQ(date(qcPrefs(), "uidAssigned"), clock->time);
}
