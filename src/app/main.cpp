#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/linux/KTModuleLoader.h"
#include "SharedFiles/linux/KTStandardStreams.h"
#include "app/core/KTCommandLine.h"

namespace {
/// Qt aborts with a message about its platform plug-in when there is nothing
/// to show a window on; a person who typed the program's name in a text
/// console is better served by one line and the verbs.
bool hasDisplay() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) {
        const char* value = std::getenv(name);
        if (value && *value) return true;
    }
    return false;
}
}  // namespace

int main(int argc, char** argv) {
    // Before anything opens a file: a closed standard output would otherwise
    // become the log, and the log would receive the listing.
    if (!KTStandardStreams::openMissing()) return KTCommandLine::kControllerFailed;
    KTLog::installTerminateHandler();
    // The thread that starts the program is the main thread of both modes.
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
        std::fputs(KTCommandLine::usage().c_str(), stdout);
        return 0;
    }
    if (!args.empty() && args[0] == "--version") {
        std::fputs(KTCommandLine::versionText().c_str(), stdout);
        return 0;
    }
    if (KTCommandLine::isVerb(args)) return KTCommandLine::run(args);
#ifdef AMBREL_HAVE_GUI
    if (!hasDisplay()) {
        std::fputs(
            "ambrel: no display to open the window on; use a verb such as "
            "\"ambrel -allplugins\" (see \"ambrel --help\")\n",
            stderr);
        return 1;
    }
    // Qt is loaded with the window, never for a verb.
    std::string error;
    auto runWindow = reinterpret_cast<int (*)(int, char**)>(
        KTModuleLoader::entry("ambrel-window.so", "ambrel_run_window", &error));
    if (!runWindow) {
        KTLog::appendLog("Unable to load the window: %@", error);
        std::fprintf(stderr, "ambrel: unable to load the window: %s\n", error.c_str());
        return 1;
    }
    return runWindow(argc, argv);
#else
    std::fputs(KTCommandLine::usage().c_str(), stderr);
    return 2;
#endif
}
