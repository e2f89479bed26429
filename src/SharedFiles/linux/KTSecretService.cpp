#include "SharedFiles/linux/KTSecretService.h"

#include <unistd.h>

#include <cstdlib>

#include "SharedFiles/linux/KTServiceModule.h"

namespace KTSecretService {
namespace {

/// Errors that are not the store's own (no bus, nothing running, no
/// module) still need a non-zero status.
constexpr int kNoService = -25300;  // the platform's "item not found" family

void setStatus(int* status, int value) {
    if (status) *status = value;
}

/// The module's calls, or null with the status of a missing store.
const KTServiceTable* store(int* status) {
    const KTServiceTable* table = KTServiceModule::services();
    if (!table) setStatus(status, kNoService);
    return table;
}

}  // namespace

bool sessionBusAvailable() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address && *address) return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime) return false;
    const std::string bus = std::string(runtime) + "/bus";
    return ::access(bus.c_str(), F_OK) == 0;
}

std::optional<std::vector<KTKeychainItem>> search(const Attributes& attributes, int* status) {
    setStatus(status, 0);
    // No bus, no store: the libraries are not even loaded.
    if (!sessionBusAvailable()) {
        setStatus(status, kNoService);
        return std::nullopt;
    }
    const KTServiceTable* table = store(status);
    return table ? table->secretSearch(attributes, status) : std::nullopt;
}

std::optional<std::string> secretOf(const KTKeychainItem& item, int* status) {
    setStatus(status, 0);
    const KTServiceTable* table = store(status);
    return table ? table->secretOf(item, status) : std::nullopt;
}

bool create(const std::string& label, const Attributes& attributes, const std::string& secret,
            int* status) {
    setStatus(status, 0);
    if (!sessionBusAvailable()) {
        setStatus(status, kNoService);
        return false;
    }
    const KTServiceTable* table = store(status);
    return table && table->secretCreate(label, attributes, secret, status);
}

bool remove(const KTKeychainItem& item, int* status) {
    setStatus(status, 0);
    const KTServiceTable* table = store(status);
    return table && table->secretRemove(item, status);
}

bool replaceSecret(const KTKeychainItem& item, const std::string& secret, int* status) {
    setStatus(status, 0);
    const KTServiceTable* table = store(status);
    return table && table->secretReplace(item, secret, status);
}

}  // namespace KTSecretService
