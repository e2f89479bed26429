#include "SharedFiles/KTFileTree.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

TEST(KTFileTreeTest, MakeFoldersMakesWhatIsMissingAndSaysWhatWasThere) {
    ScratchRoot s;
    const std::string deep = s.base() + "/a/b c/d";
    EXPECT_EQ(KTFileTree::makeFolders(deep), 0);
    EXPECT_TRUE(fs::is_directory(deep));
    // Asked again, or with a trailing slash: there already, nothing changed.
    EXPECT_EQ(KTFileTree::makeFolders(deep), EEXIST);
    EXPECT_EQ(KTFileTree::makeFolders(s.base() + "/a/b c/e/"), 0);
    EXPECT_TRUE(fs::is_directory(s.base() + "/a/b c/e"));

    // A file, or a link to nothing, in the place of the folder is "there"
    // and stays as it was; a file in the place of a folder above is refused.
    ScratchRoot::writeFile(s.base() + "/file", "keep");
    EXPECT_EQ(KTFileTree::makeFolders(s.base() + "/file"), EEXIST);
    EXPECT_EQ(ScratchRoot::readFile(s.base() + "/file"), "keep");
    fs::create_symlink(s.base() + "/nowhere", s.base() + "/dangling");
    EXPECT_EQ(KTFileTree::makeFolders(s.base() + "/dangling"), EEXIST);
    EXPECT_FALSE(fs::exists(s.base() + "/nowhere"));
    EXPECT_EQ(KTFileTree::makeFolders(s.base() + "/file/x/y"), ENOTDIR);
    EXPECT_EQ(ScratchRoot::readFile(s.base() + "/file"), "keep");
}
