#include "SharedFiles/KTFinderInfo.h"

#include <sys/xattr.h>

#include <cstring>

namespace {
#ifdef __APPLE__
const char* kAttribute = "com.apple.FinderInfo";
#else
const char* kAttribute = "user.com.apple.FinderInfo";
#endif
}  // namespace

std::uint32_t KTFinderInfo::typeCode(const std::string& path) {
    unsigned char info[32] = {};
#ifdef __APPLE__
    ssize_t n = ::getxattr(path.c_str(), kAttribute, info, sizeof info, 0, XATTR_NOFOLLOW);
#else
    ssize_t n = ::lgetxattr(path.c_str(), kAttribute, info, sizeof info);
#endif
    if (n < 4) return 0;
    return (std::uint32_t(info[0]) << 24) | (std::uint32_t(info[1]) << 16) |
           (std::uint32_t(info[2]) << 8) | std::uint32_t(info[3]);
}

bool KTFinderInfo::setTypeCode(const std::string& path, std::uint32_t code) {
    unsigned char info[32] = {};
    info[0] = code >> 24, info[1] = code >> 16, info[2] = code >> 8, info[3] = code;
#ifdef __APPLE__
    return ::setxattr(path.c_str(), kAttribute, info, sizeof info, 0, XATTR_NOFOLLOW) == 0;
#else
    return ::lsetxattr(path.c_str(), kAttribute, info, sizeof info, 0) == 0;
#endif
}
