#pragma once

#include <QObject>
#include <QString>
#include <atomic>
#include <functional>
#include <optional>
#include <thread>

#include "installer/KTInstallerBuilder.h"
#include "installer/KTNotarizer.h"

class QWidget;
class KTNotarizeStatusSheet;

/// File > "Notarize Disk Image...": asks for a disk image, then signs (with
/// the remembered identity) and notarises it on a thread of its own, with
/// the status sheet on the main window and the outcome as a sheet there.
class KTDiskImageNotarizer : public QObject, private KTInstallerBuilder::Delegate {
    Q_OBJECT
  public:
    /// The menu command; one notariser per main window.
    static KTDiskImageNotarizer* notarizeDiskImage(QWidget* mainWindow);

    explicit KTDiskImageNotarizer(QWidget* mainWindow);
    ~KTDiskImageNotarizer() override;

    /// Shows the chooser (or the test's) and starts the worker on OK.
    void chooseAndNotarize();
    /// The request for `path` from the installer form's preferences.
    static KTNotarizer::DiskImageRequest requestFor(const std::string& path);
    /// Handles events until the worker has ended.
    void waitForWork();

    /// Replaces the file chooser (tests).
    void setFileChooser(std::function<std::optional<QString>()> chooser) {
        chooser_ = std::move(chooser);
    }
    KTNotarizeStatusSheet* statusSheet() const { return sheet_; }
    std::pair<QString, QString> lastSheet() const { return lastSheet_; }
    bool busy() const { return working_; }

  private:
    void start(const QString& path);
    void runOnMain(const std::function<void()>& work);

    // KTInstallerBuilder::Delegate (worker thread)
    void showSheet(const std::string& message, const std::string& informative) override;
    int showSheetWithButtons(const std::string& message, const std::string& informative,
                             const std::vector<std::string>& buttons) override;
    void setStatusText(const std::string& text) override;
    void showStatusSheet() override;
    void hideStatusSheet() override;
    void setCancelEnabled(bool enabled) override;
    void openURL(const std::string& url) override;

    QWidget* mainWindow_;
    KTNotarizeStatusSheet* sheet_;
    std::function<std::optional<QString>()> chooser_;
    std::pair<QString, QString> lastSheet_;
    std::atomic<bool> installerCancelled_{false};
    std::atomic<bool> working_{false};
    std::thread worker_;
};
