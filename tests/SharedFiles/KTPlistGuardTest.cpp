#include "SharedFiles/KTPlistGuard.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "SharedFiles/KTPlist.h"
#include "support/ScratchRoot.h"

namespace {

/// A binary property list from its objects' bytes: references one byte
/// wide, offsets two bytes wide, object 0 the root unless told.
std::string bplist(const std::vector<std::string>& objects, std::uint64_t root = 0,
                   std::uint64_t count = 0) {
    std::string out = "bplist00";
    std::vector<std::size_t> offsets;
    for (const auto& o : objects) {
        offsets.push_back(out.size());
        out += o;
    }
    const std::size_t table = out.size();
    for (auto off : offsets) out += char(off >> 8), out += char(off & 0xff);
    std::string trailer(6, '\0');
    trailer += char(2);
    trailer += char(1);
    auto be64 = [&](std::uint64_t v) {
        for (int s = 56; s >= 0; s -= 8) trailer += char((v >> s) & 0xff);
    };
    be64(count ? count : objects.size());
    be64(root);
    be64(table);
    return out + trailer;
}

std::string ascii(const std::string& s) {
    if (s.size() < 15) return char(0x50 | s.size()) + s;
    return std::string("\x5F\x10") + char(s.size()) + s;  // the length as an integer object
}
std::string array(const std::vector<int>& refs) {
    std::string o(1, char(0xA0 | refs.size()));
    for (int r : refs) o += char(r);
    return o;
}
std::string dict(const std::vector<int>& keys, const std::vector<int>& values) {
    std::string o(1, char(0xD0 | keys.size()));
    for (int k : keys) o += char(k);
    for (int v : values) o += char(v);
    return o;
}

std::string refusal(const std::string& bytes) {
    std::string why;
    KTPlistPtr p = KTPlist::fromMemory(bytes, &why);
    if (p) return "";
    return why.empty() ? "(refused by libplist)" : why;
}

std::string nestedXML(int depth, bool closed = true) {
    std::string s = "<plist>";
    for (int i = 0; i < depth; ++i) s += "<array>";
    if (closed)
        for (int i = 0; i < depth; ++i) s += "</array>";
    return s + "</plist>";
}

}  // namespace

TEST(KTPlistGuardTest, TakesWhatWritersWrite) {
    const std::string info = bplist({dict({1, 2}, {3, 4}), ascii("CFBundleName"),
                                     ascii("CFBundleVersion"), ascii("Glow"), "\x10\x07"});
    KTPlistPtr p = KTPlist::fromMemory(info);
    ASSERT_TRUE(p);
    EXPECT_EQ(KTPlist::stringForKey(p.get(), "CFBundleName"), "Glow");
    EXPECT_EQ(KTPlist::integerForKey(p.get(), "CFBundleVersion"), 7);

    // Everything libplist itself writes, shared keys included, reads back.
    plist_t d = plist_new_dict();
    plist_dict_set_item(d, "name", plist_new_string("Gl\xc3\xb6w \xf0\x9f\x98\x80"));
    plist_dict_set_item(d, "real", plist_new_real(2.5));
    plist_dict_set_item(d, "data", plist_new_data("\0\1\2", 3));
    plist_dict_set_item(d, "date", plist_new_date(1000, 0));
    plist_t list = plist_new_array();
    for (int i = 0; i < 3; ++i) {
        plist_t item = plist_new_dict();
        plist_dict_set_item(item, "name", plist_new_string("same"));
        plist_dict_set_item(item, "on", plist_new_bool(1));
        plist_array_append_item(list, item);
    }
    plist_dict_set_item(d, "list", list);
    for (const std::string& bytes : {KTPlist::toBinary(d), KTPlist::toXML(d)}) {
        KTPlistPtr back = KTPlist::fromMemory(bytes);
        ASSERT_TRUE(back) << refusal(bytes);
        EXPECT_EQ(KTPlist::stringForKey(back.get(), "name"), "Gl\xc3\xb6w \xf0\x9f\x98\x80");
    }
    plist_free(d);

    const std::string xml =
        "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\"><!-- <array> in a comment --><dict>"
        "<key>CFBundleName</key><string>A &amp; B &#x263A; &#65;</string>"
        "<key>Empty</key><array/></dict></plist>";
    EXPECT_EQ(KTPlistGuard::refusal(xml), std::nullopt);
    EXPECT_EQ(KTPlistGuard::refusal(nestedXML(KTPlistGuard::kMaxDepth - 1)), std::nullopt);
}

TEST(KTPlistGuardTest, RefusesZeroCharactersInStringsAndKeys) {
    // The 94-byte kind of file that made libplist assert: a name with a zero in it.
    const std::string nameWithZero = std::string("\x55", 1) + std::string("Gl\0ow", 5);
    for (const std::string& bytes :
         {bplist({dict({1}, {2}), ascii("CFBundleName"), nameWithZero}),
          bplist({dict({1}, {2}), nameWithZero, ascii("value")}),
          bplist({std::string("\x62\x00\x41\x00\x00", 5)}),  // UTF-16 "A" and a zero
          std::string("<plist><string>a\0b</string></plist>", 36),
          std::string("<plist><dict><key>a&#0;</key><true/></dict></plist>"),
          std::string("<plist><string>a&#x000;</string></plist>")}) {
        EXPECT_NE(refusal(bytes).find("zero character"), std::string::npos) << refusal(bytes);
    }
}

TEST(KTPlistGuardTest, RefusesNestingDeeperThanTheBound) {
    // 100,000 levels overflowed the stack in libplist's recursive free.
    for (const std::string& bytes :
         {nestedXML(100000), nestedXML(100000, false), nestedXML(KTPlistGuard::kMaxDepth + 1)})
        EXPECT_EQ(refusal(bytes), "nested too deeply");

    auto chain = [](int depth) {
        std::vector<std::string> objects;
        for (int i = 0; i + 1 < depth; ++i) objects.push_back(array({i + 1}));
        objects.push_back(array({}));
        return objects;
    };
    // One-byte references reach 255 objects: a deeper chain needs two-byte
    // ones, so the bound itself is checked in XML and a shallow chain here.
    EXPECT_EQ(refusal(bplist(chain(200))), "");
}

TEST(KTPlistGuardTest, RefusesReferencesAndLengthsPastTheEnd) {
    struct Case {
        const char* what;
        std::string bytes;
    };
    std::string offsetPastEnd = bplist({ascii("x")});
    offsetPastEnd[9 + 1] = char(0x40);  // the object's offset points into the trailer
    std::string tablePastEnd = bplist({ascii("x")});
    tablePastEnd[tablePastEnd.size() - 1] = char(0xF0);
    const Case cases[] = {
        {"offset", offsetPastEnd},
        {"table", tablePastEnd},
        {"root", bplist({ascii("x")}, 1)},
        {"count", bplist({ascii("x")}, 0, 1000)},
        {"reference", bplist({array({5})})},
        {"string length", bplist({std::string("\x5E") + "abc"})},
        {"long length", bplist({std::string("\x5F\x13\x00\x00\x00\x00\x00\x00\x10\x00", 10)})},
        {"length marker", bplist({std::string("\x5F\x55") + "abc"})},
        {"itself", bplist({array({1}), array({0})})},
        {"key type", bplist({dict({1}, {1}), "\x10\x01"})},
        {"surrogate", bplist({std::string("\x61\xD8\x00", 3)})},
        {"unknown type", bplist({"\x70"})},
        {"short", std::string("bplist00\0\0", 10)},
    };
    for (const auto& c : cases) {
        const std::string why = refusal(c.bytes);
        EXPECT_FALSE(why.empty()) << c.what;
        EXPECT_NE(why, "(refused by libplist)") << c.what << " reached libplist";
    }

    // Shared containers: 60 levels of [previous, previous] is 2^60 nodes to libplist.
    std::vector<std::string> laughs;
    for (int i = 0; i < 60; ++i) laughs.push_back(array({i + 1, i + 1}));
    laughs.push_back(ascii("lol"));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(refusal(bplist(laughs)), "its shared objects unfold far beyond its size");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(KTPlistGuardTest, ReadFileTakesOnlyRegularFilesOfBoundedSize) {
    ScratchRoot s;
    const std::string fifo = s.base() + "/pipe.plist";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(KTPlist::readFile(fifo));  // returns at once, no writer needed
    EXPECT_FALSE(KTPlist::readFile("/dev/zero"));

    const std::string hostile = s.base() + "/Info.plist";
    ScratchRoot::writeFile(hostile, nestedXML(5000));
    std::string why;
    EXPECT_FALSE(KTPlist::readFile(hostile, &why));
    EXPECT_EQ(why, "nested too deeply");
}
