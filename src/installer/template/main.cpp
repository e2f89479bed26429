// The template installer: copied with its plug-ins into every installer that
// Ambrel builds, and run from inside that bundle.
#include <QApplication>
#include <QTimer>
#include <cstdio>
#include <memory>
#include <string>

#include "SharedFiles/KTAppBundle.h"
#include "SharedFiles/KTAuthorization.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "installer/KTInstallerRunner.h"
#include "installer/template/KTInstallerAppWindow.h"

namespace {

/// No window and no questions: the licence counts as accepted. 0 only when
/// every plug-in is in place and the scripts succeeded.
int runUnattended(KTInstallerRunner& runner) {
    KTAuthorization::sharedController(false);
    const auto& s = runner.settings();
    std::printf("Installing %s %s by %s\n", s.name.c_str(), s.version.c_str(), s.author.c_str());
    auto report =
        runner.install([](const std::string& line) { std::printf("%s\n", line.c_str()); });
    for (const auto& path : report.installed) std::printf("Installed %s\n", path.c_str());
    for (const auto& m : report.messages) std::fprintf(stderr, "%s\n", m.c_str());
    std::fflush(stdout);
    KTLog::finishWriting();
    return report.succeeded() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    KTMainThread::setShared(std::make_shared<KTInlineMainThread>());
    bool unattended = false;
    for (int i = 1; i < argc; ++i) unattended = unattended || std::string(argv[i]) == "-unattended";
    KTLog::createNewLog(std::string("Ambrel Installer"), unattended);

    const std::string bundle = KTAppBundle::enclosingBundle();
    if (bundle.empty()) {
        std::fprintf(stderr,
                     "This installer runs from inside its bundle (NAME.app/Contents/MacOS).\n");
        return 1;
    }
    KTInstallerRunner runner(bundle);
    std::string error;
    if (!runner.loadSettings(&error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    if (unattended) return runUnattended(runner);

    QApplication app(argc, argv);
    KTInstallerAppWindow window(runner);
    window.show();
    // AMBREL_SCREENSHOT=file.png: a picture of the window, then quit (README, checks).
    if (const QString shot = qEnvironmentVariable("AMBREL_SCREENSHOT"); !shot.isEmpty()) {
        QTimer::singleShot(500, &window, [&window, shot] {
            window.grab().save(shot);
            window.close();
        });
    }
    return app.exec();
}
