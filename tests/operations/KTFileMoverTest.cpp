// The never-lose move: refusing to replace, and moves across file systems
// (a tmpfs mounted over the scratch home, so only as root).
#include "operations/KTFileMover.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "OperationsTestSupport.h"

namespace {

/// A tmpfs over a folder for the length of a test; always unmounted.
class TmpfsMount {
  public:
    explicit TmpfsMount(const std::string& where) : where_(where) {
        ScratchRoot::makeDirs(where);
        mounted_ = ::mount("tmpfs", where.c_str(), "tmpfs", 0, "size=16m") == 0;
    }
    ~TmpfsMount() {
        if (mounted_) ::umount2(where_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }

  private:
    std::string where_;
    bool mounted_ = false;
};

/// Copies part of the tree, then fails, as a full disk would.
class FailingCopyMover : public KTFileMover {
  protected:
    bool copyTree(const std::string& from, const std::string& to, std::string* error) override {
        KTFileMover::copyTree(from, to, error);
        ::truncate((to + "/Contents/MacOS/exe").c_str(), 3);
        if (error) *error = "No space left on device";
        return false;
    }
};

/// Copies whole but silently short: only the check after the copy notices.
class ShortCopyMover : public KTFileMover {
  protected:
    bool copyTree(const std::string& from, const std::string& to, std::string* error) override {
        bool ok = KTFileMover::copyTree(from, to, error);
        ::truncate((to + "/Contents/MacOS/exe").c_str(), 3);
        return ok;
    }
};

void makeBundle(const std::string& path) {
    ScratchRoot::writeFile(path + "/Contents/Info.plist", "<plist/>");
    ScratchRoot::writeFile(path + "/Contents/MacOS/exe", std::string(100000, 'x'));
    ::symlink("MacOS/exe", (path + "/Contents/link").c_str());
    ::chmod((path + "/Contents/MacOS/exe").c_str(), 0755);
}

bool noStagingLeft(const std::string& folder) {
    std::error_code ec;
    for (auto& e : std::filesystem::directory_iterator(folder, ec))
        if (e.path().filename().string().rfind(".ambrel-", 0) == 0) return false;
    return true;
}

}  // namespace

TEST(KTFileMoverTest, AnEmptyFolderAtTheDestinationIsNotReplacedEither) {
    // A plain rename would quietly take the place of an empty folder.
    ScratchRoot s;
    ScratchRoot::writeFile(s.rootPath("/a/Glow.plugin/v"), "new");
    ScratchRoot::makeDirs(s.rootPath("/c/Glow.plugin"));
    std::string error;
    EXPECT_FALSE(KTFileMover::shared().moveItem(s.rootPath("/a/Glow.plugin"),
                                                s.rootPath("/c/Glow.plugin"), &error));
    EXPECT_NE(error.find("already exists"), std::string::npos);
    EXPECT_EQ(ScratchRoot::readFile(s.rootPath("/a/Glow.plugin/v")), "new");
}

TEST(KTFileMoverTest, AcrossFileSystemsTheSourceGoesOnlyOnceTheCopyIsWhole) {
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
    OperationsWorld w;
    TmpfsMount home(w.scratch.homePath("/Library"));
    if (!home.mounted()) GTEST_SKIP() << "no tmpfs could be mounted here";
    const std::string source = w.fx("/Glow.fxplug");
    const std::string target = w.userFx("/Glow.fxplug");
    makeBundle(source);
    ScratchRoot::makeDirs(w.userFx());

    {
        auto failing = std::make_shared<FailingCopyMover>();
        std::string error;
        EXPECT_FALSE(failing->moveItem(source, target, &error));
        EXPECT_NE(error.find("No space left"), std::string::npos);
        auto shortCopy = std::make_shared<ShortCopyMover>();
        EXPECT_FALSE(shortCopy->moveItem(source, target, &error));
        EXPECT_NE(error.find("incomplete"), std::string::npos);
        EXPECT_FALSE(pathExists(target));
        EXPECT_TRUE(noStagingLeft(w.userFx()));
        EXPECT_EQ(std::filesystem::file_size(source + "/Contents/MacOS/exe"), 100000u);
    }

    // Through the scope change, as the toolbar or -setaccess makes it.
    w.load();
    auto glow = w.plugin("Glow.fxplug");
    ASSERT_TRUE(glow);
    w.outline().setAccess(1, glow, false, false);
    EXPECT_FALSE(pathExists(source));
    EXPECT_EQ(std::filesystem::file_size(target + "/Contents/MacOS/exe"), 100000u);
    EXPECT_EQ(std::filesystem::read_symlink(target + "/Contents/link"), "MacOS/exe");
    struct stat st {};
    ::stat((target + "/Contents/MacOS/exe").c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
    EXPECT_TRUE(noStagingLeft(w.userFx()));
    EXPECT_TRUE(noStagingLeft(w.fx()));
    EXPECT_EQ(glow->pluginAccess(), 1);
}
