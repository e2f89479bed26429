#include "app/window/KTCrashTestDialog.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QDBusConnection>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTUserInterface.h"
#include "app/core/AppController.h"
#include "diagnostics/KTCrashTestHost.h"
#include "diagnostics/KTCrashTester.h"

namespace {
const QString kRemoteLaunchSignal = QStringLiteral("ktRemoteLaunchCrashTest");
}

KTCrashTestDialog::KTCrashTestDialog(AppController& app, QWidget* mainWindow)
    : QDialog(mainWindow), app_(app), mainWindow_(mainWindow) {
    setWindowTitle(QStringLiteral("Crash Tester"));

    hosts_ = new QComboBox(this);
    for (const KTCrashTestHost& host : KTCrashTestHost::all())
        hosts_->addItem(QString::fromStdString(host.name));
    halving_ = new QCheckBox(QStringLiteral("Find every culprit by halving"), this);
    halving_->setToolTip(
        QStringLiteral("Disable half of the remaining plugins at a time: a few relaunches "
                       "instead of one per plugin"));
    run_ = new QPushButton(QStringLiteral("Run Test"), this);
    run_->setDefault(true);
    connect(run_, &QPushButton::clicked, this, [this] { runCrashTestClick(); });

    auto* intro = new QLabel(
        QStringLiteral("Crash Tester finds the plugin that makes a host application crash at "
                       "startup. Choose the host and run the test."),
        this);
    intro->setWordWrap(true);

    statusArea_ = new QWidget(this);
    status_ = new QLabel(statusArea_);
    status_->setWordWrap(true);
    progress_ = new QProgressBar(statusArea_);
    progress_->setTextVisible(false);
    auto* statusLayout = new QVBoxLayout(statusArea_);
    statusLayout->setContentsMargins(0, 0, 0, 0);
    statusLayout->addWidget(status_);
    statusLayout->addWidget(progress_);
    statusArea_->hide();

    auto* row = new QHBoxLayout;
    row->addWidget(new QLabel(QStringLiteral("Host:"), this));
    row->addWidget(hosts_, 1);
    row->addWidget(run_);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(intro);
    layout->addLayout(row);
    layout->addWidget(halving_);
    layout->addWidget(statusArea_);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    setMinimumWidth(420);

    app_.crashTester().setView(this);
    if (mainWindow_) mainWindow_->installEventFilter(this);

    // Without a session bus there is simply nobody to hear from.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        observing_ = bus.connect(QString(), QString(), QString(), kRemoteLaunchSignal, this,
                                 SLOT(remoteLaunchCrashTest()));
    }
}

KTCrashTestDialog::~KTCrashTestDialog() {
    if (observing_) {
        QDBusConnection::sessionBus().disconnect(QString(), QString(), QString(),
                                                 kRemoteLaunchSignal, this,
                                                 SLOT(remoteLaunchCrashTest()));
    }
    if (mainWindow_) mainWindow_->removeEventFilter(this);
    app_.crashTester().setView(nullptr);
}

void KTCrashTestDialog::crashLocateClick() {
    // A running test keeps its status on show.
    if (!app_.crashTester().testRunning()) resizeCrashTestDialog(false);
    show();
    raise();
    activateWindow();
}

void KTCrashTestDialog::remoteLaunchCrashTest() {
    KTLog::appendLog("Crash Tester remotely launched.");
    show();
    raise();
    activateWindow();
}

void KTCrashTestDialog::runCrashTestClick() {
    KTCrashTester& tester = app_.crashTester();
    if (tester.testRunning()) {
        // Seen at the tester's next check; the clean-up enables the button.
        run_->setEnabled(false);
    } else {
        tester.setHostIndex(hosts_->currentIndex());
        tester.setHalving(halving_->isChecked());
    }
    app_.runCrashTestClick();
}

void KTCrashTestDialog::updateCrashTestStatus(const std::string& text) {
    status_->setText(QString::fromStdString(text));
}

void KTCrashTestDialog::startCrashTestProgress() {
    statusArea_->show();
    progress_->show();
    progress_->setRange(0, 0);
}

void KTCrashTestDialog::setupCrashTestProgressBar(double maximum) {
    progress_->setRange(0, static_cast<int>(maximum));
    progress_->setValue(0);
}

void KTCrashTestDialog::incrementCrashTestProgress() {
    // The halving search only estimates its length.
    if (progress_->value() < progress_->maximum()) progress_->setValue(progress_->value() + 1);
}

void KTCrashTestDialog::stopCrashTestProgress() {
    progress_->setRange(0, 1);
    progress_->setValue(0);
    statusArea_->hide();
}

void KTCrashTestDialog::resizeCrashTestDialog(bool running) {
    run_->setText(running ? QStringLiteral("Cancel") : QStringLiteral("Run Test"));
    run_->setEnabled(true);
    hosts_->setEnabled(!running);
    halving_->setEnabled(!running);
    statusArea_->setVisible(running);
    adjustSize();
}

bool KTCrashTestDialog::eventFilter(QObject* watched, QEvent* event) {
    if (watched != mainWindow_ || event->type() != QEvent::Close) return false;
    KTCrashTester& tester = app_.crashTester();
    if (!tester.testRunning() || tester.cancelRequested()) return false;
    KTUserInterface* ui = app_.userInterface();
    const int answer = ui ? ui->runAlert({"Are you sure you wish to close?",
                                          "This will terminate the crash test.",
                                          {"End Crash Test", "Cancel"}})
                          : 0;
    if (answer == 0) {
        // The window closes; the test ends through its clean-up meanwhile.
        tester.requestCancel();
        return false;
    }
    event->ignore();
    return true;
}
