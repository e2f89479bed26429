#pragma once

#include <QDialog>
#include <functional>
#include <string>
#include <vector>

class QLabel;
class QProgressBar;
class QPushButton;

/// The sheet that stays on screen while a file is notarised: a moving
/// progress bar, one line of text and Cancel. Cancel calls `onCancel` (which
/// sets the worker's flag) and hides the sheet at once; the worker notices
/// between steps. Main thread only.
class KTNotarizeStatusSheet : public QDialog {
    Q_OBJECT
  public:
    KTNotarizeStatusSheet(QWidget* parent, std::function<void()> onCancel);

    /// Enables Cancel, shows the sheet on its parent and starts the bar.
    void showInstallNotarizeStatusSheet();
    /// Stops the bar and hides the sheet.
    void hideInstallNotarizeStatusSheet();
    void setInstallNotarizeStatusText(const QString& text);
    void setCancelEnabled(bool enabled);
    /// The status sheet's Cancel.
    void cancelInstallerNotarize();

    QLabel* statusLine() const { return text_; }
    QPushButton* cancelButton() const { return cancel_; }

    /// A window-modal alert on `parent` with `buttons` (the first is the
    /// default); the index of the one pressed.
    static int runSheet(QWidget* parent, const std::string& message, const std::string& informative,
                        const std::vector<std::string>& buttons);

  private:
    QLabel* text_ = nullptr;
    QProgressBar* bar_ = nullptr;
    QPushButton* cancel_ = nullptr;
    std::function<void()> onCancel_;
};
