#pragma once

#include <optional>
#include <string>
#include <vector>

#include "catalogue/KTItem.h"

class KTPreferences;

/// One installer to build: what the installer window or the command line
/// hands to the build thread.
struct KTInstallerRequest {
    std::string destFilename;  ///< the installer to make, always ending in ".app"
    std::string installerName;
    std::string installerVersion;
    std::string installerAuthor;
    std::vector<std::string> files;  ///< full paths of the plug-ins, no duplicates
    std::optional<std::string> certificate;
    std::optional<std::string> installerIconPath;
    std::optional<std::string> installerBgImagePath;
    std::optional<std::string> installerEULAPath;
    std::optional<std::string> installerPreInstallScript;
    std::optional<std::string> installerPostInstallScript;
    bool removeBranding = false;
};

/// The installer form's preference keys, their defaults, and the rules the
/// window, the command line, the build and the template installer share.
namespace KTInstallerSettings {

inline constexpr const char* kName = "installerName";
inline constexpr const char* kVersion = "installerVersion";
inline constexpr const char* kAuthor = "installerAuthor";
inline constexpr const char* kCertificateName = "installerCertificateName";
inline constexpr const char* kIconPath = "installerIconPath";
inline constexpr const char* kEULAPath = "installerEULAPath";
inline constexpr const char* kBgImagePath = "installerBgImagePath";
inline constexpr const char* kPreInstallScript = "installerPreInstallScript";
inline constexpr const char* kPostInstallScript = "installerPostInstallScript";
inline constexpr const char* kRemoveBranding = "removeInstallerBranding";

/// In the built bundle.
inline constexpr const char* kSettingsFile = "Contents/Resources/InstallerSettings.plist";
inline constexpr const char* kStructureFolder = "Contents/Resources/PluginStructure";
/// The identity menu's first entry.
inline constexpr const char* kNotSet = "(not set)";
/// The placeholder of the installing user's home inside "PluginStructure".
inline constexpr const char* kUserPlaceholder = "/Users/user";

/// Registers "My Plugin", "1.0", the login name and false for the form.
void registerDefaults(KTPreferences& preferences);

/// A request from the preferences (files and destination left empty); only
/// the optional paths that are set and non-empty are taken.
KTInstallerRequest requestFromPreferences(const KTPreferences& preferences);

/// "com.<author>.<name>.<version>", each reduced to its letters and digits
/// and lower-cased.
std::string bundleIDForApp(const std::string& name, const std::string& company,
                           const std::string& version);

/// The identity title without a trailing " (...)" part.
std::string currentCertificateName(const std::string& title);

/// The chosen save path with ".app" appended unless it already ends so
/// (compared in lower case).
std::string destinationWithExtension(const std::string& chosen);

/// "%@ Installer.app" with the product name.
std::string proposedFileName(const std::string& name);

/// The folder, relative to "PluginStructure", that a plug-in in `parent`
/// goes to: the user's home replaced by "/Users/user", a machine-wide folder
/// as the hosts see it (without the system root).
std::string structureFolderFor(const std::string& parent);

/// The inverse on the installing machine: "/Users/user/..." into the user's
/// home, anything else under the system root.
std::string installFolderFor(const std::string& structureFolder);

/// The identity the menu selects at first: the remembered one when it is
/// still in `names`, else the first "Developer ID Application" one, else
/// "(not set)".
std::string initialIdentity(const std::vector<std::string>& names, const std::string& remembered);

/// The plug-ins of an outline selection in row order: a group's plug-ins
/// below it, a plug-in's own path; each path once.
std::vector<std::string> filesForItems(const KTItemList& items);

}  // namespace KTInstallerSettings
