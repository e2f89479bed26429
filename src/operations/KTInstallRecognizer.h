#pragma once

#include <string>
#include <vector>

/// What installing one opened or dropped path means: which folder it goes
/// to, or that it becomes a group, is skipped or is not a plug-in at all.
struct KTInstallTarget {
    enum class Action {
        Install,       ///< copy `sourcePath` into the folder of `folderKey` (+ `subfolder`)
        Group,         ///< a plain folder: a new group filled with its recognised entries
        Skip,          ///< a hidden name, left out silently
        Unrecognized,  ///< not a plug-in; never copied
    };
    Action action = Action::Unrecognized;
    /// The key of the plug-in folder table (already chosen for the scope).
    std::string folderKey;
    /// The category folder of a Motion template ("Titles.localized", ...), or "".
    std::string subfolder;
    /// What is copied: the path itself, or for a template document the
    /// template folder that holds it.
    std::string sourcePath;
    /// The name the copy gets in its folder (the last component of `sourcePath`).
    std::string installedName;
};

/// The recognition table of installable files. The rows are tried in a fixed
/// order and the first that matches decides; a few rows deliberately ignore
/// the chosen scope (OpenFX, Avid and Adobe plug-ins are always installed for
/// all users, where their hosts look for them).
class KTInstallRecognizer {
  public:
    /// Recognises `path` for the current user (`forUser`) or for all users.
    static KTInstallTarget recognize(const std::string& path, bool forUser);

    /// True for the paths that make the scope question worth asking: those
    /// whose folder differs between the two scopes ("fxplug", "bundle",
    /// "vst", "vst2", "vst3", "txt", "fcfcc" or the type code 'FCSC').
    static bool asksForScope(const std::string& path);

    /// The types the install panel and a drop from the desktop accept
    /// (lower-case extensions; folders and 'FCSC' files are accepted besides).
    static const std::vector<std::string>& installableExtensions();
};
