#include "app/window/KTOutlineModel.h"

#include "app/window/KTTreeLockGuard.h"

#include <QApplication>
#include <QBrush>
#include <QMimeData>
#include <QPainter>
#include <QPalette>
#include <QStyle>
#include <QUrl>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>

#include "SharedFiles/KTFinderInfo.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "catalogue/KTFilePackage.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTItemArchive.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/OutlineViewController.h"

struct KTOutlineModel::Node {
    KTItemPtr item;
    Node* parent = nullptr;
    int row = 0;
    std::vector<std::unique_ptr<Node>> children;
};

namespace {

const char* const kIdentifiers[] = {"colName", "colStatus", "colVersion", "colType", "colUser"};

QString qs(const std::string& s) {
    return QString::fromStdString(s);
}

/// Kinds that have no per-user place: their scope cannot change.
bool hasNoUserPlace(std::int64_t type) {
    return type >= 3 && type <= 6;
}

QVariant checkState(long long value) {
    if (value == 1) return Qt::Checked;
    if (value == 0) return Qt::Unchecked;
    return Qt::PartiallyChecked;
}

}  // namespace

const char* KTOutlineModel::columnIdentifier(int column) {
    return column >= 0 && column < columnCount_ ? kIdentifiers[column] : kIdentifiers[0];
}

int KTOutlineModel::columnForIdentifier(const std::string& identifier) {
    for (int c = 0; c < columnCount_; ++c)
        if (identifier == kIdentifiers[c]) return c;
    return colName;
}

KTOutlineModel::KTOutlineModel(OutlineViewController& controller, QObject* parent)
    : QAbstractItemModel(parent), controller_(controller), root_(std::make_unique<Node>()) {}

KTOutlineModel::~KTOutlineModel() = default;

std::unique_ptr<KTOutlineModel::Node> KTOutlineModel::buildTree() const {
    auto root = std::make_unique<Node>();
    KTTreeLockGuard l(controller_.treeLock());
    std::function<void(Node*, const KTItemList&)> fill = [&](Node* node, const KTItemList& list) {
        for (const auto& item : list) {
            if (!item) continue;
            if (duplicatesOnly_ && !item->isGroup() && !duplicates_.count(item.get())) continue;
            auto child = std::make_unique<Node>();
            child->item = item;
            child->parent = node;
            child->row = static_cast<int>(node->children.size());
            if (item->isGroup())
                fill(child.get(), static_cast<const KTGroupItem&>(*item).children());
            if (duplicatesOnly_ && item->isGroup() && child->children.empty()) continue;
            node->children.push_back(std::move(child));
        }
    };
    fill(root.get(), controller_.visibleArray());
    return root;
}

void KTOutlineModel::indexNodes(Node* node) {
    if (node == root_.get()) shownPlugins_ = 0;
    for (auto& child : node->children) {
        nodes_[child->item.get()] = child.get();
        if (!child->item->isGroup()) ++shownPlugins_;
        indexNodes(child.get());
    }
}

void KTOutlineModel::clear() {
    reloading_ = true;
    beginResetModel();
    root_ = std::make_unique<Node>();
    nodes_.clear();
    shownPlugins_ = 0;
    duplicates_.clear();  // the items they name are about to go
    endResetModel();
}

void KTOutlineModel::resetFromController() {
    reloading_ = false;
    beginResetModel();
    root_ = buildTree();
    nodes_.clear();
    indexNodes(root_.get());
    endResetModel();
}

void KTOutlineModel::rebuild() {
    // The scan is changing the tree: the rows stay empty until it ends.
    if (reloading_) return;
    emit layoutAboutToBeChanged();
    const QModelIndexList before = persistentIndexList();
    std::vector<std::pair<KTItemPtr, int>> kept;
    kept.reserve(before.size());
    for (const QModelIndex& index : before) {
        Node* node = nodeFor(index);
        kept.emplace_back(node ? node->item : nullptr, index.column());
    }
    root_ = buildTree();
    nodes_.clear();
    indexNodes(root_.get());
    QModelIndexList after;
    after.reserve(before.size());
    for (const auto& [item, column] : kept) after.push_back(indexForItem(item.get(), column));
    changePersistentIndexList(before, after);
    emit layoutChanged();
}

void KTOutlineModel::refreshItem(const KTItem* item) {
    QModelIndex first = indexForItem(item, 0);
    if (!first.isValid()) return;
    emit dataChanged(first, first.siblingAtColumn(columnCount_ - 1));
}

void KTOutlineModel::refreshSubtree(const KTItem* group) {
    if (reloading_) return;
    Node* node = root_.get();
    KTItemList current;
    {
        KTTreeLockGuard l(controller_.treeLock());
        if (group) {
            auto it = nodes_.find(group);
            if (it == nodes_.end() || !group->isGroup()) return refreshItem(group);
            node = it->second;
            current = static_cast<const KTGroupItem*>(group)->children();
        } else {
            current = controller_.visibleArray();
        }
    }
    current.erase(std::remove(current.begin(), current.end(), nullptr), current.end());
    bool same = current.size() == node->children.size();
    for (std::size_t i = 0; same && i < current.size(); ++i)
        same = current[i] == node->children[i]->item;
    // A member came or went: only a rebuild shows it. Otherwise the rows stay.
    if (!same) return rebuild();
    std::function<void(Node*)> redraw = [&](Node* n) {
        if (n->children.empty()) return;
        emit dataChanged(
            createIndex(0, 0, n->children.front().get()),
            createIndex(n->children.back()->row, columnCount_ - 1, n->children.back().get()));
        for (auto& child : n->children) redraw(child.get());
    };
    if (node != root_.get()) refreshItem(group);
    redraw(node);
}

KTOutlineModel::Node* KTOutlineModel::nodeFor(const QModelIndex& index) const {
    return index.isValid() ? static_cast<Node*>(index.internalPointer()) : root_.get();
}

KTItemPtr KTOutlineModel::itemForIndex(const QModelIndex& index) const {
    if (!index.isValid()) return nullptr;
    return nodeFor(index)->item;
}

QModelIndex KTOutlineModel::indexForItem(const KTItem* item, int column) const {
    auto it = item ? nodes_.find(item) : nodes_.end();
    if (it == nodes_.end()) return {};
    return createIndex(it->second->row, column, it->second);
}

QModelIndex KTOutlineModel::indexForGroupSubdir(const std::string& subdir) const {
    for (const auto& [item, node] : nodes_) {
        if (!item->isGroup()) continue;
        const auto& s = static_cast<const KTGroupItem*>(item)->subdir();
        if (s && *s == subdir) return createIndex(node->row, 0, node);
    }
    return {};
}

QModelIndex KTOutlineModel::index(int row, int column, const QModelIndex& parent) const {
    Node* node = nodeFor(parent);
    if (!node || row < 0 || column < 0 || column >= columnCount_ ||
        row >= static_cast<int>(node->children.size()))
        return {};
    return createIndex(row, column, node->children[row].get());
}

QModelIndex KTOutlineModel::parent(const QModelIndex& child) const {
    if (!child.isValid()) return {};
    Node* parent = nodeFor(child)->parent;
    if (!parent || parent == root_.get()) return {};
    return createIndex(parent->row, 0, parent);
}

int KTOutlineModel::rowCount(const QModelIndex& parent) const {
    if (parent.isValid() && parent.column() != 0) return 0;
    Node* node = nodeFor(parent);
    return node ? static_cast<int>(node->children.size()) : 0;
}

int KTOutlineModel::columnCount(const QModelIndex&) const {
    return columnCount_;
}

QIcon KTOutlineModel::iconForItem(const KTItem& item) const {
    if (item.isGroup()) return QApplication::style()->standardIcon(QStyle::SP_DirIcon);
    const auto& plugin = static_cast<const KTPluginItem&>(item);
    // A small badge per family of hosts: the colour tells the family, the
    // letters the kind.
    struct Badge {
        const char* text;
        QColor colour;
    };
    Badge badge{"?", QColor(0x8e, 0x8e, 0x93)};
    switch (plugin.pluginType()) {
        case 0:
            badge = {"Fx", QColor(0x6e, 0x4b, 0xc7)};
            break;
        case 1:
            badge = {"FS", QColor(0x8a, 0x6d, 0xd4)};
            break;
        case 8:
            badge = {"M", QColor(0x9b, 0x59, 0xb6)};
            break;
        case 2:
            badge = {"AU", QColor(0x1f, 0x8f, 0x5f)};
            break;
        case 7:
            badge = {"V", QColor(0x2e, 0x9e, 0x6e)};
            break;
        case 11:
            badge = {"V2", QColor(0x2e, 0x9e, 0x6e)};
            break;
        case 12:
            badge = {"V3", QColor(0x2e, 0x9e, 0x6e)};
            break;
        case 3:
            badge = {"AX", QColor(0x3a, 0x6e, 0xc6)};
            break;
        case 5:
            badge = {"A2", QColor(0x3a, 0x6e, 0xc6)};
            break;
        case 6:
            badge = {"RT", QColor(0x3a, 0x6e, 0xc6)};
            break;
        case 4:
            badge = {"Ad", QColor(0xc7, 0x3e, 0x3a)};
            break;
        case 9:
            badge = {"OF", QColor(0xd3, 0x84, 0x1f)};
            break;
        case 10:
            badge = {"QC", QColor(0x50, 0x6e, 0x82)};
            break;
        default:
            break;
    }
    const std::string key = std::string(badge.text) + (plugin.pluginEnabled() == 1 ? "" : "-off");
    auto it = icons_.find(key);
    if (it != icons_.end()) return it->second;
    QIcon icon;
    for (int size : {16, 32}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter p(&pixmap);
        p.setRenderHint(QPainter::Antialiasing);
        QColor fill = badge.colour;
        if (plugin.pluginEnabled() != 1) fill.setAlpha(90);
        p.setBrush(fill);
        p.setPen(Qt::NoPen);
        p.drawRoundedRect(QRectF(0.5, 0.5, size - 1, size - 1), size / 4.0, size / 4.0);
        QFont font = QApplication::font();
        font.setBold(true);
        font.setPixelSize(std::strlen(badge.text) > 1 ? size * 7 / 16 : size * 9 / 16);
        p.setFont(font);
        p.setPen(Qt::white);
        p.drawText(QRect(0, 0, size, size), Qt::AlignCenter, QString::fromLatin1(badge.text));
        p.end();
        icon.addPixmap(pixmap);
    }
    icons_.emplace(key, icon);
    return icon;
}

void KTOutlineModel::setDuplicateMarks(std::unordered_map<const KTItem*, DuplicateMark> marks,
                                       bool duplicatesOnly) {
    duplicates_ = std::move(marks);
    duplicatesOnly_ = duplicatesOnly;
}

const KTOutlineModel::DuplicateMark* KTOutlineModel::duplicateMark(const KTItem* item) const {
    auto it = duplicates_.find(item);
    return it == duplicates_.end() ? nullptr : &it->second;
}

QVariant KTOutlineModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid()) return {};
    const KTItemPtr& item = nodeFor(index)->item;
    if (!item) return {};
    const int column = index.column();
    if (item->isGroup()) {
        const auto& group = static_cast<const KTGroupItem&>(*item);
        switch (role) {
            case Qt::DisplayRole:
            case Qt::EditRole:
                if (column == colName) return qs(group.title());
                if (column == colType) return QStringLiteral("Group");
                if (column == colUser) {
                    auto access = group.groupAccess();
                    return access == 1   ? QStringLiteral("Current user")
                           : access == 0 ? QStringLiteral("All users")
                                         : QStringLiteral("Mixed");
                }
                return {};
            case Qt::CheckStateRole:
                if (column == colStatus) return checkState(group.groupEnabled());
                if (column == colUser) return checkState(group.groupAccess());
                return {};
            case Qt::DecorationRole:
                return column == colName ? QVariant(iconForItem(group)) : QVariant();
            case Qt::AccessibleTextRole:
                if (column == colStatus)
                    return group.groupEnabled() == 1   ? QStringLiteral("Enabled")
                           : group.groupEnabled() == 0 ? QStringLiteral("Disabled")
                                                       : QStringLiteral("Partly enabled");
                return data(index, Qt::DisplayRole);
            case Qt::ToolTipRole:
                if (column == colName)
                    return QStringLiteral("%1 plugins, %2 enabled")
                        .arg(group.totalChildCount())
                        .arg(group.totalEnabledChildCount());
                return {};
            default:
                return {};
        }
    }
    const auto& plugin = static_cast<const KTPluginItem&>(*item);
    switch (role) {
        case Qt::DisplayRole:
        case Qt::EditRole:
            switch (column) {
                case colName:
                    return qs(plugin.shortName());
                case colVersion:
                    return qs(plugin.version());
                case colType:
                    return qs(plugin.pluginTypeName());
                case colUser:
                    return plugin.pluginAccess() == 1 ? QStringLiteral("Current user")
                                                      : QStringLiteral("All users");
                default:
                    return {};
            }
        case Qt::CheckStateRole:
            if (column == colStatus) return checkState(plugin.pluginEnabled() == 1 ? 1 : 0);
            if (column == colUser) return checkState(plugin.pluginAccess() == 1 ? 1 : 0);
            return {};
        case Qt::DecorationRole:
            if (column == colVersion) {
                if (const DuplicateMark* mark = duplicateMark(&plugin))
                    return QApplication::style()->standardIcon(
                        mark->inUse ? QStyle::SP_MessageBoxInformation
                                    : QStyle::SP_MessageBoxWarning);
            }
            return column == colName ? QVariant(iconForItem(plugin)) : QVariant();
        case Qt::ForegroundRole:
            // Disabled plug-ins recede, so the enabled ones stand out at a glance.
            if (plugin.pluginEnabled() != 1)
                return QApplication::palette().brush(QPalette::Disabled, QPalette::Text);
            return {};
        case kCheckFixedRole:
            if (column == colStatus) return plugin.isLocked();
            if (column == colUser) return plugin.isLocked() || hasNoUserPlace(plugin.pluginType());
            return false;
        case Qt::AccessibleTextRole:
            if (column == colStatus)
                return plugin.pluginEnabled() == 1 ? QStringLiteral("Enabled")
                                                   : QStringLiteral("Disabled");
            if (column == colUser)
                return plugin.pluginAccess() == 1 ? QStringLiteral("Installed for current user")
                                                  : QStringLiteral("Installed for all users");
            return data(index, Qt::DisplayRole);
        case Qt::ToolTipRole: {
            if (const DuplicateMark* mark = duplicateMark(&plugin); mark && column == colVersion)
                return mark->tip;
            static const QString locked = QStringLiteral(
                "Locked: managed by another installer, so it cannot be enabled, disabled or "
                "moved here");
            if (column == colStatus)
                return plugin.isLocked()             ? locked
                       : plugin.pluginEnabled() == 1 ? QStringLiteral("Enabled")
                                                     : QStringLiteral("Disabled");
            if (column == colUser) {
                if (plugin.isLocked()) return locked;
                if (hasNoUserPlace(plugin.pluginType()))
                    return QStringLiteral(
                        "Avid plugins are always installed for all users: Avid looks for them "
                        "in one place only");
                return plugin.pluginAccess() == 1
                           ? QStringLiteral("Installed for the current user only")
                           : QStringLiteral("Installed for all users");
            }
            QString tip = qs(KTLocalPaths::logicalPath(plugin.actualPath()));
            const auto archs = plugin.architectures();
            if (!archs.empty()) {
                QStringList list;
                for (const auto& a : archs) list << qs(a);
                tip += QStringLiteral("\n") + list.join(QStringLiteral(", "));
            }
            return tip;
        }
        default:
            return {};
    }
}

bool KTOutlineModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    if (role == Qt::EditRole && index.column() == colName && renameHandler) {
        KTItemPtr item = itemForIndex(index);
        if (!item || !item->isGroup()) return false;
        renameHandler(item, value.toString().toStdString());
        return true;
    }
    if (role != Qt::CheckStateRole || !index.isValid() || !checkHandler) return false;
    const int column = index.column();
    if (!(column == colStatus && statusEditable) && !(column == colUser && scopeEditable))
        return false;
    KTItemPtr item = itemForIndex(index);
    if (!item) return false;
    const int newValue = value.toInt() == Qt::Checked ? 1 : 0;
    checkHandler(item, column, newValue);
    refreshItem(item.get());
    return true;
}

QVariant KTOutlineModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal) return {};
    if (role == Qt::DisplayRole) {
        switch (section) {
            case colName:
                return QStringLiteral("Name");
            case colStatus:
                return QStringLiteral("Enabled");
            case colVersion:
                return QStringLiteral("Version");
            case colType:
                return QStringLiteral("Type");
            case colUser:
                return QStringLiteral("Installed For");
            default:
                return {};
        }
    }
    if (role == Qt::ToolTipRole && section == colUser)
        return QStringLiteral("Ticked: only the current user; unticked: all users");
    return {};
}

Qt::ItemFlags KTOutlineModel::flags(const QModelIndex& index) const {
    if (!index.isValid()) return Qt::ItemIsDropEnabled;
    Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDragEnabled;
    const KTItemPtr& item = nodeFor(index)->item;
    if (!item) return f;
    // Plug-in rows take drops too: only then does the view hand a drop aimed
    // at the middle of a plug-in row to this model as a drop onto that row
    // (which rows refuse and files take), instead of turning it into a drop
    // between rows of its group.
    f |= Qt::ItemIsDropEnabled;
    if (item->isGroup() && index.column() == colName && renameHandler) f |= Qt::ItemIsEditable;
    const bool locked = !item->isGroup() && static_cast<const KTPluginItem&>(*item).isLocked();
    if (index.column() == colStatus && statusEditable && !locked) f |= Qt::ItemIsUserCheckable;
    if (index.column() == colUser && scopeEditable && !locked &&
        (item->isGroup() || !hasNoUserPlace(static_cast<const KTPluginItem&>(*item).pluginType())))
        f |= Qt::ItemIsUserCheckable;
    return f;
}

QStringList KTOutlineModel::mimeTypes() const {
    return {QString::fromLatin1(kPboardType), QStringLiteral("text/uri-list")};
}

QMimeData* KTOutlineModel::mimeData(const QModelIndexList& indexes) const {
    try {
        KTItemList items;
        std::set<const KTItem*> seen;
        for (const QModelIndex& index : indexes) {
            KTItemPtr item = itemForIndex(index);
            if (item && seen.insert(item.get()).second) items.push_back(item);
        }
        std::vector<std::string> expanded;
        for (const auto& item : items) {
            if (item->isGroup()) {
                const auto& subdir = static_cast<const KTGroupItem&>(*item).subdir();
                if (subdir && !subdir->empty() && isExpanded && isExpanded(item))
                    expanded.push_back(*subdir);
            } else if (static_cast<const KTPluginItem&>(*item).isLocked()) {
                // Another installer manages it: nothing of this drag may move.
                return nullptr;
            }
        }
        expandedSubdirs_ = std::move(expanded);
        auto* data = new QMimeData;
        const std::string archive = KTItemArchive::archivedDataWithRootObject(items);
        data->setData(QString::fromLatin1(kPboardType),
                      QByteArray(archive.data(), static_cast<qsizetype>(archive.size())));
        return data;
    } catch (const std::exception& e) {
        KTException::logException(e,
                                  "-[OutlineViewController outlineView:writeItems:toPasteboard:]");
        return nullptr;
    }
}

bool KTOutlineModel::isInstallablePath(const std::string& path) {
    static const std::set<std::string> kExtensions = {
        "fxplug", "txt",  "bundle", "avx",  "dpm",  "plugin", "component", "fcfcc",
        "vst",    "vst2", "vst3",   "moti", "moef", "motn",   "motr"};
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) return true;
    if (kExtensions.count(KTFilePackage::lowerExtension(path))) return true;
    return KTFinderInfo::typeCode(path) == KTFinderInfo::kFxScriptType;
}

namespace {
/// The dropped local files, or nothing when the drop holds anything else.
std::optional<std::vector<std::string>> droppedPaths(const QMimeData* data) {
    if (!data || !data->hasUrls()) return std::nullopt;
    std::vector<std::string> paths;
    for (const QUrl& url : data->urls()) {
        if (!url.isLocalFile()) return std::nullopt;
        paths.push_back(url.toLocalFile().toStdString());
    }
    if (paths.empty()) return std::nullopt;
    return paths;
}
}  // namespace

bool KTOutlineModel::canDropMimeData(const QMimeData* data, Qt::DropAction action, int row,
                                     int column, const QModelIndex& parent) const {
    try {
        if (!data) return false;
        if (data->hasFormat(QString::fromLatin1(kPboardType))) {
            if (!rowDropHandler) return false;
            // Rows go into groups or the top level, never onto a plug-in.
            KTItemPtr target = itemForIndex(parent);
            return !target || target->isGroup();
        }
        if (data->hasUrls()) {
            if (!fileDropHandler) return false;
            auto paths = droppedPaths(data);
            if (!paths) return false;
            return std::all_of(paths->begin(), paths->end(), isInstallablePath);
        }
        return false;
    } catch (const std::exception& e) {
        KTException::logException(
            e,
            "-[OutlineViewController outlineView:validateDrop:proposedItem:proposedChildIndex:]");
        return false;
    }
}

bool KTOutlineModel::dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                                  const QModelIndex& parent) {
    try {
        if (!canDropMimeData(data, action, row, column, parent)) return false;
        KTItemPtr target = itemForIndex(parent);
        if (data->hasFormat(QString::fromLatin1(kPboardType))) {
            KTLog::appendLog("User reordered existing plugins.");
            const QByteArray bytes = data->data(QString::fromLatin1(kPboardType));
            auto items = KTItemArchive::unarchiveObjectWithData(
                std::string(bytes.constData(), static_cast<std::size_t>(bytes.size())));
            if (!items || items->empty()) return false;
            // The move happens on disk on a worker; the rows follow after it.
            rowDropHandler(*items, target, expandedSubdirs_);
            return true;
        }
        auto paths = droppedPaths(data);
        if (!paths) return false;
        KTLog::appendLog("User dropped new plugins. Installing...");
        fileDropHandler(*paths, target);
        return true;
    } catch (const std::exception& e) {
        KTException::logException(
            e, "-[OutlineViewController outlineView:acceptDrop:item:childIndex:]");
        return false;
    }
}

Qt::DropActions KTOutlineModel::supportedDropActions() const {
    return Qt::CopyAction | Qt::MoveAction;
}

Qt::DropActions KTOutlineModel::supportedDragActions() const {
    return Qt::MoveAction;
}
