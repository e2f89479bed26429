#include "SharedFiles/KTPlist.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPlistGuard.h"

KTPlistPtr KTPlist::fromMemory(const std::string& bytes) {
    return fromMemory(bytes, nullptr);
}

KTPlistPtr KTPlist::fromMemory(const std::string& bytes, std::string* refused) {
    if (bytes.empty() || bytes.size() > 0xFFFFFFFFu) return nullptr;
    if (auto why = KTPlistGuard::refusal(bytes)) {
        if (refused) *refused = *why;
        return nullptr;
    }
    plist_t p = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &p);
    return KTPlistPtr(p);
}

KTPlistPtr KTPlist::readFile(const std::string& path) {
    std::string refused;
    KTPlistPtr p = readFile(path, &refused);
    if (!refused.empty()) logRefusal(path, refused);
    return p;
}

KTPlistPtr KTPlist::readFile(const std::string& path, std::string* refused) {
    // Not blocking on a pipe, not reading a device that never ends.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return nullptr;
    std::string bytes;
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
              static_cast<std::uint64_t>(st.st_size) <= kMaxFileSize;
    if (ok) {
        bytes.resize(static_cast<std::size_t>(st.st_size));
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        bytes.resize(done);
    }
    ::close(fd);
    if (!ok) {
        if (refused && S_ISREG(st.st_mode)) *refused = "larger than a property list can be";
        return nullptr;
    }
    return fromMemory(bytes, refused);
}

void KTPlist::logRefusal(const std::string& path, const std::string& reason) {
    KTLog::appendLog("Unable to read property list %@ - %@", path, reason);
}

std::string KTPlist::toXML(plist_t node) {
    char* out = nullptr;
    uint32_t len = 0;
    plist_to_xml(node, &out, &len);
    std::string s(out ? out : "", len);
    if (out) plist_to_xml_free(out);
    return s;
}

std::string KTPlist::toBinary(plist_t node) {
    char* out = nullptr;
    uint32_t len = 0;
    plist_to_bin(node, &out, &len);
    std::string s(out ? out : "", len);
    if (out) plist_to_bin_free(out);
    return s;
}

bool KTPlist::writeFileAtomically(const std::string& path, const std::string& bytes,
                                  std::string* error, bool waitForDisk) {
    std::string tmp = path + ".tmp." + KTLocalPaths::randomString(8);
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        if (error) *error = std::strerror(errno);
        return false;
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (error) *error = std::strerror(errno);
            ::close(fd);
            ::unlink(tmp.c_str());
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    if ((waitForDisk && ::fsync(fd) != 0) || ::close(fd) != 0) {
        if (error) *error = std::strerror(errno);
        ::unlink(tmp.c_str());
        return false;
    }
    if (::rename(tmp.c_str(), path.c_str()) != 0) {
        if (error) *error = std::strerror(errno);
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

std::optional<std::string> KTPlist::stringValue(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    char* s = nullptr;
    plist_get_string_val(node, &s);
    std::string out(s ? s : "");
    free(s);
    return out;
}

std::optional<long long> KTPlist::integerValue(plist_t node) {
    if (!node) return std::nullopt;
    switch (plist_get_node_type(node)) {
        case PLIST_UINT: {
            uint64_t u = 0;
            plist_get_uint_val(node, &u);
            return static_cast<long long>(u);
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            if (!(d > -9.2e18 && d < 9.2e18)) return std::nullopt;
            return static_cast<long long>(d);
        }
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return b ? 1 : 0;
        }
        default:
            return std::nullopt;
    }
}

namespace {
/// Seconds from 1 January 1970 to 1 January 2001, where property-list dates count from.
constexpr long long kPlistEpoch = 978307200;
}  // namespace

std::optional<long long> KTPlist::dateValue(plist_t node) {
    if (!node || plist_get_node_type(node) != PLIST_DATE) return std::nullopt;
    int32_t sec = 0, usec = 0;
    plist_get_date_val(node, &sec, &usec);
    return static_cast<long long>(sec) + kPlistEpoch;
}

KTPlistPtr KTPlist::newDate(long long unixSeconds) {
    const long long since2001 =
        std::clamp<long long>(unixSeconds - kPlistEpoch, INT32_MIN, INT32_MAX);
    return KTPlistPtr(plist_new_date(static_cast<int32_t>(since2001), 0));
}

std::optional<std::string> KTPlist::stringForKey(plist_t dict, const char* key) {
    if (!dict || plist_get_node_type(dict) != PLIST_DICT) return std::nullopt;
    return stringValue(plist_dict_get_item(dict, key));
}

std::optional<long long> KTPlist::integerForKey(plist_t dict, const char* key) {
    if (!dict || plist_get_node_type(dict) != PLIST_DICT) return std::nullopt;
    return integerValue(plist_dict_get_item(dict, key));
}

std::optional<bool> KTPlist::boolForKey(plist_t dict, const char* key) {
    auto i = integerForKey(dict, key);
    if (!i) return std::nullopt;
    return *i != 0;
}
