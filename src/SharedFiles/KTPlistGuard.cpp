#include "SharedFiles/KTPlistGuard.h"

#include <cstdint>
#include <limits>
#include <vector>

namespace {

constexpr std::size_t kTrailerSize = 32;
constexpr std::size_t kHeaderSize = 8;  // "bplist00"

std::uint64_t readBigEndian(std::string_view b, std::size_t at, std::size_t size) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < size; ++i) v = (v << 8) | static_cast<unsigned char>(b[at + i]);
    return v;
}

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
    const std::uint64_t cap = std::uint64_t(1) << 62;
    return (a >= cap || b >= cap || a + b >= cap) ? cap : a + b;
}

/// One binary property list, its trailer read and checked.
class BinaryList {
  public:
    explicit BinaryList(std::string_view b) : b_(b) {}

    std::optional<std::string> check() {
        if (b_.size() < kHeaderSize + kTrailerSize) return "too short for its trailer";
        const std::size_t trailer = b_.size() - kTrailerSize;
        offsetSize_ = static_cast<unsigned char>(b_[trailer + 6]);
        refSize_ = static_cast<unsigned char>(b_[trailer + 7]);
        count_ = readBigEndian(b_, trailer + 8, 8);
        const std::uint64_t root = readBigEndian(b_, trailer + 16, 8);
        const std::uint64_t table = readBigEndian(b_, trailer + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8)
            return "its offset or reference size is not 1 to 8 bytes";
        if (count_ == 0 || root >= count_) return "its root object is past the object count";
        if (table < kHeaderSize || table >= trailer)
            return "its offset table lies outside the file";
        if (count_ > (trailer - table) / offsetSize_)
            return "its object count runs past the end of the offset table";
        table_ = static_cast<std::size_t>(table);
        objectsEnd_ = table_;  // objects lie between the header and the offset table

        // The offsets of every object, whether or not the root reaches it.
        offsets_.resize(static_cast<std::size_t>(count_));
        for (std::size_t i = 0; i < offsets_.size(); ++i) {
            const std::uint64_t off = readBigEndian(b_, table_ + i * offsetSize_, offsetSize_);
            if (off < kHeaderSize || off >= objectsEnd_)
                return "an object offset points past the end";
            offsets_[i] = static_cast<std::size_t>(off);
        }
        return walk(static_cast<std::size_t>(root));
    }

  private:
    struct Object {
        unsigned type = 0;
        std::size_t refs = 0;     ///< position of the first reference (containers)
        std::uint64_t nRefs = 0;  ///< references that follow (a dictionary: keys, then values)
        std::uint64_t nKeys = 0;  ///< of which keys
    };

    /// Reads and checks the object at index `i`.
    std::optional<std::string> object(std::size_t i, Object& o) {
        std::size_t p = offsets_[i];
        const unsigned char marker = static_cast<unsigned char>(b_[p++]);
        o.type = marker >> 4;
        std::uint64_t n = marker & 0x0F;
        const std::size_t end = objectsEnd_;
        const bool sized = o.type == 0x4 || o.type == 0x5 || o.type == 0x6 || o.type == 0xA ||
                           o.type == 0xC || o.type == 0xD;
        if (sized && n == 0x0F) {
            if (p >= end) return "a length points past the end";
            const unsigned char lm = static_cast<unsigned char>(b_[p++]);
            if ((lm >> 4) != 0x1 || (lm & 0x0F) > 3) return "a length is not a small integer";
            const std::size_t bytes = std::size_t(1) << (lm & 0x0F);
            if (bytes > end - p) return "a length points past the end";
            n = readBigEndian(b_, p, bytes);
            p += bytes;
        }
        const std::size_t room = end - p;
        switch (o.type) {
            case 0x0:
                if (marker != 0x00 && marker != 0x08 && marker != 0x09)
                    return "an object of unknown type";
                return std::nullopt;
            case 0x1:  // integer of 1, 2, 4, 8 or 16 bytes
                if (n > 4 || (std::size_t(1) << n) > room) return "a number runs past the end";
                return std::nullopt;
            case 0x2:  // real of 4 or 8 bytes
                if ((n != 2 && n != 3) || (std::size_t(1) << n) > room)
                    return "a number runs past the end";
                return std::nullopt;
            case 0x3:
                if (marker != 0x33 || room < 8) return "a date runs past the end";
                return std::nullopt;
            case 0x4:
                if (n > room) return "data runs past the end";
                return std::nullopt;
            case 0x5:
                if (n > room) return "a string runs past the end";
                for (std::size_t k = 0; k < n; ++k) {
                    if (b_[p + k] == '\0') return "a string or key holds a zero character";
                }
                return std::nullopt;
            case 0x6: {
                if (n > room / 2) return "a string runs past the end";
                bool wantLow = false;
                for (std::size_t k = 0; k < n; ++k) {
                    const auto u = static_cast<std::uint16_t>(readBigEndian(b_, p + 2 * k, 2));
                    if (u == 0) return "a string or key holds a zero character";
                    const bool high = u >= 0xD800 && u < 0xDC00, low = u >= 0xDC00 && u < 0xE000;
                    if (wantLow != low) return "a string holds a broken UTF-16 pair";
                    wantLow = high;
                }
                if (wantLow) return "a string holds a broken UTF-16 pair";
                return std::nullopt;
            }
            case 0x8:  // UID of 1 to 4 bytes
                if (n > 3 || n + 1 > room) return "a reference number runs past the end";
                return std::nullopt;
            case 0xA:
            case 0xC:
                if (n > room / refSize_) return "an array runs past the end";
                o.refs = p, o.nRefs = n;
                return std::nullopt;
            case 0xD:
                if (n > room / refSize_ / 2) return "a dictionary runs past the end";
                o.refs = p, o.nRefs = 2 * n, o.nKeys = n;
                return std::nullopt;
            default:
                return "an object of unknown type";
        }
    }

    /// Depth-first from the root without recursion: every reference in
    /// range, no object inside itself, the depth and the expanded size bounded.
    std::optional<std::string> walk(std::size_t root) {
        enum : unsigned char { kNew, kOpen, kDone };
        std::vector<unsigned char> state(offsets_.size(), kNew);
        std::vector<std::uint32_t> depth(offsets_.size(), 0);
        std::vector<std::uint64_t> expanded(offsets_.size(), 0);
        struct Frame {
            std::size_t index;
            Object o;
            std::uint64_t next = 0;
            std::uint32_t depth = 1;
            std::uint64_t expanded = 1;
        };
        std::vector<Frame> stack;
        std::uint64_t refsReached = 0;

        auto open = [&](std::size_t i) -> std::optional<std::string> {
            Frame f{i, {}};
            if (auto why = object(i, f.o)) return why;
            refsReached += f.o.nRefs;
            state[i] = kOpen;
            stack.push_back(f);
            return std::nullopt;
        };
        if (auto why = open(root)) return why;
        while (!stack.empty()) {
            Frame& f = stack.back();
            if (f.next < f.o.nRefs) {
                const bool isKey = f.next < f.o.nKeys;
                const std::uint64_t child = readBigEndian(
                    b_, f.o.refs + static_cast<std::size_t>(f.next) * refSize_, refSize_);
                ++f.next;
                if (child >= count_) return "a reference points past the object count";
                const auto c = static_cast<std::size_t>(child);
                if (isKey) {
                    const unsigned t = static_cast<unsigned char>(b_[offsets_[c]]) >> 4;
                    if (t != 0x5 && t != 0x6) return "a dictionary key is not a string";
                }
                if (state[c] == kOpen) return "an object contains itself";
                if (state[c] == kDone) {
                    f.depth = std::max<std::uint32_t>(f.depth, depth[c] + 1);
                    f.expanded = saturatingAdd(f.expanded, expanded[c]);
                    continue;
                }
                if (stack.size() >= KTPlistGuard::kMaxDepth) return "nested too deeply";
                if (auto why = open(c)) return why;
                continue;
            }
            const Frame done = f;
            stack.pop_back();
            state[done.index] = kDone;
            depth[done.index] = done.depth;
            expanded[done.index] = done.expanded;
            if (!stack.empty()) {
                Frame& parent = stack.back();
                parent.depth = std::max<std::uint32_t>(parent.depth, done.depth + 1);
                parent.expanded = saturatingAdd(parent.expanded, done.expanded);
            }
        }
        if (depth[root] > KTPlistGuard::kMaxDepth) return "nested too deeply";
        // libplist copies a shared container at every reference: a few
        // hundred bytes could otherwise unfold into billions of nodes.
        if (expanded[root] > 2 * (refsReached + 1) + 65536)
            return "its shared objects unfold far beyond its size";
        return std::nullopt;
    }

    std::string_view b_;
    std::size_t offsetSize_ = 0, refSize_ = 0;
    std::uint64_t count_ = 0;
    std::size_t table_ = 0, objectsEnd_ = 0;
    std::vector<std::size_t> offsets_;
};

bool startsWith(std::string_view s, std::size_t at, std::string_view prefix) {
    return s.size() - at >= prefix.size() && s.compare(at, prefix.size(), prefix) == 0;
}

}  // namespace

std::optional<std::string> KTPlistGuard::refusal(std::string_view bytes) {
    // libplist takes exactly these eight bytes for a binary list, anything else for XML.
    if (bytes.size() >= kHeaderSize && bytes.substr(0, kHeaderSize) == "bplist00")
        return binaryRefusal(bytes);
    return xmlRefusal(bytes);
}

std::optional<std::string> KTPlistGuard::binaryRefusal(std::string_view bytes) {
    return BinaryList(bytes).check();
}

std::optional<std::string> KTPlistGuard::xmlRefusal(std::string_view s) {
    if (s.find('\0') != std::string_view::npos) return "a string or key holds a zero character";
    std::size_t depth = 0;
    std::size_t i = 0;
    const std::size_t n = s.size();
    while (i < n) {
        const std::size_t at = s.find_first_of("<&", i);
        if (at == std::string_view::npos) break;
        if (s[at] == '&') {
            i = at + 1;
            if (!startsWith(s, at, "&#")) continue;
            std::size_t k = at + 2;
            const bool hex = k < n && (s[k] == 'x' || s[k] == 'X');
            if (hex) ++k;
            std::uint64_t v = 0;
            std::size_t digits = 0;
            for (; k < n && digits < 16; ++k, ++digits) {
                const char c = s[k];
                int d = -1;
                if (c >= '0' && c <= '9') d = c - '0';
                if (hex && c >= 'a' && c <= 'f') d = c - 'a' + 10;
                if (hex && c >= 'A' && c <= 'F') d = c - 'A' + 10;
                if (d < 0) break;
                v = v * (hex ? 16 : 10) + static_cast<unsigned>(d);
            }
            if (digits == 0 || k >= n || s[k] != ';')
                continue;  // not a reference: libplist decides
            if (v == 0) return "a string or key holds a zero character";
            if (v > 0x10FFFF || (v >= 0xD800 && v < 0xE000))
                return "a character reference names no character";
            i = k + 1;
            continue;
        }
        // A markup construct: comments, sections and declarations hold no elements.
        auto skipPast = [&](std::string_view close) -> bool {
            const std::size_t e = s.find(close, at);
            if (e == std::string_view::npos) return false;
            i = e + close.size();
            return true;
        };
        if (startsWith(s, at, "<!--")) {
            if (!skipPast("-->")) return "a comment is not closed";
        } else if (startsWith(s, at, "<![CDATA[")) {
            if (!skipPast("]]>")) return "a character section is not closed";
        } else if (startsWith(s, at, "<?")) {
            if (!skipPast("?>")) return "a processing instruction is not closed";
        } else {
            // A tag or a declaration: up to its '>', quotes and an internal subset skipped.
            char quote = 0;
            int brackets = 0;
            std::size_t k = at + 1;
            for (; k < n; ++k) {
                const char c = s[k];
                if (quote) {
                    if (c == quote) quote = 0;
                } else if (c == '"' || c == '\'') {
                    quote = c;
                } else if (c == '[') {
                    ++brackets;
                } else if (c == ']') {
                    --brackets;
                } else if (c == '>' && brackets <= 0) {
                    break;
                }
            }
            if (k >= n) return "a tag is not closed";
            i = k + 1;
            if (startsWith(s, at, "<!")) continue;
            if (startsWith(s, at, "</")) {
                if (depth == 0) return "a closing tag has no opening tag";
                --depth;
            } else if (s[k - 1] != '/') {
                if (++depth > kMaxDepth) return "nested too deeply";
            }
        }
    }
    return std::nullopt;
}
