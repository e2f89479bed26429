#include "SharedFiles/linux/KTLinuxWorkspace.h"

#include <algorithm>
#include <filesystem>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTTaskEx.h"

namespace fs = std::filesystem;

namespace {

bool hasAppExtension(const fs::path& p) {
    return p.extension() == ".app";
}

/// Folder entries sorted by name, so that "first found" does not depend on
/// the order the file system happens to list them in.
std::vector<fs::path> sortedFolders(const fs::path& folder) {
    std::vector<fs::path> out;
    std::error_code ec;
    fs::directory_iterator it(folder, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        std::error_code typeError;
        if (it->is_directory(typeError)) out.push_back(it->path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

void addBundle(const fs::path& bundle, std::map<std::string, std::string>& apps) {
    KTPlistPtr info = KTPlist::readFile((bundle / "Contents" / "Info.plist").string());
    if (!info) return;
    auto identifier = KTPlist::stringForKey(info.get(), "CFBundleIdentifier");
    if (identifier && !identifier->empty()) apps.emplace(*identifier, bundle.string());
}

}  // namespace

std::vector<std::string> KTLinuxWorkspace::applicationFolders() {
    return {KTLocalPaths::applicationDirectory(false), KTLocalPaths::applicationDirectory(true)};
}

std::map<std::string, std::string> KTLinuxWorkspace::scanApplications() {
    std::map<std::string, std::string> apps;
    for (const std::string& folder : applicationFolders()) {
        for (const fs::path& entry : sortedFolders(folder)) {
            if (hasAppExtension(entry)) {
                addBundle(entry, apps);
                continue;
            }
            for (const fs::path& inner : sortedFolders(entry)) {
                if (hasAppExtension(inner)) addBundle(inner, apps);
            }
        }
    }
    return apps;
}

std::optional<std::string> KTLinuxWorkspace::absolutePathForAppBundleWithIdentifier(
    const std::string& bundleIdentifier) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!loaded_) {
        applications_ = scanApplications();
        loaded_ = true;
    }
    auto it = applications_.find(bundleIdentifier);
    if (it == applications_.end()) return std::nullopt;
    return it->second;
}

void KTLinuxWorkspace::refreshApplications() {
    std::lock_guard<std::mutex> lock(mutex_);
    loaded_ = false;
    applications_.clear();
}

bool KTLinuxWorkspace::openFile(const std::string& path) {
    const std::string opener = "/usr/bin/xdg-open";
    if (!KTTaskEx::isExecutable(opener)) return false;
    KTTaskEx::runTaskAndReturn(opener, {path});
    return true;
}
