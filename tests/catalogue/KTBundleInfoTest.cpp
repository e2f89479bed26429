#include "catalogue/KTBundleInfo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "SharedFiles/KTLog.h"
#include "catalogue/KTStringsFile.h"
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

namespace {

std::string logSoFar() {
    KTLog::finishWriting();
    std::ifstream in(KTLog::currentLogPath());
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::size_t occurrences(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

}  // namespace

TEST(KTBundleInfoTest, RefusedFilesEmptyTheDetailsAndAreLoggedByName) {
    ScratchRoot s;
    KTLog::resetForTesting();
    KTLog::createNewLog(std::string("BundleInfo"), true);
    auto bundle = [&](const std::string& name) {
        const std::string b = s.rootPath("/" + name);
        ScratchRoot::writeFile(b + "/Contents/Info.plist",
                               infoPlist("<key>CFBundleName</key><string>Fine</string>"
                                         "<key>CFBundleVersion</key><string>3</string>"
                                         "<key>CFBundleExecutable</key><string>x</string>"));
        ScratchRoot::writeFile(b + "/Contents/MacOS/x", thinX86_64());
        return b;
    };
    std::string deep = "<plist>";
    for (int i = 0; i < 100000; ++i) deep += "<array>";

    // A binary Info.plist whose name holds a zero character.
    const std::string zeroName = bundle("ZeroName.vst");
    ScratchRoot::writeFile(zeroName + "/Contents/Info.plist",
                           std::string("bplist00\xd1\x01\x02\x5c"
                                       "CFBundleName\x55Gl\0ow"
                                       "\x08\x0b\x18\x00\x00\x00\x00\x00\x00\x01\x01"
                                       "\x00\x00\x00\x00\x00\x00\x00\x03"
                                       "\x00\x00\x00\x00\x00\x00\x00\x00"
                                       "\x00\x00\x00\x00\x00\x00\x00\x1e",
                                       8 + 3 + 13 + 6 + 3 + 32));
    const std::string deepInfo = bundle("DeepInfo.vst");
    ScratchRoot::writeFile(deepInfo + "/Contents/Info.plist", deep);
    // Localisations: a text key with an escaped zero, a property list nested too deeply.
    const std::string zeroKey = bundle("ZeroKey.vst");
    ScratchRoot::writeFile(zeroKey + "/Contents/Resources/en.lproj/InfoPlist.strings",
                           "\"CFBundle\\U0000Name\" = \"x\";");
    const std::string deepStrings = bundle("DeepStrings.vst");
    ScratchRoot::writeFile(deepStrings + "/Contents/Resources/fr.lproj/InfoPlist.strings", deep);

    for (const std::string& b : {zeroName, deepInfo, zeroKey, deepStrings}) {
        KTBundleInfo info = KTBundleInfo::read(b);
        EXPECT_TRUE(info.isBundle) << b;
        EXPECT_FALSE(info.name || info.version || !info.architectures.empty()) << b;
    }
    const std::string log = logSoFar();
    EXPECT_EQ(occurrences(log, "Unable to read property list " + zeroName +
                                   "/Contents/Info.plist - a string or key holds a zero character"),
              1u);
    EXPECT_EQ(occurrences(log, "Unable to read property list " + deepInfo +
                                   "/Contents/Info.plist - nested too deeply"),
              1u);
    EXPECT_EQ(occurrences(log, "Unable to read strings file " + zeroKey +
                                   "/Contents/Resources/en.lproj/InfoPlist.strings"),
              1u);
    EXPECT_EQ(
        occurrences(log, "Unable to read strings file " + deepStrings +
                             "/Contents/Resources/fr.lproj/InfoPlist.strings - nested too deeply"),
        1u);
    // A healthy bundle beside them is read as before.
    EXPECT_EQ(KTBundleInfo::read(bundle("Healthy.vst")).name.value_or(""), "Fine");
    KTLog::resetForTesting();
}

TEST(KTBundleInfoTest, StringsWithAZeroCharacterAreRefusedWhole) {
    std::string why;
    EXPECT_FALSE(KTStringsFile::parse(std::string("\"a\" = \"b\0c\";", 12), &why));
    EXPECT_EQ(why, "a string or key holds a zero character");
    std::string utf16 = "\xff\xfe";
    for (char c : std::string("\"a\" = \"b")) utf16 += c, utf16 += '\0';
    utf16 += std::string("\0\0\"\0;\0", 6);
    EXPECT_FALSE(KTStringsFile::parse(utf16));
    EXPECT_EQ(KTStringsFile::parse("\"a\" = \"b\";").value_or(KTStringsFile::Table{})["a"], "b");
}

TEST(KTBundleInfoTest, NamesAloneSkipTheExecutableAndOddPlacesStillFallThrough) {
    ScratchRoot s;
    std::string b = s.rootPath("/Glow.fxplug");
    ScratchRoot::writeFile(b + "/Contents/Info.plist",
                           infoPlist("<key>CFBundleName</key><string>Glow</string>"
                                     "<key>CFBundleVersion</key><string>3</string>"
                                     "<key>CFBundleExecutable</key><string>Glow</string>"));
    ScratchRoot::writeFile(b + "/Contents/MacOS/Glow", thinX86_64());
    KTBundleInfo names = KTBundleInfo::read(b, KTBundleInfo::Detail::NamesAndVersion);
    EXPECT_TRUE(names.isBundle);
    EXPECT_EQ(names.name.value_or(""), "Glow");
    EXPECT_EQ(names.version.value_or(""), "3");
    EXPECT_TRUE(names.architectures.empty());
    EXPECT_EQ(KTBundleInfo::read(b).architectures, std::vector<std::string>{"64-bit (Intel)"});

    // A folder where Contents/Info.plist should be is no Info.plist: the flat one counts.
    std::string odd = s.rootPath("/Odd.vst");
    ScratchRoot::makeDirs(odd + "/Contents/Info.plist");
    ScratchRoot::writeFile(odd + "/Info.plist",
                           infoPlist("<key>CFBundleName</key><string>Flat Odd</string>"));
    EXPECT_EQ(KTBundleInfo::read(odd).name.value_or(""), "Flat Odd");

    // A folder without any Info.plist (a Motion template) is a bundle without details.
    std::string tmpl = s.rootPath("/Lower");
    ScratchRoot::writeFile(tmpl + "/Lower.moti", "doc");
    KTBundleInfo bare = KTBundleInfo::read(tmpl);
    EXPECT_TRUE(bare.isBundle);
    EXPECT_FALSE(bare.name || bare.version);
    EXPECT_FALSE(KTBundleInfo::read(s.rootPath("/Nothing.vst")).isBundle);
}

namespace {

/// Reads a bundle by its path and again from its open parent folder, as the
/// catalogue load does; both must tell the same.
KTBundleInfo readBothWays(const std::string& bundle) {
    KTBundleInfo byPath = KTBundleInfo::read(bundle);
    const std::string parent = bundle.substr(0, bundle.rfind('/'));
    const int folder = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_GE(folder, 0) << parent;
    KTBundleInfo fromFolder = KTBundleInfo::read(bundle, KTBundleInfo::Detail::All, folder);
    ::close(folder);
    EXPECT_EQ(byPath.isBundle, fromFolder.isBundle) << bundle;
    EXPECT_EQ(byPath.name, fromFolder.name) << bundle;
    EXPECT_EQ(byPath.version, fromFolder.version) << bundle;
    EXPECT_EQ(byPath.architectures, fromFolder.architectures) << bundle;
    return fromFolder;
}

}  // namespace

TEST(KTBundleInfoTest, LocalisationsOrderAndResourcesThatAreNoFolder) {
    ScratchRoot s;
    auto bundle = [&](const std::string& name, const std::string& body) {
        const std::string b = s.rootPath("/Plug-Ins/" + name);
        ScratchRoot::writeFile(b + "/Contents/Info.plist", infoPlist(body));
        ScratchRoot::writeFile(b + "/Contents/MacOS/x", thinX86_64());
        return b;
    };
    const std::string exe = "<key>CFBundleExecutable</key><string>x</string>";

    // Resources a plain file, or a pipe: no localisation, the Info.plist names it.
    const std::string file =
        bundle("File.vst", "<key>CFBundleName</key><string>File</string>" + exe);
    ScratchRoot::writeFile(file + "/Contents/Resources", "not a folder");
    const std::string pipe =
        bundle("Pipe.vst", "<key>CFBundleName</key><string>Pipe</string>" + exe);
    ASSERT_EQ(::mkfifo((pipe + "/Contents/Resources").c_str(), 0644), 0);
    for (const auto& [b, name] : {std::pair{file, "File"}, std::pair{pipe, "Pipe"}}) {
        KTBundleInfo info = readBothWays(b);
        EXPECT_EQ(info.name.value_or(""), name);
        EXPECT_EQ(info.architectures, std::vector<std::string>{"64-bit (Intel)"});
    }

    // No English table: the languages in name order; a bare ".lproj" and a
    // file named like a language are none.
    const std::string foreign =
        bundle("Foreign.vst", "<key>CFBundleName</key><string>Plain</string>");
    ScratchRoot::writeFile(foreign + "/Contents/Resources/fr.lproj/InfoPlist.strings",
                           "CFBundleName = \"Nom\";");
    ScratchRoot::writeFile(foreign + "/Contents/Resources/de.lproj/InfoPlist.strings",
                           "CFBundleName = \"Name\";");
    ScratchRoot::writeFile(foreign + "/Contents/Resources/.lproj/InfoPlist.strings",
                           "CFBundleName = \"Bare\";");
    ScratchRoot::writeFile(foreign + "/Contents/Resources/aa.lproj", "CFBundleName = \"File\";");
    EXPECT_EQ(readBothWays(foreign).name.value_or(""), "Name");

    // Base comes after any English table and before the other languages; a
    // display name in the Info.plist beats a localised bundle name.
    const std::string base = bundle("Base.vst", "<key>CFBundleName</key><string>Plain</string>");
    ScratchRoot::writeFile(base + "/Contents/Resources/Base.lproj/InfoPlist.strings",
                           "CFBundleName = \"Basic\";");
    ScratchRoot::writeFile(base + "/Contents/Resources/ab.lproj/InfoPlist.strings",
                           "CFBundleName = \"Abkhaz\";");
    EXPECT_EQ(readBothWays(base).name.value_or(""), "Basic");
    const std::string shown =
        bundle("Shown.vst", "<key>CFBundleDisplayName</key><string>Shown</string>");
    ScratchRoot::writeFile(shown + "/Contents/Resources/en.lproj/InfoPlist.strings",
                           "CFBundleName = \"Localised\";");
    EXPECT_EQ(readBothWays(shown).name.value_or(""), "Shown");

    // A plain file and a folder without any Info.plist answer as before.
    ScratchRoot::writeFile(s.rootPath("/Plug-Ins/Script.txt"), "fxscript");
    EXPECT_FALSE(readBothWays(s.rootPath("/Plug-Ins/Script.txt")).isBundle);
    ScratchRoot::writeFile(s.rootPath("/Plug-Ins/Lower/Lower.moti"), "doc");
    EXPECT_TRUE(readBothWays(s.rootPath("/Plug-Ins/Lower")).isBundle);
    EXPECT_FALSE(readBothWays(s.rootPath("/Plug-Ins/Gone.vst")).isBundle);
}

TEST(KTBundleInfoTest, ARefusalReadFromAnOpenFolderNamesTheWholePath) {
    ScratchRoot s;
    KTLog::resetForTesting();
    KTLog::createNewLog(std::string("BundleInfoFolder"), true);
    const std::string b = s.rootPath("/Plug-Ins/Zero.vst");
    ScratchRoot::writeFile(b + "/Contents/Info.plist",
                           infoPlist("<key>CFBundleName</key><string>Zero</string>"
                                     "<key>CFBundleVersion</key><string>1</string>"));
    ScratchRoot::writeFile(b + "/Contents/Resources/de.lproj/InfoPlist.strings",
                           "\"CFBundle\\U0000Name\" = \"x\";");
    const int folder = ::open(s.rootPath("/Plug-Ins").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(folder, 0);
    KTBundleInfo info = KTBundleInfo::read(b, KTBundleInfo::Detail::NamesAndVersion, folder);
    ::close(folder);
    EXPECT_TRUE(info.isBundle);
    EXPECT_FALSE(info.name || info.version);
    EXPECT_EQ(occurrences(logSoFar(), "Unable to read strings file " + b +
                                          "/Contents/Resources/de.lproj/InfoPlist.strings"),
              1u);
    KTLog::resetForTesting();
}
