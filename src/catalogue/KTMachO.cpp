#include "catalogue/KTMachO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr std::uint32_t kMH_MAGIC = 0xfeedface;
constexpr std::uint32_t kMH_CIGAM = 0xcefaedfe;
constexpr std::uint32_t kMH_MAGIC_64 = 0xfeedfacf;
constexpr std::uint32_t kMH_CIGAM_64 = 0xcffaedfe;
constexpr std::uint32_t kFAT_MAGIC = 0xcafebabe;
constexpr std::uint32_t kFAT_MAGIC_64 = 0xcafebabf;

std::uint32_t readBE(const std::uint8_t* p) {
    return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) |
           std::uint32_t(p[3]);
}
std::uint32_t readLE(const std::uint8_t* p) {
    return (std::uint32_t(p[3]) << 24) | (std::uint32_t(p[2]) << 16) | (std::uint32_t(p[1]) << 8) |
           std::uint32_t(p[0]);
}

}  // namespace

std::vector<std::int32_t> KTMachO::cpuTypes(const std::uint8_t* data, std::size_t size) {
    std::vector<std::int32_t> out;
    if (!data || size < 8) return out;
    const std::uint32_t be = readBE(data);
    // Thin images: the magic read big-endian tells the byte order of the rest.
    if (be == kMH_MAGIC || be == kMH_MAGIC_64) {
        out.push_back(static_cast<std::int32_t>(readBE(data + 4)));
        return out;
    }
    if (be == kMH_CIGAM || be == kMH_CIGAM_64) {
        out.push_back(static_cast<std::int32_t>(readLE(data + 4)));
        return out;
    }
    bool swapped = false;
    std::uint32_t magic = be;
    if (readLE(data) == kFAT_MAGIC || readLE(data) == kFAT_MAGIC_64) {
        swapped = true;
        magic = readLE(data);
    }
    if (magic != kFAT_MAGIC && magic != kFAT_MAGIC_64) return out;
    auto rd = [&](const std::uint8_t* p) { return swapped ? readLE(p) : readBE(p); };
    const std::uint32_t count = rd(data + 4);
    // A Java class file carries its version here (45 and up): not a slice count.
    if (count == 0 || count > kMaxSlices) return out;
    const std::size_t entry = magic == kFAT_MAGIC_64 ? 32 : 20;
    if (size < 8 + std::size_t(count) * entry) return out;
    for (std::uint32_t i = 0; i < count; ++i) {
        out.push_back(static_cast<std::int32_t>(rd(data + 8 + i * entry)));
    }
    return out;
}

std::vector<std::int32_t> KTMachO::cpuTypesOfFile(const std::string& path, int folder) {
    int fd =
        ::openat(folder < 0 ? AT_FDCWD : folder, path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return {};
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {  // never block on a FIFO or device
        ::close(fd);
        return {};
    }
    std::uint8_t buf[kHeaderBytes];
    // No more than the file holds: a short executable then takes one read,
    // not a second one to learn that it has ended.
    const std::size_t want =
        std::min<std::size_t>(sizeof buf, static_cast<std::size_t>(std::max<off_t>(st.st_size, 0)));
    std::size_t got = 0;
    while (got < want) {
        ssize_t n = ::read(fd, buf + got, want - got);
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return cpuTypes(buf, got);
}

std::string KTMachO::labelForCPUType(std::int32_t cpuType) {
    switch (static_cast<std::uint32_t>(cpuType)) {
        case 7:
            return "32-bit (Intel)";
        case 18:
            return "32-bit (PowerPC)";
        case 0x01000007:
            return "64-bit (Intel)";
        case 0x01000012:
            return "64-bit (PowerPC)";
        default:
            return {};
    }
}

std::vector<std::string> KTMachO::labels(const std::vector<std::int32_t>& types) {
    std::vector<std::string> out;
    for (auto t : types) {
        std::string l = labelForCPUType(t);
        if (!l.empty()) out.push_back(std::move(l));
    }
    return out;
}
