#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "SharedFiles/KTKeychain.h"
#include "analytics/KTQCTransport.h"

/// What ambrel-services.so hands the core: the calls that need libsecret,
/// OpenSSL, libzip, libcurl or GIO, behind plain function pointers so that
/// no verb pays for loading those libraries unless it uses one of them. The
/// module is built from the same sources as the program; `abiVersion` and
/// `size` still catch a stale file left beside a newer program.
struct KTServiceTable {
    /// Raised whenever a member changes meaning or order.
    static constexpr int kAbiVersion = 1;
    int abiVersion = kAbiVersion;
    std::size_t size = sizeof(KTServiceTable);

    using Attributes = std::map<std::string, std::string>;

    // The Secret Service (see KTSecretService for the meaning of each call).
    std::optional<std::vector<KTKeychainItem>> (*secretSearch)(const Attributes& attributes,
                                                               int* status) = nullptr;
    std::optional<std::string> (*secretOf)(const KTKeychainItem& item, int* status) = nullptr;
    bool (*secretCreate)(const std::string& label, const Attributes& attributes,
                         const std::string& secret, int* status) = nullptr;
    bool (*secretRemove)(const KTKeychainItem& item, int* status) = nullptr;
    bool (*secretReplace)(const KTKeychainItem& item, const std::string& secret,
                          int* status) = nullptr;

    /// KTCertificateFile::Status as an int, names appended to `names`.
    int (*certificateNames)(const std::string& path, std::vector<std::string>& names,
                            long* code) = nullptr;

    bool (*zipCompress)(const std::string& source, const std::string& destination, bool keepParent,
                        std::string* error) = nullptr;

    /// An HTTPS post made ready (null when the address cannot be posted to);
    /// `cancelled` is watched while it runs and must outlive it.
    void* (*httpsPrepare)(const KTQCRequest& request, const std::atomic<bool>* cancelled) = nullptr;
    /// Sends a prepared post and frees it: nothing on success, else the error.
    std::optional<std::string> (*httpsPerform)(void* post) = nullptr;

    /// org.freedesktop.FileManager1.ShowItems on a connection of its own:
    /// 0 shown, 1 no session bus reached, 2 no file manager answered, 3 the
    /// path has no file address; the reason in `error`.
    int (*showItems)(const std::string& path, std::string* error) = nullptr;
};

/// The module's one exported symbol.
using KTServiceTableEntry = const KTServiceTable* (*)();
inline constexpr const char* kServiceTableSymbol = "ambrel_services_table";
