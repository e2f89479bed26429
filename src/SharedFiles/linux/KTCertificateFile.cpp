#include "SharedFiles/linux/KTCertificateFile.h"

#include <cerrno>

#include "SharedFiles/linux/KTServiceModule.h"

namespace KTCertificateFile {

Status commonNames(const std::string& path, std::vector<std::string>& names, long* code) {
    const KTServiceTable* table = KTServiceModule::services();
    if (!table) {
        // Without OpenSSL no file can be read as a certificate.
        if (code) *code = ELIBACC;
        return Status::Unreadable;
    }
    return static_cast<Status>(table->certificateNames(path, names, code));
}

}  // namespace KTCertificateFile
