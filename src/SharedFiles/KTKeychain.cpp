#include "SharedFiles/KTKeychain.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "SharedFiles/KTFormat.h"
#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/linux/KTCertificateFile.h"
#include "SharedFiles/linux/KTSecretService.h"

namespace {

/// The system console of this platform: standard error.
template <class... A>
void console(std::string_view format, const A&... args) {
    const std::string text = KTFormat::str(format, args...);
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
}

using Text = KTKeychain::Text;

/// Only the attributes whose arguments are given, in the keychain's order.
KTSecretService::Attributes attributesFor(const Text& itemName, const Text& itemKind,
                                          const Text& username, const Text& hostname) {
    KTSecretService::Attributes out;
    if (username) out["acct"] = *username;
    if (itemKind) out["desc"] = *itemKind;
    if (itemName) out["labl"] = *itemName;
    if (hostname) out["svce"] = *hostname;
    return out;
}

std::vector<KTKeychainItem> matches(const Text& itemName, const Text& itemKind,
                                    const Text& username, const Text& hostname) {
    const auto attributes = attributesFor(itemName, itemKind, username, hostname);
    if (attributes.empty()) return {};
    int status = 0;
    auto found = KTSecretService::search(attributes, &status);
    if (!found) {
        console("status %d from SecKeychainSearchCreateFromAttributes\n", status);
        return {};
    }
    return std::move(*found);
}

/// The names in a folder, in name order; nothing with errno when it exists
/// but cannot be listed.
std::optional<std::vector<std::string>> sortedEntries(const std::string& folder, long* code) {
    std::vector<std::string> out;
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) {
        if (errno == ENOENT || errno == ENOTDIR) return out;
        *code = errno;
        return std::nullopt;
    }
    while (dirent* e = ::readdir(dir)) {
        const std::string name = e->d_name;
        if (name.empty() || name[0] == '.') continue;
        out.push_back(name);
    }
    ::closedir(dir);
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

KTKeychainItemRef KTKeychain::keychainItem(const Text& itemName, const Text& itemKind,
                                           const Text& username, const Text& hostname) {
    auto found = matches(itemName, itemKind, username, hostname);
    if (found.empty()) return nullptr;
    return std::make_shared<KTKeychainItem>(std::move(found.front()));
}

bool KTKeychain::checkForExistenceOfKeychainItem(const Text& itemName, const Text& itemKind,
                                                 const Text& username, const Text& hostname) {
    return keychainItem(itemName, itemKind, username, hostname) != nullptr;
}

Text KTKeychain::getPasswordFromSecKeychainItemRef(const KTKeychainItemRef& item) {
    if (!item) return std::nullopt;
    int status = 0;
    auto secret = KTSecretService::secretOf(*item, &status);
    if (!secret) {
        std::printf("Error = %d\n", status);
        std::fflush(stdout);
        return std::nullopt;
    }
    if (secret->size() > kMaxPasswordBytes) secret->resize(kMaxPasswordBytes);
    return secret;
}

Text KTKeychain::getPasswordFromKeychainItem(const Text& itemName, const Text& itemKind,
                                             const Text& username, const Text& hostname) {
    return getPasswordFromSecKeychainItemRef(keychainItem(itemName, itemKind, username, hostname));
}

std::string KTKeychain::attributeFromKeychainItemRef(const KTKeychainItemRef& item,
                                                     const std::string& attribute) {
    if (!item) return {};
    auto it = item->attributes.find(attribute);
    if (it != item->attributes.end()) return it->second;
    // Items stored by other tools may carry the name only as their label.
    return attribute == "labl" ? item->label : std::string();
}

bool KTKeychain::addKeychainItem(const Text& itemName, const Text& itemKind, const Text& username,
                                 const std::string& password, const Text& hostname,
                                 const std::vector<std::string>& additionalApplications) {
    for (const auto& app : additionalApplications)
        console("No access list on this keychain: %@ is not added to %@\n", app,
                itemName.value_or(""));
    int status = 0;
    if (!KTSecretService::create(itemName.value_or(""),
                                 attributesFor(itemName, itemKind, username, hostname), password,
                                 &status)) {
        console("Error creating new item: %d\n", status);
        return false;
    }
    return true;
}

bool KTKeychain::deleteKeychainItem(const Text& itemName, const Text& itemKind,
                                    const Text& username, const Text& hostname) {
    const auto attributes = attributesFor(itemName, itemKind, username, hostname);
    if (attributes.empty()) return false;
    int status = 0;
    auto found = KTSecretService::search(attributes, &status);
    if (!found) {
        console("status %d from SecKeychainSearchCreateFromAttributes\n", status);
        return false;
    }
    bool ok = true;
    for (const auto& item : *found) {
        if (!KTSecretService::remove(item, &status)) {
            console("Error deleting item: %d\n", status);
            ok = false;
        }
    }
    return ok;
}

bool KTKeychain::deleteAllKeychainItems(const Text& itemName, const Text& itemKind) {
    return deleteKeychainItem(itemName, itemKind, std::nullopt, std::nullopt);
}

bool KTKeychain::modifyKeychainItem(const Text& itemName, const Text& itemKind,
                                    const Text& username, const Text& hostname,
                                    const std::string& newPassword) {
    auto item = keychainItem(itemName, itemKind, username, hostname);
    int status = 0;
    if (!item || !KTSecretService::replaceSecret(*item, newPassword, &status)) {
        console("Error modifying item: %d", item ? status : -25300);
        return false;
    }
    return true;
}

void KTKeychain::addTrustedAppAtPath(const std::string& path, const KTKeychainItemRef& item) {
    console("No access list on this keychain: %@ is not added to %@\n", path,
            item ? item->label : std::string());
}

std::vector<std::string> KTKeychain::trustedAppsForItemRef(const KTKeychainItemRef&) {
    return {};
}

std::vector<std::string> KTKeychain::certificateFolders() {
    return {KTLocalPaths::libraryDirectory(true) + "/Keychains/Certificates",
            KTLocalPaths::libraryDirectory(false) + "/Keychains/Certificates"};
}

std::optional<std::vector<std::string>> KTKeychain::certificateNames() {
    std::vector<std::string> names;
    for (const auto& folder : certificateFolders()) {
        long code = 0;
        auto entries = sortedEntries(folder, &code);
        if (!entries) {
            console("Unable to create keychain search: %ld\n", code);
            return std::nullopt;
        }
        for (const auto& name : *entries) {
            const std::string path = folder + "/" + name;
            switch (KTCertificateFile::commonNames(path, names, &code)) {
                case KTCertificateFile::Status::Ok:
                    break;
                case KTCertificateFile::Status::Unreadable:
                    console("Unable to copy keychain content: %ld\n", code);
                    break;
                case KTCertificateFile::Status::NotACertificate:
                    console("Unable to create keychain certificate from data: %ld\n", code);
                    break;
            }
        }
    }
    return names;
}

bool KTKeychain::appleIDInfo(std::string* appleID, std::string* password) {
    auto item =
        keychainItem(std::string(kAppleIDItemName), std::nullopt, std::nullopt, std::nullopt);
    if (!item) return false;
    auto secret = getPasswordFromSecKeychainItemRef(item);
    if (!secret) return false;
    if (appleID) *appleID = attributeFromKeychainItemRef(item, "acct");
    if (password) *password = *secret;
    return true;
}

bool KTKeychain::setAppleIDInfo(const std::string& appleID, const std::string& password) {
    bool ok = deleteAllKeychainItems(std::string(kAppleIDItemName), std::nullopt);
    if (!appleID.empty() && !password.empty())
        ok = addKeychainItem(std::string(kAppleIDItemName), std::nullopt, appleID, password,
                             std::nullopt) &&
             ok;
    return ok;
}
