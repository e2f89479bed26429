#include <QApplication>
#include <QIcon>
#include <QTimer>
#include <QTreeView>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPreferences.h"
#include "analytics/KTQC.h"
#include "app/core/AppController.h"
#include "app/window/KTMainWindow.h"
#include "app/window/KTOutlineModel.h"
#include "app/window/KTQCQuestionDialog.h"
#include "app/window/KTQtMainThread.h"

namespace {

/// AMBREL_SCREENSHOT=file.png: once the catalogue is shown and the bundle
/// details are in, the window saves a picture of itself there and quits (the
/// README's picture is taken this way under a virtual display).
void arrangeScreenshot(KTMainWindow& window, const QString& path) {
    QObject::connect(&window, &KTMainWindow::catalogueShown, &window, [&window, path] {
        QTimer::singleShot(1500, &window, [&window, path] {
            QTreeView* tree = window.outline();
            KTOutlineModel* model = window.model();
            // Open the first groups so the picture shows the tree's shape.
            int opened = 0;
            for (int row = 0; row < model->rowCount() && opened < 2; ++row) {
                QModelIndex index = model->index(row, 0);
                if (model->rowCount(index) == 0) continue;
                tree->expand(index);
                if (opened == 0 && model->rowCount(index) > 1)
                    tree->setCurrentIndex(model->index(1, 0, index));
                ++opened;
            }
            QTimer::singleShot(300, &window, [&window, path] {
                window.grab().save(path);
                window.close();
            });
        });
    });
}

}  // namespace

int runWindow(int argc, char** argv) {
    QApplication qapp(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Ambrel"));
    QApplication::setOrganizationName(QStringLiteral("Quellbrook"));
    // Matches the installed desktop entry and icon, so docks and task bars
    // show Ambrel's own icon and name.
    QApplication::setDesktopFileName(QStringLiteral("com.quellbrook.ambrel"));
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("com.quellbrook.ambrel")));
    KTMainThread::setShared(std::make_shared<KTQtMainThread>());
    // The product's log, whatever the executable is called.
    KTLog::sharedController()->setAppName("Ambrel");

    int status = 0;
    {
        AppController app;
        KTMainWindow window(app);
        if (KTPreferences::requireAdminPassword() &&
            !KTAuthorization::sharedController(true)->authStart()) {
            KTLog::appendLog("Administrator rights were refused. Quitting.");
            KTLog::finishWriting();
            return 0;
        }
        app.checkPermissions();
        KTLog::appendLog("Preparing to display window...");
        if (const char* shot = std::getenv("AMBREL_SCREENSHOT"); shot && *shot)
            arrangeScreenshot(window, QString::fromLocal8Bit(shot));
        window.show();
        window.raise();
        window.activateWindow();
        // Files named on the command line are opened: installed once the
        // catalogue is shown.
        std::vector<std::string> opened;
        for (int i = 1; i < argc; ++i) {
            std::error_code ec;
            if (std::filesystem::exists(argv[i], ec))
                opened.push_back(std::filesystem::absolute(argv[i], ec).string());
        }
        if (!opened.empty()) {
            auto once = std::make_shared<QMetaObject::Connection>();
            *once = QObject::connect(
                &window, &KTMainWindow::catalogueShown, &window, [&window, &app, opened, once] {
                    QObject::disconnect(*once);
                    // After the load has handed back its thread.
                    QTimer::singleShot(0, &window, [&window, &app, opened] {
                        window.installFiles(app.installListForOpenedFiles(opened));
                    });
                });
        }
        app.reloadData();
        // Usage analytics starts after launch; the question belongs to the window.
        KTQCQuestionDialog analyticsQuestion(&window);
        KTQC::sharedController().loadQC(analyticsQuestion);
        status = QApplication::exec();
        KTQC::sharedController().willTerminate();
        window.waitForBackgroundWork();
    }
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    KTLog::finishWriting();
    return status;
}

/// What the program looks up after opening ambrel-window.so: the window's
/// code and Qt are loaded only when the window is shown.
extern "C" __attribute__((visibility("default"))) int ambrel_run_window(int argc, char** argv) {
    return runWindow(argc, argv);
}
