#include "app/core/KTCommandLine.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "SharedFiles/KTLog.h"
#include "app/core/AppController.h"
#include "app/core/KTCrashTestCommand.h"
#include "catalogue/KTCatalogueExport.h"
#include "catalogue/KTDuplicateFinder.h"
#include "catalogue/KTItemArchive.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"
#include "diagnostics/KTDiagnosticsVerbs.h"
#include "installer/KTInstallerCommands.h"
#include "installer/KTNotarizeCommand.h"
#include "operations/KTDryRun.h"
#include "SharedFiles/KTMoveBatch.h"

namespace {
const char* const kVerbs[] = {"-install",    "-enable",          "-disable",    "-remove",
                              "-setaccess", "-allplugins",      "-duplicates", "-createinstaller",
                              "-setappleid", "-crashtest",      "-notarize",   "-auval",
                              "-gatherlogs"};

void writeAll(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(STDOUT_FILENO, bytes.data() + done, bytes.size() - done);
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}
}  // namespace

bool KTCommandLine::isVerb(const std::vector<std::string>& args) {
    if (args.empty()) return false;
    for (const char* v : kVerbs) {
        if (args[0] == v) return true;
    }
    return false;
}

std::string KTCommandLine::versionText() { return std::string("ambrel ") + AMBREL_VERSION + "\n"; }

std::string KTCommandLine::usage() {
    return "usage: ambrel                          open the window\n"
           "       ambrel --help | --version       this text, or the version\n"
           "       ambrel -allplugins [-data|-plist|-json|-csv]\n"
           "                                       list every plug-in path, enabled first;\n"
           "                                       -data writes the catalogue as a keyed archive,\n"
           "                                       -json and -csv every plug-in with its details\n"
           "       ambrel -duplicates              plug-ins found more than once, grouped, with\n"
           "                                       the copy hosts load and why\n"
           "       ambrel -enable [name]           enable the plug-ins named name (a file name,\n"
           "                                       or any path ending in it); without a name,\n"
           "                                       every disabled plug-in\n"
           "       ambrel -disable [name]          disable them; without a name, every plug-in\n"
           "       ambrel -remove [name]           move them to the Trash; WITHOUT A NAME EVERY\n"
           "                                       PLUG-IN IS MOVED TO THE TRASH\n"
           "       ambrel -install [-all] path     install a plug-in file or folder for the current\n"
           "                                       user, or with -all for all users\n"
           "       ambrel -setaccess scope [name]  move them to the folders of a scope: 0 all\n"
           "                                       users, 1 current user; without a name, every\n"
           "                                       plug-in\n"
           "       ambrel -auval                   validate every Audio Unit: title, manufacturer\n"
           "                                       and status per line; exit 0 all OK, 1 not, 2 none\n"
           "       ambrel -gatherlogs              zip the logs, crash reports and preferences\n"
           "                                       onto the desktop\n"
           "       -dryrun after -enable, -disable, -remove, -setaccess or -install:\n"
           "                                       print what would move where, change nothing\n" +
           KTInstallerCommands::usage() + KTCrashTestCommand::usage() +
           KTNotarizeCommand::usage();
}

int KTCommandLine::run(const std::vector<std::string>& arguments) {
    std::vector<std::string> args = arguments;
    const std::unique_ptr<KTTransferPlan> plan = KTDryRun::begin(args);
    std::unique_ptr<AppController> app;
    try {
        app = AppController::initWithoutGUI();
    } catch (...) {
        // initWithoutGUI reports what it catches; this is what escaped it.
        KTLog::systemConsole("Unable to start the controller");
    }
    if (!app) return kControllerFailed;
    // The keychain needs no catalogue.
    if (args[0] == "-setappleid") return KTInstallerCommands::setAppleID(args);
    if (args[0] == "-notarize") return KTNotarizeCommand::run(args);
    // The diagnostic verbs need no catalogue.
    if (args[0] == "-auval") return KTDiagnosticsVerbs::auval(*app);
    if (args[0] == "-gatherlogs") return KTDiagnosticsVerbs::gatherLogs(*app);
    const std::string& verb = args.at(0);
    // The verbs that move plug-ins name them in the log and need no more of
    // a bundle than its name; versions and architectures are for listings.
    if (verb == "-enable" || verb == "-disable" || verb == "-remove" || verb == "-setaccess" ||
        verb == "-install")
        app->outlineViewController().setBundleDetail(KTBundleInfo::Detail::NamesAndVersion);
    app->loadPluginData();
    app->outlineViewController().waitForBundleInspection();

    int status = 0;
    if (verb == "-allplugins") status = allPlugins(*app, args);
    if (verb == "-enable" || verb == "-disable" || verb == "-remove") status = pluginVerb(*app, args);
    if (verb == "-setaccess") status = setAccess(*app, args);
    if (verb == "-install") status = install(*app, args);
    if (verb == "-createinstaller") status = KTInstallerCommands::createInstaller(*app, args);
    if (verb == "-crashtest") status = KTCrashTestCommand::run(*app, args);
    if (verb == "-duplicates") status = duplicates(*app);
    if (plan) writeAll(KTDryRun::report(*plan));
    // Everything the verb logged is on disk before the process ends.
    KTLog::finishWriting();
    return status;
}

int KTCommandLine::allPlugins(AppController& app, const std::vector<std::string>& args) {
    const std::string mode = args.size() > 1 ? args[1] : "";
    if (mode == "-plist") return 0;  // loads the catalogue and writes nothing
    if (mode == "-json" || mode == "-csv") {
        auto entries = KTCatalogueEntry::collect(app);
        KTDuplicateFinder::find(entries);  // marks the shadowed copies
        writeAll(KTCatalogueExport::text(entries, mode == "-json"
                                                      ? KTCatalogueExport::Format::JSON
                                                      : KTCatalogueExport::Format::CSV));
        return 0;
    }
    if (mode == "-data") {
        writeAll(KTItemArchive::archivedDataWithRootObject(app.outlineViewController().dataArray()));
        std::fflush(stdout);
        ::close(STDOUT_FILENO);
        return 0;
    }
    std::string out;
    for (const auto& path : app.listPlugins(true, false)) out += path + "\n";
    writeAll(out);
    return 0;
}

namespace {
/// The last component of a name or path, as the verbs compare names.
std::string lastComponent(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}
}  // namespace

int KTCommandLine::pluginVerb(AppController& app, const std::vector<std::string>& args) {
    const std::string& verb = args[0];
    const std::optional<std::string> name =
        args.size() > 1 ? std::optional<std::string>(lastComponent(args[1])) : std::nullopt;
    OutlineViewController& outline = app.outlineViewController();
    // The folders cannot change under the loop; look them up once. The
    // catalogue just listed the disk: its paths are walked, not listed again.
    KTPluginLocations::FolderCache folders;
    KTMoveBatch batch;
    for (const auto& path : outline.loadedPaths()) {
        auto item = outline.pluginFromPath(path);
        if (!item) continue;
        if (name && *name != item->fileName()) continue;
        if (verb == "-remove") {
            outline.removePlugin(item);
        } else {
            outline.moveFilter(item, verb == "-enable" ? 1 : 0);
        }
    }
    return 0;
}

int KTCommandLine::setAccess(AppController& app, const std::vector<std::string>& args) {
    if (args.size() < 2) {
        KTLog::systemConsole("Invalid argument count");
        return 1;
    }
    // Read as the platform reads an integer: leading digits, anything else 0;
    // any scope but 0 is the current user.
    const std::int64_t scope = std::strtoll(args[1].c_str(), nullptr, 10) != 0 ? 1 : 0;
    const std::optional<std::string> name =
        args.size() > 2 ? std::optional<std::string>(lastComponent(args[2])) : std::nullopt;
    OutlineViewController& outline = app.outlineViewController();
    KTPluginLocations::FolderCache folders;
    KTMoveBatch batch;
    for (const auto& path : outline.loadedPaths()) {
        if (name && *name != lastComponent(path)) continue;
        if (auto item = outline.pluginFromPath(path)) outline.setAccess(scope, item, false, false);
    }
    return 0;
}

int KTCommandLine::duplicates(AppController& app) {
    auto entries = KTCatalogueEntry::collect(app);
    writeAll(KTDuplicateFinder::describe(entries, KTDuplicateFinder::find(entries)));
    return 0;
}

int KTCommandLine::install(AppController& app, const std::vector<std::string>& args) {
    if (args.size() < 2) return 0;
    // Two extra words: the path is the last and only "-all" changes the
    // scope; the other word is not looked at. More words: the first is the path.
    const std::string& path = args.size() == 3 ? args[2] : args[1];
    const bool forUser = !(args.size() == 3 && args[1] == "-all");
    app.installPlugins(std::vector<std::string>{path}, nullptr, forUser, false);
    app.waitForReload();
    return 0;
}
