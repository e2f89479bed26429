#include "SharedFiles/linux/KTToolPaths.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace {

struct ToolEntry {
    std::string_view macPath;
    std::string_view here;  // empty: not on this platform
};

// Debian 12 (merged /usr): the core tools are reachable under both /bin and
// /usr/bin; /usr/bin is named so that an unmerged system works as well.
constexpr ToolEntry kTools[] = {
    {"/bin/mv", "/usr/bin/mv"},       {"/bin/cp", "/usr/bin/cp"},
    {"/bin/rm", "/usr/bin/rm"},       {"/bin/mkdir", "/usr/bin/mkdir"},
    {"/bin/chmod", "/usr/bin/chmod"}, {"/usr/sbin/chown", "/usr/bin/chown"},
    {"/usr/bin/zip", "/usr/bin/zip"}, {"/usr/bin/unzip", "/usr/bin/unzip"},
    {"/usr/bin/xattr", ""},           {"/usr/bin/auval", ""},
    {"/usr/bin/codesign", ""},        {"/usr/bin/ditto", ""},
    {"/usr/bin/xcrun", ""},           {"/usr/bin/hdiutil", ""},
    {"/usr/sbin/spctl", ""},          {"/usr/bin/pkgbuild", ""},
    {"/usr/bin/productbuild", ""},
};

const ToolEntry* find(const std::string& path) {
    for (const auto& t : kTools) {
        if (t.macPath == path) return &t;
    }
    return nullptr;
}

std::optional<std::string> mapped(const ToolEntry* entry, const std::string& path) {
    if (!entry) return path;
    if (entry->here.empty()) return std::nullopt;
    std::string here(entry->here);
    // An unmerged /usr keeps the core tools in /bin only.
    if (access(here.c_str(), X_OK) != 0 && access(path.c_str(), X_OK) == 0 &&
        path.compare(0, 5, "/bin/") == 0)
        return path;
    return here;
}

}  // namespace

std::optional<std::string> KTToolPaths::resolveSystem(const std::string& path) {
    return mapped(find(path), path);
}

std::optional<std::string> KTToolPaths::resolve(const std::string& path) {
    const ToolEntry* entry = find(path);
    if (entry) {
        if (const char* dir = std::getenv("AMBREL_TOOL_DIR"); dir && *dir) {
            std::string standIn = std::string(dir) + "/" + path.substr(path.rfind('/') + 1);
            if (access(standIn.c_str(), F_OK) == 0) return standIn;
        }
    }
    return mapped(entry, path);
}

bool KTToolPaths::isKnownTool(const std::string& path) {
    return find(path) != nullptr;
}
