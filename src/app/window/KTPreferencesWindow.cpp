#include "app/window/KTPreferencesWindow.h"

#include <QAction>
#include <QCheckBox>
#include <QLabel>
#include <QPointer>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "analytics/KTQC.h"

KTPreferencesWindow::KTPreferencesWindow(KTQC& analytics, QAction* requireAdminPassword,
                                         QWidget* parent)
    : QDialog(parent), analytics_(analytics) {
    setWindowTitle(QStringLiteral("Preferences"));
    auto* layout = new QVBoxLayout(this);

    qcShouldLogCheckbox_ =
        new QCheckBox(QStringLiteral("Submit anonymous analytics and usage data"), this);
    layout->addWidget(qcShouldLogCheckbox_);
    if (!analytics_.isConfigured()) {
        qcShouldLogCheckbox_->setEnabled(false);
        auto* note =
            new QLabel(QStringLiteral("No analytics address is set, so nothing is sent."), this);
        note->setEnabled(false);
        layout->addWidget(note);
    }
    connect(qcShouldLogCheckbox_, &QCheckBox::toggled, this,
            [this](bool on) { analytics_.toggleQCLogging(on); });

    adminCheckbox_ =
        new QCheckBox(QStringLiteral("Require administrator password at launch"), this);
    layout->addWidget(adminCheckbox_);
    if (requireAdminPassword) {
        adminCheckbox_->setChecked(requireAdminPassword->isChecked());
        connect(adminCheckbox_, &QCheckBox::toggled, requireAdminPassword,
                [this, requireAdminPassword](bool on) {
                    requireAdminPassword->setChecked(on);
                    // A refused write puts the item back without a signal.
                    QSignalBlocker block(adminCheckbox_);
                    adminCheckbox_->setChecked(requireAdminPassword->isChecked());
                });
        connect(requireAdminPassword, &QAction::toggled, adminCheckbox_, [this](bool on) {
            QSignalBlocker block(adminCheckbox_);
            adminCheckbox_->setChecked(on);
        });
    } else {
        adminCheckbox_->setEnabled(false);
    }
    layout->addStretch();
}

void KTPreferencesWindow::showEvent(QShowEvent* event) {
    // The question may have been answered since the window was last shown.
    QSignalBlocker block(qcShouldLogCheckbox_);
    qcShouldLogCheckbox_->setChecked(analytics_.shouldLog());
    QDialog::showEvent(event);
}

void KTPreferencesWindow::showShared(QAction* requireAdminPassword, QWidget* parent) {
    static QPointer<KTPreferencesWindow> shared;
    if (!shared)
        shared = new KTPreferencesWindow(KTQC::sharedController(), requireAdminPassword, parent);
    shared->show();
    shared->raise();
    shared->activateWindow();
}
