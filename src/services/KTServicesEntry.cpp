// The one symbol ambrel-services.so exports: its table of calls.

#include "SharedFiles/linux/KTServiceTable.h"
#include "services/KTCurlPost.h"
#include "services/KTGioFileManager.h"
#include "services/KTLibsecretStore.h"
#include "services/KTLibzipArchive.h"
#include "services/KTOpenSSLCertificates.h"

namespace {

KTServiceTable makeTable() {
    KTServiceTable t;
    t.secretSearch = KTLibsecretStore::search;
    t.secretOf = KTLibsecretStore::secretOf;
    t.secretCreate = KTLibsecretStore::create;
    t.secretRemove = KTLibsecretStore::remove;
    t.secretReplace = KTLibsecretStore::replaceSecret;
    t.certificateNames = [](const std::string& path, std::vector<std::string>& names, long* code) {
        return static_cast<int>(KTOpenSSLCertificates::commonNames(path, names, code));
    };
    t.zipCompress = KTLibzipArchive::compress;
    t.httpsPrepare = [](const KTQCRequest& request, const std::atomic<bool>* cancelled) {
        return static_cast<void*>(KTCurlPost::prepare(request, cancelled));
    };
    t.httpsPerform = [](void* post) { return KTCurlPost::perform(static_cast<KTCurlPost*>(post)); };
    t.showItems = [](const std::string& path, std::string* error) {
        return static_cast<int>(KTGioFileManager::showItems(path, error));
    };
    return t;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const KTServiceTable* ambrel_services_table() {
    static const KTServiceTable table = makeTable();
    return &table;
}
