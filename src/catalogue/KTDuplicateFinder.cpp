#include "catalogue/KTDuplicateFinder.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <numeric>
#include <unordered_map>

namespace {

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

/// Union-find over entry indexes.
class Sets {
  public:
    explicit Sets(std::size_t n) : parent_(n) { std::iota(parent_.begin(), parent_.end(), 0); }
    std::size_t root(std::size_t i) {
        while (parent_[i] != i) i = parent_[i] = parent_[parent_[i]];
        return i;
    }
    void join(std::size_t a, std::size_t b) {
        a = root(a), b = root(b);
        if (a != b) parent_[std::max(a, b)] = std::min(a, b);
    }

  private:
    std::vector<std::size_t> parent_;
};

std::string scopeWord(std::int64_t scope) {
    return scope == 1 ? "current user" : "all users";
}

}  // namespace

std::vector<KTDuplicateFinder::Set> KTDuplicateFinder::find(
    std::vector<KTCatalogueEntry>& entries) {
    const std::size_t n = entries.size();
    Sets sets(n);
    // Why two entries were joined, by key kind, for the set's description.
    std::unordered_map<std::string, std::size_t> byIdentifier, byNameVersion, byRealPath;
    std::vector<bool> sameId(n), sameName(n), sameFile(n);
    auto link = [&](std::unordered_map<std::string, std::size_t>& index, const std::string& key,
                    std::size_t i, std::vector<bool>& flag) {
        if (key.empty()) return;
        auto [it, inserted] = index.emplace(key, i);
        if (inserted) return;
        sets.join(it->second, i);
        flag[it->second] = flag[i] = true;
    };
    for (std::size_t i = 0; i < n; ++i) {
        const KTCatalogueEntry& e = entries[i];
        link(byIdentifier, lower(e.bundleIdentifier), i, sameId);
        link(byNameVersion, lower(e.shortName) + '\x1f' + e.version, i, sameName);
        link(byRealPath, e.realPath, i, sameFile);
    }

    std::map<std::size_t, std::vector<std::size_t>> members;
    for (std::size_t i = 0; i < n; ++i) members[sets.root(i)].push_back(i);

    std::vector<Set> result;
    for (const auto& [root, indexes] : members) {
        if (indexes.size() < 2) continue;
        Set set;
        const KTCatalogueEntry& first = entries[indexes.front()];
        set.title = first.shortName + (first.version.empty() ? "" : " " + first.version);
        std::vector<std::string> why;
        bool anyId = false, anyName = false, anyFile = false;
        for (std::size_t i : indexes) {
            anyId = anyId || sameId[i];
            anyName = anyName || sameName[i];
            anyFile = anyFile || sameFile[i];
        }
        if (anyId) why.push_back("same bundle identifier " + first.bundleIdentifier);
        if (anyName) why.push_back("same name and version");
        if (anyFile) why.push_back("the same bundle reached through a link");
        for (std::size_t k = 0; k < why.size(); ++k) set.why += (k ? "; " : "") + why[k];
        for (std::size_t i : indexes) set.copies.push_back({i, false, false, {}});

        std::map<std::int64_t, std::vector<Copy*>> byKind;
        for (Copy& c : set.copies) byKind[entries[c.entry].kind].push_back(&c);
        const bool severalFormats = byKind.size() > 1;
        for (auto& [kind, copies] : byKind) {
            // Preference: enabled, the current user's, a real bundle, found first.
            Copy* winner = nullptr;
            for (Copy* c : copies) {
                const KTCatalogueEntry& e = entries[c->entry];
                if (!e.enabled) continue;
                if (!winner) {
                    winner = c;
                    continue;
                }
                const KTCatalogueEntry& w = entries[winner->entry];
                if (e.scope != w.scope ? e.scope == 1 : (e.isLink != w.isLink && !e.isLink))
                    winner = c;
            }
            for (Copy* c : copies) {
                const KTCatalogueEntry& e = entries[c->entry];
                if (c == winner) {
                    c->inUse = true;
                    if (copies.size() == 1) {
                        c->reason = severalFormats
                                        ? "the only " + e.kindName +
                                              " copy; hosts of other formats load their own"
                                        : "the only copy";
                    } else {
                        bool beatsMachine = false, beatsLink = false, othersEnabled = false;
                        for (Copy* o : copies) {
                            const KTCatalogueEntry& other = entries[o->entry];
                            if (o == c || !other.enabled) continue;
                            othersEnabled = true;
                            beatsMachine = beatsMachine || (other.scope == 0 && e.scope == 1);
                            beatsLink = beatsLink || (other.isLink && !e.isLink);
                        }
                        c->reason = !othersEnabled ? "the only enabled " + e.kindName + " copy"
                                    : beatsMachine
                                        ? "the current user's copy, which hosts load first"
                                    : beatsLink ? "the real bundle, loaded before a link"
                                                : "found first of its format and scope";
                    }
                    continue;
                }
                if (!e.enabled) {
                    c->reason = "disabled: hosts do not load it";
                    continue;
                }
                const KTCatalogueEntry& w = entries[winner->entry];
                c->shadowed = true;
                entries[c->entry].shadowed = true;
                if (e.realPath == w.realPath)
                    c->reason = "the same bundle as " + w.logicalPath + ", reached through a link";
                else if (w.scope == 1 && e.scope == 0)
                    c->reason = "shadowed by " + w.logicalPath +
                                ": the current user's copy is loaded first";
                else if (e.isLink && !w.isLink)
                    c->reason = "shadowed by " + w.logicalPath + ": a link loses to a real bundle";
                else
                    c->reason = "shadowed by " + w.logicalPath + ", found first in the same scope";
            }
        }
        result.push_back(std::move(set));
    }
    return result;
}

std::string KTDuplicateFinder::describe(const std::vector<KTCatalogueEntry>& entries,
                                        const std::vector<Set>& sets) {
    std::string out;
    for (const Set& set : sets) {
        out += set.title + " (" + set.why + ")\n";
        for (const Copy& c : set.copies) {
            const KTCatalogueEntry& e = entries[c.entry];
            out += std::string(c.inUse      ? "  in use    "
                               : c.shadowed ? "  shadowed  "
                                            : "  not used  ") +
                   e.logicalPath + " [" + e.kindName + ", " + scopeWord(e.scope) + ", " +
                   (e.enabled ? "enabled" : "disabled") + (e.isLink ? ", link" : "") + "] - " +
                   c.reason + "\n";
        }
    }
    if (sets.empty()) out = "No duplicate plugins.\n";
    return out;
}
