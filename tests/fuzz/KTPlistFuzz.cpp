// libFuzzer entry: the property-list reader must survive any bytes a plug-in
// ships, and what it lets through must be safe for every later use.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "SharedFiles/KTPlist.h"

namespace {

/// Touches every node as the program does, without recursion.
void visitAll(plist_t root) {
    std::vector<plist_t> pending{root};
    while (!pending.empty()) {
        plist_t node = pending.back();
        pending.pop_back();
        switch (plist_get_node_type(node)) {
            case PLIST_STRING:
                (void)KTPlist::stringValue(node);
                break;
            case PLIST_ARRAY:
                for (uint32_t i = 0; i < plist_array_get_size(node); ++i)
                    pending.push_back(plist_array_get_item(node, i));
                break;
            case PLIST_DICT: {
                plist_dict_iter it = nullptr;
                plist_dict_new_iter(node, &it);
                for (;;) {
                    char* key = nullptr;
                    plist_t value = nullptr;
                    plist_dict_next_item(node, it, &key, &value);
                    if (!key) break;
                    (void)KTPlist::stringForKey(node, key);
                    (void)KTPlist::integerForKey(node, key);
                    free(key);
                    if (value) pending.push_back(value);
                }
                free(it);
                break;
            }
            default:
                (void)KTPlist::integerValue(node);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    KTPlistPtr p = KTPlist::fromMemory(bytes);
    if (!p) return 0;
    visitAll(p.get());
    // What was read can be written again and read back (libplist may refuse
    // its own rendering of text that is not UTF-8; it must not crash on it).
    (void)KTPlist::fromMemory(KTPlist::toBinary(p.get()));
    (void)KTPlist::fromMemory(KTPlist::toXML(p.get()));
    return 0;
}
