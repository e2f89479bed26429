// The diagnostic windows under Qt's offscreen platform: the Audio Unit
// validator's table over a validator stand-in (rows and status icons after a
// run, header clicks that sort and are remembered, the inspector on a
// double-click), and the main window's diagnostic menu items and crash offer.
#include "app/window/KTAUValidatorWindow.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QAbstractButton>
#include <QApplication>
#include <QHeaderView>
#include <QMenuBar>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QTableView>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <cstdlib>
#include <functional>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTWorkspace.h"
#include "app/core/AppController.h"
#include "app/window/KTAUInspectorWindow.h"
#include "app/window/KTMainWindow.h"
#include "app/window/KTQtMainThread.h"
#include "diagnostics/KTBugReporter.h"
#include "support/ScratchRoot.h"

namespace {

QApplication& application() {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    // One application object per process: the main window tests make theirs
    // unconditionally, and run first (their file sorts before this one), so
    // a whole-program run uses theirs; a run of these tests alone makes one.
    static QApplication* app = nullptr;
    if (auto* existing = qobject_cast<QApplication*>(QCoreApplication::instance()))
        return *existing;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    app = new QApplication(argc, argv);
    return *app;
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

/// Presses `button` on each message box that comes up, recording its text.
struct BoxAnswerer {
    QStringList texts;
    QTimer timer;
    explicit BoxAnswerer(const QString& button) {
        timer.setInterval(20);
        QObject::connect(&timer, &QTimer::timeout, [this, button] {
            // Sheets are modal to the window; free-standing alerts have no window.
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            for (QWidget* w : QApplication::topLevelWidgets())
                if (!box && w->isVisible()) box = qobject_cast<QMessageBox*>(w);
            if (!box) return;
            texts << box->text();
            // `button` where the box has it, else its first (an alert's OK).
            QAbstractButton* press = box->buttons().value(0);
            for (QAbstractButton* b : box->buttons())
                if (b->text() == button) press = b;
            if (press) press->click();
        });
        timer.start();
    }
};

struct RecordingWorkspace : KTWorkspace {
    std::vector<std::string> opened;
    std::optional<std::string> absolutePathForAppBundleWithIdentifier(const std::string&) override {
        return std::nullopt;
    }
    void refreshApplications() override {}
    bool openFile(const std::string& path) override {
        opened.push_back(path);
        return true;
    }
};

}  // namespace

TEST(KTWindowDiagnosticsTest, MenuItemsAndTheOfferToOpenTheLastCrashReport) {
    application();
    ScratchRoot s;
    KTMainThread::setShared(std::make_shared<KTQtMainThread>());
    KTLog::resetForTesting();
    const std::string tmp = s.base() + "/tmp/";
    ScratchRoot::makeDirs(tmp);
    ::setenv("TMPDIR", tmp.c_str(), 1);
    auto workspace = std::make_shared<RecordingWorkspace>();
    KTWorkspace::setShared(workspace);
    // The last run crashed and left a report; no bug-reporting application here.
    KTBugReporter::recordMarker("launch", std::nullopt,
                                KTBugReporter::Clock::now() - std::chrono::minutes(5));
    const std::string report = s.homePath("/Library/Logs/DiagnosticReports/Ambrel_1.crash");
    ScratchRoot::writeFile(report, "crash");
    {
        AppController app;
        BoxAnswerer answerer("Open Report");
        KTMainWindow window(app);
        window.show();
        ASSERT_TRUE(waitUntil([&] { return !workspace->opened.empty(); }));
        EXPECT_EQ(workspace->opened, std::vector<std::string>{report});
        EXPECT_EQ(answerer.texts.value(0), "Ambrel quit unexpectedly the last time it was used.");

        QStringList items;
        for (QAction* menu : window.menuBar()->actions())
            for (QAction* item : menu->menu()->actions())
                if (!item->text().isEmpty()) items << menu->text() + " > " + item->text();
        EXPECT_TRUE(items.contains("&Plugins > Validate Audio Units..."))
            << items.join(", ").toStdString();
        for (const char* help :
             {"&Help > View Log", "&Help > View Task Log", "&Help > Gather Logs"})
            EXPECT_TRUE(items.contains(help)) << help;
        // Gather Logs: the outcome in a free-standing alert, the archive on the desktop.
        for (QAction* menu : window.menuBar()->actions())
            for (QAction* item : menu->menu()->actions())
                if (item->text() == "Gather Logs") item->trigger();
        EXPECT_EQ(answerer.texts.value(1), "Logs gathered successfully");
        EXPECT_TRUE(ScratchRoot::readFile(s.homePath("/Desktop/Ambrel Logs.zip")).size() > 0);
    }
    KTWorkspace::setShared(nullptr);
    ::unsetenv("TMPDIR");
    KTLog::finishWriting();
    KTLog::resetForTesting();
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
}

TEST(KTWindowDiagnosticsTest, ValidatorShowsVerdictsWithIconsSortsByHeaderAndInspects) {
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
