#include "app/core/AppController.h"

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTUserInterface.h"
#include "catalogue/OutlineViewController.h"
#include "diagnostics/KTAUValidator.h"
#include "diagnostics/KTBugReporter.h"

AppController::AppController() : hasGUI_(true) {
    KTLog::createNewLog();
    KTBugReporter::startBugReporter();
    auValidator_ = std::make_unique<KTAUValidator>(*this);
    outline_ = std::make_unique<OutlineViewController>(this);
    registerDefaultPreferences();
    outline_->setHasGUI(true);
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
}

std::unique_ptr<AppController> AppController::initWithoutGUI() {
    try {
        return std::unique_ptr<AppController>(new AppController(WithoutGUI{}));
    } catch (const std::exception& e) {
        KTException::logException(e, "-[AppController initWithoutGUI]");
        return nullptr;
    }
}

AppController::~AppController() {
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
