#include "installer/KTInstallerBuilder.h"

#include <filesystem>
#include <system_error>

#include "SharedFiles/KTAppBundle.h"
#include "SharedFiles/KTFileManager.h"
#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTKeychain.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTTransfer.h"
#include "installer/KTInstallerSigning.h"
#include "operations/KTOperationSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const char* const kUnable = "Unable to create installer";

std::string fileNameOf(const std::string& path) {
    return fs::path(path).filename().string();
}

/// The extension without its dot, "" when there is none.
std::string extensionOf(const std::string& path) {
    const std::string ext = fs::path(path).extension().string();
    return ext.empty() ? ext : ext.substr(1);
}

bool existsAt(const std::optional<std::string>& path) {
    return path && !path->empty() && KTOperationSupport::exists(*path);
}

}  // namespace

void KTInstallerBuilder::fail(const std::string& text) {
    KTLog::appendLog("%@ - %@", kUnable, text);
    delegate_.showSheet(kUnable, text);
}

KTInstallerBuilder::Outcome KTInstallerBuilder::createInstallerWithSettings(
    const KTInstallerRequest& request) {
    installerCancelled_ = false;
    Outcome outcome = Outcome::Failed;
    delegate_.setSpinning(true);
    try {
        outcome = build(request);
    } catch (const std::exception& e) {
        KTException::logException(e, "-[AppController createInstallerWithSettings:]");
    }
    delegate_.setSpinning(false);
    return outcome;
}

KTInstallerBuilder::Outcome KTInstallerBuilder::build(const KTInstallerRequest& request) {
    KTLog::appendLog("Creating installer...");
    const std::string bundle = request.destFilename;
    const std::string resources = bundle + "/Contents/Resources";

    if (installerCancelled_) return Outcome::Cancelled;
    if (KTOperationSupport::exists(bundle)) KTFileManager::trashFile(bundle, 30s);

    if (installerCancelled_) return Outcome::Cancelled;
    const std::string templatePath = KTAppBundle::installerTemplatePath();
    if (!KTOperationSupport::isDirectory(templatePath)) {
        KTLog::appendLog("Installer template missing at %@", templatePath);
        fail("This application may be damaged. It is recommended that you reinstall Tallowby.");
        return Outcome::Failed;
    }

    if (installerCancelled_) return Outcome::Cancelled;
    std::string error;
    KTOperationSupport::createFolder(KTOperationSupport::parentOf(bundle),
                                     "Unable to create directory %@ - %@");
    if (!KTTransfer::shared().copyItem(templatePath, bundle, &error)) {
        KTLog::appendLog("Unable to copy %@ to %@ - %@", templatePath, bundle, error);
        fail("Failed to copy files.");
        return Outcome::Failed;
    }

    if (installerCancelled_) return Outcome::Cancelled;
    if (!layOutPlugins(request, bundle)) return Outcome::Failed;

    if (installerCancelled_) return Outcome::Cancelled;
    const bool haveEULA = existsAt(request.installerEULAPath);
    if (haveEULA &&
        !copyInto(
            *request.installerEULAPath, resources + "/" + fileNameOf(*request.installerEULAPath),
            "Cannot copy EULA file. Make sure you have write permissions to the destination."))
        return Outcome::Failed;

    if (installerCancelled_) return Outcome::Cancelled;
    const bool haveBackground = existsAt(request.installerBgImagePath);
    if (haveBackground && !copyInto(*request.installerBgImagePath,
                                    resources + "/" + fileNameOf(*request.installerBgImagePath),
                                    "Cannot copy background image file. Make sure you have write "
                                    "permissions to the destination."))
        return Outcome::Failed;

    if (installerCancelled_) return Outcome::Cancelled;
    if (!writeSettings(request, resources, haveEULA, haveBackground)) return Outcome::Failed;

    if (installerCancelled_) return Outcome::Cancelled;
    if (existsAt(request.installerIconPath) && !addIcon(*request.installerIconPath, bundle))
        return Outcome::Failed;

    if (installerCancelled_) return Outcome::Cancelled;
    if (existsAt(request.installerPreInstallScript) &&
        !addScript(*request.installerPreInstallScript, "preinstall", resources,
                   "Cannot copy pre-install script. Make sure you have write permissions to the "
                   "destination."))
        return Outcome::Failed;
    if (existsAt(request.installerPostInstallScript) &&
        !addScript(*request.installerPostInstallScript, "postinstall", resources,
                   "Cannot copy post-install script. Make sure you have write permissions to the "
                   "destination."))
        return Outcome::Failed;

    if (installerCancelled_) return Outcome::Cancelled;
    std::error_code ec;
    fs::last_write_time(bundle, fs::file_time_type::clock::now(), ec);

    if (installerCancelled_) return Outcome::Cancelled;
    if (request.certificate && !request.certificate->empty()) {
        if (auto failure =
                KTInstallerSigning::shared().signInstaller(bundle, *request.certificate)) {
            fail(*failure);
            return Outcome::Failed;
        }
    }

    if (installerCancelled_) return Outcome::Cancelled;
    std::string appleID, password;
    if (KTKeychain::appleIDInfo(&appleID, &password) && !appleID.empty() && !password.empty()) {
        return KTInstallerSigning::shared().notarizeInstaller(*this, request, bundle, appleID,
                                                              password)
                   ? Outcome::Created
                   : Outcome::Failed;
    }

    KTLog::appendLog("Installer successfully created (without notarization) at %@", bundle);
    delegate_.showSheet("Installer created",
                        KTFormat::str("An installer was successfully created at %@.", bundle));
    return Outcome::Created;
}

bool KTInstallerBuilder::copyInto(const std::string& source, const std::string& destination,
                                  const std::string& failure) {
    std::string error;
    if (KTTransfer::shared().copyItem(source, destination, &error)) return true;
    KTLog::appendLog("Unable to copy %@ to %@ - %@", source, destination, error);
    fail(failure);
    return false;
}

bool KTInstallerBuilder::layOutPlugins(const KTInstallerRequest& request,
                                       const std::string& bundle) {
    const std::string structure = bundle + "/" + KTInstallerSettings::kStructureFolder;
    for (const auto& file : request.files) {
        if (installerCancelled_) return false;
        if (!KTOperationSupport::exists(file)) {
            KTLog::appendLog("The plugin %@ no longer exists.", file);
            delegate_.showSheet("File doesn't exist",
                                KTFormat::str("The plugin %@ no longer exists.", file));
            return false;
        }
        const std::string folder =
            structure + KTInstallerSettings::structureFolderFor(KTOperationSupport::parentOf(file));
        KTOperationSupport::createFolder(folder, "Unable to create directory %@ - %@");
        std::string error;
        // A plug-in that cannot be copied is left out; the log says which.
        if (!KTTransfer::shared().copyItem(
                file, folder + "/" + KTOperationSupport::lastComponent(file), &error))
            KTLog::appendLog("Unable to copy %@ into the installer - %@", file, error);
    }
    return true;
}

bool KTInstallerBuilder::writeSettings(const KTInstallerRequest& request,
                                       const std::string& resources, bool haveEULA,
                                       bool haveBackground) {
    KTPlistPtr settings(plist_new_dict());
    plist_dict_set_item(settings.get(), "KTPluginName",
                        plist_new_string(request.installerName.c_str()));
    plist_dict_set_item(settings.get(), "KTPluginVersion",
                        plist_new_string(request.installerVersion.c_str()));
    plist_dict_set_item(settings.get(), "KTPluginAuthor",
                        plist_new_string(request.installerAuthor.c_str()));
    if (haveEULA)
        plist_dict_set_item(settings.get(), "KTEULAPath",
                            plist_new_string(fileNameOf(*request.installerEULAPath).c_str()));
    if (haveBackground)
        plist_dict_set_item(settings.get(), "KTBgImagePath",
                            plist_new_string(fileNameOf(*request.installerBgImagePath).c_str()));
    if (request.removeBranding)
        plist_dict_set_item(settings.get(), "removeBranding", plist_new_bool(1));
    std::string error;
    const std::string path = resources + "/InstallerSettings.plist";
    KTOperationSupport::createFolder(resources, "Unable to create directory %@ - %@");
    if (!KTPlist::writeFileAtomically(path, KTPlist::toXML(settings.get()), &error)) {
        KTLog::appendLog("Unable to write %@ - %@", path, error);
        fail(
            "Cannot write settings file. Make sure you have write permissions to the "
            "destination.");
        return false;
    }
    return true;
}

bool KTInstallerBuilder::addIcon(const std::string& icon, const std::string& bundle) {
    const std::string name = fileNameOf(icon);
    if (!copyInto(icon, bundle + "/Contents/Resources/" + name,
                  "Cannot copy icon file. Make sure you have write permissions to the "
                  "destination."))
        return false;
    const std::string infoPath = bundle + "/Contents/Info.plist";
    KTPlistPtr info = KTPlist::readFile(infoPath);
    if (!info || plist_get_node_type(info.get()) != PLIST_DICT) info.reset(plist_new_dict());
    plist_dict_set_item(info.get(), "CFBundleIconFile", plist_new_string(name.c_str()));
    std::string error;
    if (!KTPlist::writeFileAtomically(infoPath, KTPlist::toXML(info.get()), &error))
        KTLog::appendLog("Unable to write %@ - %@", infoPath, error);
    return true;
}

bool KTInstallerBuilder::addScript(const std::string& script, const std::string& stem,
                                   const std::string& resources, const std::string& failure) {
    // Copied straight to its final name: a script named like a file of the
    // template never replaces it, not even for a moment.
    std::string name = stem + ".";
    name += extensionOf(script);
    return copyInto(script, resources + "/" + name, failure);
}
