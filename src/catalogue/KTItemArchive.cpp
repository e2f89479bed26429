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

/// Builds "$objects" in the archiver's order.
class Encoder {
  public:
    Encoder() : objects_(plist_new_array()) {
        plist_array_append_item(objects_, plist_new_string("$null"));
    }
    ~Encoder() {
        if (objects_) plist_free(objects_);
    }

    UID encodeItemList(const KTItemList& items, const void* identity) {
        if (auto it = byIdentity_.find(identity); identity && it != byIdentity_.end())
            return it->second;
        UID uid = reserve(identity);
        plist_t list = plist_new_array();
        for (const KTItemPtr& item : items)
            plist_array_append_item(list, plist_new_uid(encodeItem(item)));
        finish(uid, arrayDict(list));
        return uid;
    }

    UID encodeItem(const KTItemPtr& item) {
        if (!item) return 0;
        if (auto it = byIdentity_.find(item.get()); it != byIdentity_.end()) return it->second;
        UID uid = reserve(item.get());
        plist_t dict = plist_new_dict();
        int key = 0;
        auto put = [&](plist_t value) {
            plist_dict_set_item(dict, ("$" + std::to_string(key++)).c_str(), value);
        };
        const char* className;
        if (item->isGroup()) {
            const auto& group = static_cast<const KTGroupItem&>(*item);
            put(plist_new_uid(encodeString(group.title())));
            put(plist_new_uid(encodeItemList(group.children(), group.childrenList().get())));
            put(plist_new_uid(encodeString(group.subdir())));
            put(plist_new_uid(encodeString(group.storedGroupPath())));
            put(plist_new_uid(encodeNumber(group.storedGroupEnabled())));
            put(plist_new_uid(encodeItem(group.parent())));
            className = "KTGroupItem";
        } else {
            const auto& plugin = static_cast<const KTPluginItem&>(*item);
            put(plist_new_uid(encodeString(plugin.shortName())));
            put(plist_new_uid(encodeString(plugin.fileName())));
            put(plist_new_uid(encodeString(plugin.subdir())));
            put(plist_new_uid(encodeString(plugin.version())));
            put(plist_new_uid(encodeNumber(plugin.pluginEnabled())));
            put(plist_new_uid(encodeNumber(plugin.itemSelection())));
            put(plist_new_uid(encodeStringList(plugin.architectures())));
            put(plist_new_uint(static_cast<std::uint64_t>(plugin.pluginType())));
            put(plist_new_uint(static_cast<std::uint64_t>(plugin.pluginAccess())));
            className = "KTPluginItem";
        }
        plist_dict_set_item(dict, "$class", plist_new_uid(encodeClass(className)));
        plist_array_set_item(objects_, dict, static_cast<uint32_t>(uid));
        return uid;
    }

    /// The finished archive, with `root` as "$top"'s root; the encoder is spent.
    std::string finish(UID root) {
        plist_t archive = plist_new_dict();
        plist_dict_set_item(archive, "$archiver", plist_new_string("NSKeyedArchiver"));
        plist_dict_set_item(archive, "$version", plist_new_uint(100000));
        plist_t top = plist_new_dict();
        plist_dict_set_item(top, "root", plist_new_uid(root));
        plist_dict_set_item(archive, "$top", top);
        plist_dict_set_item(archive, "$objects", objects_);
        objects_ = nullptr;
        KTPlistPtr owned(archive);
        return KTPlist::toBinary(archive);
    }

  private:
    UID append(plist_t node) {
        plist_array_append_item(objects_, node);
        return plist_array_get_size(objects_) - 1;
    }

    /// Takes the next UID for an object whose contents follow.
    UID reserve(const void* identity) {
        UID uid = append(plist_new_string("$null"));
        if (identity) byIdentity_[identity] = uid;
        return uid;
    }

    void finish(UID uid, plist_t dict) {
        plist_dict_set_item(dict, "$class", plist_new_uid(encodeClass(kNSMutableArray)));
        plist_array_set_item(objects_, dict, static_cast<uint32_t>(uid));
    }

    static plist_t arrayDict(plist_t list) {
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "NS.objects", list);
        return dict;
    }

    UID encodeString(const std::string& s) {
        if (auto it = strings_.find(s); it != strings_.end()) return it->second;
        return strings_[s] = append(plist_new_string(s.c_str()));
    }
    UID encodeString(const std::optional<std::string>& s) { return s ? encodeString(*s) : 0; }

    UID encodeNumber(long long n) {
        if (auto it = numbers_.find(n); it != numbers_.end()) return it->second;
        return numbers_[n] = append(plist_new_uint(static_cast<std::uint64_t>(n)));
    }
    UID encodeNumber(const std::optional<long long>& n) { return n ? encodeNumber(*n) : 0; }

    UID encodeStringList(const std::vector<std::string>& strings) {
        UID uid = reserve(nullptr);
        plist_t list = plist_new_array();
        for (const std::string& s : strings)
            plist_array_append_item(list, plist_new_uid(encodeString(s)));
        finish(uid, arrayDict(list));
        return uid;
    }

    UID encodeClass(const std::string& name) {
        if (auto it = classes_.find(name); it != classes_.end()) return it->second;
        plist_t dict = plist_new_dict();
        plist_t chain = plist_new_array();
        plist_array_append_item(chain, plist_new_string(name.c_str()));
        if (name == kNSMutableArray) plist_array_append_item(chain, plist_new_string("NSArray"));
        plist_array_append_item(chain, plist_new_string("NSObject"));
        plist_dict_set_item(dict, "$classes", chain);
        plist_dict_set_item(dict, "$classname", plist_new_string(name.c_str()));
        return classes_[name] = append(dict);
    }

    plist_t objects_;
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
    explicit Decoder(plist_t objects) : objects_(objects) {}

    plist_t object(UID uid) const {
        if (uid == 0 || uid >= plist_array_get_size(objects_)) return nullptr;
        return plist_array_get_item(objects_, static_cast<uint32_t>(uid));
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
        plist_t node = object(uid);
        if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
        char* s = nullptr;
        plist_get_string_val(node, &s);
        std::string out = s ? s : "";
        free(s);
        return out;
    }

    static std::optional<long long> number(plist_t node) {
        if (!node) return std::nullopt;
        switch (plist_get_node_type(node)) {
            case PLIST_UINT: {
                uint64_t v = 0;
                plist_get_uint_val(node, &v);
                return static_cast<long long>(v);
            }
            case PLIST_BOOLEAN: {
                uint8_t b = 0;
                plist_get_bool_val(node, &b);
                return b ? 1 : 0;
            }
            case PLIST_REAL: {
                double d = 0;
                plist_get_real_val(node, &d);
                if (!(d > -9.2e18 && d < 9.2e18)) return std::nullopt;
                return static_cast<long long>(d);
            }
            default:
                return std::nullopt;
        }
    }

    std::optional<long long> decodeNumber(UID uid) const { return number(object(uid)); }

    std::vector<UID> arrayMembers(UID uid) const {
        std::vector<UID> out;
        plist_t node = object(uid);
        if (!isArrayObject(uid)) return out;
        plist_t list = plist_dict_get_item(node, "NS.objects");
        if (!list || plist_get_node_type(list) != PLIST_ARRAY) return out;
        for (uint32_t i = 0; i < plist_array_get_size(list); ++i)
            out.push_back(uidOf(plist_array_get_item(list, i)));
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
    plist_t objects_;
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
