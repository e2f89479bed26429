#include "app/window/KTMainWindow.h"

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QEventLoop>
#include <QFileDialog>
#include <QFileSystemModel>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPrintDialog>
#include <QPrinter>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QStatusBar>
#include <QStyle>
#include <QTextDocument>
#include <QTimer>
#include <QToolBar>
#include <QTreeView>
#include <QVBoxLayout>
#include <algorithm>
#include <functional>
#include <thread>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMainThread.h"
#include "SharedFiles/KTPreferences.h"
#include "app/core/AppController.h"
#include "app/window/KTCrashTestDialog.h"
#include "app/window/KTDiskImageNotarizer.h"
#include "app/window/KTDuplicateMarks.h"
#include "app/window/KTExportPanel.h"
#include "app/window/KTInstallerWindow.h"
#include "app/window/KTDiagnosticsMenu.h"
#include "app/window/KTOutlineModel.h"
#include "app/window/KTPreferencesWindow.h"
#include "app/window/KTOutlineCheckDelegate.h"
#include "app/window/KTOutlineContextMenu.h"
#include "app/window/KTOutlineSearch.h"
#include "app/window/KTPrintRenderer.h"
#include "app/window/KTQtUserInterface.h"
#include "app/window/KTTreeLockGuard.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/OutlineViewController.h"
#include "installer/KTPluginListExport.h"
#include "operations/KTInstallArgs.h"

namespace {

QString qs(const std::string& s) {
    return QString::fromStdString(s);
}

/// The operations call the outline from their own threads too: the view is
/// only ever touched on the main thread.
void onMain(const std::function<void()>& work) {
    KTMainThread::shared().runAndWait(work);
}

/// The filter pop-up: its labels and the filter numbers they store.
struct FilterEntry {
    const char* label;
    int value;
};
const FilterEntry kFilters[] = {
    {"All Plugins", 0}, {"Final Cut Pro", 1}, {"Motion", 2},        {"Avid", 3},
    {"Adobe & VST", 4}, {"OpenFX", 5},        {"Video Plugins", 7}, {"Audio Plugins", 8},
    {"Duplicates", KTDuplicateMarks::kFilterValue},
};

bool anyLabel(const std::vector<std::string>& labels,
              const std::function<bool(const std::string&)>& test) {
    return std::any_of(labels.begin(), labels.end(), test);
}
bool startsWith(const std::string& s, const std::string& p) {
    return s.rfind(p, 0) == 0;
}
bool endsWith(const std::string& s, const std::string& e) {
    return s.size() >= e.size() && s.compare(s.size() - e.size(), e.size(), e) == 0;
}

/// How the selection memory names an item.
std::string selectionPath(const KTItem& item) {
    if (item.isGroup()) {
        const auto& group = static_cast<const KTGroupItem&>(item);
        return "group:" + group.subdir().value_or(group.title());
    }
    return "plugin:" + static_cast<const KTPluginItem&>(item).actualPath();
}

}  // namespace

KTMainWindow::KTMainWindow(AppController& app, QWidget* parent)
    : QMainWindow(parent), app_(app), controller_(app.outlineViewController()) {
    setWindowTitle(QStringLiteral("Ambrel"));
    ui_ = std::make_shared<KTQtUserInterface>(this);
    ui_->onBusyChanged = [this](bool busy) { setBusy(busy); };
    ui_->onReloadStarted = [this] { catalogueReloadStarted(); };
    ui_->onReloadFinished = [this] { catalogueReloadFinished(); };
    ui_->onCancel = [this] { app_.cancelProgress(); };

    model_ = new KTOutlineModel(controller_, this);
    tree_ = new QTreeView(this);
    tree_->setModel(model_);
    tree_->setUniformRowHeights(true);
    tree_->setAlternatingRowColors(true);
    tree_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    tree_->setSelectionBehavior(QAbstractItemView::SelectRows);
    tree_->setDragDropMode(QAbstractItemView::DragDrop);
    tree_->setDefaultDropAction(Qt::MoveAction);
    tree_->setDropIndicatorShown(true);
    tree_->setEditTriggers(QAbstractItemView::EditKeyPressed);
    tree_->setSortingEnabled(false);
    tree_->setIconSize(QSize(16, 16));
    QHeaderView* header = tree_->header();
    header->setSectionsClickable(true);
    header->setSortIndicatorShown(true);
    header->setStretchLastSection(false);
    header->setSectionResizeMode(KTOutlineModel::colName, QHeaderView::Stretch);
    header->resizeSection(KTOutlineModel::colStatus, 70);
    header->resizeSection(KTOutlineModel::colVersion, 90);
    header->resizeSection(KTOutlineModel::colType, 185);
    header->resizeSection(KTOutlineModel::colUser, 140);
    connect(header, &QHeaderView::sectionClicked, this, [this](int c) { columnHeaderClicked(c); });
    connect(tree_, &QTreeView::expanded, this,
            [this](const QModelIndex& i) { groupExpanded(i, true); });
    connect(tree_, &QTreeView::collapsed, this,
            [this](const QModelIndex& i) { groupExpanded(i, false); });
    connect(tree_->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this] { enableAndConfigureButtons(); });
    setCentralWidget(tree_);
    tree_->setAccessibleName(QStringLiteral("Plugins"));
    tree_->setAccessibleDescription(
        QStringLiteral("Plugins and groups, with their enabled state, version, type and scope"));
    tree_->setItemDelegate(new KTOutlineCheckDelegate(tree_));

    model_->isExpanded = [this](const KTItemPtr& item) {
        return tree_->isExpanded(model_->indexForItem(item.get()));
    };
    model_->checkHandler = [this](const KTItemPtr& item, int column, int value) {
        checkBoxClicked(item, column, value);
    };
    model_->statusEditable = true;
    model_->scopeEditable = true;
    model_->fileDropHandler = [this](const std::vector<std::string>& paths,
                                     const KTItemPtr& target) {
        // The installation goes into the group of the row under the drop.
        QModelIndex row = model_->indexForItem(target.get());
        if (row.isValid())
            tree_->selectionModel()->select(
                row, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
        else
            tree_->clearSelection();
        // After the drop has ended: the scope question is a window-modal dialog.
        QTimer::singleShot(0, this, [this, paths] { installFiles(paths); });
    };
    model_->rowDropHandler = [this](const KTItemList& items, const KTItemPtr& target,
                                    const std::vector<std::string>& expanded) {
        app_.setProcessingCancelled(false);
        KTReorderArgs args{items, target, expanded};
        app_.batchThreads().start([this, args] { controller_.reorderPluginsOnThread(args); });
    };
    model_->renameHandler = [this](const KTItemPtr& item, const std::string& typed) {
        auto name = OutlineViewController::validateFilename(typed);
        if (!name || !item || !item->isGroup()) return;
        auto group = std::static_pointer_cast<KTGroupItem>(item);
        app_.batchThreads().start([this, group, name] {
            controller_.renameGroup(group, *name);
            reloadOutline();
        });
    };
    app_.setSelectedItemProvider([this] {
        KTItemPtr first;
        onMain([&] {
            const KTItemList items = selectedItems();
            if (!items.empty()) first = items.front();
        });
        return first;
    });

    count_ = new QLabel(this);
    spinner_ = new QProgressBar(this);
    spinner_->setRange(0, 0);
    spinner_->setMaximumSize(80, 12);
    spinner_->setTextVisible(false);
    spinner_->hide();
    statusBar()->addWidget(count_, 1);
    statusBar()->addPermanentWidget(spinner_);
    statusBar()->setSizeGripEnabled(false);

    buildActions();
    buildMenus();
    buildToolbar();
    resize(1000, 640);
    count_->setAccessibleName(QStringLiteral("Plugin count"));
    spinner_->setAccessibleName(QStringLiteral("Working"));

    searchFilter_ = new KTOutlineSearch(controller_, *model_, *tree_, this);
    searchFilter_->isReloading = [this] { return reloading_; };
    searchFilter_->restoreUserExpansion = [this] { loadExpandedItems(); };
    searchFilter_->applied = [this] { searchApplied(); };
    contextMenu_ = new KTOutlineContextMenu(
        *tree_, *model_,
        {enableAction_, scopeAction_, removeAction_, addGroupAction_, renameAction_}, this);

    app_.setUserInterface(ui_);
    controller_.setOutlineView(this);
    enableAndConfigureButtons();
}

KTMainWindow::~KTMainWindow() {
    controller_.setOutlineView(nullptr);
    app_.setSelectedItemProvider(nullptr);
    ui_->onBusyChanged = nullptr;
    ui_->onReloadStarted = nullptr;
    ui_->onReloadFinished = nullptr;
    ui_->onCancel = nullptr;
}

void KTMainWindow::buildActions() {
    QStyle* style = QApplication::style();
    enableAction_ = new QAction(QStringLiteral("Disable"), this);
    enableAction_->setToolTip(QStringLiteral("Enable or disable the selected plugins"));
    enableAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
    connect(enableAction_, &QAction::triggered, this, [this] { toggleEnabled(); });

    scopeAction_ = new QAction(QStringLiteral("Current User"), this);
    scopeAction_->setToolTip(
        QStringLiteral("Move the selected plugins between the current user and all users"));
    connect(scopeAction_, &QAction::triggered, this, [this] { toggleScope(); });

    removeAction_ =
        new QAction(style->standardIcon(QStyle::SP_TrashIcon), QStringLiteral("Remove"), this);
    removeAction_->setToolTip(QStringLiteral("Move the selected plugins to the Trash"));
    removeAction_->setShortcut(QKeySequence::Delete);
    connect(removeAction_, &QAction::triggered, this, [this] { removeSelection(); });

    deleteDisabledAction_ = new QAction(QStringLiteral("Delete All Disabled Plugins..."), this);
    connect(deleteDisabledAction_, &QAction::triggered, this, [this] { deleteAllDisabled(); });

    // Groups and installing come with their operations; shown, not yet usable.
    addGroupAction_ = new QAction(style->standardIcon(QStyle::SP_FileDialogNewFolder),
                                  QStringLiteral("Add Group"), this);
    connect(addGroupAction_, &QAction::triggered, this, [this] { addGroup(); });
    renameAction_ = new QAction(QStringLiteral("Rename Group"), this);
    connect(renameAction_, &QAction::triggered, this, [this] {
        QModelIndex current = tree_->currentIndex();
        if (current.isValid()) tree_->edit(current.siblingAtColumn(KTOutlineModel::colName));
    });
    installAction_ = new QAction(style->standardIcon(QStyle::SP_DialogOpenButton),
                                 QStringLiteral("Install..."), this);
    installAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_I));
    connect(installAction_, &QAction::triggered, this, [this] { chooseFilesToInstall(); });

    printAction_ = new QAction(QStringLiteral("Print..."), this);
    printAction_->setShortcut(QKeySequence::Print);
    connect(printAction_, &QAction::triggered, this, [this] { printPluginList(); });

    adminAction_ = new QAction(QStringLiteral("Require Administrator Password"), this);
    adminAction_->setCheckable(true);
    adminAction_->setChecked(KTPreferences::requireAdminPassword());
    connect(adminAction_, &QAction::toggled, this,
            [this](bool on) { toggleRequireAdminPassword(on); });

    const std::pair<const char*, ArchitectureSelection> archs[] = {
        {"Select 32-bit Only Plugins", ArchitectureSelection::only32Bit},
        {"Select 64-bit Only Plugins", ArchitectureSelection::only64Bit},
        {"Select PowerPC Only Plugins", ArchitectureSelection::onlyPPC},
        {"Select Intel Only Plugins", ArchitectureSelection::onlyIntel},
    };
    for (const auto& [label, which] : archs) {
        auto* action = new QAction(QString::fromLatin1(label), this);
        connect(action, &QAction::triggered, this,
                [this, which = which] { selectPluginsForArchitecture(which); });
        architectureActions_.push_back(action);
    }
}

void KTMainWindow::buildMenus() {
    QMenu* file = menuBar()->addMenu(QStringLiteral("&File"));
    file->addAction(installAction_);
    file->addAction(QStringLiteral("Create Ambrel Installer..."), this,
                    [this] { KTInstallerWindow::showInstallerWindow(this, selectedItems()); });
    file->addAction(QStringLiteral("Notarize Disk Image..."), this,
                    [this] { KTDiskImageNotarizer::notarizeDiskImage(this); });
    file->addAction(QStringLiteral("Export..."), this, [this] { KTExportPanel::run(this, app_); });
    file->addSeparator();
    file->addAction(printAction_);
    file->addSeparator();
    QAction* prefs = file->addAction(QStringLiteral("Preferences..."), this, [this] {
        KTPreferencesWindow::showShared(adminAction_, this);
    });
    prefs->setShortcut(QKeySequence::Preferences);
    prefs->setMenuRole(QAction::PreferencesRole);
    QAction* quit = file->addAction(QStringLiteral("Quit"), this, [this] { close(); });
    quit->setShortcut(QKeySequence::Quit);

    QMenu* edit = menuBar()->addMenu(QStringLiteral("&Edit"));
    QAction* all =
        edit->addAction(QStringLiteral("Select All"), this, [this] { tree_->selectAll(); });
    all->setShortcut(QKeySequence::SelectAll);
    edit->addSeparator();
    for (QAction* a : architectureActions_) edit->addAction(a);

    QMenu* plugins = menuBar()->addMenu(QStringLiteral("&Plugins"));
    plugins->addAction(enableAction_);
    plugins->addAction(scopeAction_);
    plugins->addAction(addGroupAction_);
    plugins->addAction(renameAction_);
    plugins->addSeparator();
    plugins->addAction(removeAction_);
    plugins->addAction(deleteDisabledAction_);
    plugins->addSeparator();
    QAction* refresh =
        plugins->addAction(QStringLiteral("Refresh"), this, [this] { refreshPluginData(); });
    refresh->setShortcut(QKeySequence::Refresh);
    plugins->addSeparator();
    plugins->addAction(adminAction_);
    plugins->addSeparator();
    auto* crashTester = new KTCrashTestDialog(app_, this);
    plugins->addAction(QStringLiteral("Crash Tester..."), crashTester,
                       &KTCrashTestDialog::crashLocateClick);

    KTDiagnosticsMenu::install(this, app_, *ui_);
}

void KTMainWindow::buildToolbar() {
    QToolBar* bar = addToolBar(QStringLiteral("Toolbar"));
    bar->setObjectName(QStringLiteral("mainToolbar"));
    bar->setMovable(false);
    bar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    bar->addAction(enableAction_);
    bar->addAction(scopeAction_);
    bar->addAction(removeAction_);
    bar->addSeparator();
    bar->addAction(addGroupAction_);
    bar->addAction(installAction_);
    auto* spacer = new QWidget(bar);
    spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    bar->addWidget(spacer);

    filter_ = new QComboBox(bar);
    filter_->setToolTip(QStringLiteral("Which plugin folders to show"));
    const long long saved = KTPreferences::standard().integerForKey("filter");
    for (const auto& entry : kFilters) {
        filter_->addItem(QString::fromLatin1(entry.label), entry.value);
        if (entry.value == saved) filter_->setCurrentIndex(filter_->count() - 1);
    }
    connect(filter_, &QComboBox::activated, this, [this](int i) { filterChanged(i); });
    bar->addWidget(filter_);

    search_ = new QLineEdit(bar);
    search_->setPlaceholderText(QStringLiteral("Search"));
    search_->setClearButtonEnabled(true);
    connect(search_, &QLineEdit::textChanged, this,
            [this](const QString& t) { searchFilter_->textChanged(t); });
    connect(search_, &QLineEdit::returnPressed, this, [this] { searchFilter_->applyNow(); });
    bar->addWidget(search_);
    auto* find = new QAction(QStringLiteral("Find"), this);
    find->setShortcut(QKeySequence::Find);
    connect(find, &QAction::triggered, this, [this] {
        search_->setFocus(Qt::ShortcutFocusReason);
        search_->selectAll();
    });
    addAction(find);

    filter_->setAccessibleName(QStringLiteral("Show plugins of"));
    search_->setAccessibleName(QStringLiteral("Search plugins by name"));
    bar->setAccessibleName(QStringLiteral("Toolbar"));
    // The two toggles change their labels with the selection: each keeps the
    // width of its longer label, so the pop-up and the field never shift.
    for (auto [action, labels] :
         {std::pair{enableAction_, QStringList{"Disable", "Enable"}},
          std::pair{scopeAction_, QStringList{"Current User", "All Users"}}}) {
        QWidget* button = bar->widgetForAction(action);
        if (!button) continue;
        const QString was = action->text();
        int widest = 0;
        for (const QString& label : labels) {
            action->setText(label);
            widest = std::max(widest, button->sizeHint().width());
        }
        action->setText(was);
        button->setMinimumWidth(widest);
    }
    filter_->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    filter_->setFixedWidth(filter_->sizeHint().width());
    search_->setFixedWidth(220);
}

// ---- The outline seam --------------------------------------------------------

void KTMainWindow::reloadOutline() {
    onMain([this] { model_->rebuild(); });
}

void KTMainWindow::reloadItem(const KTItemPtr& item) {
    onMain([this, item] {
        model_->refreshItem(item.get());
        // A group's boxes sum up its children.
        for (auto parent = item ? item->parent() : nullptr; parent; parent = parent->parent())
            model_->refreshItem(parent.get());
    });
}

void KTMainWindow::reloadItemAndChildren(const KTItemPtr& item) {
    onMain([this, item] {
        model_->refreshSubtree(item.get());
        for (auto parent = item ? item->parent() : nullptr; parent; parent = parent->parent())
            model_->refreshItem(parent.get());
    });
}

void KTMainWindow::reloadParentOfItem(const KTItemPtr& item) {
    onMain([this, item] {
        auto parent = item ? item->parent() : nullptr;
        model_->refreshItem(item.get());  // its row in a search result too
        model_->refreshSubtree(parent.get());
        for (auto above = parent ? parent->parent() : nullptr; above; above = above->parent())
            model_->refreshItem(above.get());
    });
}

void KTMainWindow::refreshPluginStats() {
    onMain([this] {
        if (reloading_) return;
        KTTreeLockGuard l(controller_.treeLock());
        if (!searchFilter_->isSearching()) {
            count_->setText(qs(controller_.pluginStatsText()));
            return;
        }
        const long total = OutlineViewController::countTotalItemsInArray(controller_.dataArray());
        count_->setText(QStringLiteral("%1 of %2 plugin%3 shown")
                            .arg(model_->shownPluginCount())
                            .arg(total)
                            .arg(total == 1 ? "" : "s"));
    });
}

void KTMainWindow::enableAndConfigureButtons() {
    onMain([this] {
        const KTItemList items = reloading_ ? KTItemList() : selectedItems();
        const bool any = !items.empty();
        long long enabled = 0;
        long long access = 0;
        if (any) {
            const KTItemPtr& first = items.front();
            if (first->isGroup()) {
                enabled = static_cast<const KTGroupItem&>(*first).groupEnabled();
                access = static_cast<const KTGroupItem&>(*first).groupAccess();
            } else {
                enabled = static_cast<const KTPluginItem&>(*first).pluginEnabled();
                access = static_cast<const KTPluginItem&>(*first).pluginAccess();
            }
        }
        enableAction_->setText(enabled == 1 ? QStringLiteral("Disable") : QStringLiteral("Enable"));
        enableAction_->setIcon(QApplication::style()->standardIcon(
            enabled == 1 ? QStyle::SP_DialogCancelButton : QStyle::SP_DialogApplyButton));
        scopeAction_->setText(access == 1 ? QStringLiteral("All Users")
                                          : QStringLiteral("Current User"));
        scopeAction_->setIcon(QApplication::style()->standardIcon(
            access == 1 ? QStyle::SP_ComputerIcon : QStyle::SP_DirHomeIcon));
        enableAction_->setEnabled(any);
        scopeAction_->setEnabled(any);
        removeAction_->setEnabled(any);
        renameAction_->setEnabled(items.size() == 1 && items.front()->isGroup());
        const bool idle = !reloading_;
        addGroupAction_->setEnabled(idle);
        installAction_->setEnabled(idle);
        deleteDisabledAction_->setEnabled(idle);
        printAction_->setEnabled(idle);
        for (QAction* a : architectureActions_) a->setEnabled(idle);
    });
}

// ---- Loading -----------------------------------------------------------------

void KTMainWindow::refreshPluginData() {
    app_.reloadData();
}

void KTMainWindow::waitForBackgroundWork() {
    // A batch may end in a reload, and a reload in nothing further: twice covers both.
    for (int pass = 0; pass < 2; ++pass) {
        QEventLoop loop;
        std::thread waiter([this, &loop] {
            app_.waitForBatchOperations();
            app_.waitForReload();
            QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
        });
        loop.exec();
        waiter.join();
    }
}

void KTMainWindow::catalogueReloadStarted() {
    if (model_->rowCount() > 0) selectionBeforeReload_ = arrayOfSelectedItemPaths();
    reloading_ = true;
    count_->setText(QStringLiteral("Populating plugins..."));
    filter_->setEnabled(false);
    model_->clear();
    enableAndConfigureButtons();
}

void KTMainWindow::catalogueReloadFinished() {
    reloading_ = false;
    searchFilter_->setControllerText();
    applySortingForOutlineView();
    model_->resetFromController();
    searchFilter_->showResult();
    selectItemPathsFromArray(selectionBeforeReload_);
    selectionBeforeReload_.clear();
    refreshPluginStats();
    filter_->setEnabled(true);
    enableAndConfigureButtons();
    // Names and versions keep arriving from the bundle readers for a moment:
    // once they are all in, sort again, or the order would follow the
    // file names the scan started with.
    const unsigned generation = ++reloadGeneration_;
    app_.batchThreads().start([this, generation] {
        controller_.waitForBundleInspection();
        auto duplicates = [this] {
            std::lock_guard<std::recursive_mutex> l(controller_.treeLock());
            return KTDuplicateMarks::compute(app_);
        }();
        onMain([this, generation, &duplicates] {
            if (reloading_ || generation != reloadGeneration_) return;
            model_->setDuplicateMarks(std::move(duplicates), filter_->currentData().toInt() ==
                                                                 KTDuplicateMarks::kFilterValue);
            applySortingForOutlineView();
            model_->rebuild();
            tree_->viewport()->update();
        });
    });
    emit catalogueShown();
}

void KTMainWindow::setBusy(bool busy) {
    spinner_->setVisible(busy);
}

// ---- Sorting, expansion, selection -------------------------------------------

void KTMainWindow::columnHeaderClicked(int column) {
    if (reloading_) return;
    const std::string saved =
        KTPreferences::standard().stringForKey("sortedColumn").value_or("colName");
    const bool descending = KTOutlineModel::columnForIdentifier(saved) == column
                                ? !KTPreferences::standard().boolForKey("sortedDescending")
                                : false;
    sortByColumn(column, descending);
}

void KTMainWindow::sortByColumn(int column, bool descending) {
    KTTreeLockGuard l(controller_.treeLock());
    controller_.sortColumnWithIdentifier(KTOutlineModel::columnIdentifier(column), descending);
    tree_->header()->setSortIndicator(column,
                                      descending ? Qt::DescendingOrder : Qt::AscendingOrder);
    model_->rebuild();
    KTPreferences::standard().setString("sortedColumn", KTOutlineModel::columnIdentifier(column));
    KTPreferences::standard().setBool("sortedDescending", descending);
}

void KTMainWindow::applySortingForOutlineView() {
    const std::string saved =
        KTPreferences::standard().stringForKey("sortedColumn").value_or("colName");
    const int column = KTOutlineModel::columnForIdentifier(saved);
    const bool descending = KTPreferences::standard().boolForKey("sortedDescending");
    KTTreeLockGuard l(controller_.treeLock());
    controller_.sortColumnWithIdentifier(KTOutlineModel::columnIdentifier(column), descending);
    tree_->header()->setSortIndicator(column,
                                      descending ? Qt::DescendingOrder : Qt::AscendingOrder);
}

void KTMainWindow::loadExpandedItems() {
    KTLog::appendLog("Loading expanded items...");
    restoringExpansion_ = true;
    expandedItems_ = KTPreferences::standard().stringArrayForKey("expandedItems");
    for (const std::string& subdir : expandedItems_) {
        QModelIndex index = model_->indexForGroupSubdir(subdir);
        if (index.isValid()) tree_->expand(index);
    }
    restoringExpansion_ = false;
}

void KTMainWindow::groupExpanded(const QModelIndex& index, bool expanded) {
    // Only what the user opens or closes is remembered: not the groups a
    // reload opens again, nor those a search result opens.
    if (restoringExpansion_ || searchFilter_->isExpandingForSearch()) return;
    KTItemPtr item = model_->itemForIndex(index);
    if (!item || !item->isGroup()) return;
    const auto& subdir = static_cast<const KTGroupItem&>(*item).subdir();
    if (!subdir || subdir->empty()) return;
    auto& saved = expandedItems_;
    auto it = std::find(saved.begin(), saved.end(), *subdir);
    if (expanded && it == saved.end()) {
        saved.push_back(*subdir);
    } else if (!expanded && it != saved.end()) {
        saved.erase(it);
    } else {
        return;
    }
    KTPreferences::standard().setStringArray("expandedItems", saved);
}

KTItemList KTMainWindow::selectedItems() const {
    const QModelIndexList rows = tree_->selectionModel()->selectedRows(0);
    // Row order as shown, not the order of clicking: the rows from the top
    // of the tree down to each item, compared like words (asking the view
    // where each row is drawn costs too much with thousands selected).
    std::vector<std::pair<std::vector<int>, QModelIndex>> keyed;
    keyed.reserve(rows.size());
    for (const QModelIndex& index : rows) {
        std::vector<int> key;
        for (QModelIndex i = index; i.isValid(); i = i.parent()) key.push_back(i.row());
        std::reverse(key.begin(), key.end());
        keyed.emplace_back(std::move(key), index);
    }
    std::sort(keyed.begin(), keyed.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    KTItemList items;
    items.reserve(keyed.size());
    for (const auto& [key, index] : keyed)
        if (KTItemPtr item = model_->itemForIndex(index)) items.push_back(item);
    return items;
}

std::vector<std::string> KTMainWindow::arrayOfSelectedItemPaths() const {
    std::vector<std::string> paths;
    for (const KTItemPtr& item : selectedItems()) paths.push_back(selectionPath(*item));
    return paths;
}

void KTMainWindow::selectItemPathsFromArray(const std::vector<std::string>& paths) {
    if (paths.empty()) return;
    QItemSelection selection;
    std::function<void(const QModelIndex&)> walk = [&](const QModelIndex& parent) {
        for (int row = 0; row < model_->rowCount(parent); ++row) {
            QModelIndex index = model_->index(row, 0, parent);
            KTItemPtr item = model_->itemForIndex(index);
            if (item && std::find(paths.begin(), paths.end(), selectionPath(*item)) != paths.end())
                selection.select(index, index.siblingAtColumn(KTOutlineModel::colUser));
            walk(index);
        }
    };
    walk({});
    tree_->selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
}

void KTMainWindow::selectPluginsForArchitecture(ArchitectureSelection which) {
    if (reloading_) return;
    std::vector<std::shared_ptr<KTPluginItem>> plugins;
    {
        KTTreeLockGuard l(controller_.treeLock());
        plugins = controller_.allPlugins();
    }
    QItemSelection selection;
    for (const auto& plugin : plugins) {
        const auto labels = plugin->architectures();
        if (labels.empty()) continue;
        bool picked = false;
        switch (which) {
            case ArchitectureSelection::only32Bit:
                picked =
                    !anyLabel(labels, [](const std::string& l) { return startsWith(l, "64-bit"); });
                break;
            case ArchitectureSelection::only64Bit:
                picked =
                    !anyLabel(labels, [](const std::string& l) { return startsWith(l, "32-bit"); });
                break;
            case ArchitectureSelection::onlyPPC:
                picked =
                    !anyLabel(labels, [](const std::string& l) { return endsWith(l, "(Intel)"); });
                break;
            case ArchitectureSelection::onlyIntel:
                picked = !anyLabel(labels,
                                   [](const std::string& l) { return endsWith(l, "(PowerPC)"); });
                break;
        }
        if (!picked) continue;
        QModelIndex index = model_->indexForItem(plugin.get());
        if (!index.isValid()) continue;  // hidden by the search
        QModelIndex outermost;
        for (QModelIndex p = index.parent(); p.isValid(); p = p.parent()) outermost = p;
        if (outermost.isValid()) tree_->expandRecursively(outermost);
        selection.select(index, index.siblingAtColumn(KTOutlineModel::colUser));
    }
    tree_->selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
}

// ---- Commands ----------------------------------------------------------------

void KTMainWindow::filterChanged(int index) {
    const int value = filter_->itemData(index).toInt();
    if (KTPreferences::standard().integerForKey("filter") == value) return;
    KTPreferences::standard().setInteger("filter", value);
    app_.reloadData();
}

void KTMainWindow::searchApplied() {
    refreshPluginStats();
    enableAndConfigureButtons();
}

void KTMainWindow::checkBoxClicked(const KTItemPtr& item, int column, int newValue) {
    // The moves run on a batch thread: the window stays live while the disk works.
    app_.batchThreads().start([this, item, column, newValue] {
        if (column == KTOutlineModel::colStatus)
            controller_.statusCheckBoxChanged(item, newValue);
        else
            controller_.userCheckBoxChanged(item, newValue);
        enableAndConfigureButtons();
    });
}

void KTMainWindow::toggleEnabled() {
    // Until the batch ends and the buttons follow the selection again.
    enableAction_->setEnabled(false);
    app_.enableDisable(selectedItems(), enableAction_->text().toStdString());
}

void KTMainWindow::toggleScope() {
    scopeAction_->setEnabled(false);
    app_.toggleUserAccess(selectedItems(), scopeAction_->text().toStdString());
}

void KTMainWindow::removeSelection() {
    app_.remove(selectedItems());
}

void KTMainWindow::addGroup() {
    // The tree is half built while a reload runs: it must not be shown.
    if (reloading_) return;
    const KTItemList items = selectedItems();
    auto group = app_.addGroup(items.empty() ? nullptr : items.front());
    if (!group) return;
    sortByColumn(KTOutlineModel::columnForIdentifier(
                     KTPreferences::standard().stringForKey("sortedColumn").value_or("colName")),
                 KTPreferences::standard().boolForKey("sortedDescending"));
    QModelIndex row = model_->indexForItem(group.get());
    if (!row.isValid()) return;
    if (row.parent().isValid()) tree_->expand(row.parent());
    tree_->selectionModel()->select(
        row, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    tree_->setCurrentIndex(row);
    tree_->scrollTo(row);
    tree_->edit(row);
}

void KTMainWindow::chooseFilesToInstall() {
    QFileDialog dialog(this, QStringLiteral("Install Plugins"));
    dialog.setWindowModality(Qt::WindowModal);
    // Plug-in bundles are folders here: Qt's own dialog lets them be picked like files.
    dialog.setOption(QFileDialog::DontUseNativeDialog, true);
    dialog.setFileMode(QFileDialog::ExistingFiles);
    dialog.setNameFilters({QStringLiteral("Plugins (*.fxplug *.txt *.bundle *.avx *.dpm *.plugin "
                                          "*.component *.fcfcc *.vst *.vst2 *.vst3 *.moti *.moef "
                                          "*.motn *.motr)"),
                           QStringLiteral("All Files (*)")});
    std::vector<std::string> chosen;
    auto* fsModel = dialog.findChild<QFileSystemModel*>();
    auto* buttons = dialog.findChild<QDialogButtonBox*>();
    QPushButton* open = buttons ? buttons->button(QDialogButtonBox::Open) : nullptr;
    if (fsModel && open) {
        for (QAbstractItemView* view : dialog.findChildren<QAbstractItemView*>())
            if (view->model() == fsModel)
                view->setSelectionMode(QAbstractItemView::ExtendedSelection);
        open->disconnect(SIGNAL(clicked()));
        connect(open, &QPushButton::clicked, &dialog, [&] {
            QStringList picked;
            for (QAbstractItemView* view : dialog.findChildren<QAbstractItemView*>()) {
                if (view->model() != fsModel || !view->isVisible()) continue;
                for (const QModelIndex& index : view->selectionModel()->selectedRows())
                    picked << fsModel->filePath(index);
            }
            if (picked.isEmpty()) picked = dialog.selectedFiles();
            for (const QString& p : picked) chosen.push_back(p.toStdString());
            static_cast<QDialog&>(dialog).done(QDialog::Accepted);
        });
    }
    if (dialog.exec() != QDialog::Accepted) return;
    if (chosen.empty())
        for (const QString& p : dialog.selectedFiles()) chosen.push_back(p.toStdString());
    if (!chosen.empty()) installFiles(chosen);
}

void KTMainWindow::installFiles(const std::vector<std::string>& paths) {
    app_.setProcessingCancelled(false);
    if (!app_.displayInstallPrompt(paths)) return;
    // The scope question: all users or only the current user.
    QDialog sheet(this);
    sheet.setObjectName(QStringLiteral("installScopeSheet"));
    sheet.setWindowModality(Qt::WindowModal);
    sheet.setWindowTitle(QStringLiteral("Install Plugins"));
    auto* layout = new QVBoxLayout(&sheet);
    auto* text = new QLabel(qs(app_.installPromptText()), &sheet);
    text->setWordWrap(true);
    auto* allUsers = new QRadioButton(QStringLiteral("All Users"), &sheet);
    auto* currentUser = new QRadioButton(QStringLiteral("Current User"), &sheet);
    (app_.installForUser ? currentUser : allUsers)->setChecked(true);
    auto* buttons = new QDialogButtonBox(&sheet);
    buttons->addButton(QStringLiteral("Install"), QDialogButtonBox::AcceptRole);
    buttons->addButton(QDialogButtonBox::Cancel);
    connect(buttons, &QDialogButtonBox::accepted, &sheet, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &sheet, &QDialog::reject);
    layout->addWidget(text);
    layout->addWidget(allUsers);
    layout->addWidget(currentUser);
    layout->addWidget(buttons);
    const int result = sheet.exec();
    app_.installPromptSheetDidEnd(result == QDialog::Accepted ? 1 : 0,
                                  currentUser->isChecked() ? 0 : 1);
}

void KTMainWindow::deleteAllDisabled() {
    app_.deleteAllDisabled();
}

void KTMainWindow::toggleRequireAdminPassword(bool on) {
    std::string error;
    if (KTPreferences::machine().setBool("requireAdminPassword", on, &error)) return;
    KTLog::appendLog("Unable to change the administrator password setting. %@", error);
    QSignalBlocker block(adminAction_);
    adminAction_->setChecked(!on);
    ui_->runAlert({"Unable to change the administrator password setting.", error, {}});
}

void KTMainWindow::printPluginList() {
    if (reloading_) return;
    QPrinter printer(QPrinter::HighResolution);
    printer.setDocName(QString::fromLatin1(KTPluginListExport::kJobTitle));
    QPrintDialog dialog(&printer, this);
    dialog.setWindowTitle(QString::fromLatin1(KTPluginListExport::kJobTitle));
    dialog.setWindowModality(Qt::WindowModal);
    if (dialog.exec() != QDialog::Accepted) return;
    printPluginListOn(printer);
}

bool KTMainWindow::printPluginListOn(QPrinter& printer) {
    if (reloading_) return false;
    std::string html;
    {
        KTTreeLockGuard l(controller_.treeLock());
        html = KTPluginListExport::generateHTMLForPrinting(controller_.allPlugins());
    }
    return KTPrintRenderer::print(qs(html), QString::fromLatin1(KTPluginListExport::kJobTitle),
                                  printer);
}
