#include "diagnostics/KTCrashTestHost.h"

#include <algorithm>
#include <cctype>

#include "catalogue/KTPluginLocations.h"

bool KTCrashTestHost::isCandidateKind(std::int64_t pluginType) const {
    return std::find(candidateKinds.begin(), candidateKinds.end(), pluginType) !=
           candidateKinds.end();
}

const std::vector<KTCrashTestHost>& KTCrashTestHost::all() {
    using T = KTPluginType;
    static const std::vector<std::int64_t> finalCut{T::FxPlug, T::FxScript, T::AudioUnit,
                                                    T::QuartzComposer};
    static const std::vector<std::int64_t> finalCutX{T::MotionTemplate, T::FxPlug, T::AudioUnit,
                                                     T::QuartzComposer};
    // Avid AVX2 plug-ins are never candidates: the Avid row leaves them out.
    static const std::vector<KTCrashTestHost> hosts{
        {0, "Final Cut Pro", "com.apple.FinalCutPro", finalCut},
        {1, "Final Cut Express", "com.apple.FinalCutExpress", finalCut},
        {2, "Final Cut Pro X", "com.apple.FinalCut", finalCutX},
        {3, "Final Cut Pro X Trial", "com.apple.FinalCutTrial", finalCutX},
        {4,
         "Adobe Premiere Pro",
         "com.adobe.AdobePremierePro",
         {T::Adobe, T::VST, T::VST2, T::VST3}},
        {5, "Avid Media Composer", "com.avid.MediaComposer", {T::AvidAVX, T::AvidRTAS}},
    };
    return hosts;
}

const KTCrashTestHost& KTCrashTestHost::forIndex(int index) {
    const auto& hosts = all();
    if (index < 0 || index >= static_cast<int>(hosts.size())) return hosts.front();
    return hosts[static_cast<std::size_t>(index)];
}

std::optional<int> KTCrashTestHost::indexForArgument(const std::string& word) {
    auto lower = [](std::string s) {
        std::transform(s.begin(), s.end(), s.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return s;
    };
    for (const KTCrashTestHost& host : all()) {
        if (word == std::to_string(host.index) || lower(word) == lower(host.name))
            return host.index;
    }
    return std::nullopt;
}
