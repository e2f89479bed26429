#include "app/window/KTDiagnosticsMenu.h"

#include <QDialog>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QTimer>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTUserInterface.h"
#include "SharedFiles/KTWorkspace.h"
#include "app/core/AppController.h"
#include "app/window/KTAUValidatorWindow.h"
#include "app/window/KTQtUserInterface.h"
#include "diagnostics/KTTroubleshootingUtils.h"

namespace {

const char* const kAppName = "Ambrel";

/// The menu of the menu bar with this title, made at the end when missing.
QMenu* menuNamed(QMainWindow* window, const QString& title) {
    for (QAction* action : window->menuBar()->actions()) {
        if (action->menu() && action->text() == title) return action->menu();
    }
    return window->menuBar()->addMenu(title);
}

}  // namespace

KTDiagnosticsMenu* KTDiagnosticsMenu::install(QMainWindow* window, AppController& app,
                                              KTUserInterface& sheets) {
    return new KTDiagnosticsMenu(window, app, sheets);
}

KTDiagnosticsMenu::KTDiagnosticsMenu(QMainWindow* window, AppController& app,
                                     KTUserInterface& sheets)
    : QObject(window), window_(window), app_(app), sheets_(sheets) {
    setObjectName(QStringLiteral("diagnosticsMenu"));
    alerts_ = std::make_unique<KTQtUserInterface>(nullptr);

    QMenu* plugins = menuNamed(window, QStringLiteral("&Plugins"));
    plugins->addSeparator();
    plugins->addAction(QStringLiteral("Validate Audio Units..."), this, [this] { validateAU(); });

    QMenu* help = menuNamed(window, QStringLiteral("&Help"));
    help->addAction(QStringLiteral("View Log"), this, [this] { viewLog(); });
    help->addAction(QStringLiteral("View Task Log"), this, [this] { viewTaskLog(); });
    help->addSeparator();
    help->addAction(QStringLiteral("Gather Logs"), this, [this] { gatherLogs(); });

    // The controller looked for a crash of the last run before this window
    // existed; the offer comes once the window is up.
    bool opened = false;
    if (auto report = KTBugReporter::lastCrashReport(&opened)) {
        const std::string path = *report;
        QTimer::singleShot(0, this,
                           [this, path, opened] { applicationDidCrashWithLog(path, opened); });
    }
}

KTAUValidatorWindow* KTDiagnosticsMenu::validatorWindow() {
    if (!validatorWindow_) validatorWindow_ = new KTAUValidatorWindow(app_.auValidator(), window_);
    return validatorWindow_;
}

void KTDiagnosticsMenu::validateAU() {
    validatorWindow()->validateAU();
}

void KTDiagnosticsMenu::viewLog() {
    KTTroubleshootingUtils::viewLogForApp(kAppName, alerts_.get());
}

void KTDiagnosticsMenu::viewTaskLog() {
    KTTroubleshootingUtils::viewTaskLogForApp(kAppName, alerts_.get());
}

void KTDiagnosticsMenu::gatherLogs() {
    // Everything logged so far belongs in the archive.
    KTLog::finishWriting();
    KTTroubleshootingUtils::gatherLogsForAppWithName(kAppName, alerts_.get());
}

void KTDiagnosticsMenu::applicationDidCrashWithLog(const std::string& reportPath,
                                                   bool openedInReporter) {
    if (openedInReporter) return;
    const int answer =
        sheets_.runAlert(KTAlert{"Ambrel quit unexpectedly the last time it was used.",
                                 "A crash report was written to " + reportPath +
                                     ". You can open it to send it to the developer.",
                                 {"Open Report", "Not Now"}});
    if (answer == 0 && !KTWorkspace::shared().openFile(reportPath))
        sheets_.runAlert(
            KTAlert{"Unable to open the crash report",
                    "No application to show it was found. The report is at " + reportPath + ".",
                    {}});
}
