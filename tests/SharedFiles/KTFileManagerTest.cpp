#include "SharedFiles/KTFileManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <regex>

#include "SharedFiles/KTLog.h"
#include "SharedFiles/linux/KTFreedesktopTrash.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

/// A tmpfs mounted for one test, always unmounted again.
class TmpfsMount {
  public:
    TmpfsMount(const std::string& where, const std::string& size) : where_(where) {
        fs::create_directories(where);
        ok_ = ::mount("tmpfs", where.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
        if (!ok_) error_ = std::strerror(errno);
    }
    ~TmpfsMount() {
        if (ok_ && ::umount2(where_.c_str(), 0) != 0) ::umount2(where_.c_str(), MNT_DETACH);
    }
    bool ok() const { return ok_; }
    const std::string& error() const { return error_; }

  private:
    std::string where_, error_;
    bool ok_ = false;
};

/// Clears the flag when the test ends, however it ends, so the scratch folder can go.
struct ImmutableGuard {
    std::string path;
    ~ImmutableGuard() { ScratchRoot::setImmutable(path, false); }
};

/// What trash-cli, an independent reader of the trash, lists for this home.
std::string trashList(const ScratchRoot& s) {
    std::string cmd = "env -u XDG_DATA_HOME HOME='" + s.home() + "' trash-list 2>&1";
    FILE* p = ::popen(cmd.c_str(), "r");
    if (!p) return "popen failed";
    std::string out;
    char buf[4096];
    while (std::size_t n = std::fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    ::pclose(p);
    return out;
}

int linesEndingWith(const std::string& text, const std::string& suffix) {
    int n = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (line.size() >= suffix.size() &&
            line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0)
            ++n;
        start = end + 1;
    }
    return n;
}

bool emptyOrMissing(const std::string& dir) {
    std::error_code ec;
    return !fs::exists(dir, ec) || fs::is_empty(dir, ec);
}

class KTFileManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        KTLog::resetForTesting();
        KTLog::setSuperuserForTesting(false);
        KTLog::createNewLog(std::string("Files"), true);
    }
    void TearDown() override { KTLog::resetForTesting(); }
    std::string trash(const std::string& rel) const {
        return scratch.homePath("/.local/share/Trash" + rel);
    }
    std::string logText() const {
        KTLog::finishWriting();
        return ScratchRoot::readFile(scratch.homePath("/Library/Logs/Quellbrook/Files.1.log"));
    }
    ScratchRoot scratch;
};

}  // namespace

TEST_F(KTFileManagerTest, TrashedItemsAreListedByTheDesktopTrashTools) {
    const std::string folder = scratch.rootPath("/Library/Plug-Ins/FxPlug");
    const std::string item = folder + "/Glow 50% \xC3\xA9t\xC3\xA9.fxplug";
    ScratchRoot::writeFile(item + "/Contents/Info.plist", "first");

    ASSERT_TRUE(KTFileManager::trashFile(item, false));
    EXPECT_FALSE(KTFileManager::fileExistsAtPath(item));
    const std::string name = "Glow 50% \xC3\xA9t\xC3\xA9.fxplug";
    EXPECT_EQ(ScratchRoot::readFile(trash("/files/" + name + "/Contents/Info.plist")), "first");
    std::string info = ScratchRoot::readFile(trash("/info/" + name + ".trashinfo"));
    EXPECT_TRUE(std::regex_match(
        info, std::regex("\\[Trash Info\\]\nPath=" +
                         std::regex_replace(KTFreedesktopTrash::percentEncode(item),
                                            std::regex(R"([.+%()])"), R"(\$&)") +
                         "\nDeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n")))
        << info;
    EXPECT_NE(info.find("Glow%2050%25%20%C3%A9t%C3%A9.fxplug"), std::string::npos);

    // A second item of the same name gets a name of its own; the timed form waits for it.
    ScratchRoot::writeFile(item + "/Contents/Info.plist", "second");
    ASSERT_TRUE(KTFileManager::trashFile(item, 2s));
    EXPECT_EQ(ScratchRoot::readFile(
                  trash("/files/Glow 50% \xC3\xA9t\xC3\xA9 2.fxplug/Contents/Info.plist")),
              "second");

    std::string listed = trashList(scratch);
    EXPECT_EQ(linesEndingWith(listed, " " + item), 2) << listed;

    // Nothing there: nothing to do, and that is success.
    EXPECT_TRUE(KTFileManager::trashFile(folder + "/Missing.fxplug", false));
}

TEST_F(KTFileManagerTest, LockedItemsAreUnlockedAndDanglingLinksStillCount) {
    const std::string item = scratch.rootPath("/Library/Plug-Ins/Locked.plugin");
    ScratchRoot::writeFile(item, "x");
    ImmutableGuard guard{item};
    if (!ScratchRoot::setImmutable(item, true))
        GTEST_SKIP() << "this file system or user cannot lock files";
    ASSERT_NE(::unlink(item.c_str()), 0);  // it really is locked
    EXPECT_TRUE(KTFileManager::trashFile(item, false));
    EXPECT_FALSE(KTFileManager::fileExistsAtPath(item));
    EXPECT_TRUE(KTFileManager::fileExistsAtPath(trash("/files/Locked.plugin")));

    const std::string link = scratch.rootPath("/Library/Plug-Ins/Dangling.plugin");
    fs::create_symlink(scratch.rootPath("/nowhere"), link);
    EXPECT_TRUE(KTFileManager::fileExistsAtPath(link));
    EXPECT_TRUE(KTFileManager::unlockFile(link));
    EXPECT_TRUE(KTFileManager::trashFile(link, false));
    EXPECT_TRUE(fs::is_symlink(trash("/files/Dangling.plugin")));

    const std::string missing = scratch.rootPath("/Library/Plug-Ins/Gone.plugin");
    EXPECT_FALSE(KTFileManager::unlockFile(missing));
    EXPECT_NE(logText().find(" - Unable to unlock file " + missing + ": No such file or directory"),
              std::string::npos);
}

TEST_F(KTFileManagerTest, FailedMoveLeavesTheItemAndNoTrashEntry) {
    const std::string folder = scratch.rootPath("/Library/Plug-Ins/VST");
    const std::string item = folder + "/Stuck.vst";
    ScratchRoot::writeFile(item + "/Contents/x", "x");
    ImmutableGuard guard{folder};
    if (::geteuid() == 0) {
        if (!ScratchRoot::setImmutable(folder, true)) GTEST_SKIP() << "cannot lock the folder here";
    } else {
        fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
    }
    EXPECT_FALSE(KTFileManager::trashFile(item, false));
    EXPECT_EQ(ScratchRoot::readFile(item + "/Contents/x"), "x");
    EXPECT_TRUE(emptyOrMissing(trash("/files")));
    EXPECT_TRUE(emptyOrMissing(trash("/info")));
}

TEST_F(KTFileManagerTest, CrossFileSystemMoveCopiesChecksThenRemoves) {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
    // The Trash on a small file system of its own: everything else is on another.
    TmpfsMount mount(trash(""), "256k");
    if (!mount.ok()) GTEST_SKIP() << "cannot mount a tmpfs here: " << mount.error();

    const std::string item = scratch.rootPath("/Library/Plug-Ins/Bundle.fxplug");
    ScratchRoot::writeFile(item + "/Contents/MacOS/Bundle", "binary");
    ScratchRoot::writeFile(item + "/Contents/Info.plist", "plist");
    ScratchRoot::makeDirs(item + "/Contents/Resources");
    fs::create_symlink("MacOS/Bundle", item + "/Contents/Current");
    fs::permissions(item + "/Contents/MacOS/Bundle", fs::perms(0755));

    ASSERT_TRUE(KTFileManager::trashFile(item, false));
    EXPECT_FALSE(fs::exists(item));
    const std::string copy = trash("/files/Bundle.fxplug");
    EXPECT_EQ(ScratchRoot::readFile(copy + "/Contents/MacOS/Bundle"), "binary");
    EXPECT_EQ(ScratchRoot::readFile(copy + "/Contents/Info.plist"), "plist");
    EXPECT_TRUE(fs::is_directory(copy + "/Contents/Resources"));
    EXPECT_EQ(fs::read_symlink(copy + "/Contents/Current"), "MacOS/Bundle");
    EXPECT_EQ(fs::status(copy + "/Contents/MacOS/Bundle").permissions(), fs::perms(0755));
    EXPECT_EQ(linesEndingWith(trashList(scratch), " " + item), 1);

    // Too big for the Trash: the copy fails, its remains go, the item stays whole.
    const std::string big = scratch.rootPath("/Library/Plug-Ins/Big.component");
    ScratchRoot::writeFile(big + "/Contents/data", std::string(1 << 20, 'b'));
    EXPECT_FALSE(KTFileManager::trashFile(big, false));
    EXPECT_EQ(fs::file_size(big + "/Contents/data"), std::size_t(1) << 20);
    EXPECT_FALSE(fs::exists(trash("/files/Big.component")));
    EXPECT_FALSE(fs::exists(trash("/info/Big.component.trashinfo")));
}
