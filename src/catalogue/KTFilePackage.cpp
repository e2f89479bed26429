#include "catalogue/KTFilePackage.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace {
constexpr std::array<std::string_view, 24> kPackageExtensions = {
    "fxplug", "bundle",    "plugin", "component", "vst",         "vst2",      "vst3",   "avx",
    "dpm",    "aaxplugin", "app",    "framework", "kext",        "appex",     "xpc",    "qlgenerator",
    "mdimporter", "prefpane", "saver", "plugins", "fcpbundle", "rtfd", "mpkg", "pkg"};
}  // namespace

bool KTFilePackage::isPackageExtension(std::string_view ext) {
    return !ext.empty() &&
           std::find(kPackageExtensions.begin(), kPackageExtensions.end(), ext) != kPackageExtensions.end();
}

bool KTFilePackage::isFilePackage(const std::string& path) {
    std::string_view name(path);
    while (name.size() > 1 && name.back() == '/') name.remove_suffix(1);
    if (auto slash = name.rfind('/'); slash != std::string_view::npos) name.remove_prefix(slash + 1);
    if (!isPackageExtension(lowerExtension(name))) return false;
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string KTFilePackage::lowerExtension(std::string_view name) {
    auto slash = name.rfind('/');
    if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
    auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return {};
    std::string ext(name.substr(dot + 1));
    if (ext.find(' ') != std::string::npos) return {};
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

bool KTFilePackage::isNumeric(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}
