#include "SharedFiles/KTPreferences.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"

namespace fs = std::filesystem;

namespace {

plist_t toPlist(const KTPreferenceValue& value) {
    struct {
        plist_t operator()(const std::string& s) const { return plist_new_string(s.c_str()); }
        // Negative numbers travel as their two's complement, which reads back the same.
        plist_t operator()(long long i) const { return plist_new_uint(static_cast<uint64_t>(i)); }
        plist_t operator()(bool b) const { return plist_new_bool(b ? 1 : 0); }
        plist_t operator()(double d) const { return plist_new_real(d); }
        plist_t operator()(const std::vector<std::string>& list) const {
            plist_t array = plist_new_array();
            for (const auto& s : list) plist_array_append_item(array, plist_new_string(s.c_str()));
            return array;
        }
    } visitor;
    return std::visit(visitor, value);
}

std::string stringOf(plist_t node) {
    return KTPlist::stringValue(node).value_or("");
}

std::optional<KTPreferenceValue> fromPlist(plist_t node) {
    if (!node) return std::nullopt;
    switch (plist_get_node_type(node)) {
        case PLIST_STRING:
            return stringOf(node);
        case PLIST_UINT:
            return *KTPlist::integerValue(node);
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return b != 0;
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            return d;
        }
        case PLIST_ARRAY: {
            std::vector<std::string> list;
            for (uint32_t i = 0; i < plist_array_get_size(node); ++i) {
                plist_t item = plist_array_get_item(node, i);
                if (plist_get_node_type(item) == PLIST_STRING) list.push_back(stringOf(item));
            }
            return list;
        }
        default:
            return std::nullopt;
    }
}

std::optional<double> numberInText(const std::string& s) {
    if (s.empty()) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    double d = std::strtod(s.c_str(), &end);
    if (errno != 0 || end == s.c_str()) return std::nullopt;
    return d;
}

/// Corrupt files already reported, by path, size and time of change, so a
/// file read on every lookup is reported once and again only when it changes.
std::mutex gReportedLock;
std::set<std::string> gReported;

void reportUnreadable(const std::string& path, const std::string& reason) {
    struct stat st {};
    std::string key = path;
    if (::stat(path.c_str(), &st) == 0)
        key += "|" + std::to_string(st.st_size) + "|" + std::to_string(st.st_mtim.tv_sec) + "." +
               std::to_string(st.st_mtim.tv_nsec);
    {
        std::lock_guard<std::mutex> l(gReportedLock);
        if (!gReported.insert(key).second) return;
    }
    KTLog::fastAppendLog("Unable to read preferences %@: %@", path, reason);
}

}  // namespace

KTPreferences::KTPreferences(std::string domain, bool userDomain)
    : path_([domain = std::move(domain), userDomain] {
          return KTLocalPaths::prefsDirectory(userDomain) + "/" + domain + ".plist";
      }) {}

KTPreferences::KTPreferences(std::string fixedPath, Writes writes)
    : path_([p = std::move(fixedPath)] { return p; }),
      waitForDisk_(writes == Writes::WaitForDisk) {}

KTPreferences& KTPreferences::standard() {
    static KTPreferences prefs("com.quellbrook.Ambrel", true);
    return prefs;
}

KTPreferences& KTPreferences::machine() {
    static KTPreferences prefs("com.quellbrook.Ambrel", false);
    return prefs;
}

KTPreferences& KTPreferences::global() {
    static KTPreferences prefs("com.quellbrook.global", true);
    return prefs;
}

bool KTPreferences::requireAdminPassword() {
    return machine().boolForKey("requireAdminPassword");
}

std::string KTPreferences::path() const {
    return path_();
}

void KTPreferences::registerDefaults(const std::map<std::string, KTPreferenceValue>& defaults) {
    std::lock_guard<std::mutex> l(lock_);
    for (const auto& [k, v] : defaults) defaults_[k] = v;
}

KTPlistPtr KTPreferences::load(bool* corrupt) const {
    *corrupt = false;
    const std::string file = path();
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno != ENOENT && errno != ENOTDIR) {
            *corrupt = true;
            reportUnreadable(file, std::strerror(errno));
        }
        return KTPlistPtr(plist_new_dict());
    }
    std::string bytes;
    char buf[65536];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) bytes.append(buf, static_cast<std::size_t>(n));
    }
    int readError = n < 0 ? errno : 0;
    ::close(fd);
    if (readError) {
        *corrupt = true;
        reportUnreadable(file, std::strerror(readError));
        return KTPlistPtr(plist_new_dict());
    }
    std::string refused;
    KTPlistPtr dict = KTPlist::fromMemory(bytes, &refused);
    if (!dict || plist_get_node_type(dict.get()) != PLIST_DICT) {
        *corrupt = true;
        reportUnreadable(file,
                         refused.empty() ? "not a property list of keys and values" : refused);
        return KTPlistPtr(plist_new_dict());
    }
    return dict;
}

KTPlistPtr KTPreferences::lookup(const std::string& key) const {
    std::lock_guard<std::mutex> l(lock_);
    bool corrupt = false;
    KTPlistPtr dict = load(&corrupt);
    if (plist_t v = plist_dict_get_item(dict.get(), key.c_str())) return KTPlistPtr(plist_copy(v));
    if (auto it = defaults_.find(key); it != defaults_.end())
        return KTPlistPtr(toPlist(it->second));
    return nullptr;
}

std::optional<KTPreferenceValue> KTPreferences::objectForKey(const std::string& key) const {
    KTPlistPtr v = lookup(key);
    return fromPlist(v.get());
}

KTPlistPtr KTPreferences::plistForKey(const std::string& key) const {
    return lookup(key);
}

std::optional<std::string> KTPreferences::stringForKey(const std::string& key) const {
    auto v = objectForKey(key);
    if (!v) return std::nullopt;
    if (auto s = std::get_if<std::string>(&*v)) return *s;
    if (auto i = std::get_if<long long>(&*v)) return std::to_string(*i);
    if (auto d = std::get_if<double>(&*v)) {
        std::ostringstream os;
        os << *d;
        return os.str();
    }
    return std::nullopt;
}

double KTPreferences::doubleForKey(const std::string& key) const {
    auto v = objectForKey(key);
    if (!v) return 0;
    if (auto d = std::get_if<double>(&*v)) return *d;
    if (auto i = std::get_if<long long>(&*v)) return static_cast<double>(*i);
    if (auto b = std::get_if<bool>(&*v)) return *b ? 1 : 0;
    if (auto s = std::get_if<std::string>(&*v)) return numberInText(*s).value_or(0);
    return 0;
}

long long KTPreferences::integerForKey(const std::string& key) const {
    auto v = objectForKey(key);
    if (!v) return 0;
    if (auto i = std::get_if<long long>(&*v)) return *i;
    return static_cast<long long>(doubleForKey(key));
}

bool KTPreferences::boolForKey(const std::string& key) const {
    auto v = objectForKey(key);
    if (!v) return false;
    if (auto b = std::get_if<bool>(&*v)) return *b;
    if (auto i = std::get_if<long long>(&*v)) return *i != 0;
    if (auto d = std::get_if<double>(&*v)) return *d != 0;
    if (auto s = std::get_if<std::string>(&*v)) {
        if (*s == "YES" || *s == "yes" || *s == "true" || *s == "TRUE") return true;
        return numberInText(*s).value_or(0) != 0;
    }
    return false;
}

std::vector<std::string> KTPreferences::stringArrayForKey(const std::string& key) const {
    auto v = objectForKey(key);
    if (!v) return {};
    if (auto list = std::get_if<std::vector<std::string>>(&*v)) return *list;
    return {};
}

bool KTPreferences::change(const std::string& key, plist_t newValue, std::string* error) {
    KTPlistPtr owned(newValue);
    std::lock_guard<std::mutex> l(lock_);
    const std::string file = path();
    bool corrupt = false;
    KTPlistPtr dict = load(&corrupt);
    std::error_code ec;
    if (corrupt) {
        // What could not be read may still be worth something to someone:
        // it is kept aside, and nothing is written when that fails.
        fs::copy_file(file, file + ".corrupt", fs::copy_options::overwrite_existing, ec);
        if (ec) {
            if (error) *error = "Unable to keep the unreadable " + file + ": " + ec.message();
            return false;
        }
        KTLog::fastAppendLog("Replacing unreadable preferences %@ (kept as %@)", file,
                             file + ".corrupt");
    }
    if (owned)
        plist_dict_set_item(dict.get(), key.c_str(), owned.release());
    else if (plist_dict_get_item(dict.get(), key.c_str()))
        plist_dict_remove_item(dict.get(), key.c_str());
    else if (!corrupt)
        return true;  // nothing to remove
    fs::create_directories(fs::path(file).parent_path(), ec);
    std::string why;
    if (!KTPlist::writeFileAtomically(file, KTPlist::toXML(dict.get()), &why, waitForDisk_)) {
        if (error) *error = file + ": " + why;
        return false;
    }
    return true;
}

bool KTPreferences::setObject(const std::string& key, const KTPreferenceValue& value,
                              std::string* error) {
    return change(key, toPlist(value), error);
}

bool KTPreferences::setPlist(const std::string& key, plist_t value, std::string* error) {
    if (!value) return removeObjectForKey(key, error);
    return change(key, plist_copy(value), error);
}

bool KTPreferences::removeObjectForKey(const std::string& key, std::string* error) {
    return change(key, nullptr, error);
}
