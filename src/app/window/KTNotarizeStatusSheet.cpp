#include "app/window/KTNotarizeStatusSheet.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

KTNotarizeStatusSheet::KTNotarizeStatusSheet(QWidget* parent, std::function<void()> onCancel)
    : QDialog(parent), onCancel_(std::move(onCancel)) {
    setWindowModality(Qt::WindowModal);
    setWindowTitle(QStringLiteral("Notarizing"));
    auto* layout = new QVBoxLayout(this);
    text_ = new QLabel(this);
    text_->setWordWrap(true);
    text_->setMinimumWidth(360);
    bar_ = new QProgressBar(this);
    bar_->setRange(0, 1);
    bar_->setTextVisible(false);
    cancel_ = new QPushButton(QStringLiteral("Cancel"), this);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(cancel_);
    layout->addWidget(text_);
    layout->addWidget(bar_);
    layout->addLayout(buttons);
    connect(cancel_, &QPushButton::clicked, this, &KTNotarizeStatusSheet::cancelInstallerNotarize);
    // Escape and the close box mean Cancel too.
    connect(this, &QDialog::rejected, this, [this] {
        if (cancel_->isEnabled() && onCancel_) onCancel_();
    });
}

void KTNotarizeStatusSheet::showInstallNotarizeStatusSheet() {
    cancel_->setEnabled(true);
    bar_->setRange(0, 0);  // a busy bar moves by itself
    open();
}

void KTNotarizeStatusSheet::hideInstallNotarizeStatusSheet() {
    bar_->setRange(0, 1);
    hide();
}

void KTNotarizeStatusSheet::setInstallNotarizeStatusText(const QString& text) {
    text_->setText(text);
}

void KTNotarizeStatusSheet::setCancelEnabled(bool enabled) {
    cancel_->setEnabled(enabled);
}

void KTNotarizeStatusSheet::cancelInstallerNotarize() {
    if (onCancel_) onCancel_();
    hideInstallNotarizeStatusSheet();
}

int KTNotarizeStatusSheet::runSheet(QWidget* parent, const std::string& message,
                                    const std::string& informative,
                                    const std::vector<std::string>& buttons) {
    QMessageBox box(parent);
    box.setWindowModality(Qt::WindowModal);
    box.setText(QString::fromStdString(message));
    box.setInformativeText(QString::fromStdString(informative));
    std::vector<QPushButton*> made;
    for (const auto& title : buttons)
        made.push_back(box.addButton(QString::fromStdString(title), QMessageBox::AcceptRole));
    if (made.empty()) made.push_back(box.addButton(QMessageBox::Ok));
    box.setDefaultButton(made.front());
    box.exec();
    for (std::size_t i = 0; i < made.size(); ++i)
        if (box.clickedButton() == made[i]) return static_cast<int>(i);
    return 0;
}
