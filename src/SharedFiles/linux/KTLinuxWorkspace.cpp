#include "SharedFiles/linux/KTLinuxWorkspace.h"

#include <gio/gio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTTaskEx.h"

namespace fs = std::filesystem;

namespace {

bool hasAppExtension(const fs::path& p) {
    return p.extension() == ".app";
}

/// Folder entries sorted by name, so that "first found" does not depend on
/// the order the file system happens to list them in.
std::vector<fs::path> sortedFolders(const fs::path& folder) {
    std::vector<fs::path> out;
    std::error_code ec;
    fs::directory_iterator it(folder, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        std::error_code typeError;
        if (it->is_directory(typeError)) out.push_back(it->path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

void addBundle(const fs::path& bundle, std::map<std::string, std::string>& apps) {
    KTPlistPtr info = KTPlist::readFile((bundle / "Contents" / "Info.plist").string());
    if (!info) return;
    auto identifier = KTPlist::stringForKey(info.get(), "CFBundleIdentifier");
    if (identifier && !identifier->empty()) apps.emplace(*identifier, bundle.string());
}

}  // namespace

std::vector<std::string> KTLinuxWorkspace::applicationFolders() {
    return {KTLocalPaths::applicationDirectory(false), KTLocalPaths::applicationDirectory(true)};
}

std::map<std::string, std::string> KTLinuxWorkspace::scanApplications() {
    std::map<std::string, std::string> apps;
    for (const std::string& folder : applicationFolders()) {
        for (const fs::path& entry : sortedFolders(folder)) {
            if (hasAppExtension(entry)) {
                addBundle(entry, apps);
                continue;
            }
            for (const fs::path& inner : sortedFolders(entry)) {
                if (hasAppExtension(inner)) addBundle(inner, apps);
            }
        }
    }
    return apps;
}

std::optional<std::string> KTLinuxWorkspace::absolutePathForAppBundleWithIdentifier(
    const std::string& bundleIdentifier) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!loaded_) {
        applications_ = scanApplications();
        loaded_ = true;
    }
    auto it = applications_.find(bundleIdentifier);
    if (it == applications_.end()) return std::nullopt;
    return it->second;
}

void KTLinuxWorkspace::refreshApplications() {
    std::lock_guard<std::mutex> lock(mutex_);
    loaded_ = false;
    applications_.clear();
}

bool KTLinuxWorkspace::showItemsOnSessionBus(const std::string& path) {
    GError* error = nullptr;
    // No address means no session: connecting would only try to start one.
    if (!std::getenv("DBUS_SESSION_BUS_ADDRESS")) return false;
    // A connection of its own, closed afterwards: nothing stays attached to
    // the bus between two clicks, and the address is the one set now.
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    GDBusConnection* bus =
        address ? g_dbus_connection_new_for_address_sync(
                      address,
                      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                      nullptr, nullptr, &error)
                : nullptr;
    g_free(address);
    if (!bus) {
        KTLog::appendLog("Unable to reach the session bus. %@", std::string(error->message));
        g_error_free(error);
        return false;
    }
    gchar* uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
    if (!uri) {
        g_dbus_connection_close_sync(bus, nullptr, nullptr);
        g_object_unref(bus);
        return false;
    }
    const gchar* uris[] = {uri, nullptr};
    // A file manager that is not running is started by the bus; a short
    // wait keeps a missing one from holding the window.
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
        "org.freedesktop.FileManager1", "ShowItems", g_variant_new("(^ass)", uris, ""), nullptr,
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    g_free(uri);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
    if (!reply) {
        KTLog::appendLog("No file manager answered on the session bus. %@",
                         std::string(error->message));
        g_error_free(error);
        return false;
    }
    g_variant_unref(reply);
    return true;
}

bool KTLinuxWorkspace::openContainingFolder(const std::string& path) {
    const std::string folder = fs::path(path).parent_path().string();
    const char* searchPath = std::getenv("PATH");
    std::string list = searchPath ? searchPath : "/usr/local/bin:/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= list.size()) {
        std::size_t end = list.find(':', start);
        if (end == std::string::npos) end = list.size();
        const std::string dir = list.substr(start, end - start);
        start = end + 1;
        if (dir.empty()) continue;
        const std::string opener = dir + "/xdg-open";
        if (::access(opener.c_str(), X_OK) != 0) continue;
        KTTaskEx::runTaskAndReturn(opener, {folder});
        return true;
    }
    KTLog::appendLog("Unable to show %@ - no file manager and no xdg-open.", path);
    return false;
}

bool KTLinuxWorkspace::selectFile(const std::string& path) {
    if (path.empty()) return false;
    return showItemsOnSessionBus(path) || openContainingFolder(path);
}
