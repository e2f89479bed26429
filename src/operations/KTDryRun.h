#pragma once

#include <memory>
#include <string>
#include <vector>

#include "SharedFiles/KTTransferPlan.h"

/// "-dryrun" on the command line: the verbs that change plug-ins run as
/// usual, through the same operations, while the transfer only plans; the
/// plan is printed at the end and nothing on disk changes (the log aside).
class KTDryRun {
  public:
    /// True for a verb that moves, copies or trashes plug-ins.
    static bool isChangingVerb(const std::string& verb);
    /// Takes every "-dryrun" after a changing verb out of `args` and answers
    /// the plan that is then active for the rest of the process, or null
    /// when there was none (or the verb changes nothing).
    static std::unique_ptr<KTTransferPlan> begin(std::vector<std::string>& args);
    /// The plan as printed (and logged): one line per move, copy or skip,
    /// then a last line saying that nothing was changed.
    static std::string report(const KTTransferPlan& plan);
};
