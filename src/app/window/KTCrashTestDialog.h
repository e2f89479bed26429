#pragma once

#include <QDialog>

#include "diagnostics/KTCrashTestView.h"

class AppController;
class QCheckBox;
class QComboBox;
class QLabel;
class QProgressBar;
class QPushButton;
class QWidget;

/// The Crash Tester dialog: the host pop-up, the halving check box, the
/// Run/Cancel button and, while a test runs, the status field and progress
/// bar (the dialog grows to show them and shrinks back afterwards). It also
/// observes "ktRemoteLaunchCrashTest" on the session bus, which brings it to
/// the front, and asks before the main window closes during a test.
class KTCrashTestDialog : public QDialog, public KTCrashTestView {
    Q_OBJECT
  public:
    /// `mainWindow` is the window whose closing ends a running test.
    KTCrashTestDialog(AppController& app, QWidget* mainWindow);
    ~KTCrashTestDialog() override;

    /// The menu item: the idle size, then to the front.
    void crashLocateClick();
    /// The Run/Cancel button.
    void runCrashTestClick();

    // KTCrashTestView (main thread)
    void updateCrashTestStatus(const std::string& text) override;
    void startCrashTestProgress() override;
    void setupCrashTestProgressBar(double maximum) override;
    void incrementCrashTestProgress() override;
    void stopCrashTestProgress() override;
    void resizeCrashTestDialog(bool running) override;

    // For tests.
    QComboBox* hostPopup() const { return hosts_; }
    QCheckBox* halvingBox() const { return halving_; }
    QPushButton* runButton() const { return run_; }
    QLabel* statusField() const { return status_; }
    QProgressBar* progressBar() const { return progress_; }
    QWidget* statusArea() const { return statusArea_; }
    /// True while the session-bus signal is observed.
    bool observesRemoteLaunch() const { return observing_; }

  public slots:
    /// "ktRemoteLaunchCrashTest" arrived: logged, and the dialog comes forward
    /// (no test is started).
    void remoteLaunchCrashTest();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    AppController& app_;
    QWidget* mainWindow_;
    QComboBox* hosts_ = nullptr;
    QCheckBox* halving_ = nullptr;
    QPushButton* run_ = nullptr;
    QWidget* statusArea_ = nullptr;
    QLabel* status_ = nullptr;
    QProgressBar* progress_ = nullptr;
    bool observing_ = false;
};
