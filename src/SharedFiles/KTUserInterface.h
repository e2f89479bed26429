#pragma once

#include <memory>
#include <string>
#include <vector>

/// One alert or question: a short message, the informative text under it and
/// the buttons, first button the default.
struct KTAlert {
    std::string message;
    std::string informative;
    std::vector<std::string> buttons;  ///< empty means a single "OK"
};

/// Everything the core shows a person. The window implements it with Qt
/// (window-modal dialogs, a progress sheet), the command line prints, and the
/// tests use a scripted double that answers questions and records what was
/// shown. Every call may come from any thread; an implementation that needs
/// its own thread (Qt) hands the work over and blocks the caller until done.
class KTUserInterface {
public:
    virtual ~KTUserInterface() = default;

    /// Shows the alert and answers the index of the button pressed.
    virtual int runAlert(const KTAlert& alert) = 0;

    /// Asks for a line of text (a group name, a password). Empty when cancelled.
    virtual std::string askText(const std::string& message, const std::string& informative,
                                const std::string& initial) {
        return {};
    }

    // The progress sheet and the main window's spinner.
    virtual void showProgressWindow() = 0;
    virtual void setIndeterminateProgress() = 0;
    virtual void setDeterminateProgress(double maximum) = 0;
    virtual void incrementProgress() = 0;
    virtual void updateProgressText(const std::string& text) = 0;
    virtual void endProgressWindow() = 0;
    virtual void startProgress() {}
    virtual void endProgress() {}

    /// The catalogue is about to be cleared and rebuilt: the window empties
    /// its count line and disables the filter; when the load ends it shows
    /// the new tree, re-applies sorting and expanded groups.
    virtual void catalogueReloadStarted() {}
    virtual void catalogueReloadFinished() {}

    /// Set when the person pressed Cancel on the progress sheet.
    virtual bool cancelRequested() const { return false; }
};

/// The command line's interface: alerts print their two texts on standard
/// output and answer their default button; progress is silent.
class KTConsoleUserInterface : public KTUserInterface {
public:
    int runAlert(const KTAlert& alert) override;
    void showProgressWindow() override {}
    void setIndeterminateProgress() override {}
    void setDeterminateProgress(double) override {}
    void incrementProgress() override {}
    void updateProgressText(const std::string&) override {}
    void endProgressWindow() override {}
};
