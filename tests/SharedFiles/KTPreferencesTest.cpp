#include "SharedFiles/KTPreferences.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "SharedFiles/KTLog.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

class KTPreferencesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        KTLog::resetForTesting();
        KTLog::setSuperuserForTesting(false);
        KTLog::createNewLog(std::string("Prefs"), true);
    }
    void TearDown() override { KTLog::resetForTesting(); }
    std::string logText() const {
        KTLog::finishWriting();
        return ScratchRoot::readFile(scratch.homePath("/Library/Logs/Quellbrook/Prefs.1.log"));
    }
    static int count(const std::string& text, const std::string& what) {
        int n = 0;
        for (auto p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
        return n;
    }
    ScratchRoot scratch;
};

}  // namespace

TEST_F(KTPreferencesTest, ValuesSurviveARoundTripAndOtherKeysAreKept) {
    // Another program wrote the file, in binary form, with a key of its own.
    KTPlistPtr dict(plist_new_dict());
    plist_dict_set_item(dict.get(), "KTOtherProgramKey", plist_new_string("theirs"));
    const std::string file = scratch.homePath("/Library/Preferences/com.quellbrook.Ambrel.plist");
    ScratchRoot::writeFile(file, KTPlist::toBinary(dict.get()));

    KTPreferences& prefs = KTPreferences::standard();
    EXPECT_EQ(prefs.path(), file);
    ASSERT_TRUE(prefs.setString("sortedColumn", "name"));
    ASSERT_TRUE(prefs.setInteger("auValSortedColumn", -3));
    ASSERT_TRUE(prefs.setInteger("big", 1LL << 40));
    ASSERT_TRUE(prefs.setBool("sortedDescending", true));
    ASSERT_TRUE(prefs.setDouble("ratio", 0.25));
    ASSERT_TRUE(prefs.setStringArray("expandedItems", {"FxPlug", "Audio Units/Old", ""}));

    KTPreferences reread("com.quellbrook.Ambrel", true);
    EXPECT_EQ(reread.stringForKey("sortedColumn"), "name");
    EXPECT_EQ(reread.integerForKey("auValSortedColumn"), -3);
    EXPECT_EQ(reread.integerForKey("big"), 1LL << 40);
    EXPECT_TRUE(reread.boolForKey("sortedDescending"));
    EXPECT_DOUBLE_EQ(reread.doubleForKey("ratio"), 0.25);
    EXPECT_EQ(reread.stringArrayForKey("expandedItems"),
              (std::vector<std::string>{"FxPlug", "Audio Units/Old", ""}));
    EXPECT_EQ(reread.stringForKey("KTOtherProgramKey"), "theirs");
    EXPECT_EQ(ScratchRoot::readFile(file).rfind("<?xml", 0), 0u);  // written as XML

    ASSERT_TRUE(reread.removeObjectForKey("sortedColumn"));
    EXPECT_EQ(prefs.stringForKey("sortedColumn"), std::nullopt);
    EXPECT_EQ(prefs.stringForKey("KTOtherProgramKey"), "theirs");

    // Texts and numbers read as each other where that makes sense.
    ASSERT_TRUE(prefs.setString("launch", "42"));
    EXPECT_EQ(prefs.integerForKey("launch"), 42);
    EXPECT_TRUE(prefs.boolForKey("launch"));
    EXPECT_EQ(prefs.stringForKey("auValSortedColumn"), "-3");
    EXPECT_FALSE(prefs.boolForKey("missing"));
    EXPECT_TRUE(prefs.stringArrayForKey("ratio").empty());
}

TEST_F(KTPreferencesTest, RegisteredDefaultsAnswerOnlyForMissingKeys) {
    KTPreferences prefs(scratch.base() + "/prefs/test.plist");
    prefs.registerDefaults({{"filter", std::vector<std::string>{"localFxPlug"}},
                            {"ignoreFxFactory", true},
                            {"sortedColumn", std::string("name")}});
    EXPECT_EQ(prefs.stringArrayForKey("filter"), std::vector<std::string>{"localFxPlug"});
    EXPECT_TRUE(prefs.boolForKey("ignoreFxFactory"));
    EXPECT_FALSE(fs::exists(prefs.path()));  // defaults are never written

    ASSERT_TRUE(prefs.setBool("ignoreFxFactory", false));
    EXPECT_FALSE(prefs.boolForKey("ignoreFxFactory"));
    ASSERT_TRUE(prefs.removeObjectForKey("ignoreFxFactory"));
    EXPECT_TRUE(prefs.boolForKey("ignoreFxFactory"));
    prefs.registerDefaults({{"sortedColumn", std::string("kind")}});
    EXPECT_EQ(prefs.stringForKey("sortedColumn"), "kind");
}

TEST_F(KTPreferencesTest, CorruptFileReadsAsEmptyIsLoggedOnceAndIsNotOverwrittenByReads) {
    KTPreferences prefs(scratch.base() + "/prefs/broken.plist");
    prefs.registerDefaults({{"sortedColumn", std::string("name")}});
    const std::string garbage = "<?xml version=\"1.0\"?><plist><dict><key>half";
    ScratchRoot::writeFile(prefs.path(), garbage);

    EXPECT_EQ(prefs.stringForKey("sortedColumn"), "name");
    EXPECT_EQ(prefs.integerForKey("anything"), 0);
    EXPECT_EQ(ScratchRoot::readFile(prefs.path()), garbage);
    EXPECT_EQ(count(logText(), "Unable to read preferences " + prefs.path()), 1);

    // A write replaces it, keeping what was there aside.
    ASSERT_TRUE(prefs.setString("sortedColumn", "kind"));
    EXPECT_EQ(prefs.stringForKey("sortedColumn"), "kind");
    EXPECT_EQ(ScratchRoot::readFile(prefs.path() + ".corrupt"), garbage);
}

TEST_F(KTPreferencesTest, DomainsLiveWhereTheOtherProgramsLookAndWritesFromThreadsAllLand) {
    EXPECT_EQ(KTPreferences::machine().path(),
              scratch.rootPath("/Library/Preferences/com.quellbrook.Ambrel.plist"));
    EXPECT_EQ(KTPreferences::global().path(),
              scratch.homePath("/Library/Preferences/com.quellbrook.global.plist"));
    EXPECT_FALSE(KTPreferences::requireAdminPassword());
    ASSERT_TRUE(KTPreferences::machine().setBool("requireAdminPassword", true));
    EXPECT_TRUE(KTPreferences::requireAdminPassword());
    EXPECT_FALSE(KTPreferences::standard().boolForKey("requireAdminPassword"));

    // Read-modify-write from several threads must not lose a key.
    KTPreferences prefs(scratch.base() + "/prefs/threads.plist");
    auto writer = [&prefs](int t) {
        for (int i = 0; i < 25; ++i)
            prefs.setInteger("k" + std::to_string(t) + "-" + std::to_string(i), i);
    };
    std::thread a(writer, 1), b(writer, 2);
    writer(3);
    a.join();
    b.join();
    for (int t = 1; t <= 3; ++t)
        for (int i = 0; i < 25; ++i)
            EXPECT_EQ(prefs.integerForKey("k" + std::to_string(t) + "-" + std::to_string(i)), i);
}
