#pragma once

#include <plist/plist.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "GenFiles.h"
#include "GenMachO.h"
#include "GenRandom.h"
#include "SharedFiles/KTPlist.h"

namespace gen {

/// How a bundle's InfoPlist.strings is stored: each form occurs in shipped
/// plug-ins (Xcode writes UTF-16 text by default, or a binary property list).
enum class StringsForm { UTF8Text, UTF16Text, BinaryPlist };

/// What one bundle says about itself, and what its executable is built for.
struct BundleSpec {
    std::string path;        ///< the bundle folder, extension included
    std::string name;        ///< CFBundleName ("${PRODUCT_NAME}" when unexpanded)
    std::string identifier;  ///< CFBundleIdentifier
    std::string executable;  ///< CFBundleExecutable, the file in Contents/MacOS
    std::string packageType = "BNDL";
    std::optional<std::string> shortVersion;  ///< CFBundleShortVersionString
    std::optional<std::string> version;       ///< CFBundleVersion
    std::optional<std::string> displayName;   ///< CFBundleDisplayName in Info.plist
    /// The English CFBundleDisplayName in Resources/en.lproj/InfoPlist.strings.
    std::optional<std::string> localizedDisplayName;
    StringsForm stringsForm = StringsForm::UTF16Text;
    std::vector<std::pair<std::string, std::string>> extraKeys;
    std::vector<Arch> archs;  ///< empty: no executable
    MachOFileType fileType = MachOFileType::Bundle;
    bool binaryInfoPlist = false;
};

namespace bundle_detail {

inline void setString(plist_t dict, const char* key, const std::string& value) {
    plist_dict_set_item(dict, key, plist_new_string(value.c_str()));
}

inline std::string quoted(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

/// UTF-8 to UTF-16LE with a byte-order mark (the names are in the Basic
/// Multilingual Plane, so no surrogate pairs are needed).
inline std::string utf16le(const std::string& utf8) {
    std::string out("\xFF\xFE", 2);
    for (std::size_t i = 0; i < utf8.size();) {
        unsigned char c = static_cast<unsigned char>(utf8[i]);
        unsigned cp = c;
        std::size_t len = 1;
        if (c >= 0xE0 && i + 2 < utf8.size()) {
            cp = ((c & 0x0Fu) << 12) | ((utf8[i + 1] & 0x3Fu) << 6) | (utf8[i + 2] & 0x3Fu);
            len = 3;
        } else if (c >= 0xC0 && i + 1 < utf8.size()) {
            cp = ((c & 0x1Fu) << 6) | (utf8[i + 1] & 0x3Fu);
            len = 2;
        }
        out.push_back(static_cast<char>(cp & 0xFF));
        out.push_back(static_cast<char>(cp >> 8));
        i += len;
    }
    return out;
}

}  // namespace bundle_detail

/// The Info.plist of a bundle, XML or binary.
inline std::string infoPlistBytes(const BundleSpec& plan) {
    using bundle_detail::setString;
    KTPlistPtr dict(plist_new_dict());
    plist_t d = dict.get();
    setString(d, "CFBundleDevelopmentRegion", "en");
    if (!plan.archs.empty()) setString(d, "CFBundleExecutable", plan.executable);
    setString(d, "CFBundleIdentifier", plan.identifier);
    setString(d, "CFBundleInfoDictionaryVersion", "6.0");
    setString(d, "CFBundleName", plan.name);
    if (plan.displayName) setString(d, "CFBundleDisplayName", *plan.displayName);
    setString(d, "CFBundlePackageType", plan.packageType);
    if (plan.shortVersion) setString(d, "CFBundleShortVersionString", *plan.shortVersion);
    if (plan.version) setString(d, "CFBundleVersion", *plan.version);
    for (const auto& [key, value] : plan.extraKeys) setString(d, key.c_str(), value);
    return plan.binaryInfoPlist ? KTPlist::toBinary(d) : KTPlist::toXML(d);
}

/// The en.lproj/InfoPlist.strings text of a bundle in the given form.
inline std::string infoPlistStringsBytes(const std::string& displayName, StringsForm form) {
    if (form == StringsForm::BinaryPlist) {
        KTPlistPtr dict(plist_new_dict());
        bundle_detail::setString(dict.get(), "CFBundleDisplayName", displayName);
        return KTPlist::toBinary(dict.get());
    }
    std::string text = "/* Localized versions of Info.plist keys */\n\n\"CFBundleDisplayName\" = " +
                       bundle_detail::quoted(displayName) + ";\n";
    return form == StringsForm::UTF16Text ? bundle_detail::utf16le(text) : text;
}

/// Writes Contents/Info.plist, the localised strings and the executable.
inline bool writeBundle(FileWriter& out, const BundleSpec& plan, Random& rng) {
    const std::string contents = plan.path + "/Contents";
    if (!out.writeFile(contents + "/Info.plist", infoPlistBytes(plan))) return false;
    if (plan.packageType == "APPL" &&
        !out.writeFile(contents + "/PkgInfo", plan.packageType + "????"))
        return false;
    if (plan.localizedDisplayName &&
        !out.writeFile(contents + "/Resources/en.lproj/InfoPlist.strings",
                       infoPlistStringsBytes(*plan.localizedDisplayName, plan.stringsForm)))
        return false;
    if (!plan.archs.empty() && !out.writeFile(contents + "/MacOS/" + plan.executable,
                                              machO(plan.archs, plan.fileType, rng), 0755))
        return false;
    return true;
}

}  // namespace gen
