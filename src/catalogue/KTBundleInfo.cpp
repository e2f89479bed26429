#include "catalogue/KTBundleInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTPlist.h"
#include "catalogue/KTMachO.h"
#include "catalogue/KTStringsFile.h"

namespace fs = std::filesystem;

namespace {

enum class Opened { Read, Missing, Refused };

/// Reads a regular file of at most `limit` bytes: one open, one fstat and
/// the reads, a bundle being read once per plug-in per load. `Missing` when
/// nothing is at the path or a component above it is no folder (ENOENT,
/// ENOTDIR) or the path is no regular file; `Refused` when it is one that
/// cannot be opened or is too big.
Opened readRegularFile(const fs::path& p, std::string& out, std::size_t limit = 4 << 20) {
    const int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return errno == ENOENT || errno == ENOTDIR ? Opened::Missing : Opened::Refused;
    struct stat st {};
    Opened result = Opened::Refused;
    const bool known = ::fstat(fd, &st) == 0;
    if (known && !S_ISREG(st.st_mode)) result = Opened::Missing;
    if (known && S_ISREG(st.st_mode) && static_cast<std::size_t>(st.st_size) <= limit) {
        result = Opened::Read;
        out.resize(static_cast<std::size_t>(st.st_size));
        std::size_t done = 0;
        while (done < out.size()) {
            const ssize_t n = ::read(fd, out.data() + done, out.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        out.resize(done);
    }
    ::close(fd);
    return result;
}

bool readSmallFile(const fs::path& p, std::string& out, std::size_t limit = 4 << 20) {
    return readRegularFile(p, out, limit) == Opened::Read;
}

/// The localisation folders of a bundle's resources, English first.
std::vector<fs::path> localisations(const fs::path& resources) {
    std::vector<fs::path> preferred, others;
    std::error_code ec;
    for (auto it = fs::directory_iterator(resources, ec); !ec && it != fs::directory_iterator();
         it.increment(ec)) {
        const fs::path& p = it->path();
        if (p.extension() != ".lproj") continue;
        std::string stem = p.stem().string();
        if (stem == "en" || stem == "English" || stem == "Base" || stem.rfind("en_", 0) == 0 ||
            stem.rfind("en-", 0) == 0)
            preferred.push_back(p);
        else
            others.push_back(p);
    }
    auto rank = [](const fs::path& p) {
        std::string s = p.stem().string();
        return s == "en" ? 0 : s == "English" ? 1 : s == "Base" ? 3 : 2;
    };
    std::sort(preferred.begin(), preferred.end(), [&](const fs::path& a, const fs::path& b) {
        return rank(a) != rank(b) ? rank(a) < rank(b) : a < b;
    });
    std::sort(others.begin(), others.end());
    preferred.insert(preferred.end(), others.begin(), others.end());
    return preferred;
}

/// The InfoPlist.strings tables of a bundle's localisations, English
/// first; each folder is listed and each table parsed once, when first asked.
class LocalisedStrings {
  public:
    explicit LocalisedStrings(fs::path resources) : resources_(std::move(resources)) {}

    /// Whether a table was refused (and logged): the bundle is not to be believed.
    bool refused() const { return refused_; }

    std::optional<std::string> value(const char* key) {
        if (!loaded_) {
            loaded_ = true;
            for (const auto& lproj : localisations(resources_)) {
                std::string bytes;
                const fs::path file = lproj / "InfoPlist.strings";
                if (!readSmallFile(file, bytes)) continue;
                std::string why;
                if (auto table = KTStringsFile::parse(bytes, &why)) {
                    tables_.push_back(std::move(*table));
                } else {
                    KTLog::appendLog("Unable to read strings file %@ - %@", file.string(), why);
                    refused_ = true;
                    tables_.clear();
                    return std::nullopt;
                }
            }
        }
        for (const auto& table : tables_) {
            if (auto it = table.find(key); it != table.end()) return it->second;
        }
        return std::nullopt;
    }

  private:
    fs::path resources_;
    bool loaded_ = false;
    bool refused_ = false;
    std::vector<std::map<std::string, std::string>> tables_;
};

std::optional<std::string> stringOrNumber(plist_t dict, const char* key) {
    if (auto s = KTPlist::stringForKey(dict, key)) return s;
    plist_t v = dict ? plist_dict_get_item(dict, key) : nullptr;
    if (v && plist_get_node_type(v) == PLIST_UINT) {
        uint64_t u = 0;
        plist_get_uint_val(v, &u);
        return std::to_string(u);
    }
    if (v && plist_get_node_type(v) == PLIST_REAL) {
        double d = 0;
        plist_get_real_val(v, &d);
        std::ostringstream os;
        os << d;
        return os.str();
    }
    return std::nullopt;
}

}  // namespace

std::map<std::string, std::string> KTBundleInfo::parseStrings(const std::string& bytes) {
    return KTStringsFile::parse(bytes).value_or(KTStringsFile::Table{});
}

std::string KTBundleInfo::infoPlistPath(const std::string& bundlePath) {
    std::error_code ec;
    fs::path contents = fs::path(bundlePath) / "Contents" / "Info.plist";
    if (fs::is_regular_file(contents, ec)) return contents.string();
    fs::path flat = fs::path(bundlePath) / "Info.plist";
    if (fs::is_regular_file(flat, ec)) return flat.string();
    return {};
}

KTBundleInfo KTBundleInfo::read(const std::string& bundlePath, Detail detail) {
    KTBundleInfo info;
    // The Info.plist is opened where it should be, and only what fails is
    // looked at further: most plug-ins are bundles with Contents/Info.plist.
    std::string bytes;
    std::string plistPath = (fs::path(bundlePath) / "Contents" / "Info.plist").string();
    Opened opened = readRegularFile(plistPath, bytes);
    std::error_code ec;
    // Refused for want of a look into Contents: the flat place may still hold one.
    if (opened == Opened::Refused && !fs::is_regular_file(plistPath, ec)) opened = Opened::Missing;
    if (opened == Opened::Missing) {
        plistPath = (fs::path(bundlePath) / "Info.plist").string();
        opened = readRegularFile(plistPath, bytes);
        if (opened == Opened::Missing) {
            info.isBundle = fs::is_directory(bundlePath, ec);
            return info;
        }
    }
    if (opened == Opened::Refused) {
        // Neither missing nor readable: as a bundle whose plist cannot be read.
        info.isBundle = fs::is_directory(bundlePath, ec);
        return info;
    }
    info.isBundle = true;
    // A refused file leaves the details empty; the item keeps what the scan gave it.
    std::string refused;
    KTPlistPtr plist = KTPlist::fromMemory(bytes, &refused);
    if (!refused.empty()) KTPlist::logRefusal(plistPath, refused);
    if (!plist || plist_get_node_type(plist.get()) != PLIST_DICT) return info;

    const bool hasContents = fs::path(plistPath).parent_path().filename() == "Contents";
    const fs::path top = hasContents ? fs::path(bundlePath) / "Contents" : fs::path(bundlePath);
    const fs::path resources = top / "Resources";

    LocalisedStrings localised(resources);
    std::optional<std::string> name = localised.value("CFBundleDisplayName");
    if (!name) name = KTPlist::stringForKey(plist.get(), "CFBundleDisplayName");
    if (!name) name = localised.value("CFBundleName");
    if (!name) name = KTPlist::stringForKey(plist.get(), "CFBundleName");
    if (localised.refused()) return info;
    if (name && *name != "${PRODUCT_NAME}" && !name->empty()) info.name = name;

    info.version = stringOrNumber(plist.get(), "CFBundleShortVersionString");
    if (!info.version) info.version = stringOrNumber(plist.get(), "CFBundleVersion");

    if (detail == Detail::NamesAndVersion) return info;
    if (auto exe = KTPlist::stringForKey(plist.get(), "CFBundleExecutable"); exe && !exe->empty()) {
        // A name with a slash would leave the bundle; plug-ins are not trusted.
        if (exe->find('/') == std::string::npos && *exe != "..") {
            fs::path binary = hasContents ? top / "MacOS" / *exe : top / *exe;
            info.architectures = KTMachO::labels(KTMachO::cpuTypesOfFile(binary.string()));
        }
    }
    return info;
}
