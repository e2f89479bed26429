#include "app/window/KTOutlineContextMenu.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QItemSelectionModel>
#include <QMenu>
#include <QTreeView>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTWorkspace.h"
#include "app/window/KTOutlineModel.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginItem.h"

KTOutlineContextMenu::KTOutlineContextMenu(QTreeView& tree, KTOutlineModel& model,
                                           Commands commands, QObject* parent)
    : QObject(parent), tree_(tree), model_(model), commands_(commands) {
    menu_ = new QMenu(&tree_);
    menu_->setObjectName(QStringLiteral("outlineContextMenu"));
    menu_->setAccessibleName(QStringLiteral("Plugin commands"));
    showAction_ = new QAction(QStringLiteral("Show in File Manager"), this);
    connect(showAction_, &QAction::triggered, this, [this] { showInFileManager(); });
    copyAction_ = new QAction(QStringLiteral("Copy Path"), this);
    connect(copyAction_, &QAction::triggered, this, [this] { copyPath(); });

    menu_->addAction(commands_.enable);
    menu_->addAction(commands_.scope);
    menu_->addSeparator();
    menu_->addAction(showAction_);
    menu_->addAction(copyAction_);
    menu_->addSeparator();
    menu_->addAction(commands_.addGroup);
    menu_->addAction(commands_.rename);
    menu_->addSeparator();
    menu_->addAction(commands_.remove);

    tree_.setContextMenuPolicy(Qt::CustomContextMenu);
    connect(&tree_, &QWidget::customContextMenuRequested, this, [this](const QPoint& at) {
        if (QMenu* menu = menuAt(at)) menu->popup(tree_.viewport()->mapToGlobal(at));
    });
}

std::optional<std::string> KTOutlineContextMenu::pathOfItem(const KTItem& item) {
    if (item.isGroup()) {
        std::string folder = static_cast<const KTGroupItem&>(item).groupPath();
        while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
        if (folder.empty()) return std::nullopt;
        return folder;
    }
    std::string path = static_cast<const KTPluginItem&>(item).actualPath();
    if (path.empty()) return std::nullopt;
    return path;
}

QMenu* KTOutlineContextMenu::menuAt(const QPoint& position) {
    QModelIndex index = tree_.indexAt(position);
    target_ = model_.itemForIndex(index);
    QItemSelectionModel* selection = tree_.selectionModel();
    if (index.isValid() && !selection->isRowSelected(index.row(), index.parent())) {
        selection->select(index, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
        tree_.setCurrentIndex(index);
    } else if (index.isValid()) {
        tree_.setCurrentIndex(index);
    }
    if (!target_) {
        // Empty space: the commands act on the selection, if there is one.
        const QModelIndexList rows = selection->selectedRows(0);
        if (rows.isEmpty()) {
            // Only a group can be added where nothing is selected.
            if (!commands_.addGroup || !commands_.addGroup->isEnabled()) return nullptr;
        } else {
            target_ = model_.itemForIndex(rows.front());
        }
    }
    const bool hasPath = target_ && pathOfItem(*target_).has_value();
    showAction_->setEnabled(hasPath);
    copyAction_->setEnabled(hasPath);
    return menu_;
}

void KTOutlineContextMenu::showInFileManager() {
    if (!target_) return;
    auto path = pathOfItem(*target_);
    if (!path) return;
    KTLog::appendLog("Showing %@ in the file manager.", *path);
    if (!KTWorkspace::shared().selectFile(*path))
        KTLog::appendLog("Unable to show %@ in the file manager.", *path);
}

void KTOutlineContextMenu::copyPath() {
    if (!target_) return;
    if (auto path = pathOfItem(*target_))
        QApplication::clipboard()->setText(QString::fromStdString(*path));
}
