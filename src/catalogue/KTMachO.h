#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Reads the processor types of a Mach-O executable: a thin 32- or 64-bit
/// image in either byte order, or a fat (32- or 64-bit offset) image with one
/// slice per architecture. Executables come from plug-ins we know nothing
/// about, so every read is bounds-checked and the slice count is capped; a
/// Java class file, which shares the fat magic, yields nothing.
class KTMachO {
  public:
    /// The slices' processor type codes in file order; empty when the bytes
    /// are not a Mach-O header.
    static std::vector<std::int32_t> cpuTypes(const std::uint8_t* data, std::size_t size);
    /// The same for a file; only the header is read. `folder`, when not -1,
    /// is an open folder that a relative `path` starts from.
    static std::vector<std::int32_t> cpuTypesOfFile(const std::string& path, int folder = -1);

    /// The label of a processor type ("64-bit (Intel)", ...), or "" for one we do not name.
    static std::string labelForCPUType(std::int32_t cpuType);
    /// The labels of the known types among `types`, in order.
    static std::vector<std::string> labels(const std::vector<std::int32_t>& types);

    /// More slices than any real binary carries; a count above it is not a fat header.
    static constexpr std::uint32_t kMaxSlices = 16;
    /// Bytes read from a file: the fat header and slice table, or a thin header.
    static constexpr std::size_t kHeaderBytes = 8 + kMaxSlices * 32;
};
