// libFuzzer entry: the Mach-O reader must survive any bytes a plug-in ships.
#include <cstddef>
#include <cstdint>

#include "catalogue/KTMachO.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto types = KTMachO::cpuTypes(data, size);
    if (types.size() > KTMachO::kMaxSlices) __builtin_trap();
    (void)KTMachO::labels(types);
    return 0;
}
