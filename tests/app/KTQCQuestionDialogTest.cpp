// The analytics question under Qt's offscreen platform.
#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QThread>

#include <gtest/gtest.h>

#include "analytics/KTQC.h"
#include "app/window/KTQCQuestionDialog.h"

TEST(KTQCQuestionDialogTest, WindowModalBoxAfterTheDelayAnswersTheButtonPressed) {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    qputenv("QT_QPA_PLATFORM", "offscreen");
    if (!QApplication::instance()) new QApplication(argc, argv);

    QWidget window;
    window.show();
    KTQCQuestionDialog question(&window);
    std::vector<int> answers;
    question.ask(std::chrono::milliseconds(50), KTQC::question(),
                 [&](int button) { answers.push_back(button); });
    EXPECT_EQ(window.findChild<QMessageBox*>(), nullptr);  // not before the delay

    QMessageBox* box = nullptr;
    for (int i = 0; i < 2000 && !(box = window.findChild<QMessageBox*>()); ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(5);
    }
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->windowModality(), Qt::WindowModal);
    EXPECT_EQ(box->informativeText().toStdString(), KTQC::question().informative);
    EXPECT_EQ(box->defaultButton()->text(), QStringLiteral("Allow"));
    ASSERT_EQ(box->buttons().size(), 3);
    for (QAbstractButton* b : box->buttons())
        if (b->text() == QStringLiteral("Don't Allow")) b->click();
    EXPECT_EQ(answers, std::vector<int>{2});
}
