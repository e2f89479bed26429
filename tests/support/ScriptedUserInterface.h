#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "SharedFiles/KTUserInterface.h"

/// The tests' interface: answers questions from a script (by button title),
/// records every alert and progress call.
class ScriptedUserInterface : public KTUserInterface {
public:
    /// Queues the title of the button the next question should answer with.
    void answer(const std::string& buttonTitle);
    void answerText(const std::string& text);
    void setCancelAfterIncrements(int n);

    int runAlert(const KTAlert& alert) override;
    std::string askText(const std::string& message, const std::string& informative,
                        const std::string& initial) override;
    void showProgressWindow() override;
    void setIndeterminateProgress() override;
    void setDeterminateProgress(double maximum) override;
    void incrementProgress() override;
    void updateProgressText(const std::string& text) override;
    void endProgressWindow() override;
    bool cancelRequested() const override;

    std::vector<KTAlert> alerts() const;
    /// Every call in order, as "show", "max 5", "inc", "text ...", "end", "alert ...".
    std::vector<std::string> events() const;
    bool hasEvent(const std::string& event) const;

private:
    mutable std::mutex lock_;
    std::deque<std::string> answers_;
    std::deque<std::string> texts_;
    std::vector<KTAlert> alerts_;
    std::vector<std::string> events_;
    int cancelAfter_ = -1;
    int increments_ = 0;
};
