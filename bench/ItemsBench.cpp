#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "SharedFiles/KTWorkspace.h"
#include "catalogue/KTGroupItem.h"
#include "catalogue/KTItemArchive.h"
#include "catalogue/KTPluginItem.h"

namespace {

/// Points the system root and home at an empty scratch folder, so that the
/// existence checks of the items never look at the real machine.
struct ScratchEnvironment {
    ScratchEnvironment() {
        std::string tmpl =
            (std::filesystem::temp_directory_path() / "ambrel-bench-XXXXXX").string();
        if (mkdtemp(tmpl.data())) base = tmpl;
        std::filesystem::create_directories(base + "/root");
        std::filesystem::create_directories(base + "/home");
        setenv("AMBREL_ROOT", (base + "/root").c_str(), 1);
        setenv("HOME", (base + "/home").c_str(), 1);
        KTWorkspace::shared().refreshApplications();
    }
    ~ScratchEnvironment() {
        std::error_code ec;
        std::filesystem::remove_all(base, ec);
    }
    std::string base;
};

/// 100 groups of 99 plug-ins plus 100 plug-ins at top level: 10,000 items.
KTItemList buildTree() {
    static const std::int64_t kinds[] = {0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 11, 12};
    KTItemList top;
    int n = 0;
    for (int g = 0; g < 100; ++g) {
        auto group = std::make_shared<KTGroupItem>();
        const std::string title = "Group " + std::to_string((g * 37) % 100);
        group->setTitle(title);
        group->setSubdir(title);
        group->setGroupPath("/Library/Plug-Ins/FxPlug/" + title);
        for (int i = 0; i < 99; ++i, ++n) {
            auto item = std::make_shared<KTPluginItem>("Plugin " + std::to_string(n) + ".bundle",
                                                       kinds[n % 12], n % 2, (n % 3) != 0);
            item->setShortName("Plugin " + std::to_string((n * 7919) % 10000));
            item->setVersion(std::to_string(n % 17) + "." + std::to_string(n % 5));
            item->setSubdir(title);
            item->setArchitectures({"64-bit (Intel)"});
            group->addChild(item);
        }
        top.push_back(group);
    }
    for (int i = 0; i < 100; ++i, ++n) {
        auto item = std::make_shared<KTPluginItem>("Loose " + std::to_string(n) + ".vst", 7, 0, 1);
        item->setShortName("Loose " + std::to_string(n));
        top.push_back(item);
    }
    return top;
}

void BM_BuildSortArchive10000Items(benchmark::State& state) {
    ScratchEnvironment scratch;
    for (auto _ : state) {
        KTItemList top = buildTree();
        // The top level sorts through a holder group, as the outline does with dataArray.
        auto holder = std::make_shared<KTGroupItem>();
        holder->setChildren(std::make_shared<KTItemList>(top));
        holder->sortChildrenByName(true);
        holder->sortChildrenByVersion(false);
        std::string bytes = KTItemArchive::archivedDataWithRootObject(holder->children());
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(BM_BuildSortArchive10000Items)->Unit(benchmark::kMillisecond);

void BM_Unarchive10000Items(benchmark::State& state) {
    ScratchEnvironment scratch;
    const std::string bytes = KTItemArchive::archivedDataWithRootObject(buildTree());
    for (auto _ : state) {
        auto items = KTItemArchive::unarchiveObjectWithData(bytes);
        benchmark::DoNotOptimize(items);
    }
}
BENCHMARK(BM_Unarchive10000Items)->Unit(benchmark::kMillisecond);

}  // namespace
