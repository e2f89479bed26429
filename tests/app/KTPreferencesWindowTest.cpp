// The preferences window under Qt's offscreen platform.
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QSignalBlocker>

#include <gtest/gtest.h>

#include "analytics/KTQCTestSupport.h"
#include "app/window/KTPreferencesWindow.h"

namespace {

void ensureQtApp() {
    static int argc = 1;
    static char name[] = "test_app";
    static char* argv[] = {name, nullptr};
    if (QApplication::instance()) return;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    new QApplication(argc, argv);
}

class KTPreferencesWindowTest : public KTQCTestBase {
  protected:
    void SetUp() override {
        ensureQtApp();
        KTQCTestBase::SetUp();
    }
};

}  // namespace

TEST_F(KTPreferencesWindowTest, PreferencesStoreTheAnalyticsAnswerAndFollowTheMenuItem) {
    auto qc = launch();
    QAction menuItem(nullptr);
    menuItem.setCheckable(true);
    KTPreferencesWindow prefsWindow(*qc, &menuItem, nullptr);
    prefsWindow.show();
    ASSERT_TRUE(prefsWindow.analyticsCheckBox()->isEnabled());
    EXPECT_FALSE(prefsWindow.analyticsCheckBox()->isChecked());

    prefsWindow.analyticsCheckBox()->click();
    EXPECT_TRUE(qcPrefs().boolForKey("logQC"));
    EXPECT_TRUE(qc->shouldLog());
    prefsWindow.analyticsCheckBox()->click();
    ASSERT_TRUE(qcPrefs().objectForKey("logQC"));
    EXPECT_FALSE(qcPrefs().boolForKey("logQC"));

    prefsWindow.adminPasswordCheckBox()->click();
    EXPECT_TRUE(menuItem.isChecked());
    menuItem.setChecked(false);
    EXPECT_FALSE(prefsWindow.adminPasswordCheckBox()->isChecked());
    // The menu item puts itself back, silently, when the preference cannot be written.
    QObject::connect(&menuItem, &QAction::toggled, [&](bool on) {
        QSignalBlocker block(&menuItem);
        menuItem.setChecked(!on);
    });
    prefsWindow.adminPasswordCheckBox()->click();
    EXPECT_FALSE(menuItem.isChecked());
    EXPECT_FALSE(prefsWindow.adminPasswordCheckBox()->isChecked());

    prefs().removeObjectForKey("qcSubmitURL");
    auto unconfigured = launch();
    KTPreferencesWindow inert(*unconfigured, &menuItem, nullptr);
    EXPECT_FALSE(inert.analyticsCheckBox()->isEnabled());
}
