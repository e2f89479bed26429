#pragma once

#include <string>

/// Where the running program and its resources are. On macOS a program's
/// resources sit in its bundle; on Linux Ambrel's "bundle" is its data
/// folder: "share/ambrel" beside the executable in a build tree, or
/// PREFIX/lib/ambrel for an executable installed in PREFIX/bin.
class KTAppBundle {
  public:
    /// The running executable's absolute path; "" when it cannot be read.
    static std::string executablePath();
    /// Ambrel's data folder, which holds "Contents/MacOS/Ambrel Installer.app";
    /// the first of the places that exists, else the build tree's.
    static std::string dataFolder();
    /// The template installer inside the data folder.
    static std::string installerTemplatePath();
    /// For a program inside a bundle (BUNDLE/Contents/MacOS/NAME): BUNDLE;
    /// "" when the executable does not sit in such a folder.
    static std::string enclosingBundle();
};
