// ambrel-gen: writes a realistic plug-in tree under a scratch system root and
// home, for the demo, the benchmarks and tests. The same seed and size always
// give the same tree (paths and file contents).

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "SharedFiles/KTLocalPaths.h"
#include "catalogue/KTPluginLocations.h"
#include "gen/GenBundle.h"
#include "gen/GenFiles.h"
#include "gen/GenMachO.h"
#include "gen/GenNames.h"
#include "gen/GenRandom.h"

namespace {

using gen::Arch;
using gen::Random;

enum class Shape { Bundle, Script, Template };

/// One kind in one scope, with its share of the tree.
struct Bucket {
    std::int64_t kind;
    std::int64_t access;
    unsigned weight;
    Shape shape;
    const char* ext;
    /// The folder-table key of its folder; null where the table's value is
    /// one no host uses (the Avid AVX2 and RTAS entries lack a "/"), so the
    /// kind folder itself is used.
    const char* folderKey;
    bool audio;
    const char* extraKey;  ///< an Info.plist key Avid bundles carry, or null
};

// Weights roughly follow what a busy editing and mixing machine holds.
const std::vector<Bucket>& buckets() {
    using T = KTPluginType;
    static const std::vector<Bucket> b = {
        {T::FxPlug, 0, 12, Shape::Bundle, "fxplug", "localFxPlug", false, nullptr},
        {T::FxPlug, 1, 6, Shape::Bundle, "fxplug", "userFxPlug", false, nullptr},
        {T::FxScript, 0, 3, Shape::Script, "fcfcc", "localFxScript", false, nullptr},
        {T::FxScript, 1, 2, Shape::Script, "fcfcc", "userFxScript", false, nullptr},
        {T::AudioUnit, 0, 13, Shape::Bundle, "component", "localAU", true, nullptr},
        {T::AudioUnit, 1, 6, Shape::Bundle, "component", "userAU", true, nullptr},
        {T::AvidAVX, 0, 4, Shape::Bundle, "bundle", "avidAVX", false, "AVX15_BundleVersion"},
        {T::Adobe, 0, 6, Shape::Bundle, "plugin", "adobeCommon", false, nullptr},
        {T::AvidAVX2, 0, 4, Shape::Bundle, "avx", nullptr, false, "AVX20_BundleVersion"},
        {T::AvidRTAS, 0, 3, Shape::Bundle, "dpm", nullptr, true, nullptr},
        {T::VST, 0, 8, Shape::Bundle, "vst", "localVST", true, nullptr},
        {T::VST, 1, 3, Shape::Bundle, "vst", "userVST", true, nullptr},
        {T::VST2, 0, 2, Shape::Bundle, "vst", "localVST2", true, nullptr},
        {T::VST2, 1, 1, Shape::Bundle, "vst", "userVST2", true, nullptr},
        {T::VST3, 0, 8, Shape::Bundle, "vst3", "localVST3", true, nullptr},
        {T::VST3, 1, 3, Shape::Bundle, "vst3", "userVST3", true, nullptr},
        {T::MotionTemplate, 0, 8, Shape::Template, "", "localMotionTemplate", false, nullptr},
        {T::MotionTemplate, 1, 6, Shape::Template, "", "userMotionTemplate", false, nullptr},
        {T::OpenFX, 0, 4, Shape::Bundle, "ofx.bundle", "localOFX", false, nullptr},
        {T::QuartzComposer, 0, 2, Shape::Bundle, "plugin", "localQuartz", false, nullptr},
        {T::QuartzComposer, 1, 2, Shape::Bundle, "plugin", "userQuartz", false, nullptr},
    };
    return b;
}

/// How many plug-ins each bucket gets: one each when there is room, the rest
/// by weight (largest remainder), so every kind and scope is present.
std::vector<std::size_t> allocate(std::size_t total) {
    const auto& b = buckets();
    std::vector<std::size_t> counts(b.size(), 0);
    std::size_t rest = total;
    if (total >= b.size()) {
        std::fill(counts.begin(), counts.end(), 1);
        rest -= b.size();
    }
    unsigned weightSum = 0;
    for (const auto& x : b) weightSum += x.weight;
    std::vector<std::pair<std::size_t, std::size_t>> remainders;  // (remainder, index)
    std::size_t given = 0;
    for (std::size_t i = 0; i < b.size(); ++i) {
        const std::size_t share = rest * b[i].weight;
        counts[i] += share / weightSum;
        given += share / weightSum;
        remainders.emplace_back(share % weightSum, i);
    }
    std::stable_sort(remainders.begin(), remainders.end(),
                     [](const auto& x, const auto& y) { return x.first > y.first; });
    for (std::size_t k = 0; given < rest; ++k, ++given) ++counts[remainders[k].second];
    return counts;
}

/// Architecture sets of shipped plug-ins, old and new, with how common each is.
const std::vector<std::vector<Arch>>& archSets() {
    using namespace gen;
    static const std::vector<std::vector<Arch>> s = {
        {kX86_64},        {kX86_64, kArm64},      {kArm64},
        {kI386, kX86_64}, {kPPC, kI386},          {kI386},
        {kPPC},           {kPPC, kI386, kX86_64}, {kPPC, kPPC64, kI386, kX86_64},
    };
    return s;
}
const std::vector<unsigned> kArchWeights = {30, 30, 6, 12, 8, 5, 4, 3, 2};

struct Stats {
    std::map<std::int64_t, std::size_t> perKind;
    std::size_t enabled = 0, disabled = 0, locked = 0, groups = 0, fat = 0, thin = 0;
};

struct Context {
    gen::FileWriter out;
    Stats stats;
    KTPluginFolderDict folders;
    FILE* manifest = nullptr;
    bool lockedDone = false;
    bool productNameDone = false;
};

std::string join(const std::string& a, const std::string& b) {
    return KTPluginLocations::appendPathComponent(a, b);
}

std::string stripSlash(std::string s) {
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    return s;
}

std::string kindFolder(const Context& ctx, const Bucket& b) {
    if (b.folderKey) {
        if (auto f = KTPluginLocations::folderForKey(ctx.folders, b.folderKey))
            return stripSlash(*f);
    }
    return stripSlash(KTPluginLocations::pluginBasePath(b.kind, b.access));
}

std::string versionText(Random& rng) {
    return std::to_string(1 + rng.below(9)) + "." + std::to_string(rng.below(10)) +
           (rng.chance(60) ? "." + std::to_string(rng.below(10)) : "");
}

/// A plug-in name not yet used in the folder; some carry a numeric
/// extension ("Denoise 2.5"), which must survive as part of the name.
std::string uniqueName(Random& rng, const Bucket& b, std::set<std::string>& used) {
    const auto& words = b.audio ? gen::audioWords() : gen::videoWords();
    std::string name;
    // Not for templates: the scan looks inside "Name 2.5" for "Name 2.moti",
    // so such a template would show as an empty group.
    if (b.shape != Shape::Template && rng.chance(4)) {
        name = rng.pick(words) + " " + std::to_string(1 + rng.below(4)) + "." +
               std::to_string(rng.below(10));
    } else if (rng.chance(50)) {
        name = rng.pick(gen::vendors()) + " " + rng.pick(words) + rng.pick(gen::nameSuffixes());
    } else {
        name = rng.pick(words) + rng.pick(gen::nameSuffixes());
    }
    std::string candidate = name;
    for (int n = 2; used.count(candidate); ++n) candidate = name + " " + std::to_string(n);
    used.insert(candidate);
    return candidate;
}

/// Group folders of one bucket, relative to its kind folder, nested at most
/// three deep. Motion templates hang below their category folders.
std::vector<std::string> makeGroups(Random& rng, const Bucket& b, std::size_t count) {
    std::vector<std::string> groups;
    std::vector<int> depth;
    std::set<std::string> seen;
    auto add = [&](const std::string& g, int d) {
        if (seen.insert(g).second) {
            groups.push_back(g);
            depth.push_back(d);
        }
    };
    if (b.shape == Shape::Template) {
        for (const char* c : {"Titles.localized", "Generators.localized", "Effects.localized",
                              "Transitions.localized"})
            add(c, 1);
    }
    const std::size_t wanted = count >= 4 ? std::max<std::size_t>(1, count / 8) : 0;
    for (std::size_t i = 0; i < wanted; ++i) {
        if (b.shape == Shape::Template || (!groups.empty() && rng.chance(40))) {
            const std::size_t p = rng.below(groups.size());
            if (depth[p] >= 3) continue;
            const std::string child = depth[p] == 1 && b.shape == Shape::Template
                                          ? gen::topGroupName(rng)
                                          : rng.pick(gen::subgroupNames());
            add(groups[p] + "/" + child, depth[p] + 1);
        } else {
            add(gen::topGroupName(rng), 1);
        }
    }
    // Every tree of some size holds a group three deep.
    if (wanted >= 2 && *std::max_element(depth.begin(), depth.end()) < 3) {
        std::string chain = groups.front();
        for (int d = 2; d <= 3; ++d) {
            chain += "/" + (d == 2 && b.shape == Shape::Template ? gen::topGroupName(rng)
                                                                 : rng.pick(gen::subgroupNames()));
            add(chain, d);
        }
    }
    return groups;
}

const char* templateExtension(const std::string& subdir) {
    if (subdir.rfind("Generators", 0) == 0) return "motn";
    if (subdir.rfind("Effects", 0) == 0) return "moef";
    if (subdir.rfind("Transitions", 0) == 0) return "motr";
    return "moti";
}

std::string pngBytes(Random& rng) {
    std::string s("\x89PNG\r\n\x1a\n", 8);
    for (int i = 0; i < 40; ++i) s.push_back(static_cast<char>(rng.below(256)));
    return s;
}

/// A Motion template: its folder holds the template document named after
/// it, preview images and a Media folder.
void writeTemplate(Context& ctx, const std::string& path, const std::string& name,
                   const std::string& subdir, Random& rng) {
    const std::string doc =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE ozxmlscene>\n"
        "<ozml version=\"5.11\">\n<scene>\n<sceneSettings><width>1920</width>"
        "<height>1080</height></sceneSettings>\n<layer name=\"" +
        name + "\" id=\"" + std::to_string(10000 + rng.below(90000)) + "\"/>\n</scene>\n</ozml>\n";
    ctx.out.writeFile(join(path, name + "." + templateExtension(subdir)), doc);
    ctx.out.writeFile(join(path, "large.png"), pngBytes(rng));
    ctx.out.writeFile(join(path, "small.png"), pngBytes(rng));
    ctx.out.writeFile(join(path, "Media/" + rng.pick(gen::videoWords()) + " Background.png"),
                      pngBytes(rng));
}

/// An FxScript plug-in: a compiled script, a script's text, or an old bundle.
void writeScript(Context& ctx, const std::string& path, const std::string& name, Random& rng) {
    if (path.size() > 4 && path.compare(path.size() - 4, 4, ".txt") == 0) {
        ctx.out.writeFile(path, "scriptid \"" + name + "\"\nfilter \"" + name +
                                    "\";\ngroup \"Video\";\nproducesAlpha;\n"
                                    "code\n\texec BlurChannel(src1, dest, 2, 1, 1, 1);\nend\n");
        return;
    }
    std::string bytes = "FCSC";
    for (int i = 0; i < 60; ++i) bytes.push_back(static_cast<char>(rng.below(256)));
    ctx.out.writeFile(path, bytes);
}

void writePluginBundle(Context& ctx, const Bucket& b, const std::string& path,
                       const std::string& name, const std::string& vendor, Random& rng,
                       const std::vector<Arch>& archs) {
    gen::BundleSpec contents;
    contents.path = path;
    contents.name = name;
    contents.executable = name;
    contents.identifier = "com." + gen::identifierPart(vendor) + "." +
                      gen::identifierPart(KTPluginLocations::pluginTypeName(b.kind)) + "." +
                      gen::identifierPart(name);
    contents.archs = archs;
    contents.binaryInfoPlist = rng.chance(15);
    const std::string v = versionText(rng);
    switch (rng.below(10)) {
        case 0:
            break;  // neither version key
        case 1:
            contents.shortVersion = v;
            break;
        case 2:
        case 3:
            contents.version = v;
            break;
        default:
            contents.shortVersion = v;
            contents.version = std::to_string(100 + rng.below(900));
    }
    switch (rng.below(20)) {
        case 0:
        case 1:
        case 2:
            contents.displayName = vendor + " " + name;
            break;
        case 3:
        case 4: {
            contents.displayName = name;
            contents.localizedDisplayName = name + " (" + vendor + ")";
            static const gen::StringsForm forms[] = {gen::StringsForm::UTF16Text,
                                                     gen::StringsForm::UTF8Text,
                                                     gen::StringsForm::BinaryPlist};
            contents.stringsForm = forms[rng.below(3)];
            break;
        }
        default:
            break;
    }
    if (!ctx.productNameDone && ctx.lockedDone && b.kind == KTPluginType::FxPlug) {
        // One bundle built without its product name filled in.
        contents.name = "${PRODUCT_NAME}";
        contents.displayName.reset();
        contents.localizedDisplayName.reset();
        ctx.productNameDone = true;
    }
    if (b.extraKey)
        contents.extraKeys.emplace_back(b.extraKey, b.kind == KTPluginType::AvidAVX ? "1.5" : "2.0");
    if (b.kind == KTPluginType::OpenFX) contents.executable = name + ".ofx";
    gen::writeBundle(ctx.out, contents, rng);
}

void generateBucket(Context& ctx, const Bucket& b, std::size_t count, Random rng) {
    if (count == 0) return;
    const std::string base = kindFolder(ctx, b);
    const std::vector<std::string> groups = makeGroups(rng, b, count);
    std::map<std::string, std::set<std::string>> usedNames;  // per group folder
    for (const std::string& g : groups) {
        // A template must not take a group folder's name (plug-ins have extensions).
        const auto slash = g.find_last_of('/');
        if (slash == std::string::npos)
            usedNames[""].insert(g);
        else
            usedNames[g.substr(0, slash)].insert(g.substr(slash + 1));
    }
    std::set<std::string> usedGroups;

    for (std::size_t i = 0; i < count; ++i) {
        std::string subdir;
        if (b.shape == Shape::Template) {
            subdir = groups[rng.below(groups.size())];
        } else if (!groups.empty() && rng.chance(55)) {
            subdir = groups[rng.below(groups.size())];
        }
        const std::string vendor = rng.pick(gen::vendors());
        const std::string name = uniqueName(rng, b, usedNames[subdir]);
        std::string ext = b.ext;
        if (b.shape == Shape::Script) {
            const auto r = rng.below(10);
            ext = r < 7 ? "fcfcc" : r < 9 ? "txt" : "bundle";
        }
        const std::string fileName = ext.empty() ? name : name + "." + ext;
        const std::string enabledPath = join(subdir.empty() ? base : join(base, subdir), fileName);
        // The first plug-in of the tree stays enabled so the locked one is always present.
        const bool enabled = (!ctx.lockedDone && b.kind == KTPluginType::FxPlug) || !rng.chance(10);
        const std::string path =
            enabled ? enabledPath : KTPluginLocations::disabledPathForPath(enabledPath);
        const std::vector<Arch>& archs = archSets()[rng.weighted(kArchWeights)];

        if (b.shape == Shape::Template) {
            writeTemplate(ctx, path, name, subdir, rng);
        } else if (b.shape == Shape::Script && ext != "bundle") {
            writeScript(ctx, path, name, rng);
        } else {
            writePluginBundle(ctx, b, path, name, vendor, rng, archs);
            (archs.size() > 1 ? ctx.stats.fat : ctx.stats.thin)++;
        }
        if (!ctx.lockedDone && b.kind == KTPluginType::FxPlug) {
            // Managed by another installer: every operation must leave it alone.
            ctx.out.writeFile(join(path, ".fxfactory.plist"),
                              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
                              "<dict><key>productID</key><string>" +
                                  gen::identifierPart(name) + "</string></dict></plist>\n");
            ctx.lockedDone = true;
            ++ctx.stats.locked;
        }
        for (std::string g = subdir; !g.empty();) {
            usedGroups.insert(g);
            const auto slash = g.find_last_of('/');
            g = slash == std::string::npos ? "" : g.substr(0, slash);
        }
        ++ctx.stats.perKind[b.kind];
        ++(enabled ? ctx.stats.enabled : ctx.stats.disabled);
        if (ctx.manifest)
            std::fprintf(ctx.manifest, "%lld\t%lld\t%d\t%s\n", static_cast<long long>(b.kind),
                         static_cast<long long>(b.access), enabled ? 1 : 0, path.c_str());
    }
    ctx.stats.groups += usedGroups.size();

    // What else lies in such folders: Finder's litter, the names file of a
    // localised folder, a read-me the scan must ignore.
    if (rng.chance(50)) ctx.out.writeFile(join(base, ".DS_Store"), std::string(16, '\0'));
    for (const std::string& g : usedGroups) {
        const std::string folder = join(base, g);
        if (g.size() > 10 && g.compare(g.size() - 10, 10, ".localized") == 0 &&
            std::filesystem::is_directory(folder)) {
            const std::string title = g.substr(g.find_last_of('/') + 1);
            ctx.out.writeFile(join(folder, ".localized/en.strings"),
                              "\"" + title.substr(0, title.size() - 10) + "\" = \"" +
                                  title.substr(0, title.size() - 10) + "\";\n");
        }
    }
    if (!usedGroups.empty() && rng.chance(30)) {
        const std::string folder = join(base, *usedGroups.begin());
        if (std::filesystem::is_directory(folder))
            ctx.out.writeFile(join(folder, "Read Me.rtf"), "{\\rtf1\\ansi Thanks for buying.}\n");
    }
}

void writeApp(Context& ctx, const std::string& path, const std::string& name,
              const std::string& identifier, const std::string& version, Random& rng) {
    gen::BundleSpec contents;
    contents.path = path;
    contents.name = name;
    contents.identifier = identifier;
    contents.executable = name;
    contents.packageType = "APPL";
    contents.shortVersion = version;
    contents.version = version;
    contents.archs = {gen::kX86_64, gen::kArm64};
    contents.fileType = gen::MachOFileType::Execute;
    gen::writeBundle(ctx.out, contents, rng);
}

/// The host applications whose presence steers the folder choices: Final
/// Cut Pro (FxScript's "Pro" folders), Premiere (the Adobe folder), Avid
/// Media Composer (the AVX folder). One older Premiere left only its
/// configuration behind, so its version comes from XManConfig.xml.
void writeHostApps(Context& ctx, Random rng) {
    const std::string apps = KTLocalPaths::applicationDirectory(false);
    writeApp(ctx, apps + "/Final Cut Pro.app", "Final Cut Pro", "com.apple.FinalCut", "10.6.5",
             rng);
    writeApp(ctx, apps + "/Motion.app", "Motion", "com.apple.motionapp", "5.6.5", rng);
    writeApp(ctx, apps + "/Adobe Premiere Pro 2022/Adobe Premiere Pro 2022.app",
             "Adobe Premiere Pro 2022", "com.adobe.AdobePremierePro", "22.0.0", rng);
    ctx.out.writeFile(apps + "/Adobe Premiere Pro CS5/Configuration/XManConfig.xml",
                      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Configuration>\n"
                      "  <VariableForExMan>\n"
                      "    <Data key=\"ProductName\">Adobe Premiere Pro</Data>\n"
                      "    <Data key=\"ProductVersion\">5.0</Data>\n"
                      "  </VariableForExMan>\n</Configuration>\n");
    writeApp(ctx, apps + "/Avid Media Composer/AvidMediaComposer.app", "AvidMediaComposer",
             "com.avid.mediacomposer", "2023.8", rng);
    // The Adobe common folder: a numeric version folder (the one in use) and a
    // suite-named one that is passed over.
    const std::string adobe = KTLocalPaths::appSupportDirectory(false) + "/Adobe/Common/Plug-ins";
    ctx.out.makeDirs(adobe + "/7.0/MediaCore");
    ctx.out.makeDirs(adobe + "/CS6/MediaCore");
}

std::string summaryLine(const Stats& s, std::size_t total, double seconds) {
    std::string line = "ambrel-gen: " + std::to_string(total) + " plug-ins (" +
                       std::to_string(s.enabled) + " enabled, " + std::to_string(s.disabled) +
                       " disabled, " + std::to_string(s.locked) + " locked) in " +
                       std::to_string(s.groups) + " groups; " + std::to_string(s.fat) +
                       " fat and " + std::to_string(s.thin) + " thin executables;";
    bool first = true;
    for (const auto& [kind, n] : s.perKind) {
        line += (first ? " " : ", ") + KTPluginLocations::pluginTypeName(kind) + " " +
                std::to_string(n);
        first = false;
    }
    char t[32];
    std::snprintf(t, sizeof t, " (%.2f s)", seconds);
    return line + t;
}

void usage(FILE* to) {
    std::fprintf(to,
                 "usage: ambrel-gen --root DIR --home DIR [--size N] [--seed S]"
                 " [--manifest FILE] [--quiet]\n"
                 "Writes a plug-in tree (N plug-ins, 200 by default) under a scratch system\n"
                 "root and home. The same seed (1 by default) gives the same tree. The manifest\n"
                 "lists each plug-in as: kind, scope, enabled, path (tab-separated).\n");
}

std::optional<std::uint64_t> parseNumber(const char* s) {
    if (!s || !*s) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(s, &end, 10);
    if (errno || *end || s[0] == '-') return std::nullopt;
    return v;
}

/// An absolute, existing folder for a flag's value.
std::optional<std::string> prepareFolder(const std::string& given) {
    std::error_code ec;
    std::filesystem::create_directories(given, ec);
    auto canonical = std::filesystem::weakly_canonical(std::filesystem::absolute(given), ec);
    if (ec) return std::nullopt;
    return stripSlash(canonical.string());
}

}  // namespace

int main(int argc, char** argv) {
    std::string root, home, manifestPath;
    std::uint64_t size = 200, seed = 1;
    bool quiet = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a.rfind("--", 0) != 0 && a.rfind("-", 0) == 0) a = "-" + a;  // -root works too
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (a == "--root") {
            const char* v = value();
            root = v ? v : "";
        } else if (a == "--home") {
            const char* v = value();
            home = v ? v : "";
        } else if (a == "--manifest") {
            const char* v = value();
            manifestPath = v ? v : "";
        } else if (a == "--size" || a == "--seed") {
            auto n = parseNumber(value());
            if (!n || (a == "--size" && *n > 10'000'000)) {
                std::fprintf(stderr, "ambrel-gen: %s needs a number\n", a.c_str());
                return 2;
            }
            (a == "--size" ? size : seed) = *n;
        } else if (a == "--quiet") {
            quiet = true;
        } else if (a == "--help") {
            usage(stdout);
            return 0;
        } else {
            std::fprintf(stderr, "ambrel-gen: unknown argument %s\n", argv[i]);
            usage(stderr);
            return 2;
        }
    }
    if (root.empty() || home.empty()) {
        usage(stderr);
        return 2;
    }
    auto rootDir = prepareFolder(root);
    auto homeDir = prepareFolder(home);
    if (!rootDir || !homeDir) {
        std::fprintf(stderr, "ambrel-gen: cannot make the root or home folder\n");
        return 1;
    }
    // The tree is for scratch folders only: never the machine's own root or the user's home.
    const struct passwd* pw = getpwuid(getuid());
    if (*rootDir == "/" || rootDir->empty() ||
        (pw && pw->pw_dir && *homeDir == stripSlash(pw->pw_dir))) {
        std::fprintf(stderr, "ambrel-gen: refusing to write into the real system root or home\n");
        return 1;
    }
    setenv("AMBREL_ROOT", rootDir->c_str(), 1);
    setenv("HOME", homeDir->c_str(), 1);
    unsetenv("XDG_DATA_HOME");

    const auto started = std::chrono::steady_clock::now();
    Context ctx;
    if (!manifestPath.empty()) {
        ctx.manifest = std::fopen(manifestPath.c_str(), "w");
        if (!ctx.manifest) {
            std::fprintf(stderr, "ambrel-gen: cannot write %s: %s\n", manifestPath.c_str(),
                         std::strerror(errno));
            return 1;
        }
    }
    Random master(seed);
    writeHostApps(ctx, master.fork(1000));
    // The folder table depends on the applications and the Adobe folders just written.
    ctx.folders = KTPluginLocations::pluginFolderDict();
    ctx.out.makeDirs(KTPluginLocations::disabledPath());
    const auto counts = allocate(size);
    for (std::size_t i = 0; i < buckets().size(); ++i)
        generateBucket(ctx, buckets()[i], counts[i], master.fork(i + 1));
    if (ctx.manifest) std::fclose(ctx.manifest);
    if (!ctx.out.ok()) {
        std::fprintf(stderr, "ambrel-gen: %s\n", ctx.out.error().c_str());
        return 1;
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (!quiet) std::printf("%s\n", summaryLine(ctx.stats, size, seconds).c_str());
    return 0;
}
