#include "installer/KTInstallerCommands.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <map>
#include <set>

#include "SharedFiles/KTKeychain.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPreferences.h"
#include "SharedFiles/KTUserInterface.h"
#include "app/core/AppController.h"
#include "installer/KTInstallerBuilder.h"
#include "installer/KTInstallerSettings.h"
#include "operations/KTOperationSupport.h"

namespace fs = std::filesystem;

namespace {

/// Without a window the sheets' two sentences go to standard output.
class ConsoleDelegate : public KTInstallerBuilder::Delegate {
  public:
    void showSheet(const std::string& message, const std::string& informative) override {
        KTConsoleUserInterface().runAlert({message, informative, {}});
    }
    void setStatusText(const std::string& text) override {
        std::printf("%s\n", text.c_str());
        std::fflush(stdout);
    }
};

std::string absolute(const std::string& path) {
    std::error_code ec;
    std::string out = fs::absolute(path, ec).lexically_normal().string();
    if (ec) out = path;
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    return out;
}

int refuse(const std::string& text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    return 1;
}

}  // namespace

namespace KTInstallerCommands {

std::vector<std::string> pluginsForArguments(const std::vector<std::string>& words,
                                             const std::vector<std::string>& listed) {
    std::vector<std::string> out;
    std::set<std::string> seen;
    auto add = [&](const std::string& path) {
        if (seen.insert(path).second) out.push_back(path);
    };
    for (const auto& word : words) {
        const std::string full = absolute(word);
        bool exact = false;
        for (const auto& p : listed) exact = exact || p == full;
        if (exact) {
            add(full);
            continue;
        }
        std::size_t before = out.size();
        if (KTOperationSupport::isDirectory(full)) {
            for (const auto& p : listed)
                if (KTOperationSupport::startsWith(p, full + "/")) add(p);
        }
        if (out.size() != before) continue;
        const std::string name = KTOperationSupport::lastComponent(full);
        bool any = false;
        for (const auto& p : listed) {
            if (KTOperationSupport::lastComponent(p) != name) continue;
            add(p);
            any = true;
        }
        if (!any) KTLog::appendLogAndPrint("No plugin matches %@", word);
    }
    return out;
}

int createInstaller(AppController& app, const std::vector<std::string>& args) {
    KTPreferences& preferences = KTPreferences::standard();
    KTInstallerSettings::registerDefaults(preferences);
    KTInstallerRequest request = KTInstallerSettings::requestFromPreferences(preferences);
    std::map<std::string, std::optional<std::string>*> paths = {
        {"-icon", &request.installerIconPath},
        {"-eula", &request.installerEULAPath},
        {"-background", &request.installerBgImagePath},
        {"-preinstall", &request.installerPreInstallScript},
        {"-postinstall", &request.installerPostInstallScript}};
    std::map<std::string, std::string*> texts = {{"-name", &request.installerName},
                                                 {"-version", &request.installerVersion},
                                                 {"-author", &request.installerAuthor}};
    std::string out, certificate;
    std::vector<std::string> words;
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        const bool hasValue = i + 1 < args.size();
        if (a == "-removebranding") {
            request.removeBranding = true;
        } else if (a == "-o" || a == "-certificate" || texts.count(a) || paths.count(a)) {
            if (!hasValue) return refuse("Missing value after " + a + "\n" + usage());
            const std::string& v = args[++i];
            if (a == "-o")
                out = v;
            else if (a == "-certificate")
                certificate = v;
            else if (texts.count(a))
                *texts[a] = v;
            else
                *paths[a] = v.empty() ? std::nullopt : std::optional<std::string>(absolute(v));
        } else {
            words.push_back(a);
        }
    }
    if (out.empty()) return refuse("Missing -o OUT\n" + usage());
    if (request.installerName.empty()) return refuse("Plugin name cannot be blank");
    if (request.installerVersion.empty()) return refuse("Plugin version cannot be blank");
    if (request.installerAuthor.empty()) return refuse("Plugin author cannot be blank");
    if (request.installerPreInstallScript &&
        !KTOperationSupport::exists(*request.installerPreInstallScript))
        return refuse("Pre-install script path doesn't exist");
    if (request.installerPostInstallScript &&
        !KTOperationSupport::exists(*request.installerPostInstallScript))
        return refuse("Post-install script path doesn't exist");
    if (!certificate.empty() && certificate != KTInstallerSettings::kNotSet)
        request.certificate = KTInstallerSettings::currentCertificateName(certificate);

    request.destFilename = KTInstallerSettings::destinationWithExtension(absolute(out));
    request.files = pluginsForArguments(words, app.listPlugins(true));
    ConsoleDelegate delegate;
    if (request.files.empty()) {
        delegate.showSheet("Unable to create installer",
                           "No files to add. Make sure you didn't select an empty group.");
        return 1;
    }
    KTInstallerBuilder builder(delegate);
    return builder.createInstallerWithSettings(request) == KTInstallerBuilder::Outcome::Created ? 0
                                                                                                : 1;
}

int setAppleID(const std::vector<std::string>& args) {
    if (args.size() < 2) return refuse(usage());
    // The password never appears on the command line, where others could read it.
    std::string password;
    std::getline(std::cin, password);
    if (!password.empty() && password.back() == '\r') password.pop_back();
    const bool ok = KTKeychain::setAppleIDInfo(args[1], password);
    if (!ok) KTLog::appendLog("Unable to store the Apple ID in the keychain");
    KTLog::finishWriting();
    return ok ? 0 : 1;
}

std::string usage() {
    return "       ambrel -createinstaller -o OUT [-name N] [-version V] [-author A] [-icon F]\n"
           "              [-eula F] [-background F] [-preinstall F] [-postinstall F]\n"
           "              [-certificate NAME] [-removebranding] PLUGIN...\n"
           "                                       build an installer of the plug-ins named\n"
           "                                       (file names, or group folders)\n"
           "       ambrel -setappleid APPLEID      store the notarisation account; the\n"
           "                                       app-specific password is read from stdin\n";
}

}  // namespace KTInstallerCommands
