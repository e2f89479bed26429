#include "services/KTLibsecretStore.h"

#include <libsecret/secret.h>

#include <algorithm>

namespace KTLibsecretStore {
namespace {

/// Errors that are not the store's own (no bus, nothing running) still need
/// a non-zero status.
constexpr int kNoService = -25300;  // the platform's "item not found" family

const SecretSchema* schema() {
    // Only the four attributes the keychain describes items with.
    static const SecretSchema kSchema = {"com.quellbrook.Ambrel.GenericPassword",
                                         SECRET_SCHEMA_DONT_MATCH_NAME,
                                         {
                                             {"labl", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                             {"acct", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                             {"desc", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                             {"svce", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                             {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
                                         },
                                         0,
                                         nullptr,
                                         nullptr,
                                         nullptr,
                                         nullptr,
                                         nullptr,
                                         nullptr,
                                         nullptr};
    return &kSchema;
}

int takeError(GError* error) {
    if (!error) return kNoService;
    const int code = error->code ? error->code : kNoService;
    g_error_free(error);
    return code;
}

void setStatus(int* status, int value) {
    if (status) *status = value;
}

struct HashTable {
    GHashTable* table = g_hash_table_new(g_str_hash, g_str_equal);
    ~HashTable() { g_hash_table_unref(table); }
};

/// A hash table that borrows the strings of `attributes`.
void fill(HashTable& out, const Attributes& attributes) {
    for (const auto& [key, value] : attributes)
        g_hash_table_insert(out.table, const_cast<char*>(key.c_str()),
                            const_cast<char*>(value.c_str()));
}

/// The service, or null with a status. The proxy is shared by libsecret.
/// The caller has made sure a session bus is there.
SecretService* service(int* status) {
    GError* error = nullptr;
    SecretService* s = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
    if (!s) setStatus(status, takeError(error));
    return s;
}

KTKeychainItem describe(SecretItem* item) {
    KTKeychainItem out;
    out.objectPath = g_dbus_proxy_get_object_path(G_DBUS_PROXY(item));
    gchar* label = secret_item_get_label(item);
    out.label = label ? label : "";
    g_free(label);
    GHashTable* attributes = secret_item_get_attributes(item);
    GHashTableIter it;
    gpointer key, value;
    g_hash_table_iter_init(&it, attributes);
    while (g_hash_table_iter_next(&it, &key, &value))
        out.attributes[static_cast<const char*>(key)] = static_cast<const char*>(value);
    g_hash_table_unref(attributes);
    out.created = static_cast<long long>(secret_item_get_created(item));
    g_object_ref(item);
    out.handle = std::shared_ptr<void>(item, [](void* p) { g_object_unref(p); });
    return out;
}

SecretItem* itemOf(const KTKeychainItem& item) {
    return static_cast<SecretItem*>(item.handle.get());
}

/// Object paths end in a counter: a shorter one is an older one.
bool earlier(const KTKeychainItem& a, const KTKeychainItem& b) {
    if (a.created != b.created) return a.created < b.created;
    if (a.objectPath.size() != b.objectPath.size())
        return a.objectPath.size() < b.objectPath.size();
    return a.objectPath < b.objectPath;
}

}  // namespace

std::optional<std::vector<KTKeychainItem>> search(const Attributes& attributes, int* status) {
    setStatus(status, 0);
    SecretService* s = service(status);
    if (!s) return std::nullopt;
    HashTable table;
    fill(table, attributes);
    GError* error = nullptr;
    // Never SECRET_SEARCH_UNLOCK: an unlock prompt would wait for a person
    // who may not be there; a locked item reads as having no data.
    GList* found =
        secret_service_search_sync(s, schema(), table.table, SECRET_SEARCH_ALL, nullptr, &error);
    g_object_unref(s);
    if (error) {
        setStatus(status, takeError(error));
        return std::nullopt;
    }
    std::vector<KTKeychainItem> out;
    for (GList* l = found; l; l = l->next) out.push_back(describe(SECRET_ITEM(l->data)));
    g_list_free_full(found, g_object_unref);
    std::sort(out.begin(), out.end(), earlier);
    return out;
}

std::optional<std::string> secretOf(const KTKeychainItem& item, int* status) {
    setStatus(status, 0);
    SecretItem* handle = itemOf(item);
    if (!handle) {
        setStatus(status, kNoService);
        return std::nullopt;
    }
    GError* error = nullptr;
    if (secret_item_get_locked(handle) || !secret_item_load_secret_sync(handle, nullptr, &error)) {
        setStatus(status, takeError(error));
        return std::nullopt;
    }
    SecretValue* value = secret_item_get_secret(handle);
    if (!value) {
        setStatus(status, kNoService);
        return std::nullopt;
    }
    gsize length = 0;
    const gchar* bytes = secret_value_get(value, &length);
    std::string out(bytes, length);
    secret_value_unref(value);
    return out;
}

bool create(const std::string& label, const Attributes& attributes, const std::string& secret,
            int* status) {
    setStatus(status, 0);
    SecretService* s = service(status);
    if (!s) return false;
    GError* error = nullptr;
    SecretCollection* collection = secret_collection_for_alias_sync(
        s, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error);
    g_object_unref(s);
    if (!collection) {
        setStatus(status, takeError(error));
        return false;
    }
    // A locked collection would ask for its password: refuse instead.
    if (secret_collection_get_locked(collection)) {
        g_object_unref(collection);
        setStatus(status, kNoService);
        return false;
    }
    HashTable table;
    fill(table, attributes);
    SecretValue* value = secret_value_new(secret.data(), static_cast<gssize>(secret.size()),
                                          "application/octet-stream");
    SecretItem* item = secret_item_create_sync(collection, schema(), table.table, label.c_str(),
                                               value, SECRET_ITEM_CREATE_NONE, nullptr, &error);
    secret_value_unref(value);
    g_object_unref(collection);
    if (!item) {
        setStatus(status, takeError(error));
        return false;
    }
    g_object_unref(item);
    return true;
}

bool remove(const KTKeychainItem& item, int* status) {
    setStatus(status, 0);
    SecretItem* handle = itemOf(item);
    GError* error = nullptr;
    if (!handle || !secret_item_delete_sync(handle, nullptr, &error)) {
        setStatus(status, takeError(error));
        return false;
    }
    return true;
}

bool replaceSecret(const KTKeychainItem& item, const std::string& secret, int* status) {
    setStatus(status, 0);
    SecretItem* handle = itemOf(item);
    if (!handle) {
        setStatus(status, kNoService);
        return false;
    }
    SecretValue* value = secret_value_new(secret.data(), static_cast<gssize>(secret.size()),
                                          "application/octet-stream");
    GError* error = nullptr;
    const bool ok = secret_item_set_secret_sync(handle, value, nullptr, &error);
    secret_value_unref(value);
    if (!ok) setStatus(status, takeError(error));
    return ok;
}

}  // namespace KTLibsecretStore
