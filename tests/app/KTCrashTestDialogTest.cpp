// The Crash Tester dialog in the main window under Qt's offscreen platform,
// with a fake host over a scratch tree and a private session bus: the menu
// item, the remote signal, a test run to its culprit, and a halving run
// cancelled from the button.
#include "app/window/KTCrashTestDialog.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/linux/KTLinuxWorkspace.h"
#include "app/core/AppController.h"
#include "app/window/KTMainWindow.h"
#include "app/window/KTQtMainThread.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "diagnostics/KTCrashTestHost.h"
#include "diagnostics/KTCrashTester.h"
#include "operations/KTFileMover.h"
#include "support/ScratchRoot.h"

namespace {

QApplication& crashTestQtApp() {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    if (auto* existing = qobject_cast<QApplication*>(QCoreApplication::instance()))
        return *existing;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    return *new QApplication(argc, argv);
}

bool waitUntil(const std::function<bool()>& done, int seconds = 30) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

/// A session bus of the test's own, so the remote signal reaches nobody else.
struct PrivateSessionBus {
    pid_t pid = 0;
    PrivateSessionBus() {
        FILE* out = ::popen("dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
        if (!out) return;
        char address[512] = {0}, pidText[32] = {0};
        if (std::fgets(address, sizeof address, out) && std::fgets(pidText, sizeof pidText, out)) {
            std::string a(address);
            while (!a.empty() && a.back() == '\n') a.pop_back();
            ::setenv("DBUS_SESSION_BUS_ADDRESS", a.c_str(), 1);
            pid = static_cast<pid_t>(std::atoi(pidText));
        }
        ::pclose(out);
    }
    ~PrivateSessionBus() {
        if (pid > 0) ::kill(pid, SIGTERM);
    }
};

std::string writeHost(const ScratchRoot& scratch, const std::string& crashWhilePresent) {
    const std::string app = scratch.rootPath("/Applications/Final Cut Pro 7.app");
    ScratchRoot::writeFile(app + "/Contents/Info.plist",
                           "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                           "<key>CFBundleIdentifier</key><string>com.apple.FinalCutPro</string>"
                           "<key>CFBundleExecutable</key><string>host</string></dict></plist>");
    const std::string executable = app + "/Contents/MacOS/host";
    ScratchRoot::writeFile(executable, "#!/bin/sh\n[ -e '" + crashWhilePresent +
                                           "' ] && kill -SEGV $$\n"
                                           "i=0; while [ $i -lt 600 ]; do sleep 0.1; "
                                           "i=$((i+1)); done\n");
    ::chmod(executable.c_str(), 0755);
    return executable;
}

void killHosts() {
    for (const auto& [pid, identifier] : KTLinuxWorkspace::runningApplications())
        ::kill(pid, SIGKILL);
}

}  // namespace

TEST(KTCrashTestDialogTest, RunsFromTheMenuFindsTheCulpritAndCancelsAHalvingRun) {
    crashTestQtApp();
    PrivateSessionBus bus;
    ScratchRoot scratch;
    ::setenv("AMBREL_TIME_SCALE", "0.03", 1);
    KTWorkspace::setShared(std::make_shared<KTLinuxWorkspace>());
    KTMainThread::setShared(std::make_shared<KTQtMainThread>());
    KTFileMover::setPrivilegedPauseSecondsForTesting(0);
    KTLog::resetForTesting();
    std::vector<std::string> plugs;
    for (int i = 1; i <= 6; ++i) {
        plugs.push_back(
            scratch.rootPath("/Library/Plug-Ins/FxPlug/P" + std::to_string(i) + ".fxplug"));
        ScratchRoot::writeFile(plugs.back() + "/Contents/Info.plist", "x");
    }
    auto missing = [&] {
        int n = 0;
        for (const auto& p : plugs) n += std::filesystem::exists(p) ? 0 : 1;
        return n;
    };
    {
        AppController app;
        KTMainWindow window(app);
        window.show();
        QSignalSpy shown(&window, &KTMainWindow::catalogueShown);
        app.reloadData();
        ASSERT_TRUE(shown.wait(20000));
        window.waitForBackgroundWork();
        app.outlineViewController().waitForBundleInspection();

        auto* dialog = window.findChild<KTCrashTestDialog*>();
        ASSERT_TRUE(dialog);
        QAction* item = nullptr;
        for (QAction* a : window.menuBar()->findChildren<QAction*>())
            if (a->text() == "Crash Tester...") item = a;
        ASSERT_TRUE(item);
        item->trigger();
        EXPECT_TRUE(dialog->isVisible());
        EXPECT_FALSE(dialog->statusArea()->isVisible());
        EXPECT_EQ(dialog->runButton()->text(), "Run Test");

        if (dialog->observesRemoteLaunch()) {
            dialog->hide();
            QDBusConnection::sessionBus().send(QDBusMessage::createSignal(
                "/", "com.quellbrook.Ambrel", "ktRemoteLaunchCrashTest"));
            EXPECT_TRUE(waitUntil([&] { return dialog->isVisible(); }, 10));
            EXPECT_FALSE(app.crashTester().testRunning());  // brought forward, not started
        } else {
            ADD_FAILURE() << "no session bus: is dbus-daemon installed?";
        }

        const auto list = app.crashTester().crashTestList(KTCrashTestHost::forIndex(0));
        ASSERT_EQ(list.size(), plugs.size());
        const std::string culprit = list[2];
        writeHost(scratch, culprit);

        // The end's alert is answered when it shows; what the dialog showed
        // on the way is recorded.
        std::vector<std::string> alerts;
        bool sawRunning = false, sawProcessing = false;
        QTimer watcher;
        watcher.setInterval(10);
        QObject::connect(&watcher, &QTimer::timeout, [&] {
            if (dialog->runButton()->text() == "Cancel" && !dialog->hostPopup()->isEnabled())
                sawRunning = true;
            if (dialog->statusField()->text().startsWith("Processing")) sawProcessing = true;
            for (QWidget* w : QApplication::topLevelWidgets()) {
                auto* box = qobject_cast<QMessageBox*>(w);
                if (!box || !box->isVisible()) continue;
                alerts.push_back(box->text().toStdString());
                box->buttons().first()->click();
            }
        });
        watcher.start();

        dialog->hostPopup()->setCurrentIndex(0);
        dialog->runButton()->click();
        ASSERT_TRUE(waitUntil([&] { return !app.crashTester().testRunning(); }));
        window.waitForBackgroundWork();
        EXPECT_TRUE(sawRunning);
        EXPECT_TRUE(sawProcessing);
        EXPECT_EQ(alerts, std::vector<std::string>{"Crash Tester found problems with the \"" +
                                                   std::filesystem::path(culprit).stem().string() +
                                                   "\" plugin."});
        EXPECT_FALSE(std::filesystem::exists(culprit));
        EXPECT_EQ(missing(), 1);
        EXPECT_EQ(dialog->runButton()->text(), "Run Test");
        EXPECT_TRUE(dialog->hostPopup()->isEnabled());
        EXPECT_FALSE(dialog->statusArea()->isVisible());

        // Halving, cancelled from the button while it runs: everything comes back.
        killHosts();
        alerts.clear();
        ASSERT_EQ(app.outlineViewController().moveFilter(
                      app.outlineViewController().pluginFromPath(
                          KTPluginLocations::disabledPathForPath(culprit)),
                      1),
                  true);
        writeHost(scratch, "/");  // crashes whatever is enabled
        dialog->halvingBox()->setChecked(true);
        dialog->runButton()->click();
        ASSERT_TRUE(waitUntil([&] { return missing() > 0; }));
        dialog->runButton()->click();
        ASSERT_TRUE(waitUntil([&] { return !app.crashTester().testRunning(); }));
        window.waitForBackgroundWork();
        EXPECT_EQ(app.crashTester().outcome(), KTCrashTestOutcome::aborted);
        EXPECT_EQ(missing(), 0);
        EXPECT_TRUE(alerts.empty());
        EXPECT_TRUE(dialog->runButton()->isEnabled());
        watcher.stop();
    }
    killHosts();
    KTLog::finishWriting();
    KTLog::resetForTesting();
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    ::unsetenv("AMBREL_TIME_SCALE");
}
