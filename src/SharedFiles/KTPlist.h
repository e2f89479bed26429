#pragma once

#include <plist/plist.h>

#include <cstddef>
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

/// Property-list files: XML or binary read, XML or binary written. Every
/// list the program reads comes through here, and KTPlistGuard looks at the
/// bytes before libplist does (plug-ins ship these files).
class KTPlist {
  public:
    /// The largest file `readFile` reads.
    static constexpr std::size_t kMaxFileSize = 32 << 20;

    /// Parses a property list held in memory (XML or binary); null when it is
    /// not one, or when the guard refuses it.
    static KTPlistPtr fromMemory(const std::string& bytes);
    /// The same; a refusal's reason goes to `refused` (left alone otherwise).
    static KTPlistPtr fromMemory(const std::string& bytes, std::string* refused);
    /// Reads a property-list file; null when missing, unreadable, corrupt or
    /// refused. A refused file is logged once here, by name.
    static KTPlistPtr readFile(const std::string& path);
    /// The same without the log line: a refusal's reason goes to `refused`.
    static KTPlistPtr readFile(const std::string& path, std::string* refused);
    /// The line a refused file is logged with.
    static void logRefusal(const std::string& path, const std::string& reason);
    static std::string toXML(plist_t node);
    static std::string toBinary(plist_t node);
    /// Writes atomically: a temporary file beside the target, then a rename.
    /// `waitForDisk` syncs the temporary file before the rename, so that a
    /// power cut leaves the old file or the new one, never an empty one; the
    /// sync also waits for every change the process made to the file system
    /// before it, which after a batch of moves is the whole batch.
    static bool writeFileAtomically(const std::string& path, const std::string& bytes,
                                    std::string* error = nullptr, bool waitForDisk = true);

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
