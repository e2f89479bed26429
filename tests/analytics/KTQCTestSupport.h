#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "analytics/KTQC.h"
#include "support/ScratchRoot.h"

class FakeClock : public KTQCClock {
  public:
    double now() const override { return time; }
    double time = 1700000000;
};

/// Records every request.
class RecordingTransport : public KTQCTransport {
  public:
    bool start(const KTQCRequest& request, Finished finished) override {
        std::lock_guard<std::mutex> l(lock);
        sent.push_back(request);
        return true;
    }
    std::mutex lock;
    std::vector<KTQCRequest> sent;
};

class RecordingQuestion : public KTQCQuestion {
  public:
    void ask(std::chrono::milliseconds delay, const KTAlert& question,
             std::function<void(int)> answered) override {
        delays.push_back(delay);
        asked.push_back(question);
        answer = std::move(answered);
    }
    void openURL(const std::string& url) override { opened.push_back(url); }
    std::vector<std::chrono::milliseconds> delays;
    std::vector<KTAlert> asked;
    std::function<void(int)> answer;
    std::vector<std::string> opened;
};

/// A scratch home with analytics configured and a known system version.
class KTQCTestBase : public ::testing::Test {
  protected:
    void SetUp() override {
        KTLog::resetForTesting();
        KTLog::setSuperuserForTesting(false);
        KTLog::createNewLog(std::string("QC"), true);
        ScratchRoot::writeFile(scratch.rootPath("/etc/os-release"),
                               "NAME=Debian\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n");
        configure("https://127.0.0.1:9/qc.php");
        prefs().setString("qcMoreInfoURL", "https://example.invalid/analytics");
    }
    void TearDown() override { KTLog::resetForTesting(); }

    static void configure(const std::string& url) { prefs().setString("qcSubmitURL", url); }
    static KTPreferences& prefs() { return KTPreferences::standard(); }
    static KTPreferences& qcPrefs() { return KTQC::qcPreferences(); }

    /// One launch of the program, as the window makes the controller.
    std::unique_ptr<KTQC> launch(std::shared_ptr<KTQCTransport> network = nullptr) {
        return std::make_unique<KTQC>(KTQC::Services{network ? network : transport, clock});
    }
    /// A launch run to its end: asked (and answering `answer` if asked), quit.
    void launchAndQuit(std::optional<int> answer = std::nullopt) {
        auto qc = launch();
        RecordingQuestion window;
        qc->loadQC(window);
        if (answer && window.answer) window.answer(*answer);
        qc->waitUntilIdle();
        asks += static_cast<int>(window.asked.size());
    }
    std::string cacheFile() const { return KTQC::cachePath(KTQC::kDefaultBundleID); }
    std::string logText() const {
        KTLog::finishWriting();
        return ScratchRoot::readFile(scratch.homePath("/Library/Logs/Quellbrook/QC.1.log"));
    }

    ScratchRoot scratch;
    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
    std::shared_ptr<RecordingTransport> transport = std::make_shared<RecordingTransport>();
    int asks = 0;
};
