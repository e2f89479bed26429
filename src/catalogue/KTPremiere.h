#pragma once

#include <string>
#include <vector>

/// Installed Adobe Premiere versions, on which the Adobe plug-in folder
/// depends. Versions come from the application bundles' Info.plist, or from
/// an installation's Configuration/XManConfig.xml when no bundle is there.
class KTPremiere {
  public:
    /// Versions of applications named "Adobe Premiere ..." (`premiereVersions`).
    static std::vector<std::string> premiereVersions();

    /// Versions found beside the application with bundle identifier
    /// "com.adobe.AdobePremierePro" (in the folder above its own folder),
    /// then in the machine's Applications folder; each version once, in
    /// order of discovery.
    static std::vector<std::string> versionsForAppName(const std::string& prefix);

    /// Versions of the folder's entries whose names begin with `prefix`
    /// (ignoring case): "N/N.app"'s CFBundleVersionString or CFBundleVersion,
    /// or without such a bundle the XManConfig.xml product version.
    static std::vector<std::string> versionsForAppName(const std::string& prefix,
                                                       const std::string& folder);

    /// The same for suite installations: "Adobe Premiere Pro *.app" inside
    /// each "Adobe Premiere ..." folder, its CFBundleVersion cut to "major.minor".
    static std::vector<std::string> suiteVersions();
    static std::vector<std::string> suiteVersionsInFolder(const std::string& folder);

    /// The product version in an XManConfig.xml document, or "" when the
    /// file is missing, unparsable or holds none.
    static std::string productVersionFromXManConfig(const std::string& path);
};
