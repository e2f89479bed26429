#include "catalogue/KTBundleInfo.h"

#include <gtest/gtest.h>

#include "support/ScratchRoot.h"

namespace {

std::string infoPlist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + body +
           "</dict></plist>\n";
}

std::string thinX86_64() {
    return std::string("\xcf\xfa\xed\xfe\x07\x00\x00\x01\x03\x00\x00\x00", 12);
}

}  // namespace

TEST(KTBundleInfoTest, ReadsNameVersionAndArchitecturesOfABundle) {
    ScratchRoot s;
    std::string b = s.rootPath("/Glow.fxplug");
    ScratchRoot::writeFile(b + "/Contents/Info.plist",
                           infoPlist("<key>CFBundleName</key><string>GlowName</string>"
                                     "<key>CFBundleShortVersionString</key><string>2.1</string>"
                                     "<key>CFBundleVersion</key><string>210</string>"
                                     "<key>CFBundleExecutable</key><string>Glow</string>"));
    ScratchRoot::writeFile(b + "/Contents/MacOS/Glow", thinX86_64());
    // UTF-16 with a byte-order mark, as Xcode writes it; the English table wins.
    std::string utf16 = "\xff\xfe";
    for (char c : std::string("CFBundleDisplayName = \"Glow Pro\";")) utf16 += c, utf16 += '\0';
    ScratchRoot::writeFile(b + "/Contents/Resources/en.lproj/InfoPlist.strings", utf16);
    ScratchRoot::writeFile(b + "/Contents/Resources/de.lproj/InfoPlist.strings",
                           "\"CFBundleDisplayName\" = \"Leuchten\";");

    KTBundleInfo info = KTBundleInfo::read(b);
    EXPECT_TRUE(info.isBundle);
    EXPECT_EQ(info.name.value_or(""), "Glow Pro");
    EXPECT_EQ(info.version.value_or(""), "2.1");
    EXPECT_EQ(info.architectures, std::vector<std::string>{"64-bit (Intel)"});
}

TEST(KTBundleInfoTest, PlaceholdersFlatBundlesAndPlainFiles) {
    ScratchRoot s;
    std::string b = s.rootPath("/Unnamed.bundle");
    ScratchRoot::writeFile(b + "/Contents/Info.plist",
                           infoPlist("<key>CFBundleName</key><string>${PRODUCT_NAME}</string>"
                                     "<key>CFBundleVersion</key><string>7</string>"
                                     "<key>CFBundleExecutable</key><string>../../escape</string>"));
    KTBundleInfo info = KTBundleInfo::read(b);
    EXPECT_FALSE(info.name.has_value());
    EXPECT_EQ(info.version.value_or(""), "7");
    EXPECT_TRUE(info.architectures.empty());

    std::string flat = s.rootPath("/Flat.vst");
    ScratchRoot::writeFile(flat + "/Info.plist",
                           infoPlist("<key>CFBundleDisplayName</key><string>Flat</string>"));
    EXPECT_EQ(KTBundleInfo::read(flat).name.value_or(""), "Flat");

    std::string corrupt = s.rootPath("/Broken.plugin");
    ScratchRoot::writeFile(corrupt + "/Contents/Info.plist", "<plist><dict><key>");
    ScratchRoot::writeFile(corrupt + "/Contents/MacOS/Broken", "");
    KTBundleInfo broken = KTBundleInfo::read(corrupt);
    EXPECT_TRUE(broken.isBundle);
    EXPECT_FALSE(broken.name || broken.version);

    ScratchRoot::writeFile(s.rootPath("/Script.txt"), "fxscript");
    EXPECT_FALSE(KTBundleInfo::read(s.rootPath("/Script.txt")).isBundle);
}

TEST(KTBundleInfoTest, StringsFilesWithCommentsEscapesAndBareWords) {
    auto t = KTBundleInfo::parseStrings(
        "/* comment */\n// line\nCFBundleName = Bare_Word;\n"
        "\"CFBundleDisplayName\" = \"Say \\\"hi\\\" \\U00e9\";\n\"Lonely\";");
    EXPECT_EQ(t["CFBundleName"], "Bare_Word");
    EXPECT_EQ(t["CFBundleDisplayName"], "Say \"hi\" \xc3\xa9");
    EXPECT_EQ(t["Lonely"], "Lonely");
    EXPECT_TRUE(KTBundleInfo::parseStrings("\"unterminated = ").empty());
}
