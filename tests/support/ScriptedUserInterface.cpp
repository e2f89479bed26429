#include "support/ScriptedUserInterface.h"

#include <algorithm>

void ScriptedUserInterface::answer(const std::string& title) {
    std::lock_guard<std::mutex> l(lock_);
    answers_.push_back(title);
}

void ScriptedUserInterface::answerText(const std::string& text) {
    std::lock_guard<std::mutex> l(lock_);
    texts_.push_back(text);
}

void ScriptedUserInterface::setCancelAfterIncrements(int n) {
    std::lock_guard<std::mutex> l(lock_);
    cancelAfter_ = n;
}

int ScriptedUserInterface::runAlert(const KTAlert& alert) {
    std::lock_guard<std::mutex> l(lock_);
    alerts_.push_back(alert);
    events_.push_back("alert " + alert.message);
    if (answers_.empty()) return 0;
    std::string want = answers_.front();
    answers_.pop_front();
    auto it = std::find(alert.buttons.begin(), alert.buttons.end(), want);
    return it == alert.buttons.end() ? 0 : int(it - alert.buttons.begin());
}

std::string ScriptedUserInterface::askText(const std::string& message, const std::string&,
                                           const std::string&) {
    std::lock_guard<std::mutex> l(lock_);
    events_.push_back("ask " + message);
    if (texts_.empty()) return {};
    std::string t = texts_.front();
    texts_.pop_front();
    return t;
}

void ScriptedUserInterface::showProgressWindow() {
    std::lock_guard<std::mutex> l(lock_);
    events_.push_back("show");
}
void ScriptedUserInterface::setIndeterminateProgress() {
    std::lock_guard<std::mutex> l(lock_);
    events_.push_back("indeterminate");
}
void ScriptedUserInterface::setDeterminateProgress(double maximum) {
    std::lock_guard<std::mutex> l(lock_);
    events_.push_back("max " + std::to_string(static_cast<long long>(maximum)));
}
void ScriptedUserInterface::incrementProgress() {
    std::lock_guard<std::mutex> l(lock_);
    events_.push_back("inc");
    ++increments_;
}
void ScriptedUserInterface::updateProgressText(const std::string& text) {
    std::lock_guard<std::mutex> l(lock_);
    events_.push_back("text " + text);
}
void ScriptedUserInterface::endProgressWindow() {
    std::lock_guard<std::mutex> l(lock_);
    events_.push_back("end");
}
bool ScriptedUserInterface::cancelRequested() const {
    std::lock_guard<std::mutex> l(lock_);
    return cancelAfter_ >= 0 && increments_ >= cancelAfter_;
}
std::vector<KTAlert> ScriptedUserInterface::alerts() const {
    std::lock_guard<std::mutex> l(lock_);
    return alerts_;
}
std::vector<std::string> ScriptedUserInterface::events() const {
    std::lock_guard<std::mutex> l(lock_);
    return events_;
}
bool ScriptedUserInterface::hasEvent(const std::string& e) const {
    std::lock_guard<std::mutex> l(lock_);
    return std::find(events_.begin(), events_.end(), e) != events_.end();
}
