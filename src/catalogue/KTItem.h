#pragma once

#include <memory>
#include <string>
#include <vector>

class KTGroupItem;
class KTItem;

/// One entry of a children list: owned (shared with a group's copies, which
/// share the list itself).
using KTItemPtr = std::shared_ptr<KTItem>;
using KTItemList = std::vector<KTItemPtr>;

/// Result of the sorting comparators.
enum class KTComparisonResult { Ascending = -1, Same = 0, Descending = 1 };

/// What the sorting of a group orders its children by.
enum class KTSortKey { Name, Version, Status, Type };

/// Common ground of the two records of the catalogue tree, `KTPluginItem`
/// and `KTGroupItem`. Items always live in a std::shared_ptr (a group hands
/// itself to its children as their parent); the parent link is weak, so a
/// child never keeps its group alive and never points at a freed one.
class KTItem : public std::enable_shared_from_this<KTItem> {
  public:
    virtual ~KTItem() = default;
    KTItem(const KTItem&) = delete;
    KTItem& operator=(const KTItem&) = delete;

    virtual bool isGroup() const = 0;

    /// The group that holds the item, or null at top level (or once that group is gone).
    std::shared_ptr<KTGroupItem> parent() const { return parent_.lock(); }
    virtual void setParent(const std::shared_ptr<KTGroupItem>& parent) { parent_ = parent; }

    /// The outermost group above the item; null at top level.
    std::shared_ptr<KTGroupItem> absoluteParent() const;

    /// `shortName` of a plug-in, `title` of a group: what name sorting compares.
    virtual std::string sortName() const = 0;
    /// The kind's display name of a plug-in, "Group" for a group.
    virtual std::string sortTypeName() const = 0;

    virtual KTComparisonResult nameCompare(const KTItem& other) const = 0;
    virtual KTComparisonResult versionCompare(const KTItem& other) const = 0;
    virtual KTComparisonResult statusCompare(const KTItem& other) const = 0;
    virtual KTComparisonResult typeCompare(const KTItem& other) const = 0;
    KTComparisonResult compare(const KTItem& other, KTSortKey key) const;

    /// Sorts the item's children and theirs; plug-ins have none and ignore it.
    virtual void sortChildren(KTSortKey key, bool descending) {}

    /// A copy made the way each record copies itself.
    virtual KTItemPtr copyItem() const = 0;

    /// A new list in reverse order.
    static KTItemList reverseArray(const KTItemList& list);

    /// Case-insensitive comparison of two texts (ASCII letters folded).
    static KTComparisonResult caseInsensitiveCompare(const std::string& a, const std::string& b);
    /// True when `text` holds `part`, ignoring case.
    static bool containsIgnoringCase(const std::string& text, const std::string& part);

  protected:
    KTItem() = default;
    std::weak_ptr<KTGroupItem> parent_;
};
