#include "installer/KTInstallerSettings.h"

#include <gtest/gtest.h>

#include "SharedFiles/KTPreferences.h"
#include "support/ScratchRoot.h"

using namespace KTInstallerSettings;

TEST(KTInstallerSettings, BundleIdentifierKeepsOnlyLettersAndDigitsInLowerCase) {
    EXPECT_EQ(bundleIDForApp("My Plugin", "Acme Labs", "1.0"), "com.acmelabs.myplugin.10");
    EXPECT_EQ(bundleIDForApp("Über-Verb 2", "A.B & C", "v2.0.1 (beta)"),
              "com.abc.berverb2.v201beta");
}

TEST(KTInstallerSettings, CertificateNameLosesOnlyATrailingParenthesisedPart) {
    EXPECT_EQ(currentCertificateName("Developer ID Application: Acme Labs (AB12CD34EF)"),
              "Developer ID Application: Acme Labs");
    EXPECT_EQ(currentCertificateName("Acme (Europe) Ltd"), "Acme (Europe) Ltd");
    EXPECT_EQ(currentCertificateName("NoSpace(AB12)"), "NoSpace(AB12)");
}

TEST(KTInstallerSettings, DestinationEndsInAppExactlyOnce) {
    EXPECT_EQ(destinationWithExtension("/out/My Installer"), "/out/My Installer.app");
    EXPECT_EQ(destinationWithExtension("/out/My Installer.APP"), "/out/My Installer.APP");
    EXPECT_EQ(destinationWithExtension("/out/My.app"), "/out/My.app");
    EXPECT_EQ(destinationWithExtension("/out/My.apps"), "/out/My.apps.app");
    EXPECT_EQ(proposedFileName("Acme FX"), "Acme FX Installer.app");
}

TEST(KTInstallerSettings, HomeFoldersBecomeUsersUserWhateverTheHomeIsCalled) {
    ScratchRoot scratch;  // a home named nothing like /Users/NAME
    EXPECT_EQ(structureFolderFor(scratch.homePath("/Library/Audio/Plug-Ins/VST3")),
              "/Users/user/Library/Audio/Plug-Ins/VST3");
    EXPECT_EQ(structureFolderFor(scratch.rootPath("/Library/Audio/Plug-Ins/Components")),
              "/Library/Audio/Plug-Ins/Components");
    // And back again on the installing machine.
    EXPECT_EQ(installFolderFor("/Users/user/Library/Audio/Plug-Ins/VST3"),
              scratch.homePath("/Library/Audio/Plug-Ins/VST3"));
    EXPECT_EQ(installFolderFor("/Library/Audio/Plug-Ins/Components"),
              scratch.rootPath("/Library/Audio/Plug-Ins/Components"));
    // A home-like prefix is not the home.
    EXPECT_EQ(structureFolderFor(scratch.home() + "2/Library"), scratch.home() + "2/Library");
}

TEST(KTInstallerSettings, IdentityMenuPrefersTheRememberedThenADeveloperID) {
    const std::vector<std::string> names = {"Apple Development: Dev", "Developer ID Application: A",
                                            "Developer ID Application: B"};
    EXPECT_EQ(initialIdentity(names, "Developer ID Application: B"), "Developer ID Application: B");
    EXPECT_EQ(initialIdentity(names, "Gone"), "Developer ID Application: A");
    EXPECT_EQ(initialIdentity({"Apple Development: Dev"}, ""), kNotSet);
}

TEST(KTInstallerSettings, RequestTakesPreferencesThenDefaults) {
    ScratchRoot scratch;
    KTPreferences prefs(scratch.base() + "/prefs.plist");
    registerDefaults(prefs);
    KTInstallerRequest r = requestFromPreferences(prefs);
    EXPECT_EQ(r.installerName, "My Plugin");
    EXPECT_EQ(r.installerVersion, "1.0");
    EXPECT_FALSE(r.installerAuthor.empty());
    EXPECT_FALSE(r.installerEULAPath.has_value());
    prefs.setString(kEULAPath, "");
    prefs.setString(kIconPath, "/x/icon.png");
    prefs.setBool(kRemoveBranding, true);
    r = requestFromPreferences(prefs);
    EXPECT_FALSE(r.installerEULAPath.has_value());
    EXPECT_EQ(r.installerIconPath, "/x/icon.png");
    EXPECT_TRUE(r.removeBranding);
}
