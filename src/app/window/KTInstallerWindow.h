#pragma once

#include <QWidget>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "catalogue/KTItem.h"
#include "installer/KTInstallerBuilder.h"

class QCheckBox;
class QComboBox;
class QLineEdit;
class QMessageBox;
class QProgressBar;
class QPushButton;
class KTNotarizeStatusSheet;

/// The installer window: the form whose fields are the installer
/// preferences, the signing identity, the notarisation account (kept in the
/// keychain, not the preferences), and Create, which validates, asks where
/// to save and builds on a thread of its own.
class KTInstallerWindow : public QWidget, private KTInstallerBuilder::Delegate {
    Q_OBJECT
  public:
    /// The menu command: with a selection, opens (or brings forward) the one
    /// installer window of `mainWindow` for it; without, a sheet on `mainWindow`.
    static KTInstallerWindow* showInstallerWindow(QWidget* mainWindow, const KTItemList& selection);

    explicit KTInstallerWindow(QWidget* parent = nullptr);
    ~KTInstallerWindow() override;

    /// Fills the identity menu and the Apple ID fields afresh.
    void prepare(const KTItemList& selection);
    /// Validates, stores the Apple ID, asks for the destination and builds.
    void createInstaller();
    /// The save panel ended with `path` (nothing: cancelled).
    void installerSavePanelDidEnd(const std::optional<QString>& path);
    /// Handles events until the build thread has ended.
    void waitForBuild();

    /// Replaces the save panel (tests).
    void setSavePanel(std::function<std::optional<QString>(const QString& proposed)> panel) {
        savePanel_ = std::move(panel);
    }

    // For tests.
    QLineEdit* nameField() const { return name_; }
    QLineEdit* versionField() const { return version_; }
    QLineEdit* authorField() const { return author_; }
    QLineEdit* pathField(const char* key) const;
    QLineEdit* appleIDField() const { return appleID_; }
    QLineEdit* passwordField() const { return password_; }
    QComboBox* identityMenu() const { return identity_; }
    QLineEdit* teamIDField() const { return teamID_; }
    QComboBox* toolMenu() const { return tool_; }
    KTNotarizeStatusSheet* statusSheet() const { return statusSheet_; }
    QCheckBox* brandingBox() const { return branding_; }
    QProgressBar* spinner() const { return spinner_; }
    /// The last sheet shown, message and informative text.
    std::pair<QString, QString> lastSheet() const { return lastSheet_; }
    /// The identity chosen without its trailing " (...)", "" for "(not set)".
    std::string currentCertificateName() const;

  private:
    struct PathField {
        const char* key;
        QLineEdit* field;
    };
    QLineEdit* addPathRow(class QFormLayout* form, const QString& label, const char* key,
                          const QString& filter);
    void sheet(const QString& message, const QString& informative, QWidget* focus = nullptr);
    void runOnMain(const std::function<void()>& work);

    // KTInstallerBuilder::Delegate (build thread)
    void setSpinning(bool spinning) override;
    void showSheet(const std::string& message, const std::string& informative) override;
    int showSheetWithButtons(const std::string& message, const std::string& informative,
                             const std::vector<std::string>& buttons) override;
    void setStatusText(const std::string& text) override;
    void showStatusSheet() override;
    void hideStatusSheet() override;
    void setCancelEnabled(bool enabled) override;
    void openURL(const std::string& url) override;

    QLineEdit* name_ = nullptr;
    QLineEdit* version_ = nullptr;
    QLineEdit* author_ = nullptr;
    QComboBox* identity_ = nullptr;
    QCheckBox* branding_ = nullptr;
    QLineEdit* appleID_ = nullptr;
    QLineEdit* password_ = nullptr;
    QLineEdit* teamID_ = nullptr;
    QComboBox* tool_ = nullptr;
    KTNotarizeStatusSheet* statusSheet_ = nullptr;
    QPushButton* create_ = nullptr;
    QProgressBar* spinner_ = nullptr;
    std::vector<PathField> paths_;
    KTItemList selection_;
    std::pair<QString, QString> lastSheet_;
    std::function<std::optional<QString>(const QString&)> savePanel_;
    KTInstallerBuilder builder_{*this};
    std::thread worker_;
    std::atomic<bool> building_{false};
};
