#include "installer/template/KTInstallerAppWindow.h"

#include <QCheckBox>
#include <QFile>
#include <QLabel>
#include <QPixmap>
#include <QPushButton>
#include <QTextBrowser>
#include <QVBoxLayout>

KTInstallerAppWindow::KTInstallerAppWindow(KTInstallerRunner& runner, QWidget* parent)
    : QWidget(parent), runner_(runner) {
    const auto& s = runner.settings();
    setWindowTitle(QString::fromStdString(s.name + " Installer"));
    auto* layout = new QVBoxLayout(this);
    if (s.bgImagePath) {
        auto* picture = new QLabel(this);
        picture->setPixmap(QPixmap(QString::fromStdString(*s.bgImagePath))
                               .scaledToWidth(480, Qt::SmoothTransformation));
        layout->addWidget(picture);
    }
    auto* title = new QLabel(QString::fromStdString(s.name + " " + s.version), this);
    QFont big = title->font();
    big.setPointSizeF(big.pointSizeF() * 1.5);
    big.setBold(true);
    title->setFont(big);
    layout->addWidget(title);
    layout->addWidget(new QLabel(QString::fromStdString("by " + s.author), this));
    if (s.eulaPath) {
        auto* licence = new QTextBrowser(this);
        QFile file(QString::fromStdString(*s.eulaPath));
        if (file.open(QIODevice::ReadOnly))
            licence->setPlainText(QString::fromUtf8(file.readAll()));
        layout->addWidget(licence);
        accept_ = new QCheckBox(QStringLiteral("I accept the licence agreement"), this);
        layout->addWidget(accept_);
    }
    status_ = new QLabel(this);
    status_->setWordWrap(true);
    layout->addWidget(status_);
    install_ = new QPushButton(QStringLiteral("Install"), this);
    install_->setDefault(true);
    layout->addWidget(install_);
    if (!s.removeBranding) {
        auto* branding = new QLabel(QStringLiteral("Installer made with Ambrel"), this);
        branding->setObjectName(QStringLiteral("branding"));
        branding->setEnabled(false);
        layout->addWidget(branding);
    }
    if (accept_) {
        install_->setEnabled(false);
        connect(accept_, &QCheckBox::toggled, install_, &QPushButton::setEnabled);
    }
    connect(install_, &QPushButton::clicked, this, &KTInstallerAppWindow::startInstall);
}

KTInstallerAppWindow::~KTInstallerAppWindow() {
    if (worker_.joinable()) worker_.join();
}

void KTInstallerAppWindow::startInstall() {
    install_->setEnabled(false);
    if (accept_) accept_->setEnabled(false);
    if (worker_.joinable()) worker_.join();
    worker_ = std::thread([this] {
        auto report = runner_.install([this](const std::string& line) {
            QMetaObject::invokeMethod(
                this, [this, text = QString::fromStdString(line)] { status_->setText(text); });
        });
        QMetaObject::invokeMethod(this, [this, report] { finished(report); });
    });
}

void KTInstallerAppWindow::finished(const KTInstallerRunner::Report& report) {
    QString text;
    if (report.succeeded()) {
        text = QStringLiteral("%1 was installed:")
                   .arg(QString::fromStdString(runner_.settings().name));
    } else {
        text = QStringLiteral("The installation did not complete.");
        for (const auto& m : report.messages) text += "\n" + QString::fromStdString(m);
        if (!report.installed.empty()) text += QStringLiteral("\nInstalled:");
    }
    for (const auto& p : report.installed) text += "\n" + QString::fromStdString(p);
    status_->setText(text);
    install_->setText(QStringLiteral("Quit"));
    install_->setEnabled(true);
    disconnect(install_, nullptr, this, nullptr);
    connect(install_, &QPushButton::clicked, this, &QWidget::close);
}
