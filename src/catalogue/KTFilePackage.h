#pragma once

#include <string>
#include <string_view>

/// What the catalogue treats as one file although it is a folder: a bundle.
/// macOS asks the workspace; here a folder is a package when its extension
/// is one of the bundle extensions below (the plug-in extensions of every
/// kind plus the system's own bundle types). Keep the list in this one place.
class KTFilePackage {
public:
    /// True for a folder at `path` whose extension marks a bundle.
    static bool isFilePackage(const std::string& path);
    /// True when `lowerExtension` (no dot) is a bundle extension.
    static bool isPackageExtension(std::string_view lowerExtension);

    /// The extension of the last path component without the dot, lower-cased;
    /// "" for none (".localized" alone is a name, not an extension).
    static std::string lowerExtension(std::string_view name);
    /// True when `text` is non-empty and all decimal digits ("2" of "Pack 1.2").
    static bool isNumeric(std::string_view text);
};
