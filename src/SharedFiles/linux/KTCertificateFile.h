#pragma once

#include <string>
#include <vector>

/// Certificate files read with OpenSSL: the Secret Service holds no
/// certificates, so the keychain's certificate list is a folder of files.
namespace KTCertificateFile {

enum class Status { Ok, Unreadable, NotACertificate };

/// The common names of the certificates in one file: every certificate of a
/// PEM file, the one of a DER file, the owner's of a PKCS#12 file without a
/// password (".p12", ".pfx"). `code` is errno or OpenSSL's error code when
/// the status is not Ok.
Status commonNames(const std::string& path, std::vector<std::string>& names, long* code);

}  // namespace KTCertificateFile
