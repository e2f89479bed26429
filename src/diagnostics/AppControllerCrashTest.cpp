// The application controller's crash-test operations: thin entry points to
// the crash tester it owns.
#include "app/core/AppController.h"
#include "diagnostics/KTCrashTester.h"

void AppController::startCrashTester() {
    crashTester_ = std::make_unique<KTCrashTester>(*this);
    crashTester_->replayJournal();
}

void AppController::runCrashTestClick() {
    crashTester_->runCrashTestClick();
}

void AppController::runCrashTest() {
    crashTester_->runCrashTest();
}

bool AppController::quitAppWithBundleID(const std::string& bundleIdentifier) {
    return crashTester_->quitAppWithBundleID(bundleIdentifier);
}

void AppController::cleanupCrashTest(const std::vector<std::string>& list, bool reloadData) {
    crashTester_->cleanupCrashTest(&list, reloadData);
}
