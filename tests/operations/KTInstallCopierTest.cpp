// The whole-or-absent copy: nothing half-made is ever left where a host looks.
#include "operations/KTInstallCopier.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "operations/KTFileMover.h"
#include "support/ScratchRoot.h"

namespace fs = std::filesystem;

namespace {

/// Copies the first `allowed` files, then fails as a full disk would.
class FailingCopier : public KTInstallCopier {
  public:
    explicit FailingCopier(int allowed) : allowed_(allowed) {}

  protected:
    bool copyTree(const std::string& from, const std::string& to, std::string* error) override {
        if (fs::is_regular_file(from) && allowed_-- <= 0) {
            if (error) *error = "No space left on device";
            return false;
        }
        if (fs::is_directory(from)) {
            fs::create_directory(to);
            for (const auto& e : fs::directory_iterator(from))
                if (!copyTree(e.path(), to + "/" + e.path().filename().string(), error))
                    return false;
            return true;
        }
        return KTInstallCopier::copyTree(from, to, error);
    }

  private:
    int allowed_;
};

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(folder)) names.push_back(e.path().filename());
    return names;
}

void makeBundle(const std::string& path) {
    ScratchRoot::writeFile(path + "/Contents/Info.plist", "plist");
    ScratchRoot::writeFile(path + "/Contents/MacOS/exe", std::string(100000, 'x'));
    ScratchRoot::writeFile(path + "/Contents/Resources/a.txt", "a");
    fs::create_symlink("MacOS/exe", path + "/Contents/link");
    ::chmod((path + "/Contents/MacOS/exe").c_str(), 0755);
}

}  // namespace

TEST(KTInstallCopierTest, CopiesABundleWholeAndNeverReplaces) {
    ScratchRoot s;
    const std::string source = s.base() + "/Glow.fxplug";
    const std::string folder = s.rootPath("/Library/Plug-Ins/FxPlug");
    makeBundle(source);
    ScratchRoot::makeDirs(folder);

    KTInstallCopier copier;
    std::string error;
    ASSERT_TRUE(copier.copyItem(source, folder + "/Glow.fxplug", &error)) << error;
    EXPECT_TRUE(KTInstallCopier::sameTree(source, folder + "/Glow.fxplug"));
    EXPECT_TRUE(fs::is_symlink(folder + "/Glow.fxplug/Contents/link"));
    EXPECT_EQ(fs::status(folder + "/Glow.fxplug/Contents/MacOS/exe").permissions() &
                  fs::perms::owner_exec,
              fs::perms::owner_exec);
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"Glow.fxplug"});

    // A second copy onto it is refused and leaves the first alone.
    ScratchRoot::writeFile(source + "/Contents/Info.plist", "changed");
    EXPECT_FALSE(copier.copyItem(source, folder + "/Glow.fxplug", &error));
    EXPECT_EQ(ScratchRoot::readFile(folder + "/Glow.fxplug/Contents/Info.plist"), "plist");
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"Glow.fxplug"});
}

TEST(KTInstallCopierTest, AFailureHalfWayLeavesNothingBehind) {
    ScratchRoot s;
    const std::string source = s.base() + "/Glow.fxplug";
    const std::string folder = s.rootPath("/Library/Plug-Ins/FxPlug");
    makeBundle(source);
    ScratchRoot::makeDirs(folder);

    FailingCopier copier(1);
    std::string error;
    EXPECT_FALSE(copier.copyItem(source, folder + "/Glow.fxplug", &error));
    EXPECT_EQ(error, "No space left on device");
    EXPECT_TRUE(namesIn(folder).empty());
    EXPECT_TRUE(KTInstallCopier::sameTree(source, source));  // the source is untouched
}

TEST(KTInstallCopierTest, PrivilegedCopyLandsWholeBesideNothingElse) {
    ScratchRoot s;
    KTFileMover::setPrivilegedPauseSecondsForTesting(0);
    const std::string source = s.base() + "/Glow.fxplug";
    const std::string folder = s.rootPath("/Library/Plug-Ins/FxPlug");
    makeBundle(source);
    ScratchRoot::makeDirs(folder);

    KTInstallCopier copier;
    std::string error;
    const bool copied = copier.authCopyItem(source, folder + "/Glow.fxplug", &error);
    KTFileMover::setPrivilegedPauseSecondsForTesting(1);
    if (!copied && error == "User cancelled authorization.")
        GTEST_SKIP() << "no administrator rights here";
    ASSERT_TRUE(copied) << error;
    EXPECT_TRUE(KTInstallCopier::sameTree(source, folder + "/Glow.fxplug"));
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"Glow.fxplug"});
}
