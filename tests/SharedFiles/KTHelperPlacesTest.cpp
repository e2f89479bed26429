#include "SharedFiles/linux/KTHelperPlaces.h"

#include <gtest/gtest.h>

#include <variant>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/linux/KTHelperPolicy.h"

namespace {

TEST(KTHelperPathsTest, NormalisingRefusesWhatOnlyTheDiskCouldAnswer) {
    auto n = [](const std::string& p) {
        return KTLocalPaths::normalisedPath(p).value_or("(none)");
    };
    EXPECT_EQ(n("//etc"), "/etc");
    EXPECT_EQ(n("/./etc/"), "/etc");
    EXPECT_EQ(n("/a//b/./c///"), "/a/b/c");
    EXPECT_EQ(n("///"), "/");
    EXPECT_EQ(n("/a/.hidden/..x"), "/a/.hidden/..x");
    EXPECT_EQ(n("/usr/../etc"), "(none)");
    EXPECT_EQ(n("/a/b/.."), "(none)");
    EXPECT_EQ(n("relative/path"), "(none)");
    EXPECT_EQ(n(std::string("/a\0b", 4)), "(none)");
}

TEST(KTHelperPathsTest, TheMachinesSystemFoldersHoweverSpelled) {
    for (const char* p : {"/", "/etc/", "//etc", "/./etc", "/usr/../etc", "/root/", "/bin/",
                          "/home", "/opt", "/srv", "/tmp", "/etc/sudoers.d", "/root/.ssh",
                          "/usr/local", "/var/lib/x", "/proc/1", "/System/Library"})
        EXPECT_TRUE(KTLocalPaths::isRealSystemFolder(p)) << p;
    for (const char* p : {"/home/u", "/tmp/scratch/root", "/Library/Audio", "/opt/x", "/etcetera"})
        EXPECT_FALSE(KTLocalPaths::isRealSystemFolder(p)) << p;
    // The shared top-level folders are guarded themselves, not what lies in them.
    for (const char* p : {"/home", "/tmp", "/opt", "/srv", "/root"})
        EXPECT_TRUE(KTLocalPaths::isPathSystemDirectory(p, true)) << p;
    EXPECT_FALSE(KTLocalPaths::isPathSystemDirectory("/tmp/x", true));
}

std::optional<KTHelperStep> parsed(const std::vector<std::string>& fields) {
    auto r = KTHelperPolicy::parse(fields);
    if (auto* step = std::get_if<KTHelperStep>(&r)) return *step;
    return std::nullopt;
}

TEST(KTHelperPolicyTest, RequestsCarryOnlyWhatTheOperationsSend) {
    auto mv = parsed({"/bin/mv", "-f", "-T", "/a//B.vst/", "/c/./B.vst"});
    ASSERT_TRUE(mv);
    EXPECT_EQ(mv->kind, KTHelperStep::Kind::Move);
    EXPECT_FALSE(mv->intoExistingFolder);
    EXPECT_EQ(mv->paths, (std::vector<std::string>{"/a/B.vst", "/c/B.vst"}));
    EXPECT_TRUE(parsed({"/bin/mv", "-f", "/a/B", "/c/B"})->intoExistingFolder);
    EXPECT_TRUE(parsed({"/bin/rm", "-Rdf", "/a/b"})->recursive);
    EXPECT_FALSE(parsed({"/bin/rm", "-d", "/a/b"})->recursive);
    EXPECT_EQ(parsed({"/usr/sbin/chown", "-R", "someone", "/a"})->owner, "someone");
    // A copy may read from the user's own files anywhere, not from the kernel's.
    EXPECT_TRUE(parsed({"/bin/cp", "-f", "-p", "-R", "-T", "/etc/passwd", "/a/b"}));
    EXPECT_FALSE(parsed({"/bin/cp", "-f", "-p", "-R", "/proc/self/environ", "/a/b"}));
    EXPECT_FALSE(parsed({"/bin/cp", "-f", "-p", "-R", "/a/b", "/etc/b"}));

    for (const char* mode : {"4755", "a+rwx", "u+s", "777", "a+rw,u+s"})
        EXPECT_FALSE(parsed({"/bin/chmod", "-R", mode, "/a"})) << mode;
    for (const char* owner : {"root:root", "nobody:root", "--reference=/etc", ":0"})
        EXPECT_FALSE(parsed({"/usr/sbin/chown", "-R", owner, "/a"})) << owner;
    EXPECT_FALSE(parsed({"/bin/mv", "-f", "/a/../etc/x", "/b"}));
    EXPECT_FALSE(parsed({"/bin/rm", "-Rdf", "/home"}));
    EXPECT_FALSE(parsed({"/bin/rm", "-Rdf", "//root/"}));
    EXPECT_FALSE(parsed({"/bin/mv", "-f", "-t", "/etc", "/a"}));
}

TEST(KTHelperPlacesTest, ServesThePluginPlacesOfBothScopesAndTheUsersTrash) {
    KTHelperPlaces places("/srv/scratch", 1000, "/home/u", {"/", "/media/disk one"});
    // Machine places under the served root, user places under the home.
    EXPECT_TRUE(places.isInside("/srv/scratch/Library/Audio/Plug-Ins/VST/A.vst"));
    EXPECT_TRUE(places.isInside("/home/u/Library/Audio/Plug-Ins/VST3/A.vst3"));
    EXPECT_TRUE(places.isInside("/home/u/Movies/Motion Templates.localized/T"));
    EXPECT_TRUE(places.isInside(
        "/srv/scratch/Library/Application Support/Quellbrook/Tallowby/Ambrel Disabled "
        "Plugins/home/u/Library/Plug-Ins/FxPlug/G.fxplug"));
    EXPECT_TRUE(places.isInside("/srv/scratch/Library/Audio/Plug-Ins/VST/.ambrel-work.1.2.copy"));
    EXPECT_TRUE(places.isInside("/home/u/.local/share/Trash/files/A.vst"));
    EXPECT_TRUE(places.isInside("/.Trash-1000/files/A.vst"));
    EXPECT_TRUE(places.isInside("/media/disk one/.Trash/1000/files/A.vst"));
    // The places themselves, other roots, other users, other Trash folders.
    EXPECT_FALSE(places.isInside("/srv/scratch/Library/Audio/Plug-Ins/VST"));
    EXPECT_FALSE(places.isInside("/Library/Audio/Plug-Ins/VST/A.vst"));
    EXPECT_FALSE(places.isInside("/home/v/Library/Audio/Plug-Ins/VST/A.vst"));
    EXPECT_FALSE(places.isInside("/.Trash-1001/files/A.vst"));
    EXPECT_FALSE(places.isInside("/srv/scratch/Library/Audio/Plug-Ins/VSTx/A.vst"));
    // Folders on the way to a place may be made; beside them not.
    EXPECT_TRUE(places.mayMakeFolder("/srv/scratch/Library/Application Support"));
    EXPECT_TRUE(places.mayMakeFolder("/srv/scratch/Library/Audio/Plug-Ins/VST"));
    EXPECT_FALSE(places.mayMakeFolder("/srv/scratch/Library/Other"));
    // Owners and modes only in the program's own folder.
    EXPECT_TRUE(
        places.isProgramFolder("/srv/scratch/Library/Application Support/Quellbrook/Tallowby"));
    EXPECT_FALSE(places.isProgramFolder("/srv/scratch/Library/Audio/Plug-Ins/VST/A.vst"));
}

TEST(KTHelperPlacesTest, NoMachinePlacesForARootInTheSystemsFolders) {
    for (const char* root : {"/etc", "/usr/../etc", "/root", "//var/x", "relative", "/a/"})
        EXPECT_TRUE(KTHelperPlaces::rootRefusal(root)) << root;
    EXPECT_FALSE(KTHelperPlaces::rootRefusal("/"));
    EXPECT_FALSE(KTHelperPlaces::rootRefusal("/tmp/scratch"));
    KTHelperPlaces none(std::nullopt, 1000, "/root", {});
    EXPECT_TRUE(none.places().empty());  // and a home in a system folder gives nothing either
}

TEST(KTHelperPlacesTest, MountPointsComeUnescapedFromMountinfo) {
    const std::string info =
        "22 1 8:1 / / rw,relatime - ext4 /dev/sda1 rw\n"
        "40 22 0:35 / /media/my\\040disk rw - vfat /dev/sdb1 rw\n"
        "bad line\n";
    EXPECT_EQ(KTHelperPlaces::mountPointsFrom(info),
              (std::vector<std::string>{"/", "/media/my disk"}));
}

}  // namespace
