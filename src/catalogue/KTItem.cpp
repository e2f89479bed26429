#include "catalogue/KTItem.h"

#include <algorithm>
#include <cctype>
#include <exception>

#include "SharedFiles/KTLog.h"
#include "catalogue/KTGroupItem.h"

std::shared_ptr<KTGroupItem> KTItem::absoluteParent() const {
    std::shared_ptr<KTGroupItem> top = parent();
    // Nesting is at most ten deep; the bound only guards a damaged tree with a cycle.
    for (int depth = 0; top && depth < 1000; ++depth) {
        std::shared_ptr<KTGroupItem> up = top->parent();
        if (!up) break;
        top = up;
    }
    return top;
}

KTComparisonResult KTItem::compare(const KTItem& other, KTSortKey key) const {
    switch (key) {
        case KTSortKey::Name:
            return nameCompare(other);
        case KTSortKey::Version:
            return versionCompare(other);
        case KTSortKey::Status:
            return statusCompare(other);
        case KTSortKey::Type:
            return typeCompare(other);
    }
    return KTComparisonResult::Same;
}

KTItemList KTItem::reverseArray(const KTItemList& list) {
    try {
        return KTItemList(list.rbegin(), list.rend());
    } catch (const std::exception& e) {
        KTException::logException(e, "reverseArray:");
        return {};
    }
}

KTComparisonResult KTItem::caseInsensitiveCompare(const std::string& a, const std::string& b) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        int ca = std::tolower(static_cast<unsigned char>(a[i]));
        int cb = std::tolower(static_cast<unsigned char>(b[i]));
        if (ca != cb)
            return ca < cb ? KTComparisonResult::Ascending : KTComparisonResult::Descending;
    }
    if (a.size() == b.size()) return KTComparisonResult::Same;
    return a.size() < b.size() ? KTComparisonResult::Ascending : KTComparisonResult::Descending;
}

bool KTItem::containsIgnoringCase(const std::string& text, const std::string& part) {
    auto it = std::search(text.begin(), text.end(), part.begin(), part.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    });
    return it != text.end() || part.empty();
}
