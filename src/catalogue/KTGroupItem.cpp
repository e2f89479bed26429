#include "catalogue/KTGroupItem.h"

#include <algorithm>
#include <map>

#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"

namespace {

const KTPluginItem* asPlugin(const KTItemPtr& item) {
    return item && !item->isGroup() ? static_cast<const KTPluginItem*>(item.get()) : nullptr;
}

const KTGroupItem* asGroup(const KTItemPtr& item) {
    return item && item->isGroup() ? static_cast<const KTGroupItem*>(item.get()) : nullptr;
}

/// Path components the platform's way: "/L/Blur" -> {"/", "L", "Blur"}.
std::vector<std::string> pathComponents(const std::string& path) {
    std::vector<std::string> parts;
    if (!path.empty() && path.front() == '/') parts.push_back("/");
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        if (slash > start) parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return parts;
}

}  // namespace

KTGroupItem::KTGroupItem() : children_(std::make_shared<KTItemList>()) {}

void KTGroupItem::setChildren(std::shared_ptr<KTItemList> list) {
    children_ = list ? std::move(list) : std::make_shared<KTItemList>();
}

void KTGroupItem::addChild(const KTItemPtr& child) {
    if (!child) return;
    children_->push_back(child);
    child->setParent(std::static_pointer_cast<KTGroupItem>(shared_from_this()));
}

long long KTGroupItem::groupEnabled() const {
    int enabled = 0, disabled = 0, mixed = 0;
    for (const KTItemPtr& child : *children_) {
        if (const KTPluginItem* plugin = asPlugin(child)) {
            (plugin->pluginEnabled() == 1 ? enabled : disabled)++;
        } else if (const KTGroupItem* group = asGroup(child)) {
            long long state = group->groupEnabled();
            if (state == 1) {
                enabled++;
            } else if (state == 0) {
                disabled++;
            } else {
                mixed++;
            }
        }
    }
    if (enabled > 0 && disabled == 0 && mixed == 0) return 1;
    if (disabled > 0 && enabled == 0 && mixed == 0) return 0;
    return -1;
}

std::int64_t KTGroupItem::groupAccess() const {
    if (children_->empty()) return -1;
    int user = 0, all = 0;
    for (const KTItemPtr& child : *children_) {
        if (const KTPluginItem* plugin = asPlugin(child)) {
            (plugin->pluginAccess() != 0 ? user : all)++;
        } else if (const KTGroupItem* group = asGroup(child)) {
            std::int64_t access = group->groupAccess();
            if (access == -1) return -1;
            if (access == 1) user++;
            if (access == 0) all++;
        }
    }
    if (all > 0 && user == 0) return 0;
    if (user > 0 && all == 0) return 1;
    return -1;
}

std::string KTGroupItem::groupPath() const {
    if (children_->empty()) return groupPath_.value_or("");
    // Counted in a sorted map: among equally common folders the first in
    // that order wins, whatever the order of the children.
    std::map<std::string, int> counts;
    for (const KTItemPtr& child : *children_) {
        if (const KTPluginItem* plugin = asPlugin(child)) {
            counts[KTPluginLocations::deletingLastPathComponent(plugin->pluginPath())]++;
        } else if (const KTGroupItem* group = asGroup(child)) {
            std::string path = group->groupPath();
            if (!path.empty()) counts[KTPluginLocations::deletingLastPathComponent(path)]++;
        }
    }
    const std::string* best = nullptr;
    int bestCount = 0;
    for (const auto& [folder, count] : counts) {
        if (count > bestCount) {
            best = &folder;
            bestCount = count;
        }
    }
    return best ? *best : groupPath_.value_or("");
}

std::string KTGroupItem::basePath() const {
    std::vector<std::string> parts = pathComponents(groupPath());
    const std::size_t drop = subdir_ ? pathComponents(*subdir_).size() : 0;
    if (drop == 0 || drop > parts.size()) return groupPath_.value_or("");
    parts.resize(parts.size() - drop);
    std::string path;
    for (const std::string& part : parts) path = KTPluginLocations::appendPathComponent(path, part);
    return path;
}

void KTGroupItem::renameChildSubdirs(const std::string& newSubdir) {
    for (const KTItemPtr& child : *children_) {
        if (child->isGroup()) {
            auto* group = static_cast<KTGroupItem*>(child.get());
            std::string sub = KTPluginLocations::appendPathComponent(newSubdir, group->title());
            group->setSubdir(sub);
            group->renameChildSubdirs(sub);
        } else {
            static_cast<KTPluginItem*>(child.get())->setSubdir(newSubdir);
        }
    }
}

std::size_t KTGroupItem::totalChildCount() const {
    return allPluginChildren().size();
}

std::size_t KTGroupItem::totalEnabledChildCount() const {
    std::size_t n = 0;
    for (const auto& plugin : allPluginChildren()) {
        if (plugin->pluginEnabled() == 1) n++;
    }
    return n;
}

void KTGroupItem::enableChildren(long long enabled) {
    for (const KTItemPtr& child : *children_) {
        if (child->isGroup()) {
            static_cast<KTGroupItem*>(child.get())->enableChildren(enabled);
        } else if (auto* plugin = static_cast<KTPluginItem*>(child.get()); !plugin->isLocked()) {
            plugin->setPluginEnabled(enabled);
        }
    }
}

void KTGroupItem::setChildAccess(std::int64_t access) {
    for (const KTItemPtr& child : *children_) {
        if (child->isGroup()) {
            static_cast<KTGroupItem*>(child.get())->setChildAccess(access);
        } else if (auto* plugin = static_cast<KTPluginItem*>(child.get()); !plugin->isLocked()) {
            plugin->setPluginAccess(access);
        }
    }
}

KTItemList KTGroupItem::allChildren() const {
    KTItemList out;
    for (const KTItemPtr& child : *children_) {
        out.push_back(child);
        if (const KTGroupItem* group = asGroup(child)) {
            KTItemList inner = group->allChildren();
            out.insert(out.end(), inner.begin(), inner.end());
        }
    }
    return out;
}

std::vector<std::shared_ptr<KTPluginItem>> KTGroupItem::allPluginChildren() const {
    std::vector<std::shared_ptr<KTPluginItem>> out;
    for (const KTItemPtr& child : *children_) {
        if (const KTGroupItem* group = asGroup(child)) {
            auto inner = group->allPluginChildren();
            out.insert(out.end(), inner.begin(), inner.end());
        } else if (child) {
            out.push_back(std::static_pointer_cast<KTPluginItem>(child));
        }
    }
    return out;
}

void KTGroupItem::sortChildren(KTSortKey key, bool descending) {
    auto sorted = std::make_shared<KTItemList>(*children_);
    std::stable_sort(sorted->begin(), sorted->end(), [key](const KTItemPtr& a, const KTItemPtr& b) {
        return a->compare(*b, key) == KTComparisonResult::Ascending;
    });
    if (descending) *sorted = reverseArray(*sorted);
    children_ = sorted;
    for (const KTItemPtr& child : *children_) child->sortChildren(key, descending);
}

KTComparisonResult KTGroupItem::nameCompare(const KTItem& other) const {
    return caseInsensitiveCompare(title_, other.sortName());
}

KTComparisonResult KTGroupItem::versionCompare(const KTItem& other) const {
    return other.isGroup() ? KTComparisonResult::Same : KTComparisonResult::Descending;
}

KTComparisonResult KTGroupItem::statusCompare(const KTItem& other) const {
    return other.isGroup() ? KTComparisonResult::Same : KTComparisonResult::Descending;
}

KTComparisonResult KTGroupItem::typeCompare(const KTItem& other) const {
    if (other.isGroup()) return KTComparisonResult::Same;
    return caseInsensitiveCompare("Group", other.sortTypeName());
}

std::shared_ptr<KTGroupItem> KTGroupItem::copy() const {
    auto group = std::make_shared<KTGroupItem>();
    group->title_ = title_;
    group->groupPath_ = groupPath_;
    group->subdir_ = subdir_;
    group->children_ = children_;
    group->groupEnabled_ = groupEnabled_;
    group->parent_ = parent_;
    return group;
}

std::shared_ptr<KTGroupItem> KTGroupItem::groupWithFilteredChildren(const std::string& text) const {
    auto kept = std::make_shared<KTItemList>();
    for (const KTItemPtr& child : *children_) {
        if (const KTGroupItem* group = asGroup(child)) {
            auto filtered = group->groupWithFilteredChildren(text);
            if (!filtered->children().empty() || containsIgnoringCase(filtered->title(), text))
                kept->push_back(filtered);
        } else if (const KTPluginItem* plugin = asPlugin(child)) {
            if (containsIgnoringCase(plugin->shortName(), text)) kept->push_back(child);
        }
    }
    auto result = copy();
    result->children_ = kept;
    return result;
}
