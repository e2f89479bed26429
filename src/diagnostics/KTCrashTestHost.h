#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// One row of the crash tester's host table: the name shown in messages,
/// the bundle identifier the host is launched and recognised by, and the
/// plug-in kinds that are candidates for its crash.
struct KTCrashTestHost {
    int index = 0;
    std::string name;
    std::string bundleIdentifier;
    std::vector<std::int64_t> candidateKinds;

    bool isCandidateKind(std::int64_t pluginType) const;

    /// The six rows, in pop-up order.
    static const std::vector<KTCrashTestHost>& all();
    /// The row of a pop-up index; any unknown index chooses row 0.
    static const KTCrashTestHost& forIndex(int index);
    /// The row a command-line word names: its index ("0" to "5") or its host
    /// name, letter case ignored. Nothing for anything else.
    static std::optional<int> indexForArgument(const std::string& word);
};
