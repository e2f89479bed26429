#pragma once

#include <QMainWindow>
#include <memory>
#include <string>
#include <vector>

#include "catalogue/KTItem.h"
#include "catalogue/KTOutlineView.h"

class AppController;
class KTOutlineContextMenu;
class KTOutlineModel;
class KTOutlineSearch;
class KTQtUserInterface;
class OutlineViewController;
class QAction;
class QComboBox;
class QLabel;
class QLineEdit;
class QPrinter;
class QProgressBar;
class QTreeView;

/// The main window: the plug-in outline with its count line, filter pop-up
/// and search field, the toolbar and menu commands, and the progress sheet.
/// It is the outline the operations redraw rows through.
class KTMainWindow : public QMainWindow, public KTOutlineView {
    Q_OBJECT
  public:
    /// Hands the controller its interface and outline; loads nothing yet.
    explicit KTMainWindow(AppController& app, QWidget* parent = nullptr);
    ~KTMainWindow() override;

    // KTOutlineView (main thread)
    void reloadOutline() override;
    void reloadItem(const KTItemPtr& item) override;
    void reloadItemAndChildren(const KTItemPtr& item) override;
    void reloadParentOfItem(const KTItemPtr& item) override;
    void refreshPluginStats() override;
    void enableAndConfigureButtons() override;

    /// Re-reads the catalogue from disk ("refreshPluginData").
    void refreshPluginData();
    /// Handles events until no load and no batch operation runs any more
    /// (they hand work to this thread, so it must not simply block).
    void waitForBackgroundWork();

    /// The items of the selected rows, in row order.
    KTItemList selectedItems() const;
    /// The selection by path, and selecting the same items again (after a reload).
    std::vector<std::string> arrayOfSelectedItemPaths() const;
    void selectItemPathsFromArray(const std::vector<std::string>& paths);

    /// Sorting by a column, as a click on its header does, and re-applying
    /// the saved column and order (after every reload).
    void sortByColumn(int column, bool descending);
    void applySortingForOutlineView();
    void loadExpandedItems();

    /// Replaces the selection with the plug-ins that cannot run in a host of
    /// the other architecture (the four selection commands).
    enum class ArchitectureSelection { only32Bit, only64Bit, onlyPPC, onlyIntel };
    void selectPluginsForArchitecture(ArchitectureSelection which);

    /// The print dialog over the plug-in list (it also saves PDF).
    void printPluginList();
    /// Prints the list on a printer already set up (what the dialog's OK does).
    bool printPluginListOn(QPrinter& printer);
    /// Installs files (dropped or chosen) into the selected row's group,
    /// asking for the scope when their kinds have one.
    void installFiles(const std::vector<std::string>& paths);

    // For tests and the screenshot.
    QTreeView* outline() const { return tree_; }
    KTOutlineModel* model() const { return model_; }
    QLabel* countLine() const { return count_; }
    KTQtUserInterface& userInterface() const { return *ui_; }
    QAction* enableAction() const { return enableAction_; }
    QAction* scopeAction() const { return scopeAction_; }
    QAction* removeAction() const { return removeAction_; }
    QAction* addGroupAction() const { return addGroupAction_; }
    QComboBox* filterPopup() const { return filter_; }
    QLineEdit* searchField() const { return search_; }
    KTOutlineSearch* outlineSearch() const { return searchFilter_; }
    KTOutlineContextMenu* contextMenu() const { return contextMenu_; }
    QAction* installAction() const { return installAction_; }
    QAction* renameAction() const { return renameAction_; }
    bool isShowingReload() const { return reloading_; }

  signals:
    /// The catalogue is shown after a load (sorted, groups expanded).
    void catalogueShown();

  private:
    void buildActions();
    void buildMenus();
    void buildToolbar();
    void catalogueReloadStarted();
    void catalogueReloadFinished();
    void columnHeaderClicked(int column);
    void filterChanged(int index);
    void searchApplied();
    void groupExpanded(const QModelIndex& index, bool expanded);
    void checkBoxClicked(const KTItemPtr& item, int column, int newValue);
    void toggleEnabled();
    void toggleScope();
    void removeSelection();
    void addGroup();
    void chooseFilesToInstall();
    void deleteAllDisabled();
    void toggleRequireAdminPassword(bool on);
    void setBusy(bool busy);

    AppController& app_;
    OutlineViewController& controller_;
    std::shared_ptr<KTQtUserInterface> ui_;
    KTOutlineModel* model_ = nullptr;
    QTreeView* tree_ = nullptr;
    QLabel* count_ = nullptr;
    QProgressBar* spinner_ = nullptr;
    QComboBox* filter_ = nullptr;
    QLineEdit* search_ = nullptr;
    KTOutlineSearch* searchFilter_ = nullptr;
    KTOutlineContextMenu* contextMenu_ = nullptr;
    /// "expandedItems" as last read or written: toggles update it without
    /// reading the preferences again.
    std::vector<std::string> expandedItems_;
    QAction* enableAction_ = nullptr;
    QAction* scopeAction_ = nullptr;
    QAction* removeAction_ = nullptr;
    QAction* deleteDisabledAction_ = nullptr;
    QAction* addGroupAction_ = nullptr;
    QAction* renameAction_ = nullptr;
    QAction* installAction_ = nullptr;
    QAction* printAction_ = nullptr;
    QAction* adminAction_ = nullptr;
    std::vector<QAction*> architectureActions_;
    std::vector<std::string> selectionBeforeReload_;
    bool restoringExpansion_ = false;
    /// Between the start and the end of a catalogue load, as this thread saw them.
    bool reloading_ = false;
    /// Counts finished loads, so a late re-sort never follows a newer load.
    unsigned reloadGeneration_ = 0;
};
