// libFuzzer entry: the strings reader must survive any InfoPlist.strings a
// plug-in ships, and never hand on a key or value with a zero character.
#include <cstddef>
#include <cstdint>
#include <string>

#include "catalogue/KTStringsFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    std::string refused;
    auto table = KTStringsFile::parse(bytes, &refused);
    if (!table) {
        if (refused.empty()) __builtin_trap();  // a refusal always says why
        return 0;
    }
    for (const auto& [key, value] : *table) {
        if (key.find('\0') != std::string::npos || value.find('\0') != std::string::npos)
            __builtin_trap();
    }
    return 0;
}
