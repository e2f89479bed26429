#include "analytics/KTQC.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "KTQCTestSupport.h"
#include "SharedFiles/KTPlist.h"
#include "analytics/KTOSVersion.h"

namespace fs = std::filesystem;

namespace {

class KTQCTest : public KTQCTestBase {
  protected:
    /// The value of one field of a posted form.
    static std::string field(const std::string& body, const std::string& name) {
        const std::string head = "name=\"" + name + "\"\r\n\r\n";
        auto start = body.find(head);
        if (start == std::string::npos) return "<missing>";
        start += head.size();
        return body.substr(start, body.find("\r\n", start) - start);
    }
    static void setDate(KTPreferences& p, const char* key, double when) {
        KTPlistPtr date = KTPlist::newDate(static_cast<long long>(when));
        ASSERT_TRUE(p.setPlist(key, date.get()));
    }
    static std::optional<long long> date(KTPreferences& p, const char* key) {
        return KTPlist::dateValue(p.plistForKey(key).get());
    }
    /// Agreed earlier and submitted an hour ago, so no upload is due.
    void agreedAndSubmittedRecently() {
        qcPrefs().setBool("logQC", true);
        setDate(prefs(), "lastSubmission", clock->time - 3600);
    }
};

constexpr long long kDay = 86400;

}  // namespace

TEST_F(KTQCTest, QuestionComesFromTheThirdLaunchAndMoreInfoLeavesItOpen) {
    launchAndQuit();
    launchAndQuit();
    EXPECT_EQ(asks, 0);

    auto third = launch();
    RecordingQuestion window;
    third->loadQC(window);
    ASSERT_EQ(window.asked.size(), 1u);
    EXPECT_EQ(window.asked[0].delay, std::chrono::seconds(5));
    const KTAlert& q = window.asked[0].question;
    EXPECT_EQ(q.message, "Help improve Quellbrook software by submitting analytics and usage data");
    EXPECT_EQ(q.informative,
              "This information helps us find problems and improve our software. It is anonymous "
              "and cannot be used to identify you.");
    EXPECT_EQ(q.buttons, (std::vector<std::string>{"Allow", "More Info", "Don't Allow"}));

    window.asked[0].answered(1);  // More Info
    EXPECT_EQ(window.opened, (std::vector<std::string>{"https://example.invalid/analytics"}));
    EXPECT_FALSE(qcPrefs().plistForKey("logQC"));
    EXPECT_FALSE(third->shouldLog());
    third.reset();

    // Asked again; agreeing on the fourth launch records and, with no earlier
    // submission, uploads at once.
    launchAndQuit(0);
    EXPECT_EQ(asks, 1);
    EXPECT_TRUE(qcPrefs().boolForKey("logQC"));
    ASSERT_EQ(transport->sent().size(), 1u);
    EXPECT_EQ(field(transport->sent()[0].body, "events"),
              "[{\"event\":\"launch\",\"date\":1700000000},{\"event\":\"specs\",\"date\":"
              "1700000000,\"data\":\"Debian GNU/Linux 12 (bookworm)\"}]");

    asks = 0;
    launchAndQuit();
    EXPECT_EQ(asks, 0);
}

TEST_F(KTQCTest, DontAllowMeansNothingIsRecordedWrittenOrSent) {
    launchAndQuit();
    launchAndQuit();
    launchAndQuit(2);  // Don't Allow
    ASSERT_TRUE(qcPrefs().objectForKey("logQC"));
    EXPECT_FALSE(qcPrefs().boolForKey("logQC"));

    for (int i = 0; i < 3; ++i) {
        clock->time += 2 * kDay;
        auto qc = launch();
        RecordingQuestion window;
        qc->loadQC(window);
        qc->setupInitialLogging();
        qc->logLoadEvent();
        qc->logQCEvent({"launch", 1, std::nullopt});
        qc->writeCache();
        qc->uploadData();
        qc->waitUntilIdle();
        EXPECT_TRUE(window.asked.empty());
        EXPECT_TRUE(qc->cache().empty());
    }
    EXPECT_TRUE(transport->sent().empty());
    EXPECT_FALSE(fs::exists(fs::path(cacheFile()).parent_path()));
    EXPECT_FALSE(qcPrefs().objectForKey("uid"));
    EXPECT_FALSE(prefs().objectForKey("lastOSVersion"));
}

TEST_F(KTQCTest, WithoutAnAddressNothingIsAskedCountedOrSent) {
    prefs().removeObjectForKey("qcSubmitURL");
    qcPrefs().setBool("logQC", true);
    for (int i = 0; i < 4; ++i) launchAndQuit(0);
    EXPECT_EQ(asks, 0);
    EXPECT_FALSE(prefs().objectForKey("launchCount"));
    EXPECT_TRUE(transport->sent().empty());
    EXPECT_FALSE(fs::exists(cacheFile()));
}

TEST_F(KTQCTest, LaunchesWithinAMinuteCountOnceAndSpecsFollowVersionChanges) {
    agreedAndSubmittedRecently();
    const double start = clock->time;
    launchAndQuit();
    clock->time = start + 30;
    launchAndQuit();
    clock->time = start + 61;  // a minute after the first, only 31 s after the second
    launchAndQuit();

    ScratchRoot::writeFile(scratch.rootPath("/etc/os-release"), "PRETTY_NAME='Debian 13'\n");
    clock->time = start + 200;
    auto qc = launch();
    const long long t = static_cast<long long>(start);
    EXPECT_EQ(qc->cache(), (std::vector<KTQCEvent>{
                               {"launch", t, std::nullopt},
                               {"specs", t, "Debian GNU/Linux 12 (bookworm)"},
                               {"launch", t + 61, std::nullopt},
                           }));
    RecordingQuestion window;
    qc->loadQC(window);
    EXPECT_EQ(qc->cache().back(), (KTQCEvent{"specs", t + 200, "Debian 13"}));
    EXPECT_EQ(prefs().stringForKey("lastOSVersion"), "Debian 13");
    EXPECT_TRUE(transport->sent().empty());
}

TEST_F(KTQCTest, UploadIsDueAfterADayOrFromTheFourthLaunchWithoutSubmission) {
    qcPrefs().setBool("logQC", true);
    struct Case {
        long long launchesBefore;
        std::optional<long long> submittedAgo;
        bool uploads;
    } cases[] = {
        {2, std::nullopt, false}, {3, std::nullopt, true}, {20, 3600, false},
        {20, kDay - 10, false},   {20, kDay + 10, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.launchesBefore << " launches before");
        clock->time += 2 * kDay;
        prefs().setInteger("launchCount", c.launchesBefore);
        if (c.submittedAgo)
            setDate(prefs(), "lastSubmission", clock->time - *c.submittedAgo);
        else
            prefs().removeObjectForKey("lastSubmission");
        const std::size_t before = transport->sent().size();
        auto qc = launch();
        RecordingQuestion window;
        qc->loadQC(window);
        qc->waitUntilIdle();
        EXPECT_EQ(transport->sent().size(), before + (c.uploads ? 1 : 0));
        EXPECT_EQ(qc->cache().empty(), c.uploads);
        if (c.uploads) {
            EXPECT_EQ(date(prefs(), "lastSubmission"), static_cast<long long>(clock->time));
            EXPECT_FALSE(fs::exists(cacheFile()));
        }
        qc.reset();
        fs::remove(cacheFile());
    }
}

TEST_F(KTQCTest, IdentifierIsKeptFor89DaysAndReplacedAfter91) {
    qcPrefs().setBool("logQC", true);
    qcPrefs().setString("uid", "oldIdentifer");
    auto uploadAfter = [&](long long assignedAgo) {
        clock->time += 2 * kDay;
        setDate(prefs(), "lastSubmission", clock->time - 2 * kDay);
        setDate(qcPrefs(), "uidAssigned", clock->time - assignedAgo);
        launchAndQuit();
        return field(transport->sent().back().body, "uid");
    };
    EXPECT_EQ(uploadAfter(89 * kDay), "oldIdentifer");
    EXPECT_EQ(transport->sent().size(), 1u);

    const std::string fresh = uploadAfter(91 * kDay);
    EXPECT_NE(fresh, "oldIdentifer");
    ASSERT_EQ(fresh.size(), 12u);
    EXPECT_EQ(fresh.find_first_not_of(KTQC::kIdentifierAlphabet), std::string::npos);
    EXPECT_EQ(qcPrefs().stringForKey("uid"), fresh);
    EXPECT_EQ(date(qcPrefs(), "uidAssigned"), static_cast<long long>(clock->time));
}

TEST(KTOSVersionTest, PrettyNameIsUnquotedAsTheShellWould) {
    EXPECT_EQ(KTOSVersion::prettyNameFromOSRelease("A=1\nPRETTY_NAME=\"Fedora \\\"40\\\"\"\n"),
              "Fedora \"40\"");
    EXPECT_EQ(KTOSVersion::prettyNameFromOSRelease("PRETTY_NAME=Arch\r\n"), "Arch");
    EXPECT_EQ(KTOSVersion::prettyNameFromOSRelease("NAME=x\nPRETTY_NAME=\"\"\n"), std::nullopt);
    EXPECT_EQ(KTOSVersion::prettyNameFromOSRelease("NAME=x\n"), std::nullopt);
}
