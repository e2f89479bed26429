#include "SharedFiles/linux/KTHelperPolicy.h"

#include <algorithm>
#include <cctype>

#include "SharedFiles/KTLocalPaths.h"

namespace {

using Kind = KTHelperStep::Kind;

struct ToolRule {
    const char* tool;
    Kind kind;
    std::vector<std::string> options;
    size_t minPaths, maxPaths;
};

const std::vector<ToolRule>& rules() {
    static const std::vector<ToolRule> r = {
        // "-n" and "-a" are what the transfer sends; the helper never
        // replaces a destination and always keeps what a copy can keep,
        // whichever of the equivalent spellings arrives.
        {"/bin/mv", Kind::Move, {"-f", "-n", "-T"}, 2, 2},
        {"/bin/cp", Kind::Copy, {"-f", "-p", "-R", "-a", "-T"}, 2, 2},
        {"/bin/rm", Kind::Remove, {"-Rdf", "-R", "-f", "-d", "-Rf", "-rf"}, 1, 64},
        {"/bin/rmdir", Kind::Remove, {}, 1, 64},
        {"/bin/mkdir", Kind::MakeDirectory, {"-p"}, 1, 64},
        {"/usr/sbin/chown", Kind::Chown, {"-R"}, 1, 64},
        {"/bin/chmod", Kind::Chmod, {"-R"}, 1, 64},
    };
    return r;
}

/// A login name or a numeric id; never an option, a group or a reference.
bool isOwnerWord(const std::string& s) {
    if (s.empty() || s.size() > 32 || s[0] == '-') return false;
    return std::all_of(s.begin(), s.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '-';
    });
}

}  // namespace

std::variant<KTHelperStep, std::string> KTHelperPolicy::parse(
    const std::vector<std::string>& fields) {
    if (fields.empty()) return std::string("empty request");
    for (const auto& f : fields) {
        if (f.empty()) return std::string("empty argument");
        if (f.find('\0') != std::string::npos) return std::string("argument holds a NUL byte");
    }
    const ToolRule* rule = nullptr;
    for (const auto& r : rules()) {
        if (fields[0] == r.tool) rule = &r;
    }
    if (!rule) return "tool " + fields[0] + " is not allowed";

    KTHelperStep step;
    step.kind = rule->kind;
    bool noTargetDirectory = false;
    size_t i = 1;
    while (i < fields.size() && fields[i][0] == '-') {
        const std::string& o = fields[i];
        if (std::find(rule->options.begin(), rule->options.end(), o) == rule->options.end())
            return "option " + o + " is not allowed for " + fields[0];
        if (o == "-T") noTargetDirectory = true;
        if (o.find('R') != std::string::npos || o.find('r') != std::string::npos)
            step.recursive = true;
        ++i;
    }
    // rmdir removes empty folders and nothing else.
    if (fields[0] == "/bin/rmdir") step.onlyEmptyFolders = true;
    // cp copies folders only with -R, as the program always sends it.
    if (rule->kind == Kind::Copy) step.recursive = true;
    if (rule->kind == Kind::Move || rule->kind == Kind::Copy)
        step.intoExistingFolder = !noTargetDirectory;

    if (rule->kind == Kind::Chmod) {
        if (i >= fields.size()) return std::string("missing operand");
        if (fields[i] != kRepairMode) return "mode " + fields[i] + " is not allowed";
        ++i;
    } else if (rule->kind == Kind::Chown) {
        if (i >= fields.size()) return std::string("missing operand");
        if (!isOwnerWord(fields[i])) return "owner " + fields[i] + " is not allowed";
        step.owner = fields[i];
        ++i;
    }
    const size_t count = fields.size() - i;
    if (count < rule->minPaths || count > rule->maxPaths)
        return std::string("wrong number of paths");
    for (size_t k = i; k < fields.size(); ++k) {
        const std::string& p = fields[k];
        if (p[0] != '/') return "path " + p + " is not absolute";
        std::optional<std::string> normal = KTLocalPaths::normalisedPath(p);
        if (!normal) return "path " + p + " climbs with \"..\"";
        // A copy may read from anywhere the user could; everything else is
        // a place the helper changes.
        const bool copySource = rule->kind == Kind::Copy && k == i;
        if (!copySource && KTLocalPaths::isRealSystemFolder(*normal))
            return "path " + p + " is a system directory";
        // Kernel and device files are no plug-ins, whoever may read them.
        for (const char* pseudo : {"/proc", "/sys", "/dev", "/run"}) {
            const std::string top = pseudo;
            if (*normal == top || normal->compare(0, top.size() + 1, top + "/") == 0)
                return "path " + p + " is a system directory";
        }
        step.paths.push_back(*normal);
    }
    return step;
}

std::optional<std::string> KTHelperPolicy::refusal(const std::vector<std::string>& fields) {
    auto parsed = parse(fields);
    if (auto* why = std::get_if<std::string>(&parsed)) return *why;
    return std::nullopt;
}
