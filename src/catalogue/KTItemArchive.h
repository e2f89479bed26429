#pragma once

#include <optional>
#include <string>

#include "catalogue/KTItem.h"

/// The keyed archive of catalogue items, as the platform's keyed archiver
/// writes it and its unarchiver reads it: a binary property list with
/// "$archiver" "NSKeyedArchiver", "$version" 100000, "$top" {"root": UID} and
/// "$objects" starting with "$null".
///
/// The items code their fields sequentially, so each item's dictionary holds
/// "$0", "$1", ... in field order: objects as UIDs (nil as UID 0), the kind
/// and scope of a plug-in inline as integers. Lists are NSMutableArray with
/// "NS.objects". Equal strings and numbers, and any item or list reached
/// twice (a group as a parent and as its children's container), are stored
/// once and shared by UID. Each object takes its UID when first reached and
/// its class dictionary is added after its contents, as the archiver does.
class KTItemArchive {
  public:
    /// An archive whose root is the list (an NSMutableArray of items).
    static std::string archivedDataWithRootObject(const KTItemList& items);
    /// An archive whose root is one item.
    static std::string archivedDataWithRootObject(const KTItemPtr& item);

    /// Reads an archive back: the items of a root list, or the root item
    /// alone. Fields go through the items' ordinary setters (so a plug-in's
    /// `actualPath` is recomputed; lock flags and a plug-in's parent are not
    /// archived). Nothing when the bytes are not such an archive.
    static std::optional<KTItemList> unarchiveObjectWithData(const std::string& bytes);

    static bool writeToFile(const KTItemList& items, const std::string& path,
                            std::string* error = nullptr);
    static std::optional<KTItemList> readFromFile(const std::string& path);
};
