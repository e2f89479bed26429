#include "SharedFiles/linux/KTHelperPlaces.h"

#include <sstream>

#include "SharedFiles/KTLocalPaths.h"

namespace {

bool beneath(const std::string& path, const std::string& folder) {
    if (folder == "/") return path.size() > 1 && path[0] == '/';
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           path[folder.size()] == '/';
}

std::string join(const std::string& root, const std::string& rest) {
    return root == "/" ? rest : root + rest;
}

/// The kind folders of one scope below `root`, with every spelling the scan
/// and the items use (both Avid applications, both FxScript editions, the
/// two OpenFX folders, the folder joins without a slash that the folder
/// table keeps, every Adobe version).
std::vector<std::string> kindFolders(const std::string& root, bool user) {
    std::vector<std::string> f = {
        "/Library/Plug-Ins/FxPlug",     "/Library/Audio/Plug-Ins/Components",
        "/Library/Audio/Plug-Ins/VST",  "/Library/Audio/Plug-Ins/VST2",
        "/Library/Audio/Plug-Ins/VST3", "/Library/Graphics/Quartz Composer Plug-Ins",
    };
    if (user) {
        f.insert(f.end(), {"/Library/Preferences/Final Cut Pro User Data/Plugins",
                           "/Library/Preferences/Final Cut Express User Data/Plugins",
                           "/Movies/Motion Templates.localized"});
    } else {
        f.insert(f.end(),
                 {"/Library/Application Support/Final Cut Pro System Support/Plugins",
                  "/Library/Application Support/Final Cut Express System Support/Plugins",
                  "/Library/Application Support/Final Cut Pro/Templates.localized",
                  "/Library/Application Support/Adobe/Common/Plug-ins",
                  "/Library/Application SupportAvid/AVX2_Plug-ins",
                  "/Library/Application SupportDigidesign/Plug-Ins", "/Library/OFX/Plugins"});
    }
    // Kinds that the items place under either scope's root.
    f.insert(f.end(),
             {"/Applications/Avid Symphony/SupportingFiles/AVX_Plug-Ins",
              "/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins",
              "/Library/Application Support/Avid/AVX2_Plug-ins",
              "/Library/Application Support/Digidesign/Plug-Ins", "/Library/OpenFX/Plugins"});
    for (auto& p : f) p = join(root, p);
    return f;
}

/// Unescapes the octal escapes (\040) of a mountinfo field.
std::string unescape(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] >= '0' && s[i + 1] <= '3' &&
            s[i + 2] >= '0' && s[i + 2] <= '7' && s[i + 3] >= '0' && s[i + 3] <= '7') {
            out +=
                static_cast<char>((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0'));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

}  // namespace

KTHelperPlaces::KTHelperPlaces(const std::optional<std::string>& systemRoot, uid_t uid,
                               const std::string& home,
                               const std::vector<std::string>& mountPoints) {
    if (systemRoot && !rootRefusal(*systemRoot)) {
        const std::string& root = *systemRoot;
        for (auto& p : kindFolders(root, false)) places_.push_back({p, Role::PluginFolder});
        places_.push_back(
            {join(root, "/Library/Application Support/Quellbrook/Tallowby"), Role::ProgramFolder});
    }
    // A home that is a system folder or lies in one (daemons' accounts) gives nothing.
    auto normalHome = KTLocalPaths::normalisedPath(home);
    if (normalHome && !KTLocalPaths::isRealSystemFolder(*normalHome)) {
        home_ = *normalHome;
        for (auto& p : kindFolders(*normalHome, true)) places_.push_back({p, Role::PluginFolder});
        places_.push_back({*normalHome + "/.local/share/Trash", Role::Trash});
    }
    const std::string id = std::to_string(uid);
    for (const auto& m : mountPoints) {
        auto top = KTLocalPaths::normalisedPath(m);
        if (!top) continue;
        for (const std::string& t : {join(*top, "/.Trash/" + id), join(*top, "/.Trash-" + id)}) {
            if (!KTLocalPaths::isRealSystemFolder(t)) places_.push_back({t, Role::Trash});
        }
    }
}

std::optional<std::string> KTHelperPlaces::rootRefusal(const std::string& systemRoot) {
    auto root = KTLocalPaths::normalisedPath(systemRoot);
    if (!root) return "system root " + systemRoot + " is not a plain absolute path";
    if (*root != "/" && KTLocalPaths::isRealSystemFolder(*root))
        return "system root " + systemRoot + " is a system directory";
    if (*root != systemRoot) return "system root " + systemRoot + " is not normalised";
    return std::nullopt;
}

std::vector<std::string> KTHelperPlaces::mountPointsFrom(const std::string& mountinfo) {
    std::vector<std::string> points;
    std::istringstream lines(mountinfo);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string id, parent, devices, rootField, point;
        if (fields >> id >> parent >> devices >> rootField >> point)
            points.push_back(unescape(point));
    }
    return points;
}

const KTHelperPlaces::Place* KTHelperPlaces::placeOf(const std::string& path) const {
    for (const auto& p : places_) {
        if (path == p.path || beneath(path, p.path)) return &p;
    }
    return nullptr;
}

bool KTHelperPlaces::isInside(const std::string& path) const {
    for (const auto& p : places_) {
        if (beneath(path, p.path)) return true;
    }
    return false;
}

bool KTHelperPlaces::mayMakeFolder(const std::string& path) const {
    for (const auto& p : places_) {
        if (path == p.path || beneath(path, p.path) || beneath(p.path, path)) return true;
    }
    return false;
}

bool KTHelperPlaces::isProgramFolder(const std::string& path) const {
    for (const auto& p : places_) {
        if (p.role == Role::ProgramFolder && (path == p.path || beneath(path, p.path))) return true;
    }
    return false;
}

bool KTHelperPlaces::belongsToUser(const std::string& path) const {
    if (!home_.empty() && beneath(path, home_)) return true;
    for (const auto& p : places_) {
        if (p.role == Role::Trash && (path == p.path || beneath(path, p.path))) return true;
    }
    return false;
}
