#include "SharedFiles/linux/KTHelperPolicy.h"

#include <algorithm>
#include <cctype>

#include "SharedFiles/KTLocalPaths.h"

namespace {

struct ToolRule {
    const char* tool;
    std::vector<std::string> options;
    bool leadingWord;  // chown's owner, chmod's mode
    size_t minPaths, maxPaths;
    bool guardAll;    // every path operand must not be a system folder
    bool guardFirst;  // only the first (the source)
};

const std::vector<ToolRule>& rules() {
    static const std::vector<ToolRule> r = {
        {"/bin/mv", {"-f"}, false, 2, 2, false, true},
        {"/bin/cp", {"-f", "-p", "-R"}, false, 2, 2, false, false},
        {"/bin/rm", {"-Rdf", "-R", "-f"}, false, 1, 64, true, false},
        {"/bin/mkdir", {"-p"}, false, 1, 64, false, false},
        {"/usr/sbin/chown", {"-R"}, true, 1, 64, true, false},
        {"/bin/chmod", {"-R"}, true, 1, 64, true, false},
    };
    return r;
}

bool isOwner(const std::string& s) {
    if (s.empty() || s.size() > 65 || s[0] == '-') return false;
    int colons = 0;
    for (char c : s) {
        if (c == ':') {
            ++colons;
        } else if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '.' &&
                   c != '-') {
            return false;
        }
    }
    return colons <= 1 && s.front() != ':' && s.back() != ':';
}

bool isMode(const std::string& s) {
    if (s.size() >= 3 && s.size() <= 4 &&
        std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '7'; }))
        return true;
    size_t i = 0;
    while (i < s.size() && std::string("ugoa").find(s[i]) != std::string::npos) ++i;
    if (i >= s.size() || std::string("+-=").find(s[i]) == std::string::npos) return false;
    ++i;
    if (i >= s.size()) return false;
    for (; i < s.size(); ++i) {
        if (std::string("rwxX").find(s[i]) == std::string::npos) return false;
    }
    return true;
}

}  // namespace

std::optional<std::string> KTHelperPolicy::refusal(const std::vector<std::string>& fields) {
    if (fields.empty()) return "empty request";
    for (const auto& f : fields) {
        if (f.empty()) return "empty argument";
        if (f.find('\0') != std::string::npos) return "argument holds a NUL byte";
    }
    const ToolRule* rule = nullptr;
    for (const auto& r : rules()) {
        if (fields[0] == r.tool) rule = &r;
    }
    if (!rule) return "tool " + fields[0] + " is not allowed";

    size_t i = 1;
    while (i < fields.size() && fields[i][0] == '-') {
        if (std::find(rule->options.begin(), rule->options.end(), fields[i]) == rule->options.end())
            return "option " + fields[i] + " is not allowed for " + fields[0];
        ++i;
    }
    if (rule->leadingWord) {
        if (i >= fields.size()) return "missing operand";
        const bool ok = fields[0] == "/bin/chmod" ? isMode(fields[i]) : isOwner(fields[i]);
        if (!ok) return "bad operand " + fields[i];
        ++i;
    }
    const size_t paths = fields.size() - i;
    if (paths < rule->minPaths || paths > rule->maxPaths) return "wrong number of paths";
    for (size_t k = i; k < fields.size(); ++k) {
        const std::string& p = fields[k];
        if (p[0] != '/') return "path " + p + " is not absolute";
        const bool guarded = rule->guardAll || (rule->guardFirst && k == i);
        if (guarded && KTLocalPaths::isPathSystemDirectory(p, true))
            return "path " + p + " is a system directory";
    }
    return std::nullopt;
}
