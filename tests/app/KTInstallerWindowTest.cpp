// The installer window offscreen, over a scratch machine: its fields write
// their preferences, the identity menu comes from the certificate files,
// the validation sheets, and a build started from it.
#include "app/window/KTInstallerWindow.h"

#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPreferences.h"
#include "app/core/AppController.h"
#include "app/window/KTQtMainThread.h"
#include "catalogue/OutlineViewController.h"
#include "installer/KTInstallerSettings.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

QApplication& qtApp() {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    static QApplication* app = [] {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        return new QApplication(argc, argv);
    }();
    return *app;
}

/// Closes the sheets left open, so the next test starts without them.
void closeSheets(QWidget* window) {
    for (auto* box : window->findChildren<QMessageBox*>()) box->close();
    QApplication::processEvents();
}

class InstallerWindowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Never the person's keyring: without the private one there is no bus at all.
        if (!std::getenv("AMBREL_PRIVATE_KEYRING"))
            setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
        qtApp();
        KTLog::resetForTesting();
        plugin = scratch.rootPath("/Library/Audio/Plug-Ins/Components/Echo.component");
        ScratchRoot::writeFile(plugin + "/Contents/Info.plist", "<plist><dict/></plist>");
        ScratchRoot::writeFile(plugin + "/Contents/MacOS/Echo", "echo-binary");
        KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
        app = AppController::initWithoutGUI();
        app->loadPluginData();
        app->outlineViewController().waitForBundleInspection();
        KTMainThread::setShared(std::make_shared<KTQtMainThread>());
        if (auto item = app->outlineViewController().pluginFromPath(plugin))
            selection.push_back(item);
    }
    void TearDown() override {
        window.reset();
        app.reset();
        KTLog::finishWriting();
        KTLog::resetForTesting();
        KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    }

    ScratchRoot scratch;
    std::string plugin;
    std::unique_ptr<AppController> app;
    KTItemList selection;
    std::unique_ptr<KTInstallerWindow> window;
};

}  // namespace

TEST_F(InstallerWindowTest, FieldsValidateAndACreateBuildsTheInstaller) {
    ASSERT_EQ(selection.size(), 1u);
    EXPECT_EQ(KTInstallerWindow::showInstallerWindow(nullptr, {}), nullptr);

    window = std::make_unique<KTInstallerWindow>();
    window->prepare(selection);
    EXPECT_EQ(window->nameField()->text(), "My Plugin");
    EXPECT_EQ(window->identityMenu()->currentText(), KTInstallerSettings::kNotSet);

    window->nameField()->setText("");
    window->createInstaller();
    EXPECT_EQ(window->lastSheet().first, "Plugin name cannot be blank");
    EXPECT_EQ(window->lastSheet().second, "Please enter a value for this field.");
    closeSheets(window.get());

    window->nameField()->setText("Acme FX");
    EXPECT_EQ(KTPreferences::standard().stringForKey("installerName"), "Acme FX");
    window->pathField("installerPreInstallScript")
        ->setText(QString::fromStdString(scratch.base() + "/none.sh"));
    EXPECT_EQ(KTPreferences::standard().stringForKey("installerPreInstallScript"),
              scratch.base() + "/none.sh");
    window->createInstaller();
    EXPECT_EQ(window->lastSheet().first, "Pre-install script path doesn't exist");
    closeSheets(window.get());
    window->pathField("installerPreInstallScript")->setText("");

    QString proposed;
    const std::string chosen = scratch.base() + "/out/Acme";  // typed without ".app"
    window->setSavePanel([&](const QString& p) {
        proposed = p;
        return std::optional<QString>(QString::fromStdString(chosen));
    });
    window->createInstaller();
    window->waitForBuild();
    EXPECT_EQ(proposed, "Acme FX Installer.app");
    EXPECT_EQ(window->lastSheet().first, "Installer created")
        << window->lastSheet().second.toStdString();
    EXPECT_TRUE(KTFileTree::sameTree(
        plugin, chosen + ".app/Contents/Resources/PluginStructure/Library/Audio/Plug-Ins/"
                         "Components/Echo.component"));
    EXPECT_FALSE(window->spinner()->isVisible());
    closeSheets(window.get());
}

TEST_F(InstallerWindowTest, IdentityMenuListsCertificatesAndPrefersADeveloperID) {
    if (ChildProcess::run({"/bin/sh", "-c", "command -v openssl"}).exitCode != 0)
        GTEST_SKIP() << "openssl is not installed";
    const std::string folder = scratch.homePath("/Library/Keychains/Certificates");
    ScratchRoot::makeDirs(folder);
    for (const auto& [file, cn] :
         {std::pair<std::string, std::string>{"a.pem", "Apple Development: Dev"},
          {"b.pem", "Developer ID Application: Acme Labs (AB12CD34EF)"}}) {
        auto r = ChildProcess::run(
            {"/bin/sh", "-c",
             "openssl req -x509 -newkey rsa:1024 -nodes -days 2 -subj '/CN=" + cn +
                 "' -keyout /dev/null -out '" + folder + "/" + file + "' 2>&1"});
        ASSERT_EQ(r.exitCode, 0) << r.out;
    }
    window = std::make_unique<KTInstallerWindow>();
    window->prepare(selection);
    QComboBox* menu = window->identityMenu();
    ASSERT_EQ(menu->count(), 3);
    EXPECT_EQ(menu->itemText(0), KTInstallerSettings::kNotSet);
    EXPECT_EQ(menu->currentText(), "Developer ID Application: Acme Labs (AB12CD34EF)");
    EXPECT_EQ(window->currentCertificateName(), "Developer ID Application: Acme Labs");

    // A remembered identity that is still there wins.
    KTPreferences::standard().setString("installerCertificateName", "Apple Development: Dev");
    window->prepare(selection);
    EXPECT_EQ(menu->currentText(), "Apple Development: Dev");
}
