#include "operations/KTFileMover.h"

#include "SharedFiles/KTTransferPlan.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "SharedFiles/KTTimeScale.h"

namespace {
std::atomic<double> gPause{1.0};
}  // namespace

double KTFileMover::privilegedPauseSeconds() {
    return gPause;
}
void KTFileMover::setPrivilegedPauseSecondsForTesting(double seconds) {
    gPause = seconds;
}
void KTFileMover::pauseAfterPrivilegedStep() {
    if (KTTransferPlan::active()) return;  // no tool ran
    std::this_thread::sleep_for(KTTimeScale::scaled(std::chrono::duration<double>(gPause.load())));
}
