#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "SharedFiles/KTKeychain.h"

/// The Secret Service through libsecret, inside ambrel-services.so: the
/// calls behind KTSecretService, which checks for a session bus first and
/// documents each of them.
namespace KTLibsecretStore {

using Attributes = std::map<std::string, std::string>;

std::optional<std::vector<KTKeychainItem>> search(const Attributes& attributes, int* status);
std::optional<std::string> secretOf(const KTKeychainItem& item, int* status);
bool create(const std::string& label, const Attributes& attributes, const std::string& secret,
            int* status);
bool remove(const KTKeychainItem& item, int* status);
bool replaceSecret(const KTKeychainItem& item, const std::string& secret, int* status);

}  // namespace KTLibsecretStore
