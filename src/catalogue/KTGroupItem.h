#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "catalogue/KTItem.h"

class KTPluginItem;

/// One group: a sub-folder inside the kind folders, holding plug-ins and
/// groups in display order.
///
/// The children list is held through a shared pointer because a group's copy
/// shares it (the same list, not a duplicate). Groups must be owned by a
/// std::shared_ptr before `addChild` is called (std::make_shared<KTGroupItem>()).
class KTGroupItem : public KTItem {
  public:
    /// `init`: an empty children list.
    KTGroupItem();

    bool isGroup() const override { return true; }

    const std::string& title() const { return title_; }
    void setTitle(const std::string& v) { title_ = v; }
    /// The stored folder of the group (what the archive carries).
    const std::optional<std::string>& storedGroupPath() const { return groupPath_; }
    void setGroupPath(const std::optional<std::string>& v) { groupPath_ = v; }
    const std::optional<std::string>& subdir() const { return subdir_; }
    void setSubdir(const std::optional<std::string>& v) { subdir_ = v; }
    const KTItemList& children() const { return *children_; }
    /// The list object itself, shared with copies.
    const std::shared_ptr<KTItemList>& childrenList() const { return children_; }
    void setChildren(std::shared_ptr<KTItemList> list);
    /// The stored aggregate (what the archive carries); `groupEnabled()` computes afresh.
    const std::optional<long long>& storedGroupEnabled() const { return groupEnabled_; }
    void setGroupEnabled(const std::optional<long long>& v) { groupEnabled_ = v; }

    /// Appends a child and makes this group its parent.
    void addChild(const KTItemPtr& child);

    /// 1 when all direct children are enabled, 0 when all are disabled, -1
    /// when mixed or empty (an empty sub-group counts as mixed).
    long long groupEnabled() const;
    /// 0 all users, 1 current user, -1 mixed or empty.
    std::int64_t groupAccess() const;
    /// The folder most children lie in; the stored field without children.
    std::string groupPath() const;
    /// The kind folder above the group: `groupPath` less as many trailing
    /// components as `subdir` has.
    std::string basePath() const;

    /// Gives the whole subtree a new sub-folder (sub-groups get theirs below it).
    void renameChildSubdirs(const std::string& newSubdir);
    /// Plug-ins in the subtree (groups not counted), and of those the enabled ones.
    std::size_t totalChildCount() const;
    std::size_t totalEnabledChildCount() const;
    /// Set the state / scope of every unlocked plug-in of the subtree; no files move.
    void enableChildren(long long enabled);
    void setChildAccess(std::int64_t access);
    /// Every item of the subtree, parents before their children.
    KTItemList allChildren() const;
    std::vector<std::shared_ptr<KTPluginItem>> allPluginChildren() const;

    void sortChildrenByName(bool descending) { sortChildren(KTSortKey::Name, descending); }
    void sortChildrenByVersion(bool descending) { sortChildren(KTSortKey::Version, descending); }
    void sortChildrenByStatus(bool descending) { sortChildren(KTSortKey::Status, descending); }
    void sortChildrenByType(bool descending) { sortChildren(KTSortKey::Type, descending); }
    /// Sorts into a new children list, then every child sorts itself.
    void sortChildren(KTSortKey key, bool descending) override;

    std::string sortName() const override { return title_; }
    std::string sortTypeName() const override { return "Group"; }
    KTComparisonResult nameCompare(const KTItem& other) const override;
    KTComparisonResult versionCompare(const KTItem& other) const override;
    KTComparisonResult statusCompare(const KTItem& other) const override;
    KTComparisonResult typeCompare(const KTItem& other) const override;

    /// A copy sharing the children list and the parent link.
    std::shared_ptr<KTGroupItem> copy() const;
    KTItemPtr copyItem() const override { return copy(); }

    /// A copy holding only the plug-ins whose short name contains `text`
    /// (ignoring case) and the filtered copies of sub-groups that kept
    /// something or whose title contains it; an empty text keeps everything.
    /// The kept plug-ins are the source's own items; the source is untouched.
    std::shared_ptr<KTGroupItem> groupWithFilteredChildren(const std::string& text) const;

  private:
    std::string title_;
    std::optional<std::string> groupPath_;
    std::optional<std::string> subdir_;
    std::shared_ptr<KTItemList> children_;
    std::optional<long long> groupEnabled_;
};
