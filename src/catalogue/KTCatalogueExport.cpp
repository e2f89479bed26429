#include "catalogue/KTCatalogueExport.h"

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "SharedFiles/KTPlist.h"

namespace {

std::string scopeName(std::int64_t scope) {
    return scope == 1 ? "current user" : "all users";
}

}  // namespace

const std::vector<std::string>& KTCatalogueExport::fieldNames() {
    static const std::vector<std::string> names = {
        "path",    "logicalPath",      "kind",      "kindName", "scope",   "scopeName",
        "enabled", "locked",           "shortName", "fileName", "version", "architectures",
        "group",   "bundleIdentifier", "link",      "shadowed"};
    return names;
}

std::string KTCatalogueExport::json(const std::vector<KTCatalogueEntry>& entries) {
    nlohmann::ordered_json plugins = nlohmann::ordered_json::array();
    for (const auto& e : entries) {
        nlohmann::ordered_json p;
        p["path"] = e.path;
        p["logicalPath"] = e.logicalPath;
        p["kind"] = e.kind;
        p["kindName"] = e.kindName;
        p["scope"] = e.scope;
        p["scopeName"] = scopeName(e.scope);
        p["enabled"] = e.enabled;
        p["locked"] = e.locked;
        p["shortName"] = e.shortName;
        p["fileName"] = e.fileName;
        p["version"] = e.version;
        p["architectures"] = e.architectures;
        p["group"] = e.group.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(e.group);
        p["bundleIdentifier"] = e.bundleIdentifier;
        p["link"] = e.isLink;
        p["shadowed"] = e.shadowed;
        plugins.push_back(std::move(p));
    }
    nlohmann::ordered_json doc;
    doc["plugins"] = std::move(plugins);
    // Names come from disks we do not control: bytes that are not UTF-8 are
    // replaced rather than failing the whole export.
    return doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string KTCatalogueExport::csvField(const std::string& value) {
    if (value.find_first_of(",\"\r\n") == std::string::npos) return value;
    std::string out = "\"";
    for (char c : value) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

std::string KTCatalogueExport::csv(const std::vector<KTCatalogueEntry>& entries) {
    std::string out;
    auto row = [&out](const std::vector<std::string>& fields) {
        for (std::size_t i = 0; i < fields.size(); ++i) out += (i ? "," : "") + csvField(fields[i]);
        out += "\r\n";
    };
    row(fieldNames());
    auto flag = [](bool b) { return std::string(b ? "true" : "false"); };
    for (const auto& e : entries) {
        std::string archs;
        for (std::size_t i = 0; i < e.architectures.size(); ++i)
            archs += (i ? ";" : "") + e.architectures[i];
        row({e.path, e.logicalPath, std::to_string(e.kind), e.kindName, std::to_string(e.scope),
             scopeName(e.scope), flag(e.enabled), flag(e.locked), e.shortName, e.fileName,
             e.version, archs, e.group, e.bundleIdentifier, flag(e.isLink), flag(e.shadowed)});
    }
    return out;
}

std::string KTCatalogueExport::text(const std::vector<KTCatalogueEntry>& entries, Format format) {
    return format == Format::JSON ? json(entries) : csv(entries);
}

bool KTCatalogueExport::writeFile(const std::string& path, const std::string& text,
                                  std::string* error) {
    return KTPlist::writeFileAtomically(path, text, error);
}
