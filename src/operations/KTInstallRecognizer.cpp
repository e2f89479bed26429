#include "operations/KTInstallRecognizer.h"

#include "SharedFiles/KTFinderInfo.h"
#include "SharedFiles/KTPlist.h"
#include "catalogue/KTFilePackage.h"
#include "catalogue/KTPluginLocations.h"
#include "operations/KTOperationSupport.h"

using namespace KTOperationSupport;

namespace {

using Action = KTInstallTarget::Action;

KTInstallTarget install(const std::string& source, std::string key, std::string subfolder = "") {
    KTInstallTarget t;
    t.action = Action::Install;
    t.folderKey = std::move(key);
    t.subfolder = std::move(subfolder);
    t.sourcePath = source;
    t.installedName = lastComponent(source);
    return t;
}

KTInstallTarget only(Action action, const std::string& path) {
    KTInstallTarget t;
    t.action = action;
    t.sourcePath = path;
    t.installedName = lastComponent(path);
    return t;
}

bool infoPlistHasKey(const std::string& bundle, const char* key) {
    KTPlistPtr info = KTPlist::readFile(bundle + "/Contents/Info.plist");
    return info && plist_get_node_type(info.get()) == PLIST_DICT &&
           plist_dict_get_item(info.get(), key) != nullptr;
}

/// The name less its last extension ("Keys.fcp" -> "Keys"; a leading dot is no extension).
std::string withoutExtension(const std::string& name) {
    const auto dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return name;
    return name.substr(0, dot);
}

}  // namespace

KTInstallTarget KTInstallRecognizer::recognize(const std::string& path, bool forUser) {
    const std::string name = lastComponent(path);
    const std::string ext = KTFilePackage::lowerExtension(name);
    auto scoped = [forUser](const char* user, const char* local) {
        return std::string(forUser ? user : local);
    };

    if (ext == "fxplug") return install(path, scoped("userFxPlug", "localFxPlug"));
    if (ext == "bundle") {
        if (KTFilePackage::lowerExtension(withoutExtension(name)) == "ofx")
            return install(path, "localOFX");
        if (infoPlistHasKey(path, "AVX15_BundleVersion")) return install(path, "avidAVX");
        if (infoPlistHasKey(path, "AVX20_BundleVersion")) return install(path, "avidAVX2");
        return install(path, scoped("userFxScript", "localFxScript"));
    }
    if (ext == "avx") return install(path, "avidAVX2");
    if (ext == "dpm") return install(path, "avidRTAS");

    // A template document stands for the template folder around it.
    static const std::pair<const char*, const char*> kTemplates[] = {
        {"moti", "Titles.localized"},
        {"motn", "Generators.localized"},
        {"moef", "Effects.localized"},
        {"motr", "Transitions.localized"},
    };
    const std::string templateKey = scoped("userMotionTemplate", "localMotionTemplate");
    for (const auto& [templateExt, category] : kTemplates) {
        if (ext == templateExt) return install(parentOf(path), templateKey, category);
    }

    if (ext == "txt" || ext == "fcfcc" ||
        KTFinderInfo::typeCode(path) == KTFinderInfo::kFxScriptType)
        return install(path, scoped("userFxScript", "localFxScript"));
    if (ext == "component") return install(path, scoped("userAU", "localAU"));
    if (ext == "vst") return install(path, scoped("userVST", "localVST"));
    if (ext == "vst2") return install(path, scoped("userVST2", "localVST2"));
    if (ext == "vst3") return install(path, scoped("userVST3", "localVST3"));
    if (ext == "plugin") return install(path, "adobeCommon");

    if (isDirectory(path) && !KTFilePackage::isFilePackage(path)) {
        // A template folder holds a document named after itself.
        static const std::pair<const char*, const char*> kFolderTemplates[] = {
            {".moti", "Titles.localized"},
            {".moef", "Effects.localized"},
            {".motn", "Generators.localized"},
            {".motr", "Transitions.localized"},
        };
        const std::string base = withoutExtension(name);
        for (const auto& [docExt, category] : kFolderTemplates) {
            if (exists(path + "/" + base + docExt)) return install(path, templateKey, category);
        }
        return only(Action::Group, path);
    }
    if (!name.empty() && name[0] == '.') return only(Action::Skip, path);
    return only(Action::Unrecognized, path);
}

bool KTInstallRecognizer::asksForScope(const std::string& path) {
    const std::string ext = KTFilePackage::lowerExtension(lastComponent(path));
    for (const char* e : {"fxplug", "bundle", "vst", "vst2", "vst3", "txt", "fcfcc"}) {
        if (ext == e) return true;
    }
    return KTFinderInfo::typeCode(path) == KTFinderInfo::kFxScriptType;
}

const std::vector<std::string>& KTInstallRecognizer::installableExtensions() {
    static const std::vector<std::string> extensions = {
        "fxplug",    "bundle", "avx", "moti",  "moef", "motn", "motr", "dpm",
        "component", "plugin", "txt", "fcfcc", "vst",  "vst2", "vst3"};
    return extensions;
}
