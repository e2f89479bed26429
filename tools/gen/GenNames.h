#pragma once

#include <cctype>
#include <string>
#include <vector>

#include "GenRandom.h"

namespace gen {

/// Word lists for made-up vendors, plug-ins and groups. Every vendor name is
/// invented; none belongs to a real maker.
inline const std::vector<std::string>& vendors() {
    static const std::vector<std::string> v = {
        "Lumen",      "Parallax", "Northlight",  "Cobalt",   "Ember",   "Quartzline",
        "Vantage",    "Halcyon",  "Sable",       "Tessera",  "Orbital", "Kestrel",
        "Brightfold", "Mirelle",  "Oakhaven",    "Pylon",    "Corvid",  "Tidewater",
        "Ferrous",    "Gossamer", "Lanternfish", "Meridian", "Nimbus",  "Ravel"};
    return v;
}

inline const std::vector<std::string>& videoWords() {
    static const std::vector<std::string> v = {
        "Glow",          "Blur",           "Denoise",     "Grain",       "Film Look",
        "Color Match",   "Lens Flare",     "Stabilize",   "Sharpen",     "Vignette",
        "Chroma Key",    "Light Leaks",    "Glitch",      "Halftone",    "Bokeh",
        "Tilt Shift",    "Letterbox",      "Skin Smooth", "Time Remap",  "Echo Trails",
        "Posterize",     "Mosaic",         "Ripple",      "Kaleido",     "Day for Night",
        "Bleach Bypass", "Cross Dissolve", "Wipe",        "Lower Third", "Ticker"};
    return v;
}

inline const std::vector<std::string>& audioWords() {
    static const std::vector<std::string> v = {
        "Reverb",       "Compressor",    "EQ",         "Delay",          "Limiter",
        "Chorus",       "Gate",          "De-esser",   "Tape Saturator", "Phaser",
        "Flanger",      "Tremolo",       "Pitch",      "Vocoder",        "Exciter",
        "Transient",    "Stereo Imager", "Bitcrusher", "Synth",          "Sampler",
        "Drum Machine", "Tuner",         "Meter",      "Spectrum"};
    return v;
}

inline const std::vector<std::string>& nameSuffixes() {
    static const std::vector<std::string> v = {"",   "",    "",   " Pro", " Lite",
                                               " X", " HD", " 2", " 3"};
    return v;
}

/// Second- and third-level group names; some carry a numeric extension or
/// ".localized", which the scan treats as plain group folders.
inline const std::vector<std::string>& subgroupNames() {
    static const std::vector<std::string> v = {
        "Color",  "Blur",        "Stylize",     "Distortion", "Dynamics",      "Modulation",
        "Legacy", "Extras",      "Presets 1.5", "Pack 3.1",   "Old.localized", "Favourites",
        "Keying", "Transitions", "Utilities",   "Spatial",    "Vol 2.0",       "Archive.localized"};
    return v;
}

/// Lower-case letters and digits only, for bundle identifiers.
inline std::string identifierPart(const std::string& s) {
    std::string out;
    for (char c : s) {
        unsigned char u = static_cast<unsigned char>(c);
        if (std::isalnum(u)) out += static_cast<char>(std::tolower(u));
    }
    return out.empty() ? "plugin" : out;
}

/// A top-level group folder name for a vendor: plain, ".localized", or with
/// a numeric extension.
inline std::string topGroupName(Random& rng) {
    const std::string& vendor = rng.pick(vendors());
    switch (rng.below(6)) {
        case 0:
            return vendor + ".localized";
        case 1:
            return vendor + " Pack " + std::to_string(1 + rng.below(4)) + ".0";
        case 2:
            return vendor + " Effects";
        case 3:
            return vendor + " Collection.localized";
        default:
            return vendor;
    }
}

}  // namespace gen
