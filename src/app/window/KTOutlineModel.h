#pragma once

#include <QAbstractItemModel>
#include <QIcon>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "catalogue/KTItem.h"

class OutlineViewController;

/// The outline's rows over the catalogue tree: one row per group or plug-in,
/// with the columns `colName`, `colStatus`, `colVersion`, `colType` and
/// `colUser`. The model keeps its own row tree (built from what the
/// controller shows: the whole tree or the search result), so the view never
/// walks the catalogue while a reload rebuilds it; during a reload it is empty.
class KTOutlineModel : public QAbstractItemModel {
    Q_OBJECT
  public:
    enum Column { colName = 0, colStatus, colVersion, colType, colUser, columnCount_ };
    static const char* columnIdentifier(int column);
    /// The column of an identifier; the first column for an unknown one.
    static int columnForIdentifier(const std::string& identifier);

    /// True for a check box that cannot be clicked whatever the mode: a locked
    /// plug-in's boxes, and the scope box of a kind with no per-user place.
    static constexpr int kCheckFixedRole = Qt::UserRole + 1;

    /// The type of the outline's own drags: the dragged items as a keyed archive.
    static constexpr const char* kPboardType = "KTPboardType";

    explicit KTOutlineModel(OutlineViewController& controller, QObject* parent = nullptr);
    ~KTOutlineModel() override;

    /// Empties the rows (a reload starts); until `resetFromController` they
    /// stay empty, whatever asks for a rebuild meanwhile.
    void clear();
    /// Rebuilds every row from the controller at once (a reload ended).
    void resetFromController();
    /// Rebuilds the rows from the controller in place: rows that stay keep
    /// their selection and expansion.
    void rebuild();
    /// Redraws the cells of one item.
    void refreshItem(const KTItem* item);
    /// Redraws a group's rows and all below them (null: the whole outline);
    /// rebuilds the rows when the group's children are no longer those shown.
    void refreshSubtree(const KTItem* group);

    /// How many plug-in rows the outline holds (the search result's, when searching).
    long shownPluginCount() const { return shownPlugins_; }

    KTItemPtr itemForIndex(const QModelIndex& index) const;
    QModelIndex indexForItem(const KTItem* item, int column = 0) const;
    /// The row of the group shown with this `subdir`, if any.
    QModelIndex indexForGroupSubdir(const std::string& subdir) const;

    // Wiring to the window. A missing handler leaves its feature off.
    /// A status or scope box was clicked: (item, column, new value 0 or 1).
    std::function<void(const KTItemPtr&, int, int)> checkHandler;
    /// Files dropped: (paths, the item under the drop or null).
    std::function<void(const std::vector<std::string>&, const KTItemPtr&)> fileDropHandler;
    /// Rows dropped: (dragged items, target group or null for the top level,
    /// the sub-folders of dragged groups that were expanded).
    std::function<void(const KTItemList&, const KTItemPtr&, const std::vector<std::string>&)>
        rowDropHandler;
    /// A group's name was edited in place: (group, the typed name).
    std::function<void(const KTItemPtr&, const std::string&)> renameHandler;
    /// Whether a group row is expanded in the view (for drags of groups).
    std::function<bool(const KTItemPtr&)> isExpanded;
    /// Which of the two check-box columns may be clicked now.
    bool statusEditable = false;
    bool scopeEditable = false;

    /// The plug-ins found more than once: a mark and a tooltip in the version
    /// column (why a copy is, or is not, the one hosts load); with
    /// `duplicatesOnly` the outline shows only those rows.
    struct DuplicateMark {
        bool inUse = false;
        QString tip;
    };
    void setDuplicateMarks(std::unordered_map<const KTItem*, DuplicateMark> marks,
                           bool duplicatesOnly);
    const DuplicateMark* duplicateMark(const KTItem* item) const;

    /// True when a dropped path may be installed: a folder, a known extension
    /// or the Final Cut type code.
    static bool isInstallablePath(const std::string& path);
    /// The sub-folders of expanded groups noted at the last drag start.
    const std::vector<std::string>& expandedSubdirs() const { return expandedSubdirs_; }

    // QAbstractItemModel
    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QStringList mimeTypes() const override;
    QMimeData* mimeData(const QModelIndexList& indexes) const override;
    bool canDropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                         const QModelIndex& parent) const override;
    bool dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                      const QModelIndex& parent) override;
    Qt::DropActions supportedDropActions() const override;
    Qt::DropActions supportedDragActions() const override;

  private:
    struct Node;
    std::unique_ptr<Node> buildTree() const;
    void indexNodes(Node* node);
    Node* nodeFor(const QModelIndex& index) const;
    QIcon iconForItem(const KTItem& item) const;

    OutlineViewController& controller_;
    std::unique_ptr<Node> root_;
    std::unordered_map<const KTItem*, Node*> nodes_;
    mutable std::vector<std::string> expandedSubdirs_;
    bool reloading_ = false;
    long shownPlugins_ = 0;
    mutable std::unordered_map<std::string, QIcon> icons_;
    std::unordered_map<const KTItem*, DuplicateMark> duplicates_;
    bool duplicatesOnly_ = false;
};
