#pragma once

#include <string>
#include <vector>

#include "SharedFiles/linux/KTCertificateFile.h"

/// Certificate files read with OpenSSL, inside ambrel-services.so: the
/// work behind KTCertificateFile::commonNames, which documents it.
namespace KTOpenSSLCertificates {

KTCertificateFile::Status commonNames(const std::string& path, std::vector<std::string>& names,
                                      long* code);

}  // namespace KTOpenSSLCertificates
