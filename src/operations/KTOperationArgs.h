#pragma once

#include <cstdint>
#include <memory>

#include "catalogue/KTItem.h"

class KTGroupItem;

/// The named arguments of the batch bodies that run on their own threads
/// (the "OnThread" operations), one struct per body.

/// `toggleEnableDisableOnThread` and `toggleUserAccessOnThread`: the
/// selected items in row order and the new state (0 or 1).
struct KTToggleArgs {
    KTItemList objectArray;
    long long newValue = 0;
};

/// `setEnabledForGroupOnThread`.
struct KTGroupEnabledArgs {
    long long groupEnabled = 0;
    std::shared_ptr<KTGroupItem> group;
    bool showProgress = false;
};

/// `setAccessOnThread`.
struct KTSetAccessArgs {
    std::int64_t accessMode = 0;
    KTItemPtr item;
    bool showProgress = false;
};
