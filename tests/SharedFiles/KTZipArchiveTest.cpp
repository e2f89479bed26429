#include "SharedFiles/linux/KTZipArchive.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "SharedFiles/KTFileManager.h"
#include "support/ChildProcess.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

/// Python's zipfile, an independent reader: one line per entry with its
/// name, the UTF-8 flag, the Unix mode and the content (a link's target).
std::string listWithPython(const std::string& archive) {
    const char* script =
        "import sys, zipfile\n"
        "z = zipfile.ZipFile(sys.argv[1])\n"
        "assert z.testzip() is None\n"
        "for i in z.infolist():\n"
        "    d = '' if i.is_dir() else z.read(i).decode()\n"
        "    print(i.filename, i.flag_bits & 0x800 and 'utf8' or 'plain',\n"
        "          oct(i.external_attr >> 16), repr(d))\n";
    ChildProcess p = ChildProcess::run({"/usr/bin/python3", "-c", script, archive});
    EXPECT_EQ(p.exitCode, 0) << p.err;
    return p.out;
}

}  // namespace

TEST(KTZipArchiveTest, KeepsTheParentFlagsUtf8NamesAndStoresLinksAndEmptyFolders) {
    ScratchRoot s;
    const std::string src = s.base() + "/KT_App_Logs";
    ScratchRoot::writeFile(src + "/a.log", "alpha\n");
    ScratchRoot::writeFile(src + "/Überweisung Ünïcode.log", "beta\n");
    ScratchRoot::makeDirs(src + "/empty");
    ASSERT_EQ(::symlink("a.log", (src + "/link").c_str()), 0);
    ASSERT_EQ(::chmod((src + "/a.log").c_str(), 0640), 0);

    const std::string zip = s.base() + "/out.zip";
    ASSERT_TRUE(KTFileManager::compressFile(src, zip));
    EXPECT_EQ(listWithPython(zip),
              "KT_App_Logs/ plain 0o40755 ''\n"
              "KT_App_Logs/a.log plain 0o100640 'alpha\\n'\n"
              "KT_App_Logs/empty/ plain 0o40755 ''\n"
              "KT_App_Logs/link plain 0o120777 'a.log'\n"
              "KT_App_Logs/Überweisung Ünïcode.log utf8 0o100644 'beta\\n'\n");

    // Without the parent, and over an archive already there: replaced whole.
    ASSERT_TRUE(KTZipArchive::compress(src + "/empty", zip, false));
    EXPECT_EQ(listWithPython(zip), "");
}

TEST(KTZipArchiveTest, FailsWithTheFileNamedAndLeavesNothing) {
    ScratchRoot s;
    std::string error;
    const std::string zip = s.base() + "/out.zip";
    EXPECT_FALSE(KTZipArchive::compress(s.base() + "/missing", zip, true, &error));
    EXPECT_NE(error.find("/missing"), std::string::npos) << error;
    EXPECT_FALSE(fs::exists(zip));

    // An archive into a folder that does not exist.
    ScratchRoot::writeFile(s.base() + "/f.txt", "x");
    EXPECT_FALSE(KTFileManager::compressFile(s.base() + "/f.txt", s.base() + "/no/out.zip"));
}
