#include "operations/KTDryRun.h"

#include <algorithm>

#include "SharedFiles/KTLog.h"

bool KTDryRun::isChangingVerb(const std::string& verb) {
    return verb == "-disable" || verb == "-enable" || verb == "-remove" || verb == "-setaccess" ||
           verb == "-install";
}

std::unique_ptr<KTTransferPlan> KTDryRun::begin(std::vector<std::string>& args) {
    if (args.empty() || !isChangingVerb(args[0])) return nullptr;
    const auto first = std::find(args.begin() + 1, args.end(), "-dryrun");
    if (first == args.end()) return nullptr;
    // Taken out before the verb reads its arguments, so "-disable -dryrun
    // Glow.fxplug" names the same plug-in as "-disable Glow.fxplug".
    args.erase(std::remove(args.begin() + 1, args.end(), "-dryrun"), args.end());
    // The log is the one file a dry run writes: it goes on at the end of the
    // current one instead of rotating the older logs along.
    KTLog::setAppendToCurrentLog(true);
    return std::make_unique<KTTransferPlan>();
}

std::string KTDryRun::report(const KTTransferPlan& plan) {
    // The log keeps the plan too: it is the one record a dry run leaves.
    const std::string text = plan.describe();
    KTLog::appendLog("Dry run, nothing was changed. The plan:\n%@", text);
    return text + "Dry run: nothing was changed.\n";
}
