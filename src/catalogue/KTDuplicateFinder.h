#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "catalogue/KTCatalogueEntry.h"

/// Finds the plug-ins that are one product found more than once: the same
/// bundle identifier, the same name and version, or the same bundle reached
/// through a link. Such a set may hold both scopes, several formats (Audio
/// Unit, VST, VST2, VST3), enabled and disabled copies.
///
/// Within a set each format has at most one copy in use, the one its hosts
/// load: an enabled copy, the current user's before the machine's (hosts
/// look in the user's folders first), a real bundle before a link to it,
/// then the one found first. Other enabled copies of that format are
/// shadowed; disabled ones are not loaded at all.
class KTDuplicateFinder {
  public:
    struct Copy {
        std::size_t entry = 0;  ///< index into the entries given
        bool inUse = false;
        bool shadowed = false;
        std::string reason;  ///< why it is, or is not, the copy in use
    };
    struct Set {
        std::string title;         ///< "Glow 1.2"
        std::string why;           ///< what makes them one product
        std::vector<Copy> copies;  ///< in listing order
    };

    /// The sets of `entries` (in the order of their first member), and marks
    /// the shadowed entries.
    static std::vector<Set> find(std::vector<KTCatalogueEntry>& entries);

    /// The text of "-duplicates": one block per set, one line per copy.
    static std::string describe(const std::vector<KTCatalogueEntry>& entries,
                                const std::vector<Set>& sets);
};
