#include "SharedFiles/KTAppBundle.h"

#include <unistd.h>

#include <climits>
#include <filesystem>

namespace fs = std::filesystem;

std::string KTAppBundle::executablePath() {
    char buffer[PATH_MAX + 1];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, PATH_MAX);
    if (n <= 0) return {};
    return std::string(buffer, static_cast<std::size_t>(n));
}

std::string KTAppBundle::dataFolder() {
    const fs::path bin = fs::path(executablePath()).parent_path();
    const fs::path buildTree = bin / "share" / "ambrel";
    // Installed, the folder holds programs (the template installer), which
    // Debian keeps out of /usr/share: PREFIX/lib/ambrel.
    const fs::path installed = bin.parent_path() / "lib" / "ambrel";
    const fs::path installedShared = bin.parent_path() / "share" / "ambrel";
    std::error_code ec;
    if (fs::is_directory(buildTree, ec)) return buildTree.string();
    if (fs::is_directory(installed, ec)) return installed.string();
    if (fs::is_directory(installedShared, ec)) return installedShared.string();
    return buildTree.string();
}

std::string KTAppBundle::installerTemplatePath() {
    return dataFolder() + "/Contents/MacOS/Ambrel Installer.app";
}

std::string KTAppBundle::enclosingBundle() {
    const fs::path macOS = fs::path(executablePath()).parent_path();
    if (macOS.filename() != "MacOS" || macOS.parent_path().filename() != "Contents") return {};
    return macOS.parent_path().parent_path().string();
}
