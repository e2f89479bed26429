#include "services/KTGioFileManager.h"

#include <gio/gio.h>

namespace {

void take(GError* error, std::string* out) {
    if (out) *out = error ? error->message : "unknown error";
    if (error) g_error_free(error);
}

}  // namespace

KTGioFileManager::Result KTGioFileManager::showItems(const std::string& path, std::string* error) {
    GError* failure = nullptr;
    // A connection of its own, closed afterwards: nothing stays attached to
    // the bus between two clicks, and the address is the one set now.
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &failure);
    GDBusConnection* bus =
        address ? g_dbus_connection_new_for_address_sync(
                      address,
                      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                      nullptr, nullptr, &failure)
                : nullptr;
    g_free(address);
    if (!bus) {
        take(failure, error);
        return noBus;
    }
    gchar* uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
    if (!uri) {
        g_dbus_connection_close_sync(bus, nullptr, nullptr);
        g_object_unref(bus);
        if (error) *error = path + " has no file address";
        return noAddress;
    }
    const gchar* uris[] = {uri, nullptr};
    // A file manager that is not running is started by the bus; a short
    // wait keeps a missing one from holding the window.
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
        "org.freedesktop.FileManager1", "ShowItems", g_variant_new("(^ass)", uris, ""), nullptr,
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &failure);
    g_free(uri);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
    if (!reply) {
        take(failure, error);
        return noAnswer;
    }
    g_variant_unref(reply);
    return shown;
}
