#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

/// What a plug-in's bundle says about itself: the display name (localised,
/// English first), the version, and the architecture labels of its
/// executable. A path that is not a folder is no bundle and yields nothing.
struct KTBundleInfo {
    bool isBundle = false;
    std::optional<std::string> name;     ///< display name, "${PRODUCT_NAME}" never
    std::optional<std::string> version;  ///< short version string before the build version
    std::vector<std::string> architectures;

    /// How much to read: everything, or the name and version alone (the
    /// Info.plist and the localised strings, not the executable).
    enum class Detail { All, NamesAndVersion };
    /// `folder`, when not -1, is the folder that holds the bundle, open: the
    /// bundle's last component is looked for there. Log lines name the
    /// absolute path either way.
    static KTBundleInfo read(const std::string& bundlePath, Detail detail = Detail::All,
                             int folder = -1);

    /// The bundle's Info.plist: Contents/Info.plist, or Info.plist at the top
    /// of a bundle without Contents. Empty when there is none.
    static std::string infoPlistPath(const std::string& bundlePath);

    /// Parses a ".strings" file (old-style "key" = "value"; pairs in UTF-8 or
    /// UTF-16 with a byte-order mark, or a property list).
    static std::map<std::string, std::string> parseStrings(const std::string& bytes);
};
