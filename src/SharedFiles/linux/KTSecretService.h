#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "SharedFiles/KTKeychain.h"

/// The freedesktop Secret Service (gnome-keyring, KeePassXC, ...) through
/// libsecret: the keychain's generic passwords on Linux. Items carry the
/// attributes given, under the schema "com.quellbrook.Ambrel.GenericPassword"
/// (not matched on search, so that items stored by other tools with the same
/// attributes are found too). Every call answers a status: 0, or the code of
/// the store's error, for the caller's log line.
namespace KTSecretService {

using Attributes = std::map<std::string, std::string>;

/// Whether a session bus can be reached without starting one: GLib would
/// otherwise launch a private bus that outlives the program.
bool sessionBusAvailable();

/// The matching items, earliest created first (ties by object path);
/// nothing when the search could not run.
std::optional<std::vector<KTKeychainItem>> search(const Attributes& attributes, int* status);
/// The item's data; nothing when it cannot be read (a locked store).
std::optional<std::string> secretOf(const KTKeychainItem& item, int* status);
/// A new item in the default collection; fails when the collection is locked.
bool create(const std::string& label, const Attributes& attributes, const std::string& secret,
            int* status);
bool remove(const KTKeychainItem& item, int* status);
bool replaceSecret(const KTKeychainItem& item, const std::string& secret, int* status);

}  // namespace KTSecretService
