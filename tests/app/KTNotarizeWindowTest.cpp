// The notarisation sheets offscreen: the status sheet's Cancel, the disk-image
// command up to its sheet, and the installer window's Team ID and tool.
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <cstdlib>

#include <gtest/gtest.h>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPreferences.h"
#include "app/window/KTDiskImageNotarizer.h"
#include "app/window/KTInstallerWindow.h"
#include "app/window/KTNotarizeStatusSheet.h"
#include "app/window/KTQtMainThread.h"
#include "installer/KTNotarizer.h"
#include "support/ScratchRoot.h"

namespace {

QApplication& qtApp() {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    static QApplication* app = [] {
        // Another suite of this program may have made it already.
        if (auto* running = qobject_cast<QApplication*>(QCoreApplication::instance()))
            return running;
        qputenv("QT_QPA_PLATFORM", "offscreen");
        return new QApplication(argc, argv);
    }();
    return *app;
}

class NotarizeWindowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Never the person's keyring: without the private one there is no bus at all.
        if (!std::getenv("AMBREL_PRIVATE_KEYRING"))
            setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
        qtApp();
        KTLog::resetForTesting();
        KTLog::setSuperuserForTesting(false);
        KTLog::createNewLog(std::string("Notary"), true);
        KTMainThread::setShared(std::make_shared<KTQtMainThread>());
    }
    void TearDown() override {
        KTLog::finishWriting();
        KTLog::resetForTesting();
        KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    }
    ScratchRoot scratch;
};

}  // namespace

TEST_F(NotarizeWindowTest, StatusSheetCancelsAndHides) {
    QWidget parent;
    parent.show();
    int cancels = 0;
    KTNotarizeStatusSheet sheet(&parent, [&] { ++cancels; });
    sheet.setInstallNotarizeStatusText(
        QStringLiteral("Uploading bundle to Apple for notarization..."));
    sheet.setCancelEnabled(false);
    sheet.showInstallNotarizeStatusSheet();
    EXPECT_TRUE(sheet.isVisible());
    EXPECT_TRUE(sheet.cancelButton()->isEnabled());             // showing enables Cancel
    EXPECT_EQ(sheet.findChild<QProgressBar*>()->maximum(), 0);  // the bar moves
    sheet.cancelButton()->click();
    EXPECT_EQ(cancels, 1);
    EXPECT_FALSE(sheet.isVisible());
    EXPECT_EQ(sheet.findChild<QProgressBar*>()->maximum(), 1);
}

TEST_F(NotarizeWindowTest, DiskImageWithoutAnAccountEndsInItsSheet) {
    QWidget mainWindow;
    mainWindow.show();
    KTPreferences::standard().setString("installerName", "Acme FX");
    KTPreferences::standard().setString("installerAuthor", "Acme Labs");
    KTPreferences::standard().setString("installerVersion", "2.1");
    KTPreferences::standard().setString("installerCertificateName", "(not set)");
    const auto request = KTDiskImageNotarizer::requestFor("/x/Acme.dmg");
    EXPECT_EQ(request.bundleID, "com.acmelabs.acmefx.21.dmg");
    EXPECT_FALSE(request.certificate);

    const std::string dmg = scratch.base() + "/Acme.dmg";
    ScratchRoot::writeFile(dmg, "disk image");
    auto* notarizer = new KTDiskImageNotarizer(&mainWindow);
    notarizer->setFileChooser([&] { return std::optional<QString>(QString::fromStdString(dmg)); });
    // The person answers every sheet with its default button.
    QTimer answer;
    QObject::connect(&answer, &QTimer::timeout, [] {
        for (auto* w : QApplication::topLevelWidgets())
            for (auto* box : w->findChildren<QMessageBox*>())
                if (box->isVisible()) box->defaultButton()->click();
    });
    answer.start(20);
    notarizer->chooseAndNotarize();
    notarizer->waitForWork();
    EXPECT_EQ(notarizer->lastSheet().first, "Apple ID information not set");
    EXPECT_EQ(notarizer->lastSheet().second,
              "Please add your Apple ID information to the Create Installer dialog and the "
              "retry.");
    EXPECT_FALSE(notarizer->statusSheet()->isVisible());
}

TEST_F(NotarizeWindowTest, InstallerWindowKeepsTheTeamIDAndTheTool) {
    KTInstallerWindow window;
    EXPECT_EQ(window.toolMenu()->currentText(), "altool");  // no Team ID yet
    window.teamIDField()->setText(QStringLiteral("AB12CD34EF"));
    EXPECT_EQ(KTPreferences::standard().stringForKey(KTNotarizer::kTeamIDKey), "AB12CD34EF");
    EXPECT_EQ(window.toolMenu()->currentText(), "notarytool");
    KTInstallerWindow again;
    EXPECT_EQ(again.toolMenu()->currentText(), "notarytool");
    again.toolMenu()->setCurrentIndex(again.toolMenu()->findText("altool"));
    emit again.toolMenu()->activated(again.toolMenu()->currentIndex());
    EXPECT_EQ(KTPreferences::standard().stringForKey(KTNotarizer::kToolKey), "altool");
    EXPECT_EQ(KTNotarizer::chosenTool("AB12CD34EF"), KTNotarizer::Tool::Altool);
}
