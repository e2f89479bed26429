// Signing and notarisation with stand-ins for Apple's tools (through
// AMBREL_TOOL_DIR) answering as the real ones do, the account in the private
// keyring, and the waits shrunk by AMBREL_TIME_SCALE.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "SharedFiles/KTKeychain.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "installer/KTNotarizer.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

const char* const kPassword = "abcd-efgh-ijkl-mnop";

std::string plist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + body +
           "</dict></plist>\n";
}
std::string altoolUpload(const std::string& uuid) {
    return plist("<key>notarization-upload</key><dict><key>RequestUUID</key><string>" + uuid +
                 "</string></dict><key>success-message</key><string>No errors uploading "
                 "'x.zip'.</string>");
}
std::string altoolInfo(const std::string& status, const std::string& extra = "") {
    return plist("<key>notarization-info</key><dict><key>Status</key><string>" + status +
                 "</string>" + extra +
                 "</dict><key>success-message</key><string>No errors "
                 "getting notarization info.</string>");
}
std::string notarytoolSubmit(const std::string& id) {
    return plist("<key>id</key><string>" + id +
                 "</string><key>message</key><string>Successfully uploaded file</string>"
                 "<key>path</key><string>x.zip</string>");
}
std::string notarytoolInfo(const std::string& status) {
    return plist(
        "<key>createdDate</key><string>2026-11-23T07:38:09.498Z</string><key>id</key>"
        "<string>2efe2717</string><key>message</key><string>Successfully received "
        "submission info</string><key>name</key><string>Acme.dmg</string>"
        "<key>status</key><string>" +
        status + "</string>");
}

/// What the flows showed, in order.
class Recorder : public KTInstallerBuilder::Delegate {
  public:
    void showSheet(const std::string& message, const std::string& informative) override {
        add("sheet: " + message + " / " + informative);
    }
    int showSheetWithButtons(const std::string& message, const std::string& informative,
                             const std::vector<std::string>& buttons) override {
        std::string line = "sheet: " + message + " / " + informative + " [";
        for (const auto& b : buttons) line += b + ";";
        add(line + "]");
        return press;
    }
    void setStatusText(const std::string& text) override { add("status: " + text); }
    void showStatusSheet() override { add("show"); }
    void hideStatusSheet() override { add("hide"); }
    void openURL(const std::string& url) override { add("open: " + url); }
    std::string last() {
        std::lock_guard<std::mutex> l(lock);
        return events.empty() ? "" : events.back();
    }
    std::vector<std::string> all() {
        std::lock_guard<std::mutex> l(lock);
        return events;
    }
    int press = 0;

  private:
    void add(const std::string& e) {
        std::lock_guard<std::mutex> l(lock);
        events.push_back(e);
    }
    std::mutex lock;
    std::vector<std::string> events;
};

bool privateKeyring() {
    return std::getenv("AMBREL_PRIVATE_KEYRING") != nullptr;
}

void writeScript(const std::string& path, const std::string& body) {
    ScratchRoot::writeFile(path, "#!/bin/sh\n" + body);
    ::chmod(path.c_str(), 0755);
}

/// Stand-ins for xcrun (altool, notarytool, stapler), codesign and xattr.
/// Every call is appended to "calls"; the answers come from files beside
/// them: "submit", "info.N" for the N-th status query (else "info"),
/// "staple" (an exit code) and "codesign.answer" (its error stream).
class NotaryStandIns {
  public:
    NotaryStandIns() {
        dir = scratch.base() + "/tools";
        writeScript(dir + "/xcrun", R"(d=$(dirname "$0")
echo "xcrun $*" >> "$d/calls"
case "$1 $2" in
  "altool --notarize-app"|"notarytool submit") cat "$d/submit" ;;
  "altool --notarization-info"|"notarytool info")
    n=$(($(cat "$d/count" 2>/dev/null || echo 0) + 1)); echo $n > "$d/count"
    if [ -f "$d/info.$n" ]; then cat "$d/info.$n"; else cat "$d/info"; fi ;;
  "notarytool log") echo '{"status": "Invalid", "issues": []}' > "$4"
    echo "Successfully downloaded submission log" ;;
  "stapler staple") echo "Processing: $3"; exit $(cat "$d/staple" 2>/dev/null || echo 0) ;;
  *) echo "xcrun: error: unknown $1" >&2; exit 72 ;;
esac
)");
        writeScript(dir + "/codesign",
                    "echo \"codesign $*\" >> \"$(dirname \"$0\")/calls\"\n"
                    "cat \"$(dirname \"$0\")/codesign.answer\" >&2 2>/dev/null\n");
        writeScript(dir + "/xattr", "echo \"xattr $*\" >> \"$(dirname \"$0\")/calls\"\n");
        ::setenv("AMBREL_TOOL_DIR", dir.c_str(), 1);
        ::setenv("AMBREL_TIME_SCALE", "0.002", 1);  // 10 s -> 20 ms, 25 s -> 50 ms
        // The zips and fetched logs land in the scratch folder.
        const char* tmp = std::getenv("TMPDIR");
        oldTmp = tmp ? tmp : "";
        ScratchRoot::makeDirs(scratch.base() + "/tmp");
        ::setenv("TMPDIR", (scratch.base() + "/tmp").c_str(), 1);
        KTLog::resetForTesting();
        KTLog::setSuperuserForTesting(false);
        KTLog::createNewLog(std::string("Notary"), true);
        KTPreferences::standard().removeObjectForKey(KTNotarizer::kToolKey);
        KTPreferences::standard().removeObjectForKey(KTNotarizer::kTeamIDKey);
    }
    ~NotaryStandIns() {
        KTLog::resetForTesting();
        if (oldTmp.empty())
            ::unsetenv("TMPDIR");
        else
            ::setenv("TMPDIR", oldTmp.c_str(), 1);
        ::unsetenv("AMBREL_TOOL_DIR");
        ::unsetenv("AMBREL_TIME_SCALE");
        KTKeychain::setAppleIDInfo("", "");
    }
    void answer(const std::string& name, const std::string& text) {
        ScratchRoot::writeFile(dir + "/" + name, text);
    }
    void restart() {
        for (const char* f : {"calls", "count", "info.1", "info.2", "info.3", "staple"})
            fs::remove(dir + "/" + f);
    }
    std::string calls() const { return ScratchRoot::readFile(dir + "/calls"); }
    void codesignAnswers(const std::string& text) {
        ScratchRoot::writeFile(dir + "/codesign.answer", text);
    }
    std::string disk() {
        const std::string path = scratch.base() + "/work/Acme FX.dmg";
        if (!fs::exists(path)) ScratchRoot::writeFile(path, "disk image bytes");
        return path;
    }

    /// Everything logged so far.
    std::string log() {
        KTLog::finishWriting();
        return ScratchRoot::readFile(KTLog::currentLogPath());
    }

    ScratchRoot scratch;
    std::string dir;
    std::string oldTmp;
};

KTNotarizer::DiskImageRequest diskRequest(const std::string& path) {
    return {path, "com.acmelabs.acmefx.21.dmg", std::nullopt};
}

#define NEEDS_KEYRING()                             \
    if (!privateKeyring())                          \
    GTEST_SKIP() << "needs the private keyring of " \
                    "tests/support/with-keyring"

}  // namespace

TEST(KTNotarizerAltool, EveryOutcomeOfADiskImageEndsInItsSheet) {
    NEEDS_KEYRING();
    NotaryStandIns tools;
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", kPassword));
    const std::string dmg = tools.disk();
    auto run = [&](Recorder& r) {
        std::atomic<bool> cancelled{false};
        KTNotarizer notarizer(r, [&] { return cancelled.load(); });
        return notarizer.notarizeDiskImageWithSettings(diskRequest(dmg));
    };

    // Decided after two rounds in progress, stapled.
    tools.answer("submit", altoolUpload("5cb03d00-8ab1"));
    tools.answer("info.1", altoolInfo("in progress"));
    tools.answer("info.2", altoolInfo("in progress"));
    tools.answer("info", altoolInfo("success"));
    {
        Recorder r;
        EXPECT_TRUE(run(r));
        EXPECT_EQ(r.all(),
                  (std::vector<std::string>{
                      "show", "status: Uploading bundle to Apple for notarization...",
                      "status: Waiting for Apple to finish notarizing. This may take several "
                      "minutes...",
                      "hide",
                      "sheet: Disk image notarized / A disk image was successfully notarized at " +
                          dmg + "."}));
        const std::string calls = tools.calls();
        EXPECT_NE(calls.find("xcrun altool --notarize-app -t osx -f " + dmg +
                             " --primary-bundle-id com.acmelabs.acmefx.21.dmg -u dev@example.com "
                             "-p " +
                             kPassword + " --output-format xml\n"),
                  std::string::npos)
            << calls;
        EXPECT_NE(
            calls.find("xcrun altool --notarization-info 5cb03d00-8ab1 -u dev@example.com -p " +
                       std::string(kPassword) + " --output-format xml"),
            std::string::npos);
        EXPECT_NE(calls.find("xcrun stapler staple " + dmg), std::string::npos);
        EXPECT_EQ(ScratchRoot::readFile(tools.dir + "/count"), "3\n");
        // The password goes to altool, never into the log.
        const std::string log = tools.log();
        EXPECT_NE(log.find("-u dev@example.com -p ******** --output-format xml"), std::string::npos)
            << log;
        EXPECT_NE(log.find("<key>RequestUUID</key>"), std::string::npos);
        EXPECT_EQ(log.find(kPassword), std::string::npos);
    }

    // Accepted, but the ticket does not staple (stapler's error 65).
    tools.restart();
    tools.answer("staple", "65");
    {
        Recorder r;
        EXPECT_FALSE(run(r));
        EXPECT_EQ(r.last(),
                  "sheet: Unable to notarize / Notarization was successful but Ambrel "
                  "was unable to staple the authorization to your disk image.");
    }

    // Invalid, with its log address behind "View Error Log".
    tools.restart();
    tools.answer("info", altoolInfo("invalid",
                                    "<key>Status Message</key><string>Package "
                                    "Invalid</string><key>LogFileURL</key>"
                                    "<string>https://osxapps.example/log/1</string>"));
    {
        Recorder r;
        r.press = 1;
        EXPECT_FALSE(run(r));
        const auto events = r.all();
        ASSERT_GE(events.size(), 2u);
        EXPECT_EQ(events[events.size() - 2],
                  "sheet: Unable to notarize / Package Invalid [OK;View Error Log;]");
        EXPECT_EQ(events.back(), "open: https://osxapps.example/log/1");
    }

    // The upload refused, answered as no property list, or without its key.
    const std::pair<std::string, std::string> refusals[] = {
        {plist("<key>product-errors</key><array><dict><key>code</key><integer>-1011</integer>"
               "<key>message</key><string>Failed to authenticate.</string></dict><dict>"
               "<key>message</key><string>Try again.</string></dict></array>"),
         "Failed to authenticate. Try again. "},
        {plist("<key>product-errors</key><array><dict><key>message</key><string>raw</string>"
               "<key>userInfo</key><dict><key>NSLocalizedDescription</key><string>The "
               "software asset has an invalid bundle ID.</string></dict></dict></array>"),
         "The software asset has an invalid bundle ID. "},
        {"xcrun: error: unable to find utility \"altool\", not a developer tool or in PATH\n",
         "xcrun: error: unable to find utility \"altool\", not a developer tool or in PATH\n"},
        {plist("<key>success-message</key><string>?</string>"),
         "Unknown data format returned by notarization process."},
        {plist("<key>notarization-upload</key><dict/>"),
         "Unable to get UUID from notarization process."},
    };
    for (const auto& [answer, shown] : refusals) {
        tools.restart();
        tools.answer("submit", answer);
        Recorder r;
        EXPECT_FALSE(run(r));
        EXPECT_EQ(r.last(), "sheet: Unable to notarize disk image / " + shown);
        EXPECT_EQ(tools.calls().find("notarization-info"), std::string::npos);
    }

    // A query that fails three times keeps the wait going until a decision.
    tools.restart();
    tools.answer("submit", altoolUpload("5cb03d00-8ab1"));
    tools.answer("info.1", "Error: The network connection was lost.\n");
    tools.answer("info.2", plist("<key>product-errors</key><array><dict><key>message</key>"
                                 "<string>Service unavailable.</string></dict></array>"));
    tools.answer("info.3", "");
    tools.answer("info", altoolInfo("success"));
    {
        Recorder r;
        EXPECT_TRUE(run(r));
        EXPECT_EQ(ScratchRoot::readFile(tools.dir + "/count"), "4\n");
        EXPECT_NE(r.last().find("Disk image notarized"), std::string::npos);
    }
}

TEST(KTNotarizerAltool, InstallerBundlesAreZippedSignedAndStapled) {
    NEEDS_KEYRING();
    NotaryStandIns tools;
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", kPassword));
    const std::string bundle = tools.scratch.base() + "/out/Acme FX Installer.app";
    ScratchRoot::writeFile(bundle + "/Contents/MacOS/Ambrel Installer", "program");
    tools.answer("submit", altoolUpload("u-1"));
    tools.answer("info", altoolInfo("success"));

    Recorder r;
    KTNotarizer notarizer(r, [] { return false; });
    EXPECT_TRUE(notarizer.notarizeInstallerBundle(bundle, "com.acmelabs.acmefx.21"));
    EXPECT_EQ(r.last(), "sheet: Installer created / An installer was successfully created at " +
                            bundle + ".");
    // The zip went up, the bundle itself was stapled; the zip stays behind.
    const std::string calls = tools.calls();
    const auto f = calls.find(" -f ");
    ASSERT_NE(f, std::string::npos) << calls;
    const std::string zip = calls.substr(f + 4, calls.find(" --primary-bundle-id") - f - 4);
    EXPECT_EQ(fs::path(zip).extension(), ".zip");
    EXPECT_TRUE(fs::is_regular_file(zip)) << zip;
    EXPECT_NE(calls.find("xcrun stapler staple " + bundle + "\n"), std::string::npos);

    // Without an identifier the bundle flow says so in its own words.
    tools.restart();
    tools.answer("submit", "Error: no network\n");
    Recorder refused;
    EXPECT_FALSE(
        KTNotarizer(refused, [] { return false; }).notarizeInstallerBundle(bundle, "com.x.y.1"));
    EXPECT_EQ(refused.last(),
              "sheet: Unable to create installer / Unable to notarize - Error: no network\n.");
}

TEST(KTNotarizerNotarytool, EveryOutcomeWithTheTeamID) {
    NEEDS_KEYRING();
    NotaryStandIns tools;
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", kPassword));
    const std::string dmg = tools.disk();
    auto run = [&](Recorder& r) {
        return KTNotarizer(r, [] { return false; }).notarizeDiskImageWithSettings(diskRequest(dmg));
    };

    // Without a Team ID notarytool cannot be asked: the account is incomplete.
    KTPreferences::standard().setString(KTNotarizer::kToolKey, "notarytool");
    {
        Recorder r;
        EXPECT_FALSE(run(r));
        EXPECT_EQ(r.last(),
                  "sheet: Apple ID information not set / Please add your Apple ID "
                  "information to the Create Installer dialog and the retry.");
    }

    // A Team ID makes notarytool the default.
    KTPreferences::standard().removeObjectForKey(KTNotarizer::kToolKey);
    KTPreferences::standard().setString(KTNotarizer::kTeamIDKey, "AB12CD34EF");
    tools.answer("submit", notarytoolSubmit("2efe2717"));
    tools.answer("info.1", notarytoolInfo("In Progress"));
    tools.answer("info.2", "Error: HTTP status code: 503\n");
    tools.answer("info.3", notarytoolInfo("In Progress"));
    tools.answer("info", notarytoolInfo("Accepted"));
    {
        Recorder r;
        EXPECT_TRUE(run(r));
        EXPECT_NE(r.last().find("Disk image notarized"), std::string::npos) << r.last();
        const std::string calls = tools.calls();
        EXPECT_NE(calls.find("xcrun notarytool submit " + dmg +
                             " --apple-id dev@example.com "
                             "--password " +
                             kPassword + " --team-id AB12CD34EF --output-format plist\n"),
                  std::string::npos)
            << calls;
        EXPECT_NE(calls.find("xcrun notarytool info 2efe2717 --apple-id dev@example.com"),
                  std::string::npos);
        EXPECT_EQ(ScratchRoot::readFile(tools.dir + "/count"), "4\n");
    }

    // Invalid: the log is fetched into a file, which "View Error Log" opens.
    for (const char* decided : {"Invalid", "Rejected"}) {
        tools.restart();
        tools.answer("info", notarytoolInfo(decided));
        Recorder r;
        r.press = 1;
        EXPECT_FALSE(run(r));
        const auto events = r.all();
        ASSERT_GE(events.size(), 2u);
        EXPECT_NE(events[events.size() - 2].find(std::string("\"") + decided + "\""),
                  std::string::npos)
            << events[events.size() - 2];
        EXPECT_NE(events[events.size() - 2].find("[OK;View Error Log;]"), std::string::npos);
        const std::string open = events.back();
        ASSERT_EQ(open.rfind("open: file://", 0), 0u) << open;
        EXPECT_NE(ScratchRoot::readFile(open.substr(13)).find("\"Invalid\""), std::string::npos);
        EXPECT_NE(tools.calls().find("xcrun notarytool log 2efe2717 "), std::string::npos);
    }

    // A refused submission hands on notarytool's message.
    tools.restart();
    tools.answer("submit", plist("<key>message</key><string>Error: HTTP status code: 401. "
                                 "Invalid credentials.</string>"));
    {
        Recorder r;
        EXPECT_FALSE(run(r));
        EXPECT_EQ(r.last(),
                  "sheet: Unable to notarize disk image / Error: HTTP status code: 401. "
                  "Invalid credentials.");
    }
}

TEST(KTNotarizerAltool, CancelDuringTheWaitAndMissingCredentialsEndQuietlyOrSaySo) {
    NEEDS_KEYRING();
    NotaryStandIns tools;
    ::setenv("AMBREL_TIME_SCALE", "0.02", 1);  // 25 s -> 0.5 s: Cancel lands inside a wait
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", kPassword));
    const std::string dmg = tools.disk();
    tools.answer("submit", altoolUpload("u-2"));
    tools.answer("info", altoolInfo("in progress"));

    Recorder r;
    std::atomic<bool> cancelled{false};
    std::thread user([&] {
        while (ScratchRoot::readFile(tools.dir + "/count").empty())
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        cancelled = true;
    });
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(KTNotarizer(r, [&] {
                     return cancelled.load();
                 }).notarizeDiskImageWithSettings(diskRequest(dmg)));
    user.join();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    // The sheet went away and nothing more was said; nothing was stapled.
    EXPECT_EQ(r.last(), "hide");
    EXPECT_EQ(tools.calls().find("stapler"), std::string::npos);

    // No account: nothing is uploaded.
    tools.restart();
    KTKeychain::setAppleIDInfo("", "");
    Recorder none;
    EXPECT_FALSE(
        KTNotarizer(none, [] { return false; }).notarizeDiskImageWithSettings(diskRequest(dmg)));
    EXPECT_EQ(none.all(), (std::vector<std::string>{
                              "sheet: Apple ID information not set / Please add your Apple ID "
                              "information to the Create Installer dialog and the retry."}));
    std::string error;
    EXPECT_FALSE(KTNotarizer(none, [] { return false; }).uuidFromNotarization(dmg, "x", &error));
    EXPECT_EQ(error,
              "Apple ID information must be specified in the Create Installer dialog to "
              "notarize a bundle.");
    EXPECT_TRUE(tools.calls().empty());
}

TEST(KTNotarizerAltool, DiskImagesAreSignedFirstAndCodesignsAnswerDecides) {
    NEEDS_KEYRING();
    NotaryStandIns tools;
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", kPassword));
    const std::string dmg = tools.disk();
    tools.answer("submit", altoolUpload("u-3"));
    tools.answer("info", altoolInfo("success"));
    auto request = diskRequest(dmg);
    request.certificate = "Developer ID Application: Acme Labs";

    for (const std::string quiet : {std::string(), dmg + ": replacing existing signature\n"}) {
        tools.restart();
        tools.codesignAnswers(quiet);
        Recorder r;
        EXPECT_TRUE(KTNotarizer(r, [] { return false; }).notarizeDiskImageWithSettings(request));
        EXPECT_NE(tools.calls().find("codesign --force --timestamp --sign Developer ID "
                                     "Application: Acme Labs " +
                                     dmg + "\n"),
                  std::string::npos)
            << tools.calls();
    }

    tools.restart();
    tools.codesignAnswers(dmg + ": no identity found\n");
    Recorder r;
    EXPECT_FALSE(KTNotarizer(r, [] { return false; }).notarizeDiskImageWithSettings(request));
    EXPECT_EQ(r.last(), "sheet: Unable to notarize disk image / Code signing failed: " + dmg +
                            ": no identity found.\n\nMake sure you have Xcode and the Xcode "
                            "command-line tools installed.");
    EXPECT_EQ(tools.calls().find("xcrun"), std::string::npos);
}

// ---- From the command line -------------------------------------------------

namespace {
ChildProcess ambrel(std::vector<std::string> args) {
    args.insert(args.begin(), ChildProcess::builtProgram("ambrel"));
    return ChildProcess::run(args);
}
/// Every log the child wrote, wherever its user keeps them.
std::string logsUnder(const ScratchRoot& scratch) {
    std::string all;
    for (const std::string& base : {scratch.home(), scratch.root()}) {
        const fs::path folder = base + "/Library/Logs";
        if (!fs::exists(folder)) continue;
        for (const auto& e : fs::recursive_directory_iterator(folder))
            if (e.is_regular_file()) all += ScratchRoot::readFile(e.path().string());
    }
    return all;
}
}  // namespace

TEST(KTNotarizerCommandLine, ASignedInstallerWithAnAccountEndsNotarizedAndStapled) {
    NEEDS_KEYRING();
    NotaryStandIns tools;
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", kPassword));
    tools.scratch.writeFile(tools.scratch.rootPath("/Library/Audio/Plug-Ins/Components/"
                                                   "Echo.component/Contents/Info.plist"),
                            "<plist version=\"1.0\"><dict/></plist>");
    tools.codesignAnswers("Acme FX Installer.app: replacing existing signature\n");
    tools.answer("submit", altoolUpload("c-1"));
    tools.answer("info.1", altoolInfo("in progress"));
    tools.answer("info", altoolInfo("success"));
    const std::string out = tools.scratch.base() + "/out/Acme FX Installer.app";
    auto built = ambrel({"-createinstaller", "-o", out, "-name", "Acme FX", "-version", "2.1",
                         "-author", "Acme Labs", "-certificate",
                         "Developer ID Application: Acme Labs (AB12CD34EF)", "Echo.component"});
    EXPECT_EQ(built.exitCode, 0) << built.out << built.err;
    EXPECT_NE(built.out.find("An installer was successfully created at " + out + "."),
              std::string::npos)
        << built.out;
    const std::string calls = tools.calls();
    EXPECT_NE(calls.find("xattr -c -r " + out + "\n"), std::string::npos) << calls;
    EXPECT_NE(calls.find("codesign --deep --timestamp --options=runtime -f -s Developer ID "
                         "Application: Acme Labs " +
                         out + "\n"),
              std::string::npos)
        << calls;
    EXPECT_NE(calls.find("--primary-bundle-id com.acmelabs.acmefx.21 "), std::string::npos);
    EXPECT_NE(calls.find("xcrun stapler staple " + out + "\n"), std::string::npos);

    // The password went to altool, never into the log.
    const std::string log = logsUnder(tools.scratch);
    EXPECT_NE(log.find("Installer bundle ID: com.acmelabs.acmefx.21"), std::string::npos) << log;
    EXPECT_NE(log.find("-p ******** --output-format xml"), std::string::npos);
    EXPECT_NE(log.find("UUID is c-1"), std::string::npos);
    EXPECT_EQ(log.find(kPassword), std::string::npos);
    EXPECT_EQ(built.out.find(kPassword), std::string::npos);
}

TEST(KTNotarizerCommandLine, NotarizeExitsZeroOnlyWhenStapled) {
    NEEDS_KEYRING();
    NotaryStandIns tools;
    ASSERT_TRUE(KTKeychain::setAppleIDInfo("dev@example.com", kPassword));
    const std::string dmg = tools.disk();
    tools.answer("submit", notarytoolSubmit("n-1"));
    tools.answer("info", notarytoolInfo("Accepted"));
    KTPreferences::standard().setString(KTNotarizer::kTeamIDKey, "AB12CD34EF");

    auto ok = ambrel({"-notarize", dmg, "-certificate", "Developer ID Application: Acme (X1)"});
    EXPECT_EQ(ok.exitCode, 0) << ok.out << ok.err;
    EXPECT_NE(ok.out.find("A disk image was successfully notarized at " + dmg + "."),
              std::string::npos)
        << ok.out;
    EXPECT_NE(tools.calls().find("codesign --force --timestamp --sign Developer ID Application: "
                                 "Acme " +
                                 dmg),
              std::string::npos);

    tools.restart();
    tools.answer("staple", "65");
    auto unstapled = ambrel({"-notarize", dmg});
    EXPECT_EQ(unstapled.exitCode, 1);
    EXPECT_NE(unstapled.out.find("unable to staple the authorization to your disk image."),
              std::string::npos);

    // Apple's tools missing altogether: the flow's own failure.
    ::unsetenv("AMBREL_TOOL_DIR");
    auto missing = ambrel({"-notarize", dmg});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.out.find("Unable to notarize disk image"), std::string::npos) << missing.out;
    EXPECT_NE(missing.out.find("/usr/bin/xcrun is not executable"), std::string::npos);

    EXPECT_EQ(ambrel({"-notarize", tools.scratch.base() + "/none.dmg"}).exitCode, 1);
}
