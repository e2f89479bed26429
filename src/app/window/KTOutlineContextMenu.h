#pragma once

#include <QObject>
#include <QPoint>
#include <optional>
#include <string>

#include "catalogue/KTItem.h"

class KTOutlineModel;
class QAction;
class QMenu;
class QTreeView;

/// The menu of the outline's rows: the window's own commands for the
/// selection (enable or disable, scope, remove, add group, rename) and two of
/// its own, Show in File Manager and Copy Path, for the row it was opened on.
/// A right click on a row outside the selection selects that row alone first,
/// as file managers do, so the commands act on what the menu was opened on.
class KTOutlineContextMenu : public QObject {
    Q_OBJECT
  public:
    /// The window's commands, shown as they are (their labels follow the selection).
    struct Commands {
        QAction* enable = nullptr;
        QAction* scope = nullptr;
        QAction* remove = nullptr;
        QAction* addGroup = nullptr;
        QAction* rename = nullptr;
    };

    KTOutlineContextMenu(QTreeView& tree, KTOutlineModel& model, Commands commands,
                         QObject* parent = nullptr);

    /// Prepares the menu for a click at `position` (viewport coordinates):
    /// selects the row there when needed. Null on empty space below the rows
    /// when nothing is selected either.
    QMenu* menuAt(const QPoint& position);

    /// The file behind a row: a plug-in's path, a group's folder.
    static std::optional<std::string> pathOfItem(const KTItem& item);

    QAction* showInFileManagerAction() const { return showAction_; }
    QAction* copyPathAction() const { return copyAction_; }

  private:
    void showInFileManager();
    void copyPath();

    QTreeView& tree_;
    KTOutlineModel& model_;
    Commands commands_;
    QMenu* menu_ = nullptr;
    QAction* showAction_ = nullptr;
    QAction* copyAction_ = nullptr;
    /// The item the menu was opened on.
    KTItemPtr target_;
};
