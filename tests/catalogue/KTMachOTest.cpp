#include "catalogue/KTMachO.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

void putBE(std::vector<std::uint8_t>& b, std::uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(std::uint8_t(v >> s));
}
void putLE(std::vector<std::uint8_t>& b, std::uint32_t v) {
    for (int s = 0; s <= 24; s += 8) b.push_back(std::uint8_t(v >> s));
}

std::vector<std::uint8_t> fat(const std::vector<std::uint32_t>& cpus, bool fat64 = false) {
    std::vector<std::uint8_t> b;
    putBE(b, fat64 ? 0xcafebabf : 0xcafebabe);
    putBE(b, std::uint32_t(cpus.size()));
    for (auto c : cpus) {
        putBE(b, c);  // cputype
        putBE(b, 3);  // cpusubtype
        if (fat64) {
            putBE(b, 0), putBE(b, 4096), putBE(b, 0), putBE(b, 4096), putBE(b, 12), putBE(b, 0);
        } else {
            putBE(b, 4096), putBE(b, 4096), putBE(b, 12);
        }
    }
    return b;
}

constexpr std::uint32_t kX86_64 = 0x01000007, kARM64 = 0x0100000c, kI386 = 7, kPPC = 18;

}  // namespace

TEST(KTMachOTest, ThinImagesInEitherByteOrder) {
    std::vector<std::uint8_t> le;
    putLE(le, 0xfeedfacf);  // a little-endian 64-bit image as written on Intel
    putLE(le, kX86_64);
    putLE(le, 3);
    EXPECT_EQ(KTMachO::cpuTypes(le.data(), le.size()), std::vector<std::int32_t>{0x01000007});

    std::vector<std::uint8_t> be;
    putBE(be, 0xfeedface);  // a big-endian 32-bit PowerPC image
    putBE(be, kPPC);
    EXPECT_EQ(KTMachO::labels(KTMachO::cpuTypes(be.data(), be.size())),
              std::vector<std::string>{"32-bit (PowerPC)"});
}

TEST(KTMachOTest, FatImagesListSlicesInOrderAndSkipUnnamedTypes) {
    auto universal = fat({kX86_64, kARM64});
    EXPECT_EQ(KTMachO::labels(KTMachO::cpuTypes(universal.data(), universal.size())),
              std::vector<std::string>{"64-bit (Intel)"});

    auto old = fat({kPPC, kI386, 0x01000012}, true);
    EXPECT_EQ(KTMachO::labels(KTMachO::cpuTypes(old.data(), old.size())),
              (std::vector<std::string>{"32-bit (PowerPC)", "32-bit (Intel)", "64-bit (PowerPC)"}));

    auto armOnly = fat({kARM64});
    EXPECT_EQ(KTMachO::cpuTypes(armOnly.data(), armOnly.size()).size(), 1u);
    EXPECT_TRUE(KTMachO::labels(KTMachO::cpuTypes(armOnly.data(), armOnly.size())).empty());
}

TEST(KTMachOTest, HostileHeadersYieldNothing) {
    // A Java class file: the same magic, then its minor and major version.
    std::vector<std::uint8_t> java;
    putBE(java, 0xcafebabe);
    putBE(java, 0x00000034);
    java.resize(200, 0);
    EXPECT_TRUE(KTMachO::cpuTypes(java.data(), java.size()).empty());

    // A slice table cut short by the end of the file.
    auto cut = fat({kX86_64, kI386});
    cut.resize(cut.size() - 4);
    EXPECT_TRUE(KTMachO::cpuTypes(cut.data(), cut.size()).empty());

    EXPECT_TRUE(KTMachO::cpuTypes(nullptr, 0).empty());
    std::uint8_t four[] = {0xfe, 0xed, 0xfa, 0xce};
    EXPECT_TRUE(KTMachO::cpuTypes(four, sizeof four).empty());
    EXPECT_TRUE(KTMachO::cpuTypesOfFile("/nonexistent/binary").empty());
}
