#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "GenRandom.h"

namespace gen {

/// The processor types our plug-ins are built for, with the header each
/// slice carries (64-bit magic and little byte order where the real ones do).
struct Arch {
    std::int32_t cpuType;
    std::int32_t cpuSubtype;
    bool is64;
    bool bigEndian;
    const char* name;
};

inline const Arch kI386{7, 3, false, false, "i386"};
inline const Arch kX86_64{0x01000007, 3, true, false, "x86_64"};
inline const Arch kArm64{0x0100000C, 0, true, false, "arm64"};
inline const Arch kPPC{18, 0, false, true, "ppc"};
inline const Arch kPPC64{0x01000012, 0, true, true, "ppc64"};

namespace macho_detail {

inline void put32(std::string& out, std::uint32_t v, bool bigEndian) {
    char b[4];
    for (int i = 0; i < 4; ++i) {
        int shift = bigEndian ? 24 - 8 * i : 8 * i;
        b[i] = static_cast<char>((v >> shift) & 0xFF);
    }
    out.append(b, 4);
}

}  // namespace macho_detail

/// MH_BUNDLE for plug-ins, MH_EXECUTE for host applications.
enum class MachOFileType : std::uint32_t { Execute = 2, Bundle = 8 };

/// One thin image: the mach header, one LC_UUID command and a little code-like
/// padding, so that a reader which trusts sizeofcmds finds a consistent file.
inline std::string thinMachO(const Arch& arch, MachOFileType type, Random& rng) {
    using macho_detail::put32;
    std::string out;
    const bool be = arch.bigEndian;
    put32(out, arch.is64 ? 0xFEEDFACFu : 0xFEEDFACEu, be);
    put32(out, static_cast<std::uint32_t>(arch.cpuType), be);
    put32(out, static_cast<std::uint32_t>(arch.cpuSubtype), be);
    put32(out, static_cast<std::uint32_t>(type), be);
    put32(out, 1, be);                 // ncmds
    put32(out, 24, be);                // sizeofcmds: LC_UUID
    put32(out, 0x00200085, be);        // MH_NOUNDEFS | MH_DYLDLINK | MH_TWOLEVEL | MH_PIE
    if (arch.is64) put32(out, 0, be);  // reserved
    put32(out, 0x1B, be);              // LC_UUID
    put32(out, 24, be);
    for (int i = 0; i < 4; ++i) put32(out, static_cast<std::uint32_t>(rng.next()), be);
    const std::size_t body = 32 + rng.below(96);
    for (std::size_t i = 0; i < body; ++i) out.push_back(static_cast<char>(rng.below(256)));
    return out;
}

/// A universal image: the big-endian fat header, one fat_arch per slice and
/// the slices at 16-byte boundaries (real ones align to pages; small files
/// matter more here than loadability).
inline std::string fatMachO(const std::vector<Arch>& archs, MachOFileType type, Random& rng) {
    using macho_detail::put32;
    constexpr std::uint32_t kAlignLog2 = 4;
    constexpr std::size_t kAlign = std::size_t{1} << kAlignLog2;
    std::vector<std::string> slices;
    for (const Arch& a : archs) slices.push_back(thinMachO(a, type, rng));

    std::string out;
    put32(out, 0xCAFEBABEu, true);
    put32(out, static_cast<std::uint32_t>(archs.size()), true);
    std::size_t offset = 8 + 20 * archs.size();
    std::vector<std::size_t> offsets;
    for (std::size_t i = 0; i < archs.size(); ++i) {
        offset = (offset + kAlign - 1) / kAlign * kAlign;
        offsets.push_back(offset);
        put32(out, static_cast<std::uint32_t>(archs[i].cpuType), true);
        put32(out, static_cast<std::uint32_t>(archs[i].cpuSubtype), true);
        put32(out, static_cast<std::uint32_t>(offset), true);
        put32(out, static_cast<std::uint32_t>(slices[i].size()), true);
        put32(out, kAlignLog2, true);
        offset += slices[i].size();
    }
    for (std::size_t i = 0; i < slices.size(); ++i) {
        out.resize(offsets[i], '\0');
        out += slices[i];
    }
    return out;
}

/// A thin image for one architecture, a fat one for several.
inline std::string machO(const std::vector<Arch>& archs, MachOFileType type, Random& rng) {
    return archs.size() == 1 ? thinMachO(archs[0], type, rng) : fatMachO(archs, type, rng);
}

}  // namespace gen
