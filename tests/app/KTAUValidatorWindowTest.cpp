// The Audio Unit validator's window under Qt's offscreen platform, over a
// validator stand-in: rows and status icons after a run, header clicks that
// sort and are remembered, the inspector on a double-click.
#include "app/window/KTAUValidatorWindow.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QApplication>
#include <QHeaderView>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QTableView>
#include <QThread>
#include <chrono>
#include <cstdlib>
#include <functional>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPreferences.h"
#include "app/core/AppController.h"
#include "app/window/KTAUInspectorWindow.h"
#include "app/window/KTQtMainThread.h"
#include "support/ScratchRoot.h"

namespace {

QApplication& application() {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    if (auto* existing = qobject_cast<QApplication*>(QCoreApplication::instance()))
        return *existing;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    return *new QApplication(argc, argv);
}

bool waitUntil(const std::function<bool()>& done) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

}  // namespace

TEST(KTAUValidatorWindowTest, ShowsVerdictsWithIconsSortsByHeaderAndInspects) {
    application();
    ScratchRoot s;
    const std::string tools = s.base() + "/tools";
    ScratchRoot::writeFile(tools + "/auval",
                           "#!/bin/sh\n"
                           "if [ \"$1\" = -a ]; then\n"
                           "  for i in 1 2 3 4 5; do echo header; done\n"
                           "  echo 'aufx good zeta  -  Zeta Audio: Good One'\n"
                           "  echo 'aufx badd acme  -  Acme: Bad One'\n"
                           "  echo 'aufx odd3 beta  -  Beta: odd One'\n"
                           "  echo; echo; exit 0\n"
                           "fi\n"
                           "echo \"report on $2 $3 $4\"\n"
                           "case $3 in good) exit 0;; badd) exit 2;; *) exit 3;; esac\n");
    ::chmod((tools + "/auval").c_str(), 0755);
    ::setenv("AMBREL_TOOL_DIR", tools.c_str(), 1);
    KTMainThread::setShared(std::make_shared<KTQtMainThread>());
    KTLog::resetForTesting();
    {
        AppController app;
        KTAUValidatorWindow window(app.auValidator());
        window.validateAU();
        QTableView* table = window.table();
        auto cell = [&](int row, int column, int role = Qt::DisplayRole) {
            return table->model()->index(row, column).data(role);
        };
        ASSERT_TRUE(waitUntil([&] {
            return table->model()->rowCount() == 3 && cell(2, 2).toString() != "Validating..." &&
                   cell(1, 2).toString() != "Validating..." &&
                   cell(0, 2).toString() != "Validating...";
        }));
        app.auValidator().waitForValidation();
        QCoreApplication::processEvents();
        EXPECT_FALSE(window.busyIndicator()->isVisible());
        // First column, ascending, ignoring case.
        EXPECT_EQ(cell(0, 0).toString(), "Bad One");
        EXPECT_EQ(cell(1, 0).toString(), "Good One");
        EXPECT_EQ(cell(2, 0).toString(), "odd One");
        EXPECT_EQ(cell(1, 1).toString(), " Zeta Audio");
        EXPECT_EQ(cell(0, 2).toString(), "Fatal Error");
        EXPECT_EQ(cell(2, 2).toString(), "Unknown");
        for (int row = 0; row < 3; ++row)
            EXPECT_FALSE(cell(row, 2, Qt::DecorationRole).value<QIcon>().isNull()) << row;
        EXPECT_FALSE(cell(0, 0, Qt::DecorationRole).isValid());

        // Header clicks: manufacturer ascending, then descending, remembered.
        QHeaderView* header = table->horizontalHeader();
        emit header->sectionClicked(1);
        EXPECT_EQ(cell(0, 1).toString(), " Acme");
        emit header->sectionClicked(1);
        EXPECT_EQ(cell(0, 1).toString(), " Zeta Audio");
        EXPECT_EQ(header->sortIndicatorSection(), 1);
        EXPECT_EQ(header->sortIndicatorOrder(), Qt::DescendingOrder);
        EXPECT_EQ(KTPreferences::standard().stringForKey("auValSortedColumn"), "colManufacturer");
        EXPECT_TRUE(KTPreferences::standard().boolForKey("auValSortedDescending"));

        // A second window (a new session) sorts the list as remembered.
        KTAUValidatorWindow again(app.auValidator());
        EXPECT_EQ(again.table()->model()->index(0, 1).data().toString(), " Zeta Audio");

        window.auInspect(0);
        EXPECT_EQ(window.inspector()->windowTitle(), "Good One - Inspector");
        EXPECT_EQ(window.inspector()->text()->toPlainText(), "report on aufx good zeta\n");
        app.auValidator().waitForValidation();
    }
    ::unsetenv("AMBREL_TOOL_DIR");
    KTLog::finishWriting();
    KTLog::resetForTesting();
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
}
