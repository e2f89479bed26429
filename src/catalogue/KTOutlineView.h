#pragma once

#include "catalogue/KTItem.h"

/// The outline the window shows the catalogue in, as the operations see it:
/// rows to redraw after a move, counts to refresh, buttons to re-configure.
/// Called on the main thread (through KTMainThread). Without a window there
/// is none and the operations skip these calls.
class KTOutlineView {
public:
    virtual ~KTOutlineView() = default;
    /// The whole outline from `dataArray` (after a reload or a sort).
    virtual void reloadOutline() = 0;
    virtual void reloadItem(const KTItemPtr& item) = 0;
    virtual void reloadItemAndChildren(const KTItemPtr& item) = 0;
    virtual void reloadParentOfItem(const KTItemPtr& item) = 0;
    /// The count line ("%i plugin%@, %i enabled").
    virtual void refreshPluginStats() = 0;
    /// The toolbar buttons' labels and states follow the selection.
    virtual void enableAndConfigureButtons() = 0;
};
