#include "catalogue/KTBundleInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <filesystem>
#include <sstream>

#include "SharedFiles/KTPlist.h"
#include "catalogue/KTMachO.h"

namespace fs = std::filesystem;

namespace {

bool readSmallFile(const fs::path& p, std::string& out, std::size_t limit = 4 << 20) {
    // One open and one fstat: a bundle is read once per plug-in per load.
    const int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
              static_cast<std::size_t>(st.st_size) <= limit;
    if (ok) {
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
    return ok;
}

void appendUTF8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += char(c);
    } else if (c < 0x800) {
        out += char(0xC0 | (c >> 6));
        out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += char(0xE0 | (c >> 12));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    } else {
        out += char(0xF0 | (c >> 18));
        out += char(0x80 | ((c >> 12) & 0x3F));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    }
}

std::string utf16ToUTF8(const std::string& bytes, bool bigEndian, std::size_t start) {
    std::string out;
    for (std::size_t i = start; i + 1 < bytes.size(); i += 2) {
        auto b0 = static_cast<unsigned char>(bytes[i]), b1 = static_cast<unsigned char>(bytes[i + 1]);
        char32_t u = bigEndian ? (b0 << 8 | b1) : (b1 << 8 | b0);
        if (u >= 0xD800 && u < 0xDC00 && i + 3 < bytes.size()) {
            auto c0 = static_cast<unsigned char>(bytes[i + 2]),
                 c1 = static_cast<unsigned char>(bytes[i + 3]);
            char32_t lo = bigEndian ? (c0 << 8 | c1) : (c1 << 8 | c0);
            if (lo >= 0xDC00 && lo < 0xE000) {
                u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
                i += 2;
            }
        }
        appendUTF8(out, u);
    }
    return out;
}

/// A small reader of the old-style strings syntax.
class StringsParser {
public:
    explicit StringsParser(const std::string& text) : s_(text) {}

    std::map<std::string, std::string> parse() {
        std::map<std::string, std::string> out;
        for (;;) {
            skipSpace();
            if (pos_ >= s_.size()) break;
            std::string key;
            if (!token(key)) break;
            skipSpace();
            if (pos_ < s_.size() && s_[pos_] == ';') {
                ++pos_;
                out[key] = key;
                continue;
            }
            if (pos_ >= s_.size() || s_[pos_] != '=') break;
            ++pos_;
            skipSpace();
            std::string value;
            if (!token(value)) break;
            skipSpace();
            if (pos_ < s_.size() && s_[pos_] == ';') ++pos_;
            out[key] = value;
        }
        return out;
    }

private:
    void skipSpace() {
        while (pos_ < s_.size()) {
            char c = s_[pos_];
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f') {
                ++pos_;
            } else if (s_.compare(pos_, 2, "/*") == 0) {
                auto end = s_.find("*/", pos_ + 2);
                pos_ = end == std::string::npos ? s_.size() : end + 2;
            } else if (s_.compare(pos_, 2, "//") == 0) {
                auto end = s_.find('\n', pos_);
                pos_ = end == std::string::npos ? s_.size() : end + 1;
            } else {
                break;
            }
        }
    }

    bool token(std::string& out) {
        if (pos_ >= s_.size()) return false;
        if (s_[pos_] == '"') {
            ++pos_;
            while (pos_ < s_.size() && s_[pos_] != '"') {
                char c = s_[pos_++];
                if (c != '\\' || pos_ >= s_.size()) {
                    out += c;
                    continue;
                }
                char e = s_[pos_++];
                switch (e) {
                    case 'n': out += '\n'; break;
                    case 't': out += '\t'; break;
                    case 'r': out += '\r'; break;
                    case 'U':
                    case 'u': {
                        char32_t u = 0;
                        int digits = 0;
                        while (digits < 4 && pos_ < s_.size() && std::isxdigit(static_cast<unsigned char>(s_[pos_]))) {
                            u = u * 16 + std::stoi(std::string(1, s_[pos_++]), nullptr, 16);
                            ++digits;
                        }
                        appendUTF8(out, u);
                        break;
                    }
                    default: out += e;
                }
            }
            if (pos_ >= s_.size()) return false;
            ++pos_;
            return true;
        }
        std::size_t start = pos_;
        while (pos_ < s_.size()) {
            char c = s_[pos_];
            if (std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$' || c == '.' ||
                c == '/' || c == ':' || c == '-' || c == '+')
                ++pos_;
            else
                break;
        }
        out = s_.substr(start, pos_ - start);
        return pos_ > start;
    }

    const std::string& s_;
    std::size_t pos_ = 0;
};

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
    std::sort(preferred.begin(), preferred.end(),
              [&](const fs::path& a, const fs::path& b) {
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

    std::optional<std::string> value(const char* key) {
        if (!loaded_) {
            loaded_ = true;
            for (const auto& lproj : localisations(resources_)) {
                std::string bytes;
                if (readSmallFile(lproj / "InfoPlist.strings", bytes))
                    tables_.push_back(KTBundleInfo::parseStrings(bytes));
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
    std::string text;
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE) {
        text = utf16ToUTF8(bytes, false, 2);
    } else if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFE &&
               static_cast<unsigned char>(bytes[1]) == 0xFF) {
        text = utf16ToUTF8(bytes, true, 2);
    } else if (bytes.rfind("bplist", 0) == 0 || bytes.find("<plist") != std::string::npos) {
        std::map<std::string, std::string> out;
        KTPlistPtr p = KTPlist::fromMemory(bytes);
        if (!p || plist_get_node_type(p.get()) != PLIST_DICT) return out;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(p.get(), &it);
        for (;;) {
            char* key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(p.get(), it, &key, &value);
            if (!key) break;
            if (value && plist_get_node_type(value) == PLIST_STRING) {
                char* s = nullptr;
                plist_get_string_val(value, &s);
                out[key] = s ? s : "";
                free(s);
            }
            free(key);
        }
        free(it);
        return out;
    } else {
        text = bytes.rfind("\xEF\xBB\xBF", 0) == 0 ? bytes.substr(3) : bytes;
    }
    return StringsParser(text).parse();
}

std::string KTBundleInfo::infoPlistPath(const std::string& bundlePath) {
    std::error_code ec;
    fs::path contents = fs::path(bundlePath) / "Contents" / "Info.plist";
    if (fs::is_regular_file(contents, ec)) return contents.string();
    fs::path flat = fs::path(bundlePath) / "Info.plist";
    if (fs::is_regular_file(flat, ec)) return flat.string();
    return {};
}

KTBundleInfo KTBundleInfo::read(const std::string& bundlePath) {
    KTBundleInfo info;
    std::error_code ec;
    if (!fs::is_directory(bundlePath, ec)) return info;
    info.isBundle = true;

    const std::string plistPath = infoPlistPath(bundlePath);
    if (plistPath.empty()) return info;
    std::string bytes;
    if (!readSmallFile(plistPath, bytes)) return info;
    KTPlistPtr plist = KTPlist::fromMemory(bytes);
    if (!plist || plist_get_node_type(plist.get()) != PLIST_DICT) return info;

    const bool hasContents = fs::path(plistPath).parent_path().filename() == "Contents";
    const fs::path top = hasContents ? fs::path(bundlePath) / "Contents" : fs::path(bundlePath);
    const fs::path resources = top / "Resources";

    LocalisedStrings localised(resources);
    std::optional<std::string> name = localised.value("CFBundleDisplayName");
    if (!name) name = KTPlist::stringForKey(plist.get(), "CFBundleDisplayName");
    if (!name) name = localised.value("CFBundleName");
    if (!name) name = KTPlist::stringForKey(plist.get(), "CFBundleName");
    if (name && *name != "${PRODUCT_NAME}" && !name->empty()) info.name = name;

    info.version = stringOrNumber(plist.get(), "CFBundleShortVersionString");
    if (!info.version) info.version = stringOrNumber(plist.get(), "CFBundleVersion");

    if (auto exe = KTPlist::stringForKey(plist.get(), "CFBundleExecutable"); exe && !exe->empty()) {
        // A name with a slash would leave the bundle; plug-ins are not trusted.
        if (exe->find('/') == std::string::npos && *exe != ".." ) {
            fs::path binary = hasContents ? top / "MacOS" / *exe : top / *exe;
            info.architectures = KTMachO::labels(KTMachO::cpuTypesOfFile(binary.string()));
        }
    }
    return info;
}
