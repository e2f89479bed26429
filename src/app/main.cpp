#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/linux/KTStandardStreams.h"
#include "app/core/KTCommandLine.h"

#ifdef AMBREL_HAVE_GUI
int runWindow(int argc, char** argv);
#endif

int main(int argc, char** argv) {
    // Before anything opens a file: a closed standard output would otherwise
    // become the log, and the log would receive the listing.
    if (!KTStandardStreams::openMissing()) return KTCommandLine::kControllerFailed;
    KTLog::installTerminateHandler();
    // The thread that starts the program is the main thread of both modes.
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    std::vector<std::string> args(argv + 1, argv + argc);
    if (KTCommandLine::isVerb(args)) return KTCommandLine::run(args);
#ifdef AMBREL_HAVE_GUI
    return runWindow(argc, argv);
#else
    std::fputs(KTCommandLine::usage().c_str(), stderr);
    return 2;
#endif
}
