// The whole-or-absent copy: nothing half-made is ever left where a host looks.
#include "operations/KTInstallCopier.h"

#include <gtest/gtest.h>

#include <filesystem>

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
        if (!fs::is_directory(from)) return KTInstallCopier::copyTree(from, to, error);
        fs::create_directory(to);
        for (const auto& e : fs::directory_iterator(from))
            if (!copyTree(e.path(), to + "/" + e.path().filename().string(), error)) return false;
        return true;
    }

  private:
    int allowed_;
};

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(folder)) names.push_back(e.path().filename());
    return names;
}

}  // namespace

TEST(KTInstallCopierTest, WholeOrNothingAndNeverReplacing) {
    ScratchRoot s;
    const std::string source = s.base() + "/Glow.fxplug";
    const std::string folder = s.rootPath("/Library/Plug-Ins/FxPlug");
    ScratchRoot::writeFile(source + "/Contents/Info.plist", "plist");
    ScratchRoot::writeFile(source + "/Contents/MacOS/exe", std::string(100000, 'x'));
    ScratchRoot::makeDirs(folder);

    std::string error;
    EXPECT_FALSE(FailingCopier(1).copyItem(source, folder + "/Glow.fxplug", &error));
    EXPECT_EQ(error, "No space left on device");
    EXPECT_TRUE(namesIn(folder).empty());

    KTInstallCopier copier;
    ASSERT_TRUE(copier.copyItem(source, folder + "/Glow.fxplug", &error)) << error;
    EXPECT_TRUE(KTInstallCopier::sameTree(source, folder + "/Glow.fxplug"));
    EXPECT_FALSE(copier.copyItem(source, folder + "/Glow.fxplug", &error));
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"Glow.fxplug"});
}
