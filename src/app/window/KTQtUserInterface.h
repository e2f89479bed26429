#pragma once

#include <QPointer>
#include <atomic>
#include <functional>

#include "SharedFiles/KTUserInterface.h"

class QDialog;
class QLabel;
class QProgressBar;
class QPushButton;
class QWidget;

/// The user-interface seam in Qt. Alerts and questions are window-modal
/// message boxes on the main window (sheets on macOS); the progress sheet is
/// a window-modal dialog with a bar and a Cancel button. Every call may come
/// from any thread: it is handed to the main thread, and a question asked by
/// a worker blocks that worker until the person answers.
class KTQtUserInterface : public KTUserInterface {
  public:
    explicit KTQtUserInterface(QWidget* window);
    ~KTQtUserInterface() override;

    int runAlert(const KTAlert& alert) override;
    std::string askText(const std::string& message, const std::string& informative,
                        const std::string& initial) override;

    void showProgressWindow() override;
    void setIndeterminateProgress() override;
    void setDeterminateProgress(double maximum) override;
    void incrementProgress() override;
    void updateProgressText(const std::string& text) override;
    void endProgressWindow() override;
    void startProgress() override;
    void endProgress() override;
    void catalogueReloadStarted() override;
    void catalogueReloadFinished() override;
    bool cancelRequested() const override { return cancelled_; }

    /// What the window does around progress and reloads (set once, main thread).
    std::function<void(bool busy)> onBusyChanged;
    std::function<void()> onReloadStarted;
    std::function<void()> onReloadFinished;
    /// Called on the main thread when Cancel is pressed.
    std::function<void()> onCancel;

    /// The sheet, for tests; null until first shown.
    QDialog* progressSheet() const { return sheet_; }
    QProgressBar* progressBar() const { return bar_; }
    QLabel* progressLabel() const { return label_; }
    /// Presses Cancel.
    void cancelProgress();

  private:
    void onMain(const std::function<void()>& work);
    void makeSheet();

    QPointer<QWidget> window_;
    QPointer<QDialog> sheet_;
    QLabel* label_ = nullptr;
    QProgressBar* bar_ = nullptr;
    QPushButton* cancel_ = nullptr;
    std::atomic<bool> cancelled_{false};
};
