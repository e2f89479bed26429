#include "catalogue/KTPremiere.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <pugixml.hpp>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTWorkspace.h"
#include "catalogue/KTPluginLocations.h"

namespace fs = std::filesystem;

namespace {

const char* const kPremiereIdentifier = "com.adobe.AdobePremierePro";
const char* const kPremierePrefix = "Adobe Premiere ";

bool beginsWithIgnoringCase(const std::string& s, const std::string& prefix) {
    if (s.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(s[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    }
    return true;
}

std::vector<std::string> namesWithPrefix(const std::string& folder, const std::string& prefix) {
    std::vector<std::string> names;
    std::error_code ec;
    fs::directory_iterator it(folder, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (beginsWithIgnoringCase(name, prefix)) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool isFolder(const std::string& path) {
    std::error_code ec;
    return fs::is_directory(path, ec);
}

KTPlistPtr infoOfBundle(const std::string& bundle) {
    return KTPlist::readFile(bundle + "/Contents/Info.plist");
}

void addOnce(std::vector<std::string>& list, const std::string& v) {
    if (std::find(list.begin(), list.end(), v) == list.end()) list.push_back(v);
}

/// The folder holding the application's own folder, when the workspace knows Premiere.
std::optional<std::string> premiereHomeFolder() {
    auto app = KTWorkspace::shared().absolutePathForAppBundleWithIdentifier(kPremiereIdentifier);
    if (!app) return std::nullopt;
    return KTPluginLocations::deletingLastPathComponent(
        KTPluginLocations::deletingLastPathComponent(*app));
}

using FolderScan = std::vector<std::string> (*)(const std::string&);

std::vector<std::string> collect(FolderScan scan) {
    std::vector<std::string> versions;
    if (auto home = premiereHomeFolder()) versions = scan(*home);
    for (const std::string& v : scan(KTLocalPaths::applicationDirectory(false)))
        addOnce(versions, v);
    return versions;
}

}  // namespace

std::string KTPremiere::productVersionFromXManConfig(const std::string& path) {
    pugi::xml_document doc;
    if (!doc.load_file(path.c_str())) return "";
    try {
        pugi::xpath_node_set nodes =
            doc.select_nodes("./Configuration/VariableForExMan/Data[@key='ProductVersion']");
        if (nodes.empty()) return "";
        return pugi::xpath_query("string(.)").evaluate_string(nodes.first());
    } catch (const pugi::xpath_exception&) {
        return "";
    }
}

std::vector<std::string> KTPremiere::premiereVersions() {
    return versionsForAppName(kPremierePrefix);
}

std::vector<std::string> KTPremiere::versionsForAppName(const std::string& prefix) {
    std::vector<std::string> versions;
    if (auto home = premiereHomeFolder()) versions = versionsForAppName(prefix, *home);
    for (const std::string& v :
         versionsForAppName(prefix, KTLocalPaths::applicationDirectory(false)))
        addOnce(versions, v);
    return versions;
}

std::vector<std::string> KTPremiere::versionsForAppName(const std::string& prefix,
                                                        const std::string& folder) {
    std::vector<std::string> versions;
    for (const std::string& name : namesWithPrefix(folder, prefix)) {
        const std::string bundle = folder + "/" + name + "/" + name + ".app";
        if (isFolder(bundle)) {
            KTPlistPtr info = infoOfBundle(bundle);
            auto v = KTPlist::stringForKey(info.get(), "CFBundleVersionString");
            if (!v) v = KTPlist::stringForKey(info.get(), "CFBundleVersion");
            if (v) versions.push_back(*v);
            continue;
        }
        std::string v =
            productVersionFromXManConfig(folder + "/" + name + "/Configuration/XManConfig.xml");
        if (!v.empty()) versions.push_back(v);
    }
    return versions;
}

std::vector<std::string> KTPremiere::suiteVersions() {
    return collect(&KTPremiere::suiteVersionsInFolder);
}

std::vector<std::string> KTPremiere::suiteVersionsInFolder(const std::string& folder) {
    std::vector<std::string> versions;
    for (const std::string& name : namesWithPrefix(folder, kPremierePrefix)) {
        const std::string install = folder + "/" + name;
        std::string app;
        for (const std::string& candidate : namesWithPrefix(install, "Adobe Premiere Pro ")) {
            // The wildcard is case-sensitive and wants the ".app" suffix.
            if (candidate.rfind("Adobe Premiere Pro ", 0) == 0 && candidate.size() > 4 &&
                candidate.compare(candidate.size() - 4, 4, ".app") == 0) {
                app = install + "/" + candidate;
                break;
            }
        }
        if (!app.empty()) {
            KTPlistPtr info = infoOfBundle(app);
            if (auto v = KTPlist::stringForKey(info.get(), "CFBundleVersion")) {
                std::size_t dot = v->find('.');
                if (dot != std::string::npos) {
                    std::size_t next = v->find('.', dot + 1);
                    versions.push_back(v->substr(0, next));
                }
            }
            continue;
        }
        std::string v = productVersionFromXManConfig(install + "/Configuration/XManConfig.xml");
        if (!v.empty()) versions.push_back(v);
    }
    return versions;
}
