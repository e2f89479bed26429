// "-allplugins -json" and "-csv" over a scratch tree with every kind, read
// back with Python's json and csv modules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include "catalogue/KTCatalogueExport.h"
#include "catalogue/KTDuplicateFinder.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

ChildProcess ambrel(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ChildProcess::builtProgram("ambrel")};
    argv.insert(argv.end(), args.begin(), args.end());
    return ChildProcess::run(argv);
}

void writeBytes(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

/// A bundle with an identifier, a name, a version and a universal
/// (x86_64 and arm64) executable.
void writeBundle(const std::string& path, const std::string& id, const std::string& name,
                 const std::string& version) {
    ScratchRoot::writeFile(path + "/Contents/Info.plist",
                           "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                           "<key>CFBundleIdentifier</key><string>" +
                               id +
                               "</string>"
                               "<key>CFBundleName</key><string>" +
                               name +
                               "</string>"
                               "<key>CFBundleShortVersionString</key><string>" +
                               version +
                               "</string>"
                               "<key>CFBundleExecutable</key><string>exe</string></dict></plist>");
    auto be = [](std::uint32_t v) {
        return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    };
    std::string fat = be(0xcafebabe) + be(2);
    fat += be(0x01000007) + be(3) + be(4096) + be(16) + be(12);
    fat += be(0x0100000c) + be(0) + be(8192) + be(16) + be(14);
    writeBytes(path + "/Contents/MacOS/exe", fat + std::string(64, '\0'));
}

const char* const kDisabled =
    "/Library/Application Support/Quellbrook/Tallowby/Ambrel Disabled Plugins";

/// Reads the JSON and the CSV export, checks they hold the same records and
/// prints one line per plug-in.
const char* const kReader = R"(
import csv, json, sys
doc = json.load(open(sys.argv[1], encoding='utf-8'))
rows = list(csv.DictReader(open(sys.argv[2], encoding='utf-8', newline='')))
plugins = doc['plugins']
assert len(rows) == len(plugins), (len(rows), len(plugins))
for p, r in zip(plugins, rows):
    assert list(r.keys()) == list(p.keys()), (list(r.keys()), list(p.keys()))
    for k, v in p.items():
        if isinstance(v, bool): v = 'true' if v else 'false'
        elif isinstance(v, list): v = ';'.join(v)
        elif v is None: v = ''
        assert r[k] == str(v), (k, r[k], v)
    print('|'.join(str(p[k]) for k in ('logicalPath', 'kind', 'kindName', 'scope', 'enabled',
        'locked', 'shortName', 'fileName', 'version', 'group', 'shadowed')) + '|' +
        ','.join(p['architectures']) + '|' + p['bundleIdentifier'])
)";

}  // namespace

TEST(KTCatalogueExportTest, JSONAndCSVCarryTheSameFieldsForEveryKind) {
    ScratchRoot s;
    const std::string r = s.root();
    writeBundle(r + "/Library/Plug-Ins/FxPlug/Pack, \"Blur\"/Glow.fxplug", "com.acme.glow", "Glow",
                "2.1");
    ScratchRoot::writeFile(r + "/Library/Plug-Ins/FxPlug/Managed.fxplug/.fxfactory.plist");
    ScratchRoot::writeFile(
        r + "/Library/Application Support/Final Cut Pro System Support/Plugins/Wipe.fcfcc");
    writeBundle(s.homePath("/Library/Audio/Plug-Ins/Components/Echo.component"), "com.acme.echo",
                "Echo", "1.0");
    ScratchRoot::writeFile(r + kDisabled +
                           "/Library/Audio/Plug-Ins/Components/Old.component/Contents/x");
    ScratchRoot::writeFile(r +
                           "/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins/"
                           "Key.avx");
    ScratchRoot::writeFile(
        r + "/Library/Application Support/Adobe/Common/Plug-ins/7.0/MediaCore/Grain.plugin");
    ScratchRoot::writeFile(r + "/Library/Audio/Plug-Ins/VST/Verb.vst");
    ScratchRoot::writeFile(r + "/Library/Audio/Plug-Ins/VST2/Verb2.vst");
    ScratchRoot::writeFile(r + "/Library/Audio/Plug-Ins/VST3/Verb3.vst3");
    ScratchRoot::writeFile(r + "/Library/OFX/Plugins/Sharpen.ofx.bundle");
    ScratchRoot::writeFile(r + "/Library/Graphics/Quartz Composer Plug-Ins/Noise.plugin");
    ScratchRoot::writeFile(r +
                           "/Library/Application Support/Final Cut Pro/Templates.localized/"
                           "Titles.localized/Lower/Lower.moti");

    const ChildProcess json = ambrel({"-allplugins", "-json"});
    const ChildProcess csv = ambrel({"-allplugins", "-csv"});
    ASSERT_EQ(json.exitCode, 0) << json.err;
    ASSERT_EQ(csv.exitCode, 0) << csv.err;
    // CRLF after every record; a field with a comma or a quote is quoted, its quotes doubled.
    EXPECT_EQ(std::count(csv.out.begin(), csv.out.end(), '\n'), 14);
    EXPECT_EQ(std::count(csv.out.begin(), csv.out.end(), '\r'), 14);
    EXPECT_NE(
        csv.out.find("\r\n\"" + r + "/Library/Plug-Ins/FxPlug/Pack, \"\"Blur\"\"/Glow.fxplug\","),
        std::string::npos);
    writeBytes(s.base() + "/out.json", json.out);
    writeBytes(s.base() + "/out.csv", csv.out);
    writeBytes(s.base() + "/read.py", kReader);
    const ChildProcess py = ChildProcess::run(
        {"/usr/bin/python3", s.base() + "/read.py", s.base() + "/out.json", s.base() + "/out.csv"});
    ASSERT_EQ(py.exitCode, 0) << py.err;

    const std::string home = s.home();
    const std::string expected =
        "/Library/Plug-Ins/FxPlug/Managed.fxplug|0|FxPlug|0|True|True|Managed|Managed.fxplug||None|"
        "False||\n"
        "/Library/Plug-Ins/FxPlug/Pack, \"Blur\"/Glow.fxplug|0|FxPlug|0|True|False|Glow|"
        "Glow.fxplug|2.1|Pack, \"Blur\"|False|x86_64,arm64|com.acme.glow\n"
        "/Library/Application Support/Final Cut Pro System Support/Plugins/Wipe.fcfcc|1|FxScript|0|"
        "True|False|Wipe|Wipe.fcfcc||None|False||\n" +
        home +
        "/Library/Audio/Plug-Ins/Components/Echo.component|2|Audio Unit|1|True|False|Echo|"
        "Echo.component|1.0|None|False|x86_64,arm64|com.acme.echo\n"
        "/Applications/Avid Media Composer/SupportingFiles/AVX_Plug-Ins/Key.avx|3|Avid AVX|0|"
        "True|False|Key|Key.avx||None|False||\n"
        "/Library/Application Support/Adobe/Common/Plug-ins/7.0/MediaCore/Grain.plugin|4|"
        "Adobe Plugin|0|True|False|Grain|Grain.plugin||None|False||\n"
        "/Library/Audio/Plug-Ins/VST/Verb.vst|7|VST|0|True|False|Verb|Verb.vst||None|False||\n"
        "/Library/Audio/Plug-Ins/VST2/Verb2.vst|11|VST2|0|True|False|Verb2|Verb2.vst||None|"
        "False||\n"
        "/Library/Audio/Plug-Ins/VST3/Verb3.vst3|12|VST3|0|True|False|Verb3|Verb3.vst3||None|"
        "False||\n"
        "/Library/OFX/Plugins/Sharpen.ofx.bundle|9|OpenFX Plugin|0|True|False|Sharpen.ofx|"
        "Sharpen.ofx.bundle||None|False||\n"
        "/Library/Graphics/Quartz Composer Plug-Ins/Noise.plugin|10|Quartz Composer Plugin|0|"
        "True|False|Noise|Noise.plugin||None|False||\n"
        "/Library/Application Support/Quellbrook/Tallowby/Ambrel Disabled Plugins/Library/"
        "Audio/Plug-Ins/Components/Old.component|2|Audio Unit|0|False|False|Old|"
        "Old.component||None|False||\n"
        "/Library/Application Support/Final Cut Pro/Templates.localized/Titles.localized/"
        "Lower|8|Motion Template|0|True|False|Lower|Lower||Titles.localized|False||\n";
    EXPECT_EQ(py.out, expected);
}

TEST(KTCatalogueExportTest, CSVQuotesOnlyWhatMustBeQuoted) {
    EXPECT_EQ(KTCatalogueExport::csvField("plain text"), "plain text");
    EXPECT_EQ(KTCatalogueExport::csvField("a,b"), "\"a,b\"");
    EXPECT_EQ(KTCatalogueExport::csvField("say \"hi\""), "\"say \"\"hi\"\"\"");
    EXPECT_EQ(KTCatalogueExport::csvField("two\nlines"), "\"two\nlines\"");
}
