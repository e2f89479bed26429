#include "app/core/KTCrashTestCommand.h"

#include <signal.h>

#include <atomic>
#include <cstdio>

#include "app/core/AppController.h"
#include "catalogue/OutlineViewController.h"
#include "diagnostics/KTCrashTestHost.h"
#include "diagnostics/KTCrashTester.h"

namespace {

std::atomic<std::atomic<bool>*> gCancelFlag{nullptr};

extern "C" void cancelOnSignal(int) {
    if (std::atomic<bool>* flag = gCancelFlag.load()) flag->store(true);
}

/// Routes SIGINT and SIGTERM to the test's cancel flag while it lives.
class SignalsCancel {
  public:
    explicit SignalsCancel(std::atomic<bool>& flag) {
        gCancelFlag = &flag;
        struct sigaction sa {};
        sa.sa_handler = cancelOnSignal;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, &oldInt_);
        sigaction(SIGTERM, &sa, &oldTerm_);
    }
    ~SignalsCancel() {
        sigaction(SIGINT, &oldInt_, nullptr);
        sigaction(SIGTERM, &oldTerm_, nullptr);
        gCancelFlag = nullptr;
    }
    SignalsCancel(const SignalsCancel&) = delete;
    SignalsCancel& operator=(const SignalsCancel&) = delete;

  private:
    struct sigaction oldInt_ {};
    struct sigaction oldTerm_ {};
};

}  // namespace

std::string KTCrashTestCommand::usage() {
    std::string text =
        "       ambrel -crashtest HOST [-halving]\n"
        "                                       find the plug-in that crashes HOST at start-up;\n"
        "                                       -halving disables half the suspects at a time.\n"
        "                                       Exit 0 culprit found, 1 crash not reproduced,\n"
        "                                       2 not caused by a plug-in, 3 aborted. HOST:\n";
    for (const KTCrashTestHost& host : KTCrashTestHost::all())
        text += "                                         " + std::to_string(host.index) + " \"" +
                host.name + "\"\n";
    return text;
}

int KTCrashTestCommand::run(AppController& app, const std::vector<std::string>& args) {
    bool halving = false;
    std::string hostWords;
    for (std::size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "-halving") {
            halving = true;
        } else {
            // An unquoted name arrives as several words.
            hostWords += (hostWords.empty() ? "" : " ") + args[i];
        }
    }
    const auto index = KTCrashTestHost::indexForArgument(hostWords);
    if (!index) {
        std::fputs(("ambrel: unknown host \"" + hostWords + "\"\nusage:\n" + usage()).c_str(),
                   stderr);
        return kAborted;
    }
    KTCrashTester& tester = app.crashTester();
    tester.setHostIndex(*index);
    tester.setHalving(halving);
    KTCrashTestOutcome outcome;
    {
        SignalsCancel signals(tester.cancelFlag());
        outcome = tester.runCrashTest();
    }
    // The reload after the test, and the bundle readings it started, end
    // before the process does.
    app.waitForReload();
    app.outlineViewController().waitForBundleInspection();
    switch (outcome) {
        case KTCrashTestOutcome::culpritFound:
            return kCulpritFound;
        case KTCrashTestOutcome::notReproduced:
            return kNotReproduced;
        case KTCrashTestOutcome::notCausedByPlugin:
            return kNotCausedByPlugin;
        default:
            return kAborted;
    }
}
