#include "installer/KTInstallerSettings.h"

#include <cctype>
#include <regex>
#include <set>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTPreferences.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginItem.h"

namespace KTInstallerSettings {
namespace {

std::string lettersAndDigits(const std::string& text) {
    std::string out;
    for (unsigned char c : text)
        if (std::isalnum(c)) out += static_cast<char>(std::tolower(c));
    return out;
}

std::optional<std::string> nonEmpty(const KTPreferences& preferences, const char* key) {
    auto value = preferences.stringForKey(key);
    if (!value || value->empty()) return std::nullopt;
    return value;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

void registerDefaults(KTPreferences& preferences) {
    preferences.registerDefaults({{kName, std::string("My Plugin")},
                                  {kVersion, std::string("1.0")},
                                  {kAuthor, KTLocalPaths::username()},
                                  {kRemoveBranding, false}});
}

KTInstallerRequest requestFromPreferences(const KTPreferences& preferences) {
    KTInstallerRequest request;
    request.installerName = preferences.stringForKey(kName).value_or("My Plugin");
    request.installerVersion = preferences.stringForKey(kVersion).value_or("1.0");
    request.installerAuthor = preferences.stringForKey(kAuthor).value_or(KTLocalPaths::username());
    request.installerIconPath = nonEmpty(preferences, kIconPath);
    request.installerBgImagePath = nonEmpty(preferences, kBgImagePath);
    request.installerEULAPath = nonEmpty(preferences, kEULAPath);
    request.installerPreInstallScript = nonEmpty(preferences, kPreInstallScript);
    request.installerPostInstallScript = nonEmpty(preferences, kPostInstallScript);
    request.removeBranding = preferences.boolForKey(kRemoveBranding);
    return request;
}

std::string bundleIDForApp(const std::string& name, const std::string& company,
                           const std::string& version) {
    return "com." + lettersAndDigits(company) + "." + lettersAndDigits(name) + "." +
           lettersAndDigits(version);
}

std::string currentCertificateName(const std::string& title) {
    try {
        static const std::regex kTrailingPart(R"( (\(.+\))$)", std::regex::icase);
        return std::regex_replace(title, kTrailingPart, "");
    } catch (const std::regex_error&) {
        return title;
    }
}

std::string destinationWithExtension(const std::string& chosen) {
    std::string lower;
    for (unsigned char c : chosen) lower += static_cast<char>(std::tolower(c));
    if (lower.size() >= 4 && lower.compare(lower.size() - 4, 4, ".app") == 0) return chosen;
    return chosen + ".app";
}

std::string proposedFileName(const std::string& name) {
    return name + " Installer.app";
}

std::string structureFolderFor(const std::string& parent) {
    const std::string home = KTLocalPaths::userDirectory();
    if (!home.empty() && home != "/") {
        if (parent == home) return kUserPlaceholder;
        if (startsWith(parent, home + "/")) return kUserPlaceholder + parent.substr(home.size());
    }
    return KTLocalPaths::logicalPath(parent);
}

std::string installFolderFor(const std::string& structureFolder) {
    const std::string placeholder = kUserPlaceholder;
    if (structureFolder == placeholder) return KTLocalPaths::userDirectory();
    if (startsWith(structureFolder, placeholder + "/"))
        return KTLocalPaths::userDirectory() + structureFolder.substr(placeholder.size());
    return KTLocalPaths::rootedPath(structureFolder);
}

std::string initialIdentity(const std::vector<std::string>& names, const std::string& remembered) {
    if (!remembered.empty())
        for (const auto& n : names)
            if (n == remembered) return n;
    for (const auto& n : names)
        if (n.find("Developer ID Application") != std::string::npos) return n;
    return kNotSet;
}

std::vector<std::string> filesForItems(const KTItemList& items) {
    std::vector<std::string> out;
    std::set<std::string> seen;
    auto add = [&](const std::string& path) {
        if (seen.insert(path).second) out.push_back(path);
    };
    for (const auto& item : items) {
        if (!item) continue;
        if (item->isGroup()) {
            for (const auto& plugin : static_cast<const KTGroupItem&>(*item).allPluginChildren())
                add(plugin->pluginPath());
        } else {
            add(static_cast<const KTPluginItem&>(*item).pluginPath());
        }
    }
    return out;
}

}  // namespace KTInstallerSettings
