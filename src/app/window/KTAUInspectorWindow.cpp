#include "app/window/KTAUInspectorWindow.h"

#include <QApplication>
#include <QFontDatabase>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QVBoxLayout>

KTAUInspectorWindow::KTAUInspectorWindow(KTAUValidator& validator, QWidget* parent)
    : QWidget(parent, Qt::Window), validator_(validator) {
    text_ = new QPlainTextEdit(this);
    text_->setReadOnly(true);
    text_->setLineWrapMode(QPlainTextEdit::NoWrap);
    text_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    busy_ = new QProgressBar(this);
    busy_->setRange(0, 0);
    busy_->setMaximumHeight(12);
    busy_->setTextVisible(false);
    busy_->hide();
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(text_);
    layout->addWidget(busy_);
    resize(640, 480);
}

void KTAUInspectorWindow::inspect(const KTAURecordPtr& record) {
    if (!record) return;
    text_->clear();
    setWindowTitle(QString::fromStdString(record->title) + QStringLiteral(" - Inspector"));
    busy_->show();
    if (!isVisible()) show();
    raise();
    // Paint the cleared window and the indicator before the wait.
    QApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
    const std::string report = validator_.inspectionReport(record);
    busy_->hide();
    text_->setPlainText(QString::fromStdString(report));
}
