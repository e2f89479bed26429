// The command line as a person runs it: the built program in a scratch root.
#include "app/core/KTCommandLine.h"

#include <gtest/gtest.h>

#include <sstream>

#include "catalogue/KTGroupItem.h"
#include "catalogue/KTItemArchive.h"
#include "catalogue/KTPluginItem.h"
#include "catalogue/KTPluginLocations.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace {

std::string plist(const std::string& name, const std::string& version) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleName</key><string>" +
           name + "</string><key>CFBundleVersion</key><string>" + version +
           "</string><key>CFBundleExecutable</key><string>x</string></dict></plist>";
}

void bundle(const std::string& path, const std::string& name, const std::string& version) {
    ScratchRoot::writeFile(path + "/Contents/Info.plist", plist(name, version));
    // A fat i386 and x86-64 executable.
    ScratchRoot::writeFile(path + "/Contents/MacOS/x",
                           std::string("\xca\xfe\xba\xbe\0\0\0\x02"
                                       "\0\0\0\x07\0\0\0\x03\0\0\x10\0\0\0\x10\0\0\0\0\x0c"
                                       "\x01\0\0\x07\0\0\0\x03\0\0\x20\0\0\0\x10\0\0\0\0\x0c",
                                       48));
}

ChildProcess ambrel(std::vector<std::string> args) {
    args.insert(args.begin(), ChildProcess::builtProgram("ambrel"));
    return ChildProcess::run(args);
}

}  // namespace

TEST(KTCommandLineTest, ListsEveryPluginOnceEnabledFirst) {
    ScratchRoot s;
    const std::string fx = s.rootPath("/Library/Plug-Ins/FxPlug");
    bundle(fx + "/Glow.fxplug", "Glow", "1");
    bundle(fx + "/Blur/Soft.fxplug", "Soft", "2");
    bundle(s.homePath("/Library/Audio/Plug-Ins/Components/Echo.component"), "Echo", "3");
    const std::string off = KTPluginLocations::disabledPath() + "/Library/Plug-Ins/FxPlug/Old.fxplug";
    bundle(off, "Old", "0.1");

    ChildProcess r = ambrel({"-allplugins"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    std::vector<std::string> lines;
    std::istringstream in(r.out);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    ASSERT_EQ(lines.size(), 4u) << r.out;
    EXPECT_EQ(lines.back(), off);
    std::vector<std::string> enabled(lines.begin(), lines.end() - 1);
    std::sort(enabled.begin(), enabled.end());
    std::vector<std::string> expected = {
        fx + "/Blur/Soft.fxplug", fx + "/Glow.fxplug",
        s.homePath("/Library/Audio/Plug-Ins/Components/Echo.component")};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(enabled, expected);

    ChildProcess quiet = ambrel({"-allplugins", "-plist"});
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.out, "");
}

TEST(KTCommandLineTest, DataArchiveHoldsTheTreeWithBundleDetails) {
    ScratchRoot s;
    const std::string vst = s.rootPath("/Library/Audio/Plug-Ins/VST3");
    bundle(vst + "/Suite/Mixing/Bus/Comp.vst3", "Bus Compressor", "5.1");
    bundle(KTPluginLocations::disabledPath() + "/Library/Audio/Plug-Ins/VST3/Suite/Gate.vst3", "Gate",
           "1.0");

    ChildProcess r = ambrel({"-allplugins", "-data"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    auto items = KTItemArchive::unarchiveObjectWithData(r.out);
    ASSERT_TRUE(items.has_value());
    ASSERT_EQ(items->size(), 1u);
    ASSERT_TRUE((*items)[0]->isGroup());
    auto suite = std::static_pointer_cast<KTGroupItem>((*items)[0]);
    EXPECT_EQ(suite->title(), "Suite");

    std::shared_ptr<KTPluginItem> comp, gate;
    for (const auto& p : suite->allPluginChildren()) (p->fileName() == "Comp.vst3" ? comp : gate) = p;
    ASSERT_TRUE(comp && gate);
    EXPECT_EQ(comp->subdir().value_or(""), "Suite/Mixing/Bus");
    EXPECT_EQ(comp->shortName(), "Bus Compressor");
    EXPECT_EQ(comp->version(), "5.1");
    EXPECT_EQ(comp->pluginType(), 12);
    EXPECT_EQ(comp->pluginAccess(), 0);
    EXPECT_EQ(comp->pluginEnabled(), 1);
    EXPECT_EQ(comp->architectures(), (std::vector<std::string>{"32-bit (Intel)", "64-bit (Intel)"}));
    EXPECT_EQ(gate->pluginEnabled(), 0);
    EXPECT_EQ(suite->groupEnabled(), -1);
}

TEST(KTCommandLineTest, VerbsAreExactAndOthersAreNotVerbs) {
    EXPECT_TRUE(KTCommandLine::isVerb({"-allplugins"}));
    EXPECT_FALSE(KTCommandLine::isVerb({"-AllPlugins"}));
    EXPECT_FALSE(KTCommandLine::isVerb({"allplugins"}));
    EXPECT_FALSE(KTCommandLine::isVerb({}));
}
