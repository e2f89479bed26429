#include "catalogue/KTItemArchive.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "SharedFiles/KTPlist.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginItem.h"

namespace {

using UID = std::uint64_t;

const char* const kNSMutableArray = "NSMutableArray";

/// A binary property list written directly: libplist's writer slows down
/// badly on archives of thousands of objects. Objects are numbered as they
/// are made; equal strings, integers and UIDs are written once.
class BinaryPlistWriter {
  public:
    using Ref = std::size_t;

    Ref string(const std::string& s) {
        if (auto it = strings_.find(s); it != strings_.end()) return it->second;
        Ref r = add({Kind::String, s, 0, {}});
        strings_.emplace(s, r);
        return r;
    }
    Ref integer(std::int64_t v) {
        if (auto it = integers_.find(v); it != integers_.end()) return it->second;
        Ref r = add({Kind::Integer, {}, v, {}});
        integers_.emplace(v, r);
        return r;
    }
    Ref uid(std::uint64_t v) {
        if (auto it = uids_.find(v); it != uids_.end()) return it->second;
        Ref r = add({Kind::Uid, {}, static_cast<std::int64_t>(v), {}});
        uids_.emplace(v, r);
        return r;
    }
    Ref array(std::vector<Ref> members) { return add({Kind::Array, {}, 0, std::move(members)}); }
    /// Keys then values, pairwise.
    Ref dict(const std::vector<std::pair<Ref, Ref>>& entries) {
        std::vector<Ref> refs;
        refs.reserve(entries.size() * 2);
        for (const auto& e : entries) refs.push_back(e.first);
        for (const auto& e : entries) refs.push_back(e.second);
        return add({Kind::Dict, {}, static_cast<std::int64_t>(entries.size()), std::move(refs)});
    }

    std::string write(Ref top) const {
        std::string out = "bplist00";
        const int refSize = bytesFor(objects_.size());
        std::vector<std::uint64_t> offsets;
        offsets.reserve(objects_.size());
        for (const Object& o : objects_) {
            offsets.push_back(out.size());
            switch (o.kind) {
                case Kind::String:
                    writeString(out, o.text);
                    break;
                case Kind::Integer:
                    writeInteger(out, o.number);
                    break;
                case Kind::Uid: {
                    const auto v = static_cast<std::uint64_t>(o.number);
                    const int n = bytesFor(v + 1);
                    out.push_back(static_cast<char>(0x80 | (n - 1)));
                    appendBigEndian(out, v, n);
                    break;
                }
                case Kind::Array:
                case Kind::Dict: {
                    const std::size_t count =
                        o.kind == Kind::Array ? o.refs.size() : static_cast<std::size_t>(o.number);
                    writeMarker(out, o.kind == Kind::Array ? 0xA0 : 0xD0, count);
                    for (Ref r : o.refs) appendBigEndian(out, r, refSize);
                    break;
                }
            }
        }
        const std::uint64_t tableOffset = out.size();
        const int offsetSize = bytesFor(tableOffset + 1);
        for (std::uint64_t off : offsets) appendBigEndian(out, off, offsetSize);
        out.append(6, '\0');
        out.push_back(static_cast<char>(offsetSize));
        out.push_back(static_cast<char>(refSize));
        appendBigEndian(out, objects_.size(), 8);
        appendBigEndian(out, top, 8);
        appendBigEndian(out, tableOffset, 8);
        return out;
    }

  private:
    enum class Kind { String, Integer, Uid, Array, Dict };
    struct Object {
        Kind kind;
        std::string text;
        std::int64_t number;
        std::vector<Ref> refs;
    };

    Ref add(Object o) {
        objects_.push_back(std::move(o));
        return objects_.size() - 1;
    }

    /// Bytes (1, 2, 4 or 8) that hold every value below `limit`.
    static int bytesFor(std::uint64_t limit) {
        if (limit <= 0x100) return 1;
        if (limit <= 0x10000) return 2;
        if (limit <= 0x100000000ULL) return 4;
        return 8;
    }

    static void appendBigEndian(std::string& out, std::uint64_t v, int n) {
        for (int i = n - 1; i >= 0; --i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    }

    static void writeInteger(std::string& out, std::int64_t v) {
        // Only the 8-byte form is signed.
        const int n = v < 0 ? 8 : bytesFor(static_cast<std::uint64_t>(v) + 1);
        const int log2 = n == 1 ? 0 : n == 2 ? 1 : n == 4 ? 2 : 3;
        out.push_back(static_cast<char>(0x10 | log2));
        appendBigEndian(out, static_cast<std::uint64_t>(v), n);
    }

    static void writeMarker(std::string& out, int marker, std::size_t count) {
        if (count < 15) {
            out.push_back(static_cast<char>(marker | static_cast<int>(count)));
        } else {
            out.push_back(static_cast<char>(marker | 0x0F));
            writeInteger(out, static_cast<std::int64_t>(count));
        }
    }

    static void writeString(std::string& out, const std::string& s) {
        bool ascii = true;
        for (unsigned char c : s) ascii = ascii && c < 0x80;
        if (ascii) {
            writeMarker(out, 0x50, s.size());
            out += s;
            return;
        }
        std::vector<std::uint16_t> units = utf16(s);
        writeMarker(out, 0x60, units.size());
        for (std::uint16_t u : units) appendBigEndian(out, u, 2);
    }

    /// UTF-8 to UTF-16; a malformed sequence becomes U+FFFD.
    static std::vector<std::uint16_t> utf16(const std::string& s) {
        std::vector<std::uint16_t> units;
        std::size_t i = 0;
        while (i < s.size()) {
            const auto c = static_cast<unsigned char>(s[i]);
            int extra = c < 0x80         ? 0
                        : (c >> 5) == 6  ? 1
                        : (c >> 4) == 14 ? 2
                        : (c >> 3) == 30 ? 3
                                         : -1;
            std::uint32_t cp = extra == 0   ? c
                               : extra == 1 ? c & 0x1F
                               : extra == 2 ? c & 0x0F
                                            : c & 0x07;
            bool ok = extra >= 0;
            for (int k = 1; ok && k <= extra; ++k) {
                if (i + k >= s.size()) {
                    ok = false;
                    break;
                }
                const auto cc = static_cast<unsigned char>(s[i + k]);
                ok = (cc & 0xC0) == 0x80;
                cp = (cp << 6) | (cc & 0x3F);
            }
            if (!ok || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
                units.push_back(0xFFFD);
                ++i;
                continue;
            }
            i += extra + 1;
            if (cp >= 0x10000) {
                cp -= 0x10000;
                units.push_back(static_cast<std::uint16_t>(0xD800 + (cp >> 10)));
                units.push_back(static_cast<std::uint16_t>(0xDC00 + (cp & 0x3FF)));
            } else {
                units.push_back(static_cast<std::uint16_t>(cp));
            }
        }
        return units;
    }

    std::vector<Object> objects_;
    std::map<std::string, Ref> strings_;
    std::map<std::int64_t, Ref> integers_;
    std::map<std::uint64_t, Ref> uids_;
};

/// Builds "$objects" in the archiver's order.
class Encoder {
  public:
    using Ref = BinaryPlistWriter::Ref;

    Encoder() { objects_.push_back(out_.string("$null")); }

    UID encodeItemList(const KTItemList& items, const void* identity) {
        if (auto it = byIdentity_.find(identity); identity && it != byIdentity_.end())
            return it->second;
        UID uid = reserve(identity);
        std::vector<Ref> members;
        members.reserve(items.size());
        for (const KTItemPtr& item : items) members.push_back(out_.uid(encodeItem(item)));
        finishArray(uid, std::move(members));
        return uid;
    }

    UID encodeItem(const KTItemPtr& item) {
        if (!item) return 0;
        if (auto it = byIdentity_.find(item.get()); it != byIdentity_.end()) return it->second;
        UID uid = reserve(item.get());
        std::vector<std::pair<Ref, Ref>> entries;
        auto put = [&](Ref value) {
            entries.emplace_back(out_.string(key(entries.size())), value);
        };
        auto ref = [&](UID u) { return out_.uid(u); };
        const char* className;
        if (item->isGroup()) {
            const auto& group = static_cast<const KTGroupItem&>(*item);
            put(ref(encodeString(group.title())));
            put(ref(encodeItemList(group.children(), group.childrenList().get())));
            put(ref(encodeString(group.subdir())));
            put(ref(encodeString(group.storedGroupPath())));
            // A group read from an archive carries the state it was stored
            // with; one from the scan has none stored, so its live state goes out.
            put(ref(encodeNumber(group.storedGroupEnabled() ? group.storedGroupEnabled()
                                                            : std::optional<long long>(
                                                                  group.groupEnabled()))));
            put(ref(encodeItem(group.parent())));
            className = "KTGroupItem";
        } else {
            const auto& plugin = static_cast<const KTPluginItem&>(*item);
            put(ref(encodeString(plugin.shortName())));
            put(ref(encodeString(plugin.fileName())));
            put(ref(encodeString(plugin.subdir())));
            put(ref(encodeString(plugin.version())));
            put(ref(encodeNumber(plugin.pluginEnabled())));
            put(ref(encodeNumber(plugin.itemSelection())));
            put(ref(encodeStringList(plugin.architectures())));
            put(out_.integer(plugin.pluginType()));
            put(out_.integer(plugin.pluginAccess()));
            className = "KTPluginItem";
        }
        entries.emplace_back(out_.string("$class"), out_.uid(encodeClass(className)));
        objects_[uid] = out_.dict(entries);
        return uid;
    }

    /// The finished archive, with `root` as "$top"'s root.
    std::string finish(UID root) {
        Ref top = out_.dict({{out_.string("root"), out_.uid(root)}});
        Ref objects = out_.array(objects_);
        Ref archive = out_.dict({{out_.string("$archiver"), out_.string("NSKeyedArchiver")},
                                 {out_.string("$objects"), objects},
                                 {out_.string("$top"), top},
                                 {out_.string("$version"), out_.integer(100000)}});
        return out_.write(archive);
    }

  private:
    static std::string key(std::size_t i) { return "$" + std::to_string(i); }

    UID append(Ref ref) {
        objects_.push_back(ref);
        return objects_.size() - 1;
    }

    /// Takes the next UID for an object whose contents follow.
    UID reserve(const void* identity) {
        UID uid = append(0);
        if (identity) byIdentity_[identity] = uid;
        return uid;
    }

    void finishArray(UID uid, std::vector<Ref> members) {
        Ref list = out_.array(std::move(members));
        objects_[uid] =
            out_.dict({{out_.string("NS.objects"), list},
                       {out_.string("$class"), out_.uid(encodeClass(kNSMutableArray))}});
    }

    UID encodeString(const std::string& s) {
        if (auto it = strings_.find(s); it != strings_.end()) return it->second;
        return strings_[s] = append(out_.string(s));
    }
    UID encodeString(const std::optional<std::string>& s) { return s ? encodeString(*s) : 0; }

    UID encodeNumber(long long n) {
        if (auto it = numbers_.find(n); it != numbers_.end()) return it->second;
        return numbers_[n] = append(out_.integer(n));
    }
    UID encodeNumber(const std::optional<long long>& n) { return n ? encodeNumber(*n) : 0; }

    UID encodeStringList(const std::vector<std::string>& strings) {
        UID uid = reserve(nullptr);
        std::vector<Ref> members;
        for (const std::string& s : strings) members.push_back(out_.uid(encodeString(s)));
        finishArray(uid, std::move(members));
        return uid;
    }

    UID encodeClass(const std::string& name) {
        if (auto it = classes_.find(name); it != classes_.end()) return it->second;
        std::vector<Ref> chain{out_.string(name)};
        if (name == kNSMutableArray) chain.push_back(out_.string("NSArray"));
        chain.push_back(out_.string("NSObject"));
        Ref dict = out_.dict({{out_.string("$classes"), out_.array(std::move(chain))},
                              {out_.string("$classname"), out_.string(name)}});
        return classes_[name] = append(dict);
    }

    BinaryPlistWriter out_;
    std::vector<Ref> objects_;  // the writer's object for each UID
    std::map<const void*, UID> byIdentity_;
    std::map<std::string, UID> strings_;
    std::map<long long, UID> numbers_;
    std::map<std::string, UID> classes_;
};

/// Reads objects back by UID. Archives come from other processes (drag and
/// drop, files), so every reference is checked and cycles through children
/// lists are cut.
class Decoder {
  public:
    explicit Decoder(plist_t objects) : objects_(members(objects)) {}

    /// The nodes of an array in one walk (libplist finds an index by walking).
    static std::vector<plist_t> members(plist_t array) {
        std::vector<plist_t> out;
        plist_array_iter iter = nullptr;
        plist_array_new_iter(array, &iter);
        if (!iter) return out;
        for (;;) {
            plist_t item = nullptr;
            plist_array_next_item(array, iter, &item);
            if (!item) break;
            out.push_back(item);
        }
        free(iter);
        return out;
    }

    plist_t object(UID uid) const {
        if (uid == 0 || uid >= objects_.size()) return nullptr;
        return objects_[uid];
    }

    std::string className(plist_t dict) const {
        plist_t cls = object(uidOf(plist_dict_get_item(dict, "$class")));
        auto name = KTPlist::stringForKey(cls, "$classname");
        return name.value_or("");
    }

    static UID uidOf(plist_t node) {
        if (!node || plist_get_node_type(node) != PLIST_UID) return 0;
        uint64_t v = 0;
        plist_get_uid_val(node, &v);
        return v;
    }

    static bool isDict(plist_t node) { return node && plist_get_node_type(node) == PLIST_DICT; }

    bool isArrayObject(UID uid) const {
        plist_t node = object(uid);
        if (!isDict(node)) return false;
        std::string name = className(node);
        return name == "NSMutableArray" || name == "NSArray";
    }

    std::optional<std::string> decodeString(UID uid) const {
        return KTPlist::stringValue(object(uid));
    }

    static std::optional<long long> number(plist_t node) { return KTPlist::integerValue(node); }

    std::optional<long long> decodeNumber(UID uid) const { return number(object(uid)); }

    std::vector<UID> arrayMembers(UID uid) const {
        std::vector<UID> out;
        plist_t node = object(uid);
        if (!isArrayObject(uid)) return out;
        plist_t list = plist_dict_get_item(node, "NS.objects");
        if (!list || plist_get_node_type(list) != PLIST_ARRAY) return out;
        for (plist_t member : members(list)) out.push_back(uidOf(member));
        return out;
    }

    std::vector<std::string> decodeStringList(UID uid) const {
        std::vector<std::string> out;
        for (UID member : arrayMembers(uid)) {
            if (auto s = decodeString(member)) out.push_back(*s);
        }
        return out;
    }

    std::shared_ptr<KTItemList> decodeItemList(UID uid) {
        if (!isArrayObject(uid)) return nullptr;
        if (auto it = lists_.find(uid); it != lists_.end()) return it->second;
        auto list = std::make_shared<KTItemList>();
        lists_[uid] = list;
        for (UID member : arrayMembers(uid)) {
            // An item still being read is an ancestor: listing it would make a cycle.
            if (inProgress_.count(member)) continue;
            if (KTItemPtr item = decodeItem(member)) list->push_back(item);
        }
        return list;
    }

    KTItemPtr decodeItem(UID uid) {
        if (auto it = items_.find(uid); it != items_.end()) return it->second;
        plist_t node = object(uid);
        if (!isDict(node) || inProgress_.size() > kMaxDepth) return nullptr;
        const std::string name = className(node);
        auto field = [&](int i) {
            return plist_dict_get_item(node, ("$" + std::to_string(i)).c_str());
        };
        auto ref = [&](int i) { return uidOf(field(i)); };

        if (name == "KTPluginItem") {
            auto plugin = std::make_shared<KTPluginItem>();
            items_[uid] = plugin;
            plugin->setShortName(decodeString(ref(0)).value_or(""));
            plugin->setFileName(decodeString(ref(1)).value_or(""));
            plugin->setSubdir(decodeString(ref(2)));
            plugin->setVersion(decodeString(ref(3)).value_or(""));
            plugin->setPluginEnabled(decodeNumber(ref(4)).value_or(0));
            plugin->setItemSelection(decodeNumber(ref(5)).value_or(0));
            plugin->setArchitectures(decodeStringList(ref(6)));
            plugin->setPluginType(number(field(7)).value_or(0));
            plugin->setPluginAccess(number(field(8)).value_or(0));
            return plugin;
        }
        if (name == "KTGroupItem") {
            auto group = std::make_shared<KTGroupItem>();
            items_[uid] = group;
            inProgress_.insert(uid);
            group->setTitle(decodeString(ref(0)).value_or(""));
            group->setChildren(decodeItemList(ref(1)));
            group->setSubdir(decodeString(ref(2)));
            group->setGroupPath(decodeString(ref(3)));
            group->setGroupEnabled(decodeNumber(ref(4)));
            KTItemPtr parent = decodeItem(ref(5));
            if (parent && parent->isGroup() && parent != group)
                group->setParent(std::static_pointer_cast<KTGroupItem>(parent));
            inProgress_.erase(uid);
            return group;
        }
        return nullptr;
    }

  private:
    static constexpr std::size_t kMaxDepth = 256;
    std::vector<plist_t> objects_;
    std::map<UID, KTItemPtr> items_;
    std::map<UID, std::shared_ptr<KTItemList>> lists_;
    std::set<UID> inProgress_;
};

}  // namespace

std::string KTItemArchive::archivedDataWithRootObject(const KTItemList& items) {
    Encoder encoder;
    // The root list is a fresh array of the caller's, never one of the tree's lists.
    static const char rootIdentity = 0;
    UID root = encoder.encodeItemList(items, &rootIdentity);
    return encoder.finish(root);
}

std::string KTItemArchive::archivedDataWithRootObject(const KTItemPtr& item) {
    Encoder encoder;
    UID root = encoder.encodeItem(item);
    return encoder.finish(root);
}

std::optional<KTItemList> KTItemArchive::unarchiveObjectWithData(const std::string& bytes) {
    KTPlistPtr archive = KTPlist::fromMemory(bytes);
    if (!archive || plist_get_node_type(archive.get()) != PLIST_DICT) return std::nullopt;
    plist_t objects = plist_dict_get_item(archive.get(), "$objects");
    plist_t top = plist_dict_get_item(archive.get(), "$top");
    if (!objects || plist_get_node_type(objects) != PLIST_ARRAY || !Decoder::isDict(top))
        return std::nullopt;
    Decoder decoder(objects);
    UID root = Decoder::uidOf(plist_dict_get_item(top, "root"));
    if (decoder.isArrayObject(root)) {
        auto list = decoder.decodeItemList(root);
        return list ? *list : KTItemList{};
    }
    if (KTItemPtr item = decoder.decodeItem(root)) return KTItemList{item};
    return std::nullopt;
}

bool KTItemArchive::writeToFile(const KTItemList& items, const std::string& path,
                                std::string* error) {
    return KTPlist::writeFileAtomically(path, archivedDataWithRootObject(items), error);
}

std::optional<KTItemList> KTItemArchive::readFromFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return unarchiveObjectWithData(bytes);
}
