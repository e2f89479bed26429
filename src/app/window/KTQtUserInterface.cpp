#include "app/window/KTQtUserInterface.h"

#include <QAbstractButton>
#include <QDialog>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include "SharedFiles/KTMainThread.h"

namespace {
QString qs(const std::string& s) {
    return QString::fromStdString(s);
}
}  // namespace

KTQtUserInterface::KTQtUserInterface(QWidget* window) : window_(window) {}

KTQtUserInterface::~KTQtUserInterface() {
    if (sheet_) delete sheet_.data();
}

void KTQtUserInterface::onMain(const std::function<void()>& work) {
    KTMainThread::shared().runAndWait(work);
}

int KTQtUserInterface::runAlert(const KTAlert& alert) {
    int answer = 0;
    onMain([&] {
        QMessageBox box(window_);
        box.setWindowModality(Qt::WindowModal);
        box.setIcon(QMessageBox::Warning);
        box.setText(qs(alert.message));
        box.setInformativeText(qs(alert.informative));
        std::vector<std::string> titles = alert.buttons;
        if (titles.empty()) titles.push_back("OK");
        std::vector<QAbstractButton*> buttons;
        for (std::size_t i = 0; i < titles.size(); ++i) {
            QMessageBox::ButtonRole role = i == 0                  ? QMessageBox::AcceptRole
                                           : titles[i] == "Cancel" ? QMessageBox::RejectRole
                                                                   : QMessageBox::ActionRole;
            buttons.push_back(box.addButton(qs(titles[i]), role));
            if (titles[i] == "Cancel") box.setEscapeButton(buttons.back());
        }
        box.setDefaultButton(static_cast<QPushButton*>(buttons.front()));
        box.exec();
        answer = static_cast<int>(titles.size()) - 1;
        for (std::size_t i = 0; i < buttons.size(); ++i)
            if (box.clickedButton() == buttons[i]) answer = static_cast<int>(i);
    });
    return answer;
}

std::string KTQtUserInterface::askText(const std::string& message, const std::string& informative,
                                       const std::string& initial) {
    std::string answer;
    onMain([&] {
        QInputDialog dialog(window_);
        dialog.setWindowModality(Qt::WindowModal);
        dialog.setLabelText(qs(informative.empty() ? message : message + "\n" + informative));
        dialog.setTextValue(qs(initial));
        if (dialog.exec() == QDialog::Accepted) answer = dialog.textValue().toStdString();
    });
    return answer;
}

void KTQtUserInterface::makeSheet() {
    if (sheet_) return;
    sheet_ = new QDialog(window_);
    sheet_->setWindowModality(Qt::WindowModal);
    sheet_->setWindowTitle(QStringLiteral("Ambrel"));
    // Closing the sheet is Cancel's job, not the title bar's or Escape's.
    sheet_->setWindowFlags((sheet_->windowFlags() | Qt::CustomizeWindowHint) &
                           ~Qt::WindowCloseButtonHint);
    auto* layout = new QVBoxLayout(sheet_);
    label_ = new QLabel(sheet_);
    bar_ = new QProgressBar(sheet_);
    bar_->setTextVisible(false);
    bar_->setMinimumWidth(360);
    cancel_ = new QPushButton(QStringLiteral("Cancel"), sheet_);
    cancel_->setAutoDefault(false);
    QObject::connect(cancel_, &QPushButton::clicked, sheet_, [this] { cancelProgress(); });
    auto* row = new QHBoxLayout;
    row->addStretch();
    row->addWidget(cancel_);
    layout->addWidget(label_);
    layout->addWidget(bar_);
    layout->addLayout(row);
}

void KTQtUserInterface::cancelProgress() {
    cancelled_ = true;
    if (cancel_) cancel_->setEnabled(false);
    if (onCancel) onCancel();
}

void KTQtUserInterface::showProgressWindow() {
    cancelled_ = false;
    onMain([this] {
        makeSheet();
        label_->setText(QStringLiteral("Initializing..."));
        bar_->setRange(0, 0);
        cancel_->setEnabled(true);
        if (!sheet_->isVisible()) {
            sheet_->show();
            sheet_->raise();
        }
    });
}

void KTQtUserInterface::setIndeterminateProgress() {
    onMain([this] {
        makeSheet();
        bar_->setRange(0, 0);
    });
}

void KTQtUserInterface::setDeterminateProgress(double maximum) {
    onMain([this, maximum] {
        makeSheet();
        bar_->setRange(0, static_cast<int>(maximum));
        bar_->setValue(0);
    });
}

void KTQtUserInterface::incrementProgress() {
    // Workers tick once per item: they need not wait for the bar to move.
    KTMainThread::shared().post([this] {
        if (bar_ && bar_->maximum() > 0)
            bar_->setValue(std::min(bar_->value() + 1, bar_->maximum()));
    });
}

void KTQtUserInterface::updateProgressText(const std::string& text) {
    onMain([this, text] {
        makeSheet();
        label_->setText(qs(text));
    });
}

void KTQtUserInterface::endProgressWindow() {
    onMain([this] {
        if (sheet_ && sheet_->isVisible()) sheet_->hide();
    });
    cancelled_ = false;
}

void KTQtUserInterface::startProgress() {
    onMain([this] {
        if (onBusyChanged) onBusyChanged(true);
    });
}

void KTQtUserInterface::endProgress() {
    onMain([this] {
        if (onBusyChanged) onBusyChanged(false);
    });
}

void KTQtUserInterface::catalogueReloadStarted() {
    onMain([this] {
        if (onReloadStarted) onReloadStarted();
    });
}

void KTQtUserInterface::catalogueReloadFinished() {
    onMain([this] {
        if (onReloadFinished) onReloadFinished();
    });
}
