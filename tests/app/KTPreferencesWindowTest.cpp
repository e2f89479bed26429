// The preferences window under Qt's offscreen platform.
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QSignalBlocker>

#include <gtest/gtest.h>

#include "analytics/KTQCTestSupport.h"
#include "app/window/KTPreferencesWindow.h"

TEST(KTPreferencesWindowTest, AnalyticsBoxStoresTheAnswerAndPasswordBoxFollowsTheMenuItem) {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    qputenv("QT_QPA_PLATFORM", "offscreen");
    if (!QApplication::instance()) new QApplication(argc, argv);
    ScratchRoot scratch;
    KTPreferences::standard().setString("qcSubmitURL", "https://127.0.0.1:9/qc.php");
    KTQC qc({std::make_shared<RecordingTransport>(), std::make_shared<FakeClock>()});
    QAction menuItem(nullptr);
    menuItem.setCheckable(true);
    KTPreferencesWindow window(qc, &menuItem, nullptr);
    window.show();

    window.analyticsCheckBox()->click();
    EXPECT_TRUE(KTQC::qcPreferences().boolForKey("logQC"));

    window.adminPasswordCheckBox()->click();
    EXPECT_TRUE(menuItem.isChecked());
    // The menu item puts itself back, silently, when the preference cannot be written.
    QObject::connect(&menuItem, &QAction::toggled, [&](bool on) {
        QSignalBlocker block(&menuItem);
        menuItem.setChecked(!on);
    });
    window.adminPasswordCheckBox()->click();
    EXPECT_TRUE(menuItem.isChecked());
    EXPECT_TRUE(window.adminPasswordCheckBox()->isChecked());

    KTPreferences::standard().removeObjectForKey("qcSubmitURL");
    KTQC inert({std::make_shared<RecordingTransport>(), std::make_shared<FakeClock>()});
    EXPECT_FALSE(KTPreferencesWindow(inert, &menuItem, nullptr).analyticsCheckBox()->isEnabled());
}
