#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "analytics/KTQC.h"
#include "support/ScratchRoot.h"

/// A clock the test moves by hand.
class FakeClock : public KTQCClock {
  public:
    double now() const override { return time; }
    double time = 1700000000;
};

/// Records every request and answers as told, finishing at once.
class RecordingTransport : public KTQCTransport {
  public:
    bool start(const KTQCRequest& request, Finished finished) override {
        std::lock_guard<std::mutex> l(lock);
        requests.push_back(request);
        if (!connects) return false;
        if (finished) finished(failure);
        return true;
    }
    std::vector<KTQCRequest> sent() {
        std::lock_guard<std::mutex> l(lock);
        return requests;
    }
    bool connects = true;
    std::optional<std::string> failure;

  private:
    std::mutex lock;
    std::vector<KTQCRequest> requests;
};

/// Keeps the questions put, for the test to answer.
class RecordingQuestion : public KTQCQuestion {
  public:
    struct Asked {
        std::chrono::milliseconds delay;
        KTAlert question;
        std::function<void(int)> answered;
    };
    void ask(std::chrono::milliseconds delay, const KTAlert& question,
             std::function<void(int)> answered) override {
        asked.push_back({delay, question, std::move(answered)});
    }
    void openURL(const std::string& url) override { opened.push_back(url); }
    std::vector<Asked> asked;
    std::vector<std::string> opened;
};

/// A scratch home with analytics pointed at `url` and a known system version.
class KTQCTestBase : public ::testing::Test {
  protected:
    void SetUp() override {
        KTLog::resetForTesting();
        KTLog::setSuperuserForTesting(false);
        KTLog::createNewLog(std::string("QC"), true);
        ScratchRoot::writeFile(scratch.rootPath("/etc/os-release"),
                               "NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 "
                               "(bookworm)\"\nVERSION_ID=\"12\"\n");
        configure("https://127.0.0.1:9/qc.php");
    }
    void TearDown() override { KTLog::resetForTesting(); }

    void configure(const std::string& url) {
        prefs().setString("qcSubmitURL", url);
        prefs().setString("qcMoreInfoURL", "https://example.invalid/analytics");
    }
    static KTPreferences& prefs() { return KTPreferences::standard(); }
    static KTPreferences& qcPrefs() { return KTQC::qcPreferences(); }

    /// One launch of the program: the controller as the window makes it.
    std::unique_ptr<KTQC> launch() {
        return std::make_unique<KTQC>(KTQC::Services{transport, clock});
    }
    /// A launch that runs to its end: asked (and answered with `answer`
    /// when asked), queue drained, quit.
    void launchAndQuit(std::optional<int> answer = std::nullopt) {
        auto qc = launch();
        RecordingQuestion window;
        qc->loadQC(window);
        if (answer && !window.asked.empty()) window.asked.back().answered(*answer);
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
