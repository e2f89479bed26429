#include "catalogue/KTStringsFile.h"

#include <plist/plist.h>

#include <cctype>
#include <cstdlib>

#include "SharedFiles/KTPlist.h"

namespace {

const char* const kZeroCharacter = "a string or key holds a zero character";

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
        auto b0 = static_cast<unsigned char>(bytes[i]),
             b1 = static_cast<unsigned char>(bytes[i + 1]);
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

    /// False when a key or value holds a zero character.
    bool parse(KTStringsFile::Table& out) {
        for (;;) {
            skipSpace();
            if (pos_ >= s_.size()) break;
            std::string key;
            if (!token(key)) break;
            skipSpace();
            if (key.find('\0') != std::string::npos) return false;
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
            if (value.find('\0') != std::string::npos) return false;
            if (pos_ < s_.size() && s_[pos_] == ';') ++pos_;
            out[key] = value;
        }
        return true;
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
                    case 'n':
                        out += '\n';
                        break;
                    case 't':
                        out += '\t';
                        break;
                    case 'r':
                        out += '\r';
                        break;
                    case 'U':
                    case 'u': {
                        char32_t u = 0;
                        int digits = 0;
                        while (digits < 4 && pos_ < s_.size() &&
                               std::isxdigit(static_cast<unsigned char>(s_[pos_]))) {
                            u = u * 16 + std::stoi(std::string(1, s_[pos_++]), nullptr, 16);
                            ++digits;
                        }
                        appendUTF8(out, u);
                        break;
                    }
                    default:
                        out += e;
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

}  // namespace

std::optional<KTStringsFile::Table> KTStringsFile::parse(const std::string& bytes,
                                                         std::string* refused) {
    std::string text;
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE) {
        text = utf16ToUTF8(bytes, false, 2);
    } else if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFE &&
               static_cast<unsigned char>(bytes[1]) == 0xFF) {
        text = utf16ToUTF8(bytes, true, 2);
    } else if (bytes.rfind("bplist", 0) == 0 || bytes.find("<plist") != std::string::npos) {
        Table out;
        std::string why;
        KTPlistPtr p = KTPlist::fromMemory(bytes, &why);
        if (!why.empty()) {
            if (refused) *refused = why;
            return std::nullopt;
        }
        if (!p || plist_get_node_type(p.get()) != PLIST_DICT) return out;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(p.get(), &it);
        for (;;) {
            char* key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(p.get(), it, &key, &value);
            if (!key) break;
            if (auto s = KTPlist::stringValue(value)) out[key] = *s;
            free(key);
        }
        free(it);
        return out;
    } else {
        text = bytes.rfind("\xEF\xBB\xBF", 0) == 0 ? bytes.substr(3) : bytes;
    }
    Table out;
    if (!StringsParser(text).parse(out)) {
        if (refused) *refused = kZeroCharacter;
        return std::nullopt;
    }
    return out;
}
