#include "analytics/KTOSVersion.h"

#include <fstream>
#include <sstream>

#include "SharedFiles/KTLocalPaths.h"

std::optional<std::string> KTOSVersion::osxVersion() {
    for (const char* file : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream in(KTLocalPaths::rootedPath(file), std::ios::binary);
        if (!in) continue;
        std::ostringstream text;
        text << in.rdbuf();
        return prettyNameFromOSRelease(text.str());
    }
    return std::nullopt;
}

std::optional<std::string> KTOSVersion::prettyNameFromOSRelease(const std::string& text) {
    std::istringstream lines(text);
    std::optional<std::string> found;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::string key = "PRETTY_NAME=";
        if (line.compare(0, key.size(), key) != 0) continue;
        std::string value = line.substr(key.size());
        // Shell-style quoting: "..." with backslash escapes, or '...' taken as it is.
        std::string out;
        if (!value.empty() && (value.front() == '"' || value.front() == '\'')) {
            const char quote = value.front();
            for (std::size_t i = 1; i < value.size() && value[i] != quote; ++i) {
                if (quote == '"' && value[i] == '\\' && i + 1 < value.size()) ++i;
                out += value[i];
            }
        } else {
            out = value;
        }
        found = out;  // a later assignment wins, as in the shell
    }
    if (found && found->empty()) return std::nullopt;
    return found;
}
