#pragma once

#include <unordered_map>

#include "app/window/KTOutlineModel.h"

class AppController;

/// The outline's marks for plug-ins found more than once.
class KTDuplicateMarks {
  public:
    /// The filter pop-up's value that shows only such plug-ins (it scans
    /// every folder, like "All Plugins").
    static constexpr int kFilterValue = 9;

    /// One mark per plug-in of a duplicate set, with the set and the reason
    /// in its tooltip. Reads the bundles on disk: call it off the main
    /// thread, with the tree lock held.
    static std::unordered_map<const KTItem*, KTOutlineModel::DuplicateMark> compute(
        AppController& app);
};
