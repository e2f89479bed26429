#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "SharedFiles/KTPlist.h"

/// One preference value of the kinds the program keeps.
using KTPreferenceValue =
    std::variant<std::string, long long, bool, double, std::vector<std::string>>;

/// A preference domain: one property-list file of keys and values, read
/// afresh on every lookup (another process, the privileged helper among them,
/// may write it) and written atomically, keeping the keys it does not touch.
/// Registered defaults answer for keys the file lacks. A file that cannot be
/// read or parsed reads as empty and is logged; a read never writes it, and a
/// write over it first keeps it aside as NAME.corrupt. Safe from any thread.
class KTPreferences {
  public:
    /// The domain `domain` in the user's (true) or the machine's Preferences folder.
    KTPreferences(std::string domain, bool userDomain);
    /// Whether a write waits for the disk before it replaces the file.
    enum class Writes { WaitForDisk, DoNotWait };
    /// A domain at a fixed file (tests, tools, the run markers). `DoNotWait`
    /// is for a file whose loss in a power cut costs nothing.
    explicit KTPreferences(std::string fixedPath, Writes writes = Writes::WaitForDisk);

    /// "com.quellbrook.Ambrel" in the user's Preferences: the application's own.
    static KTPreferences& standard();
    /// "com.quellbrook.Ambrel" in the machine's Preferences: "requireAdminPassword".
    static KTPreferences& machine();
    /// "com.quellbrook.global", shared with the maker's other programs
    /// ("disable-logging", "disable-crash-reporter").
    static KTPreferences& global();

    /// The machine-wide "requireAdminPassword".
    static bool requireAdminPassword();

    /// The file the domain lives in (it follows HOME and AMBREL_ROOT).
    std::string path() const;

    /// Values that answer for keys the file does not hold. Later
    /// registrations replace earlier ones of the same key.
    void registerDefaults(const std::map<std::string, KTPreferenceValue>& defaults);

    std::optional<KTPreferenceValue> objectForKey(const std::string& key) const;
    /// The text, or a number written as text; nothing otherwise.
    std::optional<std::string> stringForKey(const std::string& key) const;
    /// A number, a boolean (1 or 0) or a text that reads as a number; 0 otherwise.
    long long integerForKey(const std::string& key) const;
    double doubleForKey(const std::string& key) const;
    /// A boolean, a non-zero number, or a text "YES", "true" or a non-zero number.
    bool boolForKey(const std::string& key) const;
    /// An array's text entries; empty when absent or not an array.
    std::vector<std::string> stringArrayForKey(const std::string& key) const;
    /// Any value, dictionaries and data included, as a copy (null when absent).
    KTPlistPtr plistForKey(const std::string& key) const;

    /// Each write answers false, with the reason in `error`, when the file
    /// could not be written; the file is then as it was.
    bool setObject(const std::string& key, const KTPreferenceValue& value,
                   std::string* error = nullptr);
    bool setString(const std::string& key, const std::string& value, std::string* error = nullptr) {
        return setObject(key, value, error);
    }
    bool setInteger(const std::string& key, long long value, std::string* error = nullptr) {
        return setObject(key, value, error);
    }
    bool setBool(const std::string& key, bool value, std::string* error = nullptr) {
        return setObject(key, value, error);
    }
    bool setDouble(const std::string& key, double value, std::string* error = nullptr) {
        return setObject(key, value, error);
    }
    bool setStringArray(const std::string& key, const std::vector<std::string>& value,
                        std::string* error = nullptr) {
        return setObject(key, value, error);
    }
    /// Stores a copy of any property-list node (a dictionary, data, ...).
    bool setPlist(const std::string& key, plist_t value, std::string* error = nullptr);
    bool removeObjectForKey(const std::string& key, std::string* error = nullptr);

  private:
    /// The file's dictionary (an empty one when missing or unreadable) and
    /// whether the file was there but unreadable.
    KTPlistPtr load(bool* corrupt) const;
    /// Looks `key` up in the file, then in the defaults; a copy or null.
    KTPlistPtr lookup(const std::string& key) const;
    bool change(const std::string& key, plist_t newValue, std::string* error);

    std::function<std::string()> path_;
    bool waitForDisk_ = true;
    mutable std::mutex lock_;
    std::map<std::string, KTPreferenceValue> defaults_;
};
