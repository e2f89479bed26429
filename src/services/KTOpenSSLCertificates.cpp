#include "services/KTOpenSSLCertificates.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <memory>

namespace KTOpenSSLCertificates {

using Status = KTCertificateFile::Status;
namespace {

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;

struct BioFree {
    void operator()(BIO* b) const { BIO_free(b); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

/// The last common-name entry of the subject (the most specific one), as
/// UTF-8; empty when the subject has none.
std::string commonName(X509* certificate) {
    X509_NAME* subject = X509_get_subject_name(certificate);
    if (!subject) return {};
    int index = -1, last = -1;
    while ((index = X509_NAME_get_index_by_NID(subject, NID_commonName, index)) >= 0) last = index;
    if (last < 0) return {};
    ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, last));
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, data);
    if (length < 0) return {};
    std::string out(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return out;
}

bool hasExtension(const std::string& path, std::initializer_list<const char*> extensions) {
    const auto dot = path.rfind('.');
    if (dot == std::string::npos) return false;
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const char* e : extensions)
        if (ext == e) return true;
    return false;
}

long lastOpenSSLError() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    return code ? static_cast<long>(code) : -1;
}

}  // namespace

Status commonNames(const std::string& path, std::vector<std::string>& names, long* code) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (code) *code = errno;
        return Status::Unreadable;
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        if (code) *code = errno;
        return Status::Unreadable;
    }
    ERR_clear_error();
    std::vector<X509Ptr> found;
    if (bytes.find("-----BEGIN") != std::string::npos) {
        BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
        while (X509* x = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))
            found.emplace_back(x);
        ERR_clear_error();  // the end of the file reads as an error
    } else if (hasExtension(path, {"p12", "pfx"})) {
        BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
        PKCS12* p12 = d2i_PKCS12_bio(bio.get(), nullptr);
        if (p12) {
            EVP_PKEY* key = nullptr;
            X509* certificate = nullptr;
            // Without a password: both the empty one and none are tried by OpenSSL.
            if (PKCS12_parse(p12, "", &key, &certificate, nullptr) && certificate)
                found.emplace_back(certificate);
            EVP_PKEY_free(key);
            PKCS12_free(p12);
        }
    } else {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(bytes.data());
        if (X509* x = d2i_X509(nullptr, &p, static_cast<long>(bytes.size()))) found.emplace_back(x);
    }
    if (found.empty()) {
        if (code) *code = lastOpenSSLError();
        return Status::NotACertificate;
    }
    for (const auto& certificate : found) {
        std::string name = commonName(certificate.get());
        if (!name.empty()) names.push_back(std::move(name));
    }
    return Status::Ok;
}

}  // namespace KTOpenSSLCertificates
