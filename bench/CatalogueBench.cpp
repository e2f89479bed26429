// The hot pieces of a catalogue load, each on its own: listing the plug-in
// folders, classifying the listed paths into the tree, reading a bundle's
// Info.plist, reading a Mach-O header, and writing the loaded catalogue as
// an archive. The whole load against `find` is scripts/bench.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "SharedFiles/KTLocalPaths.h"
#include "SharedFiles/KTWorkspace.h"
#include "app/core/AppController.h"
#include "catalogue/KTBundleInfo.h"
#include "catalogue/KTItemArchive.h"
#include "catalogue/KTMachO.h"
#include "catalogue/KTPluginLocations.h"
#include "catalogue/OutlineViewController.h"

namespace fs = std::filesystem;

namespace {

void writeFile(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

void putBigEndian(std::string& out, std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(char((v >> shift) & 0xff));
}

/// A fat header with Intel 64-bit and arm64 slices, then some padding.
std::string fatExecutable() {
    std::string out;
    putBigEndian(out, 0xcafebabe);
    putBigEndian(out, 2);
    for (std::uint32_t cpu : {0x01000007u, 0x0100000cu}) {
        putBigEndian(out, cpu);
        putBigEndian(out, 3);
        putBigEndian(out, 4096);
        putBigEndian(out, 4096);
        putBigEndian(out, 12);
    }
    out.resize(8192, '\0');
    return out;
}

std::string infoPlist(const std::string& name, int n) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\"><dict>\n"
           "<key>CFBundleIdentifier</key><string>com.example.plugin" +
           std::to_string(n) +
           "</string>\n"
           "<key>CFBundleName</key><string>" +
           name +
           "</string>\n"
           "<key>CFBundleExecutable</key><string>" +
           name +
           "</string>\n"
           "<key>CFBundleShortVersionString</key><string>2." +
           std::to_string(n % 10) +
           "</string>\n"
           "<key>CFBundleVersion</key><string>" +
           std::to_string(100 + n) +
           "</string>\n"
           "<key>CFBundlePackageType</key><string>BNDL</string>\n"
           "</dict></plist>\n";
}

/// A scratch system root and home holding 1,000 FxPlug and Audio Unit
/// bundles, a fifth of them at the top of their folder and the rest in 40
/// groups, some nested; the environment points at it for the process's life.
struct ScratchTree {
    ScratchTree() {
        std::string tmpl = (fs::temp_directory_path() / "ambrel-bench-XXXXXX").string();
        if (mkdtemp(tmpl.data())) base = tmpl;
        const std::string root = base + "/root", home = base + "/home";
        fs::create_directories(root);
        fs::create_directories(home);
        enter();

        const std::string exe = fatExecutable();
        for (int n = 0; n < 1000; ++n) {
            const bool audio = n % 2 == 1;
            std::string folder = audio ? home + "/Library/Audio/Plug-Ins/Components"
                                       : root + "/Library/Plug-Ins/FxPlug";
            if (n % 5 != 0) folder += "/Group " + std::to_string(n % 40);
            if (n % 5 == 1) folder += "/Inner.localized";
            const std::string name = "Plugin " + std::to_string(n);
            const std::string bundle = folder + "/" + name + (audio ? ".component" : ".fxplug");
            writeFile(bundle + "/Contents/Info.plist", infoPlist(name, n));
            writeFile(bundle + "/Contents/MacOS/" + name, exe);
            if (bundles.size() < 64) bundles.push_back(bundle);
        }
    }
    /// Points the environment here again (other benchmarks move it).
    void enter() const {
        const std::string root = base + "/root", home = base + "/home";
        setenv("AMBREL_ROOT", root.c_str(), 1);
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (home + "/.config").c_str(), 1);
        setenv("XDG_DATA_HOME", (home + "/.local/share").c_str(), 1);
        setenv("XDG_CACHE_HOME", (home + "/.cache").c_str(), 1);
        KTWorkspace::shared().refreshApplications();
    }
    ~ScratchTree() {
        std::error_code ec;
        fs::remove_all(base, ec);
    }
    std::string base;
    std::vector<std::string> bundles;  ///< a sample to read
};

ScratchTree& tree() {
    static ScratchTree t;
    t.enter();
    return t;
}

void BM_ListPluginFolders1000(benchmark::State& state) {
    tree();
    auto app = AppController::initWithoutGUI();
    for (auto _ : state) {
        auto paths = app->listFilteredPlugins(true, true);
        benchmark::DoNotOptimize(paths.data());
    }
}
BENCHMARK(BM_ListPluginFolders1000)->Unit(benchmark::kMillisecond);

/// Classification of every listed path with the folder table made once, as
/// a load does; the items' bundle inspection runs alongside and is waited for.
void BM_ClassifyAndInspect1000(benchmark::State& state) {
    tree();
    auto app = AppController::initWithoutGUI();
    const auto paths = app->listFilteredPlugins(true, true);
    const auto dict = KTPluginLocations::pluginFolderDict();
    const std::string disabled = KTPluginLocations::disabledPath();
    OutlineViewController& outline = app->outlineViewController();
    for (auto _ : state) {
        outline.clearData();
        outline.setLoading(true);
        KTPluginLocations::FolderCache folders;
        for (const auto& p : paths) app->processPluginAtPath(p, 0, dict, disabled);
        outline.setLoading(false);
        outline.waitForBundleInspection();
    }
    state.counters["paths"] = double(paths.size());
}
BENCHMARK(BM_ClassifyAndInspect1000)->Unit(benchmark::kMillisecond);

void BM_BundleInfoRead(benchmark::State& state) {
    const auto& bundles = tree().bundles;
    std::size_t i = 0;
    for (auto _ : state) {
        KTBundleInfo info = KTBundleInfo::read(bundles[i++ % bundles.size()]);
        benchmark::DoNotOptimize(info.isBundle);
    }
}
BENCHMARK(BM_BundleInfoRead)->Unit(benchmark::kMicrosecond);

void BM_MachOCpuTypesInMemory(benchmark::State& state) {
    const std::string exe = fatExecutable();
    for (auto _ : state) {
        auto types =
            KTMachO::cpuTypes(reinterpret_cast<const std::uint8_t*>(exe.data()), exe.size());
        benchmark::DoNotOptimize(types.data());
    }
}
BENCHMARK(BM_MachOCpuTypesInMemory);

void BM_MachOCpuTypesOfFile(benchmark::State& state) {
    std::vector<std::string> exes;
    for (const auto& b : tree().bundles) {
        const std::string name = fs::path(b).stem().string();
        exes.push_back(b + "/Contents/MacOS/" + name);
    }
    std::size_t i = 0;
    for (auto _ : state) {
        auto types = KTMachO::cpuTypesOfFile(exes[i++ % exes.size()]);
        benchmark::DoNotOptimize(types.data());
    }
}
BENCHMARK(BM_MachOCpuTypesOfFile)->Unit(benchmark::kMicrosecond);

/// The archive `ambrel -allplugins -data` writes, of the loaded catalogue.
void BM_ArchiveLoadedCatalogue1000(benchmark::State& state) {
    tree();
    auto app = AppController::initWithoutGUI();
    app->loadPluginData();
    app->outlineViewController().waitForBundleInspection();
    const KTItemList items = app->outlineViewController().dataArray();
    for (auto _ : state) {
        std::string bytes = KTItemArchive::archivedDataWithRootObject(items);
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(BM_ArchiveLoadedCatalogue1000)->Unit(benchmark::kMillisecond);

}  // namespace
