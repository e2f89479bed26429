// The analytics question under Qt's offscreen platform.
#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QThread>
#include <chrono>
#include <functional>

#include <gtest/gtest.h>

#include "analytics/KTQCTestSupport.h"
#include "app/window/KTQCQuestionDialog.h"

namespace {

void ensureQtApp() {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    if (QApplication::instance()) return;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    new QApplication(argc, argv);
}

bool waitFor(const std::function<bool()>& done) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

class KTQCQuestionDialogTest : public KTQCTestBase {
  protected:
    void SetUp() override {
        ensureQtApp();
        KTQCTestBase::SetUp();
    }
};

}  // namespace

TEST_F(KTQCQuestionDialogTest, QuestionIsAWindowModalBoxThatAnswersTheButtonPressed) {
    QWidget window;
    window.show();
    KTQCQuestionDialog question(&window);
    std::vector<int> answers;
    question.ask(std::chrono::milliseconds(50), KTQC::question(),
                 [&](int button) { answers.push_back(button); });
    EXPECT_EQ(window.findChild<QMessageBox*>(), nullptr);  // not before the delay

    QMessageBox* box = nullptr;
    ASSERT_TRUE(waitFor([&] { return (box = window.findChild<QMessageBox*>()) != nullptr; }));
    EXPECT_EQ(box->windowModality(), Qt::WindowModal);
    EXPECT_EQ(box->text().toStdString(), KTQC::question().message);
    EXPECT_EQ(box->informativeText().toStdString(), KTQC::question().informative);
    ASSERT_EQ(box->defaultButton()->text(), QStringLiteral("Allow"));
    QAbstractButton* dontAllow = nullptr;
    for (QAbstractButton* b : box->buttons())
        if (b->text() == QStringLiteral("Don't Allow")) dontAllow = b;
    ASSERT_NE(dontAllow, nullptr);
    EXPECT_EQ(box->buttons().size(), 3);
    dontAllow->click();
    EXPECT_EQ(answers, std::vector<int>{2});
}
