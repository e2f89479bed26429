#include "app/window/KTQCQuestionDialog.h"

#include <QAbstractButton>
#include <QDesktopServices>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QUrl>
#include <QWidget>

KTQCQuestionDialog::KTQCQuestionDialog(QWidget* window) : QObject(window), window_(window) {}

void KTQCQuestionDialog::ask(std::chrono::milliseconds delay, const KTAlert& question,
                             std::function<void(int button)> answered) {
    QTimer::singleShot(delay, this, [this, question, answered = std::move(answered)] {
        if (!window_) return;
        auto* box = new QMessageBox(window_);
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->setWindowModality(Qt::WindowModal);
        box->setIcon(QMessageBox::Question);
        box->setText(QString::fromStdString(question.message));
        box->setInformativeText(QString::fromStdString(question.informative));
        std::vector<QAbstractButton*> buttons;
        for (std::size_t i = 0; i < question.buttons.size(); ++i) {
            // No reject role: Escape must not count as "Don't Allow".
            buttons.push_back(
                box->addButton(QString::fromStdString(question.buttons[i]),
                               i == 0 ? QMessageBox::AcceptRole : QMessageBox::ActionRole));
        }
        if (!buttons.empty()) box->setDefaultButton(static_cast<QPushButton*>(buttons.front()));
        connect(box, &QMessageBox::buttonClicked, box, [buttons, answered](QAbstractButton* b) {
            for (std::size_t i = 0; i < buttons.size(); ++i)
                if (buttons[i] == b) answered(static_cast<int>(i));
        });
        box->open();
    });
}

void KTQCQuestionDialog::openURL(const std::string& url) {
    QDesktopServices::openUrl(QUrl(QString::fromStdString(url)));
}
