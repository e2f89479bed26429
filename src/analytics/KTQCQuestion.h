#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "SharedFiles/KTUserInterface.h"

/// How analytics asks for consent: the window shows the question on itself
/// after a delay, without holding up anything meanwhile, and reports the
/// button pressed (its index in `question.buttons`) on the main thread. The
/// tests answer with a recording double.
class KTQCQuestion {
  public:
    virtual ~KTQCQuestion() = default;
    virtual void ask(std::chrono::milliseconds delay, const KTAlert& question,
                     std::function<void(int button)> answered) = 0;
    /// Opens a web page in the browser.
    virtual void openURL(const std::string& url) = 0;
};
