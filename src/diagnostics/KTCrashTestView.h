#pragma once

#include <string>

/// The crash tester's dialog as the tester sees it. The tester calls these
/// on the main thread (through KTMainThread), waiting; the window implements
/// them with Qt, the tests with a recording double.
class KTCrashTestView {
  public:
    virtual ~KTCrashTestView() = default;

    /// Shows the text in the status field.
    virtual void updateCrashTestStatus(const std::string& text) = 0;
    /// Shows the progress bar.
    virtual void startCrashTestProgress() = 0;
    /// Maximum `maximum`, value 0, animation started.
    virtual void setupCrashTestProgressBar(double maximum) = 0;
    virtual void incrementCrashTestProgress() = 0;
    /// Stops the animation and hides the progress area.
    virtual void stopCrashTestProgress() = 0;
    /// True: the button reads "Cancel", the host menu is disabled and the
    /// status area shows; false: "Run Test", the menu enabled, the area hidden.
    virtual void resizeCrashTestDialog(bool running) = 0;
};
