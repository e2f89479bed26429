#include "app/window/KTInstallerWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QThread>
#include <QUrl>
#include <QVBoxLayout>

#include "SharedFiles/KTKeychain.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "app/window/KTNotarizeStatusSheet.h"
#include "installer/KTInstallerSettings.h"
#include "installer/KTNotarizer.h"
#include "operations/KTOperationSupport.h"

namespace S = KTInstallerSettings;

namespace {

QString qs(const std::string& s) {
    return QString::fromStdString(s);
}

/// A window-modal message box that does not block the caller.
void openSheet(QWidget* parent, const QString& message, const QString& informative) {
    auto* box = new QMessageBox(parent);
    box->setWindowModality(Qt::WindowModal);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setText(message);
    box->setInformativeText(informative);
    box->open();
}

/// A line edit that writes its preference on every change.
QLineEdit* boundField(QWidget* parent, const char* key) {
    KTPreferences& prefs = KTPreferences::standard();
    auto* field = new QLineEdit(qs(prefs.stringForKey(key).value_or("")), parent);
    QObject::connect(field, &QLineEdit::textChanged, parent, [key](const QString& text) {
        KTPreferences::standard().setString(key, text.toStdString());
    });
    return field;
}

}  // namespace

KTInstallerWindow* KTInstallerWindow::showInstallerWindow(QWidget* mainWindow,
                                                          const KTItemList& selection) {
    if (selection.empty()) {
        openSheet(mainWindow, QStringLiteral("You must select a plugin or group"),
                  QStringLiteral("Select a plugin or group and then click Create Ambrel Installer "
                                 "to create a new installer from these plugins."));
        return nullptr;
    }
    auto* window = mainWindow ? mainWindow->findChild<KTInstallerWindow*>() : nullptr;
    if (!window) window = new KTInstallerWindow(mainWindow);
    window->prepare(selection);
    window->show();
    window->raise();
    window->activateWindow();
    return window;
}

KTInstallerWindow::KTInstallerWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
    setWindowTitle(QStringLiteral("Create Ambrel Installer"));
    S::registerDefaults(KTPreferences::standard());
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    layout->addLayout(form);
    name_ = boundField(this, S::kName);
    version_ = boundField(this, S::kVersion);
    author_ = boundField(this, S::kAuthor);
    form->addRow(QStringLiteral("Plugin name:"), name_);
    form->addRow(QStringLiteral("Version:"), version_);
    form->addRow(QStringLiteral("Author:"), author_);
    addPathRow(form, QStringLiteral("Icon:"), S::kIconPath, QStringLiteral("Icons (*.png *.icns)"));
    addPathRow(form, QStringLiteral("Licence agreement:"), S::kEULAPath,
               QStringLiteral("Text (*.txt *.text *.rtf)"));
    addPathRow(form, QStringLiteral("Background picture:"), S::kBgImagePath,
               QStringLiteral("Images (*.jpg *.jpeg *.png *.tif *.tiff)"));
    addPathRow(form, QStringLiteral("Pre-install script:"), S::kPreInstallScript,
               QStringLiteral("Scripts (*.sh *.scpt *.swift)"));
    addPathRow(form, QStringLiteral("Post-install script:"), S::kPostInstallScript,
               QStringLiteral("Scripts (*.sh *.scpt *.swift)"));

    branding_ = new QCheckBox(QStringLiteral("Remove Ambrel branding"), this);
    branding_->setChecked(KTPreferences::standard().boolForKey(S::kRemoveBranding));
    connect(branding_, &QCheckBox::toggled, this,
            [](bool on) { KTPreferences::standard().setBool(S::kRemoveBranding, on); });
    form->addRow(QString(), branding_);

    identity_ = new QComboBox(this);
    connect(identity_, &QComboBox::activated, this, [this](int) {
        KTPreferences::standard().setString(S::kCertificateName,
                                            identity_->currentText().toStdString());
    });
    form->addRow(QStringLiteral("Signing identity:"), identity_);
    appleID_ = new QLineEdit(this);
    password_ = new QLineEdit(this);
    password_->setEchoMode(QLineEdit::Password);
    form->addRow(QStringLiteral("Apple ID:"), appleID_);
    form->addRow(QStringLiteral("App-specific password:"), password_);
    teamID_ = boundField(this, KTNotarizer::kTeamIDKey);
    teamID_->setPlaceholderText(QStringLiteral("needed by notarytool"));
    form->addRow(QStringLiteral("Team ID:"), teamID_);
    // Apple's service no longer takes uploads from altool; it stays for
    // whoever still has a way to use it.
    tool_ = new QComboBox(this);
    tool_->addItem(QStringLiteral("notarytool"), QStringLiteral("notarytool"));
    tool_->addItem(QStringLiteral("altool"), QStringLiteral("altool"));
    tool_->setCurrentIndex(
        KTNotarizer::chosenTool(teamID_->text().toStdString()) == KTNotarizer::Tool::Altool ? 1
                                                                                            : 0);
    connect(tool_, &QComboBox::activated, this, [this](int) {
        KTPreferences::standard().setString(KTNotarizer::kToolKey,
                                            tool_->currentData().toString().toStdString());
    });
    form->addRow(QStringLiteral("Notarize with:"), tool_);
    // Until a tool is chosen, the menu follows the default a Team ID makes.
    connect(teamID_, &QLineEdit::textChanged, this, [this](const QString& team) {
        tool_->setCurrentIndex(
            KTNotarizer::chosenTool(team.toStdString()) == KTNotarizer::Tool::Altool ? 1 : 0);
    });
    statusSheet_ = new KTNotarizeStatusSheet(this, [this] { builder_.cancel(); });

    auto* buttons = new QHBoxLayout;
    spinner_ = new QProgressBar(this);
    spinner_->setRange(0, 0);
    spinner_->setMaximumWidth(80);
    spinner_->setVisible(false);
    buttons->addWidget(spinner_);
    buttons->addStretch();
    create_ = new QPushButton(QStringLiteral("Create"), this);
    create_->setDefault(true);
    buttons->addWidget(create_);
    layout->addLayout(buttons);
    connect(create_, &QPushButton::clicked, this, &KTInstallerWindow::createInstaller);
}

KTInstallerWindow::~KTInstallerWindow() {
    builder_.cancel();
    waitForBuild();
}

QLineEdit* KTInstallerWindow::addPathRow(QFormLayout* form, const QString& label, const char* key,
                                         const QString& filter) {
    auto* row = new QHBoxLayout;
    QLineEdit* field = boundField(this, key);
    auto* browse = new QPushButton(QStringLiteral("Browse..."), this);
    row->addWidget(field);
    row->addWidget(browse);
    form->addRow(label, row);
    paths_.push_back({key, field});
    connect(browse, &QPushButton::clicked, this, [this, field, filter] {
        auto* panel = new QFileDialog(this, QString(), QString(), filter);
        panel->setWindowModality(Qt::WindowModal);
        panel->setAttribute(Qt::WA_DeleteOnClose);
        panel->setFileMode(QFileDialog::ExistingFile);
        // Writing the field writes its preference.
        connect(panel, &QFileDialog::fileSelected, field, &QLineEdit::setText);
        panel->open();
    });
    return field;
}

QLineEdit* KTInstallerWindow::pathField(const char* key) const {
    for (const auto& p : paths_)
        if (std::string(p.key) == key) return p.field;
    return nullptr;
}

void KTInstallerWindow::prepare(const KTItemList& selection) {
    selection_ = selection;
    identity_->clear();
    identity_->addItem(qs(S::kNotSet));
    const auto names = KTKeychain::certificateNames().value_or(std::vector<std::string>{});
    for (const auto& n : names) identity_->addItem(qs(n));
    const std::string chosen = S::initialIdentity(
        names, KTPreferences::standard().stringForKey(S::kCertificateName).value_or(""));
    identity_->setCurrentText(qs(chosen));

    std::string id, password;
    if (KTKeychain::appleIDInfo(&id, &password) && !id.empty() && !password.empty()) {
        appleID_->setText(qs(id));
        password_->setText(qs(password));
    }
}

std::string KTInstallerWindow::currentCertificateName() const {
    const std::string title = identity_->currentText().toStdString();
    if (title.empty() || title == S::kNotSet) return {};
    return S::currentCertificateName(title);
}

void KTInstallerWindow::sheet(const QString& message, const QString& informative, QWidget* focus) {
    lastSheet_ = {message, informative};
    openSheet(this, message, informative);
    if (focus) focus->setFocus();
}

void KTInstallerWindow::createInstaller() {
    const QString blank = QStringLiteral("Please enter a value for this field.");
    if (name_->text().isEmpty())
        return sheet(QStringLiteral("Plugin name cannot be blank"), blank, name_);
    if (version_->text().isEmpty())
        return sheet(QStringLiteral("Plugin version cannot be blank"), blank, version_);
    if (author_->text().isEmpty())
        return sheet(QStringLiteral("Plugin author cannot be blank"), blank, author_);
    const QString noScript = QStringLiteral(
        "Please check this field and try again, otherwise leave it blank to not use a script.");
    QLineEdit* pre = pathField(S::kPreInstallScript);
    if (!pre->text().isEmpty() && !KTOperationSupport::exists(pre->text().toStdString()))
        return sheet(QStringLiteral("Pre-install script path doesn't exist"), noScript, pre);
    QLineEdit* post = pathField(S::kPostInstallScript);
    if (!post->text().isEmpty() && !KTOperationSupport::exists(post->text().toStdString()))
        return sheet(QStringLiteral("Post-install script path doesn't exist"), noScript, post);

    KTKeychain::setAppleIDInfo(appleID_->text().toStdString(), password_->text().toStdString());

    const QString proposed = qs(S::proposedFileName(name_->text().toStdString()));
    if (savePanel_) return installerSavePanelDidEnd(savePanel_(proposed));
    auto* panel = new QFileDialog(this);
    panel->setWindowModality(Qt::WindowModal);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setAcceptMode(QFileDialog::AcceptSave);
    panel->setFileMode(QFileDialog::AnyFile);
    panel->setNameFilter(QStringLiteral("Applications (*.app)"));
    panel->selectFile(proposed);
    connect(panel, &QFileDialog::fileSelected, this,
            [this](const QString& path) { installerSavePanelDidEnd(path); });
    panel->open();
}

void KTInstallerWindow::installerSavePanelDidEnd(const std::optional<QString>& path) {
    if (!path || path->isEmpty() || building_) return;
    KTInstallerRequest request = S::requestFromPreferences(KTPreferences::standard());
    request.installerName = name_->text().toStdString();
    request.installerVersion = version_->text().toStdString();
    request.installerAuthor = author_->text().toStdString();
    request.destFilename = S::destinationWithExtension(path->toStdString());
    request.files = S::filesForItems(selection_);
    if (request.files.empty())
        return sheet(
            QStringLiteral("Unable to create installer"),
            QStringLiteral("No files to add. Make sure you didn't select an empty group."));
    if (const std::string identity = currentCertificateName(); !identity.empty())
        request.certificate = identity;

    waitForBuild();
    building_ = true;
    create_->setEnabled(false);
    worker_ = std::thread([this, request] {
        builder_.createInstallerWithSettings(request);
        runOnMain([this] { create_->setEnabled(true); });
        building_ = false;
    });
}

void KTInstallerWindow::waitForBuild() {
    // The build hands its sheets to this thread: keep serving them.
    while (building_) QApplication::processEvents(QEventLoop::AllEvents, 20);
    if (worker_.joinable()) worker_.join();
}

void KTInstallerWindow::runOnMain(const std::function<void()>& work) {
    if (QThread::currentThread() == thread()) return work();
    QMetaObject::invokeMethod(this, work, Qt::BlockingQueuedConnection);
}

void KTInstallerWindow::setSpinning(bool spinning) {
    runOnMain([this, spinning] { spinner_->setVisible(spinning); });
}

void KTInstallerWindow::showSheet(const std::string& message, const std::string& informative) {
    runOnMain([this, message, informative] { sheet(qs(message), qs(informative)); });
}

int KTInstallerWindow::showSheetWithButtons(const std::string& message,
                                            const std::string& informative,
                                            const std::vector<std::string>& buttons) {
    int pressed = 0;
    runOnMain([&] {
        lastSheet_ = {qs(message), qs(informative)};
        pressed = KTNotarizeStatusSheet::runSheet(this, message, informative, buttons);
    });
    return pressed;
}

void KTInstallerWindow::setStatusText(const std::string& text) {
    runOnMain([&] { statusSheet_->setInstallNotarizeStatusText(qs(text)); });
}

void KTInstallerWindow::showStatusSheet() {
    runOnMain([&] { statusSheet_->showInstallNotarizeStatusSheet(); });
}

void KTInstallerWindow::hideStatusSheet() {
    runOnMain([&] { statusSheet_->hideInstallNotarizeStatusSheet(); });
}

void KTInstallerWindow::setCancelEnabled(bool enabled) {
    runOnMain([&] { statusSheet_->setCancelEnabled(enabled); });
}

void KTInstallerWindow::openURL(const std::string& url) {
    runOnMain([&] { QDesktopServices::openUrl(QUrl(qs(url))); });
}
