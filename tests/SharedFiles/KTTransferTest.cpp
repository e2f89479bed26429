#include "SharedFiles/KTTransfer.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

#include "SharedFiles/KTFileTree.h"
#include "SharedFiles/KTLog.h"
#include "SharedFiles/KTMoveBatch.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

bool exists(const std::string& p) {
    return KTFileTree::existsNoFollow(p);
}

/// Work entries anywhere below `folder`.
std::vector<std::string> workEntries(const std::string& folder) {
    std::vector<std::string> out;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
        if (KTTransfer::isWorkName(it->path().filename().string())) out.push_back(it->path());
    return out;
}

std::string attribute(const std::string& path, const char* name) {
    char buf[256];
    const ssize_t n = ::lgetxattr(path.c_str(), name, buf, sizeof buf);
    return n < 0 ? std::string() : std::string(buf, std::size_t(n));
}

/// A bundle with what a real one carries: nested files, a link, a
/// read-only folder, an executable, and a Finder type code.
std::string makeBundle(const std::string& folder, const std::string& name) {
    const std::string b = folder + "/" + name;
    ScratchRoot::writeFile(b + "/Contents/Info.plist", "<plist/>");
    ScratchRoot::writeFile(b + "/Contents/MacOS/Glow", std::string(300000, 'g'));
    ::chmod((b + "/Contents/MacOS/Glow").c_str(), 0755);
    fs::create_symlink("MacOS/Glow", b + "/Contents/Current");
    ScratchRoot::writeFile(b + "/Contents/Resources/en.lproj/Strings", "strings");
    ::chmod((b + "/Contents/Resources/en.lproj").c_str(), 0555);
    const char info[32] = {'F', 'C', 'S', 'C', 'K', 'T', 'F', 'X'};
    ::lsetxattr(b.c_str(), "user.com.apple.FinderInfo", info, sizeof info, 0);
    ::lsetxattr((b + "/Contents/MacOS/Glow").c_str(), "user.com.apple.quarantine", "q", 1, 0);
    return b;
}

/// A tmpfs of its own for one test: a second file system.
class OtherDisk {
  public:
    OtherDisk(const std::string& where, const char* size) : where_(where) {
        fs::create_directories(where);
        ok_ = ::geteuid() == 0 && ::mount("tmpfs", where.c_str(), "tmpfs", 0,
                                          (std::string("size=") + size).c_str()) == 0;
    }
    ~OtherDisk() {
        if (ok_ && ::umount2(where_.c_str(), 0) != 0) ::umount2(where_.c_str(), MNT_DETACH);
    }
    bool ok() const { return ok_; }

  private:
    std::string where_;
    bool ok_ = false;
};

/// Runs a hook between the steps of a transfer.
class HookedTransfer : public KTTransfer {
  public:
    std::function<void(const char*)> onStep;

  protected:
    void step(const char* name) override {
        if (onStep) onStep(name);
    }
};

struct ImmutableGuard {
    std::string path;
    ~ImmutableGuard() { ScratchRoot::setImmutable(path, false); }
};

class KTTransferTest : public ::testing::Test {
  protected:
    void SetUp() override {
        KTLog::resetForTesting();
        KTLog::createNewLog(std::string("Transfer"), true);
    }
    void TearDown() override {
        KTLog::finishWriting();
        KTLog::resetForTesting();
    }
    ScratchRoot s;
    std::string here() const { return s.base() + "/here"; }
    std::string there() const { return s.base() + "/there"; }
    /// A second file system at there(), or a skip.
    bool otherDisk(const char* size = "64m") {
        disk_ = std::make_unique<OtherDisk>(there(), size);
        return disk_->ok();
    }
    std::unique_ptr<OtherDisk> disk_;
};

}  // namespace

TEST_F(KTTransferTest, WithinOneFileSystemARenameThatNeverReplaces) {
    const std::string b = makeBundle(here(), "Glow.fxplug");
    ScratchRoot::makeDirs(s.base() + "/to/Empty.fxplug");
    KTTransfer t;
    std::string error;
    // Not even an empty folder of the same name is replaced.
    EXPECT_FALSE(t.moveItem(b, s.base() + "/to/Empty.fxplug", &error));
    EXPECT_NE(error.find("already exists"), std::string::npos);
    EXPECT_TRUE(exists(b + "/Contents/Info.plist"));
    EXPECT_TRUE(t.moveItem(b, s.base() + "/to/Glow.fxplug", &error)) << error;
    EXPECT_FALSE(exists(b));
    EXPECT_EQ(attribute(s.base() + "/to/Glow.fxplug", "user.com.apple.FinderInfo").substr(0, 4),
              "FCSC");
}

TEST_F(KTTransferTest, AcrossFileSystemsEverythingArrivesAndTheOriginalGoes) {
    if (!otherDisk()) GTEST_SKIP() << "mounting a tmpfs needs root";
    const std::string b = makeBundle(here(), "Glow.fxplug");
    struct stat before {};
    ::lstat((b + "/Contents/MacOS/Glow").c_str(), &before);
    KTTransfer t;
    std::string error;
    ASSERT_TRUE(t.moveItem(b, there() + "/Glow.fxplug", &error)) << error;
    const std::string d = there() + "/Glow.fxplug";
    EXPECT_FALSE(exists(b));
    EXPECT_EQ(attribute(d, "user.com.apple.FinderInfo").substr(0, 4), "FCSC");
    EXPECT_EQ(attribute(d + "/Contents/MacOS/Glow", "user.com.apple.quarantine"), "q");
    EXPECT_EQ(fs::read_symlink(d + "/Contents/Current"), "MacOS/Glow");
    struct stat after {};
    ::lstat((d + "/Contents/MacOS/Glow").c_str(), &after);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_TRUE(workEntries(here()).empty());
    EXPECT_TRUE(workEntries(there()).empty());

    // And back: a round trip keeps the type code.
    ASSERT_TRUE(t.moveItem(d, b, &error)) << error;
    EXPECT_EQ(attribute(b, "user.com.apple.FinderInfo").substr(0, 4), "FCSC");
    EXPECT_TRUE(workEntries(there()).empty());
}

TEST_F(KTTransferTest, AFullDiskOrALockedFileLeavesTheOriginalAndNoCopy) {
    if (!otherDisk("200k")) GTEST_SKIP() << "mounting a tmpfs needs root";
    const std::string big = makeBundle(here(), "Big.fxplug");
    ScratchRoot::writeFile(big + "/Contents/Resources/Huge", std::string(400000, 'h'));
    KTTransfer t;
    std::string error;
    EXPECT_FALSE(t.moveItem(big, there() + "/Big.fxplug", &error));
    EXPECT_NE(error.find("Big.fxplug"), std::string::npos) << error;
    EXPECT_TRUE(exists(big + "/Contents/Resources/Huge"));
    EXPECT_FALSE(exists(there() + "/Big.fxplug"));
    EXPECT_TRUE(fs::is_empty(there()));

    // An immutable file inside could be copied but never removed: refused first.
    const std::string small = here() + "/Small.fxplug";
    ScratchRoot::writeFile(small + "/Contents/Stuck", "s");
    ImmutableGuard guard{small + "/Contents/Stuck"};
    if (!ScratchRoot::setImmutable(guard.path, true)) GTEST_SKIP() << "no immutable flag here";
    EXPECT_FALSE(t.moveItem(small, there() + "/Small.fxplug", &error));
    EXPECT_NE(error.find("is locked"), std::string::npos) << error;
    EXPECT_TRUE(exists(small + "/Contents/Stuck"));
    EXPECT_TRUE(fs::is_empty(there()));
}

TEST_F(KTTransferTest, SomeoneElseMovingTheSourceMidwayLeavesExactlyOnePlugin) {
    if (!otherDisk()) GTEST_SKIP() << "mounting a tmpfs needs root";
    for (const char* when : {"copied", "placed"}) {
        SCOPED_TRACE(when);
        const std::string b = makeBundle(here(), "Glow.fxplug");
        const std::string theirs = here() + "/Renamed.fxplug";
        HookedTransfer t;
        t.onStep = [&](const char* step) {
            if (std::strcmp(step, when) == 0) fs::rename(b, theirs);
        };
        std::string error;
        EXPECT_FALSE(t.moveItem(b, there() + "/Glow.fxplug", &error));
        EXPECT_FALSE(exists(there() + "/Glow.fxplug"));
        EXPECT_TRUE(exists(theirs + "/Contents/MacOS/Glow"));
        EXPECT_TRUE(fs::is_empty(there()));
        EXPECT_TRUE(workEntries(here()).empty());
        fs::remove_all(theirs);
    }
}

TEST_F(KTTransferTest, AKilledTransferIsSettledByTheNextOne) {
    if (!otherDisk()) GTEST_SKIP() << "mounting a tmpfs needs root";
    // Killed after each step, the next run ends where an uninterrupted one ends,
    // except before placing, where the original simply stays.
    for (const char* when : {"copied", "placed", "aside"}) {
        SCOPED_TRACE(when);
        const std::string b = makeBundle(here(), "Glow.fxplug");
        const std::string d = there() + "/Glow.fxplug";
        const pid_t child = ::fork();
        if (child == 0) {
            HookedTransfer t;
            t.onStep = [&](const char* step) {
                if (std::strcmp(step, when) == 0) ::_exit(9);
            };
            t.moveItem(b, d);
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_EQ(WEXITSTATUS(status), 9);
        EXPECT_FALSE(workEntries(here()).empty() && workEntries(there()).empty());

        KTTransfer next;
        next.recoverFolder(there(), true);
        next.recoverFolder(here(), true);
        const bool finished = std::strcmp(when, "copied") != 0;
        EXPECT_EQ(exists(b), !finished);
        EXPECT_EQ(exists(d), finished);
        const std::string whole = finished ? d : b;
        EXPECT_EQ(ScratchRoot::readFile(whole + "/Contents/MacOS/Glow"), std::string(300000, 'g'));
        EXPECT_EQ(attribute(whole, "user.com.apple.FinderInfo").substr(0, 4), "FCSC");
        EXPECT_TRUE(workEntries(here()).empty());
        EXPECT_TRUE(workEntries(there()).empty());
        KTFileTree::removeTree(whole, nullptr);
    }
}

TEST_F(KTTransferTest, AnotherRunningProcessesWorkIsLeftAlone) {
    // The parent of this test runs; its work entry is not a leftover.
    const std::string live = here() + "/.ambrel-work." + std::to_string(::getppid()) + ".1.copy";
    ScratchRoot::writeFile(live + "/Contents/x", "x");
    const std::string dead = here() + "/.ambrel-work.999999999.1.copy";
    ScratchRoot::writeFile(dead + "/Contents/x", "x");
    // What a killed helper leaves half-deleted: an original whose copy was placed.
    const std::string gone = here() + "/.ambrel-work.999999998.2.gone";
    ScratchRoot::writeFile(gone + "/Contents/x", "x");
    KTTransfer t;
    t.recoverFolder(here());
    EXPECT_TRUE(exists(live));
    EXPECT_FALSE(exists(dead));
    EXPECT_FALSE(exists(gone));
}

TEST_F(KTTransferTest, EachBatchSettlesAFolderBeforeItsFirstMoveThereAndAfterAFailure) {
    // A window lives long: a run killed after its first batch leaves work
    // that the next batch, not the next process, must find.
    ScratchRoot::makeDirs(s.base() + "/to");
    const std::string to = s.base() + "/to";
    auto leftover = [&](int n) {
        const std::string dead = here() + "/.ambrel-work.999999999." + std::to_string(n) + ".copy";
        ScratchRoot::writeFile(dead + "/Contents/x", "x");
        return dead;
    };
    KTTransfer t;
    for (const char* name : {"A.fxplug", "B.fxplug", "C.fxplug", "D.fxplug"})
        ScratchRoot::writeFile(here() + "/" + name + "/Contents/x", name);
    {
        KTMoveBatch batch;
        const std::string first = leftover(1);
        ASSERT_TRUE(t.moveItem(here() + "/A.fxplug", to + "/A.fxplug"));
        EXPECT_FALSE(exists(first));
        // Settled once: what appears later in the same batch waits...
        const std::string later = leftover(2);
        ASSERT_TRUE(t.moveItem(here() + "/B.fxplug", to + "/B.fxplug"));
        EXPECT_TRUE(exists(later));
        // ...until a move fails: the mover then makes the batch forget.
        KTMoveBatch::forgetCurrent();
        ASSERT_TRUE(t.moveItem(here() + "/C.fxplug", to + "/C.fxplug"));
        EXPECT_FALSE(exists(later));
    }
    const std::string between = leftover(3);
    {
        KTMoveBatch batch;
        ASSERT_TRUE(t.moveItem(here() + "/D.fxplug", to + "/D.fxplug"));
        EXPECT_FALSE(exists(between));
    }
    EXPECT_TRUE(workEntries(here()).empty());
    EXPECT_EQ(ScratchRoot::readFile(to + "/D.fxplug/Contents/x"), "D.fxplug");
}

TEST_F(KTTransferTest, InstallingALinkCopiesWhatItNamesAndRefusesALinkToNothing) {
    const std::string b = makeBundle(here(), "Glow.fxplug");
    fs::create_symlink("here/Glow.fxplug", s.base() + "/Link.fxplug");
    fs::create_symlink("here/Nothing.fxplug", s.base() + "/Dangling.fxplug");
    ScratchRoot::makeDirs(s.base() + "/kind");
    KTTransfer t;
    std::string error;
    ASSERT_TRUE(t.copyItem(s.base() + "/Link.fxplug", s.base() + "/kind/Link.fxplug", &error))
        << error;
    EXPECT_FALSE(fs::is_symlink(s.base() + "/kind/Link.fxplug"));
    EXPECT_TRUE(exists(s.base() + "/kind/Link.fxplug/Contents/MacOS/Glow"));
    EXPECT_TRUE(exists(b));  // an install copies
    EXPECT_FALSE(
        t.copyItem(s.base() + "/Dangling.fxplug", s.base() + "/kind/Dangling.fxplug", &error));
    EXPECT_NE(error.find("link to nothing"), std::string::npos) << error;
    EXPECT_FALSE(exists(s.base() + "/kind/Dangling.fxplug"));
    EXPECT_TRUE(workEntries(s.base() + "/kind").empty());
}

TEST_F(KTTransferTest, ThePrivilegedMoveIsJudgedByTheSameRule) {
    if (!otherDisk()) GTEST_SKIP() << "mounting a tmpfs and running the tools as root need root";
    // As root the tools run directly: the steps and the judgement are the same.
    const std::string b = makeBundle(here(), "Glow.fxplug");
    KTTransfer t;
    std::string error;
    ASSERT_EQ(t.authMoveItem(b, there() + "/Glow.fxplug", &error), KTTransfer::Outcome::Done)
        << error;
    EXPECT_FALSE(exists(b));
    EXPECT_EQ(attribute(there() + "/Glow.fxplug", "user.com.apple.FinderInfo").substr(0, 4),
              "FCSC");

    // From a read-only volume the tool can copy but never remove: the copy
    // it made is taken away again and the move fails.
    const std::string ro = s.base() + "/ro";
    const std::string c = makeBundle(ro, "Echo.component");
    ASSERT_EQ(::mount(ro.c_str(), ro.c_str(), nullptr, MS_BIND, nullptr), 0);
    struct Unmount {
        std::string p;
        ~Unmount() { ::umount2(p.c_str(), MNT_DETACH); }
    } unmount{ro};
    ASSERT_EQ(::mount(nullptr, ro.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(t.authMoveItem(c, there() + "/Echo.component", &error), KTTransfer::Outcome::Failed);
    EXPECT_NE(error.find("Echo.component"), std::string::npos) << error;
    EXPECT_TRUE(exists(c + "/Contents/MacOS/Glow"));
    EXPECT_FALSE(exists(there() + "/Echo.component"));
    EXPECT_TRUE(workEntries(there()).empty());
}
