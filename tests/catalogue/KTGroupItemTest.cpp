#include "catalogue/KTGroupItem.h"

#include <gtest/gtest.h>

#include "catalogue/KTPluginItem.h"
#include "support/ScratchRoot.h"

namespace {

std::shared_ptr<KTPluginItem> plugin(const std::string& name, long long enabled = 1,
                                     std::int64_t access = 0, std::int64_t type = 0) {
    auto p = std::make_shared<KTPluginItem>(name + ".fxplug", type, access, enabled);
    p->setShortName(name);
    return p;
}

std::shared_ptr<KTGroupItem> group(const std::string& title, const std::string& subdir,
                                   const KTItemList& children = {}) {
    auto g = std::make_shared<KTGroupItem>();
    g->setTitle(title);
    g->setSubdir(subdir);
    for (const auto& c : children) g->addChild(c);
    return g;
}

std::vector<std::string> names(const KTGroupItem& g) {
    std::vector<std::string> out;
    for (const auto& c : g.children()) out.push_back(c->sortName());
    return out;
}

class KTGroupItemTest : public ::testing::Test {
  protected:
    ScratchRoot s;
};

}  // namespace

TEST_F(KTGroupItemTest, EnabledStateAggregatesDirectChildren) {
    EXPECT_EQ(group("G", "G")->groupEnabled(), -1);
    EXPECT_EQ(group("G", "G", {plugin("A", 0)})->groupEnabled(), 0);
    EXPECT_EQ(group("G", "G", {plugin("A", 1), plugin("B", 1)})->groupEnabled(), 1);
    EXPECT_EQ(group("G", "G", {plugin("A", 1), plugin("B", 0)})->groupEnabled(), -1);
    // An empty sub-group counts as mixed.
    EXPECT_EQ(group("G", "G", {plugin("A", 1), group("E", "G/E")})->groupEnabled(), -1);
    // Sub-groups count by their own state; anything but 1 is disabled for a plug-in.
    EXPECT_EQ(
        group("G", "G", {plugin("A", 0), group("S", "G/S", {plugin("B", 0)})})->groupEnabled(), 0);
    EXPECT_EQ(group("G", "G", {plugin("A", 2)})->groupEnabled(), 0);
}

TEST_F(KTGroupItemTest, AccessAggregatesAndMixedSubGroupsWin) {
    EXPECT_EQ(group("G", "G")->groupAccess(), -1);
    EXPECT_EQ(group("G", "G", {plugin("A", 1, 0)})->groupAccess(), 0);
    EXPECT_EQ(group("G", "G", {plugin("A", 1, 1), plugin("B", 1, 7)})->groupAccess(), 1);
    EXPECT_EQ(group("G", "G", {plugin("A", 1, 1), plugin("B", 1, 0)})->groupAccess(), -1);
    EXPECT_EQ(group("G", "G", {plugin("A", 1, 1), group("E", "G/E")})->groupAccess(), -1);
    EXPECT_EQ(
        group("G", "G", {plugin("A", 1, 1), group("S", "G/S", {plugin("B", 1, 1)})})->groupAccess(),
        1);
}

TEST_F(KTGroupItemTest, GroupPathIsTheMostCommonFolderAndBasePathItsKindFolder) {
    auto a = plugin("A"), b = plugin("B"), c = plugin("C", 0);
    for (auto& p : {a, b, c}) p->setSubdir("Blur");
    auto g = group("Blur", "Blur", {c, a, b});
    g->setGroupPath("/stored");
    EXPECT_EQ(g->groupPath(), s.rootPath("/Library/Plug-Ins/FxPlug/Blur"));
    EXPECT_EQ(g->basePath(), s.rootPath("/Library/Plug-Ins/FxPlug"));

    // A tie does not depend on the children's order.
    auto tie1 = group("Blur", "Blur", {plugin("X", 1), plugin("Y", 0)});
    auto tie2 = group("Blur", "Blur", {plugin("Y", 0), plugin("X", 1)});
    EXPECT_EQ(tie1->groupPath(), tie2->groupPath());

    auto empty = group("Soft", "Blur/Soft");
    empty->setGroupPath("/L/Blur/Soft");
    EXPECT_EQ(empty->groupPath(), "/L/Blur/Soft");
    EXPECT_EQ(empty->basePath(), "/L");
    // A sub-group's folder counts for its parent.
    auto outer = group("Blur", "Blur", {empty});
    EXPECT_EQ(outer->groupPath(), "/L/Blur");
    // More sub-folder components than the path has: the stored path.
    empty->setSubdir("a/b/c/d/e");
    EXPECT_EQ(empty->basePath(), "/L/Blur/Soft");
}

TEST_F(KTGroupItemTest, SubtreeOperationsRenameCountAndSkipLockedPlugins) {
    auto locked = plugin("L", 1);
    locked->setIsLocked(true);
    auto a = plugin("A", 1), b = plugin("B", 0);
    auto inner = group("Soft", "Blur/Soft", {b, locked});
    auto outer = group("Blur", "Blur", {a, inner});

    EXPECT_EQ(outer->totalChildCount(), 3u);
    EXPECT_EQ(outer->totalEnabledChildCount(), 2u);
    EXPECT_EQ(outer->allChildren().size(), 4u);
    EXPECT_EQ(outer->allPluginChildren().size(), 3u);

    outer->enableChildren(0);
    EXPECT_EQ(a->pluginEnabled(), 0);
    EXPECT_EQ(b->pluginEnabled(), 0);
    EXPECT_EQ(locked->pluginEnabled(), 1);
    outer->setChildAccess(1);
    EXPECT_EQ(b->pluginAccess(), 1);
    EXPECT_EQ(locked->pluginAccess(), 0);

    outer->renameChildSubdirs("Sharp");
    EXPECT_EQ(a->subdir(), "Sharp");
    EXPECT_EQ(inner->subdir(), "Sharp/Soft");
    EXPECT_EQ(b->subdir(), "Sharp/Soft");
}

TEST_F(KTGroupItemTest, SortingPutsGroupsLastByVersionAndStatus) {
    auto a = plugin("alpha", 1), b = plugin("Beta", 0), c = plugin("gamma", 1);
    a->setVersion("2.0");
    b->setVersion("1.0");
    c->setVersion("10");
    auto sub = group("Delta", "T/Delta", {plugin("z"), plugin("Y")});
    auto g = group("T", "T", {sub, c, b, a});

    g->sortChildrenByName(false);
    EXPECT_EQ(names(*g), (std::vector<std::string>{"alpha", "Beta", "Delta", "gamma"}));
    EXPECT_EQ(names(*sub), (std::vector<std::string>{"Y", "z"}));
    g->sortChildrenByName(true);
    EXPECT_EQ(names(*g), (std::vector<std::string>{"gamma", "Delta", "Beta", "alpha"}));
    EXPECT_EQ(names(*sub), (std::vector<std::string>{"z", "Y"}));

    g->sortChildrenByVersion(false);
    EXPECT_EQ(names(*g), (std::vector<std::string>{"Beta", "gamma", "alpha", "Delta"}));
    g->sortChildrenByStatus(false);
    EXPECT_EQ(names(*g).back(), "Delta");
    EXPECT_EQ(names(*g).front(), "Beta");
    // Descending reverses the whole list, so groups then lead.
    g->sortChildrenByStatus(true);
    EXPECT_EQ(names(*g).front(), "Delta");

    auto vst = plugin("V", 1, 0, 7), avid = plugin("W", 1, 0, 3);
    auto typed = group("T", "T", {vst, group("G", "T/G"), avid});
    typed->sortChildrenByType(false);
    EXPECT_EQ(names(*typed), (std::vector<std::string>{"W", "G", "V"}));  // Avid AVX, Group, VST
}

TEST_F(KTGroupItemTest, CopiesShareTheChildrenListAndFilteringLeavesTheSourceAlone) {
    auto glow = plugin("Glow"), blur = plugin("Blur Pro");
    auto soft = group("Soft", "FX/Soft", {plugin("Feather")});
    auto glowy = group("Glowing", "FX/Glowing", {plugin("Other")});
    auto fx = group("FX", "FX", {glow, blur, soft, glowy});

    auto copy = fx->copy();
    EXPECT_EQ(copy->childrenList(), fx->childrenList());
    copy->addChild(plugin("Late"));
    EXPECT_EQ(fx->children().size(), 5u);

    auto filtered = fx->groupWithFilteredChildren("GLOW");
    // Glow matches; Glowing's title matches although its child does not.
    ASSERT_EQ(filtered->children().size(), 2u);
    EXPECT_EQ(filtered->children()[0], glow);
    EXPECT_EQ(filtered->children()[1]->sortName(), "Glowing");
    EXPECT_TRUE(static_cast<KTGroupItem&>(*filtered->children()[1]).children().empty());
    EXPECT_EQ(fx->children().size(), 5u);
    EXPECT_EQ(glowy->children().size(), 1u);
    EXPECT_EQ(glow->parent(), fx);

    auto feather = fx->groupWithFilteredChildren("feath");
    ASSERT_EQ(feather->children().size(), 1u);
    EXPECT_EQ(static_cast<KTGroupItem&>(*feather->children()[0]).children().size(), 1u);
}
