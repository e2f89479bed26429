#include "installer/KTNotarizeCommand.h"

#include <cstdio>
#include <filesystem>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTUserInterface.h"
#include "installer/KTCodeSigner.h"
#include "installer/KTInstallerSettings.h"
#include "installer/KTNotarizer.h"
#include "operations/KTOperationSupport.h"

namespace fs = std::filesystem;
namespace S = KTInstallerSettings;

namespace {

/// Without a window the sheets' texts go to standard output, and the error
/// log's address is printed where the window offers "View Error Log".
class ConsoleDelegate : public KTNotarizer::Delegate {
  public:
    void showSheet(const std::string& message, const std::string& informative) override {
        KTConsoleUserInterface().runAlert({message, informative, {}});
    }
    int showSheetWithButtons(const std::string& message, const std::string& informative,
                             const std::vector<std::string>& buttons) override {
        showSheet(message, informative);
        return 0;
    }
    void setStatusText(const std::string& text) override {
        std::printf("%s\n", text.c_str());
        std::fflush(stdout);
    }
};

int refuse(const std::string& text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    KTLog::finishWriting();
    return 1;
}

/// The identifier of a built installer: from its own settings file when it
/// has one, else from the installer form's preferences.
std::string bundleIDFor(const std::string& bundle) {
    KTPreferences& prefs = KTPreferences::standard();
    std::string name = prefs.stringForKey(S::kName).value_or("");
    std::string version = prefs.stringForKey(S::kVersion).value_or("");
    std::string author = prefs.stringForKey(S::kAuthor).value_or("");
    if (KTPlistPtr settings = KTPlist::readFile(bundle + "/" + S::kSettingsFile)) {
        name = KTPlist::stringForKey(settings.get(), "KTPluginName").value_or(name);
        version = KTPlist::stringForKey(settings.get(), "KTPluginVersion").value_or(version);
        author = KTPlist::stringForKey(settings.get(), "KTPluginAuthor").value_or(author);
    }
    return S::bundleIDForApp(name, author, version);
}

}  // namespace

namespace KTNotarizeCommand {

int run(const std::vector<std::string>& args) {
    std::string path, certificate;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "-certificate") {
            if (i + 1 >= args.size()) return refuse("Missing value after -certificate\n" + usage());
            certificate = args[++i];
        } else if (path.empty()) {
            path = args[i];
        } else {
            return refuse("Only one PATH may be notarized at a time\n" + usage());
        }
    }
    if (path.empty()) return refuse(usage());
    std::error_code ec;
    path = fs::absolute(path, ec).lexically_normal().string();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (!KTOperationSupport::exists(path)) return refuse("No such file: " + path);
    if (certificate == S::kNotSet) certificate.clear();
    if (!certificate.empty()) certificate = S::currentCertificateName(certificate);

    S::registerDefaults(KTPreferences::standard());
    ConsoleDelegate delegate;
    KTNotarizer notarizer(delegate, [] { return false; });
    bool stapled = false;
    if (KTOperationSupport::isDirectory(path)) {
        if (!certificate.empty()) {
            if (auto failure = KTCodeSigner::signInstaller(path, certificate)) {
                delegate.showSheet("Unable to notarize", *failure);
                KTLog::finishWriting();
                return 1;
            }
        }
        std::string error;
        if (!KTNotarizer::credentials(&error)) {
            delegate.showSheet("Apple ID information not set", error);
            KTLog::finishWriting();
            return 1;
        }
        stapled = notarizer.notarizeInstallerBundle(path, bundleIDFor(path));
    } else {
        KTPreferences& prefs = KTPreferences::standard();
        KTNotarizer::DiskImageRequest request;
        request.path = path;
        request.bundleID = S::bundleIDForApp(prefs.stringForKey(S::kName).value_or(""),
                                             prefs.stringForKey(S::kAuthor).value_or(""),
                                             prefs.stringForKey(S::kVersion).value_or("")) +
                           ".dmg";
        KTLog::appendLog("DMG bundle ID: %@", request.bundleID);
        if (!certificate.empty()) request.certificate = certificate;
        stapled = notarizer.notarizeDiskImageWithSettings(request);
    }
    KTLog::finishWriting();
    return stapled ? 0 : 1;
}

std::string usage() {
    return "       ambrel -notarize PATH [-certificate NAME]\n"
           "                                       notarise and staple an installer or a disk\n"
           "                                       image with the stored account, signing it\n"
           "                                       first with NAME\n";
}

}  // namespace KTNotarizeCommand
