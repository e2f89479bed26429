#include "app/core/KTCommandLine.h"

#include <unistd.h>

#include <cstdio>

#include "SharedFiles/KTLog.h"
#include "app/core/AppController.h"
#include "catalogue/KTItemArchive.h"
#include "catalogue/OutlineViewController.h"

namespace {
const char* const kVerbs[] = {"-install", "-enable", "-disable", "-remove", "-setaccess",
                              "-allplugins"};

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

std::string KTCommandLine::usage() {
    return "usage: ambrel                          open the window\n"
           "       ambrel -allplugins [-data|-plist]\n"
           "                                       list every plug-in path, enabled first;\n"
           "                                       -data writes the catalogue as a keyed archive\n";
}

int KTCommandLine::run(const std::vector<std::string>& args) {
    std::unique_ptr<AppController> app = AppController::initWithoutGUI();
    if (!app) return kControllerFailed;
    app->loadPluginData();
    app->outlineViewController().waitForBundleInspection();

    const std::string& verb = args.at(0);
    if (verb == "-allplugins") return allPlugins(*app, args);
    return 0;
}

int KTCommandLine::allPlugins(AppController& app, const std::vector<std::string>& args) {
    const std::string mode = args.size() > 1 ? args[1] : "";
    if (mode == "-plist") return 0;  // loads the catalogue and writes nothing
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
