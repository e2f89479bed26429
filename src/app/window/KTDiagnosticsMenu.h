#pragma once

#include <QObject>
#include <memory>

#include "SharedFiles/KTUserInterface.h"
#include "diagnostics/KTBugReporter.h"

class AppController;
class KTAUValidatorWindow;
class QMainWindow;

/// The window's diagnostic commands: "Validate Audio Units..." in the
/// Plugins menu, View Log, View Task Log and Gather Logs in the Help menu,
/// and, after a crash of the last run that no bug-reporting application
/// took, the offer to open its report.
class KTDiagnosticsMenu : public QObject, public KTBugReporterDelegate {
    Q_OBJECT
  public:
    /// Adds the menu items to `window`'s menu bar; the object lives as long
    /// as the window.
    static KTDiagnosticsMenu* install(QMainWindow* window, AppController& app,
                                      KTUserInterface& sheets);

    void validateAU();
    void viewLog();
    void viewTaskLog();
    void gatherLogs();
    void applicationDidCrashWithLog(const std::string& reportPath, bool openedInReporter) override;

    /// The validator's window, made on first use.
    KTAUValidatorWindow* validatorWindow();

  private:
    KTDiagnosticsMenu(QMainWindow* window, AppController& app, KTUserInterface& sheets);

    QMainWindow* window_;
    AppController& app_;
    KTUserInterface& sheets_;
    /// Free-standing alerts (the support commands' outcomes).
    std::unique_ptr<KTUserInterface> alerts_;
    KTAUValidatorWindow* validatorWindow_ = nullptr;
};
