#include "catalogue/KTBundleInfo.h"

#include <dirent.h>
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

/// Where the looks of one bundle start: the folder that holds it when that
/// is open (each look then walks the bundle's name and what follows), else
/// the current directory with the whole path.
struct Place {
    int folder;
    std::string prefix;  ///< the bundle's name, or its whole path
};

/// Reads a regular file of at most `limit` bytes: one open, one fstat and
/// the reads, a bundle being read once per plug-in per load. `Missing` when
/// nothing is at the path or a component above it is no folder (ENOENT,
/// ENOTDIR, told in `error`) or the path is no regular file; `Refused` when
/// it is one that cannot be opened or is too big.
Opened readRegularFile(int folder, const char* p, std::string& out, int* error = nullptr,
                       std::size_t limit = 4 << 20) {
    const int fd = ::openat(folder, p, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        if (error) *error = errno;
        return errno == ENOENT || errno == ENOTDIR ? Opened::Missing : Opened::Refused;
    }
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

bool isKind(int folder, const std::string& p, mode_t kind) {
    struct stat st {};
    return ::fstatat(folder, p.c_str(), &st, 0) == 0 && (st.st_mode & S_IFMT) == kind;
}

bool startsWith(const std::string& s, const char* prefix) {
    return s.rfind(prefix, 0) == 0;
}

/// The localisation folders of a bundle's resources (being listed as
/// `dir`), English first.
std::vector<std::string> localisations(DIR* dir) {
    std::vector<std::string> preferred, others;
    while (const struct dirent* e = ::readdir(dir)) {
        const std::string name = e->d_name;
        // "x.lproj", never the bare ".lproj", which names no language.
        if (name.size() <= 6 || name.compare(name.size() - 6, 6, ".lproj") != 0) continue;
        const std::string stem = name.substr(0, name.size() - 6);
        if (stem == "en" || stem == "English" || stem == "Base" || startsWith(stem, "en_") ||
            startsWith(stem, "en-"))
            preferred.push_back(name);
        else
            others.push_back(name);
    }
    auto rank = [](const std::string& name) {
        const std::string s = name.substr(0, name.size() - 6);
        return s == "en" ? 0 : s == "English" ? 1 : s == "Base" ? 3 : 2;
    };
    std::sort(preferred.begin(), preferred.end(), [&](const std::string& a, const std::string& b) {
        return rank(a) != rank(b) ? rank(a) < rank(b) : a < b;
    });
    std::sort(others.begin(), others.end());
    preferred.insert(preferred.end(), others.begin(), others.end());
    return preferred;
}

/// The InfoPlist.strings tables of a bundle's localisations, English
/// first; the folder is looked for, listed and each table parsed once, when
/// first asked.
class LocalisedStrings {
  public:
    /// `resources` relative to `folder`; `shown` is its absolute path, for the log.
    LocalisedStrings(int folder, std::string resources, std::string shown)
        : folder_(folder), resources_(std::move(resources)), shown_(std::move(shown)) {}

    /// Whether a table was refused (and logged): the bundle is not to be believed.
    bool refused() const { return refused_; }

    std::optional<std::string> value(const char* key) {
        if (!loaded_) {
            loaded_ = true;
            load();
        }
        if (refused_) return std::nullopt;
        for (const auto& table : tables_) {
            if (auto it = table.find(key); it != table.end()) return it->second;
        }
        return std::nullopt;
    }

  private:
    void load() {
        // One open answers for the usual bundle without resources: no
        // listing, and the tables below are read relative to the folder.
        const int fd =
            ::openat(folder_, resources_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) return;
        DIR* dir = ::fdopendir(fd);
        if (!dir) {
            ::close(fd);
            return;
        }
        for (const auto& lproj : localisations(dir)) {
            std::string bytes;
            const std::string file = lproj + "/InfoPlist.strings";
            if (readRegularFile(::dirfd(dir), file.c_str(), bytes) != Opened::Read) continue;
            std::string why;
            if (auto table = KTStringsFile::parse(bytes, &why)) {
                tables_.push_back(std::move(*table));
            } else {
                KTLog::appendLog("Unable to read strings file %@ - %@", shown_ + "/" + file, why);
                refused_ = true;
                tables_.clear();
                break;
            }
        }
        ::closedir(dir);
    }

    int folder_;
    std::string resources_;
    std::string shown_;
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

KTBundleInfo KTBundleInfo::read(const std::string& givenPath, Detail detail, int folder) {
    KTBundleInfo info;
    std::string bundlePath = givenPath;
    while (bundlePath.size() > 1 && bundlePath.back() == '/') bundlePath.pop_back();
    Place at{AT_FDCWD, bundlePath};
    if (folder >= 0) {
        const auto slash = bundlePath.rfind('/');
        const std::string name =
            slash == std::string::npos ? bundlePath : bundlePath.substr(slash + 1);
        if (!name.empty() && name != "." && name != "..") at = Place{folder, name};
    }
    // The Info.plist is opened where it should be, and only what fails is
    // looked at further: most plug-ins are bundles with Contents/Info.plist.
    std::string bytes;
    bool hasContents = true;
    std::string plist = at.prefix + "/Contents/Info.plist";
    int error = 0;
    Opened opened = readRegularFile(at.folder, plist.c_str(), bytes, &error);
    // Refused for want of a look into Contents: the flat place may still hold one.
    if (opened == Opened::Refused && !isKind(at.folder, plist, S_IFREG)) opened = Opened::Missing;
    if (opened == Opened::Missing) {
        hasContents = false;
        plist = at.prefix + "/Info.plist";
        opened = readRegularFile(at.folder, plist.c_str(), bytes, &error);
        if (opened == Opened::Missing) {
            // A plain file (a script, a compiled effect) answers "not a folder"
            // already; only "nothing there" needs a look at the path itself.
            info.isBundle = error != ENOTDIR && isKind(at.folder, at.prefix, S_IFDIR);
            return info;
        }
    }
    if (opened == Opened::Refused) {
        // Neither missing nor readable: as a bundle whose plist cannot be read.
        info.isBundle = isKind(at.folder, at.prefix, S_IFDIR);
        return info;
    }
    info.isBundle = true;
    const std::string shownPlist =
        bundlePath + (hasContents ? "/Contents/Info.plist" : "/Info.plist");
    // A refused file leaves the details empty; the item keeps what the scan gave it.
    std::string refused;
    KTPlistPtr dict = KTPlist::fromMemory(bytes, &refused);
    if (!refused.empty()) KTPlist::logRefusal(shownPlist, refused);
    if (!dict || plist_get_node_type(dict.get()) != PLIST_DICT) return info;

    const std::string top = hasContents ? at.prefix + "/Contents" : at.prefix;
    const std::string shownTop = hasContents ? bundlePath + "/Contents" : bundlePath;
    LocalisedStrings localised(at.folder, top + "/Resources", shownTop + "/Resources");
    std::optional<std::string> name = localised.value("CFBundleDisplayName");
    if (!name) name = KTPlist::stringForKey(dict.get(), "CFBundleDisplayName");
    if (!name) name = localised.value("CFBundleName");
    if (!name) name = KTPlist::stringForKey(dict.get(), "CFBundleName");
    if (localised.refused()) return info;
    if (name && *name != "${PRODUCT_NAME}" && !name->empty()) info.name = name;

    info.version = stringOrNumber(dict.get(), "CFBundleShortVersionString");
    if (!info.version) info.version = stringOrNumber(dict.get(), "CFBundleVersion");

    if (detail == Detail::NamesAndVersion) return info;
    if (auto exe = KTPlist::stringForKey(dict.get(), "CFBundleExecutable"); exe && !exe->empty()) {
        // A name with a slash would leave the bundle; plug-ins are not trusted.
        if (exe->find('/') == std::string::npos && *exe != "..") {
            const std::string binary = hasContents ? top + "/MacOS/" + *exe : top + "/" + *exe;
            info.architectures = KTMachO::labels(KTMachO::cpuTypesOfFile(binary, at.folder));
        }
    }
    return info;
}
