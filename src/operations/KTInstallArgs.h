#pragma once

#include <string>
#include <vector>

#include "catalogue/KTItem.h"

/// `installPlugins(const KTInstallArgs&)`, the body of an install request on
/// its own thread: the paths and, when the window had a row selected, the
/// selected item (the installation then goes into that item's group). The
/// scope is taken when the request is made, so a later answer to another
/// scope question cannot change a running installation.
struct KTInstallArgs {
    std::vector<std::string> itemArray;
    KTItemPtr selectedObject;
    bool installForUser = false;
};

/// `reorderPluginsOnThread`, the body of a drop of rows in the outline: the
/// dragged items in selection order, the target (null for the top level)
/// and the `subdir` of each dragged group that was expanded.
struct KTReorderArgs {
    KTItemList objectArray;
    KTItemPtr droppedItem;
    std::vector<std::string> expandedSubdirs;
};
