// The demo and benchmark tree: runs the built generator as a child process
// and checks the tree is reproducible and holds what the catalogue must meet.

#include "TestPaths.h"
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTPlist.h"
#include "SharedFiles/KTWorkspace.h"
#include "catalogue/KTBundleInfo.h"
#include "catalogue/KTMachO.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/KTPremiere.h"
#include "support/ScratchRoot.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string generatorPath() {
    const char* bin = std::getenv("AMBREL_BIN");
    return std::string(bin && *bin ? bin : AMBREL_BINARY_DIR) + "/ambrel-gen";
}

/// Runs the generator with the given arguments, its output into `outFile`;
/// the exit status, or -1 when it could not be started.
int runGenerator(const std::vector<std::string>& args, const std::string& outFile) {
    std::vector<std::string> all = {generatorPath()};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

/// Every file below `top`, by path relative to it (with the home folder's
/// absolute path, which disabled user plug-ins mirror, made neutral), to
/// its content. Folders count through the files they hold.
std::map<std::string, std::string> snapshot(const std::string& top, const std::string& home) {
    std::map<std::string, std::string> files;
    for (auto it = fs::recursive_directory_iterator(top); it != fs::recursive_directory_iterator();
         ++it) {
        if (!it->is_regular_file()) continue;  // the folders of the home's own path differ
        std::string rel = fs::relative(it->path(), top).string();
        if (auto at = rel.find(home.substr(1)); at != std::string::npos)
            rel.replace(at, home.size() - 1, "HOME");
        files[rel] = ScratchRoot::readFile(it->path().string());
    }
    return files;
}

struct ManifestEntry {
    long long kind, access;
    bool enabled;
    std::string path;
};

std::vector<ManifestEntry> readManifest(const std::string& path) {
    std::vector<ManifestEntry> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        ManifestEntry e;
        int enabled = 0;
        fields >> e.kind >> e.access >> enabled;
        fields.get();
        std::getline(fields, e.path);
        e.enabled = enabled != 0;
        out.push_back(e);
    }
    return out;
}

class DemoTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(fs::exists(generatorPath())) << generatorPath();
        KTWorkspace::shared().refreshApplications();
    }
    void TearDown() override { KTWorkspace::shared().refreshApplications(); }

    ScratchRoot scratch;
};

TEST_F(DemoTreeTest, SameSeedGivesTheSameTreeAndAnotherSeedDoesNot) {
    auto generate = [&](const std::string& name, const std::string& seed) {
        const std::string dir = scratch.base() + "/" + name;
        EXPECT_EQ(runGenerator({"--root", dir + "/root", "--home", dir + "/home", "--size", "60",
                                "--seed", seed, "--quiet"},
                               dir + ".out"),
                  0);
        auto files = snapshot(dir + "/root", dir + "/home");
        for (auto& [rel, content] : snapshot(dir + "/home", dir + "/home"))
            files["~/" + rel] = content;
        return files;
    };
    const auto first = generate("a", "7");
    const auto again = generate("b", "7");
    const auto other = generate("c", "8");
    ASSERT_GT(first.size(), 100u);
    auto firstDifference = [](const auto& x, const auto& y) -> std::string {
        auto [a, b] = std::mismatch(x.begin(), x.end(), y.begin(), y.end());
        if (a == x.end() && b == y.end()) return "";
        return (a != x.end() ? a->first : "(end)") + " / " + (b != y.end() ? b->first : "(end)");
    };
    EXPECT_EQ(firstDifference(first, again), "");
    EXPECT_NE(firstDifference(first, other), "");
}

TEST_F(DemoTreeTest, DemoTreeHoldsEveryShapeTheCatalogueMeets) {
    const std::string manifestPath = scratch.base() + "/manifest.txt";
    ASSERT_EQ(runGenerator(
                  {"--root", scratch.root(), "--home", scratch.home(), "--manifest", manifestPath},
                  scratch.base() + "/summary.txt"),
              0);
    EXPECT_NE(ScratchRoot::readFile(scratch.base() + "/summary.txt").find("200 plug-ins"),
              std::string::npos);
    const auto entries = readManifest(manifestPath);
    ASSERT_EQ(entries.size(), 200u);

    // Every kind, in both scopes where it has both; each entry on disk inside
    // a folder the catalogue knows, and a disabled one exactly where enabling
    // it will look. Group folders nest three deep and include ".localized"
    // and numeric-extension names.
    std::vector<std::string> folders;
    for (const auto& [key, folder] : KTPluginLocations::pluginFolderDict())
        folders.push_back(folder);
    for (long long kind : KTPluginType::all)
        for (long long access : {0, 1})
            folders.push_back(KTPluginLocations::pluginBasePath(kind, access) + "/");
    std::set<std::pair<long long, long long>> kindScopes;
    std::size_t disabled = 0, deepest = 0;
    bool localized = false, numeric = false;
    for (const auto& e : entries) {
        kindScopes.insert({e.kind, e.access});
        EXPECT_TRUE(fs::exists(e.path)) << e.path;
        std::string enabledPath = e.path;
        if (!e.enabled) {
            ++disabled;
            auto back = KTPluginLocations::enabledPathForDisabledPath(e.path);
            ASSERT_TRUE(back) << e.path;
            EXPECT_FALSE(fs::exists(*back)) << *back;
            enabledPath = *back;
        }
        std::string base;
        for (const auto& f : folders)
            if (enabledPath.rfind(f, 0) == 0 && f.size() > base.size()) base = f;
        ASSERT_FALSE(base.empty()) << enabledPath;
        const fs::path group = fs::path(enabledPath.substr(base.size())).parent_path();
        std::size_t depth = 0;
        for (const auto& part : group) {
            ++depth;
            const std::string ext = part.extension().string();
            localized |= ext == ".localized";
            numeric |= ext.size() > 1 && KTPluginLocations::isNumeric(ext.substr(1));
        }
        deepest = std::max(deepest, depth);
    }
    for (long long kind : KTPluginType::all) EXPECT_TRUE(kindScopes.count({kind, 0})) << kind;
    for (long long kind : {0, 1, 2, 7, 8, 10, 11, 12})
        EXPECT_TRUE(kindScopes.count({kind, 1})) << kind;
    EXPECT_GT(disabled, 0u);
    EXPECT_EQ(deepest, 3u);
    EXPECT_TRUE(localized);
    EXPECT_TRUE(numeric);

    // Motion templates: a folder holding a document named as the scan looks
    // for it (the folder's name less any extension), and a Media folder.
    std::size_t templates = 0;
    for (const auto& e : entries) {
        if (e.kind != KTPluginType::MotionTemplate) continue;
        const fs::path folder(e.path);
        bool hasDocument = false;
        for (const char* ext : {".moti", ".motn", ".moef", ".motr"})
            hasDocument |= fs::is_regular_file(folder / (folder.stem().string() + ext));
        EXPECT_TRUE(hasDocument) << e.path;
        EXPECT_TRUE(fs::is_directory(folder / "Media")) << e.path;
        ++templates;
    }
    EXPECT_GT(templates, 0u);

    // Bundles as the inspection reads them: exactly one locked, one
    // unexpanded product name, localised names, and executables whose
    // headers name i386, x86-64, arm64 and PowerPC, thin and fat.
    std::size_t locked = 0, unnamed = 0, localisedNames = 0, fat = 0, thin = 0;
    std::set<std::int32_t> cpuTypes;
    for (const auto& e : entries) {
        if (fs::exists(fs::path(e.path) / ".fxfactory.plist")) ++locked;
        if (!fs::is_directory(fs::path(e.path) / "Contents")) continue;
        const KTBundleInfo info = KTBundleInfo::read(e.path);
        EXPECT_TRUE(info.isBundle) << e.path;
        KTPlistPtr plist = KTPlist::readFile(KTBundleInfo::infoPlistPath(e.path));
        ASSERT_TRUE(plist) << e.path;
        if (KTPlist::stringForKey(plist.get(), "CFBundleName") == "${PRODUCT_NAME}") {
            ++unnamed;
            EXPECT_FALSE(info.name) << e.path;
        }
        if (fs::exists(fs::path(e.path) / "Contents/Resources/en.lproj/InfoPlist.strings")) {
            ++localisedNames;
            ASSERT_TRUE(info.name) << e.path;
            EXPECT_NE(info.name->find(" ("), std::string::npos) << *info.name;
        }
        const auto exe = KTPlist::stringForKey(plist.get(), "CFBundleExecutable");
        ASSERT_TRUE(exe) << e.path;
        const auto types = KTMachO::cpuTypesOfFile(e.path + "/Contents/MacOS/" + *exe);
        ASSERT_FALSE(types.empty()) << e.path;
        (types.size() > 1 ? fat : thin)++;
        cpuTypes.insert(types.begin(), types.end());
    }
    EXPECT_EQ(locked, 1u);
    EXPECT_EQ(unnamed, 1u);
    EXPECT_GT(localisedNames, 0u);
    EXPECT_GT(fat, 0u);
    EXPECT_GT(thin, 0u);
    for (std::int32_t t : {7, 0x01000007, 0x0100000C, 18}) EXPECT_TRUE(cpuTypes.count(t)) << t;

    // Host applications: the workspace knows them, and Premiere's versions
    // come from a bundle and from a leftover XManConfig.xml.
    KTWorkspace::shared().refreshApplications();
    EXPECT_TRUE(KTWorkspace::shared().knowsApplication("com.apple.FinalCut"));
    EXPECT_TRUE(KTWorkspace::shared().knowsApplication("com.avid.mediacomposer"));
    EXPECT_TRUE(KTWorkspace::shared().knowsApplication("com.adobe.AdobePremierePro"));
    const auto versions = KTPremiere::premiereVersions();
    EXPECT_NE(std::find(versions.begin(), versions.end(), "22.0.0"), versions.end());
    EXPECT_NE(std::find(versions.begin(), versions.end(), "5.0"), versions.end());
}

TEST_F(DemoTreeTest, RefusesTheRealRootAndBadArguments) {
    const std::string out = scratch.base() + "/out.txt";
    EXPECT_NE(runGenerator({"--root", "/", "--home", scratch.home()}, out), 0);
    EXPECT_NE(runGenerator({"--root", scratch.root()}, out), 0);
    EXPECT_NE(
        runGenerator({"--root", scratch.root(), "--home", scratch.home(), "--size", "many"}, out),
        0);
    EXPECT_FALSE(fs::exists(scratch.rootPath("/Library")));
}

}  // namespace
