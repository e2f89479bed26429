#include "catalogue/KTItemArchive.h"

#include "TestPaths.h"
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "SharedFiles/KTPlist.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTPluginItem.h"
#include "support/ScratchRoot.h"

namespace {

const std::string kReference =
    std::string(AMBREL_SHARED_FIXTURES) + "/keyed-archive-reference.bplist";

/// Runs Python's plistlib, an independent reader of binary property lists
/// that knows UIDs; returns its exit status and fills `output`.
int python(const std::string& script, const std::vector<std::string>& args, std::string* output) {
    std::string command = "python3 -c '" + script + "'";
    for (const std::string& a : args) command += " '" + a + "'";
    command += " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    char buffer[4096];
    std::size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output->append(buffer, n);
    int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

KTGroupItem& asGroup(const KTItemPtr& item) {
    return static_cast<KTGroupItem&>(*item);
}
KTPluginItem& asPlugin(const KTItemPtr& item) {
    return static_cast<KTPluginItem&>(*item);
}

}  // namespace

TEST(KTItemArchiveTest, ReadsTheReferenceArchiveIntoItsTree) {
    ScratchRoot s;
    auto items = KTItemArchive::readFromFile(kReference);
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 1u);
    ASSERT_TRUE((*items)[0]->isGroup());
    KTGroupItem& blur = asGroup((*items)[0]);
    EXPECT_EQ(blur.title(), "Blur");
    EXPECT_EQ(blur.subdir(), "Blur");
    EXPECT_EQ(blur.storedGroupPath(), "/L/Blur");
    EXPECT_EQ(blur.storedGroupEnabled(), 1);
    EXPECT_EQ(blur.parent(), nullptr);
    ASSERT_EQ(blur.children().size(), 2u);

    KTPluginItem& glow = asPlugin(blur.children()[0]);
    EXPECT_EQ(glow.shortName(), "Glow");
    EXPECT_EQ(glow.fileName(), "Glow.fxplug");
    EXPECT_EQ(glow.subdir(), "Blur");
    EXPECT_EQ(glow.version(), "");
    EXPECT_EQ(glow.pluginEnabled(), 1);
    EXPECT_EQ(glow.itemSelection(), 0);
    EXPECT_EQ(glow.architectures(), std::vector<std::string>{"64-bit (Intel)"});
    EXPECT_EQ(glow.pluginType(), 0);
    EXPECT_EQ(glow.pluginAccess(), 1);
    EXPECT_EQ(glow.parent(), nullptr);  // a plug-in's parent is not archived

    KTGroupItem& soft = asGroup(blur.children()[1]);
    EXPECT_EQ(soft.title(), "Soft");
    EXPECT_EQ(soft.subdir(), "Blur/Soft");
    EXPECT_EQ(soft.storedGroupPath(), "/L/Blur/Soft");
    EXPECT_EQ(soft.storedGroupEnabled(), -1);
    EXPECT_TRUE(soft.children().empty());
    EXPECT_EQ(soft.parent().get(), &blur);  // the same object, not a second "Blur"
}

TEST(KTItemArchiveTest, WritesTheReferenceLayoutAsPlistlibSeesIt) {
    ScratchRoot s;
    auto blur = std::make_shared<KTGroupItem>();
    blur->setTitle("Blur");
    blur->setSubdir("Blur");
    blur->setGroupPath("/L/Blur");
    blur->setGroupEnabled(1);
    auto glow = std::make_shared<KTPluginItem>("Glow.fxplug", 0, 1, 1);
    glow->setShortName("Glow");
    glow->setSubdir("Blur");
    glow->setArchitectures({"64-bit (Intel)"});
    auto soft = std::make_shared<KTGroupItem>();
    soft->setTitle("Soft");
    soft->setSubdir("Blur/Soft");
    soft->setGroupPath("/L/Blur/Soft");
    soft->setGroupEnabled(-1);
    blur->addChild(glow);
    blur->addChild(soft);

    const std::string mine = s.base() + "/mine.bplist";
    ASSERT_TRUE(KTItemArchive::writeToFile({blur}, mine));
    ASSERT_EQ(KTPlist::readFile(mine) != nullptr, true);

    std::string out;
    const char* compare =
        "import plistlib, pprint, sys\n"
        "a = plistlib.load(open(sys.argv[1], \"rb\"))\n"
        "b = plistlib.load(open(sys.argv[2], \"rb\"))\n"
        "assert open(sys.argv[1], \"rb\").read(8) == b\"bplist00\"\n"
        "if a != b:\n"
        "    pprint.pprint(a); pprint.pprint(b); sys.exit(1)\n";
    EXPECT_EQ(python(compare, {mine, kReference}, &out), 0) << out;
}

TEST(KTItemArchiveTest, RoundTripKeepsKindAndScopeAndLosesLockAndParent) {
    ScratchRoot s;
    ScratchRoot::writeFile(s.homePath("/Library/Audio/Plug-Ins/VST3/Verb.vst3/.fxfactory.plist"));
    auto group = std::make_shared<KTGroupItem>();
    group->setTitle("FX");
    auto verb = std::make_shared<KTPluginItem>("Verb.vst3", 12, 1, 1);
    ASSERT_TRUE(verb->isLocked());
    auto odd = std::make_shared<KTPluginItem>("Odd.bundle", -1, 7, 0);
    odd->setShortName("Flou \xC3\xA9 \xF0\x9F\x98\x80");  // written as UTF-16, one pair surrogate
    auto huge = std::make_shared<KTPluginItem>("Huge.bundle", INT64_MAX, INT64_MIN, 1);
    group->addChild(verb);

    auto back = KTItemArchive::unarchiveObjectWithData(
        KTItemArchive::archivedDataWithRootObject(KTItemList{group, odd, huge}));
    ASSERT_TRUE(back);
    ASSERT_EQ(back->size(), 3u);
    KTPluginItem& verb2 = asPlugin(asGroup((*back)[0]).children()[0]);
    EXPECT_EQ(verb2.pluginType(), 12);
    EXPECT_EQ(verb2.pluginAccess(), 1);
    EXPECT_FALSE(verb2.isLocked());
    EXPECT_TRUE(verb2.isDeletable());
    EXPECT_EQ(verb2.parent(), nullptr);
    // actualPath is recomputed by the setters and lands where the file is.
    EXPECT_EQ(verb2.actualPath(), s.homePath("/Library/Audio/Plug-Ins/VST3/Verb.vst3"));
    EXPECT_EQ(asPlugin((*back)[1]).pluginType(), -1);
    EXPECT_EQ(asPlugin((*back)[1]).pluginAccess(), 7);
    EXPECT_EQ(asPlugin((*back)[1]).pluginEnabled(), 0);
    EXPECT_EQ(asPlugin((*back)[1]).shortName(), "Flou \xC3\xA9 \xF0\x9F\x98\x80");
    EXPECT_EQ(asPlugin((*back)[2]).pluginType(), INT64_MAX);
    EXPECT_EQ(asPlugin((*back)[2]).pluginAccess(), INT64_MIN);

    // A single item as the root comes back as a list of one.
    auto single =
        KTItemArchive::unarchiveObjectWithData(KTItemArchive::archivedDataWithRootObject(odd));
    ASSERT_TRUE(single);
    ASSERT_EQ(single->size(), 1u);
    EXPECT_EQ(asPlugin((*single)[0]).fileName(), "Odd.bundle");
}

TEST(KTItemArchiveTest, DamagedArchivesAreRefusedOrCut) {
    ScratchRoot s;
    EXPECT_FALSE(KTItemArchive::unarchiveObjectWithData("not a plist"));
    EXPECT_FALSE(KTItemArchive::unarchiveObjectWithData(""));

    // A group that lists itself among its children, and references out of range.
    std::string out;
    const char* write =
        "import plistlib, sys\n"
        "U = plistlib.UID\n"
        "objs = [\"$null\", {\"$class\": U(3), \"NS.objects\": [U(2), U(99)]},\n"
        "        {\"$0\": U(4), \"$1\": U(1), \"$2\": U(50), \"$3\": U(0), \"$4\": \"x\", \"$5\": "
        "U(2),\n"
        "         \"$class\": U(5)},\n"
        "        {\"$classname\": \"NSMutableArray\", \"$classes\": [\"NSMutableArray\"]}, "
        "\"Loop\",\n"
        "        {\"$classname\": \"KTGroupItem\", \"$classes\": [\"KTGroupItem\"]}]\n"
        "d = {\"$archiver\": \"NSKeyedArchiver\", \"$version\": 100000, \"$top\": {\"root\": "
        "U(2)},\n"
        "     \"$objects\": objs}\n"
        "open(sys.argv[1], \"wb\").write(plistlib.dumps(d, fmt=plistlib.FMT_BINARY))\n";
    const std::string path = s.base() + "/loop.bplist";
    ASSERT_EQ(python(write, {path}, &out), 0) << out;
    auto items = KTItemArchive::readFromFile(path);
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 1u);
    KTGroupItem& loop = asGroup((*items)[0]);
    EXPECT_EQ(loop.title(), "Loop");
    EXPECT_TRUE(loop.children().empty());
    EXPECT_EQ(loop.parent(), nullptr);
    EXPECT_FALSE(loop.subdir());
    EXPECT_FALSE(loop.storedGroupEnabled());
}
