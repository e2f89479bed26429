#include <algorithm>

#include "catalogue/OutlineViewController.h"

KTSortKey OutlineViewController::sortKeyForColumn(const std::string& identifier) {
    if (identifier == "colName") return KTSortKey::Name;
    if (identifier == "colVersion") return KTSortKey::Version;
    if (identifier == "colStatus") return KTSortKey::Status;
    return KTSortKey::Type;
}

void OutlineViewController::sortColumnWithIdentifier(const std::string& identifier,
                                                     bool descending) {
    const KTSortKey key = sortKeyForColumn(identifier);
    std::lock_guard<std::recursive_mutex> l(treeLock_);
    KTItemList sorted = dataArray_;
    sorted.erase(std::remove(sorted.begin(), sorted.end(), nullptr), sorted.end());
    std::stable_sort(sorted.begin(), sorted.end(), [key](const KTItemPtr& a, const KTItemPtr& b) {
        return a->compare(*b, key) == KTComparisonResult::Ascending;
    });
    if (descending) sorted = KTItem::reverseArray(sorted);
    for (const auto& item : sorted) item->sortChildren(key, descending);
    dataArray_ = std::move(sorted);
    // The search result holds copies made from the old order: make them afresh.
    if (!searchText_.empty()) search(searchText_);
}
