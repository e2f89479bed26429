#include "app/core/AppController.h"

#include <system_error>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTUserInterface.h"
#include "catalogue/OutlineViewController.h"
#include "diagnostics/KTCrashTester.h"
#include "diagnostics/KTAUValidator.h"
#include "diagnostics/KTBugReporter.h"

AppController::AppController() : hasGUI_(true) {
    KTLog::createNewLog();
    KTBugReporter::startBugReporter();
    auValidator_ = std::make_unique<KTAUValidator>(*this);
    outline_ = std::make_unique<OutlineViewController>(this);
    registerDefaultPreferences();
    outline_->setHasGUI(true);
    startCrashTester();
}

AppController::AppController(WithoutGUI) : hasGUI_(false) {
    KTLog::createNewLog(std::string("Ambrel.task"));
    KTBugReporter::startCommandLineBugReporter();
    auValidator_ = std::make_unique<KTAUValidator>(*this);
    // Made first, without an interface, so that nothing later prompts.
    KTAuthorization::sharedController(false);
    outline_ = std::make_unique<OutlineViewController>(this);
    outline_->setHasGUI(false);
    registerDefaultPreferences();
    startCrashTester();
}

std::unique_ptr<AppController> AppController::initWithoutGUI() {
    // The log may be what failed (no thread for its writer): the line goes
    // to standard error first, and to the log only if the log can take it.
    const char* const method = "-[AppController initWithoutGUI]";
    try {
        return std::unique_ptr<AppController>(new AppController(WithoutGUI{}));
    } catch (const std::system_error& e) {
        KTLog::systemConsole("Exception in %s. %@ - %@.", method, "std::system_error", e.what());
    } catch (const std::exception& e) {
        KTLog::systemConsole("Exception in %s. %@ - %@.", method, "std::exception", e.what());
    } catch (...) {
        KTLog::systemConsole("Exception in %s. %@ - %@.", method, "unknown",
                             "a non-standard exception");
    }
    return nullptr;
}

AppController::~AppController() {
    // A running test ends (through its clean-up) before anything it uses goes.
    crashTester_.reset();
    waitForReload();
    auValidator_.reset();
    KTBugReporter::stopStartedBugReporter();
    std::lock_guard<std::mutex> l(reloadLock_);
}

void AppController::registerDefaultPreferences() {
    KTPreferences::standard().registerDefaults({
        {"SUCheckAtStartup", true},
        {"filter", 0LL},
        {"installerAuthor", KTLocalPaths::username()},
        {"installerVersion", std::string("1.0")},
        {"installerName", std::string("My Plugin")},
        {"ignoreFxFactory", 0LL},
    });
}

void AppController::setHasGUI(bool v) {
    hasGUI_ = v;
    outline_->setHasGUI(v);
}

void AppController::setUserInterface(std::shared_ptr<KTUserInterface> ui) { ui_ = std::move(ui); }

bool AppController::processingCancelled() const {
    return processingCancelled_ || (hasGUI_ && ui_ && ui_->cancelRequested());
}

void AppController::startProgress() {
    if (hasGUI_ && ui_) ui_->startProgress();
}
void AppController::endProgress() {
    if (hasGUI_ && ui_) ui_->endProgress();
}
void AppController::showProgressWindow() {
    if (!hasGUI_ || !ui_) return;
    processingCancelled_ = false;
    ui_->showProgressWindow();
    ui_->updateProgressText("Initializing...");
    ui_->setIndeterminateProgress();
}
void AppController::setIndeterminateProgress() {
    if (hasGUI_ && ui_) ui_->setIndeterminateProgress();
}
void AppController::setDeterminateProgress(double maximum) {
    if (hasGUI_ && ui_) ui_->setDeterminateProgress(maximum);
}
void AppController::incrementProgress() {
    if (hasGUI_ && ui_) ui_->incrementProgress();
}
void AppController::updateProgressText(const std::string& text) {
    if (hasGUI_ && ui_) ui_->updateProgressText(text);
}
void AppController::cancelProgress() {
    if (hasGUI_) processingCancelled_ = true;
}
void AppController::endProgressWindow() {
    if (!hasGUI_ || !ui_) return;
    ui_->endProgressWindow();
    processingCancelled_ = false;
}
