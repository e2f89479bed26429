#pragma once

#include <plist/plist.h>

#include <memory>
#include <optional>
#include <string>

/// Owning handle of a libplist node.
struct KTPlistDeleter {
    void operator()(plist_t p) const {
        if (p) plist_free(p);
    }
};
using KTPlistPtr = std::unique_ptr<void, KTPlistDeleter>;

/// Property-list files: XML or binary read, XML or binary written.
class KTPlist {
  public:
    /// Parses a property list held in memory (XML or binary); null when it is not one.
    static KTPlistPtr fromMemory(const std::string& bytes);
    /// Reads a property-list file; null when missing, unreadable or corrupt.
    static KTPlistPtr readFile(const std::string& path);
    static std::string toXML(plist_t node);
    static std::string toBinary(plist_t node);
    /// Writes atomically: a temporary file beside the target, then a rename.
    static bool writeFileAtomically(const std::string& path, const std::string& bytes,
                                    std::string* error = nullptr);

    /// The text of a string node; nothing for any other node.
    static std::optional<std::string> stringValue(plist_t node);
    /// An integer, a boolean (1 or 0) or a real in range, as an integer;
    /// nothing for any other node.
    static std::optional<long long> integerValue(plist_t node);
    /// A date node, in whole seconds since 1 January 1970 (the files count
    /// from 2001, as the maker's programs on macOS wrote them); nothing for any
    /// other node.
    static std::optional<long long> dateValue(plist_t node);
    /// A new date node for a time in seconds since 1 January 1970.
    static KTPlistPtr newDate(long long unixSeconds);

    /// Typed reads of a dictionary entry; nothing when absent or of another type.
    static std::optional<std::string> stringForKey(plist_t dict, const char* key);
    static std::optional<long long> integerForKey(plist_t dict, const char* key);
    /// A boolean, or a number compared with zero.
    static std::optional<bool> boolForKey(plist_t dict, const char* key);
};
