#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// One stored secret as the store handed it out: enough to read its data
/// and attributes again, or to change or delete exactly this one.
struct KTKeychainItem {
    std::string objectPath;                         ///< the store's own name of the item
    std::string label;                              ///< the item name shown by desktop tools
    std::map<std::string, std::string> attributes;  ///< "labl", "acct", "desc", "svce", ...
    long long created = 0;                          ///< seconds since the epoch
    std::shared_ptr<void> handle;                   ///< the store's own object
};
using KTKeychainItemRef = std::shared_ptr<KTKeychainItem>;

/// The user's secret store and certificate files. Stateless: every call goes
/// to the store again, so that the window, the installer build and the
/// notarisation threads may call at once.
///
/// A secret is a generic password described by up to four attributes, each
/// used only when its argument is given: item name "labl" (also the item's
/// label), item kind "desc", user name "acct", host name "svce". No failure
/// is ever shown to the user: each is written to the system console
/// (standard error) and answered with an empty result. With no session bus,
/// or with the store locked, there is simply nothing stored and nothing can
/// be stored.
class KTKeychain {
  public:
    using Text = std::optional<std::string>;

    /// The item holding the notarisation account (account = Apple ID).
    static constexpr const char* kAppleIDItemName = "Ambrel Apple ID";
    /// Passwords read back are cut to this many bytes.
    static constexpr std::size_t kMaxPasswordBytes = 1023;

    /// The first matching item (the earliest created), or null. Without any
    /// attribute nothing is searched.
    static KTKeychainItemRef keychainItem(const Text& itemName, const Text& itemKind,
                                          const Text& username, const Text& hostname);
    static bool checkForExistenceOfKeychainItem(const Text& itemName, const Text& itemKind,
                                                const Text& username, const Text& hostname);
    /// The item's data as text, at most 1023 bytes; nothing on error.
    static Text getPasswordFromSecKeychainItemRef(const KTKeychainItemRef& item);
    static Text getPasswordFromKeychainItem(const Text& itemName, const Text& itemKind,
                                            const Text& username, const Text& hostname);
    /// One attribute by its four-character code ("acct"); empty when absent.
    static std::string attributeFromKeychainItemRef(const KTKeychainItemRef& item,
                                                    const std::string& attribute);
    /// Creates a new item in the default collection. The store has no access
    /// lists: `additionalApplications` are only logged.
    static bool addKeychainItem(const Text& itemName, const Text& itemKind, const Text& username,
                                const std::string& password, const Text& hostname,
                                const std::vector<std::string>& additionalApplications = {});
    /// Deletes every matching item; true when none is left.
    static bool deleteKeychainItem(const Text& itemName, const Text& itemKind, const Text& username,
                                   const Text& hostname);
    static bool deleteAllKeychainItems(const Text& itemName, const Text& itemKind);
    /// Replaces the data of the first match.
    static bool modifyKeychainItem(const Text& itemName, const Text& itemKind, const Text& username,
                                   const Text& hostname, const std::string& newPassword);
    /// The store keeps no list of trusted programs: these log and do nothing.
    static void addTrustedAppAtPath(const std::string& path, const KTKeychainItemRef& item);
    static std::vector<std::string> trustedAppsForItemRef(const KTKeychainItemRef& item);

    /// The common names of the certificate files in the user's and then the
    /// machine's "Library/Keychains/Certificates", each folder in name order
    /// (PEM, DER and PKCS#12 without a password). Nothing when a folder that
    /// exists cannot be listed.
    static std::optional<std::vector<std::string>> certificateNames();
    /// The two folders `certificateNames` reads, user's first.
    static std::vector<std::string> certificateFolders();

    /// The stored notarisation account: true with both values when an item
    /// named "Ambrel Apple ID" exists (the first one found).
    static bool appleIDInfo(std::string* appleID, std::string* password);
    /// Deletes every "Ambrel Apple ID" item, then adds one when both values
    /// are non-empty. False when the store refused either step.
    static bool setAppleIDInfo(const std::string& appleID, const std::string& password);
};
