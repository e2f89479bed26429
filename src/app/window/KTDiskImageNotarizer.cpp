#include "app/window/KTDiskImageNotarizer.h"

#include <QApplication>
#include <QDesktopServices>
#include <QFileDialog>
#include <QThread>
#include <QUrl>
#include <QWidget>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "app/window/KTNotarizeStatusSheet.h"
#include "installer/KTInstallerSettings.h"

namespace S = KTInstallerSettings;

KTDiskImageNotarizer* KTDiskImageNotarizer::notarizeDiskImage(QWidget* mainWindow) {
    auto* notarizer = mainWindow ? mainWindow->findChild<KTDiskImageNotarizer*>() : nullptr;
    if (!notarizer) notarizer = new KTDiskImageNotarizer(mainWindow);
    notarizer->chooseAndNotarize();
    return notarizer;
}

KTDiskImageNotarizer::KTDiskImageNotarizer(QWidget* mainWindow)
    : QObject(mainWindow),
      mainWindow_(mainWindow),
      sheet_(new KTNotarizeStatusSheet(mainWindow, [this] { installerCancelled_ = true; })) {}

KTDiskImageNotarizer::~KTDiskImageNotarizer() {
    installerCancelled_ = true;
    waitForWork();
}

KTNotarizer::DiskImageRequest KTDiskImageNotarizer::requestFor(const std::string& path) {
    KTPreferences& prefs = KTPreferences::standard();
    S::registerDefaults(prefs);
    KTNotarizer::DiskImageRequest request;
    request.path = path;
    request.bundleID = S::bundleIDForApp(prefs.stringForKey(S::kName).value_or(""),
                                         prefs.stringForKey(S::kAuthor).value_or(""),
                                         prefs.stringForKey(S::kVersion).value_or("")) +
                       ".dmg";
    // The identity chosen in the installer window, which it remembers.
    const std::string identity = prefs.stringForKey(S::kCertificateName).value_or("");
    if (!identity.empty() && identity != S::kNotSet)
        request.certificate = S::currentCertificateName(identity);
    return request;
}

void KTDiskImageNotarizer::chooseAndNotarize() {
    if (working_) return;
    KTLog::appendLog("DMG bundle ID: %@", requestFor("").bundleID);
    if (chooser_) {
        if (auto path = chooser_(); path && !path->isEmpty()) start(*path);
        return;
    }
    auto* panel = new QFileDialog(mainWindow_, QStringLiteral("Browse for a disk image"), QString(),
                                  QStringLiteral("Disk images (*.dmg)"));
    panel->setWindowModality(Qt::WindowModal);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setFileMode(QFileDialog::ExistingFile);
    connect(panel, &QFileDialog::fileSelected, this, [this](const QString& path) { start(path); });
    panel->open();
}

void KTDiskImageNotarizer::start(const QString& path) {
    if (working_) return;
    if (worker_.joinable()) worker_.join();
    const KTNotarizer::DiskImageRequest request = requestFor(path.toStdString());
    installerCancelled_ = false;
    working_ = true;
    worker_ = std::thread([this, request] {
        KTNotarizer notarizer(*this, [this] { return installerCancelled_.load(); });
        try {
            notarizer.notarizeDiskImageWithSettings(request);
        } catch (const std::exception& e) {
            KTException::logException(e, "-[AppController notarizeDiskImageWithSettings:]");
        }
        working_ = false;
    });
}

void KTDiskImageNotarizer::waitForWork() {
    // The worker hands its sheets to this thread: keep serving them.
    while (working_) QApplication::processEvents(QEventLoop::AllEvents, 20);
    if (worker_.joinable()) worker_.join();
}

void KTDiskImageNotarizer::runOnMain(const std::function<void()>& work) {
    if (QThread::currentThread() == thread()) return work();
    QMetaObject::invokeMethod(this, work, Qt::BlockingQueuedConnection);
}

void KTDiskImageNotarizer::showSheet(const std::string& message, const std::string& informative) {
    showSheetWithButtons(message, informative, {});
}

int KTDiskImageNotarizer::showSheetWithButtons(const std::string& message,
                                               const std::string& informative,
                                               const std::vector<std::string>& buttons) {
    int pressed = 0;
    runOnMain([&] {
        lastSheet_ = {QString::fromStdString(message), QString::fromStdString(informative)};
        pressed = KTNotarizeStatusSheet::runSheet(mainWindow_, message, informative, buttons);
    });
    return pressed;
}

void KTDiskImageNotarizer::setStatusText(const std::string& text) {
    runOnMain([&] { sheet_->setInstallNotarizeStatusText(QString::fromStdString(text)); });
}

void KTDiskImageNotarizer::showStatusSheet() {
    runOnMain([&] { sheet_->showInstallNotarizeStatusSheet(); });
}

void KTDiskImageNotarizer::hideStatusSheet() {
    runOnMain([&] { sheet_->hideInstallNotarizeStatusSheet(); });
}

void KTDiskImageNotarizer::setCancelEnabled(bool enabled) {
    runOnMain([&] { sheet_->setCancelEnabled(enabled); });
}

void KTDiskImageNotarizer::openURL(const std::string& url) {
    runOnMain([&] { QDesktopServices::openUrl(QUrl(QString::fromStdString(url))); });
}
