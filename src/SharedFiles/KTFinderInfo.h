#pragma once

#include <cstdint>
#include <string>

/// The classic Mac file type code of a file ('FCSC' for a compiled FxScript).
/// Files copied from a Mac keep it in the "com.apple.FinderInfo" extended
/// attribute (on Linux in the user namespace); most files have none.
class KTFinderInfo {
public:
    /// The four-character type code, or 0 when the file carries none.
    static std::uint32_t typeCode(const std::string& path);
    /// Sets the type code (tests and the demo tree use it); false when the
    /// file system keeps no extended attributes.
    static bool setTypeCode(const std::string& path, std::uint32_t code);

    static constexpr std::uint32_t kFxScriptType = 0x46435343;  // 'FCSC'
};
